#include "platform/webkit/ZBWebLinkCheckOperation.h"

#include <cmath>

#include "platform/webkit/impl/ZBLinkCheckEngine.h"

const std::string ZBWebLinkCheckOperationCheckedCountKey = "checkedCount";

namespace {

ZBLinkCheckSettings readSettings(const std::shared_ptr<NSUserDefaults>& defaults) {
  ZBLinkCheckSettings s;
  if (!defaults) return s;
  auto number = [&](const std::string& key, double minimum, double maximum, auto& out) {
    Value v = defaults->objectForKey(key);
    if (!v.isNumber() && !v.isString()) return;
    double d = v.doubleValue();
    if (std::isfinite(d) && d >= minimum && d <= maximum) out = static_cast<std::remove_reference_t<decltype(out)>>(d);
  };
  number(ZBWebLinkCheckMaximumConnectionsDefaultKey, 1, 256, s.maximumConnections);
  number(ZBWebLinkCheckMaximumConnectionsPerHostDefaultKey, 1, 256, s.maximumConnectionsPerHost);
  number(ZBWebLinkCheckConnectTimeoutDefaultKey, 0.001, 3600, s.connectTimeout);
  number(ZBWebLinkCheckRequestTimeoutDefaultKey, 0.001, 3600, s.requestTimeout);
  number(ZBWebLinkCheckRecheckDelayDefaultKey, 0, 3600, s.recheckDelay);
  number(ZBWebLinkCheckRetryAfterMaximumDefaultKey, 0, 3600, s.retryAfterMaximum);
  for (const Value& entry : defaults->arrayForKey(ZBWebLinkCheckResolveOverridesDefaultKey))
    if (entry.isString()) s.resolveOverrides.push_back(entry.asString());
  return s;
}

}  // namespace

Value ZBWebLinkCheckResult::valueForKey(const std::string& key) const {
  if (key == "websiteURL") return Value(_url.absoluteString());
  if (key == "broken") return Value(_broken);
  return NSObject::valueForKey(key);
}

std::shared_ptr<ZBWebLinkCheckOperation> ZBWebLinkCheckOperation::create(std::vector<NSURL> websiteURLs,
                                                                         std::shared_ptr<NSUserDefaults> userDefaults) {
  return std::make_shared<ZBWebLinkCheckOperation>(Passkey(), std::move(websiteURLs), std::move(userDefaults));
}

ZBWebLinkCheckOperation::ZBWebLinkCheckOperation(Passkey, std::vector<NSURL> websiteURLs,
                                                 std::shared_ptr<NSUserDefaults> userDefaults)
    : _urls(std::move(websiteURLs)),
      _defaults(userDefaults ? std::move(userDefaults) : NSUserDefaults::standardUserDefaults()) {}

Value ZBWebLinkCheckOperation::valueForKey(const std::string& key) const {
  if (key == ZBWebLinkCheckOperationCheckedCountKey) return Value(static_cast<std::int64_t>(checkedCount()));
  return ZBConcurrentOperation::valueForKey(key);
}

void ZBWebLinkCheckOperation::_setChecked(std::size_t checked) {
  if (_checked.load() == checked) return;
  willChangeValueForKey(ZBWebLinkCheckOperationCheckedCountKey);
  _checked.store(checked);
  didChangeValueForKey(ZBWebLinkCheckOperationCheckedCountKey);
}

// The whole run is one work operation: the network loop needs one thread and
// no more.
void ZBWebLinkCheckOperation::setupOperations(const ZBAddWorkOperation& addWorkOperation) {
  auto check = ZBPromiseOperation::promiseOperationWithBlock([this](NSErrorPtr* error) { return _check(error); });
  addWorkOperation(check);
  addContinuation(addWorkOperation, {check}, [this](const Array& results) { complete(results[0]); });
}

Value ZBWebLinkCheckOperation::_check(NSErrorPtr* error) {
  if (isCancelled()) {
    ZBSetError(error, ZBUserCancelledError());
    return Value();
  }
  std::vector<std::string> addresses;
  addresses.reserve(_urls.size());
  for (const NSURL& url : _urls) addresses.push_back(ZBLinkCheckRequestAddress(url.absoluteString()));
  ZBLinkCheckCallbacks callbacks;
  callbacks.cancelled = [this] { return isCancelled(); };
  callbacks.progress = [this](std::size_t checked) { _setChecked(checked); };
  std::vector<bool> broken;
  if (!ZBLinkCheckRun(addresses, readSettings(_defaults), callbacks, broken, error)) return Value();
  addresses.clear();
  addresses.shrink_to_fit();
  _setChecked(_urls.size());
  Array results;
  results.reserve(_urls.size());
  for (std::size_t i = 0; i < _urls.size(); ++i)
    results.push_back(Value(std::make_shared<ZBWebLinkCheckResult>(_urls[i], broken[i])));
  return Value(std::move(results));
}
