// Waiting for a turn, in virtual time with the service's own intervals: what
// a long wait holds back, what a cancelled one gives back, what waiting costs
// in threads, and what a sign-out does to requests still waiting.
#include <dirent.h>

#include <algorithm>
#include <atomic>

#include "PinboardClientTestSupport.h"
#include "platform/operations/NSBlockOperation.h"
#include "platform/operations/NSOperationQueue.h"
#include "platform/pinboardkit/impl/ZBPinboardThreads.h"

using pinboard_sim::Bookmark;
using pinboard_sim::Fault;

namespace {

std::size_t threadsOfThisProcess() {
  std::size_t n = 0;
  if (DIR* dir = opendir("/proc/self/task")) {
    while (dirent* entry = readdir(dir)) n += entry->d_name[0] != '.';
    closedir(dir);
  }
  return n;
}

TEST_F(PinboardClientTest, ALongWaitHoldsOthersBackOnlyByTheGeneralSpacingAndACancelledOneGivesItsTurnBack) {
  auto clock = std::make_shared<ZBManualClock>(NSDate(0));
  auto spaced = serviceSpacedClient(clock);
  auto queue = NSOperationQueue::create();
  auto first = spaced->retrieveAllPostsWithTags(Value());
  queue->addOperation(first);
  ASSERT_EQ(outcome(first), 0);
  auto waiting = spaced->retrieveAllPostsWithTags(Value());  // its turn: five minutes on
  queue->addOperation(waiting);
  ASSERT_TRUE(WaitUntil([&] { return waiting->isExecuting(); }));

  // Suggested tags, then a sign-in, each leave one general spacing after the
  // call before them.
  auto suggest = spaced->retrievePostSuggestedTagsForURL("https://s.org/");
  queue->addOperation(suggest);
  ASSERT_TRUE(WaitUntil([&] { return suggest->isExecuting(); }));
  clock->advance(3);
  EXPECT_EQ(outcome(suggest), 0);
  auto signIn = spaced->authenticateWithUsernameToken("alice", secret);
  queue->addOperation(signIn);
  ASSERT_TRUE(WaitUntil([&] { return signIn->isExecuting(); }));
  clock->advance(3);
  EXPECT_EQ(outcome(signIn), 0);

  // The waiting list request, cancelled, leaves its turn to the next one.
  EXPECT_FALSE(waiting->isFinished());
  waiting->cancel();
  EXPECT_EQ(outcome(waiting), NSUserCancelledError);
  auto next = spaced->retrieveAllPostsWithTags(Value());
  queue->addOperation(next);
  ASSERT_TRUE(WaitUntil([&] { return next->isExecuting(); }));
  clock->advance(294);  // five minutes after the first
  EXPECT_EQ(outcome(next), 0);
  EXPECT_EQ(sim.requestCount("/v1/posts/all"), 2u);
  for (const auto& r : sim.requestLog()) EXPECT_EQ(r.status, 200) << r.path;
}

// A first refresh asks for the whole list twice within seconds; the service
// allows one every five minutes. The list held is the answer while the
// service's date proves nothing changed, and only then.
TEST_F(PinboardClientTest, TheWholeListAskedForAgainIsTheOneHeldWhileTheServiceStoodStill) {
  auto clock = std::make_shared<ZBManualClock>(NSDate(0));
  auto spaced = serviceSpacedClient(clock);
  ASSERT_TRUE(sim.addBookmark("alice", Bookmark{.url = "https://a.org/", .title = "A"}));
  auto queue = NSOperationQueue::create();
  auto step = [&](const ZBPinboardClient::Operation& op, double advance) {
    queue->addOperation(op);
    if (advance > 0) {
      EXPECT_TRUE(WaitUntil([&] { return op->isExecuting() || op->isFinished(); }));
      clock->advance(advance);
    }
    return outcome(op);
  };
  auto count = [](const ZBPinboardClient::Operation& op) {
    NSErrorPtr error;
    return op->completionProvider()(&error).count();
  };
  ASSERT_EQ(step(spaced->retrieveLastPostUpdateDate(), 0), 0);
  clock->advance(3);
  auto first = spaced->retrieveAllPostsWithTags(Value());
  ASSERT_EQ(step(first, 0), 0);
  clock->advance(3);
  auto again = spaced->retrieveAllPostsWithTags(Value());
  ASSERT_EQ(step(again, 0), 0);  // no five minutes: one posts/update, then the list held
  EXPECT_EQ(sim.requestCount("/v1/posts/all"), 1u);
  EXPECT_EQ(count(again), count(first));

  // Held once only: the next one waits its turn, and after a change on the
  // service the list held is not used.
  clock->advance(3);
  auto third = spaced->retrieveAllPostsWithTags(Value());
  ASSERT_EQ(step(third, 294), 0);
  EXPECT_EQ(sim.requestCount("/v1/posts/all"), 2u);
  clock->advance(3);
  ASSERT_TRUE(sim.addBookmark("alice", Bookmark{.url = "https://b.org/", .title = "B"}));
  clock->advance(3);
  auto changed = spaced->retrieveAllPostsWithTags(Value());
  queue->addOperation(changed);
  ASSERT_TRUE(WaitUntil([&] { return sim.requestCount("/v1/posts/update") == 3; }));
  ASSERT_TRUE(WaitUntil([&] { return changed->isExecuting(); }));
  clock->advance(300);
  ASSERT_EQ(outcome(changed), 0);
  EXPECT_EQ(sim.requestCount("/v1/posts/all"), 3u);
  EXPECT_EQ(count(changed), 2u);
  for (const auto& r : sim.requestLog()) EXPECT_EQ(r.status, 200) << r.path;

  // A list sent less than a second after the date was read may lack a change
  // of that same second: never served again.
  defaults->setObject(Value(0.0), ZBPinboardRequestIntervalDefaultKey);
  sim.setRateLimits({.general = 0, .recent = 0, .all = 300});
  clock->advance(300);
  auto quick = ZBPinboardClient::create(defaults, nullptr, clock);
  quick->setCredentials(ZBPinboardCredentials::create("alice", secret));
  ASSERT_EQ(step(quick->retrieveLastPostUpdateDate(), 0), 0);
  ASSERT_EQ(step(quick->retrieveAllPostsWithTags(Value()), 0), 0);
  auto notHeld = quick->retrieveAllPostsWithTags(Value());
  queue->addOperation(notHeld);
  ASSERT_TRUE(WaitUntil([&] { return notHeld->isExecuting(); }));
  EXPECT_FALSE(WaitUntil([&] { return notHeld->isFinished(); }, 0.5));  // waiting for its turn
  clock->advance(300);
  ASSERT_EQ(outcome(notHeld), 0);
  EXPECT_EQ(sim.requestCount("/v1/posts/all"), 5u);
  EXPECT_EQ(sim.rateLimitViolations(), 0u);
}

TEST_F(PinboardClientTest, RequestsWaitingThroughASignOutOrAChangeOfAccountNeverLeave) {
  auto clock = std::make_shared<ZBManualClock>(NSDate(0));
  auto spaced = serviceSpacedClient(clock);
  auto queue = NSOperationQueue::create();
  sim.addAccount(pinboard_sim::AccountSeed{.username = "bob"});
  const std::function<void()> changes[] = {
      [&] { EXPECT_TRUE(spaced->logout()); },  // the caller has not cleared the credentials yet
      [&] { spaced->setCredentials(ZBPinboardCredentials::create("bob", "other")); },
  };
  for (const auto& change : changes) {
    spaced->setCredentials(ZBPinboardCredentials::create("alice", secret));
    clock->advance(300);
    sim.clearRequestLog();
    auto first = spaced->retrieveTags();
    queue->addOperation(first);
    ASSERT_EQ(outcome(first), 0);
    std::vector<ZBPinboardClient::Operation> waiting{
        spaced->retrieveLastPostUpdateDate(), spaced->retrieveAllPostsWithTags(Value()),
        spaced->retrievePostSuggestedTagsForURL("https://s.org/"), spaced->retrieveFeedWithMethod("starred", true, 5),
        spaced->deleteTag("t")};
    for (auto& op : waiting) queue->addOperation(op);
    ASSERT_TRUE(WaitUntil([&] {
      return std::all_of(waiting.begin(), waiting.end(), [](const auto& op) { return op->isExecuting(); });
    }));
    change();
    clock->advance(3);
    for (auto& op : waiting) EXPECT_EQ(outcome(op), ZBPinboardKitUnauthorizedError) << op->method();
    EXPECT_EQ(sim.requestLog().size(), 1u) << "only the request made before the change";
  }
}

TEST_F(PinboardClientTest, ClientsOfOneDataDirectoryKeepTheServiceSpacingTogether) {
  // Two clients on one defaults directory stand for two processes: the
  // memory they share is the file there.
  auto clock = std::make_shared<ZBManualClock>(NSDate(0));
  auto first = serviceSpacedClient(clock);
  clock->advance(1000);
  ASSERT_EQ(outcome(runAsync(first->retrieveAllPostsWithTags(Value()))), 0);
  auto second = ZBPinboardClient::create(defaults, nullptr, clock);
  second->setCredentials(ZBPinboardCredentials::create("alice", secret));
  auto list = runAsync(second->retrieveAllPostsWithTags(Value()));
  // It waits out the first one's five minutes, counting them down.
  ASSERT_TRUE(WaitUntil([&] { return list->secondsUntilTurn() == 300; })) << list->secondsUntilTurn();
  clock->advance(120.5);
  ASSERT_TRUE(WaitUntil([&] { return list->secondsUntilTurn() == 180; })) << list->secondsUntilTurn();
  // Another user's lines are their own.
  sim.addAccount(pinboard_sim::AccountSeed{.username = "bob", .token = "BOB"});
  auto bob = ZBPinboardClient::create(defaults, nullptr, clock);
  bob->setCredentials(ZBPinboardCredentials::create("bob", "BOB"));
  EXPECT_EQ(outcome(runAsync(bob->retrieveTags())), 0);
  clock->advance(179.5);
  EXPECT_EQ(outcome(list), 0);
  EXPECT_EQ(list->secondsUntilTurn(), 0);
  EXPECT_EQ(sim.requestCount("/v1/posts/all"), 2u);
  EXPECT_EQ(sim.rateLimitViolations(), 0u);
}

// Answers at once, counting how many exchanges run together.
class CountingTransport final : public ZBHTTPTransport {
public:
  bool send(const ZBHTTPRequest&, ZBHTTPResponse& response, const std::function<bool()>&, NSErrorPtr*) override {
    const int now = ++_inFlight;
    for (int most = _most.load(); now > most && !_most.compare_exchange_weak(most, now);) {
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));  // long enough to overlap
    --_inFlight;
    response.status = 200;
    response.body = R"({"t":1})";
    return true;
  }
  int most() const { return _most.load(); }

private:
  std::atomic<int> _inFlight{0}, _most{0};
};

TEST_F(PinboardClientTest, AThousandRequestsWaitWithoutThreadsAndRunOnAFew) {
  constexpr std::size_t kRequests = 1000;
  // Waiting: time stands still, so all but the first wait for their turn.
  auto clock = std::make_shared<ZBManualClock>(NSDate(0));
  auto spaced = serviceSpacedClient(clock);
  const std::size_t threadsBefore = threadsOfThisProcess();
  auto queue = NSOperationQueue::create();
  std::vector<ZBPinboardClient::Operation> ops;
  for (std::size_t i = 0; i < kRequests; ++i) ops.push_back(spaced->retrieveTags());
  for (auto& op : ops) queue->addOperation(op);
  ASSERT_TRUE(WaitUntil([&] {
    return std::all_of(ops.begin(), ops.end(), [](const auto& op) { return op->isExecuting() || op->isFinished(); });
  }));
  EXPECT_LT(threadsOfThisProcess(), threadsBefore + 50) << "a waiting request holds no thread";
  // Unrelated work is not held up behind them.
  auto unrelated = NSOperationQueue::create()->addOperationWithBlock([] {});
  ASSERT_TRUE(WaitUntil([&] { return unrelated->isFinished(); }));
  queue->cancelAllOperations();
  std::size_t cancelled = 0;
  for (auto& op : ops) cancelled += outcome(op) == NSUserCancelledError;
  EXPECT_EQ(cancelled, kRequests - 1);
  EXPECT_EQ(sim.requestCount("/v1/tags/get"), 1u);

  // Running: no spacing, and every exchange goes through a few threads.
  auto counting = std::make_shared<CountingTransport>();
  defaults->setObject(Value(0.0), ZBPinboardRequestIntervalDefaultKey);
  sim.setRateLimits({.general = 0, .recent = 0, .all = 300});
  clock->advance(300);
  auto quick = ZBPinboardClient::create(defaults, counting);
  quick->setCredentials(ZBPinboardCredentials::create("alice", secret));
  ops.clear();
  for (std::size_t i = 0; i < kRequests; ++i) ops.push_back(quick->retrieveTags());
  for (auto& op : ops) queue->addOperation(op);
  std::size_t succeeded = 0;
  for (auto& op : ops) succeeded += outcome(op) == 0;
  EXPECT_EQ(succeeded, kRequests);
  EXPECT_LE(counting->most(), static_cast<int>(ZBPinboardTransferThreads::kMaximumThreads));
}

TEST_F(PinboardClientTest, CancellingAStalledTransferEndsItAtOnce) {
  // The server holds the answer back far longer than the bound below, and
  // the time-outs are longer still: only the cancellation can end it.
  defaults->setObject(Value(900.0), ZBPinboardRequestTimeoutDefaultKey);
  defaults->setObject(Value(900.0), ZBPinboardAllPostsTimeoutDefaultKey);
  auto tap = std::make_shared<TapTransport>();
  auto tapped = ZBPinboardClient::create(defaults, tap);
  tapped->setCredentials(ZBPinboardCredentials::create("alice", secret));
  auto queue = NSOperationQueue::create();
  for (const char* path : {"/v1/posts/all", "/v1/tags/get"}) {
    SCOPED_TRACE(path);
    sim.addFault(*Fault::parse(std::string(path) + ":delay=600,times=1"));
    auto slow = std::string(path) == "/v1/posts/all" ? tapped->retrieveAllPostsWithTags(Value()) : tapped->retrieveTags();
    const int begun = tap->begun.load();
    queue->addOperation(slow);
    ASSERT_TRUE(WaitUntil([&] { return tap->begun.load() > begun; }));
    slow->cancel();
    ASSERT_TRUE(WaitUntil([&] { return slow->isFinished(); }, 60));
    EXPECT_EQ(outcome(slow), NSUserCancelledError);
  }
}

}  // namespace
