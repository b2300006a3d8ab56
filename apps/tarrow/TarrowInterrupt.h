#pragma once
// TarrowInterrupt: Ctrl-C (SIGINT) and SIGTERM, taken by a thread of their
// own instead of a signal handler, so that what they trigger may lock and
// allocate. While a session asks for it (waiting on), the first signal only
// raises a flag, which the main run loop's waits look at: the job in progress
// is cancelled and wound down. A second signal, or the first one while
// waiting is off (a prompt reading), ends the process at once with status 130
// after calling the restore hook (the prompt puts the terminal's echo back).
//
// Lifetime: one instance, made first thing in main (the signals are blocked
// in every thread started after it). Thread-safety: every method may be
// called from any thread.

#include <atomic>
#include <functional>
#include <thread>

#include "platform/foundation/ZBMutex.h"

class TarrowInterrupt {
public:
  TarrowInterrupt();
  ~TarrowInterrupt();
  TarrowInterrupt(const TarrowInterrupt&) = delete;
  TarrowInterrupt& operator=(const TarrowInterrupt&) = delete;

  bool interrupted() const { return _interrupted.load(); }
  // While waiting is on, the first signal cancels instead of ending the process.
  void setWaiting(bool waiting) { _waiting.store(waiting); }
  void setRestoreHook(std::function<void()> hook);

private:
  void _watch(std::stop_token stop);
  void _restore();

  std::atomic<bool> _interrupted{false};
  std::atomic<bool> _waiting{false};
  ZBMutex _mutex;
  std::function<void()> _restoreHook ZB_GUARDED_BY(_mutex);
  std::jthread _thread;
};
