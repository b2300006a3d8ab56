#pragma once
// NSOperation: one unit of work with a life of pending → executing →
// finished, dependencies on other operations (also on other queues, the main
// queue included) and cancellation.
//
// - An operation is ready when every dependency has finished, however it
//   ended (succeeded, failed or cancelled), or when it was cancelled.
// - start() runs the body (main()) on the calling thread; a queue calls it for
//   you. A cancelled operation that starts finishes at once without running
//   its body; a queue starts a cancelled operation as soon as it can, even
//   before its dependencies finished.
// - Synchronous operations finish when main() returns. Asynchronous ones
//   (isAsynchronous() true) finish when they call finish(), from any thread.
// - The keys "isFinished", "isExecuting" and "isCancelled" are observable
//   (key-value observation); their notifications run on the thread that made
//   the change. "isReady" is readable but not observed.
// - Dependencies must not form a cycle (its members never become ready). Add
//   them before the operation is queued or started.
// - An exception that escapes main() does not leave the thread: the operation
//   finishes (an asynchronous one too), thrownError() then holds an error
//   naming it, and subclasses that publish a result publish that error.
//
// Lifetime: held by std::shared_ptr (create()); an operation keeps its
// dependencies alive, and a queue keeps its operations alive until they
// finish. Thread-safety: every public method is thread-safe.

#include <atomic>
#include <condition_variable>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "platform/foundation/NSError.h"
#include "platform/foundation/NSObject.h"
#include "platform/foundation/ZBMutex.h"

class NSOperationQueue;

class NSOperation : public NSObject {
public:
  // A plain operation with an empty body (useful as a join point, or as a
  // placeholder handed back for a refused request).
  static std::shared_ptr<NSOperation> create();
  NSOperation();
  ~NSOperation() override;

  // Runs the operation on the calling thread. Starting an operation twice, or
  // one that is not ready, is a programming error (std::logic_error).
  void start();
  // Sets isCancelled. A pending operation then finishes without running its
  // body when started; a running one goes on and may read isCancelled. No
  // effect on a finished operation.
  void cancel();

  bool isCancelled() const { return _cancelled.load(); }
  bool isExecuting() const { return _state.load() == State::Executing; }
  bool isFinished() const { return _state.load() == State::Finished; }
  bool isReady() const { return _pendingDependencies.load() == 0 || isCancelled(); }
  virtual bool isAsynchronous() const { return false; }

  // Makes this operation wait for operation. Adding the same dependency twice
  // adds it once; depending on oneself is a programming error
  // (std::logic_error).
  void addDependency(const std::shared_ptr<NSOperation>& operation);
  void removeDependency(const std::shared_ptr<NSOperation>& operation);
  std::vector<std::shared_ptr<NSOperation>> dependencies() const;

  // Blocks until the operation has finished. On the main thread it runs the
  // main run loop meanwhile instead of blocking, so waiting there for an
  // operation that needs the main queue (or depends on one that does) does not
  // deadlock; main-queue work that runs during the wait may interleave with
  // the caller's own main-queue operation. Waiting for an operation that is
  // never started never returns.
  void waitUntilFinished();

  // Runs once after the operation finished, on the thread that finished it.
  void setCompletionBlock(std::function<void()> block);

  std::string name() const;
  void setName(std::string name);

  // The error made from an exception that escaped main(), once it has
  // (domain ZBConcurrentOperationErrorDomain, code
  // ZBConcurrentOperationExceptionError); null otherwise.
  NSErrorPtr thrownError() const;

  // "isCancelled", "isExecuting", "isFinished", "isReady", "isAsynchronous"
  // (also without the "is" prefix, in lower case).
  Value valueForKey(const std::string& key) const override;
  std::string className() const override { return "NSOperation"; }
  std::string description() const override;

protected:
  // The body. The base does nothing.
  virtual void main() {}
  // Ends an asynchronous operation; calls after the first are ignored. Also
  // usable from inside main().
  void finish();
  // Called on the operation's thread when main() threw, before it finishes;
  // a subclass that publishes a result publishes error. The base does
  // nothing.
  virtual void mainDidThrow(const NSErrorPtr& error);

private:
  friend class NSOperationQueue;
  friend class ZBConcurrentOperation;
  enum class State : unsigned char { Pending, Executing, Finished };

  std::shared_ptr<NSOperation> _self() { return std::static_pointer_cast<NSOperation>(shared_from_this()); }
  void _finish();
  void _dependencyFinished();
  // Hands the operation to its queue once it is both queued and ready.
  void _dispatchIfReady();
  // Runs hook after the operation finished (at once if it already has).
  void _whenFinished(std::function<void()> hook);
  bool _isQueuedOrStarted() const;

  mutable ZBMutex _mutex;
  std::condition_variable _finishedCondition;
  std::atomic<State> _state{State::Pending};
  std::atomic<bool> _cancelled{false};
  std::atomic<int> _pendingDependencies{0};
  std::atomic<bool> _dispatched{false};
  std::atomic<int> _mainThreadWaiters{0};
  bool _started ZB_GUARDED_BY(_mutex) = false;
  bool _finishing ZB_GUARDED_BY(_mutex) = false;
  bool _cancelling ZB_GUARDED_BY(_mutex) = false;
  std::vector<std::shared_ptr<NSOperation>> _dependencies ZB_GUARDED_BY(_mutex);
  std::vector<std::weak_ptr<NSOperation>> _dependents ZB_GUARDED_BY(_mutex);
  std::vector<std::function<void()>> _finishHooks ZB_GUARDED_BY(_mutex);
  std::function<void()> _completionBlock ZB_GUARDED_BY(_mutex);
  std::shared_ptr<NSOperationQueue> _queue ZB_GUARDED_BY(_mutex);
  std::string _name ZB_GUARDED_BY(_mutex);
  NSErrorPtr _thrownError ZB_GUARDED_BY(_mutex);
  // Guarded by the queue's mutex: where the queue keeps this operation, and
  // whether the queue launched it (it then holds one of the queue's slots).
  std::list<std::shared_ptr<NSOperation>>::iterator _queuePosition;
  bool _launchedByQueue = false;
};
