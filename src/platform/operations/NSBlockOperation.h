#pragma once
// NSBlockOperation: an operation whose body is one or more blocks.
//
// The blocks run one after another, in the order added, on the thread that
// runs the operation, and are released once they have run (so what they
// capture does not outlive the work). Adding a block after the operation
// started is a programming error (std::logic_error).
//
// Lifetime: held by std::shared_ptr. Thread-safety: as NSOperation.

#include <functional>
#include <memory>
#include <vector>

#include "platform/operations/NSOperation.h"
#include "platform/foundation/ZBMutex.h"

class NSBlockOperation : public NSOperation {
public:
  static std::shared_ptr<NSBlockOperation> blockOperationWithBlock(std::function<void()> block);
  void addExecutionBlock(std::function<void()> block);

  std::string className() const override { return "NSBlockOperation"; }

  explicit NSBlockOperation(std::function<void()> block);  // use blockOperationWithBlock

protected:
  void main() override;

private:
  ZBMutex _blocksMutex;
  std::vector<std::function<void()>> _blocks ZB_GUARDED_BY(_blocksMutex);
  bool _running ZB_GUARDED_BY(_blocksMutex) = false;
};
