#include "platform/operations/impl/ZBThreadPool.h"

#include <algorithm>
#include <cassert>
#include <thread>

namespace {
// How long queued tasks may wait with no thread taking any before the
// watchdog assumes the busy threads are blocked and adds one.
constexpr auto kStarvationDelay = std::chrono::milliseconds(10);
// How long a surplus idle thread lingers before it leaves.
constexpr auto kIdleLinger = std::chrono::seconds(5);
}  // namespace

ZBThreadPool& ZBThreadPool::shared() {
  // Deliberately leaked: threads may still be blocked inside tasks at exit.
  static ZBThreadPool* pool = new ZBThreadPool();
  return *pool;
}

ZBThreadPool::ZBThreadPool() {
  std::size_t cores = std::max(1u, std::thread::hardware_concurrency());
  _minimumThreads = cores;
  // Threads beyond the cores only help work that blocks, and the watchdog
  // covers that; more of them up front just contend for the cores.
  _softLimit = std::max<std::size_t>(4, 2 * cores);
  _lastTake = std::chrono::steady_clock::now();
}

void ZBThreadPool::submit(std::function<void()> task) {
  ZBMutexLock lock(_mutex);
  _pending.push_back(std::move(task));
  // Every waiting task should have a thread that can take it; idle threads
  // that were already woken still count as idle until they take one.
  if (_pending.size() <= _idle) {
    _workAvailable.notify_one();
  } else if (_threads < _softLimit) {
    _spawnWorker();
  } else {
    if (!_watchdogStarted) {
      _watchdogStarted = true;
      std::thread([this] { _watchdogLoop(); }).detach();
    }
    _watchdogWake.notify_one();
  }
}

std::size_t ZBThreadPool::threadCount() const {
  ZBMutexLock lock(_mutex);
  return _threads;
}

std::size_t ZBThreadPool::idleThreadCount() const {
  ZBMutexLock lock(_mutex);
  return _idle;
}

void ZBThreadPool::_spawnWorker() {
  ++_threads;
  std::thread([this] { _workerLoop(); }).detach();
}

void ZBThreadPool::_workerLoop() {
  ZBMutexLock lock(_mutex);
  for (;;) {
    while (_pending.empty()) {
      ++_idle;
      bool timedOut = lock.waitFor(_workAvailable, kIdleLinger) == std::cv_status::timeout;
      --_idle;
      if (timedOut && _pending.empty() && _threads > _minimumThreads) {
        --_threads;
        return;
      }
    }
    std::function<void()> task = std::move(_pending.front());
    _pending.pop_front();
    _lastTake = std::chrono::steady_clock::now();
    lock.unlock();
    try {
      task();
    } catch (...) {
      assert(false && "a pool task let an exception escape");
    }
    task = nullptr;  // release captures outside the lock
    lock.lock();
  }
}

void ZBThreadPool::_watchdogLoop() {
  ZBMutexLock lock(_mutex);
  for (;;) {
    lock.wait(_watchdogWake, [this] {
      _mutex.assertHeld();
      return !_pending.empty();
    });
    lock.waitFor(_watchdogWake, kStarvationDelay);
    auto now = std::chrono::steady_clock::now();
    if (!_pending.empty() && _pending.size() > _idle && now - _lastTake >= kStarvationDelay &&
        _threads < _hardLimit) {
      _spawnWorker();
      _lastTake = now;  // give the new thread time to take a task before adding another
    }
  }
}
