#include "platform/operations/NSOperationQueue.h"

#include <stdexcept>

#include "platform/operations/NSBlockOperation.h"
#include "platform/operations/NSOperation.h"
#include "platform/operations/NSRunLoop.h"
#include "platform/operations/impl/ZBThreadPool.h"

namespace {
thread_local NSOperationQueue* tCurrentQueue = nullptr;

class CurrentQueueScope {
public:
  explicit CurrentQueueScope(NSOperationQueue* queue) : _previous(tCurrentQueue) { tCurrentQueue = queue; }
  ~CurrentQueueScope() { tCurrentQueue = _previous; }
  CurrentQueueScope(const CurrentQueueScope&) = delete;
  CurrentQueueScope& operator=(const CurrentQueueScope&) = delete;

private:
  NSOperationQueue* _previous;
};
}  // namespace

NSOperationQueue::NSOperationQueue(bool isMainQueue) : _isMainQueue(isMainQueue) {}
NSOperationQueue::~NSOperationQueue() = default;

std::shared_ptr<NSOperationQueue> NSOperationQueue::create() { return std::make_shared<NSOperationQueue>(); }

const std::shared_ptr<NSOperationQueue>& NSOperationQueue::mainQueue() {
  // Never destroyed, like the main run loop it drains on.
  static const auto* queue = [] {
    auto* created = new std::shared_ptr<NSOperationQueue>(std::make_shared<NSOperationQueue>(true));
    (*created)->setName("NSOperationQueue Main Queue");
    return created;
  }();
  return *queue;
}

std::shared_ptr<NSOperationQueue> NSOperationQueue::currentQueue() {
  return tCurrentQueue ? tCurrentQueue->_self() : nullptr;
}

void NSOperationQueue::addOperation(const std::shared_ptr<NSOperation>& operation) {
  if (!operation) return;
  {
    ZBMutexLock lock(_mutex);
    {
      ZBMutexLock operationLock(operation->_mutex);
      if (operation->_queue || operation->_started || operation->_finishing) {
        throw std::logic_error("NSOperationQueue: operation is already queued, running or finished");
      }
      operation->_queue = _self();
    }
    operation->_queuePosition = _operations.insert(_operations.end(), operation);
  }
  operation->_dispatchIfReady();
}

void NSOperationQueue::addOperations(const std::vector<std::shared_ptr<NSOperation>>& operations,
                                     bool waitUntilFinished) {
  for (const auto& operation : operations) addOperation(operation);
  if (!waitUntilFinished) return;
  for (const auto& operation : operations) {
    if (operation) operation->waitUntilFinished();
  }
}

std::shared_ptr<NSBlockOperation> NSOperationQueue::addOperationWithBlock(std::function<void()> block) {
  auto operation = NSBlockOperation::blockOperationWithBlock(std::move(block));
  addOperation(operation);
  return operation;
}

void NSOperationQueue::cancelAllOperations() {
  for (const auto& operation : operations()) operation->cancel();
}

void NSOperationQueue::waitUntilAllOperationsAreFinished() {
  if (NSRunLoop::isMainThread()) {
    _mainThreadWaiters.fetch_add(1);
    NSRunLoop::mainRunLoop()->runUntil([this] { return operationCount() == 0; });
    _mainThreadWaiters.fetch_sub(1);
    return;
  }
  ZBMutexLock lock(_mutex);
  lock.wait(_emptied, [this] {
    _mutex.assertHeld();
    return _operations.empty();
  });
}

std::vector<std::shared_ptr<NSOperation>> NSOperationQueue::operations() const {
  ZBMutexLock lock(_mutex);
  return {_operations.begin(), _operations.end()};
}

std::size_t NSOperationQueue::operationCount() const {
  ZBMutexLock lock(_mutex);
  return _operations.size();
}

int NSOperationQueue::maxConcurrentOperationCount() const {
  if (_isMainQueue) return 1;
  ZBMutexLock lock(_mutex);
  return _maxConcurrent;
}

void NSOperationQueue::setMaxConcurrentOperationCount(int count) {
  if (_isMainQueue) return;
  std::vector<std::shared_ptr<NSOperation>> launch;
  {
    ZBMutexLock lock(_mutex);
    _maxConcurrent = count < 0 ? NSOperationQueueDefaultMaxConcurrentOperationCount : std::max(count, 1);
    launch = _takeLaunchable();
  }
  for (const auto& operation : launch) _launch(operation);
}

bool NSOperationQueue::isSuspended() const {
  ZBMutexLock lock(_mutex);
  return _suspended;
}

void NSOperationQueue::setSuspended(bool suspended) {
  std::vector<std::shared_ptr<NSOperation>> launch;
  {
    ZBMutexLock lock(_mutex);
    _suspended = suspended;
    launch = _takeLaunchable();
  }
  for (const auto& operation : launch) _launch(operation);
}

std::string NSOperationQueue::name() const {
  ZBMutexLock lock(_mutex);
  return _name;
}

void NSOperationQueue::setName(std::string name) {
  ZBMutexLock lock(_mutex);
  _name = std::move(name);
}

std::vector<std::shared_ptr<NSOperation>> NSOperationQueue::_takeLaunchable() {
  std::vector<std::shared_ptr<NSOperation>> launch;
  while (!_suspended && !_ready.empty() &&
         (_isMainQueue || _maxConcurrent < 0 || _running < static_cast<std::size_t>(_maxConcurrent))) {
    auto operation = std::move(_ready.front());
    _ready.pop_front();
    operation->_launchedByQueue = true;
    ++_running;
    launch.push_back(std::move(operation));
  }
  return launch;
}

void NSOperationQueue::_operationReady(const std::shared_ptr<NSOperation>& operation) {
  std::vector<std::shared_ptr<NSOperation>> launch;
  {
    ZBMutexLock lock(_mutex);
    _ready.push_back(operation);
    launch = _takeLaunchable();
  }
  for (const auto& op : launch) _launch(op);
}

void NSOperationQueue::_launch(const std::shared_ptr<NSOperation>& operation) {
  auto run = [queue = _self(), operation] { queue->_run(operation); };
  if (_isMainQueue) {
    NSRunLoop::mainRunLoop()->performBlock(std::move(run));
  } else {
    ZBThreadPool::shared().submit(std::move(run));
  }
}

void NSOperationQueue::_run(const std::shared_ptr<NSOperation>& operation) {
  bool startedElsewhere;
  {
    ZBMutexLock lock(operation->_mutex);
    startedElsewhere = operation->_started;
  }
  if (startedElsewhere || !operation->isReady()) {
    // Someone called start() on a queued operation, or a dependency was added
    // after it was queued: give the slot back, and in the second case wait
    // for readiness again.
    std::vector<std::shared_ptr<NSOperation>> launch;
    {
      ZBMutexLock lock(_mutex);
      if (operation->_launchedByQueue) {
        operation->_launchedByQueue = false;
        --_running;
      }
      launch = _takeLaunchable();
    }
    for (const auto& op : launch) _launch(op);
    if (!startedElsewhere) {
      operation->_dispatched.store(false);
      operation->_dispatchIfReady();
    }
    return;
  }
  CurrentQueueScope scope(this);
  operation->start();
}

void NSOperationQueue::_operationFinished(const std::shared_ptr<NSOperation>& operation) {
  std::vector<std::shared_ptr<NSOperation>> launch;
  bool emptied;
  {
    ZBMutexLock lock(_mutex);
    _operations.erase(operation->_queuePosition);
    operation->_queuePosition = {};
    if (operation->_launchedByQueue) {
      operation->_launchedByQueue = false;
      --_running;
    }
    launch = _takeLaunchable();
    emptied = _operations.empty();
  }
  if (emptied) {
    _emptied.notify_all();
    if (_mainThreadWaiters.load() > 0) NSRunLoop::mainRunLoop()->wakeUp();
  }
  for (const auto& op : launch) _launch(op);
}
