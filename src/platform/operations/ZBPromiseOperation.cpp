#include "platform/operations/ZBPromiseOperation.h"

ZBPromiseOperation::ZBPromiseOperation(Block block) : _block(std::move(block)) {}

std::shared_ptr<ZBPromiseOperation> ZBPromiseOperation::promiseOperationWithBlock(Block block) {
  return std::make_shared<ZBPromiseOperation>(std::move(block));
}

ZBCompletionProvider ZBPromiseOperation::completionProvider() const {
  {
    ZBMutexLock lock(_resultMutex);
    if (_provider) return _provider;
  }
  return ZBMissingCompletionProvider(*this);
}

void ZBPromiseOperation::main() {
  Block block;
  {
    ZBMutexLock lock(_resultMutex);
    block = std::move(_block);
    _block = nullptr;
  }
  NSErrorPtr error;
  Value result = block ? block(&error) : Value();
  block = nullptr;
  ZBMutexLock lock(_resultMutex);
  _provider = ZBCompletionProviderWithResult(std::move(result), std::move(error));
}

void ZBPromiseOperation::mainDidThrow(const NSErrorPtr& error) {
  ZBMutexLock lock(_resultMutex);
  _provider = ZBCompletionProviderWithResult({}, error);
}
