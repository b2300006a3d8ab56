#include "platform/pinboardkit/ZBPinboardKit.h"

#include "platform/foundation/ZBLocalizedString.h"
#include "platform/pinboardkit/impl/ZBPinboardErrors.h"

// The post keys are the model's attribute names, so that the refresh can hand
// a service dictionary to the store unchanged.
const std::string ZBPinboardPostDateKey = "date";
const std::string ZBPinboardPostDescKey = "desc";
const std::string ZBPinboardPostIdentifierKey = "identifier";
const std::string ZBPinboardPostMetaKey = "meta";
const std::string ZBPinboardPostOthersKey = "others";
const std::string ZBPinboardPostSharedKey = "shared";
const std::string ZBPinboardPostStarredKey = "starred";
const std::string ZBPinboardPostTagsKey = "tags";
const std::string ZBPinboardPostTitleKey = "title";
const std::string ZBPinboardPostURLKey = "url";
const std::string ZBPinboardPostUnreadKey = "unread";
const std::string ZBPinboardPostUsernameKey = "username";
const std::string ZBPinboardTagTitleKey = "title";

const std::string ZBPinboardClientCredentialsKey = "credentials";
const std::uint64_t ZBPinboardClientFeedDefaultResultsCount = 100;

const std::string ZBPinboardAPIBaseURLDefaultKey = "ZBPinboardAPIBaseURL";
const std::string ZBPinboardFeedsBaseURLDefaultKey = "ZBPinboardFeedsBaseURL";
const std::string ZBPinboardRequestTimeoutDefaultKey = "ZBPinboardRequestTimeout";
const std::string ZBPinboardAllPostsTimeoutDefaultKey = "ZBPinboardAllPostsTimeout";
const std::string ZBPinboardConnectTimeoutDefaultKey = "ZBPinboardConnectTimeout";
const std::string ZBPinboardRequestIntervalDefaultKey = "ZBPinboardRequestInterval";
const std::string ZBPinboardRecentIntervalDefaultKey = "ZBPinboardRecentInterval";
const std::string ZBPinboardAllPostsIntervalDefaultKey = "ZBPinboardAllPostsInterval";
const std::string ZBPinboardFeedIntervalDefaultKey = "ZBPinboardFeedInterval";
const std::string ZBPinboardBackoffInitialDefaultKey = "ZBPinboardBackoffInitial";
const std::string ZBPinboardBackoffMaximumDefaultKey = "ZBPinboardBackoffMaximum";
const std::string ZBPinboardBackoffRetriesDefaultKey = "ZBPinboardBackoffRetries";
const std::string ZBPinboardCredentialsPathDefaultKey = "ZBPinboardCredentialsPath";
const std::string ZBPinboardRateLimitsFileName = "pinboard-rate-limits";

const std::string ZBPinboardKitErrorDomain = "com.orvane.zbpinboardkit";
const std::string ZBPinboardCredentialsErrorKey = "ZBPinboardCredentialsErrorKey";
const std::string ZBPinboardMethodErrorKey = "ZBPinboardMethodErrorKey";
const std::string ZBPinboardHTTPStatusErrorKey = "ZBPinboardHTTPStatusErrorKey";
const std::string ZBPinboardResultCodeErrorKey = "ZBPinboardResultCodeErrorKey";

NSErrorPtr ZBPinboardMakeError(std::int64_t code, const std::string& method, Dictionary extra) {
  std::string description, suggestion;
  switch (code) {
    case ZBPinboardKitNetworkError:
      description = ZBLocalizedString("Couldn’t connect to Pinboard.");
      suggestion = ZBLocalizedString("Check your internet connection and try again.");
      break;
    case ZBPinboardKitTimedOutError:
      description = ZBLocalizedString("Pinboard didn’t answer in time.");
      suggestion = ZBLocalizedString("Please try again later.");
      break;
    case ZBPinboardKitCredentialsNotStoredError:
      description = ZBLocalizedString("Couldn’t Save Pinboard Credentials");
      suggestion = ZBLocalizedString("You’re signed in, but your credentials couldn’t be saved on this computer.");
      break;
    case ZBPinboardKitUnauthorizedError:
      description = ZBLocalizedString("Pinboard didn’t accept your credentials.");
      suggestion = ZBLocalizedString("Check your user name and API token or password, and sign in again.");
      break;
    case ZBPinboardKitNotAuthenticatedError:
      description = ZBLocalizedString("You’re not signed in to Pinboard.");
      suggestion = ZBLocalizedString("Sign in and try again.");
      break;
    case ZBPinboardKitRateLimitedError:
      description = ZBLocalizedString("Pinboard asked to slow down.");
      suggestion = ZBLocalizedString("Please wait a few minutes and try again.");
      break;
    case ZBPinboardKitServerError:
      description = ZBLocalizedString("Pinboard reported a server error.");
      suggestion = ZBLocalizedString("Please try again later.");
      break;
    case ZBPinboardKitMalformedResponseError:
      description = ZBLocalizedString("Pinboard sent an answer that couldn’t be read.");
      suggestion = ZBLocalizedString("Please try again later.");
      break;
    case ZBPinboardKitServiceError:
      description = ZBLocalizedString("Pinboard couldn’t complete the request.");
      break;
    case ZBPinboardKitInvalidArgumentError:
      description = ZBLocalizedString("The request to Pinboard is incomplete.");
      break;
    default:
      break;
  }
  Dictionary info;
  if (!description.empty()) info.set(NSLocalizedDescriptionKey, description);
  if (!suggestion.empty()) info.set(NSLocalizedRecoverySuggestionErrorKey, suggestion);
  if (!method.empty()) info.set(ZBPinboardMethodErrorKey, method);
  info.addEntries(extra);
  return NSError::create(ZBPinboardKitErrorDomain, code, std::move(info));
}
