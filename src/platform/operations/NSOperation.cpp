#include "platform/operations/NSOperation.h"

#include <algorithm>
#include <stdexcept>

#include "platform/operations/NSOperationQueue.h"
#include "platform/operations/NSRunLoop.h"
#include "platform/operations/ZBCompletionProvider.h"

namespace {
const std::string kIsCancelled = "isCancelled";
const std::string kIsExecuting = "isExecuting";
const std::string kIsFinished = "isFinished";
}  // namespace

std::shared_ptr<NSOperation> NSOperation::create() { return std::make_shared<NSOperation>(); }

NSOperation::NSOperation() = default;
NSOperation::~NSOperation() = default;

void NSOperation::start() {
  {
    ZBMutexLock lock(_mutex);
    if (_started) throw std::logic_error("NSOperation: started twice");
    if (!isReady()) throw std::logic_error("NSOperation: started before its dependencies finished");
    _started = true;
  }
  if (isCancelled()) {
    _finish();
    return;
  }
  willChangeValueForKey(kIsExecuting);
  _state.store(State::Executing);
  didChangeValueForKey(kIsExecuting);
  // One bad input must not take the process down: an exception ends this
  // operation with an error instead of unwinding into the queue's thread.
  NSErrorPtr thrown;
  try {
    main();
  } catch (...) {
    thrown = ZBErrorFromCurrentException();
  }
  if (thrown) {
    {
      ZBMutexLock lock(_mutex);
      _thrownError = thrown;
    }
    mainDidThrow(thrown);
    _finish();
    return;
  }
  if (!isAsynchronous()) _finish();
}

void NSOperation::mainDidThrow(const NSErrorPtr&) {}

NSErrorPtr NSOperation::thrownError() const {
  ZBMutexLock lock(_mutex);
  return _thrownError;
}

void NSOperation::finish() { _finish(); }

void NSOperation::_finish() {
  bool wasExecuting;
  {
    ZBMutexLock lock(_mutex);
    if (_finishing || !_started) return;
    _finishing = true;
    wasExecuting = _state.load() == State::Executing;
  }
  auto self = _self();  // observers and hooks may drop the last outside reference
  willChangeValueForKey(kIsFinished);
  if (wasExecuting) willChangeValueForKey(kIsExecuting);
  std::vector<std::weak_ptr<NSOperation>> dependents;
  std::vector<std::function<void()>> hooks;
  std::function<void()> completion;
  std::shared_ptr<NSOperationQueue> queue;
  {
    ZBMutexLock lock(_mutex);
    _state.store(State::Finished);
    dependents.swap(_dependents);
    hooks.swap(_finishHooks);
    completion = std::move(_completionBlock);
    _completionBlock = nullptr;
    queue = std::move(_queue);
    _queue = nullptr;
  }
  _finishedCondition.notify_all();
  if (wasExecuting) didChangeValueForKey(kIsExecuting);
  didChangeValueForKey(kIsFinished);
  if (_mainThreadWaiters.load() > 0) NSRunLoop::mainRunLoop()->wakeUp();

  for (const auto& weakDependent : dependents) {
    if (auto dependent = weakDependent.lock()) dependent->_dependencyFinished();
  }
  if (queue) queue->_operationFinished(self);
  if (completion) completion();
  for (auto& hook : hooks) hook();
}

void NSOperation::cancel() {
  {
    ZBMutexLock lock(_mutex);
    if (_cancelling || _finishing) return;
    _cancelling = true;
  }
  willChangeValueForKey(kIsCancelled);
  _cancelled.store(true);
  didChangeValueForKey(kIsCancelled);
  // A cancelled operation is ready whatever its dependencies do.
  _dispatchIfReady();
}

void NSOperation::addDependency(const std::shared_ptr<NSOperation>& operation) {
  if (!operation) return;
  if (operation.get() == this) throw std::logic_error("NSOperation: an operation cannot depend on itself");
  {
    ZBMutexLock lock(_mutex);
    if (std::find(_dependencies.begin(), _dependencies.end(), operation) != _dependencies.end()) return;
    _dependencies.push_back(operation);
  }
  // Registering under the dependency's lock orders it against its _finish:
  // either we are in the list it swaps out, or it was already finished.
  ZBMutexLock lock(operation->_mutex);
  if (operation->_state.load() == State::Finished) return;
  operation->_dependents.push_back(std::static_pointer_cast<NSOperation>(shared_from_this()));
  _pendingDependencies.fetch_add(1);
}

void NSOperation::removeDependency(const std::shared_ptr<NSOperation>& operation) {
  if (!operation) return;
  {
    ZBMutexLock lock(_mutex);
    auto it = std::find(_dependencies.begin(), _dependencies.end(), operation);
    if (it == _dependencies.end()) return;
    _dependencies.erase(it);
  }
  bool wasPending = false;
  {
    ZBMutexLock lock(operation->_mutex);
    auto& dependents = operation->_dependents;
    auto it = std::find_if(dependents.begin(), dependents.end(),
                           [this](const std::weak_ptr<NSOperation>& w) { return w.lock().get() == this; });
    if (it != dependents.end()) {
      dependents.erase(it);
      wasPending = true;
    }
  }
  if (wasPending) _dependencyFinished();
}

std::vector<std::shared_ptr<NSOperation>> NSOperation::dependencies() const {
  ZBMutexLock lock(_mutex);
  return _dependencies;
}

void NSOperation::_dependencyFinished() {
  if (_pendingDependencies.fetch_sub(1) == 1) _dispatchIfReady();
}

void NSOperation::_dispatchIfReady() {
  if (_dispatched.load() || !isReady()) return;
  std::shared_ptr<NSOperationQueue> queue;
  {
    ZBMutexLock lock(_mutex);
    if (_started) return;
    queue = _queue;
  }
  if (!queue || _dispatched.exchange(true)) return;
  queue->_operationReady(_self());
}

void NSOperation::_whenFinished(std::function<void()> hook) {
  {
    ZBMutexLock lock(_mutex);
    if (_state.load() != State::Finished) {
      _finishHooks.push_back(std::move(hook));
      return;
    }
  }
  hook();
}

bool NSOperation::_isQueuedOrStarted() const {
  ZBMutexLock lock(_mutex);
  return _queue || _started;
}

void NSOperation::waitUntilFinished() {
  if (isFinished()) return;
  if (NSRunLoop::isMainThread()) {
    _mainThreadWaiters.fetch_add(1);
    NSRunLoop::mainRunLoop()->runUntil([this] { return isFinished(); });
    _mainThreadWaiters.fetch_sub(1);
    return;
  }
  ZBMutexLock lock(_mutex);
  lock.wait(_finishedCondition, [this] { return _state.load() == State::Finished; });
}

void NSOperation::setCompletionBlock(std::function<void()> block) {
  ZBMutexLock lock(_mutex);
  // Set after the end it would never run; the platform ignores it too.
  if (_state.load() != State::Finished) _completionBlock = std::move(block);
}

std::string NSOperation::name() const {
  ZBMutexLock lock(_mutex);
  return _name;
}

void NSOperation::setName(std::string name) {
  ZBMutexLock lock(_mutex);
  _name = std::move(name);
}

Value NSOperation::valueForKey(const std::string& key) const {
  if (key == kIsCancelled || key == "cancelled") return isCancelled();
  if (key == kIsExecuting || key == "executing") return isExecuting();
  if (key == kIsFinished || key == "finished") return isFinished();
  if (key == "isReady" || key == "ready") return isReady();
  if (key == "isAsynchronous" || key == "asynchronous") return isAsynchronous();
  if (key == "name") return name();
  return NSObject::valueForKey(key);
}

std::string NSOperation::description() const {
  const char* state = isFinished() ? "finished" : isExecuting() ? "executing" : "pending";
  std::string text = "<" + className();
  if (auto n = name(); !n.empty()) text += " '" + n + "'";
  text += std::string(" ") + state;
  if (isCancelled()) text += ", cancelled";
  return text + ">";
}
