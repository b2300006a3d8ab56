#include "platform/foundation/NSNotificationCenter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include "support/TogetherThreads.h"

namespace {

struct Poster : NSObject {
  static std::shared_ptr<Poster> create() { return std::make_shared<Poster>(); }
};

}  // namespace

TEST(NSNotificationCenter, FiltersByNameAndObjectInRegistrationOrder) {
  NSNotificationCenter center;
  auto a = Poster::create();
  auto b = Poster::create();
  std::vector<std::string> log;
  auto record = [&](std::string tag) {
    return [&log, tag](const NSNotification& n) {
      log.push_back(tag + ":" + n.name + (n.userInfo.contains("k") ? "+k" : ""));
    };
  };
  auto t1 = center.addObserver("save", a, record("a-save"));
  auto t2 = center.addObserver("", nullptr, record("any"));
  auto t3 = center.addObserver("save", nullptr, record("save"));
  auto t4 = center.addObserver("", b, record("b-any"));

  center.post("save", a, Dictionary{{"k", 1}});
  EXPECT_EQ(log, (std::vector<std::string>{"a-save:save+k", "any:save+k", "save:save+k"}));
  log.clear();
  center.post("save", b);
  EXPECT_EQ(log, (std::vector<std::string>{"any:save", "save:save", "b-any:save"}));
  log.clear();
  center.post("other");  // no poster: only unfiltered observers
  EXPECT_EQ(log, (std::vector<std::string>{"any:other"}));
  log.clear();

  // The default center is one object, and delivers like any other.
  int defaults = 0;
  auto t5 = NSNotificationCenter::defaultCenter().addObserver("ping", nullptr, [&](const NSNotification& n) {
    defaults += n.object == a ? 1 : 100;
  });
  NSNotificationCenter::defaultCenter().post("ping", a);
  center.post("ping", a);
  EXPECT_EQ(defaults, 1);

  // A filter on an object that died matches nothing, not even a new object.
  std::weak_ptr<Poster> weakA = a;
  int deadFilterCalls = 0;
  auto t6 = center.addObserver("save", a, [&](const NSNotification&) { ++deadFilterCalls; });
  a.reset();
  EXPECT_TRUE(weakA.expired()) << "the center must not keep filter objects alive";
  for (int i = 0; i < 100; ++i) center.post("save", Poster::create());
  EXPECT_EQ(deadFilterCalls, 0);

  // Tokens end observation; a token may outlive its center.
  NSNotificationObservation survivor;
  {
    NSNotificationCenter shortLived;
    survivor = shortLived.addObserver("x", nullptr, [](const NSNotification&) {});
  }
  survivor.invalidate();
  t2.invalidate();
  center.removeObserver(t3);
  { auto moved = std::move(t4); }
  log.clear();
  center.post("save", b);
  EXPECT_TRUE(log.empty());
}

TEST(NSNotificationCenter, RemovalAndRegistrationDuringDelivery) {
  NSNotificationCenter center;
  int selfCalls = 0, victimCalls = 0, lastCalls = 0, addedCalls = 0;
  NSNotificationObservation self, victim, last;
  std::vector<NSNotificationObservation> added;
  self = center.addObserver("n", nullptr, [&](const NSNotification&) {
    ++selfCalls;
    self.invalidate();
    victim.invalidate();
    added.push_back(center.addObserver("n", nullptr, [&](const NSNotification&) { ++addedCalls; }));
  });
  victim = center.addObserver("n", nullptr, [&](const NSNotification&) { ++victimCalls; });
  last = center.addObserver("n", nullptr, [&](const NSNotification& n) {
    ++lastCalls;
    if (lastCalls == 1) center.post(n);  // re-entrant post
  });
  center.post("n");
  EXPECT_EQ(selfCalls, 1);
  EXPECT_EQ(victimCalls, 0) << "removed before its turn";
  EXPECT_EQ(lastCalls, 2);
  EXPECT_EQ(addedCalls, 1);  // registered during the first post, called by the nested one
}

TEST(NSNotificationCenter, ConcurrentPostsAndRemovals) {
  // A steady observer sees every post exactly once while other threads add
  // and remove observers; no block runs after its removal returned.
  NSNotificationCenter center;
  std::atomic<int> steady{0}, late{0};
  auto token = center.addObserver("tick", nullptr, [&](const NSNotification&) { ++steady; });
  constexpr int kPosters = 3, kPosts = 500;
  std::atomic<int> posting{kPosters};  // churners go on until every poster is done
  RunTogether(kPosters + 2, [&](int t) {
    if (t < kPosters) {
      for (int i = 0; i < kPosts; ++i) center.post("tick");
      --posting;
    } else {
      const int c = t - kPosters;
      while (posting.load() > 0) {
        auto removed = std::make_shared<std::atomic<bool>>(false);
        auto churned = center.addObserver(c ? "tick" : "", nullptr, [&late, removed](const NSNotification&) {
          std::this_thread::yield();  // widen the window between the validity check and the call's end
          if (removed->load()) ++late;
        });
        std::this_thread::yield();
        churned.invalidate();
        removed->store(true);
      }
    }
  });
  EXPECT_EQ(steady.load(), kPosters * kPosts);
  EXPECT_EQ(late.load(), 0);
}
