#pragma once
// A store stack in a private data home, the simulator with one account
// ("alice", signed in) and a client pointed at it with spacing off: the
// ground the sync operations' tests stand on.

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>

#include "model/ZBTarrowPinboardPost.h"
#include "model/ZBTarrowPinboardTag.h"
#include "pinboard-sim/Simulator.h"
#include "platform/foundation/NSUserDefaults.h"
#include "platform/objectstore/NSFetchRequest.h"
#include "platform/operations/NSOperationQueue.h"
#include "platform/pinboardkit/ZBPinboardClient.h"
#include "store/StoreTestSupport.h"
#include "store/ZBTarrowDataStoreCoordinator.h"
#include "support/TemporaryDirectory.h"

// Holds back requests whose URL contains a text until released, so a test can
// act while one is in flight. Passes everything else to libcurl.
class GateTransport final : public ZBHTTPTransport {
public:
  explicit GateTransport(std::string urlPart) : _part(std::move(urlPart)) {}
  bool send(const ZBHTTPRequest& request, ZBHTTPResponse& response, const std::function<bool()>& cancelled,
            NSErrorPtr* error) override {
    if (request.url.find(_part) != std::string::npos) {
      std::unique_lock lock(_mutex);
      ++_held;
      _changed.notify_all();
      _changed.wait(lock, [&] { return _open; });
    }
    return _curl->send(request, response, cancelled, error);
  }
  // Waits (bounded) until a request is held; false on time-out.
  bool waitForHeld(int count = 1) {
    std::unique_lock lock(_mutex);
    return _changed.wait_for(lock, std::chrono::seconds(60), [&] { return _held >= count; });
  }
  void open() {
    std::lock_guard lock(_mutex);
    _open = true;
    _changed.notify_all();
  }

private:
  const std::string _part;
  const std::shared_ptr<ZBCurlTransport> _curl = ZBCurlTransport::create();
  std::mutex _mutex;
  std::condition_variable _changed;
  int _held = 0;
  bool _open = false;
};

// A bookmark as the service would hold it (time: late 2023).
inline pinboard_sim::Bookmark bookmark(std::string url, std::string title, std::vector<std::string> tags = {}) {
  pinboard_sim::Bookmark b;
  b.url = std::move(url);
  b.title = std::move(title);
  b.tags = std::move(tags);
  b.time = 1700000000;
  return b;
}

class SyncTest : public ::testing::Test {
protected:
  void SetUp() override {
    NSUserDefaults::setStandardUserDefaultsPath(dir.path() / "standard.plist");
    sim.setClock([this] { return simNow.load(); });
    ASSERT_TRUE(sim.start());
    token = sim.addAccount({.username = "alice"});
    defaults = NSUserDefaults::create(dir.path() / "defaults.plist");
    defaults->setObject(Value(sim.apiURL()), ZBPinboardAPIBaseURLDefaultKey);
    defaults->setObject(Value(sim.feedsURL()), ZBPinboardFeedsBaseURLDefaultKey);
    for (const auto* key : {&ZBPinboardRequestIntervalDefaultKey, &ZBPinboardRecentIntervalDefaultKey,
                            &ZBPinboardAllPostsIntervalDefaultKey, &ZBPinboardFeedIntervalDefaultKey})
      defaults->setObject(Value(0.0), *key);
    defaults->setObject(Value(0.01), ZBPinboardBackoffInitialDefaultKey);
    defaults->setObject(Value(0.04), ZBPinboardBackoffMaximumDefaultKey);
    defaults->setObject(Value(5), ZBPinboardBackoffRetriesDefaultKey);
    defaults->setObject(Value(20.0), ZBPinboardRequestTimeoutDefaultKey);
    makeClient(nullptr);
    stack = ZBTarrowDataStoreCoordinator::create();
    NSErrorPtr error;
    ASSERT_TRUE(stack->setup(&error)) << (error ? error->description() : "");
    root = stack->rootManagedObjectContext();
  }

  void TearDown() override { NSUserDefaults::setStandardUserDefaultsPath({}); }

  void makeClient(std::shared_ptr<ZBHTTPTransport> transport) {
    client = ZBPinboardClient::create(defaults, std::move(transport));
    client->setCredentials(ZBPinboardCredentials::create("alice", token.substr(token.find(':') + 1)));
  }

  // Runs op until gate holds one of its requests, calls meanwhile (the request
  // still out), then lets it go; returns op's result.
  static Value runHeld(GateTransport& gate, const std::shared_ptr<NSOperation>& op,
                       const std::function<void()>& meanwhile, NSErrorPtr* error = nullptr) {
    auto queue = NSOperationQueue::create();
    queue->addOperation(op);
    EXPECT_TRUE(gate.waitForHeld());
    meanwhile();
    gate.open();
    op->waitUntilFinished();
    return dynamic_cast<ZBCompletionProviding&>(*op).completionProvider()(error);
  }

  // Runs op on a queue of its own, waits, returns its result.
  static Value run(const std::shared_ptr<NSOperation>& op, NSErrorPtr* error = nullptr) {
    auto queue = NSOperationQueue::create();
    queue->addOperation(op);
    op->waitUntilFinished();
    return dynamic_cast<ZBCompletionProviding&>(*op).completionProvider()(error);
  }

  // A post in the root context, saved to the store.
  std::shared_ptr<ZBTarrowPinboardPost> addPost(const std::string& url, const std::string& title, bool dirty,
                                                bool deleting = false, std::vector<std::string> tags = {}) {
    std::shared_ptr<ZBTarrowPinboardPost> post;
    root->performBlockAndWait([&] {
      post = root->insertNewObject<ZBTarrowPinboardPost>(ZBTarrowPinboardPostEntityName);
      post->setUrl(url);
      post->setIdentifier(ZBTarrowPinboardPost::identifierForURL(url));
      post->setTitle(title);
      Set titles;
      for (auto& t : tags) titles.insert(Value(t));
      EXPECT_TRUE(post->updateWithDictionaryRepresentation(Dictionary{{ZBTarrowPinboardPostTagsKey, Value(titles)}}));
      post->setDirty(dirty);
      post->setDeleting(deleting);
      NSErrorPtr error;
      EXPECT_TRUE(root->save(&error)) << (error ? error->description() : "");
    });
    return post;
  }

  // Runs request in the root context (call on its queue); empty on failure.
  Array fetched(const NSFetchRequest& request) {
    NSErrorPtr error;
    auto objects = root->executeFetchRequest(request, &error);
    EXPECT_TRUE(objects) << (error ? error->description() : "");
    return objects ? std::move(*objects) : Array();
  }

  // The dictionaries of the objects of entity matching format (a "%K == YES"
  // style predicate over key), as the refresh gathers them.
  Array dictionaries(const std::string& entity, const std::string& key) {
    Array result;
    root->performBlockAndWait([&] {
      auto request = NSFetchRequest::fetchRequestWithEntityName(entity);
      request->setPredicate(NSPredicate::predicateWithFormat("%K == YES", {Value(key)}));
      for (const Value& object : fetched(*request))
        result.push_back(Value(object.as<ZBTarrowManagedObjectExporting>()->dictionaryRepresentation()));
    });
    return result;
  }

  // The post of url in the store, read in a fresh context: {} when none.
  Dictionary storedPost(const std::string& url) {
    auto context = NSManagedObjectContext::create(NSPrivateQueueConcurrencyType);
    Dictionary result;
    context->performBlockAndWait([&] {
      context->setPersistentStoreCoordinator(stack->persistentStoreCoordinator());
      auto request = NSFetchRequest::fetchRequestWithEntityName(ZBTarrowPinboardPostEntityName);
      request->setPredicate(NSPredicate::predicateWithFormat("%K == %@", {Value(ZBTarrowPinboardPostURLKey), Value(url)}));
      auto found = context->executeFetchRequest(*request);
      if (found && !found->empty()) result = found->front().as<ZBTarrowPinboardPost>()->dictionaryRepresentation();
    });
    return result;
  }

  void saveRoot() {
    root->performBlockAndWait([&] {
      NSErrorPtr error;
      EXPECT_TRUE(root->save(&error)) << (error ? error->description() : "");
    });
  }

  // Moves the simulator's clock on: its update time has one-second
  // resolution, so changes a test tells apart must be seconds apart.
  std::int64_t tick(double seconds = 1) {
    simNow = simNow.load() + seconds;
    return static_cast<std::int64_t>(simNow.load());
  }

  std::atomic<double> simNow{1.75e9};
  StoreEnvironment environment;
  TemporaryDirectory dir;
  pinboard_sim::Simulator sim;
  std::string token;
  std::shared_ptr<NSUserDefaults> defaults;
  std::shared_ptr<ZBPinboardClient> client;
  std::shared_ptr<ZBTarrowDataStoreCoordinator> stack;
  NSManagedObjectContextPtr root;
};
