#include "platform/objectstore/impl/ZBContextQueue.h"

#include <cassert>
#include <vector>

#include "platform/operations/NSRunLoop.h"
#include "platform/operations/impl/ZBThreadPool.h"


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
  ZBMutexLock lock(_mutex);
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
    struct Unnest {
      int& depth;
      ~Unnest() { --depth; }
    } unnest{_depth};
    block();
    return;
  }
  {
    ZBMutexLock lock(_mutex);
    if (!_active && _items.empty()) {
      _active = true;
    } else {
      Waiter waiter;
      _items.push_back(Item{nullptr, &waiter});
      if (!_active) _scheduleDrainLocked();
      // The drainer hands the queue over when it reaches our marker.
      lock.wait(_granted, [&] {
        _mutex.assertHeld();
        return waiter.granted;
      });
    }
  }
  // Hand the queue on even when block throws (the exception then goes on to
  // the caller).
  struct Release {
    ZBContextQueue& queue;
    ~Release() {
      ZBMutexLock lock(queue._mutex);
      queue._continueOrIdleLocked();
    }
  } release{*this};
  _runHolding(block);
}

void ZBContextQueue::_runHolding(const std::function<void()>& block) {
  _owner.store(std::this_thread::get_id());
  _depth = 1;
  struct Reset {
    ZBContextQueue& queue;
    ~Reset() {
      queue._depth = 0;
      queue._owner.store(std::thread::id());
    }
  } reset{*this};
  block();
}

void ZBContextQueue::_continueOrIdleLocked() {
  if (!_items.empty()) {
    ZBThreadPool::shared().submit([self = shared_from_this()] { self->_drain(); });
  } else {
    _active = false;
  }
}

void ZBContextQueue::_scheduleDrainLocked() {
  _active = true;
  ZBThreadPool::shared().submit([self = shared_from_this()] { self->_drain(); });
}

void ZBContextQueue::_drain() {
  ZBMutexLock lock(_mutex);
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
    try {
      _runHolding(item.block);
    } catch (...) {
      // The blocks behind it still run; the exception goes on to the pool.
      lock.lock();
      _continueOrIdleLocked();
      throw;
    }
    item.block = nullptr;
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
