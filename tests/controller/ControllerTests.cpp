// The data controller as an application drives it: a real controller over
// real stores in a private data home, talking to the simulator, with the main
// run loop turning.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <algorithm>
#include <atomic>
#include <spawn.h>
#include <sys/wait.h>

#include "controller/ZBTarrowDataController.h"
#include "model/ZBTarrowCollection.h"
#include "model/ZBTarrowPinboardPost.h"
#include "model/ZBTarrowPinboardTag.h"
#include "model/ZBTarrowSearch.h"
#include "pinboard-sim/Simulator.h"
#include "platform/pinboardkit/ZBHTTPTransport.h"
#include "platform/webkit/ZBWebKit.h"
#include "platform/foundation/ZBClock.h"
#include "platform/foundation/ZBErrorRecoveryAttempter.h"
#include "platform/objectstore/NSFetchRequest.h"
#include "platform/operations/NSRunLoop.h"
#include "store/NSManagedObjectContext+ZBTarrowPersistentStoreSaveNotification.h"
#include "store/StoreTestSupport.h"
#include "sync/ZBTarrowPinboardRefreshOperation.h"
#include "support/RunLoopTestHelper.h"
#include "support/TemporaryDirectory.h"

namespace {

// What a handler was called with, and on which thread.
struct Outcome {
  int calls = 0;
  bool success = false;
  NSErrorPtr error;
  bool onMainThread = true;
  ZBTarrowDataController::CompletionHandler handler() {
    return [this](bool ok, NSErrorPtr e) {
      ++calls;
      success = ok;
      error = std::move(e);
      onMainThread = onMainThread && NSRunLoop::isMainThread();
    };
  }
};

// The values a key of the controller took, each read on the main thread.
struct Recorder {
  std::vector<Value> values;
  bool onMainThread = true;
  NSKeyValueObservation token;
  Recorder(ZBTarrowDataController& controller, const std::string& key) {
    token = controller.addObserver(key, NSKeyValueObservingOptions::New,
                                   [this](const std::string&, NSObject&, const NSKeyValueChange& change) {
                                     onMainThread = onMainThread && NSRunLoop::isMainThread();
                                     values.push_back(change.newValue);
                                   });
  }
};

// Counts the requests whose URL holds a text as they leave; passes all on.
class WatchTransport final : public ZBHTTPTransport {
public:
  bool send(const ZBHTTPRequest& request, ZBHTTPResponse& response, const std::function<bool()>& cancelled,
            NSErrorPtr* error) override {
    if (request.url.find(watched) != std::string::npos) ++sent;
    return _curl->send(request, response, cancelled, error);
  }
  std::string watched = "posts/all";
  std::atomic<int> sent{0};

private:
  const std::shared_ptr<ZBCurlTransport> _curl = ZBCurlTransport::create();
};

pinboard_sim::Bookmark bookmark(std::string url, std::string title, std::vector<std::string> tags = {}) {
  pinboard_sim::Bookmark b;
  b.url = std::move(url);
  b.title = std::move(title);
  b.tags = std::move(tags);
  b.time = 1700000000;
  return b;
}

}  // namespace

class ControllerTest : public ::testing::Test {
protected:
  void SetUp() override {
    NSUserDefaults::setStandardUserDefaultsPath(dir.path() / "standard.plist");
    sim.setClock([this] { return simNow.load(); });
    ASSERT_TRUE(sim.start());
    token = sim.addAccount({.username = "alice", .password = "wonderland"});
    secret = token.substr(token.find(':') + 1);
    defaults = NSUserDefaults::create(dir.path() / "defaults.plist");
    defaults->setObject(Value(sim.apiURL()), ZBPinboardAPIBaseURLDefaultKey);
    defaults->setObject(Value(sim.feedsURL()), ZBPinboardFeedsBaseURLDefaultKey);
    for (const auto* key : {&ZBPinboardRequestIntervalDefaultKey, &ZBPinboardRecentIntervalDefaultKey,
                            &ZBPinboardAllPostsIntervalDefaultKey, &ZBPinboardFeedIntervalDefaultKey})
      defaults->setObject(Value(0.0), *key);
    defaults->setObject(Value(20.0), ZBPinboardRequestTimeoutDefaultKey);
    // Dead-link checks never leave the machine: the test hosts lead to a
    // port where nothing listens.
    Array overrides;
    for (const char* host : {"example.com", "example.org"})
      for (int port : {80, 443}) overrides.push_back(Value(std::string(host) + ":" + std::to_string(port) + ":127.0.0.1"));
    defaults->setObject(Value(overrides), ZBWebLinkCheckResolveOverridesDefaultKey);
    defaults->setObject(Value(0.1), ZBWebLinkCheckRecheckDelayDefaultKey);
    controller = ZBTarrowDataController::create(defaults, transport);
  }

  void TearDown() override {
    controller.reset();
    DrainMainLoop();
    ZBClock::setCurrent(nullptr);
    NSUserDefaults::setStandardUserDefaultsPath({});
  }

  bool signIn() {
    Outcome outcome;
    controller->authenticateWithUsernameToken("alice", secret, outcome.handler());
    EXPECT_TRUE(RunMainLoopUntil([&] { return outcome.calls > 0; }));
    return outcome.success;
  }

  // Runs the main loop until the handler of outcome has been called.
  static void await(const Outcome& outcome) {
    ASSERT_TRUE(RunMainLoopUntil([&] { return outcome.calls > 0; }));
  }

  std::size_t storedPostCount() {
    auto context = NSManagedObjectContext::create(NSPrivateQueueConcurrencyType);
    std::int64_t count = 0;
    context->performBlockAndWait([&] {
      context->setPersistentStoreCoordinator(controller->pinboardStoreCoordinator()->persistentStoreCoordinator());
      count = context->countForFetchRequest(*NSFetchRequest::fetchRequestWithEntityName(ZBTarrowPinboardPostEntityName));
    });
    return static_cast<std::size_t>(count);
  }

  void addBookmarks(int count) {
    for (int i = 0; i < count; ++i)
      ASSERT_TRUE(sim.addBookmark("alice", bookmark("https://example.com/" + std::to_string(i), "Page " + std::to_string(i), {"t"})));
  }

  // The service's clock; its update time has whole seconds, so changes that
  // a refresh must tell apart are a second apart.
  std::atomic<double> simNow{1.75e9};
  StoreEnvironment environment;
  TemporaryDirectory dir;
  pinboard_sim::Simulator sim;
  std::string token, secret;
  std::shared_ptr<NSUserDefaults> defaults;
  std::shared_ptr<WatchTransport> transport = std::make_shared<WatchTransport>();
  std::shared_ptr<ZBTarrowDataController> controller;
};

TEST_F(ControllerTest, RefusalsAnswerAtOnceWithAnOperationThatNeverRuns) {
  struct Case {
    const char* name;
    std::function<std::shared_ptr<NSOperation>(ZBTarrowDataController&, Outcome&)> call;
    std::int64_t code;
    const char* description;
  };
  const Case cases[] = {
      {"refresh", [](auto& c, auto& o) { return c.refresh(o.handler()); }, -100,
       "Cannot refresh without being authenticated"},
      {"send local changes", [](auto& c, auto& o) { return c.sendLocalChanges(o.handler()); }, -100,
       "Cannot refresh without being authenticated"},
      {"check dead links", [](auto& c, auto& o) { return c.checkDeadLinks(o.handler()); }, -100,
       "Cannot check dead links without being authenticated"},
      {"create post",
       [](auto& c, auto& o) {
         c.sendPostCreation(nullptr, o.handler());
         return std::shared_ptr<NSOperation>();
       },
       -100, "Cannot create post without being authenticated"},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.name);
    Outcome outcome;
    auto operation = test.call(*controller, outcome);
    ASSERT_EQ(outcome.calls, 1);  // before the call returned
    EXPECT_FALSE(outcome.success);
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(outcome.error->domain(), ZBTarrowDataErrorDomain);
    EXPECT_EQ(outcome.error->code(), test.code);
    EXPECT_EQ(outcome.error->localizedDescription(), test.description);
    if (operation) {
      EXPECT_FALSE(operation->isExecuting() || operation->isFinished());
    }
  }
  // Empty handlers everywhere are fine.
  controller->refresh(nullptr);
  controller->checkDeadLinks(nullptr);
  controller->logout(nullptr);

  // Busy: a second refresh or check while one runs.
  ASSERT_TRUE(signIn());
  sim.addFault(pinboard_sim::Fault::parse("/v1/posts/update:delay=0.5").value());
  Outcome first, second, firstCheck, secondCheck;
  auto running = controller->refresh(first.handler());
  controller->refresh(second.handler());
  EXPECT_EQ(second.calls, 1);
  EXPECT_EQ(second.error->code(), -200);
  EXPECT_EQ(second.error->localizedDescription(), "Cannot refresh while refreshing");
  controller->checkDeadLinks(firstCheck.handler());
  controller->checkDeadLinks(secondCheck.handler());
  EXPECT_EQ(secondCheck.calls, 1);
  EXPECT_EQ(secondCheck.error->localizedDescription(), "Cannot check dead links while already checking");
  await(first);
  await(firstCheck);
  EXPECT_TRUE(first.success && firstCheck.success);
  EXPECT_TRUE(first.onMainThread && firstCheck.onMainThread);
}

TEST_F(ControllerTest, AuthenticationSignsInOrOutAndOffersToContinueWithoutSaving) {
  Recorder authenticated(*controller, ZBTarrowDataControllerAuthenticatedKey);
  ASSERT_TRUE(signIn());
  EXPECT_TRUE(controller->isAuthenticated());
  EXPECT_EQ(controller->username(), "alice");

  // A refused sign-in leaves nobody signed in, also after a good one.
  Outcome refused;
  controller->authenticateWithUsernameToken("alice", "wrong", refused.handler());
  await(refused);
  EXPECT_FALSE(refused.success);
  EXPECT_EQ(refused.error->domain(), ZBPinboardKitErrorDomain);
  EXPECT_FALSE(controller->isAuthenticated());
  EXPECT_TRUE(authenticated.onMainThread);
  ASSERT_GE(authenticated.values.size(), 2u);
  EXPECT_EQ(authenticated.values.front(), Value(true));
  EXPECT_EQ(authenticated.values.back(), Value(false));

  // Accepted by the service but not storable: the credentials file's place
  // is a directory with something in it.
  auto blocked = dir.path() / "blocked";
  std::filesystem::create_directories(blocked / "inside");
  defaults->setObject(Value(blocked.string()), ZBPinboardCredentialsPathDefaultKey);
  for (std::size_t option : {1u, 0u}) {  // Cancel, then Continue Without Saving
    Outcome outcome;
    controller->authenticateWithUsernamePassword("alice", "wonderland", outcome.handler());
    await(outcome);
    ASSERT_FALSE(outcome.success);
    ASSERT_EQ(outcome.error->code(), ZBPinboardKitCredentialsNotStoredError);
    EXPECT_EQ(outcome.error->userInfo().objectForKey(NSLocalizedRecoveryOptionsErrorKey),
              Value(Array{Value("Continue Without Saving"), Value("Cancel")}));
    auto attempter = outcome.error->userInfo().objectForKey(NSRecoveryAttempterErrorKey).as<ZBErrorRecoveryAttempter>();
    ASSERT_TRUE(attempter);
    EXPECT_FALSE(controller->isAuthenticated());
    EXPECT_EQ(attempter->attemptRecoveryFromError(outcome.error, option), option == 0);
    EXPECT_EQ(controller->isAuthenticated(), option == 0);
  }
  EXPECT_EQ(controller->username(), "alice");
}

TEST_F(ControllerTest, RefreshPublishesItsProgressOnTheMainThread) {
  addBookmarks(20);
  ASSERT_TRUE(signIn());
  Recorder status(*controller, ZBTarrowDataControllerStatusKey);
  Recorder refreshing(*controller, ZBTarrowDataControllerRefreshingKey);
  Recorder working(*controller, ZBTarrowDataControllerWorkingKey);
  Outcome outcome;
  auto operation = controller->refresh(outcome.handler());
  EXPECT_TRUE(controller->isRefreshing() && controller->isWorking());
  EXPECT_EQ(controller->refreshOperation(), operation);
  await(outcome);
  ASSERT_TRUE(outcome.success) << outcome.error->description();
  EXPECT_EQ(storedPostCount(), 20u);
  EXPECT_FALSE(controller->refreshOperation());
  EXPECT_EQ(refreshing.values, (std::vector<Value>{Value(true), Value(false)}));
  EXPECT_EQ(working.values, (std::vector<Value>{Value(true), Value(false)}));
  ASSERT_TRUE(DrainMainLoop());
  // Status updates hop to the main thread and read the current text, so a
  // fast phase may be skipped; the order never changes and nil comes last.
  const std::vector<std::string> phases = {
      "Retrieving local changes…",       "Sending local changes to Pinboard…",      "Cleanup local data…",
      "Retrieving last update date…",    "Refreshing latest bookmarks…",            "Refreshing all bookmarks from Pinboard…",
      "Retrieving starred bookmarks from Pinboard…", "Retrieving bookmark sources from Pinboard…"};
  ASSERT_FALSE(status.values.empty());
  EXPECT_TRUE(status.values.back().isAbsent());
  std::size_t next = 0;
  for (std::size_t i = 0; i + 1 < status.values.size(); ++i) {
    const Value& v = status.values[i];
    if (v.isAbsent()) continue;
    auto at = std::find(phases.begin() + static_cast<std::ptrdiff_t>(next), phases.end(), v.asString());
    ASSERT_NE(at, phases.end()) << "out of order: " << v.asString();
    next = static_cast<std::size_t>(at - phases.begin());
  }
  EXPECT_TRUE(status.onMainThread && refreshing.onMainThread && working.onMainThread);
  EXPECT_FALSE(controller->status());
}

TEST_F(ControllerTest, TimerRefreshesEveryIntervalAndDeadLinkChecksWaitFiveDays) {
  auto clock = std::make_shared<ZBManualClock>(NSDate(8.0e8));
  ZBClock::setCurrent(clock);
  ASSERT_TRUE(signIn());
  std::vector<std::pair<bool, std::int64_t>> fired;  // success, error code
  controller->setAutoRefreshCompletion(
      [&](bool ok, NSErrorPtr error) { fired.emplace_back(ok, error ? error->code() : 0); });

  for (double interval : {0.0, -5.0}) {
    controller->setRefreshInterval(interval);
    EXPECT_FALSE(controller->autoRefreshTimer());
  }
  controller->setRefreshInterval(600);
  auto timer = controller->autoRefreshTimer();
  ASSERT_TRUE(timer);
  EXPECT_DOUBLE_EQ(timer->tolerance(), 120);
  clock->advance(599);
  ASSERT_TRUE(DrainMainLoop());
  EXPECT_TRUE(fired.empty());
  clock->advance(1);
  ASSERT_TRUE(RunMainLoopUntil([&] { return fired.size() == 1; }));
  EXPECT_TRUE(fired[0].first);

  // Replacing the interval replaces the timer, due one new interval later.
  controller->setRefreshInterval(300);
  EXPECT_FALSE(timer->isValid());
  clock->advance(299);
  ASSERT_TRUE(DrainMainLoop());
  EXPECT_EQ(fired.size(), 1u);
  // A firing during a refresh is refused, and the timer goes on.
  sim.addFault(pinboard_sim::Fault::parse("/v1/posts/update:delay=0.5,times=1").value());
  Outcome running;
  controller->refresh(running.handler());
  clock->advance(1);
  ASSERT_TRUE(RunMainLoopUntil([&] { return fired.size() == 2; }));
  EXPECT_EQ(fired[1], std::make_pair(false, std::int64_t{-200}));
  await(running);

  // The five-day rule: the first refresh's check ran (the registered date is
  // the reference date); one second short of five days later none starts.
  auto standard = NSUserDefaults::standardUserDefaults();
  ASSERT_TRUE(RunMainLoopUntil([&] { return !controller->isCheckingDeadLinks(); }));
  EXPECT_EQ(standard->dateForKey(ZBTarrowDataControllerLastDeadLinkCheckTimestampDefaultKey), NSDate(0.0));
  controller->setShouldCheckDeadLinks(true);
  controller->setRefreshInterval(0);
  Recorder checking(*controller, ZBTarrowDataControllerCheckingDeadLinksKey);
  Outcome first;
  controller->refresh(first.handler());
  await(first);
  EXPECT_TRUE(controller->isCheckingDeadLinks());
  ASSERT_TRUE(RunMainLoopUntil([&] { return !controller->isCheckingDeadLinks(); }));
  NSDate checked = *standard->dateForKey(ZBTarrowDataControllerLastDeadLinkCheckTimestampDefaultKey);
  EXPECT_EQ(checked, clock->now());
  for (double wait : {431999.0, 1.0}) {
    clock->advance(wait);
    Outcome outcome;
    controller->refresh(outcome.handler());
    await(outcome);
    EXPECT_EQ(controller->isCheckingDeadLinks(), wait == 1.0) << wait;
  }
  ASSERT_TRUE(RunMainLoopUntil([&] { return !controller->isCheckingDeadLinks(); }));
  EXPECT_EQ(checking.values, (std::vector<Value>{Value(true), Value(false), Value(true), Value(false)}));
  EXPECT_TRUE(checking.onMainThread);
}

TEST_F(ControllerTest, LogoutStopsEveryJobAndNothingOfThemReachesTheFreshStore) {
  addBookmarks(50);
  ASSERT_TRUE(signIn());
  auto standard = NSUserDefaults::standardUserDefaults();
  standard->setObject(Value(NSDate(1.0)), ZBTarrowPinboardRefreshOperationLastUpdateTimestampDefaultKey);
  // The merge of the refresh's first bookmark list arrives after the logout.
  sim.addFault(pinboard_sim::Fault::parse("/v1/posts/all:delay=1.5,times=1").value());
  Outcome refreshed, checked;
  auto refresh = controller->refresh(refreshed.handler());
  ASSERT_TRUE(RunMainLoopUntil([&] { return transport->sent > 0; }));
  auto check = controller->checkDeadLinks(checked.handler());
  std::size_t sentBefore = sim.requestLog().size();

  Outcome loggedOut;
  controller->logout(loggedOut.handler());
  ASSERT_EQ(loggedOut.calls, 1);
  EXPECT_TRUE(loggedOut.success);
  EXPECT_FALSE(controller->isAuthenticated() || controller->isRefreshing() || controller->isCheckingDeadLinks());
  EXPECT_FALSE(standard->objectForKey(ZBTarrowPinboardRefreshOperationLastUpdateTimestampDefaultKey));
  EXPECT_EQ(standard->dateForKey(ZBTarrowDataControllerLastDeadLinkCheckTimestampDefaultKey), NSDate(0.0));

  ASSERT_TRUE(RunMainLoopUntil([&] { return refresh->isFinished() && check->isFinished(); }));
  ASSERT_TRUE(DrainMainLoop());
  EXPECT_EQ(refreshed.calls + checked.calls, 0);
  EXPECT_EQ(storedPostCount(), 0u);
  EXPECT_FALSE(standard->objectForKey(ZBTarrowPinboardRefreshOperationLastUpdateTimestampDefaultKey));
  // Only the list already asked for was answered afterwards.
  auto log = sim.requestLog();
  for (std::size_t i = sentBefore; i < log.size(); ++i) EXPECT_EQ(log[i].path, "/v1/posts/all") << i;

  // A new sign-in refreshes at once, into the fresh store.
  ASSERT_TRUE(signIn());
  Outcome again;
  controller->refresh(again.handler());
  await(again);
  ASSERT_TRUE(again.success) << again.error->description();
  EXPECT_EQ(storedPostCount(), 50u);
}

TEST_F(ControllerTest, LogoutFailuresNameWhatFailed) {
  ASSERT_TRUE(signIn());
  // The credentials file cannot be removed: its place is a full directory.
  auto blocked = dir.path() / "blocked";
  std::filesystem::create_directories(blocked / "inside");
  defaults->setObject(Value(blocked.string()), ZBPinboardCredentialsPathDefaultKey);
  Outcome outcome;
  controller->logout(outcome.handler());
  ASSERT_EQ(outcome.calls, 1);
  ASSERT_FALSE(outcome.success);
  EXPECT_EQ(outcome.error->domain(), ZBTarrowDataErrorDomain);
  EXPECT_EQ(outcome.error->code(), -100);
  EXPECT_EQ(outcome.error->localizedDescription(), "Couldn’t Logout from Pinboard");
  auto underlying = outcome.error->userInfo().objectForKey(NSUnderlyingErrorKey).as<NSError>();
  ASSERT_TRUE(underlying);
  EXPECT_EQ(outcome.error->userInfo().objectForKey(NSLocalizedRecoverySuggestionErrorKey),
            Value(underlying->localizedDescription()));
  EXPECT_TRUE(controller->isAuthenticated());  // the client's logout failed first

  // The store reset fails after the client's logout: signed out all the same.
  defaults->removeObject(ZBPinboardCredentialsPathDefaultKey);
  ASSERT_TRUE(controller->pinboardStoreCoordinator()->teardown());
  Outcome reset;
  controller->logout(reset.handler());
  ASSERT_FALSE(reset.success);
  underlying = reset.error->userInfo().objectForKey(NSUnderlyingErrorKey).as<NSError>();
  ASSERT_TRUE(underlying);
  EXPECT_EQ(underlying->domain(), ZBTarrowDataErrorDomain);
  EXPECT_EQ(underlying->code(), 0);
  EXPECT_FALSE(controller->isAuthenticated());
}

TEST_F(ControllerTest, SearchesAndSuggestedTagsReachTheMainThreadUnlessCancelled) {
  ASSERT_TRUE(sim.addBookmark("alice", bookmark("https://example.com/rust", "Rust", {"rust", "lang"})));
  sim.setPopularTags("https://example.com/rust", {"rust", "programming", "rust"});
  ASSERT_TRUE(signIn());

  std::optional<std::vector<std::string>> tags;
  int tagCalls = 0;
  controller->retrieveSuggestedTagsForURL("https://example.com/rust", [&](auto result, NSErrorPtr) {
    ++tagCalls;
    tags = std::move(result);
  });
  ASSERT_TRUE(RunMainLoopUntil([&] { return tagCalls > 0; }));
  ASSERT_TRUE(tags);
  EXPECT_EQ(*tags, (std::vector<std::string>{"rust", "programming", "lang"}));

  // A saved search of alice's public bookmarks tagged "rust".
  auto main = controller->mainManagedObjectContext();
  auto search = main->insertNewObject<ZBTarrowSearch>(ZBTarrowSearchEntityName);
  ASSERT_TRUE(search->updateWithDictionaryRepresentation(
      Dictionary{{ZBTarrowSearchTitleKey, Value("Rust")},
                 {ZBTarrowSearchUsernameKey, Value("alice")},
                 {ZBTarrowSearchTagsKey, Value("rust")}}));
  std::optional<Array> posts;
  int searchCalls = 0;
  controller->retrievePostsForSearch(search, [&](auto result, NSErrorPtr error) {
    ++searchCalls;
    posts = std::move(result);
    EXPECT_FALSE(error);
  });
  ASSERT_TRUE(RunMainLoopUntil([&] { return searchCalls > 0; }));
  ASSERT_TRUE(posts);
  ASSERT_EQ(posts->size(), 1u);
  const Dictionary& post = (*posts)[0].asDictionary();
  EXPECT_EQ(post.objectForKey(ZBTarrowPinboardPostEditableKey), Value(false));
  EXPECT_EQ(post.objectForKey(ZBTarrowPinboardPostHostKey), Value("example.com"));
  EXPECT_EQ(post.objectForKey(ZBTarrowPinboardPostSortedTagTitlesKey), Value(Array{Value("lang"), Value("rust")}));

  // Cancelled ones call nothing.
  sim.addFault(pinboard_sim::Fault::parse("*:delay=0.3").value());
  auto cancelledSearch = controller->retrievePostsForSearch(search, [&](auto, NSErrorPtr) { ++searchCalls; });
  auto cancelledTags = controller->retrieveSuggestedTagsForURL("https://example.com/", [&](auto, NSErrorPtr) { ++tagCalls; });
  controller->cancelOperation(cancelledSearch);
  controller->cancelOperation(cancelledTags);
  ASSERT_TRUE(RunMainLoopUntil([&] { return cancelledSearch->isFinished() && cancelledTags->isFinished(); }));
  ASSERT_TRUE(DrainMainLoop());
  ASSERT_TRUE(DrainMainLoop());
  EXPECT_EQ(searchCalls + tagCalls, 2);
}

TEST_F(ControllerTest, DestroyedWhileJobsRunCallsNoHandler) {
  addBookmarks(30);
  ASSERT_TRUE(signIn());
  sim.addFault(pinboard_sim::Fault::parse("/v1/posts/update:delay=0.3,times=1").value());
  Outcome refreshed, checked, authenticated;
  auto refresh = controller->refresh(refreshed.handler());
  auto check = controller->checkDeadLinks(checked.handler());
  controller->authenticateWithUsernameToken("alice", secret, authenticated.handler());
  std::weak_ptr<ZBTarrowDataController> weak = controller;
  controller.reset();
  EXPECT_TRUE(weak.expired());
  ASSERT_TRUE(RunMainLoopUntil([&] { return refresh->isFinished() && check->isFinished(); }));
  ASSERT_TRUE(DrainMainLoop());
  EXPECT_EQ(refreshed.calls + checked.calls + authenticated.calls, 0);
}

TEST_F(ControllerTest, AnApplicationsDayFromSignInToLogout) {
  constexpr int kPosts = 5000;
  for (int i = 0; i < kPosts; ++i)
    ASSERT_TRUE(sim.addBookmark("alice", bookmark("https://example.com/" + std::to_string(i), "Page " + std::to_string(i),
                                                  {i % 2 ? "odd" : "even"})));
  ASSERT_TRUE(signIn());

  // A smart collection of every bookmark, counting live in the main context.
  auto main = controller->mainManagedObjectContext();
  auto all = main->insertNewObject<ZBTarrowCollection>(ZBTarrowCollectionEntityName);
  all->setValueForKey(Value("Everything"), ZBTarrowCollectionTitleKey);
  all->setPredicate(NSPredicate::predicateWithFormat("TRUEPREDICATE"));
  NSErrorPtr error;
  ASSERT_TRUE(main->save(&error)) << error->description();
  std::vector<std::uint64_t> counts;
  auto counting = all->addObserver(ZBTarrowCollectionPostCountKey, NSKeyValueObservingOptions::New,
                                   [&](const std::string&, NSObject&, const NSKeyValueChange& change) {
                                     counts.push_back(static_cast<std::uint64_t>(change.newValue.integerValue()));
                                   });
  Outcome first;
  controller->refresh(first.handler());
  await(first);
  ASSERT_TRUE(first.success) << first.error->description();
  ASSERT_TRUE(RunMainLoopUntil([&] { return all->postCount() == kPosts; }));
  ASSERT_FALSE(counts.empty());
  EXPECT_TRUE(std::is_sorted(counts.begin(), counts.end()));

  // Edit, delete and rename where the interface does: in the main context.
  auto post = [&](int i) {
    auto request = NSFetchRequest::fetchRequestWithEntityName(ZBTarrowPinboardPostEntityName);
    request->setPredicate(NSPredicate::predicateWithFormat(
        "%K == %@", {Value(ZBTarrowPinboardPostURLKey), Value("https://example.com/" + std::to_string(i))}));
    auto found = main->executeFetchRequest(*request);
    return found && !found->empty() ? found->front().as<ZBTarrowPinboardPost>() : nullptr;
  };
  auto edited = post(7), removed = post(8);
  ASSERT_TRUE(edited && removed);
  edited->setTitle("Edited in the app");
  edited->setDirty(true);
  removed->setDeleting(true);
  removed->setDirty(true);
  auto odd = edited->tagWithTitle("odd");
  ASSERT_TRUE(odd);
  odd->setPreviousTitle("odd");
  odd->setTitle("uneven");
  odd->setDirty(true);
  ASSERT_TRUE(main->save(&error)) << error->description();
  ASSERT_TRUE(RunMainLoopUntil([&] { return all->postCount() == kPosts - 1; }));

  Outcome second;
  controller->refresh(second.handler());
  await(second);
  ASSERT_TRUE(second.success) << second.error->description();
  EXPECT_EQ(sim.bookmark("alice", "https://example.com/7")->title, "Edited in the app");
  EXPECT_FALSE(sim.bookmark("alice", "https://example.com/8"));
  auto tags = sim.tagCounts("alice");
  EXPECT_EQ(tags.count("odd"), 0u);
  EXPECT_EQ(tags["uneven"], kPosts / 2);
  EXPECT_EQ(sim.bookmarkCount("alice"), kPosts - 1u);
  EXPECT_EQ(storedPostCount(), kPosts - 1u);

  // Logout empties the service's store and keeps the sidebar's.
  auto sidebar = [&] {
    return main->countForFetchRequest(*NSFetchRequest::fetchRequestWithEntityName(ZBTarrowCollectionEntityName));
  };
  std::int64_t collections = sidebar();
  Outcome out;
  controller->logout(out.handler());
  ASSERT_TRUE(out.success) << out.error->description();
  EXPECT_EQ(storedPostCount(), 0u);
  EXPECT_EQ(sidebar(), collections);
}

TEST_F(ControllerTest, APostSentByTheExtensionShowsInTheApplicationClean) {
  const auto out = dir.path() / "extension";
  std::filesystem::create_directories(out);
  const std::string url = "https://example.com/shared";
  std::vector<std::string> args = {ZB_EXTENSION_PEER_PATH, sim.apiURL(), sim.feedsURL(), "alice", secret, url,
                                   out.string()};
  std::vector<char*> argv;
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  pid_t pid = 0;
  ASSERT_EQ(posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ), 0);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  ASSERT_TRUE(sim.bookmark("alice", url));

  // The application merges the extension's saves as they arrive, in order,
  // and its main context announces the post: present and no longer dirty.
  auto main = controller->mainManagedObjectContext();
  std::shared_ptr<ZBTarrowPinboardPost> shown;
  auto watching = NSNotificationCenter::defaultCenter().addObserver(
      NSManagedObjectContextObjectsDidChangeNotification, main, [&](const NSNotification& notification) {
        for (const auto& [key, objects] : notification.userInfo)
          for (const Value& object : objects.collectionElements())
            if (auto post = object.as<ZBTarrowPinboardPost>(); post && post->url() == url) shown = post;
      });
  int merged = 0;
  for (;; ++merged) {
    std::ifstream file(out / ("save-" + std::to_string(merged) + ".archive"), std::ios::binary);
    if (!file) break;
    Data bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    auto portable = ZBTarrowPersistentStoreNotification::unarchive(bytes);
    ASSERT_TRUE(portable) << merged;
    main->mergeChangesFromContextDidSaveNotification(
        ZBTarrowCreateSaveNotificationFromPersistentStoreSaveNotification(main, *portable));
  }
  EXPECT_GE(merged, 2);  // the extension's own save, then the sent post's
  ASSERT_TRUE(shown);
  EXPECT_EQ(shown->managedObjectContext(), main);
  EXPECT_EQ(shown->title(), "Shared from the extension");
  EXPECT_FALSE(shown->dirty());
}

TEST_F(ControllerTest, AFailingServiceFailsTheRefreshInEveryPhase) {
  addBookmarks(3);
  ASSERT_TRUE(signIn());
  // A local edit so that the push phase sends something.
  Outcome first;
  controller->refresh(first.handler());
  await(first);
  ASSERT_TRUE(first.success);
  const char* paths[] = {"/v1/posts/add", "/v1/posts/update", "/v1/posts/all", "/json/*"};
  for (const char* path : paths) {
    SCOPED_TRACE(path);
    auto main = controller->mainManagedObjectContext();
    auto request = NSFetchRequest::fetchRequestWithEntityName(ZBTarrowPinboardPostEntityName);
    auto posts = main->executeFetchRequest(*request);
    ASSERT_TRUE(posts && !posts->empty());
    auto post = posts->front().as<ZBTarrowPinboardPost>();
    post->setTitle(std::string("edited before ") + path);
    post->setDirty(true);
    ASSERT_TRUE(main->save());
    // Moves the service on so that the refresh goes through every phase.
    simNow = simNow + 1;
    ASSERT_TRUE(sim.addBookmark("alice", bookmark(std::string("https://example.org/") + path, "new")));
    sim.clearFaults();
    sim.addFault(pinboard_sim::Fault::parse(std::string(path) + ":status=500").value());
    Outcome outcome;
    controller->refresh(outcome.handler());
    await(outcome);
    EXPECT_FALSE(outcome.success);
    EXPECT_TRUE(outcome.error);
    EXPECT_FALSE(controller->isRefreshing() || controller->refreshOperation());
  }
  sim.clearFaults();
  Outcome healed;
  controller->refresh(healed.handler());
  await(healed);
  EXPECT_TRUE(healed.success);
  EXPECT_EQ(storedPostCount(), sim.bookmarkCount("alice"));
}

TEST_F(ControllerTest, DerivedKeysFollowWhatTheyDependOn) {
  Recorder authenticated(*controller, ZBTarrowDataControllerAuthenticatedKey);
  Recorder username(*controller, ZBTarrowDataControllerUsernameKey);
  Recorder context(*controller, ZBTarrowDataControllerMainManagedObjectContextKey);
  // A new client changes both; the user name does not follow the credentials
  // of the same client (its key path joins the credentials key and
  // "username" without a dot).
  auto other = ZBPinboardClient::create(defaults);
  other->setCredentials(ZBPinboardCredentials::create("bob", "secret"));
  controller->setPinboardClient(other);
  EXPECT_EQ(authenticated.values, (std::vector<Value>{Value(true)}));
  EXPECT_EQ(username.values, (std::vector<Value>{Value("bob")}));
  other->setCredentials(nullptr);
  EXPECT_EQ(authenticated.values.size(), 2u);
  EXPECT_EQ(username.values.size(), 1u);
  auto stack = ZBTarrowDataStoreCoordinator::create();
  controller->setPinboardStoreCoordinator(stack);
  ASSERT_EQ(context.values.size(), 1u);
  EXPECT_EQ(context.values[0].as<NSManagedObjectContext>(), stack->mainManagedObjectContext());

  // A refresh asked for while logout signs out (an observer of
  // "authenticated" reacting) is refused.
  controller->setPinboardClient(ZBPinboardClient::create(defaults));
  controller->setPinboardStoreCoordinator(ZBTarrowDataStoreCoordinator::create());
  ASSERT_TRUE(controller->pinboardStoreCoordinator()->setup());
  ASSERT_TRUE(signIn());
  Outcome during;
  auto reacting = controller->addObserver(ZBTarrowDataControllerAuthenticatedKey, NSKeyValueObservingOptions::New,
                                          [&](const std::string&, NSObject&, const NSKeyValueChange& change) {
                                            if (!change.newValue.boolValue()) controller->refresh(during.handler());
                                          });
  Outcome out;
  controller->logout(out.handler());
  EXPECT_TRUE(out.success);
  ASSERT_EQ(during.calls, 1);
  EXPECT_EQ(during.error->code(), -100);
}

TEST_F(ControllerTest, AFailedDeadLinkCheckLeavesItsDateSoTheNextRefreshTriesAgain) {
  // Six hosts, every one refusing: the network looks unreachable.
  Array overrides = defaults->arrayForKey(ZBWebLinkCheckResolveOverridesDefaultKey);
  for (int i = 0; i < 6; ++i) {
    const std::string host = "h" + std::to_string(i) + ".test";
    ASSERT_TRUE(sim.addBookmark("alice", bookmark("https://" + host + "/", host)));
    overrides.push_back(Value(host + ":443:127.0.0.1"));
  }
  defaults->setObject(Value(overrides), ZBWebLinkCheckResolveOverridesDefaultKey);
  ASSERT_TRUE(signIn());
  controller->setShouldCheckDeadLinks(true);
  auto standard = NSUserDefaults::standardUserDefaults();
  const auto before = standard->dateForKey(ZBTarrowDataControllerLastDeadLinkCheckTimestampDefaultKey);
  for (int run = 0; run < 2; ++run) {  // the automatic check comes again after the next refresh
    Outcome refreshed;
    controller->refresh(refreshed.handler());
    await(refreshed);
    ASSERT_TRUE(refreshed.success);
    EXPECT_TRUE(controller->isCheckingDeadLinks()) << run;
    ASSERT_TRUE(RunMainLoopUntil([&] { return !controller->isCheckingDeadLinks(); }));
    EXPECT_EQ(standard->dateForKey(ZBTarrowDataControllerLastDeadLinkCheckTimestampDefaultKey), before);
  }
  Outcome checked;
  controller->checkDeadLinks(checked.handler());
  await(checked);
  EXPECT_FALSE(checked.success);
  ASSERT_TRUE(checked.error);
  EXPECT_EQ(checked.error->domain(), ZBWebKitErrorDomain);
  EXPECT_EQ(checked.error->code(), ZBWebKitNetworkUnreachableError);
  EXPECT_EQ(standard->dateForKey(ZBTarrowDataControllerLastDeadLinkCheckTimestampDefaultKey), before);
  auto main = controller->mainManagedObjectContext();
  auto request = NSFetchRequest::fetchRequestWithEntityName(ZBTarrowPinboardPostEntityName);
  request->setPredicate(NSPredicate::predicateWithFormat("dead == YES"));
  EXPECT_EQ(main->countForFetchRequest(*request), 0);
}

TEST_F(ControllerTest, RequestsForTheInterfaceReportTheServicesFailures) {
  ASSERT_TRUE(signIn());
  sim.addFault(*pinboard_sim::Fault::parse("/json/*:status=500"));
  sim.addFault(*pinboard_sim::Fault::parse("/v1/posts/suggest:status=500"));
  sim.addFault(*pinboard_sim::Fault::parse("/v1/posts/add:status=500"));
  auto main = controller->mainManagedObjectContext();
  auto search = main->insertNewObject<ZBTarrowSearch>(ZBTarrowSearchEntityName);
  ASSERT_TRUE(search->updateWithDictionaryRepresentation(Dictionary{{ZBTarrowSearchUsernameKey, Value("alice")}}));
  int calls = 0;
  controller->retrievePostsForSearch(search, [&](auto posts, NSErrorPtr error) {
    ++calls;
    EXPECT_FALSE(posts);
    EXPECT_TRUE(error);
  });
  controller->retrieveSuggestedTagsForURL("https://example.com/", [&](auto tags, NSErrorPtr error) {
    ++calls;
    EXPECT_FALSE(tags);
    EXPECT_TRUE(error);
  });
  auto post = main->insertNewObject<ZBTarrowPinboardPost>(ZBTarrowPinboardPostEntityName);
  post->setUrl(std::string("https://example.com/new"));
  post->setTitle(std::string("New"));
  post->setDirty(true);
  ASSERT_TRUE(main->save());
  Outcome created;
  controller->sendPostCreation(post, created.handler());
  ASSERT_TRUE(RunMainLoopUntil([&] { return calls == 2 && created.calls == 1; }));
  EXPECT_FALSE(created.success);
  EXPECT_EQ(created.error->domain(), ZBPinboardKitErrorDomain);
  EXPECT_TRUE(post->dirty());  // still waiting to be sent

  // A creation cancelled (by a logout) calls nothing.
  sim.clearFaults();
  sim.addFault(*pinboard_sim::Fault::parse("/v1/posts/add:delay=0.5"));
  Outcome cancelled;
  controller->sendPostCreation(post, cancelled.handler());
  controller->logout(nullptr);
  ASSERT_TRUE(RunMainLoopUntil([&] { return controller->operationQueue()->operationCount() == 0; }));
  ASSERT_TRUE(DrainMainLoop());
  EXPECT_EQ(cancelled.calls, 0);
}
