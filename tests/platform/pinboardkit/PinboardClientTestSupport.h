#pragma once
// A client pointed at an in-process simulator on an ephemeral port, with
// defaults in a temporary directory and spacing turned down so tests run fast.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>

#include "pinboard-sim/Simulator.h"
#include "platform/foundation/NSUserDefaults.h"
#include "platform/operations/NSOperationQueue.h"
#include "platform/pinboardkit/ZBPinboardClient.h"
#include "support/TemporaryDirectory.h"
#include "support/WaitUntil.h"

// libcurl with a tap: a test sees how many exchanges began, and may rewrite
// an answer after the service acted on the request (a write applied behind an
// error). Set the tap before use.
class TapTransport final : public ZBHTTPTransport {
public:
  std::function<void(const ZBHTTPRequest& request, ZBHTTPResponse& response)> afterAnswer;
  std::atomic<int> begun{0};
  bool send(const ZBHTTPRequest& request, ZBHTTPResponse& response, const std::function<bool()>& cancelled,
            NSErrorPtr* error) override {
    ++begun;
    if (!_curl->send(request, response, cancelled, error)) return false;
    if (afterAnswer) afterAnswer(request, response);
    return true;
  }

private:
  const std::shared_ptr<ZBHTTPTransport> _curl = ZBCurlTransport::create();
};

class PinboardClientTest : public ::testing::Test {
protected:
  void SetUp() override {
    ASSERT_TRUE(sim.start());
    pinboard_sim::AccountSeed alice;
    alice.username = "alice";
    alice.password = "wonderland";
    apiToken = sim.addAccount(alice);
    secret = apiToken.substr(6);
    defaults = NSUserDefaults::create(dir / "defaults.plist");
    defaults->setObject(Value(sim.apiURL()), ZBPinboardAPIBaseURLDefaultKey);
    defaults->setObject(Value(sim.feedsURL()), ZBPinboardFeedsBaseURLDefaultKey);
    for (const auto* key : {&ZBPinboardRequestIntervalDefaultKey, &ZBPinboardRecentIntervalDefaultKey,
                            &ZBPinboardAllPostsIntervalDefaultKey, &ZBPinboardFeedIntervalDefaultKey})
      defaults->setObject(Value(0.0), *key);
    defaults->setObject(Value(0.01), ZBPinboardBackoffInitialDefaultKey);
    defaults->setObject(Value(0.04), ZBPinboardBackoffMaximumDefaultKey);
    defaults->setObject(Value(3), ZBPinboardBackoffRetriesDefaultKey);
    defaults->setObject(Value(10.0), ZBPinboardRequestTimeoutDefaultKey);
    defaults->setObject(Value(30.0), ZBPinboardAllPostsTimeoutDefaultKey);
    client = ZBPinboardClient::create(defaults);
  }

  void signIn() { client->setCredentials(ZBPinboardCredentials::create("alice", secret)); }

  // A client spaced exactly as the service asks (3 s, 60 s for posts/recent,
  // 300 s for posts/all), on a manual clock that the simulator's own limits
  // read too; any 429 fails its request. Signed in.
  std::shared_ptr<ZBPinboardClient> serviceSpacedClient(const std::shared_ptr<ZBManualClock>& clock) {
    sim.setClock([clock] { return clock->now().timeIntervalSince1970(); });
    sim.setRateLimits(pinboard_sim::RateLimits::service());
    defaults->setObject(Value(3.0), ZBPinboardRequestIntervalDefaultKey);
    defaults->setObject(Value(60.0), ZBPinboardRecentIntervalDefaultKey);
    defaults->setObject(Value(300.0), ZBPinboardAllPostsIntervalDefaultKey);
    defaults->setObject(Value(0), ZBPinboardBackoffRetriesDefaultKey);
    auto spaced = ZBPinboardClient::create(defaults, nullptr, clock);
    spaced->setCredentials(ZBPinboardCredentials::create("alice", secret));
    return spaced;
  }

  // Queues op (on a queue of the fixture's) and returns it.
  ZBPinboardClient::Operation runAsync(ZBPinboardClient::Operation op) {
    background->addOperation(op);
    return op;
  }

  // Starts op, waits for it and returns its result; the error goes to *error.
  static Value run(const ZBPinboardClient::Operation& op, NSErrorPtr* error = nullptr) {
    EXPECT_TRUE(op);
    if (!op) return Value();
    op->start();
    op->waitUntilFinished();
    return op->completionProvider()(error);
  }
  // The finished op's error code (0 for success), or -1 when it does not
  // finish (within a bound that means "never").
  static std::int64_t outcome(const ZBPinboardClient::Operation& op) {
    if (!WaitUntil([&] { return op->isFinished(); })) return -1;
    NSErrorPtr error;
    Value result = op->completionProvider()(&error);
    return result ? 0 : error ? error->code() : -2;
  }
  // Runs op, expecting failure with code in the client's domain.
  NSErrorPtr expectFailure(const ZBPinboardClient::Operation& op, std::int64_t code,
                           const std::string& domain = ZBPinboardKitErrorDomain) {
    NSErrorPtr error;
    Value result = run(op, &error);
    EXPECT_FALSE(result) << result.description();
    EXPECT_TRUE(error);
    if (!error) return error;
    EXPECT_EQ(error->domain(), domain) << error->description();
    EXPECT_EQ(error->code(), code) << error->description();
    expectNoSecrets(error);
    return error;
  }
  // No error text, at any depth, holds the token or the password.
  void expectNoSecrets(const NSErrorPtr& error) {
    std::string text = error->description() + error->localizedDescription();
    for (const auto& [key, value] : error->userInfo()) text += key + value.description();
    for (NSErrorPtr e = error->underlyingError(); e; e = e->underlyingError()) text += e->description();
    EXPECT_EQ(text.find(secret), std::string::npos) << text;
    EXPECT_EQ(text.find("wonderland"), std::string::npos) << text;
  }
  static std::string fileContents(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }
  static unsigned mode(const std::filesystem::path& path) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) return 0;
    return st.st_mode & 0777;
  }

  TemporaryDirectory dir;
  pinboard_sim::Simulator sim;
  std::string apiToken, secret;
  std::shared_ptr<NSUserDefaults> defaults;
  std::shared_ptr<ZBPinboardClient> client;
  std::shared_ptr<NSOperationQueue> background = NSOperationQueue::create();
};
