#include "platform/operations/NSBlockOperation.h"

#include <stdexcept>

NSBlockOperation::NSBlockOperation(std::function<void()> block) {
  if (block) _blocks.push_back(std::move(block));
}

std::shared_ptr<NSBlockOperation> NSBlockOperation::blockOperationWithBlock(std::function<void()> block) {
  return std::make_shared<NSBlockOperation>(std::move(block));
}

void NSBlockOperation::addExecutionBlock(std::function<void()> block) {
  if (!block) return;
  ZBMutexLock lock(_blocksMutex);
  if (_running || isFinished()) throw std::logic_error("NSBlockOperation: block added after the operation started");
  _blocks.push_back(std::move(block));
}

void NSBlockOperation::main() {
  std::vector<std::function<void()>> blocks;
  {
    ZBMutexLock lock(_blocksMutex);
    _running = true;
    blocks.swap(_blocks);
  }
  for (auto& block : blocks) {
    block();
    block = nullptr;
  }
}
