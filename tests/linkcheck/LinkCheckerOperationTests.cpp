// The link checker operation on a real store in a temporary data home, with
// the simulator's web side answering for every host name.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <map>

#include "linkcheck/ZBTarrowLinkCheckerOperation.h"
#include "model/ZBTarrowPinboardPost.h"
#include "pinboard-sim/WebSide.h"
#include "platform/foundation/NSUserDefaults.h"
#include "platform/objectstore/NSFetchRequest.h"
#include "platform/operations/NSOperationQueue.h"
#include "platform/webkit/ZBWebKit.h"
#include "store/StoreTestSupport.h"
#include "store/ZBTarrowDataStoreCoordinator.h"

namespace {

struct Row {
  bool dead;
  long version;
};

class LinkCheckerTest : public ::testing::Test {
protected:
  void SetUp() override {
    NSUserDefaults::setStandardUserDefaultsPath(environment.home() / "standard.plist");
    ASSERT_TRUE(web.start());
    refused = web.refusingPort();
    defaults = NSUserDefaults::create(environment.home() / "defaults.plist");
    defaults->setObject(Value(0.1), ZBWebLinkCheckRecheckDelayDefaultKey);
    defaults->setObject(Value(5.0), ZBWebLinkCheckRequestTimeoutDefaultKey);
    Array overrides;
    overrides.push_back(Value("site.test:" + std::to_string(web.port()) + ":127.0.0.1"));
    for (int i = 0; i < 6; ++i)
      overrides.push_back(Value("down" + std::to_string(i) + ".test:" + std::to_string(refused) + ":127.0.0.1"));
    defaults->setObject(Value(overrides), ZBWebLinkCheckResolveOverridesDefaultKey);
    stack = ZBTarrowDataStoreCoordinator::create();
    NSErrorPtr error;
    ASSERT_TRUE(stack->setup(&error)) << (error ? error->description() : "");
    root = stack->rootManagedObjectContext();
  }
  void TearDown() override { NSUserDefaults::setStandardUserDefaultsPath({}); }

  std::string site(const std::string& path) const { return "http://site.test:" + std::to_string(web.port()) + path; }

  void addPost(const std::string& url, bool dead, bool deleting = false) {
    root->performBlockAndWait([&] {
      auto post = root->insertNewObject<ZBTarrowPinboardPost>(ZBTarrowPinboardPostEntityName);
      post->setUrl(url);
      post->setIdentifier(ZBTarrowPinboardPost::identifierForURL(url) + std::to_string(++_added));
      post->setTitle("t");
      post->setDead(dead);
      post->setDeleting(deleting);
      NSErrorPtr error;
      EXPECT_TRUE(root->save(&error)) << (error ? error->description() : "");
    });
  }

  Value run(NSErrorPtr* error) {
    auto op = ZBTarrowLinkCheckerOperation::create(root, defaults);
    auto queue = NSOperationQueue::create();
    queue->addOperation(op);
    op->waitUntilFinished();
    return op->completionProvider()(error);
  }

  // Every post as stored, in insertion order: its dead flag and row version.
  std::vector<Row> rows() const {
    std::vector<Row> out;
    sqlite3* db = nullptr;
    sqlite3_open((environment.stores() / "Pinboard" / "Pinboard.sqlite").c_str(), &db);
    sqlite3_stmt* st = nullptr;
    if (sqlite3_prepare_v2(db, "SELECT dead, Z_OPT FROM PinboardPost ORDER BY Z_PK", -1, &st, nullptr) != SQLITE_OK)
      ADD_FAILURE() << sqlite3_errmsg(db);
    while (st && sqlite3_step(st) == SQLITE_ROW)
      out.push_back({sqlite3_column_int(st, 0) != 0, static_cast<long>(sqlite3_column_int64(st, 1))});
    sqlite3_finalize(st);
    sqlite3_close(db);
    return out;
  }

  StoreEnvironment environment;
  pinboard_sim::WebSide web;
  int refused = -1;
  std::shared_ptr<NSUserDefaults> defaults;
  std::shared_ptr<ZBTarrowDataStoreCoordinator> stack;
  NSManagedObjectContextPtr root;
  int _added = 0;
};

TEST_F(LinkCheckerTest, WritesVerdictsBothWaysAndNothingWhenNothingChanged) {
  struct Case {
    std::string url;
    bool deadBefore, deleting, deadAfter, written;
  };
  const std::string gone = site("/status/404/gone");
  const std::vector<Case> cases = {
      {site("/status/200/back"), true, false, false, true},          // came back: cleared
      {gone, false, false, true, true},                               // gone: marked
      {gone, false, false, false, false},                             // same address: only the first post
      {site("/status/410/already"), true, false, true, false},        // verdict unchanged: untouched
      {site("/status/200/fine"), false, false, false, false},
      {site("/status/410/deleting"), false, true, true, true},        // posts waiting for deletion too
      {site("/status/404/with#fragment"), false, false, true, true},  // matched by the text as stored
      {"HTTP://SITE.test:" + std::to_string(web.port()) + "/status/404/case", false, false, true, true},
      {site("/status/404/not an address"), true, false, true, false},  // does not parse: not checked
      {"mailto:someone@site.test", true, false, false, true},
  };
  for (const auto& c : cases) addPost(c.url, c.deadBefore, c.deleting);
  auto before = rows();
  ASSERT_EQ(before.size(), cases.size());
  NSErrorPtr error;
  ASSERT_TRUE(run(&error)) << (error ? error->description() : "");
  auto after = rows();
  ASSERT_EQ(after.size(), cases.size());
  for (std::size_t i = 0; i < cases.size(); ++i) {
    EXPECT_EQ(after[i].dead, cases[i].deadAfter) << cases[i].url;
    EXPECT_EQ(after[i].version != before[i].version, cases[i].written) << cases[i].url;
  }
  // A second run finds every verdict already stored and writes no row.
  ASSERT_TRUE(run(&error)) << (error ? error->description() : "");
  auto again = rows();
  for (std::size_t i = 0; i < cases.size(); ++i) EXPECT_EQ(again[i].version, after[i].version) << cases[i].url;
}

TEST_F(LinkCheckerTest, AnEmptyStoreFinishesWithTrue) {
  NSErrorPtr error;
  Value result = run(&error);
  ASSERT_TRUE(result) << (error ? error->description() : "");
  EXPECT_TRUE(result.boolValue());
  EXPECT_TRUE(web.requests().empty());
}

TEST_F(LinkCheckerTest, AnOfflineRunLeavesEveryPostAsItWas) {
  for (int i = 0; i < 6; ++i) {
    addPost("http://down" + std::to_string(i) + ".test:" + std::to_string(refused) + "/a", i % 2 == 0);
    addPost("http://gone" + std::to_string(i) + ".invalid/b", i % 3 == 0);
  }
  addPost(site("/status/404/x"), false);
  auto before = rows();
  NSErrorPtr error;
  EXPECT_FALSE(run(&error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), ZBWebKitErrorDomain);
  EXPECT_EQ(error->code(), ZBWebKitNetworkUnreachableError);
  auto after = rows();
  ASSERT_EQ(after.size(), before.size());
  for (std::size_t i = 0; i < before.size(); ++i) {
    EXPECT_EQ(after[i].dead, before[i].dead) << i;
    EXPECT_EQ(after[i].version, before[i].version) << i;
  }
}

}  // namespace
