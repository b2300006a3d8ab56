#pragma once
// The web library's exported names: the user-default keys that configure the
// link checker, and its error domain with its one table of codes.

#include <cstdint>
#include <string>

// ---- User defaults read by ZBWebLinkCheckOperation (when it starts) ----
// Numbers. Values out of range (not finite, below the minimum) are ignored.
extern const std::string ZBWebLinkCheckMaximumConnectionsDefaultKey;         // connections in flight, 32 (1 to 256)
extern const std::string ZBWebLinkCheckMaximumConnectionsPerHostDefaultKey;  // open to one host, idle ones too, 2
extern const std::string ZBWebLinkCheckConnectTimeoutDefaultKey;   // seconds to set up a connection, 10
extern const std::string ZBWebLinkCheckRequestTimeoutDefaultKey;   // seconds for one whole request, 20
extern const std::string ZBWebLinkCheckRecheckDelayDefaultKey;     // seconds before the re-check of failures, 10
extern const std::string ZBWebLinkCheckRetryAfterMaximumDefaultKey;  // cap of a host's Retry-After wait, 60
// Array of strings in libcurl's resolve-override form "NAME:PORT:ADDRESS"
// ("shop.test:80:127.0.0.1"): those names are never asked of the resolver.
// For tests and benchmarks that point many names at a local server.
extern const std::string ZBWebLinkCheckResolveOverridesDefaultKey;

// ---- Errors ----
extern const std::string ZBWebKitErrorDomain;  // "com.orvane.zbwebkit"
// User-information keys of ZBWebKitNetworkUnreachableError (integers).
extern const std::string ZBWebKitCheckedHostsErrorKey;      // distinct hosts asked
extern const std::string ZBWebKitUnreachableHostsErrorKey;  // of them, not found or refusing

enum : std::int64_t {
  // Most of the hosts asked (more than half, and at least five) could not be
  // found or refused every connection, also when asked again after a pause:
  // the network, not the links, looks broken. No verdict is given. Retrying
  // once the network is back helps.
  ZBWebKitNetworkUnreachableError = -100,
  // The network library could not be set up (out of memory, no sockets).
  // Retrying later may help.
  ZBWebKitInternalError = -900,
};
// Cancellation is reported as NSCocoaErrorDomain, NSUserCancelledError (3072).
