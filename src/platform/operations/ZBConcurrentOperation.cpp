#include "platform/operations/ZBConcurrentOperation.h"

#include "platform/operations/NSBlockOperation.h"
#include "platform/operations/NSOperationQueue.h"

ZBConcurrentOperation::ZBConcurrentOperation() = default;

void ZBConcurrentOperation::setupOperations(const ZBAddWorkOperation&) {}

ZBCompletionProvider ZBConcurrentOperation::completionProvider() const {
  {
    ZBMutexLock lock(_providerMutex);
    if (_provider) return _provider;
  }
  return ZBMissingCompletionProvider(*this);
}

void ZBConcurrentOperation::setCompletionProvider(ZBCompletionProvider provider) {
  ZBMutexLock lock(_providerMutex);
  if (!_threw) _provider = std::move(provider);
}

void ZBConcurrentOperation::_failWithException(NSErrorPtr error) {
  ZBMutexLock lock(_providerMutex);
  if (_threw) return;
  _threw = true;
  _provider = ZBCompletionProviderWithResult({}, std::move(error));
}

void ZBConcurrentOperation::complete(Value result, NSErrorPtr error) {
  setCompletionProvider(ZBCompletionProviderWithResult(std::move(result), std::move(error)));
}

void ZBConcurrentOperation::main() {
  _keepAlive = _selfAsOwner();
  _workQueue = NSOperationQueue::create();
  _outstanding.store(1);  // setupOperations itself
  std::weak_ptr<ZBConcurrentOperation> weakOwner = _keepAlive;
  ZBAddWorkOperation addWorkOperation = [weakOwner](const std::shared_ptr<NSOperation>& operation) {
    if (!operation) return;
    if (auto owner = weakOwner.lock()) owner->_addWork(operation);
  };
  try {
    setupOperations(addWorkOperation);
  } catch (...) {
    _failWithException(ZBErrorFromCurrentException());
  }
  _workFinished();
}

void ZBConcurrentOperation::_addWork(const std::shared_ptr<NSOperation>& operation) {
  // Track it only while the owner is unfinished; the count never climbs back
  // from zero.
  long count = _outstanding.load();
  while (count > 0 && !_outstanding.compare_exchange_weak(count, count + 1)) {
  }
  if (count > 0) {
    // The hook runs inside operation's own finish, so the raw pointer is live.
    operation->_whenFinished([this, work = operation.get()] {
      if (auto thrown = work->thrownError()) _failWithException(std::move(thrown));
      _workFinished();
    });
  }
  if (!operation->_isQueuedOrStarted()) _workQueue->addOperation(operation);
}

void ZBConcurrentOperation::_workFinished() {
  if (_outstanding.fetch_sub(1) != 1) return;
  auto keepAlive = std::move(_keepAlive);
  finish();
}

bool ZBConcurrentOperation::beginPhase() {
  if (!isCancelled()) return true;
  complete({}, ZBUserCancelledError());
  return false;
}

std::shared_ptr<ZBPromiseOperation> ZBConcurrentOperation::addPhase(
    const ZBAddWorkOperation& addWorkOperation, const std::vector<std::shared_ptr<NSOperation>>& operations,
    ZBPromiseOperation::Block body, std::function<void(const Value& result)> next) {
  auto promise = ZBPromiseOperation::promiseOperationWithBlock(std::move(body));
  for (const auto& operation : operations) {
    promise->addDependency(operation);
    addWorkOperation(operation);
  }
  addWorkOperation(promise);
  addContinuation(addWorkOperation, {promise},
                  [next = std::move(next)](const Array& results) { next(results.front()); });
  return promise;
}

std::shared_ptr<NSBlockOperation> ZBConcurrentOperation::addContinuation(
    const ZBAddWorkOperation& addWorkOperation, const std::vector<std::shared_ptr<NSOperation>>& operations,
    std::function<void(const Array& results)> next) {
  // `this` stays valid: the owner cannot finish before this block has run.
  auto continuation = NSBlockOperation::blockOperationWithBlock([this, operations, next = std::move(next)] {
    Array results;
    results.reserve(operations.size());
    for (const auto& operation : operations) {
      NSErrorPtr error;
      Value result = ZBOperationResult(*operation, &error);
      if (!result) {
        complete({}, std::move(error));
        return;
      }
      results.push_back(std::move(result));
    }
    if (next) next(results);
  });
  for (const auto& operation : operations) continuation->addDependency(operation);
  addWorkOperation(continuation);
  return continuation;
}
