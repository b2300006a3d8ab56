#pragma once
// Spaces the client's requests as the service asks: a minimum interval
// between any two API calls, longer ones for some methods, and a separate one
// for the feeds host. A caller reserves its slot under the lock and then
// waits outside it, so concurrent callers queue up in order. Every wait (for
// a slot, for a back-off) is measured on the limiter's clock, so a test can
// move time instead of waiting for it. Thread-safe.

#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <string>

#include "platform/foundation/ZBClock.h"
#include "platform/foundation/ZBMutex.h"

class ZBPinboardRateLimiter {
public:
  // clock: nullptr for the machine's monotonic clock. With a ZBManualClock a
  // wait lasts until the clock is moved past its end.
  explicit ZBPinboardRateLimiter(std::shared_ptr<ZBClock> clock = nullptr) : _clock(std::move(clock)) {}

  // Reserves the next slot of requestClass ("posts/all", "feeds", …) and
  // waits for it. generalInterval applies to every class but "feeds";
  // classInterval to this class alone (0: none). Returns false, without
  // waiting further, once cancelled() says so.
  [[nodiscard]] bool waitForTurn(const std::string& requestClass, double generalInterval, double classInterval,
                                 const std::function<bool()>& cancelled);

  // Sleeps for seconds of the clock, waking early (and returning false) once
  // cancelled().
  [[nodiscard]] bool sleep(double seconds, const std::function<bool()>& cancelled) const;

private:
  double _now() const;  // seconds on the clock
  bool _sleepUntil(double until, const std::function<bool()>& cancelled) const;

  const std::shared_ptr<ZBClock> _clock;
  ZBMutex _mutex;
  double _nextGeneral ZB_GUARDED_BY(_mutex) = -std::numeric_limits<double>::infinity();
  std::map<std::string, double> _nextOf ZB_GUARDED_BY(_mutex);
};
