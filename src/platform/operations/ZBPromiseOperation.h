#pragma once
// ZBPromiseOperation: a work operation that runs one callable after its
// dependencies and replays its outcome through its completion provider.
//
// The callable runs once, on the operation's thread; it returns the result, or
// absent and an error through its slot. Its usual job is to turn the results
// of its dependencies into store changes: it reads their providers passing its
// own error slot straight through, so a dependency's error becomes its own,
// unchanged. It runs whether its dependencies succeeded or failed. A callable
// that throws yields absent and ZBConcurrentOperationExceptionError.
//
// Lifetime: held by std::shared_ptr; the callable is released once it has
// run. Thread-safety: as NSOperation; completionProvider() is safe from any
// thread.

#include <functional>
#include <memory>

#include "platform/operations/NSOperation.h"
#include "platform/operations/ZBCompletionProvider.h"
#include "platform/foundation/ZBMutex.h"

class ZBPromiseOperation : public NSOperation, public ZBCompletionProviding {
public:
  using Block = std::function<Value(NSErrorPtr* error)>;

  // A new operation, not yet started.
  static std::shared_ptr<ZBPromiseOperation> promiseOperationWithBlock(Block block);

  // After the run: returns what the callable returned, or on absent stores
  // the error it reported (possibly null). Before the run, or if it was
  // cancelled before it ran, see ZBMissingCompletionProvider.
  ZBCompletionProvider completionProvider() const override;
  std::string className() const override { return "ZBPromiseOperation"; }

  explicit ZBPromiseOperation(Block block);  // use promiseOperationWithBlock

protected:
  void main() override;
  void mainDidThrow(const NSErrorPtr& error) override;

private:
  mutable ZBMutex _resultMutex;
  Block _block ZB_GUARDED_BY(_resultMutex);
  ZBCompletionProvider _provider ZB_GUARDED_BY(_resultMutex);
};
