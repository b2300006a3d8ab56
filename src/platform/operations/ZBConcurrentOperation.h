#pragma once
// ZBConcurrentOperation: the base of every long-running job. When it starts
// it calls setupOperations() with an add-work-operation callback; the
// subclass lays out a plan of work operations, hands each to the callback, and
// publishes one result through setCompletionProvider() (normally from its last
// work operation).
//
// - Work operations run on a queue of the owner's own, with no width limit,
//   on background threads (see NSOperationQueue): work without a dependency
//   path between it may run at the same time, and work blocked on the network
//   never holds up the rest.
// - The callback stays valid for the owner's whole life and may be called from
//   inside running work to extend the plan. An operation handed over that is
//   already queued elsewhere (the main queue, say) stays there and is only
//   waited for.
// - The owner finishes once setupOperations() has returned and every
//   operation handed over, including those added later, has finished.
//   Operations handed over after that run but are not waited for.
// - Cancelling the owner only sets isCancelled: pending work still runs, and
//   the subclass checks isCancelled at each phase boundary (beginPhase()).
// - An exception that escapes setupOperations() or any work operation fails
//   the owner: its provider then yields ZBConcurrentOperationExceptionError,
//   whatever the plan sets afterwards.
// - A provider never set reads as ZBMissingCompletionProvider describes:
//   absent with ZBUserCancelledError() if the owner was cancelled (also when
//   it was cancelled before it started and so never ran its plan), otherwise
//   absent with ZBConcurrentOperationNoResultError.
//
// The protected helpers below are the standard completion and the standard
// phase, so that multi-step jobs do not repeat them.
//
// Lifetime: held by std::shared_ptr; while executing the owner keeps itself
// alive, so work blocks may capture `this`. Thread-safety: as NSOperation;
// completionProvider() and setCompletionProvider() are safe from any thread.

#include <functional>
#include <memory>
#include <vector>

#include "platform/operations/NSOperation.h"
#include "platform/operations/ZBCompletionProvider.h"
#include "platform/operations/ZBPromiseOperation.h"
#include "platform/foundation/ZBMutex.h"

class NSBlockOperation;

// Hands a work operation to its owner, which runs it and waits for it.
using ZBAddWorkOperation = std::function<void(const std::shared_ptr<NSOperation>& operation)>;

class ZBConcurrentOperation : public NSOperation, public ZBCompletionProviding {
public:
  bool isAsynchronous() const override { return true; }
  ZBCompletionProvider completionProvider() const override;
  std::string className() const override { return "ZBConcurrentOperation"; }

protected:
  ZBConcurrentOperation();

  // Lays out the plan. Called once, on the thread that starts the operation
  // (a background thread of its queue); must return without waiting for any
  // work. The base hands over nothing and sets no provider.
  virtual void setupOperations(const ZBAddWorkOperation& addWorkOperation);
  void setCompletionProvider(ZBCompletionProvider provider);

  // The standard completion: the provider returns result when present,
  // otherwise stores error and returns absent.
  void complete(Value result, NSErrorPtr error = nullptr);

  // The start of the standard phase: when cancelled, completes with
  // ZBUserCancelledError() and returns false, and the caller adds nothing
  // further; otherwise returns true (the caller then sets its status).
  bool beginPhase();

  // The rest of the standard phase: hands each of operations to the
  // callback, then a promise running body after all of them, then a block
  // operation after the promise that completes the owner with the promise's
  // error when it failed, or else calls next with its result (next typically
  // starts the next phase or completes). Returns the promise.
  std::shared_ptr<ZBPromiseOperation> addPhase(const ZBAddWorkOperation& addWorkOperation,
                                               const std::vector<std::shared_ptr<NSOperation>>& operations,
                                               ZBPromiseOperation::Block body,
                                               std::function<void(const Value& result)> next);

  // A block operation, handed to the callback, that runs after operations
  // (already handed over by the caller), reads their results in order,
  // completes the owner with the first error met, and otherwise calls next
  // with all results in the same order. Returns it.
  std::shared_ptr<NSBlockOperation> addContinuation(const ZBAddWorkOperation& addWorkOperation,
                                                     const std::vector<std::shared_ptr<NSOperation>>& operations,
                                                     std::function<void(const Array& results)> next);

  void main() final;

private:
  std::shared_ptr<ZBConcurrentOperation> _selfAsOwner() {
    return std::static_pointer_cast<ZBConcurrentOperation>(shared_from_this());
  }
  void _addWork(const std::shared_ptr<NSOperation>& operation);
  void _workFinished();
  void _failWithException(NSErrorPtr error);

  mutable ZBMutex _providerMutex;
  ZBCompletionProvider _provider ZB_GUARDED_BY(_providerMutex);
  bool _threw ZB_GUARDED_BY(_providerMutex) = false;  // the provider is then final
  std::shared_ptr<NSOperationQueue> _workQueue;  // set before setupOperations, then read-only
  std::shared_ptr<ZBConcurrentOperation> _keepAlive;
  // Unfinished work plus one while setupOperations() runs; 0 once finished.
  std::atomic<long> _outstanding{0};
};
