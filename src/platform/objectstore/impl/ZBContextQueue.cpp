#include "platform/objectstore/impl/ZBContextQueue.h"

#include <cassert>
#include <vector>

#include "platform/operations/NSRunLoop.h"

namespace {

// Threads that run the blocks of private queues. It grows when every thread
// is busy, so a block that waits on another queue can never starve the pool.
// Never destroyed: threads may still be running when static destructors run.
class WorkerPool {
public:
  static WorkerPool& shared() {
    static WorkerPool* pool = new WorkerPool();
    return *pool;
  }

  void submit(std::function<void()> task) {
    std::unique_lock lock(_mutex);
    _tasks.push_back(std::move(task));
    if (_idle > 0) {
      _wake.notify_one();
      return;
    }
    std::thread([this] { _run(); }).detach();
  }

private:
  void _run() {
    std::unique_lock lock(_mutex);
    for (;;) {
      while (_tasks.empty()) {
        ++_idle;
        _wake.wait(lock);
        --_idle;
      }
      auto task = std::move(_tasks.front());
      _tasks.pop_front();
      lock.unlock();
      task();
      task = nullptr;
      lock.lock();
    }
  }

  std::mutex _mutex;
  std::condition_variable _wake;
  std::deque<std::function<void()>> _tasks;
  int _idle = 0;
};

}  // namespace

std::shared_ptr<ZBContextQueue> ZBContextQueue::create(NSManagedObjectContextConcurrencyType type) {
  return std::make_shared<ZBContextQueue>(type);
}

void ZBContextQueue::async(std::function<void()> block) {
  switch (_type) {
    case NSConfinementConcurrencyType:
      block();
      return;
    case NSMainQueueConcurrencyType:
      NSRunLoop::mainRunLoop()->performBlock(std::move(block));
      return;
    case NSPrivateQueueConcurrencyType: break;
  }
  std::lock_guard lock(_mutex);
  _items.push_back(Item{std::move(block), nullptr});
  if (!_active) _scheduleDrainLocked();
}

void ZBContextQueue::sync(const std::function<void()>& block) {
  switch (_type) {
    case NSConfinementConcurrencyType:
      block();
      return;
    case NSMainQueueConcurrencyType:
      if (NSRunLoop::isMainThread()) {
        block();
      } else {
        // Wait for the main loop to run it.
        std::mutex mutex;
        std::condition_variable done;
        bool finished = false;
        NSRunLoop::mainRunLoop()->performBlock([&] {
          block();
          std::lock_guard lock(mutex);
          finished = true;
          done.notify_one();
        });
        std::unique_lock lock(mutex);
        done.wait(lock, [&] { return finished; });
      }
      return;
    case NSPrivateQueueConcurrencyType: break;
  }
  if (_owner.load() == std::this_thread::get_id()) {
    ++_depth;
    block();
    --_depth;
    return;
  }
  {
    std::unique_lock lock(_mutex);
    if (!_active && _items.empty()) {
      _active = true;
    } else {
      Waiter waiter;
      _items.push_back(Item{nullptr, &waiter});
      if (!_active) _scheduleDrainLocked();
      // The drainer hands the queue over when it reaches our marker.
      _granted.wait(lock, [&] { return waiter.granted; });
    }
  }
  _owner.store(std::this_thread::get_id());
  _depth = 1;
  block();
  _depth = 0;
  _owner.store(std::thread::id());
  std::lock_guard lock(_mutex);
  if (!_items.empty()) {
    WorkerPool::shared().submit([self = shared_from_this()] { self->_drain(); });
  } else {
    _active = false;
  }
}

void ZBContextQueue::_scheduleDrainLocked() {
  _active = true;
  WorkerPool::shared().submit([self = shared_from_this()] { self->_drain(); });
}

void ZBContextQueue::_drain() {
  std::unique_lock lock(_mutex);
  while (!_items.empty()) {
    Item item = std::move(_items.front());
    _items.pop_front();
    if (item.waiter) {
      // The waiting thread runs its own block and then resumes draining.
      item.waiter->granted = true;
      _granted.notify_all();
      return;
    }
    lock.unlock();
    _owner.store(std::this_thread::get_id());
    _depth = 1;
    item.block();
    item.block = nullptr;
    _depth = 0;
    _owner.store(std::thread::id());
    lock.lock();
  }
  _active = false;
}

bool ZBContextQueue::isCurrent() const {
  switch (_type) {
    case NSConfinementConcurrencyType: {
      auto user = _user.load();
      return user == std::thread::id() || user == std::this_thread::get_id();
    }
    case NSMainQueueConcurrencyType: return NSRunLoop::isMainThread();
    case NSPrivateQueueConcurrencyType: return _owner.load() == std::this_thread::get_id();
  }
  return false;
}

bool ZBContextQueue::enter() {
  if (_type != NSConfinementConcurrencyType) return isCurrent();
  auto me = std::this_thread::get_id();
  if (_user.load() == me) {
    ++_userDepth;
    return true;
  }
  std::thread::id none;
  if (!_user.compare_exchange_strong(none, me)) return false;
  _userDepth = 1;
  return true;
}

void ZBContextQueue::leave() {
  if (_type != NSConfinementConcurrencyType) return;
  if (_user.load() != std::this_thread::get_id()) return;
  if (--_userDepth == 0) _user.store(std::thread::id());
}

ZBContextQueueAccess::ZBContextQueueAccess(ZBContextQueue& queue) : _queue(queue) {
  [[maybe_unused]] bool allowed = _queue.enter();
  assert(allowed && "a managed object context was used outside its queue");
}
