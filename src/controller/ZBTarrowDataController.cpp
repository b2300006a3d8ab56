#include "controller/ZBTarrowDataController.h"

#include "linkcheck/ZBTarrowLinkCheckerOperation.h"
#include "model/ZBTarrowPinboardPost.h"
#include "model/ZBTarrowSearch.h"
#include "platform/foundation/NSDate.h"
#include "platform/foundation/ZBClock.h"
#include "platform/foundation/ZBErrorRecoveryAttempter.h"
#include "platform/foundation/ZBLocalizedString.h"
#include "platform/operations/NSBlockOperation.h"
#include "platform/operations/NSRunLoop.h"
#include "platform/operations/ZBPromiseOperation.h"
#include "sync/ZBTarrowDataError.h"
#include "sync/ZBTarrowPinboardRefreshOperation.h"
#include "sync/ZBTarrowPinboardSearchOperation.h"

const std::string ZBTarrowDataControllerMainManagedObjectContextKey = "mainManagedObjectContext";
const std::string ZBTarrowDataControllerAuthenticatedKey = "authenticated";
const std::string ZBTarrowDataControllerUsernameKey = "username";
const std::string ZBTarrowDataControllerWorkingKey = "working";
const std::string ZBTarrowDataControllerStatusKey = "status";
const std::string ZBTarrowDataControllerRefreshingKey = "refreshing";
const std::string ZBTarrowDataControllerCheckingDeadLinksKey = "checkingDeadLinks";
const std::string ZBTarrowDataControllerRefreshIntervalKey = "refreshInterval";
const std::string ZBTarrowDataControllerAutoRefreshCompletionKey = "autoRefreshCompletion";
const std::string ZBTarrowDataControllerShouldCheckDeadLinksKey = "shouldCheckDeadLinks";
const std::string ZBTarrowDataControllerLastDeadLinkCheckTimestampDefaultKey = "lastDeadLinkCheckTimestamp";

namespace {

const std::string kPinboardClientKey = "pinboardClient";
const std::string kPinboardStoreCoordinatorKey = "pinboardStoreCoordinator";
const std::string kOperationQueueKey = "operationQueue";
const std::string kRefreshOperationKey = "refreshOperation";
const std::string kLinkCheckerOperationKey = "linkCheckerOperation";
const std::string kAutoRefreshTimerKey = "autoRefreshTimer";

// Five days: how old the last dead-link check must be for an automatic one.
constexpr double kDeadLinkCheckInterval = 432000;
constexpr std::int64_t kLogoutErrorCode = -100;

// The standard defaults; the reference date is registered as the last check
// so that the first automatic check is due at once. Registered on every
// controller creation, since the standard defaults object is replaced when
// its file is.
std::shared_ptr<NSUserDefaults> standardDefaults() {
  auto defaults = NSUserDefaults::standardUserDefaults();
  if (!defaults->objectForKey(ZBTarrowDataControllerLastDeadLinkCheckTimestampDefaultKey))
    defaults->registerDefaults(
        Dictionary{{ZBTarrowDataControllerLastDeadLinkCheckTimestampDefaultKey, Value(NSDate(0.0))}});
  return defaults;
}

// A refusal: a plain operation that is never queued, after the handler heard
// the reason.
std::shared_ptr<NSOperation> refused(const ZBTarrowDataController::CompletionHandler& handler, std::int64_t code,
                                     const char* description) {
  if (handler) handler(false, ZBTarrowDataErrorWith(code, ZBLocalizedString(description)));
  return NSOperation::create();
}

// Runs block on the main queue once operation has finished.
std::shared_ptr<NSBlockOperation> whenFinished(const std::shared_ptr<NSOperation>& operation,
                                               std::function<void()> block) {
  auto completion = NSBlockOperation::blockOperationWithBlock(std::move(block));
  completion->addDependency(operation);
  NSOperationQueue::mainQueue()->addOperation(completion);
  return completion;
}

bool isUserCancelled(const NSErrorPtr& error) {
  return error && error->domain() == NSCocoaErrorDomain && error->code() == NSUserCancelledError;
}

}  // namespace

// ---- Life cycle ----

ZBTarrowDataController::ZBTarrowDataController(Passkey) {
  auto coordinator = ZBTarrowDataStoreCoordinator::create();
  (void)coordinator->setup();
  ZBMutexLock lock(_mutex);
  _coordinator = std::move(coordinator);
  _queue = NSOperationQueue::create();
  _queue->setName("ZBTarrowDataController");
}

std::shared_ptr<ZBTarrowDataController> ZBTarrowDataController::create() {
  standardDefaults();
  auto controller = std::make_shared<ZBTarrowDataController>(Passkey());
  controller->_observeSelf();
  return controller;
}

std::shared_ptr<ZBTarrowDataController> ZBTarrowDataController::create(std::shared_ptr<NSUserDefaults> userDefaults,
                                                                       std::shared_ptr<ZBHTTPTransport> transport,
                                                                       std::shared_ptr<ZBClock> clock) {
  auto controller = create();
  controller->_userDefaults = userDefaults;
  controller->setPinboardClient(ZBPinboardClient::create(std::move(userDefaults), std::move(transport), std::move(clock)));
  return controller;
}

ZBTarrowDataController::~ZBTarrowDataController() {
  _observations.clear();
  std::shared_ptr<NSTimer> timer;
  std::shared_ptr<NSOperationQueue> queue;
  {
    ZBMutexLock lock(_mutex);
    timer = std::move(_timer);
    queue = _queue;
  }
  if (timer) timer->invalidate();
  // Jobs outlive us only to wind down: cancelled, they call no handler.
  if (queue) queue->cancelAllOperations();
}

void ZBTarrowDataController::_observeSelf() {
  std::weak_ptr<ZBTarrowDataController> weak = _self();
  auto statusChanged = [weak](const std::string&, NSObject&, const NSKeyValueChange&) {
    // Reported on the job's thread: the status itself is set on the main one.
    NSOperationQueue::mainQueue()->addOperationWithBlock([weak] {
      if (auto self = weak.lock()) self->_updateStatus();
    });
  };
  using Options = NSKeyValueObservingOptions;
  _observations.push_back(addObserver(kRefreshOperationKey + ".status", Options::New | Options::Old, statusChanged));
  _observations.push_back(
      addObserver(kLinkCheckerOperationKey + ".status", Options::New | Options::Old | Options::Initial, statusChanged));
  _observations.push_back(addObserver(ZBTarrowDataControllerRefreshIntervalKey,
                                      Options::New | Options::Old | Options::Initial,
                                      [this](const std::string&, NSObject&, const NSKeyValueChange&) {
                                        _setupAutoRefreshWithRefreshInterval(refreshInterval());
                                      }));
}

// ---- Properties ----

template <class T, class U>
void ZBTarrowDataController::_set(const std::string& key, T ZBTarrowDataController::*member, U&& value) {
  willChangeValueForKey(key);
  {
    ZBMutexLock lock(_mutex);
    this->*member = std::forward<U>(value);
  }
  didChangeValueForKey(key);
}

std::shared_ptr<ZBPinboardClient> ZBTarrowDataController::pinboardClient() const {
  ZBMutexLock lock(_mutex);
  return _client;
}
void ZBTarrowDataController::setPinboardClient(std::shared_ptr<ZBPinboardClient> client) {
  _set(kPinboardClientKey, &ZBTarrowDataController::_client, std::move(client));
}
ZBTarrowDataStoreCoordinatorPtr ZBTarrowDataController::pinboardStoreCoordinator() const {
  ZBMutexLock lock(_mutex);
  return _coordinator;
}
void ZBTarrowDataController::setPinboardStoreCoordinator(ZBTarrowDataStoreCoordinatorPtr coordinator) {
  _set(kPinboardStoreCoordinatorKey, &ZBTarrowDataController::_coordinator, std::move(coordinator));
}
std::shared_ptr<NSOperationQueue> ZBTarrowDataController::operationQueue() const {
  ZBMutexLock lock(_mutex);
  return _queue;
}
void ZBTarrowDataController::setOperationQueue(std::shared_ptr<NSOperationQueue> queue) {
  _set(kOperationQueueKey, &ZBTarrowDataController::_queue, std::move(queue));
}
std::shared_ptr<ZBTarrowPinboardRefreshOperation> ZBTarrowDataController::refreshOperation() const {
  ZBMutexLock lock(_mutex);
  return _refreshOperation;
}
void ZBTarrowDataController::_setRefreshOperation(std::shared_ptr<ZBTarrowPinboardRefreshOperation> operation) {
  _set(kRefreshOperationKey, &ZBTarrowDataController::_refreshOperation, std::move(operation));
}
std::shared_ptr<ZBTarrowLinkCheckerOperation> ZBTarrowDataController::linkCheckerOperation() const {
  ZBMutexLock lock(_mutex);
  return _linkCheckerOperation;
}
void ZBTarrowDataController::_setLinkCheckerOperation(std::shared_ptr<ZBTarrowLinkCheckerOperation> operation) {
  _set(kLinkCheckerOperationKey, &ZBTarrowDataController::_linkCheckerOperation, std::move(operation));
}
std::shared_ptr<NSTimer> ZBTarrowDataController::autoRefreshTimer() const {
  ZBMutexLock lock(_mutex);
  return _timer;
}
void ZBTarrowDataController::_setAutoRefreshTimer(std::shared_ptr<NSTimer> timer) {
  _set(kAutoRefreshTimerKey, &ZBTarrowDataController::_timer, std::move(timer));
}
bool ZBTarrowDataController::isRefreshing() const {
  ZBMutexLock lock(_mutex);
  return _refreshing;
}
void ZBTarrowDataController::_setRefreshing(bool value) { _set(ZBTarrowDataControllerRefreshingKey, &ZBTarrowDataController::_refreshing, value); }
bool ZBTarrowDataController::isCheckingDeadLinks() const {
  ZBMutexLock lock(_mutex);
  return _checkingDeadLinks;
}
void ZBTarrowDataController::_setCheckingDeadLinks(bool value) {
  _set(ZBTarrowDataControllerCheckingDeadLinksKey, &ZBTarrowDataController::_checkingDeadLinks, value);
}
std::optional<std::string> ZBTarrowDataController::status() const {
  ZBMutexLock lock(_mutex);
  return _status;
}
void ZBTarrowDataController::_setStatus(std::optional<std::string> status) {
  _set(ZBTarrowDataControllerStatusKey, &ZBTarrowDataController::_status, std::move(status));
}
double ZBTarrowDataController::refreshInterval() const {
  ZBMutexLock lock(_mutex);
  return _refreshInterval;
}
void ZBTarrowDataController::setRefreshInterval(double interval) {
  _set(ZBTarrowDataControllerRefreshIntervalKey, &ZBTarrowDataController::_refreshInterval, interval);
}
ZBTarrowDataController::CompletionHandler ZBTarrowDataController::autoRefreshCompletion() const {
  ZBMutexLock lock(_mutex);
  return _autoRefreshCompletion;
}
void ZBTarrowDataController::setAutoRefreshCompletion(CompletionHandler handler) {
  _set(ZBTarrowDataControllerAutoRefreshCompletionKey, &ZBTarrowDataController::_autoRefreshCompletion, std::move(handler));
}
bool ZBTarrowDataController::shouldCheckDeadLinks() const {
  ZBMutexLock lock(_mutex);
  return _shouldCheckDeadLinks;
}
void ZBTarrowDataController::setShouldCheckDeadLinks(bool value) {
  _set(ZBTarrowDataControllerShouldCheckDeadLinksKey, &ZBTarrowDataController::_shouldCheckDeadLinks, value);
}

NSManagedObjectContextPtr ZBTarrowDataController::mainManagedObjectContext() const {
  auto coordinator = pinboardStoreCoordinator();
  return coordinator ? coordinator->mainManagedObjectContext() : nullptr;
}

bool ZBTarrowDataController::isAuthenticated() const {
  auto client = pinboardClient();
  return client && client->credentials();
}

std::string ZBTarrowDataController::username() const {
  auto client = pinboardClient();
  auto credentials = client ? client->credentials() : nullptr;
  return credentials ? credentials->username() : std::string();
}

bool ZBTarrowDataController::isWorking() const { return isRefreshing() || isCheckingDeadLinks(); }

Value ZBTarrowDataController::valueForKey(const std::string& key) const {
  if (key == kPinboardClientKey) return Value(pinboardClient());
  if (key == kPinboardStoreCoordinatorKey) return Value(pinboardStoreCoordinator());
  if (key == kOperationQueueKey) return Value(operationQueue());
  if (key == kRefreshOperationKey) return Value(refreshOperation());
  if (key == kLinkCheckerOperationKey) return Value(linkCheckerOperation());
  if (key == kAutoRefreshTimerKey) return Value(autoRefreshTimer());
  if (key == ZBTarrowDataControllerRefreshingKey) return Value(isRefreshing());
  if (key == ZBTarrowDataControllerCheckingDeadLinksKey) return Value(isCheckingDeadLinks());
  if (key == ZBTarrowDataControllerStatusKey) {
    auto text = status();
    return text ? Value(*text) : Value();
  }
  if (key == ZBTarrowDataControllerRefreshIntervalKey) return Value(refreshInterval());
  // A handler is no Value: it reads as whether one is set.
  if (key == ZBTarrowDataControllerAutoRefreshCompletionKey) return Value(static_cast<bool>(autoRefreshCompletion()));
  if (key == ZBTarrowDataControllerShouldCheckDeadLinksKey) return Value(shouldCheckDeadLinks());
  if (key == ZBTarrowDataControllerMainManagedObjectContextKey) return Value(mainManagedObjectContext());
  if (key == ZBTarrowDataControllerAuthenticatedKey) return Value(isAuthenticated());
  if (key == ZBTarrowDataControllerUsernameKey) {
    auto name = username();
    return name.empty() ? Value() : Value(name);
  }
  if (key == ZBTarrowDataControllerWorkingKey) return Value(isWorking());
  return NSObject::valueForKey(key);
}

void ZBTarrowDataController::setValueForKey(const Value& value, const std::string& key) {
  if (key == ZBTarrowDataControllerRefreshIntervalKey) return setRefreshInterval(value.isAbsent() ? 0.0 : value.doubleValue());
  if (key == ZBTarrowDataControllerShouldCheckDeadLinksKey) return setShouldCheckDeadLinks(value.isAbsent() ? false : value.boolValue());
  if (key == kPinboardClientKey) return setPinboardClient(value.isObject() ? value.as<ZBPinboardClient>() : nullptr);
  NSObject::setValueForKey(value, key);
}

std::vector<std::string> ZBTarrowDataController::keyPathsForValuesAffectingValueForKey(const std::string& key) const {
  if (key == ZBTarrowDataControllerAuthenticatedKey) return {kPinboardClientKey + "." + ZBPinboardClientCredentialsKey};
  // Joined without a dot between the credentials key and "username": kept so.
  if (key == ZBTarrowDataControllerUsernameKey) return {kPinboardClientKey + "." + ZBPinboardClientCredentialsKey + "username"};
  if (key == ZBTarrowDataControllerMainManagedObjectContextKey) return {kPinboardStoreCoordinatorKey + ".mainManagedObjectContext"};
  if (key == ZBTarrowDataControllerWorkingKey) return {ZBTarrowDataControllerRefreshingKey, ZBTarrowDataControllerCheckingDeadLinksKey};
  return NSObject::keyPathsForValuesAffectingValueForKey(key);
}

// ---- Status ----

void ZBTarrowDataController::_updateStatus() {
  auto text = [](const std::shared_ptr<NSObject>& operation) -> std::optional<std::string> {
    if (!operation) return std::nullopt;
    Value value = operation->valueForKey("status");
    if (!value.isString() || value.asString().empty()) return std::nullopt;
    return value.asString();
  };
  auto refreshText = text(refreshOperation());
  _setStatus(refreshText ? refreshText : text(linkCheckerOperation()));
}

// ---- Authentication ----

void ZBTarrowDataController::authenticateWithUsernameToken(const std::string& username, const std::string& token,
                                                           CompletionHandler handler) {
  _authenticate(pinboardClient()->authenticateWithUsernameToken(username, token), std::move(handler));
}

void ZBTarrowDataController::authenticateWithUsernamePassword(const std::string& username,
                                                              const std::string& password,
                                                              CompletionHandler handler) {
  _authenticate(pinboardClient()->authenticateWithUsernamePassword(username, password), std::move(handler));
}

void ZBTarrowDataController::_authenticate(const std::shared_ptr<ZBPinboardRequestOperation>& operation,
                                           CompletionHandler handler) {
  operationQueue()->addOperation(operation);
  std::weak_ptr<ZBTarrowDataController> weak = _self();
  whenFinished(operation, [weak, operation, handler = std::move(handler)] {
    auto self = weak.lock();
    if (!self) return;
    NSErrorPtr error;
    Value result = operation->completionProvider()(&error);
    auto client = self->pinboardClient();
    // Unconditionally: a failed sign-in signs the previous user out too.
    client->setCredentials(result.isObject() ? result.as<ZBPinboardCredentials>() : nullptr);
    if (!result && error && error->domain() == ZBPinboardKitErrorDomain &&
        error->code() == ZBPinboardKitCredentialsNotStoredError) {
      Value unsaved = error->userInfo().objectForKey(ZBPinboardCredentialsErrorKey);
      if (unsaved.isObject()) {
        auto credentials = unsaved.as<ZBPinboardCredentials>();
        auto attempter = ZBErrorRecoveryAttempter::create();
        std::weak_ptr<ZBPinboardClient> weakClient = client;
        attempter->addRecoveryOption(ZBLocalizedString("Continue Without Saving"), [weakClient, credentials] {
          auto client = weakClient.lock();
          if (!client) return false;
          client->setCredentials(credentials);
          return true;
        });
        attempter->addCancelRecoveryOption();
        Dictionary info = error->userInfo();
        info.set(NSRecoveryAttempterErrorKey, Value(attempter));
        info.set(NSLocalizedRecoveryOptionsErrorKey, attempter->recoveryOptionsValue());
        error = NSError::create(error->domain(), error->code(), std::move(info));
      }
    }
    if (handler) handler(static_cast<bool>(result), error);
  });
}

void ZBTarrowDataController::logout(CompletionHandler handler) {
  auto fail = [&handler](const NSErrorPtr& underlying) {
    if (!handler) return;
    std::string suggestion = underlying ? underlying->localizedDescription() : std::string();
    Dictionary info{{NSLocalizedDescriptionKey, Value(ZBLocalizedString("Couldn’t Logout from Pinboard"))},
                    {NSLocalizedRecoverySuggestionErrorKey, Value(suggestion)}};
    if (underlying) info.set(NSUnderlyingErrorKey, Value(underlying));
    handler(false, NSError::create(ZBTarrowDataErrorDomain, kLogoutErrorCode, std::move(info)));
  };

  operationQueue()->cancelAllOperations();
  // The cancelled jobs wind down on their own; they no longer count as
  // running, so a new sign-in can refresh at once. Their completions see
  // that they were replaced and leave the state alone.
  if (refreshOperation()) {
    _setRefreshOperation(nullptr);
    _setRefreshing(false);
  }
  if (linkCheckerOperation()) {
    _setLinkCheckerOperation(nullptr);
    _setCheckingDeadLinks(false);
  }

  auto client = pinboardClient();
  NSErrorPtr error;
  if (!client->logout(&error)) return fail(error);
  client->setCredentials(nullptr);

  auto defaults = NSUserDefaults::standardUserDefaults();
  defaults->removeObject(ZBTarrowPinboardRefreshOperationLastUpdateTimestampDefaultKey);
  defaults->removeObject(ZBTarrowDataControllerLastDeadLinkCheckTimestampDefaultKey);
  defaults->synchronize();

  // On the root context's queue, where every job saves: a job's save either
  // came before (into the store about to be deleted) or comes after and sees
  // its cancellation. What cancelled jobs left unsaved in the root context
  // goes too.
  auto coordinator = pinboardStoreCoordinator();
  auto root = coordinator->rootManagedObjectContext();
  bool reset = false;
  root->performBlockAndWait([&] {
    reset = coordinator->resetPinboardStore(&error);
    root->reset();
  });
  if (!reset) return fail(error);
  if (handler) handler(true, nullptr);
}

// ---- Refresh ----

std::shared_ptr<NSOperation> ZBTarrowDataController::refresh(CompletionHandler handler) {
  return _refreshLocalOnly(false, std::move(handler));
}

std::shared_ptr<NSOperation> ZBTarrowDataController::sendLocalChanges(CompletionHandler handler) {
  return _refreshLocalOnly(true, std::move(handler));
}

std::shared_ptr<NSOperation> ZBTarrowDataController::_refreshLocalOnly(bool localOnly, CompletionHandler handler) {
  if (!isAuthenticated())
    return refused(handler, ZBTarrowDataNotAuthenticatedError, "Cannot refresh without being authenticated");
  if (isRefreshing()) return refused(handler, ZBTarrowDataBusyError, "Cannot refresh while refreshing");
  _setRefreshing(true);
  auto operation =
      ZBTarrowPinboardRefreshOperation::create(pinboardClient(), pinboardStoreCoordinator()->rootManagedObjectContext());
  operation->setRefreshLocalChangesOnly(localOnly);
  operation->setWaitsForOtherRefresh(refreshWaitsForOtherProcesses());
  operationQueue()->addOperation(operation);
  _setRefreshOperation(operation);

  std::weak_ptr<ZBTarrowDataController> weak = _self();
  whenFinished(operation, [weak, operation, handler = std::move(handler)] {
    auto self = weak.lock();
    if (!self) return;
    // A job that logout let go of is no longer ours to report.
    if (self->refreshOperation() != operation) return;
    self->_setRefreshing(false);
    self->_setRefreshOperation(nullptr);
    if (operation->isCancelled()) return;
    NSErrorPtr error;
    Value result = operation->completionProvider()(&error);
    if (handler) handler(static_cast<bool>(result), result ? nullptr : error);
    if (result) self->_enqueueLinkCheckerOperationIfNeeded();
  });
  return operation;
}

void ZBTarrowDataController::_setupAutoRefreshWithRefreshInterval(double interval) {
  if (auto timer = autoRefreshTimer()) timer->invalidate();
  _setAutoRefreshTimer(nullptr);
  if (interval <= 0) return;
  std::weak_ptr<ZBTarrowDataController> weak;
  try {
    weak = _self();
  } catch (const std::bad_weak_ptr&) {
    return;  // still being made: the interval is 0 then anyway
  }
  auto timer = NSTimer::timerWithTimeInterval(interval, true, [weak](NSTimer& timer) {
    if (auto self = weak.lock()) self->_autoRefresh(timer);
  });
  timer->setTolerance(0.2 * interval);
  _setAutoRefreshTimer(timer);
  NSRunLoop::mainRunLoop()->addTimer(timer);
}

void ZBTarrowDataController::_autoRefresh(NSTimer&) { refresh(autoRefreshCompletion()); }

// ---- Dead links ----

std::shared_ptr<NSOperation> ZBTarrowDataController::checkDeadLinks(CompletionHandler handler) {
  if (!isAuthenticated())
    return refused(handler, ZBTarrowDataNotAuthenticatedError, "Cannot check dead links without being authenticated");
  if (isCheckingDeadLinks())
    return refused(handler, ZBTarrowDataBusyError, "Cannot check dead links while already checking");
  return _enqueueLinkCheckerOperation(std::move(handler));
}

void ZBTarrowDataController::_enqueueLinkCheckerOperationIfNeeded() {
  if (!shouldCheckDeadLinks() || linkCheckerOperation()) return;
  auto last = standardDefaults()->dateForKey(ZBTarrowDataControllerLastDeadLinkCheckTimestampDefaultKey);
  double since = ZBClock::current()->now().timeIntervalSinceReferenceDate() -
                 (last ? last->timeIntervalSinceReferenceDate() : 0.0);
  if (since < kDeadLinkCheckInterval) return;
  _enqueueLinkCheckerOperation(nullptr);
}

std::shared_ptr<NSOperation> ZBTarrowDataController::_enqueueLinkCheckerOperation(CompletionHandler handler) {
  _setCheckingDeadLinks(true);
  auto operation =
      ZBTarrowLinkCheckerOperation::create(pinboardStoreCoordinator()->rootManagedObjectContext(), _userDefaults);
  operationQueue()->addOperation(operation);
  _setLinkCheckerOperation(operation);

  std::weak_ptr<ZBTarrowDataController> weak = _self();
  whenFinished(operation, [weak, operation, handler = std::move(handler)] {
    auto self = weak.lock();
    if (!self) return;
    if (self->linkCheckerOperation() != operation) return;
    self->_setCheckingDeadLinks(false);
    self->_setLinkCheckerOperation(nullptr);
    if (operation->isCancelled()) return;
    NSErrorPtr error;
    Value result = operation->completionProvider()(&error);
    if (result) {
      auto defaults = NSUserDefaults::standardUserDefaults();
      defaults->setObject(Value(NSDate::date()), ZBTarrowDataControllerLastDeadLinkCheckTimestampDefaultKey);
      defaults->synchronize();
    }
    if (handler) handler(static_cast<bool>(result), result ? nullptr : error);
  });
  return operation;
}

// ---- Requests for the interface ----

std::shared_ptr<NSOperation> ZBTarrowDataController::retrievePostsForSearch(
    const std::shared_ptr<ZBTarrowSearch>& search, PostsHandler handler) {
  auto operation = ZBTarrowPinboardSearchOperation::create(search->dictionaryRepresentation(), pinboardClient(),
                                                           pinboardStoreCoordinator()->rootManagedObjectContext());
  operationQueue()->addOperation(operation);
  // Decorates the results off the main thread: posts of other users are
  // read-only, and the list shows each one's host and sorted tags.
  auto decorate = ZBPromiseOperation::promiseOperationWithBlock([operation](NSErrorPtr* error) -> Value {
    if (operation->isCancelled()) {
      ZBSetError(error, ZBUserCancelledError());
      return Value();
    }
    Value result = operation->completionProvider()(error);
    if (!result) return Value();
    Array decorated;
    decorated.reserve(result.count());
    for (const Value& element : result.collectionElements()) {
      if (!element.isDictionary()) continue;
      Dictionary post = element.asDictionary();
      post.set(ZBTarrowPinboardPostEditableKey, Value(false));
      Value url = post.objectForKey(ZBTarrowPinboardPostURLKey);
      auto host = url.isString() ? ZBTarrowPinboardPost::hostForURL(url.asString()) : std::nullopt;
      post.set(ZBTarrowPinboardPostHostKey, host ? Value(*host) : Value());
      std::vector<std::string> titles;
      for (const Value& tag : post.objectForKey(ZBTarrowPinboardPostTagsKey).collectionElements())
        if (tag.isString()) titles.push_back(tag.asString());
      Array sorted;
      for (auto& title : ZBTarrowPinboardPost::sortedTagTitles(std::move(titles))) sorted.push_back(Value(title));
      post.set(ZBTarrowPinboardPostSortedTagTitlesKey, Value(std::move(sorted)));
      decorated.push_back(Value(std::move(post)));
    }
    return Value(std::move(decorated));
  });
  decorate->addDependency(operation);
  operationQueue()->addOperation(decorate);

  std::weak_ptr<ZBTarrowDataController> weak = _self();
  whenFinished(decorate, [weak, decorate, handler = std::move(handler)] {
    if (!weak.lock()) return;
    NSErrorPtr error;
    Value result = decorate->completionProvider()(&error);
    if (!result && isUserCancelled(error)) return;
    if (!handler) return;
    if (result) {
      handler(result.asArray(), nullptr);
    } else {
      handler(std::nullopt, error);
    }
  });
  return operation;
}

std::shared_ptr<NSOperation> ZBTarrowDataController::retrieveSuggestedTagsForURL(const std::string& url,
                                                                                 TagsHandler handler) {
  auto operation = pinboardClient()->retrievePostSuggestedTagsForURL(url);
  operationQueue()->addOperation(operation);
  std::weak_ptr<ZBTarrowDataController> weak = _self();
  whenFinished(operation, [weak, operation, handler = std::move(handler)] {
    if (!weak.lock() || operation->isCancelled() || !handler) return;
    NSErrorPtr error;
    Value result = operation->completionProvider()(&error);
    if (!result) return handler(std::nullopt, error);
    std::vector<std::string> tags;
    Set seen;
    for (const Value& tag : result.collectionElements()) {
      if (!tag.isString() || seen.contains(tag)) continue;
      seen.insert(tag);
      tags.push_back(tag.asString());
    }
    handler(std::move(tags), nullptr);
  });
  return operation;
}

void ZBTarrowDataController::cancelOperation(const std::shared_ptr<NSOperation>& operation) {
  if (operation) operation->cancel();
}
