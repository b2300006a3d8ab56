#pragma once
// The service library's exported names: post-field keys (the model's own key
// strings, so post dictionaries go straight into the store), the credentials
// key, the feed size of community searches, the user-default keys that
// configure the client, and the error domain with its one table of codes.

#include <cstdint>
#include <string>

// ---- Keys of post metadata dictionaries ----
extern const std::string ZBPinboardPostDateKey;        // "date": NSDate, when the bookmark was saved
extern const std::string ZBPinboardPostDescKey;        // "desc": notes
extern const std::string ZBPinboardPostIdentifierKey;  // "identifier": the service's hash (MD5 of the URL)
extern const std::string ZBPinboardPostMetaKey;        // "meta": change signature
extern const std::string ZBPinboardPostOthersKey;      // "others": integer, only when the service reports it
extern const std::string ZBPinboardPostSharedKey;      // "shared": bool
extern const std::string ZBPinboardPostStarredKey;     // "starred": bool (never sent by the service's posts)
extern const std::string ZBPinboardPostTagsKey;        // "tags": array of strings
extern const std::string ZBPinboardPostTitleKey;       // "title"
extern const std::string ZBPinboardPostURLKey;         // "url"
extern const std::string ZBPinboardPostUnreadKey;      // "unread": bool
extern const std::string ZBPinboardPostUsernameKey;    // "username": owner (own posts) or author (feeds)
extern const std::string ZBPinboardTagTitleKey;        // "title"

// Key-value observation key of ZBPinboardClient::credentials ("credentials").
extern const std::string ZBPinboardClientCredentialsKey;

// Items asked of a feed by community searches.
extern const std::uint64_t ZBPinboardClientFeedDefaultResultsCount;

// ---- User defaults read by the client (at each request) ----
// Strings: base URLs, each ending in '/'. Defaults: the real service.
extern const std::string ZBPinboardAPIBaseURLDefaultKey;    // "https://api.pinboard.in/v1/"
extern const std::string ZBPinboardFeedsBaseURLDefaultKey;  // "https://feeds.pinboard.in/json/"
// Numbers, in seconds.
extern const std::string ZBPinboardRequestTimeoutDefaultKey;     // whole request, 60
extern const std::string ZBPinboardAllPostsTimeoutDefaultKey;    // whole posts/all request, 600
extern const std::string ZBPinboardConnectTimeoutDefaultKey;     // connection set-up, 15
extern const std::string ZBPinboardRequestIntervalDefaultKey;    // between any two API calls, 3
extern const std::string ZBPinboardRecentIntervalDefaultKey;     // between two posts/recent calls, 60
extern const std::string ZBPinboardAllPostsIntervalDefaultKey;   // between two posts/all calls, 300
extern const std::string ZBPinboardFeedIntervalDefaultKey;       // between two feed requests, 1
extern const std::string ZBPinboardBackoffInitialDefaultKey;     // first wait after HTTP 429, 3 (then doubled)
extern const std::string ZBPinboardBackoffMaximumDefaultKey;     // cap of one wait, 300
extern const std::string ZBPinboardBackoffRetriesDefaultKey;     // retries after 429 before giving up, 6
// String: the credentials file. Default: "pinboard-credentials.plist" beside
// the user defaults' own file.
extern const std::string ZBPinboardCredentialsPathDefaultKey;
// The file beside the user defaults' own that keeps when each user last
// called each kind of request, shared by the processes of that directory.
extern const std::string ZBPinboardRateLimitsFileName;  // "pinboard-rate-limits"

// ---- Errors ----
// Domain of every error the client makes. Its user information carries a
// localised description and recovery suggestion, and, where it applies,
// ZBPinboardMethodErrorKey (the API method or feed path, never a URL with
// credentials), ZBPinboardHTTPStatusErrorKey, ZBPinboardResultCodeErrorKey and
// NSUnderlyingErrorKey. No error ever contains the API token or a password.
extern const std::string ZBPinboardKitErrorDomain;  // "com.orvane.zbpinboardkit"
extern const std::string ZBPinboardCredentialsErrorKey;  // credentials object (code -200)
extern const std::string ZBPinboardMethodErrorKey;       // string, e.g. "posts/all"
extern const std::string ZBPinboardHTTPStatusErrorKey;   // integer
extern const std::string ZBPinboardResultCodeErrorKey;   // string, the service's result text

enum : std::int64_t {
  // The service could not be reached, or the connection broke mid-answer
  // (underlying error in NSURLErrorDomain), or the system had no thread to
  // run the request on (underlying error in NSPOSIXErrorDomain). Retrying
  // later can help.
  ZBPinboardKitNetworkError = -100,
  // No complete answer within the time-out. Retrying later can help.
  ZBPinboardKitTimedOutError = -101,
  // The credentials were accepted but could not be stored; the credentials
  // object is under ZBPinboardCredentialsErrorKey and can be used unsaved.
  ZBPinboardKitCredentialsNotStoredError = -200,
  // HTTP 401/403: the user name, token or password was refused. Retrying
  // cannot help; sign in again.
  ZBPinboardKitUnauthorizedError = -201,
  // The client holds no credentials for a request that needs them. Sign in.
  ZBPinboardKitNotAuthenticatedError = -202,
  // HTTP 429 went on through every back-off. Retry after some minutes.
  ZBPinboardKitRateLimitedError = -300,
  // HTTP 5xx or another unexpected status. Retrying later may help.
  ZBPinboardKitServerError = -400,
  // The answer could not be read (not JSON, or not the expected shape).
  // Retrying later may help; the service may be in maintenance.
  ZBPinboardKitMalformedResponseError = -500,
  // The service answered but refused: its result text ("item already exists",
  // "missing url", "rename to null", "something went wrong"…) is under
  // ZBPinboardResultCodeErrorKey. Retrying the same request will not help.
  ZBPinboardKitServiceError = -600,
  // The arguments cannot make a request (a post without a URL, a tag list
  // that is not strings). A programming or data error; do not retry.
  ZBPinboardKitInvalidArgumentError = -700,
};
// Cancellation is reported as NSCocoaErrorDomain, NSUserCancelledError (3072).
