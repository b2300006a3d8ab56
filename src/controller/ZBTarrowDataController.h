#pragma once
// ZBTarrowDataController: the one object an application (and its share
// extension) uses. It owns the service client, the store stack and one
// operation queue for every long-running job, and publishes observable
// state for the interface: authenticated, username, refreshing,
// checkingDeadLinks, working, status, mainManagedObjectContext.
//
// Jobs: refresh (on demand, local changes only, or from the auto-refresh
// timer), dead-link checks (on demand, or automatically after a successful
// refresh when the last check is five days old), feed searches, suggested
// tags, and post creation for the extension. Each returns the operation it
// started, which cancelOperation() cancels; a refused request calls its
// handler before returning and returns a plain operation that never runs.
//
// Handlers run on the main thread (the main operation queue), except the
// refusals, which run inside the call. A cancelled job calls no handler, and
// neither does a job that ends after its controller was destroyed. Every
// handler may be empty.
//
// Logout cancels every job and fences it off: nothing a cancelled job still
// does reaches the fresh store or the service afterwards, and a new sign-in
// may refresh at once.
//
// Time (the five-day rule, the timer) is ZBClock's.
//
// Lifetime: held by std::shared_ptr (create). Destroying it cancels its jobs
// and stops the timer. Thread-safety: public calls belong on the main thread;
// the observable getters may be read from any thread.

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/NSError.h"
#include "platform/foundation/NSObject.h"
#include "platform/foundation/NSUserDefaults.h"
#include "platform/foundation/ZBMutex.h"
#include "platform/objectstore/NSManagedObjectContext.h"
#include "platform/operations/NSOperation.h"
#include "platform/operations/NSOperationQueue.h"
#include "platform/operations/NSTimer.h"
#include "platform/pinboardkit/ZBPinboardClient.h"
#include "store/ZBTarrowDataStoreCoordinator.h"

class ZBTarrowPinboardRefreshOperation;
class ZBTarrowLinkCheckerOperation;
class ZBTarrowPinboardPost;
class ZBTarrowSearch;

extern const std::string ZBTarrowDataControllerMainManagedObjectContextKey;  // "mainManagedObjectContext"
extern const std::string ZBTarrowDataControllerAuthenticatedKey;             // "authenticated"
extern const std::string ZBTarrowDataControllerUsernameKey;                  // "username"
extern const std::string ZBTarrowDataControllerWorkingKey;                   // "working"
extern const std::string ZBTarrowDataControllerStatusKey;                    // "status"
extern const std::string ZBTarrowDataControllerRefreshingKey;                // "refreshing"
extern const std::string ZBTarrowDataControllerCheckingDeadLinksKey;         // "checkingDeadLinks"
extern const std::string ZBTarrowDataControllerRefreshIntervalKey;           // "refreshInterval"
extern const std::string ZBTarrowDataControllerAutoRefreshCompletionKey;     // "autoRefreshCompletion"
extern const std::string ZBTarrowDataControllerShouldCheckDeadLinksKey;      // "shouldCheckDeadLinks"
// "lastDeadLinkCheckTimestamp" in the standard user defaults: when the last
// successful dead-link check ended. Registered as the reference date.
extern const std::string ZBTarrowDataControllerLastDeadLinkCheckTimestampDefaultKey;

class ZBTarrowDataController final : public NSObject {
  struct Passkey {
    explicit Passkey() = default;
  };

public:
  using CompletionHandler = std::function<void(bool success, NSErrorPtr error)>;
  using PostsHandler = std::function<void(std::optional<Array> posts, NSErrorPtr error)>;
  using TagsHandler = std::function<void(std::optional<std::vector<std::string>> tags, NSErrorPtr error)>;

  // A controller with its store stack set up (a failure to open the stores
  // is not reported here: fetches and saves report it) and no client.
  static std::shared_ptr<ZBTarrowDataController> create();
  // The same, then a client configured by userDefaults (transport and clock
  // as ZBPinboardClient::create takes them). The dead-link checks read their
  // settings there too (the standard defaults without them).
  static std::shared_ptr<ZBTarrowDataController> create(std::shared_ptr<NSUserDefaults> userDefaults,
                                                        std::shared_ptr<ZBHTTPTransport> transport = nullptr,
                                                        std::shared_ptr<ZBClock> clock = nullptr);
  explicit ZBTarrowDataController(Passkey);
  ~ZBTarrowDataController() override;

  // ---- Properties (observable under their names) ----
  std::shared_ptr<ZBPinboardClient> pinboardClient() const;
  void setPinboardClient(std::shared_ptr<ZBPinboardClient> client);
  ZBTarrowDataStoreCoordinatorPtr pinboardStoreCoordinator() const;
  void setPinboardStoreCoordinator(ZBTarrowDataStoreCoordinatorPtr coordinator);
  std::shared_ptr<NSOperationQueue> operationQueue() const;
  void setOperationQueue(std::shared_ptr<NSOperationQueue> queue);
  std::shared_ptr<ZBTarrowPinboardRefreshOperation> refreshOperation() const;
  std::shared_ptr<ZBTarrowLinkCheckerOperation> linkCheckerOperation() const;
  std::shared_ptr<NSTimer> autoRefreshTimer() const;
  bool isRefreshing() const;
  bool isCheckingDeadLinks() const;
  // The current progress text; nullopt when nothing runs.
  std::optional<std::string> status() const;
  // Auto-refresh period in seconds; 0 or less turns it off. Setting it
  // replaces the timer, which first fires one interval later.
  double refreshInterval() const;
  void setRefreshInterval(double interval);
  // Called with the outcome of every refresh the timer starts.
  CompletionHandler autoRefreshCompletion() const;
  void setAutoRefreshCompletion(CompletionHandler handler);
  bool shouldCheckDeadLinks() const;
  void setShouldCheckDeadLinks(bool value);
  // Whether a refresh that finds another process refreshing the same store
  // waits for it (true) or fails with ZBTarrowDataRefreshElsewhereError
  // (false, the default). Applies to refreshes started afterwards.
  bool refreshWaitsForOtherProcesses() const { return _refreshWaits.load(); }
  void setRefreshWaitsForOtherProcesses(bool value) { _refreshWaits.store(value); }

  NSManagedObjectContextPtr mainManagedObjectContext() const;
  bool isAuthenticated() const;
  // Empty when signed out.
  std::string username() const;
  bool isWorking() const;

  // ---- Authentication ----
  // On failure the client is left signed out. When the service accepted the
  // sign-in but the credentials could not be stored, the error offers the
  // recovery "Continue Without Saving" (NSRecoveryAttempterErrorKey).
  void authenticateWithUsernameToken(const std::string& username, const std::string& token,
                                     CompletionHandler handler);
  void authenticateWithUsernamePassword(const std::string& username, const std::string& password,
                                        CompletionHandler handler);
  // Cancels every job, forgets the credentials and the sync timestamps, and
  // empties the Pinboard store (the sidebar's store stays). The handler runs
  // before this returns.
  void logout(CompletionHandler handler);

  // ---- Refresh and dead links ----
  std::shared_ptr<NSOperation> refresh(CompletionHandler handler);
  std::shared_ptr<NSOperation> sendLocalChanges(CompletionHandler handler);
  std::shared_ptr<NSOperation> checkDeadLinks(CompletionHandler handler);

  // ---- Requests for the interface ----
  // The posts of a saved feed search, each decorated with editable NO, its
  // host and its sorted tag titles.
  std::shared_ptr<NSOperation> retrievePostsForSearch(const std::shared_ptr<ZBTarrowSearch>& search,
                                                      PostsHandler handler);
  // Suggested tags, duplicates removed (first occurrence kept).
  std::shared_ptr<NSOperation> retrieveSuggestedTagsForURL(const std::string& url, TagsHandler handler);
  void cancelOperation(const std::shared_ptr<NSOperation>& operation);

  // ---- For the share extension only ----
  // Sends one new post (saved in the store) to the service.
  void sendPostCreation(const std::shared_ptr<ZBTarrowPinboardPost>& post, CompletionHandler handler);

  Value valueForKey(const std::string& key) const override;
  void setValueForKey(const Value& value, const std::string& key) override;
  std::vector<std::string> keyPathsForValuesAffectingValueForKey(const std::string& key) const override;
  std::string className() const override { return "ZBTarrowDataController"; }

private:
  std::shared_ptr<ZBTarrowDataController> _self() {
    return std::static_pointer_cast<ZBTarrowDataController>(shared_from_this());
  }
  void _observeSelf();
  void _authenticate(const std::shared_ptr<ZBPinboardRequestOperation>& operation, CompletionHandler handler);
  void _updateStatus();
  std::shared_ptr<NSOperation> _refreshLocalOnly(bool localOnly, CompletionHandler handler);
  void _enqueueLinkCheckerOperationIfNeeded();
  std::shared_ptr<NSOperation> _enqueueLinkCheckerOperation(CompletionHandler handler);
  void _setupAutoRefreshWithRefreshInterval(double interval);
  void _autoRefresh(NSTimer& timer);

  void _setRefreshOperation(std::shared_ptr<ZBTarrowPinboardRefreshOperation> operation);
  void _setLinkCheckerOperation(std::shared_ptr<ZBTarrowLinkCheckerOperation> operation);
  void _setAutoRefreshTimer(std::shared_ptr<NSTimer> timer);
  void _setRefreshing(bool value);
  void _setCheckingDeadLinks(bool value);
  void _setStatus(std::optional<std::string> status);
  // Sets a member under the lock, bracketed by the key's change notices.
  template <class T, class U>
  void _set(const std::string& key, T ZBTarrowDataController::*member, U&& value);

  mutable ZBMutex _mutex;
  std::shared_ptr<ZBPinboardClient> _client ZB_GUARDED_BY(_mutex);
  ZBTarrowDataStoreCoordinatorPtr _coordinator ZB_GUARDED_BY(_mutex);
  std::shared_ptr<NSOperationQueue> _queue ZB_GUARDED_BY(_mutex);
  std::shared_ptr<ZBTarrowPinboardRefreshOperation> _refreshOperation ZB_GUARDED_BY(_mutex);
  std::shared_ptr<ZBTarrowLinkCheckerOperation> _linkCheckerOperation ZB_GUARDED_BY(_mutex);
  std::shared_ptr<NSTimer> _timer ZB_GUARDED_BY(_mutex);
  bool _refreshing ZB_GUARDED_BY(_mutex) = false;
  bool _checkingDeadLinks ZB_GUARDED_BY(_mutex) = false;
  std::optional<std::string> _status ZB_GUARDED_BY(_mutex);
  double _refreshInterval ZB_GUARDED_BY(_mutex) = 0;
  CompletionHandler _autoRefreshCompletion ZB_GUARDED_BY(_mutex);
  bool _shouldCheckDeadLinks ZB_GUARDED_BY(_mutex) = false;
  std::atomic<bool> _refreshWaits{false};

  // Given at creation (null: the standard ones); set once, before any job.
  std::shared_ptr<NSUserDefaults> _userDefaults;
  // The three self-observations: refresh status, link-checker status,
  // refresh interval. Ended first thing in the destructor.
  std::vector<NSKeyValueObservation> _observations;
};

using ZBTarrowDataControllerPtr = std::shared_ptr<ZBTarrowDataController>;
