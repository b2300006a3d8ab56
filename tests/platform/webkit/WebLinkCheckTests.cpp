// The web link checker against the simulator's web side on loopback: host
// names map to it through resolve overrides, names under .invalid go to the
// real resolver (which answers "no such name" at once for them).

#include <gtest/gtest.h>

#include <map>
#include <set>

#include "pinboard-sim/WebSide.h"
#include "platform/foundation/NSUserDefaults.h"
#include "platform/operations/NSOperationQueue.h"
#include "platform/webkit/ZBWebLinkCheckOperation.h"
#include "support/TemporaryDirectory.h"
#include "support/WaitUntil.h"

namespace {

class WebLinkCheckTest : public ::testing::Test {
protected:
  void SetUp() override {
    ASSERT_TRUE(web.start());
    refused = web.refusingPort();
    ASSERT_GT(refused, 0);
    defaults = NSUserDefaults::create(dir / "defaults.plist");
    defaults->setObject(Value(0.2), ZBWebLinkCheckRecheckDelayDefaultKey);
    defaults->setObject(Value(2.0), ZBWebLinkCheckConnectTimeoutDefaultKey);
    defaults->setObject(Value(1.5), ZBWebLinkCheckRequestTimeoutDefaultKey);
    Array overrides;
    for (const char* name : {"site.test", "a.test", "b.test", "c.test", "r.test", "s.test"})
      overrides.push_back(Value(std::string(name) + ":" + std::to_string(web.port()) + ":127.0.0.1"));
    overrides.push_back(Value("closed.test:" + std::to_string(refused) + ":127.0.0.1"));
    defaults->setObject(Value(overrides), ZBWebLinkCheckResolveOverridesDefaultKey);
  }

  std::string site(const std::string& path, const std::string& name = "site.test") const {
    return "http://" + name + ":" + std::to_string(web.port()) + path;
  }
  std::string closed(const std::string& path = "/") const {
    return "http://closed.test:" + std::to_string(refused) + path;
  }

  std::shared_ptr<ZBWebLinkCheckOperation> operation(const std::vector<std::string>& addresses) {
    std::vector<NSURL> urls;
    for (const auto& a : addresses) {
      auto url = NSURL::URLWithString(a);
      EXPECT_TRUE(url) << a;
      if (url) urls.push_back(*url);
    }
    return ZBWebLinkCheckOperation::create(std::move(urls), defaults);
  }

  // The verdicts in input order, or none with *error.
  std::optional<std::vector<bool>> check(const std::vector<std::string>& addresses, NSErrorPtr* error = nullptr) {
    auto op = operation(addresses);
    queue->addOperation(op);
    op->waitUntilFinished();
    Value results = op->completionProvider()(error);
    if (!results) return std::nullopt;
    std::vector<bool> broken;
    EXPECT_EQ(results.asArray().size(), addresses.size());
    for (std::size_t i = 0; i < results.asArray().size(); ++i) {
      auto r = results.asArray()[i].as<ZBWebLinkCheckResult>();
      EXPECT_EQ(r->websiteURL().absoluteString(), addresses[i]) << "results keep the input order";
      broken.push_back(r->broken());
    }
    return broken;
  }

  std::map<std::string, int> requestsPerTarget() const {
    std::map<std::string, int> counts;
    for (const auto& r : web.requests()) ++counts[r.host + r.target];
    return counts;
  }

  TemporaryDirectory dir;
  pinboard_sim::WebSide web;
  int refused = -1;
  std::shared_ptr<NSUserDefaults> defaults;
  std::shared_ptr<NSOperationQueue> queue = NSOperationQueue::create();
};

TEST_F(WebLinkCheckTest, OnlyAGoneAddressIsBroken) {
  struct Case {
    std::string address;
    bool broken;
  };
  const std::string invalid = "http://nowhere.invalid/page";
  const std::vector<Case> cases = {
      {site("/status/200"), false},
      {site("/status/404"), true},
      {site("/status/410"), true},
      {site("/status/401"), false},
      {site("/status/403"), false},
      {site("/status/999"), false},
      {site("/status/500"), false},
      {site("/status/429"), false},
      {site("/retry/503?after=1"), false},
      {site("/redirect/3"), false},
      {site("/redirect/4?code=301"), false},
      {site("/redirect/10?code=308"), false},  // ten hops: still followed to the 200
      {site("/redirect/11"), false},           // the eleventh is too many, which proves nothing
      {site("/loop/a"), false},
      {site("/to?url=%2Fstatus%2F410"), true},  // relative Location to a gone page
      {site("/to?url=" + std::string("http%3A%2F%2Fnowhere.invalid%2F")), true},
      {site("/to?url=http%3A%2F%2Fclosed.test%3A" + std::to_string(refused) + "%2F"), true},
      {site("/head/405/200"), false},
      {site("/head/405/404"), true},   // GET after a refused HEAD decides
      {site("/head/501/410"), true},
      {site("/head/404/200"), false},  // a HEAD's 404 the GET contradicts
      {site("/head-drop/200"), false},
      {site("/head-drop/404"), true},
      {site("/status/200?delay=4000"), false},  // past the whole-request time-out
      {site("/status/404?delay=4000"), false},  // the time-out wins over the status
      {site("/trickle"), false},
      {site("/drop"), false},
      {invalid, true},
      {closed("/x"), true},
      {"ftp://files.test/a", false},
      {"mailto:someone@site.test", false},
      {"javascript:void(0)", false},
      {"file:///etc/passwd", false},
      {"place:sort=8", false},
  };
  std::vector<std::string> addresses;
  for (const auto& c : cases) addresses.push_back(c.address);
  NSErrorPtr error;
  auto broken = check(addresses, &error);
  ASSERT_TRUE(broken) << (error ? error->description() : "");
  for (std::size_t i = 0; i < cases.size(); ++i) EXPECT_EQ((*broken)[i], cases[i].broken) << cases[i].address;

  auto requests = web.requests();
  ASSERT_FALSE(requests.empty());
  for (const auto& r : requests) {
    EXPECT_NE(r.userAgent.find("libcurl/"), std::string::npos) << r.requestLine;
    EXPECT_NE(r.host, "files.test");
  }
  for (const auto& [target, count] : requestsPerTarget()) EXPECT_LE(count, 4) << target;
}

TEST_F(WebLinkCheckTest, SendsTheAddressAsWritten) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {site("/status/200/a%2Fb+c%C3%A9?q=a+b%2F&Mixed=CaSe#part"), "/status/200/a%2Fb+c%C3%A9?q=a+b%2F&Mixed=CaSe"},
      {site("/status/200/%7euser/%e2%82%ac"), "/status/200/%7euser/%e2%82%ac"},
      {site("/status/200/caf\xC3\xA9"), "/status/200/caf%C3%A9"},
  };
  std::vector<std::string> addresses;
  for (const auto& c : cases) {
    if (NSURL::URLWithString(c.first)) addresses.push_back(c.first);
  }
  ASSERT_GE(addresses.size(), 2u);
  ASSERT_TRUE(check(addresses));
  std::set<std::string> lines;
  for (const auto& r : web.requests()) lines.insert(r.requestLine);
  for (const auto& c : cases) {
    if (!NSURL::URLWithString(c.first)) continue;
    EXPECT_TRUE(lines.count("HEAD " + c.second + " HTTP/1.1")) << c.second;
  }
}

TEST_F(WebLinkCheckTest, ResultsKeepOrderAndDuplicatesAreAskedOnce) {
  // 40 inputs over 25 distinct addresses, a third of them gone.
  std::vector<std::string> addresses;
  for (int i = 0; i < 40; ++i) {
    int n = i % 25;
    addresses.push_back(site("/status/" + std::string(n % 3 ? "200" : "404") + "/" + std::to_string(n)));
  }
  auto broken = check(addresses);
  ASSERT_TRUE(broken);
  for (std::size_t i = 0; i < addresses.size(); ++i) {
    EXPECT_EQ((*broken)[i], addresses[i].find("/404/") != std::string::npos) << i;
  }
  for (const auto& [target, count] : requestsPerTarget()) {
    bool dead = target.find("/404/") != std::string::npos;
    EXPECT_EQ(count, dead ? 2 : 1) << target;  // a HEAD's 404 takes a GET to confirm
  }
}

TEST_F(WebLinkCheckTest, KeepsToTheConnectionLimits) {
  defaults->setObject(Value(3), ZBWebLinkCheckMaximumConnectionsDefaultKey);
  defaults->setObject(Value(2), ZBWebLinkCheckMaximumConnectionsPerHostDefaultKey);
  std::vector<std::string> addresses;
  for (int i = 0; i < 30; ++i)
    for (const char* host : {"a.test", "b.test", "c.test"})
      addresses.push_back(site("/status/200/" + std::to_string(i) + "?delay=30", host));
  ASSERT_TRUE(check(addresses));
  EXPECT_LE(web.maximumConnectionsPerHost(), 2);
  EXPECT_LE(web.maximumRequestsInFlight(), 3);
  EXPECT_GE(web.maximumRequestsInFlight(), 2) << "the checks ran in parallel";
}

TEST_F(WebLinkCheckTest, RefusalsAreAskedAgainAfterAPause) {
  defaults->setObject(Value(2.5), ZBWebLinkCheckRecheckDelayDefaultKey);
  int late = web.latePort(1.0);
  ASSERT_GT(late, 0);
  auto onLate = [&](const std::string& path) { return "http://127.0.0.1:" + std::to_string(late) + path; };
  auto broken = check({onLate("/status/200/one"), onLate("/status/200/two"), closed("/gone")});
  ASSERT_TRUE(broken);
  EXPECT_EQ(*broken, (std::vector<bool>{false, false, true}));
}

TEST_F(WebLinkCheckTest, RetryAfterHoldsTheHostBack) {
  defaults->setObject(Value(1), ZBWebLinkCheckMaximumConnectionsPerHostDefaultKey);
  auto broken = check({site("/retry/429?after=2", "r.test"), site("/status/404/later", "r.test")});
  ASSERT_TRUE(broken);
  EXPECT_EQ(*broken, (std::vector<bool>{false, true}));
  auto requests = web.requests();
  ASSERT_GE(requests.size(), 2u);
  EXPECT_EQ(requests[0].target, "/retry/429?after=2");
  EXPECT_EQ(std::count_if(requests.begin(), requests.end(), [](auto& r) { return r.target == "/retry/429?after=2"; }), 1)
      << "a 429 is not asked again";
}

TEST_F(WebLinkCheckTest, AnOfflineRunGivesNoVerdict) {
  struct Case {
    int unreachable;  // of ten hosts
    bool fails;
  };
  for (const Case& c : {Case{10, true}, Case{9, true}, Case{3, false}}) {
    std::vector<std::string> addresses;
    Array overrides = defaults->arrayForKey(ZBWebLinkCheckResolveOverridesDefaultKey);
    for (int i = 0; i < 10; ++i) {
      std::string name = "host" + std::to_string(i) + ".test";
      if (i >= c.unreachable) {
        overrides.push_back(Value(name + ":" + std::to_string(web.port()) + ":127.0.0.1"));
        addresses.push_back(site("/status/200", name));
      } else if (i % 2) {
        addresses.push_back("http://" + name + ".invalid/");  // no such name
      } else {
        overrides.push_back(Value(name + ":" + std::to_string(refused) + ":127.0.0.1"));
        addresses.push_back("http://" + name + ":" + std::to_string(refused) + "/");
      }
    }
    defaults->setObject(Value(overrides), ZBWebLinkCheckResolveOverridesDefaultKey);
    NSErrorPtr error;
    auto broken = check(addresses, &error);
    if (c.fails) {
      EXPECT_FALSE(broken) << c.unreachable;
      ASSERT_TRUE(error) << c.unreachable;
      EXPECT_EQ(error->domain(), ZBWebKitErrorDomain);
      EXPECT_EQ(error->code(), ZBWebKitNetworkUnreachableError);
      EXPECT_FALSE(error->localizedDescription().empty());
    } else {
      ASSERT_TRUE(broken) << (error ? error->description() : "");
      for (int i = 0; i < 10; ++i) EXPECT_EQ((*broken)[i], i < c.unreachable) << i;
    }
  }
}

TEST_F(WebLinkCheckTest, CancellationStopsARunInFlight) {
  std::vector<std::string> addresses;
  for (int i = 0; i < 200; ++i) addresses.push_back(site("/status/200/" + std::to_string(i) + "?delay=1000"));
  defaults->setObject(Value(30.0), ZBWebLinkCheckRequestTimeoutDefaultKey);
  auto op = operation(addresses);
  std::atomic<std::int64_t> seen{0};
  auto token = op->addObserver(ZBWebLinkCheckOperationCheckedCountKey, {},
                               [&](auto&, NSObject& o, auto&) { seen = o.valueForKey("checkedCount").integerValue(); });
  queue->addOperation(op);
  ASSERT_TRUE(WaitUntil([&] { return seen.load() > 0; }));
  op->cancel();
  op->waitUntilFinished();
  NSErrorPtr error;
  EXPECT_FALSE(op->completionProvider()(&error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), 3072);
  EXPECT_LT(op->checkedCount(), addresses.size());
}

}  // namespace
