#pragma once
// NSOperationQueue: runs operations once they are ready.
//
// Background queues run their operations on the process's shared pool of
// threads, which grows so that a blocked operation never holds up the ready
// ones behind it. With no width limit (the default) every ready operation
// starts at once. The main queue runs its operations one at a time on the
// main run loop, in the order they became ready; a nested run of the loop
// (waitUntilFinished on the main thread) may start the next one before the
// current one returns.
//
// An operation is kept by the queue from addOperation until it finishes;
// operationCount and operations() reflect exactly those.
//
// Lifetime: held by std::shared_ptr (create()); a queue with unfinished
// operations is kept alive by them. Thread-safety: every method is
// thread-safe.

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "platform/foundation/NSObject.h"
#include "platform/foundation/ZBMutex.h"

class NSOperation;
class NSBlockOperation;

inline constexpr int NSOperationQueueDefaultMaxConcurrentOperationCount = -1;

class NSOperationQueue : public NSObject {
public:
  static std::shared_ptr<NSOperationQueue> create();
  // The queue that drains on the main run loop.
  static const std::shared_ptr<NSOperationQueue>& mainQueue();
  // The queue of the operation running on the calling thread, or nullptr.
  static std::shared_ptr<NSOperationQueue> currentQueue();

  // Queues an operation. Adding one that is already queued (here or
  // elsewhere), running or finished is a programming error
  // (std::logic_error).
  void addOperation(const std::shared_ptr<NSOperation>& operation);
  void addOperations(const std::vector<std::shared_ptr<NSOperation>>& operations, bool waitUntilFinished);
  // Wraps block in an NSBlockOperation, queues it and returns it.
  std::shared_ptr<NSBlockOperation> addOperationWithBlock(std::function<void()> block);

  // Cancels every operation the queue holds now.
  void cancelAllOperations();
  // Blocks until the queue holds no operation. On the main thread it runs the
  // main run loop meanwhile (see NSOperation::waitUntilFinished).
  void waitUntilAllOperationsAreFinished();

  std::vector<std::shared_ptr<NSOperation>> operations() const;
  std::size_t operationCount() const;

  // -1 (NSOperationQueueDefaultMaxConcurrentOperationCount) means no limit;
  // 0 is taken as 1. The main queue reports 1 and ignores changes.
  int maxConcurrentOperationCount() const;
  void setMaxConcurrentOperationCount(int count);
  // A suspended queue starts no further operation; running ones go on.
  bool isSuspended() const;
  void setSuspended(bool suspended);

  std::string name() const;
  void setName(std::string name);
  std::string className() const override { return "NSOperationQueue"; }

  explicit NSOperationQueue(bool isMainQueue = false);  // use create() / mainQueue()
  ~NSOperationQueue() override;

private:
  friend class NSOperation;
  std::shared_ptr<NSOperationQueue> _self() {
    return std::static_pointer_cast<NSOperationQueue>(shared_from_this());
  }
  void _operationReady(const std::shared_ptr<NSOperation>& operation);
  void _operationFinished(const std::shared_ptr<NSOperation>& operation);
  // Starts ready operations while slots are free; returns those to launch
  // after unlocking.
  std::vector<std::shared_ptr<NSOperation>> _takeLaunchable() ZB_REQUIRES(_mutex);
  void _launch(const std::shared_ptr<NSOperation>& operation);
  void _run(const std::shared_ptr<NSOperation>& operation);

  const bool _isMainQueue;
  mutable ZBMutex _mutex;
  std::condition_variable _emptied;
  std::atomic<int> _mainThreadWaiters{0};
  std::list<std::shared_ptr<NSOperation>> _operations ZB_GUARDED_BY(_mutex);
  std::deque<std::shared_ptr<NSOperation>> _ready ZB_GUARDED_BY(_mutex);
  std::size_t _running ZB_GUARDED_BY(_mutex) = 0;
  int _maxConcurrent ZB_GUARDED_BY(_mutex) = NSOperationQueueDefaultMaxConcurrentOperationCount;
  bool _suspended ZB_GUARDED_BY(_mutex) = false;
  std::string _name ZB_GUARDED_BY(_mutex);
};
