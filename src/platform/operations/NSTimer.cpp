#include "platform/operations/NSTimer.h"

#include <cmath>
#include <limits>
#include <utility>

#include "platform/foundation/ZBClock.h"
#include "platform/operations/NSRunLoop.h"

namespace {
constexpr double kMinimumInterval = 0.0001;
}

NSTimer::NSTimer(double interval, bool repeats, Block block)
    : _interval(interval > 0 ? interval : kMinimumInterval),
      _repeats(repeats),
      _block(std::move(block)),
      _fireDate(ZBClock::current()->now().dateByAddingTimeInterval(_interval)) {}

std::shared_ptr<NSTimer> NSTimer::timerWithTimeInterval(double interval, bool repeats, Block block) {
  return std::make_shared<NSTimer>(interval, repeats, std::move(block));
}

std::shared_ptr<NSTimer> NSTimer::scheduledTimerWithTimeInterval(double interval, bool repeats, Block block) {
  auto timer = timerWithTimeInterval(interval, repeats, std::move(block));
  NSRunLoop::mainRunLoop()->addTimer(timer);
  return timer;
}

bool NSTimer::isValid() const {
  ZBMutexLock lock(_mutex);
  return _valid;
}

NSDate NSTimer::fireDate() const {
  ZBMutexLock lock(_mutex);
  return _fireDate;
}

NSDate NSTimer::_nextFireDate() const {
  ZBMutexLock lock(_mutex);
  // An invalid or firing timer never makes the loop wake for it.
  return _valid && !_firing ? _fireDate : NSDate(std::numeric_limits<double>::infinity());
}

void NSTimer::setFireDate(NSDate date) {
  bool scheduled;
  {
    ZBMutexLock lock(_mutex);
    _fireDate = date;
    scheduled = _scheduled && _valid;
  }
  if (scheduled) NSRunLoop::mainRunLoop()->_timerChanged();
}

double NSTimer::tolerance() const {
  ZBMutexLock lock(_mutex);
  return _tolerance;
}

void NSTimer::setTolerance(double tolerance) {
  ZBMutexLock lock(_mutex);
  _tolerance = tolerance > 0 ? tolerance : 0;
}

void NSTimer::invalidate() {
  Block released;
  {
    ZBMutexLock lock(_mutex);
    _valid = false;
    // A firing in progress still holds its own copy of the block.
    released = std::exchange(_block, nullptr);
  }
}

void NSTimer::fire() {
  Block block;
  {
    ZBMutexLock lock(_mutex);
    if (!_valid) return;
    block = _block;
  }
  // Keeps the timer alive even if the block drops the last outside reference.
  auto self = std::static_pointer_cast<NSTimer>(shared_from_this());
  block(*this);
  if (!_repeats) invalidate();
}

bool NSTimer::_fireIfDue(NSDate now) {
  Block block;
  {
    ZBMutexLock lock(_mutex);
    if (!_valid || _firing || _fireDate > now) return false;
    if (_repeats) {
      // Skip missed firings but keep the phase.
      double missed = std::floor(now.timeIntervalSinceDate(_fireDate) / _interval) + 1;
      _fireDate = _fireDate.dateByAddingTimeInterval(missed * _interval);
    }
    _firing = true;
    block = _block;
  }
  auto self = std::static_pointer_cast<NSTimer>(shared_from_this());
  if (block) block(*this);
  Block released;  // destroyed after the lock is let go: its captures may touch the timer
  ZBMutexLock lock(_mutex);
  _firing = false;
  if (!_repeats) {
    _valid = false;
    released = std::exchange(_block, nullptr);
  }
  return true;
}
