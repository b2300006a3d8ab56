#pragma once
// The queue of a managed object context.
//
// Private: a serial queue. async() blocks run one at a time, in order, on
// threads of a shared pool; sync() waits for the blocks queued before it and
// then runs its block on the calling thread while holding the queue (so a
// context's performBlockAndWait from another context's queue does not need a
// thread switch). Both are re-entrant on the queue's own thread. An exception
// from a sync() block reaches its caller after the queue was handed on; one
// from an async() block goes to the pool (see ZBThreadPool) and the blocks
// behind it still run.
// Main: the queue is the main run loop (see NSRunLoop).
// Confinement: no queue; blocks run at once on the calling thread. Using the
// context from two threads at once is detected.
//
// Thread-safety: thread-safe.

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <thread>

#include "platform/foundation/ZBMutex.h"
#include "platform/objectstore/NSManagedObjectContextConcurrencyType.h"

class ZBContextQueue : public std::enable_shared_from_this<ZBContextQueue> {
public:
  static std::shared_ptr<ZBContextQueue> create(NSManagedObjectContextConcurrencyType type);

  NSManagedObjectContextConcurrencyType type() const { return _type; }
  void async(std::function<void()> block);
  void sync(const std::function<void()>& block);
  // Whether the calling thread may use the context now: it holds the queue
  // (private), is the main thread (main), or no other thread is inside a
  // call of the context (confinement).
  bool isCurrent() const;

  // Marks a public call of the context on the calling thread; for the
  // confinement type, a call overlapping one on another thread is misuse.
  // Returns false for misuse.
  bool enter();
  void leave();

  explicit ZBContextQueue(NSManagedObjectContextConcurrencyType type) : _type(type) {}

private:
  struct Waiter {
    bool granted = false;
  };
  struct Item {
    std::function<void()> block;
    Waiter* waiter = nullptr;
  };
  void _scheduleDrainLocked() ZB_REQUIRES(_mutex);
  void _drain();
  // Runs block as the queue's owner on the calling thread.
  void _runHolding(const std::function<void()>& block);
  // With _mutex held, after the owner let go: schedules the next drain or
  // marks the queue idle.
  void _continueOrIdleLocked() ZB_REQUIRES(_mutex);

  const NSManagedObjectContextConcurrencyType _type;
  ZBMutex _mutex;
  std::condition_variable _granted;
  std::deque<Item> _items ZB_GUARDED_BY(_mutex);
  // A pool thread is draining (or about to), or a sync caller holds the
  // queue; whoever it is runs or schedules the next item.
  bool _active ZB_GUARDED_BY(_mutex) = false;
  std::atomic<std::thread::id> _owner{};  // the thread holding the queue
  int _depth = 0;               // nesting on the owner thread; touched only by it
  std::atomic<std::thread::id> _user{};   // confinement: the thread inside a call
  int _userDepth = 0;
};

// Runs the queue's guard for a public call of a context.
class ZBContextQueueAccess {
public:
  explicit ZBContextQueueAccess(ZBContextQueue& queue);
  ~ZBContextQueueAccess() { _queue.leave(); }
  ZBContextQueueAccess(const ZBContextQueueAccess&) = delete;
  ZBContextQueueAccess& operator=(const ZBContextQueueAccess&) = delete;

private:
  ZBContextQueue& _queue;
};
