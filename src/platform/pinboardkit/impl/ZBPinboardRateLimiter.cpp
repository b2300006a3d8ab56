#include "platform/pinboardkit/impl/ZBPinboardRateLimiter.h"

#include <algorithm>
#include <thread>

namespace {

ZBPinboardRateLimiter::Clock::duration seconds(double s) {
  return std::chrono::duration_cast<ZBPinboardRateLimiter::Clock::duration>(std::chrono::duration<double>(std::max(0.0, s)));
}

}  // namespace

bool ZBPinboardRateLimiter::waitForTurn(const std::string& requestClass, double generalInterval,
                                        double classInterval, const std::function<bool()>& cancelled) {
  const bool general = requestClass != "feeds";
  Clock::time_point slot;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    slot = Clock::now();
    if (general) slot = std::max(slot, _nextGeneral);
    auto it = _nextOf.find(requestClass);
    if (it != _nextOf.end()) slot = std::max(slot, it->second);
    if (general) _nextGeneral = slot + seconds(generalInterval);
    _nextOf[requestClass] = slot + seconds(classInterval);
  }
  return sleep(std::chrono::duration<double>(slot - Clock::now()).count(), cancelled);
}

bool ZBPinboardRateLimiter::sleep(double duration, const std::function<bool()>& cancelled) {
  // Short naps, so a cancelled request lets go within a fraction of a second.
  const auto until = Clock::now() + seconds(duration);
  for (;;) {
    if (cancelled && cancelled()) return false;
    auto now = Clock::now();
    if (now >= until) return true;
    std::this_thread::sleep_for(std::min<Clock::duration>(until - now, std::chrono::milliseconds(50)));
  }
}
