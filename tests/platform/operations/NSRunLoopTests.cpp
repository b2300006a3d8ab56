#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/foundation/ZBClock.h"
#include "platform/operations/NSRunLoop.h"
#include "platform/operations/NSTimer.h"
#include "support/RunLoopTestHelper.h"
#include "support/TogetherThreads.h"

namespace {

// Puts a manual clock in place for one test.
class ManualClockTest : public ::testing::Test {
protected:
  void SetUp() override {
    clock = std::make_shared<ZBManualClock>(NSDate(1000));
    ZBClock::setCurrent(clock);
  }
  void TearDown() override { ZBClock::setCurrent(nullptr); }
  std::shared_ptr<ZBManualClock> clock;
};

}  // namespace

TEST(NSRunLoop, BlocksFromManyThreadsRunOnTheMainThreadInPostingOrder) {
  auto loop = NSRunLoop::mainRunLoop();
  constexpr int kThreads = 4, kBlocks = 500;
  std::vector<std::vector<int>> seen(kThreads);  // touched only on the main thread
  std::atomic<int> offMain{0};
  TogetherThreads posters(kThreads, [&](int t) {
    for (int i = 0; i < kBlocks; ++i) {
      loop->performBlock([&, t, i] {
        if (!NSRunLoop::isMainThread()) ++offMain;
        seen[t].push_back(i);
      });
    }
  });
  EXPECT_FALSE(std::async(std::launch::async, [] { return NSRunLoop::isMainThread(); }).get());
  ASSERT_TRUE(RunMainLoopUntil([&] {
    for (auto& s : seen) {
      if (s.size() != kBlocks) return false;
    }
    return true;
  }));
  posters.join();
  EXPECT_EQ(offMain.load(), 0);
  for (auto& s : seen) {
    for (int i = 0; i < kBlocks; ++i) ASSERT_EQ(s[i], i);
  }
}

TEST(NSRunLoop, NestedRunsGoOnWithTheOuterTurnsBlocks) {
  auto loop = NSRunLoop::mainRunLoop();
  std::vector<int> order;
  // The first block waits for the second, posted behind it in the same turn.
  bool secondRan = false;
  bool nestedReturned = false;
  loop->performBlock([&] {
    order.push_back(1);
    nestedReturned = RunMainLoopUntil([&] { return secondRan; });
    order.push_back(3);
  });
  loop->performBlock([&] {
    order.push_back(2);
    secondRan = true;
  });
  ASSERT_TRUE(RunMainLoopUntil([&] { return order.size() == 3; }));
  EXPECT_TRUE(nestedReturned);
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));

  // stop() ends only the innermost run.
  bool outerDone = false;
  loop->performBlock([&] {
    loop->performBlock([&] { loop->stop(); });
    loop->run();
    outerDone = true;
  });
  EXPECT_TRUE(RunMainLoopUntil([&] { return outerDone; }));
}

TEST(NSRunLoop, TurnObserversSeeOnlyTurnsThatDidWork) {
  auto loop = NSRunLoop::mainRunLoop();
  std::atomic<int> calls{0};
  int blocksAtCall = -1;
  int blocksRun = 0;
  auto id = loop->addTurnObserver([&] {
    ++calls;
    blocksAtCall = blocksRun;
  });
  loop->performBlock([&] { ++blocksRun; });
  loop->performBlock([&] { ++blocksRun; });
  ASSERT_TRUE(DrainMainLoop());
  EXPECT_GE(calls.load(), 1);
  EXPECT_EQ(blocksAtCall, 2);  // after the blocks of its turn, not between them

  // Idle turns (the condition is polled many times with nothing to run).
  int before = calls.load();
  int polls = 0;
  EXPECT_TRUE(RunMainLoopUntil([&] { return ++polls == 20; }));
  EXPECT_EQ(calls.load(), before);

  // An observer may remove itself; removal elsewhere waits for a running call.
  std::uint64_t selfRemoving = 0;
  int selfCalls = 0;
  selfRemoving = loop->addTurnObserver([&] {
    ++selfCalls;
    loop->removeTurnObserver(selfRemoving);
  });
  ASSERT_TRUE(DrainMainLoop());
  ASSERT_TRUE(DrainMainLoop());
  EXPECT_EQ(selfCalls, 1);
  std::thread([&] { loop->removeTurnObserver(id); }).join();
  before = calls.load();
  ASSERT_TRUE(DrainMainLoop());
  EXPECT_EQ(calls.load(), before);
}

TEST(NSRunLoop, RunningFromAnotherThreadWhileItRunsIsRefused) {
  auto loop = NSRunLoop::mainRunLoop();
  bool threw = false;
  bool checked = false;
  loop->performBlock([&] {
    std::thread([&] {
      try {
        loop->runUntil([] { return true; }, 1);
      } catch (const std::logic_error&) {
        threw = true;
      }
    }).join();
    checked = true;
  });
  ASSERT_TRUE(RunMainLoopUntil([&] { return checked; }));
  EXPECT_TRUE(threw);
}

TEST_F(ManualClockTest, RepeatingTimerFiresOncePerIntervalKeepsItsPhaseAndStopsWhenInvalidated) {
  int fired = 0;
  auto timer = NSTimer::scheduledTimerWithTimeInterval(10, true, [&](NSTimer&) {
    EXPECT_TRUE(NSRunLoop::isMainThread());
    ++fired;
  });
  timer->setTolerance(2);
  EXPECT_DOUBLE_EQ(timer->tolerance(), 2);
  EXPECT_EQ(timer->fireDate(), NSDate(1010));  // one interval after scheduling, not at once

  ASSERT_TRUE(DrainMainLoop());
  EXPECT_EQ(fired, 0);
  clock->advance(9.5);
  ASSERT_TRUE(DrainMainLoop());
  EXPECT_EQ(fired, 0);
  clock->advance(0.5);  // exactly due
  ASSERT_TRUE(RunMainLoopUntil([&] { return fired == 1; }));
  ASSERT_TRUE(DrainMainLoop());
  EXPECT_EQ(fired, 1);
  clock->advance(10);
  ASSERT_TRUE(RunMainLoopUntil([&] { return fired == 2; }));

  // Three and a half intervals missed: one firing, and the phase is kept.
  clock->advance(35);
  ASSERT_TRUE(RunMainLoopUntil([&] { return fired == 3; }));
  ASSERT_TRUE(DrainMainLoop());
  EXPECT_EQ(fired, 3);
  EXPECT_EQ(timer->fireDate(), NSDate(1060));

  timer->invalidate();
  EXPECT_FALSE(timer->isValid());
  clock->advance(100);
  ASSERT_TRUE(DrainMainLoop());
  EXPECT_EQ(fired, 3);
}

TEST_F(ManualClockTest, OneShotTimerFiresOnceAndTimersFireInDateOrder) {
  std::vector<std::string> order;
  auto late = NSTimer::scheduledTimerWithTimeInterval(5, false, [&](NSTimer&) { order.push_back("late"); });
  auto early = NSTimer::timerWithTimeInterval(3, false, [&](NSTimer&) { order.push_back("early"); });
  NSRunLoop::mainRunLoop()->addTimer(early);
  NSRunLoop::mainRunLoop()->addTimer(early);  // scheduling twice keeps one
  auto moved = NSTimer::scheduledTimerWithTimeInterval(1, false, [&](NSTimer&) { order.push_back("moved"); });
  moved->setFireDate(NSDate(2000));

  clock->advance(10);  // both due in the same turn
  ASSERT_TRUE(RunMainLoopUntil([&] { return order.size() == 2; }));
  ASSERT_TRUE(DrainMainLoop());
  EXPECT_EQ(order, (std::vector<std::string>{"early", "late"}));
  EXPECT_FALSE(early->isValid());
  EXPECT_FALSE(late->isValid());
  EXPECT_TRUE(moved->isValid());

  clock->setNow(NSDate(2000));
  ASSERT_TRUE(RunMainLoopUntil([&] { return order.size() == 3; }));
  EXPECT_EQ(order.back(), "moved");

  // A timer invalidated from its own block, and one that drops the last
  // outside reference, do not crash the loop.
  int selfStopping = 0;
  NSTimer::scheduledTimerWithTimeInterval(1, true, [&](NSTimer& t) {
    ++selfStopping;
    t.invalidate();
  });
  clock->advance(5);
  ASSERT_TRUE(RunMainLoopUntil([&] { return selfStopping == 1; }));
  clock->advance(5);
  ASSERT_TRUE(DrainMainLoop());
  EXPECT_EQ(selfStopping, 1);
}

TEST(NSTimer, RepeatingTimerFiresInRealTimeUntilInvalidated) {
  std::atomic<int> fired{0};
  auto timer = NSTimer::scheduledTimerWithTimeInterval(0.005, true, [&](NSTimer&) { ++fired; });
  ASSERT_TRUE(RunMainLoopUntil([&] { return fired.load() >= 5; }));
  timer->invalidate();
  int atInvalidation = fired.load();
  NSRunLoop::mainRunLoop()->runUntilDate(NSDate::date().dateByAddingTimeInterval(0.05));
  EXPECT_EQ(fired.load(), atInvalidation);
}
