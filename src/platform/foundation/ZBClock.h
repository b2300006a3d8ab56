#pragma once
// The one source of "now" for the whole library: NSDate::date(), timers,
// relative dates and "time since the last check" all read it, so tests can move
// time instead of waiting for it.
//
// Thread-safe. The default clock is the system's real-time clock.

#include <functional>
#include <atomic>
#include <memory>

#include "platform/foundation/NSDate.h"

class ZBClock {
public:
  virtual ~ZBClock() = default;
  virtual NSDate now() const = 0;

  // The process-wide clock.
  static std::shared_ptr<ZBClock> current();
  // Replaces the process-wide clock (nullptr restores the system clock).
  // Listeners registered with addChangeListener are told, so that timers can
  // re-evaluate their deadlines.
  static void setCurrent(std::shared_ptr<ZBClock> clock);

  // Called (on the thread that moved time) after the current clock, when it
  // is a manual one, is set or advanced, and after the current clock is
  // replaced. Returns an id for removeChangeListener.
  static int addChangeListener(std::function<void()> listener);
  // After this returns the listener is not running on any other thread and is
  // never called again. A listener may remove itself; do not remove a listener
  // while holding a lock that the listener itself takes.
  static void removeChangeListener(int id);
};

// A clock that stands still until told to move. For tests.
class ZBManualClock final : public ZBClock {
public:
  explicit ZBManualClock(NSDate start) : _now(start.timeIntervalSinceReferenceDate()) {}
  NSDate now() const override;
  void setNow(NSDate date);
  void advance(double seconds);

private:
  mutable std::atomic<double> _now;
};
