#pragma once
// NSRunLoop: the main run loop, the one event loop of the process. Blocks
// posted to it, the main operation queue, main-queue object contexts and
// timers all run on whichever thread runs it; that thread is "the main
// thread".
//
// A turn of the loop fires the timers that are due (by ZBClock's time), then
// runs the blocks that were waiting when the turn began, in the order they
// were posted, then tells the turn observers if it did anything. Runs may nest
// (a block may run the loop again, e.g. waitUntilFinished on the main thread);
// a nested turn goes on with the blocks the outer turn has not reached yet.
//
// Lifetime: one instance per process, created on first use, never destroyed.
// Thread-safety: performBlock, addTimer, wakeUp, stop and the observer calls
// are thread-safe. Running is for one thread at a time: running the loop
// while another thread runs it is a programming error (std::logic_error).

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

#include "platform/foundation/NSDate.h"
#include "platform/foundation/ZBMutex.h"

class NSTimer;

class NSRunLoop {
public:
  static const std::shared_ptr<NSRunLoop>& mainRunLoop();

  // True on the thread running the main loop; when nobody runs it, on the
  // thread that ran it last; before it was ever run, on the process's initial
  // thread.
  static bool isMainThread();

  // Runs until stop() is called.
  void run();
  // Runs until ZBClock's time reaches limitDate or stop() is called. A manual
  // clock that never reaches the date keeps the loop running.
  void runUntilDate(NSDate limitDate);
  // Runs until condition() holds, checking it before the first turn and after
  // every turn (and at least every millisecond while idle), or until
  // timeoutSeconds of real time have passed, or stop(). Returns condition()'s
  // last value. The time-out is real time so that tests on a manual clock end.
  bool runUntil(const std::function<bool()>& condition,
                double timeoutSeconds = std::numeric_limits<double>::infinity());
  // One turn, waiting up to limitDate (ZBClock time) for something to do.
  // Returns whether anything ran.
  bool runMode(NSDate limitDate);
  // Makes the innermost running run/runUntil* return after its current turn.
  void stop();
  // Interrupts the wait of the current turn (e.g. after a condition changed).
  void wakeUp();

  // Queues block to run on the main thread in a later turn. Thread-safe.
  void performBlock(std::function<void()> block);

  // Schedules a timer; the loop keeps it until it is invalidated (a one-shot
  // timer invalidates itself after firing). Adding an invalid or already
  // scheduled timer does nothing.
  void addTimer(const std::shared_ptr<NSTimer>& timer);

  // Observers called on the main thread at the end of every turn that ran a
  // block or fired a timer. removeTurnObserver, called on another thread while
  // the observer runs, waits until it has returned; on the main thread it
  // takes effect at once. Returns an id for removeTurnObserver.
  std::uint64_t addTurnObserver(std::function<void()> observer);
  void removeTurnObserver(std::uint64_t observerID);

  NSRunLoop(const NSRunLoop&) = delete;
  NSRunLoop& operator=(const NSRunLoop&) = delete;
  NSRunLoop();  // use mainRunLoop()

private:
  friend class NSTimer;
  struct TurnObserver {
    std::uint64_t id;
    std::function<void()> callback;
  };

  class RunScope;
  bool _turn(NSDate limitDate, double realWaitCap);
  bool _fireTimers();
  void _notifyTurnObservers();
  void _timerChanged();

  ZBMutex _mutex;
  std::condition_variable _wake;
  bool _signalled ZB_GUARDED_BY(_mutex) = false;
  std::deque<std::function<void()>> _blocks ZB_GUARDED_BY(_mutex);
  std::vector<std::shared_ptr<NSTimer>> _timers ZB_GUARDED_BY(_mutex);
  std::vector<std::shared_ptr<TurnObserver>> _observers ZB_GUARDED_BY(_mutex);
  std::uint64_t _nextObserverID ZB_GUARDED_BY(_mutex) = 1;
  // Observers being called, innermost last.
  std::vector<std::uint64_t> _callingObservers ZB_GUARDED_BY(_mutex);
  std::condition_variable _observerDone;

  // The thread running the loop (nesting depth counts re-entrant runs).
  std::atomic<std::thread::id> _runningThread{};
  std::atomic<std::thread::id> _lastThread{};
  int _depth = 0;  // touched only by the running thread
  std::atomic<bool> _stopRequested{false};
};
