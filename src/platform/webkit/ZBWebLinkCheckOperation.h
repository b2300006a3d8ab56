#pragma once
// ZBWebLinkCheckOperation: checks a list of web addresses for dead links and
// yields one ZBWebLinkCheckResult per address, in input order (duplicates
// included, each asked once).
//
// Dead ("broken") means definitely gone, never merely unwell, because users
// delete what is marked dead: the name does not exist (the resolver's own "no
// such name", not a time-out or a failing resolver), every address of the
// name refuses the connection, or the final answer after redirects is 404 or
// 410 (a HEAD's 404 or 410 only once a GET agrees). Failures by name or
// refusal are asked again after a pause at the end of the run before they
// count. Time-outs, TLS errors, dropped connections, 401, 403, 429, 999, 5xx,
// redirect loops and chains over 10 hops are not dead; nor is any address
// other than http and https, which is never requested. Addresses are sent as
// written, without their fragment; only spaces and bytes outside ASCII are
// percent-encoded.
//
// Result: an Array of ZBWebLinkCheckResult objects. Errors:
// ZBWebKitNetworkUnreachableError when most hosts could not be reached (then
// no verdict at all: an offline machine would otherwise mark everything
// dead); NSUserCancelledError when cancelled (honoured within a fraction of a
// second, even mid-run); ZBWebKitInternalError.
//
// Manners and scale: libcurl's multi interface on one work thread, at most
// ZBWebLinkCheckMaximumConnectionsDefaultKey connections at once and
// ZBWebLinkCheckMaximumConnectionsPerHostDefaultKey per host (idle pooled
// ones included), a connect and a whole-request time-out, a User-Agent naming
// the library, no body read beyond the headers, Retry-After of 429 and 503
// honoured per host. Memory grows with the number of addresses, not with the
// number of connections: easy handles exist only up to the global limit.
// Settings come from the user defaults given at creation (standard ones when
// none), read when the operation starts; keys in ZBWebKit.h.
//
// Lifetime: held by std::shared_ptr (create). Thread-safety: as
// ZBConcurrentOperation; checkedCount() may be read and observed from any
// thread (it changes on the work thread).

#include <atomic>
#include <memory>
#include <vector>

#include "platform/foundation/NSObject.h"
#include "platform/foundation/NSURL.h"
#include "platform/foundation/NSUserDefaults.h"
#include "platform/operations/ZBConcurrentOperation.h"
#include "platform/webkit/ZBWebKit.h"

// "checkedCount": key-value observation key of checkedCount().
extern const std::string ZBWebLinkCheckOperationCheckedCountKey;

// One verdict. Immutable; thread-safe. valueForKey: "websiteURL" (its
// absolute string) and "broken".
class ZBWebLinkCheckResult final : public NSObject {
public:
  ZBWebLinkCheckResult(NSURL websiteURL, bool broken) : _url(std::move(websiteURL)), _broken(broken) {}
  const NSURL& websiteURL() const { return _url; }
  bool broken() const { return _broken; }
  Value valueForKey(const std::string& key) const override;
  std::string className() const override { return "ZBWebLinkCheckResult"; }

private:
  const NSURL _url;
  const bool _broken;
};

class ZBWebLinkCheckOperation final : public ZBConcurrentOperation {
  struct Passkey {
    explicit Passkey() = default;
  };

public:
  static std::shared_ptr<ZBWebLinkCheckOperation> create(std::vector<NSURL> websiteURLs,
                                                         std::shared_ptr<NSUserDefaults> userDefaults = nullptr);
  ZBWebLinkCheckOperation(Passkey, std::vector<NSURL> websiteURLs, std::shared_ptr<NSUserDefaults> userDefaults);

  const std::vector<NSURL>& websiteURLs() const { return _urls; }
  // Addresses settled so far, out of websiteURLs().size(); one waiting for
  // its end-of-run re-check counts as settled. Observable
  // (ZBWebLinkCheckOperationCheckedCountKey), at most every 50 ms.
  std::size_t checkedCount() const { return _checked.load(); }

  // "checkedCount", plus the base's keys.
  Value valueForKey(const std::string& key) const override;
  std::string className() const override { return "ZBWebLinkCheckOperation"; }

protected:
  void setupOperations(const ZBAddWorkOperation& addWorkOperation) override;

private:
  Value _check(NSErrorPtr* error);
  void _setChecked(std::size_t checked);

  const std::vector<NSURL> _urls;
  const std::shared_ptr<NSUserDefaults> _defaults;
  std::atomic<std::size_t> _checked{0};
};
