#pragma once
// The process-wide pool of background threads on which operation queues run
// their operations and managed object contexts their private queues' blocks.
// Internal to the platform layer.
//
// It grows instead of queueing when every thread is busy: a task submitted
// while no thread is idle gets a new thread, up to a soft limit of twice the
// cores (at least four). Beyond that, a watchdog adds one more thread whenever
// tasks have been waiting and no thread has taken one for 10 ms, so work
// blocked on the network or on another thread never starves the tasks behind
// it (at the cost of that delay per extra thread). Idle threads above the
// number of cores leave after a few seconds.
//
// A task must not let an exception escape: one that does is dropped at the
// worker (and stops a debug build there), so the thread survives.
//
// Thread-safe. The pool lives until the process exits (its threads are
// detached and it is never destroyed, so exit never waits for blocked work).

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include "platform/foundation/ZBMutex.h"

class ZBThreadPool {
public:
  static ZBThreadPool& shared();

  void submit(std::function<void()> task);

  // Counters for tests and diagnostics.
  std::size_t threadCount() const;
  std::size_t idleThreadCount() const;

  ZBThreadPool(const ZBThreadPool&) = delete;
  ZBThreadPool& operator=(const ZBThreadPool&) = delete;

private:
  ZBThreadPool();
  ~ZBThreadPool() = delete;
  void _spawnWorker() ZB_REQUIRES(_mutex);
  void _workerLoop();
  void _watchdogLoop();

  mutable ZBMutex _mutex;
  std::condition_variable _workAvailable;
  std::condition_variable _watchdogWake;
  std::deque<std::function<void()>> _pending ZB_GUARDED_BY(_mutex);
  std::size_t _threads ZB_GUARDED_BY(_mutex) = 0;
  std::size_t _idle ZB_GUARDED_BY(_mutex) = 0;
  std::size_t _minimumThreads;  // set once by the constructor
  std::size_t _softLimit;       // set once by the constructor
  std::size_t _hardLimit = 2048;
  std::chrono::steady_clock::time_point _lastTake ZB_GUARDED_BY(_mutex);
  bool _watchdogStarted ZB_GUARDED_BY(_mutex) = false;
};
