#pragma once
// Faults the simulator injects into its answers, and the rate limits it
// enforces. Plain values; the Simulator keeps them under its own lock.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace pinboard_sim {

// One injected fault. It applies to requests whose path matches `path`, skips
// the first `after` of them, then applies to the next `times` (0: to every
// one until removed). Effects combine: a delay happens first, then a drop, a
// cut, a status or a damaged body. Without `apply` the fault replaces the
// call; with it the call is served first (a write is stored and moves the
// update time) and the fault then spoils its answer, as when the service
// applies a change and fails to say so.
struct Fault {
  enum class Body { Normal, Garbage, Truncated, Empty };

  // Exact path ("/v1/posts/all"), a prefix ending in '*' ("/json/*"), or
  // empty / "*" for every path.
  std::string path;
  int status = 0;       // answer with this HTTP status and a short text body
  double delay = 0;     // seconds to wait before answering
  Body body = Body::Normal;
  bool drop = false;    // close the connection without a byte of answer
  bool cut = false;     // send the headers and part of the body, then close
  bool bom = false;     // the body begins with a UTF-8 byte order mark
  bool apply = false;   // serve the call, then spoil its answer
  int times = 0;
  int after = 0;

  bool matches(std::string_view requestPath) const;

  // Parses "PATH:ITEM[,ITEM…]" with items status=N, delay=SECONDS, garbage,
  // truncate, empty, drop, cut, bom, apply, times=N, after=N; for example
  // "/v1/posts/all:status=429,times=3", "/json/*:delay=2" or
  // "/v1/posts/add:status=500,times=1,apply". Returns nullopt and a message
  // for anything else (also for apply without an effect to apply it with).
  static std::optional<Fault> parse(std::string_view text, std::string* error = nullptr);
};

// Minimum spacing, in seconds, between two calls of one user; 0 turns a
// class off. The service's own figures are 3, 60 and 300.
struct RateLimits {
  double general = 0;  // any API call
  double recent = 0;   // posts/recent
  double all = 0;      // posts/all

  static RateLimits service() { return {3, 60, 300}; }
};

}  // namespace pinboard_sim
