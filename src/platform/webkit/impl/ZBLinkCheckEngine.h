#pragma once
// The link checker's network loop: one libcurl multi handle driven on the
// calling thread, a bounded pool of easy handles, and per-host queues that
// keep to the connection limits. ZBWebLinkCheckOperation is its only user.

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "platform/foundation/NSError.h"

struct ZBLinkCheckSettings {
  int maximumConnections = 32;
  int maximumConnectionsPerHost = 2;
  double connectTimeout = 10;     // seconds
  double requestTimeout = 20;     // seconds, the whole request
  double recheckDelay = 10;       // seconds between the run and the re-check of failures
  double retryAfterMaximum = 60;  // seconds
  std::vector<std::string> resolveOverrides;  // "NAME:PORT:ADDRESS[,ADDRESS]"
  // A run fails as offline when more than half of the hosts asked, and at
  // least this many, could not be found or refused.
  std::size_t offlineMinimumHosts = 5;
};

struct ZBLinkCheckCallbacks {
  // Polled often (at least every 100 ms); true stops the run.
  std::function<bool()> cancelled;
  // Called with the number of addresses settled so far (duplicates each
  // count), at most every 50 ms and once at the end.
  std::function<void(std::size_t checked)> progress;
};

// Checks each address (already in the form to send: see
// ZBLinkCheckRequestAddress; an empty string is never asked and never
// broken). On success fills broken (one flag per address, input order) and
// returns true. Returns false with ZBUserCancelledError() when cancelled,
// ZBWebKitNetworkUnreachableError when most hosts were unreachable, or
// ZBWebKitInternalError when libcurl could not be set up.
[[nodiscard]] bool ZBLinkCheckRun(const std::vector<std::string>& addresses, const ZBLinkCheckSettings& settings,
                                  const ZBLinkCheckCallbacks& callbacks, std::vector<bool>& broken,
                                  NSErrorPtr* error);

// The text to send for an address as stored: the fragment cut off, spaces
// and bytes outside ASCII percent-encoded (upper-case hex, UTF-8 bytes as
// they are), everything else byte for byte (existing escapes, '+', case).
// Empty for schemes other than http and https, which are never asked.
std::string ZBLinkCheckRequestAddress(const std::string& address);
