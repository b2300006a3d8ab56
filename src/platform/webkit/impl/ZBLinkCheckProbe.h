#pragma once
// The last word on an address that failed by name or by refusal twice: asks
// the resolver itself (getaddrinfo's own answer codes, which libcurl folds
// into one "could not resolve" error) and tries every address of the name.

#include <functional>
#include <string>
#include <vector>

enum class ZBLinkCheckProbeKind { Name, Refusal };
enum class ZBLinkCheckProbeVerdict { NoSuchName, AllRefused, Other };

struct ZBLinkCheckProbeTarget {
  std::string name;  // host name or address literal, as in the URL
  int port = 0;
  ZBLinkCheckProbeKind kind = ZBLinkCheckProbeKind::Name;
};

// One verdict per target. NoSuchName only for the resolver's definite "no
// such name" (EAI_NONAME); a resolver that fails, times out or is not
// reachable gives Other. AllRefused (Refusal targets) only when the name has
// addresses and each of them refused the connection. Names in overrides
// ("NAME:PORT:ADDRESS[,ADDRESS]") are not asked of the resolver. timeout
// bounds the whole probe; cancelled is polled every few tens of
// milliseconds, and a cancelled probe returns Other for what was left.
std::vector<ZBLinkCheckProbeVerdict> ZBLinkCheckProbe(const std::vector<ZBLinkCheckProbeTarget>& targets,
                                                      const std::vector<std::string>& overrides, double timeout,
                                                      const std::function<bool()>& cancelled);
