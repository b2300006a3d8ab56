#include "platform/pinboardkit/impl/ZBPinboardRateLimiter.h"

#include <algorithm>
#include <chrono>
#include <thread>

bool ZBPinboardRateLimiter::waitForTurn(const std::string& requestClass, double generalInterval,
                                        double classInterval, const std::function<bool()>& cancelled) {
  const bool general = requestClass != "feeds";
  double slot;
  {
    ZBMutexLock hold(_mutex);
    slot = _now();
    if (general) slot = std::max(slot, _nextGeneral);
    auto it = _nextOf.find(requestClass);
    if (it != _nextOf.end()) slot = std::max(slot, it->second);
    if (general) _nextGeneral = slot + std::max(0.0, generalInterval);
    _nextOf[requestClass] = slot + std::max(0.0, classInterval);
  }
  return _sleepUntil(slot, cancelled);
}

bool ZBPinboardRateLimiter::sleep(double seconds, const std::function<bool()>& cancelled) const {
  return _sleepUntil(_now() + std::max(0.0, seconds), cancelled);
}

double ZBPinboardRateLimiter::_now() const {
  if (_clock) return _clock->now().timeIntervalSinceReferenceDate();
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

bool ZBPinboardRateLimiter::_sleepUntil(double until, const std::function<bool()>& cancelled) const {
  // Short naps, so a cancelled request lets go within a fraction of a second
  // and a moved clock is noticed as soon.
  for (;;) {
    if (cancelled && cancelled()) return false;
    const double left = until - _now();
    if (left <= 0) return true;
    std::this_thread::sleep_for(std::chrono::duration<double>(std::min(left, 0.05)));
  }
}
