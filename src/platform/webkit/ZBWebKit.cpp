#include "platform/webkit/ZBWebKit.h"

const std::string ZBWebLinkCheckMaximumConnectionsDefaultKey = "webLinkCheckMaximumConnections";
const std::string ZBWebLinkCheckMaximumConnectionsPerHostDefaultKey = "webLinkCheckMaximumConnectionsPerHost";
const std::string ZBWebLinkCheckConnectTimeoutDefaultKey = "webLinkCheckConnectTimeout";
const std::string ZBWebLinkCheckRequestTimeoutDefaultKey = "webLinkCheckRequestTimeout";
const std::string ZBWebLinkCheckRecheckDelayDefaultKey = "webLinkCheckRecheckDelay";
const std::string ZBWebLinkCheckRetryAfterMaximumDefaultKey = "webLinkCheckRetryAfterMaximum";
const std::string ZBWebLinkCheckResolveOverridesDefaultKey = "webLinkCheckResolveOverrides";

const std::string ZBWebKitErrorDomain = "com.orvane.zbwebkit";
const std::string ZBWebKitCheckedHostsErrorKey = "ZBWebKitCheckedHostsErrorKey";
const std::string ZBWebKitUnreachableHostsErrorKey = "ZBWebKitUnreachableHostsErrorKey";
