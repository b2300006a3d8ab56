#pragma once
// ZBPinboardClient: the one way the system talks to Pinboard (the v1 API and
// the JSON feeds). Every request returns at once a new, not yet started
// ZBPinboardRequestOperation; the caller runs it where it likes (a work plan,
// a queue) and reads its completion provider. Only logout() is synchronous.
//
// Requests read their settings from the user defaults given at creation, at
// the moment they run (base URLs, time-outs, rate-limit spacing, back-off;
// keys in ZBPinboardKit.h). They are spaced as the service asks (3 s between
// API calls, 1 min between posts/recent and 5 min between posts/all calls,
// by default), per user and across every process whose defaults live in the
// same directory (the times of the last calls are kept in a file there:
// ZBPinboardRateLimitsFileName). An HTTP 429 is retried after a wait that
// doubles each time, up to a cap and a number of retries, before it becomes
// ZBPinboardKitRateLimitedError, whose suggestion says when to try again. A request waiting for its method's own turn
// holds back the others by no more than the 3 s; a cancelled one takes no
// turn from the next. Waiting holds no thread: the waits are timers on the
// client's clock, and only the exchanges run on a few shared threads.
//
// A request belongs to the credentials held when it was made: one whose
// account was then changed, cleared or logged out before it left fails with
// ZBPinboardKitUnauthorizedError and is never sent.
//
// Tags sent to the service (a post's tags, filters, renames, deletions) may
// not contain a comma or whitespace: the service would split such a tag into
// several, so the stored tags would no longer be the local ones. The request
// fails with ZBPinboardKitInvalidArgumentError naming the tag
// (NSLocalizedFailureReasonErrorKey) and nothing is sent; splitting is the
// caller's choice to make, where the user can see it.
//
// Writes whose answer was lost (HTTP 5xx, an unreadable body, a dropped
// connection) may still have been applied; retrying them converges, because
// these answers count as done: "item not found" for a post deletion (it is
// gone, as wanted); "done" for a tag rename or deletion whatever the tag's
// state (the service answers so also for a tag it no longer has under the old
// name); "done" for an update (it resends every field, so repeating it changes
// nothing); and, for a create, "item already exists" when the stored bookmark
// holds exactly what was sent (the first attempt's own write).
//
// Post dictionaries carry the model's keys (ZBPinboardPost…Key): identifier
// (the service's hash), meta, url, title, desc, date (NSDate), shared and
// unread (bool), tags (array of strings), username (the signed-in user for
// the account's own posts, the author in feeds) and others when the service
// sends it. Absent values are left out.
//
// Credentials: `credentials` is observable under ZBPinboardClientCredentialsKey.
// Authentication stores the credentials it obtains in a file only the user
// can read (see ZBPinboardCredentials); a password is used once to obtain the
// token and never kept. The token never appears in an error, a description or
// a log line.
//
// Lifetime: held by std::shared_ptr, made only by create(); operations keep it
// alive while they run. Thread-safe: every method may be called from any
// thread, and operations may run at the same time.

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/NSError.h"
#include "platform/foundation/NSObject.h"
#include "platform/foundation/NSUserDefaults.h"
#include "platform/foundation/ZBClock.h"
#include "platform/foundation/ZBMutex.h"
#include "platform/pinboardkit/ZBHTTPTransport.h"
#include "platform/pinboardkit/ZBPinboardCredentials.h"
#include "platform/pinboardkit/ZBPinboardKit.h"
#include "platform/pinboardkit/ZBPinboardRequestOperation.h"
#include "platform/pinboardkit/impl/ZBPinboardRateLimiter.h"
#include "platform/pinboardkit/impl/ZBPinboardThreads.h"

class ZBPinboardClient final : public NSObject {
  // Only create() can make one: a client built without it would not have
  // read the credentials file.
  struct Passkey {
    explicit Passkey() = default;
  };

public:
  using Operation = std::shared_ptr<ZBPinboardRequestOperation>;

  // A client configured by userDefaults, signed in with the credentials file
  // when there is a readable one. transport: nullptr for libcurl. clock: what
  // rate-limit spacing and back-off waits are measured on, nullptr for the
  // machine's monotonic clock (a test gives a ZBManualClock and moves time).
  static std::shared_ptr<ZBPinboardClient> create(std::shared_ptr<NSUserDefaults> userDefaults,
                                                  std::shared_ptr<ZBHTTPTransport> transport = nullptr,
                                                  std::shared_ptr<ZBClock> clock = nullptr);

  // ---- Credentials ----
  // nullptr when signed out.
  std::shared_ptr<ZBPinboardCredentials> credentials() const;
  // Replaces the credentials in memory, notifying observers. Setting nullptr
  // also removes the credentials file, so that a failed sign-in stays signed
  // out across runs; non-null credentials are not written (authentication did
  // that, or the user chose to continue without saving).
  void setCredentials(std::shared_ptr<ZBPinboardCredentials> credentials);

  // Result: the credentials (ZBPinboardCredentials) once the service accepted
  // the token and they were stored; -200 with them under
  // ZBPinboardCredentialsErrorKey when they could not be stored; -201 when
  // refused. A token pasted whole ("name:SECRET") is accepted too.
  Operation authenticateWithUsernameToken(const std::string& username, const std::string& token);
  // The same, obtaining the token with the password (HTTP Basic).
  Operation authenticateWithUsernamePassword(const std::string& username, const std::string& password);
  // Forgets the stored credentials (the file) and any cached feed key. Does
  // not change `credentials`; the caller clears them. False with the file
  // error when the file cannot be removed.
  [[nodiscard]] bool logout(NSErrorPtr* error = nullptr);

  // ---- Requests (signed in) ----
  // Result: NSDate of the last change to the user's bookmarks.
  Operation retrieveLastPostUpdateDate();
  // Result: Array of post dictionaries saved between startDate and endDate,
  // both included (each an NSDate, or absent for no bound; whole seconds, and
  // a post one second outside may come too, since the service may leave its
  // ends out). tags: absent for all, else an array or set of at most three
  // strings. Asks for the change signatures (meta); a list without them is
  // read all the same. The answer (tens of megabytes for a large account) is
  // read while it arrives, on two threads: one transfers, one builds the
  // dictionaries.
  Operation retrieveAllPostsWithTagsStartDate(const Value& tags, const Value& startDate, const Value& endDate);
  // Result: Array of all the user's post dictionaries (newest first).
  //
  // The service allows one full list every five minutes (the all-posts
  // interval). When the whole list (no tags) is asked for again within that
  // time, the client first asks posts/update; if the service's date is the
  // one read before the list it holds was sent, at least a second before it
  // was sent (so that no change of that second can be missing), the list
  // held is the answer. Otherwise the request waits its turn. The list is
  // held for one such use, for the same credentials, and no longer than the
  // interval.
  Operation retrieveAllPostsWithTags(const Value& tags);
  // Result: Array of feed post dictionaries. method names a feed ("popular",
  // "recent", "popular/wikipedia", "starred", "network"…); authenticated asks
  // for the signed-in user's own view of it (secret feed), which needs
  // credentials.
  Operation retrieveFeedWithMethod(const std::string& method, bool authenticated, std::uint64_t resultsCount);
  // Result: Array of the user's bookmarks saved through source ("twitter",
  // "pocket"…), private ones included.
  Operation retrieveFeedWithSource(const std::string& source, std::uint64_t resultsCount);
  // Result: Array of public bookmarks of username (empty: anyone) carrying
  // every tag of tags (an array or set of strings; empty ones are ignored).
  // nullptr (no operation) when there is neither a user nor a tag to ask for.
  Operation retrieveFeedWithUsername(const std::string& username, const Value& tags, std::uint64_t resultsCount);
  // Result: Array of tag strings, the popular ones then the recommended ones,
  // repeats kept.
  Operation retrievePostSuggestedTagsForURL(const std::string& url);
  // Send every field of a bookmark (url required; title, desc, tags, date,
  // shared, unread as present; absent ones go out empty, since a field left
  // out would be erased). An empty title goes out as "[no title]", the
  // service's own placeholder, because it refuses an empty one. Result:
  // {identifier, url}, identifier being the one sent (or the MD5 of the URL
  // when none was). A refusal is ZBPinboardKitServiceError with the service's
  // words under ZBPinboardResultCodeErrorKey.
  //
  // Creating never replaces: a new bookmark (from the share extension, say)
  // for an address the user already saved on the service must not silently
  // destroy the saved notes and tags. When the service has one, it is left as
  // it is and the request fails with ZBPinboardKitServiceError, result code
  // "item already exists" (unless it holds exactly what was sent: see the
  // retries above). Updating replaces the whole bookmark for that URL.
  Operation createPostWithProperties(const Dictionary& properties);
  Operation updatePostWithProperties(const Dictionary& properties);
  // Result: {identifier, url} as above. A bookmark the service no longer has
  // counts as deleted.
  Operation deletePostWithProperties(const Dictionary& properties);
  // Result: the new title (a string). An old title the service does not know
  // (any more) succeeds; an empty new one is refused ("rename to null").
  Operation renameTag(const std::string& oldTitle, const std::string& newTitle);
  // Result: the title (a string). Deleting an unknown tag succeeds.
  Operation deleteTag(const std::string& title);
  // Result: Dictionary from tag to integer count.
  Operation retrieveTags();

  // "credentials" (ZBPinboardClientCredentialsKey).
  Value valueForKey(const std::string& key) const override;
  void setValueForKey(const Value& value, const std::string& key) override;
  std::string className() const override { return "ZBPinboardClient"; }

  // For create() (std::make_shared needs it public).
  ZBPinboardClient(Passkey, std::shared_ptr<NSUserDefaults> userDefaults, std::shared_ptr<ZBHTTPTransport> transport,
                   std::shared_ptr<ZBClock> clock);

private:
  struct Settings;
  struct Call;
  struct Reply;
  using Params = std::vector<std::pair<std::string, std::string>>;  // a query's names and values
  using OperationPointer = ZBPinboardRequestOperation::Pointer;
  // Where a request's exchange ends: on a client thread, once, with the body
  // of the HTTP 200 answer (or the posts read from it) or with the error.
  using Then = std::function<void(Reply& reply)>;
  // Reads a successful reply: the result, or absent and the error.
  using Read = std::function<Value(Reply& reply, NSErrorPtr* error)>;

  std::shared_ptr<ZBPinboardClient> _self() {
    return std::static_pointer_cast<ZBPinboardClient>(shared_from_this());
  }
  Settings _settings() const;
  std::filesystem::path _credentialsPath() const;
  std::filesystem::path _defaultsDirectory() const;
  Operation _request(std::string method, std::function<void(const OperationPointer&)> body);
  // A Then that completes operation with read's outcome, or the reply's error.
  static Then _completing(const OperationPointer& operation, Read read);
  // Runs a step of a request on one of the client's threads, where an
  // escaping exception would be dropped and leave the request unfinished:
  // then gets its error instead.
  template <class Step>
  static void _guarded(const Then& then, Step&& step);

  // The exchange, in three steps: wait for a turn (no thread held), leave
  // (credentials checked, on a transfer thread), answer (429 waits out its
  // back-off and starts again at the first step).
  void _perform(std::shared_ptr<const Call> call, const OperationPointer& operation, Then then, int attempt,
                double backoff);
  void _transfer(const std::shared_ptr<const Call>& call, const OperationPointer& operation, const Then& then,
                 int attempt, double backoff, const ZBPinboardRateLimiter::Turn& turn);
  [[nodiscard]] bool _sendReadingPosts(const Call& call, ZBHTTPRequest& request, ZBHTTPResponse& response,
                                       const std::function<bool()>& cancelled, Reply& reply, NSErrorPtr* error);
  void _backOff(std::shared_ptr<const Call> call, const OperationPointer& operation, Then then, int attempt,
                double backoff, double wait);
  // Shows operation's wait for its turn (due at turnAt on the timers' clock;
  // infinity or less than now: nothing to show) and counts it down, a tick
  // per second, on the timer queue.
  void _showWait(const OperationPointer& operation, double turnAt);
  void _tickWait(const OperationPointer& operation, std::uint64_t timer);
  // An authenticated API call under the credentials held now; without any,
  // then gets ZBPinboardKitNotAuthenticatedError and nothing is sent.
  void _api(const OperationPointer& operation, const std::string& method, Params params, Then then,
            bool streamsPosts = false, std::shared_ptr<std::atomic<double>> departure = nullptr);
  // The whole list, fetched or served from _heldList (see retrieveAllPostsWithTags).
  void _fullList(const OperationPointer& operation);
  void _fetchFullList(const OperationPointer& operation);
  // An API call that answers with a result text: read gets it on success.
  void _apiResult(const OperationPointer& operation, const std::string& method, Params params,
                  std::function<void(const std::string& text)> read);
  Operation _authenticate(const std::string& username, const std::string& secret, bool password);
  Operation _feed(std::string name, std::string path, bool secret, std::uint64_t count);
  Operation _sendPost(const Dictionary& properties, const char* name, bool replace);
  // After "item already exists" for a post sent without replacing: done when
  // the stored bookmark is the one sent (a retry of a write the service kept
  // behind an error), otherwise the service's refusal.
  void _confirmExisting(const OperationPointer& operation, const Dictionary& sent, Value echo);
  // The feed key of the signed-in user (user/secret), fetched once per
  // credentials; then gets it in the reply's body.
  void _rssKey(const OperationPointer& operation, const ZBPinboardCredentials& credentials, Then then);

  const double _spacingMargin;  // seconds added to every spacing
  const std::shared_ptr<NSUserDefaults> _defaults;
  const std::shared_ptr<ZBHTTPTransport> _transport;
  const std::shared_ptr<ZBPinboardTimerQueue> _timers;
  const std::shared_ptr<ZBPinboardRateLimiter> _limiter;
  // Bumped by logout(): a request started before it never leaves.
  std::atomic<std::uint64_t> _logouts{0};
  mutable ZBMutex _mutex;
  std::shared_ptr<ZBPinboardCredentials> _credentials ZB_GUARDED_BY(_mutex);
  std::string _rssKeyValue ZB_GUARDED_BY(_mutex);
  std::string _rssKeyOwner ZB_GUARDED_BY(_mutex);  // the apiToken() the key belongs to
  // The service's date as last read (posts/update) and when, on the timers'
  // clock; and the last whole list with what was known when it was sent.
  struct UpdateRead {
    Value date;
    double at = 0;
    std::string token;
  };
  struct HeldList {
    Value posts;
    UpdateRead before;
    double departedAt = 0;
  };
  std::optional<UpdateRead> _lastUpdateRead ZB_GUARDED_BY(_mutex);
  std::optional<HeldList> _heldList ZB_GUARDED_BY(_mutex);
};
