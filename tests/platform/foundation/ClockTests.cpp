#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/foundation/ZBClock.h"
#include "support/TogetherThreads.h"

namespace {

// Every test leaves the system clock in place, whatever it did.
class ZBClockTest : public ::testing::Test {
protected:
  void TearDown() override { ZBClock::setCurrent(nullptr); }
};

}  // namespace

TEST_F(ZBClockTest, ListenersHearTimeMoveOnlyOnTheCurrentClock) {
  auto clock = std::make_shared<ZBManualClock>(NSDate(0));
  auto other = std::make_shared<ZBManualClock>(NSDate(0));
  int calls = 0;
  NSDate seen;
  const int id = ZBClock::addChangeListener([&] {
    ++calls;
    seen = ZBClock::current()->now();
  });

  ZBClock::setCurrent(clock);
  EXPECT_EQ(calls, 1);
  clock->advance(60);
  EXPECT_EQ(calls, 2);
  EXPECT_EQ(seen, NSDate(60));  // the listener already sees the new time
  clock->setNow(NSDate(-5));
  EXPECT_EQ(calls, 3);
  EXPECT_EQ(seen, NSDate(-5));

  // A manual clock nobody reads moves silently.
  other->advance(10);
  EXPECT_EQ(calls, 3);
  EXPECT_EQ(other->now(), NSDate(10));

  ZBClock::removeChangeListener(id);
  clock->advance(1);
  ZBClock::setCurrent(nullptr);
  EXPECT_EQ(calls, 3);
  ZBClock::removeChangeListener(id);  // a second removal is harmless
}

TEST_F(ZBClockTest, ListenerMayRemoveItselfAndMoveTimeAgain) {
  auto clock = std::make_shared<ZBManualClock>(NSDate(0));
  ZBClock::setCurrent(clock);
  int selfRemoving = 0, other = 0;
  int selfId = 0;
  selfId = ZBClock::addChangeListener([&] {
    ++selfRemoving;
    ZBClock::removeChangeListener(selfId);
    clock->advance(1);  // re-entrant notification must not deadlock
  });
  const int otherId = ZBClock::addChangeListener([&] { ++other; });
  clock->advance(1);
  EXPECT_EQ(selfRemoving, 1);
  EXPECT_EQ(other, 2);  // once for each advance
  EXPECT_EQ(clock->now(), NSDate(2));
  clock->advance(1);
  EXPECT_EQ(selfRemoving, 1);
  ZBClock::removeChangeListener(otherId);
}

TEST_F(ZBClockTest, RemovalWaitsForACallRunningOnAnotherThread) {
  auto clock = std::make_shared<ZBManualClock>(NSDate(0));
  ZBClock::setCurrent(clock);
  std::mutex lock;
  std::condition_variable changed;
  bool entered = false, release = false;
  std::atomic<bool> finished{false};
  const int id = ZBClock::addChangeListener([&] {
    std::unique_lock guard(lock);
    entered = true;
    changed.notify_all();
    changed.wait(guard, [&] { return release; });
    finished = true;
  });
  std::thread mover([&] { clock->advance(1); });
  {
    std::unique_lock guard(lock);
    changed.wait(guard, [&] { return entered; });
  }
  std::thread remover([&] {
    ZBClock::removeChangeListener(id);
    // The listener's captures may be destroyed now: it must have returned.
    EXPECT_TRUE(finished.load());
  });
  {
    std::lock_guard guard(lock);
    release = true;
  }
  changed.notify_all();
  mover.join();
  remover.join();
}

TEST_F(ZBClockTest, ConcurrentReadersWritersAndListeners) {
  auto clock = std::make_shared<ZBManualClock>(NSDate(0));
  ZBClock::setCurrent(clock);
  std::atomic<int> heard{0};
  constexpr int kThreads = 4, kSteps = 500;
  RunTogether(kThreads, [&](int t) {
    for (int i = 0; i < kSteps; ++i) {
      switch (t) {
        case 0: clock->advance(1); break;
        case 1: {
          const int id = ZBClock::addChangeListener([&] { ++heard; });
          ZBClock::removeChangeListener(id);
          break;
        }
        case 2: EXPECT_GE(NSDate::date(), NSDate(0)); break;
        default:
          if (i % 50 == 0) ZBClock::setCurrent(clock);
          break;
      }
    }
  });
  // No advance is lost to a race on the stored time.
  EXPECT_EQ(clock->now(), NSDate(kSteps));
}
