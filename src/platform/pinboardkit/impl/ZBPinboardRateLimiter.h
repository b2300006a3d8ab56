#pragma once
// Spaces the client's requests as the service asks: a minimum interval
// between any two API calls, longer ones for some methods, and a separate one
// for the feeds host. A caller reserves its slot under the lock and then
// waits outside it, so concurrent callers queue up in order. Thread-safe.

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <string>

class ZBPinboardRateLimiter {
public:
  using Clock = std::chrono::steady_clock;

  // Reserves the next slot of requestClass ("posts/all", "feeds", …) and
  // waits for it. generalInterval applies to every class but "feeds";
  // classInterval to this class alone (0: none). Returns false, without
  // waiting further, once cancelled() says so.
  bool waitForTurn(const std::string& requestClass, double generalInterval, double classInterval,
                   const std::function<bool()>& cancelled);

  // Sleeps for seconds, waking early (and returning false) once cancelled().
  static bool sleep(double seconds, const std::function<bool()>& cancelled);

private:
  std::mutex _mutex;
  Clock::time_point _nextGeneral{};                   // guarded by _mutex
  std::map<std::string, Clock::time_point> _nextOf;  // guarded by _mutex
};
