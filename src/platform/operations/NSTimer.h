#pragma once
// NSTimer: a one-shot or repeating timer that fires on the main run loop.
//
// Time is ZBClock's: a test that advances a manual clock past a timer's fire
// date sees it fire on the next turn of the loop; with the system clock timers
// fire in real time. The first firing is one interval after creation. A
// repeating timer that missed firings (the loop was busy, or the clock jumped)
// fires once and then keeps its phase: the next fire date is the first
// multiple of the interval after now. Timers fire at their fire date; the
// tolerance is the lateness the owner accepts and is kept for it to read.
//
// Lifetime: held by std::shared_ptr; a scheduled timer is also held by the run
// loop until invalidated. Thread-safety: all methods are thread-safe; the
// block always runs on the main thread.

#include <functional>
#include <memory>

#include "platform/foundation/NSDate.h"
#include "platform/foundation/NSObject.h"
#include "platform/foundation/ZBMutex.h"

class NSRunLoop;

class NSTimer final : public NSObject {
public:
  using Block = std::function<void(NSTimer& timer)>;

  // A timer not yet scheduled; hand it to NSRunLoop::addTimer. Intervals of
  // zero or less are taken as 0.1 ms, as the platform does.
  static std::shared_ptr<NSTimer> timerWithTimeInterval(double interval, bool repeats, Block block);
  // The same, already scheduled on the main run loop.
  static std::shared_ptr<NSTimer> scheduledTimerWithTimeInterval(double interval, bool repeats, Block block);

  // Runs the block now (on the calling thread). A one-shot timer is then
  // invalidated; a repeating one keeps its schedule.
  void fire();
  // Stops the timer for good and releases its block. From the main thread it
  // takes effect at once; from another thread a firing already under way may
  // finish.
  void invalidate();
  bool isValid() const;

  double timeInterval() const { return _interval; }
  bool repeats() const { return _repeats; }
  NSDate fireDate() const;
  void setFireDate(NSDate date);
  double tolerance() const;
  void setTolerance(double tolerance);

  std::string className() const override { return "NSTimer"; }

  NSTimer(double interval, bool repeats, Block block);  // use the factories

private:
  friend class NSRunLoop;
  // Fires when due at now; returns false once the timer is invalid.
  bool _fireIfDue(NSDate now);
  NSDate _nextFireDate() const;

  const double _interval;
  const bool _repeats;
  mutable ZBMutex _mutex;
  Block _block ZB_GUARDED_BY(_mutex);
  NSDate _fireDate ZB_GUARDED_BY(_mutex);
  double _tolerance ZB_GUARDED_BY(_mutex) = 0;
  bool _valid ZB_GUARDED_BY(_mutex) = true;
  bool _scheduled ZB_GUARDED_BY(_mutex) = false;
  bool _firing ZB_GUARDED_BY(_mutex) = false;
};
