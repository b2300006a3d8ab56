#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <latch>
#include <mutex>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/operations/NSBlockOperation.h"
#include "platform/operations/NSOperation.h"
#include "platform/operations/NSOperationQueue.h"
#include "platform/operations/NSRunLoop.h"
#include "support/RunLoopTestHelper.h"

namespace {

// Records events from several threads.
class Log {
public:
  void add(std::string event) {
    std::lock_guard lock(_mutex);
    _events.push_back(std::move(event));
  }
  std::vector<std::string> events() const {
    std::lock_guard lock(_mutex);
    return _events;
  }

private:
  mutable std::mutex _mutex;
  std::vector<std::string> _events;
};

}  // namespace

TEST(NSOperation, ChainAcrossMainAndBackgroundQueuesRunsInOrderOnTheRightThreads) {
  auto background = NSOperationQueue::create();
  auto mainQueue = NSOperationQueue::mainQueue();
  Log log;
  std::atomic<int> wrongThread{0};
  auto step = [&](std::string name, bool onMain) {
    return NSBlockOperation::blockOperationWithBlock([&, name, onMain] {
      if (NSRunLoop::isMainThread() != onMain) ++wrongThread;
      if ((NSOperationQueue::currentQueue() == NSOperationQueue::mainQueue()) != onMain) ++wrongThread;
      log.add(name);
    });
  };
  auto a = step("a", false), b = step("b", true), c = step("c", false), d = step("d", true);
  b->addDependency(a);
  c->addDependency(b);
  d->addDependency(c);
  // Queued in reverse so that queue order cannot explain the run order.
  mainQueue->addOperation(d);
  background->addOperation(c);
  mainQueue->addOperation(b);
  background->addOperation(a);

  ASSERT_TRUE(RunMainLoopUntil([&] { return d->isFinished(); }));
  EXPECT_EQ(log.events(), (std::vector<std::string>{"a", "b", "c", "d"}));
  EXPECT_EQ(wrongThread.load(), 0);
  EXPECT_TRUE(RunMainLoopUntil([&] { return background->operationCount() == 0; }));
}

TEST(NSOperation, DependentRunsHoweverItsDependenciesEnded) {
  auto queue = NSOperationQueue::create();
  std::latch release(1);
  // One dependency cancelled before it ran, one cancelled while running, one
  // that simply ran.
  auto cancelledEarly = NSBlockOperation::blockOperationWithBlock([] { ADD_FAILURE() << "cancelled body ran"; });
  std::atomic<bool> runningStarted{false};
  auto cancelledWhileRunning = NSBlockOperation::blockOperationWithBlock([&] {
    runningStarted = true;
    release.wait();
  });
  auto plain = NSBlockOperation::blockOperationWithBlock([] {});
  std::atomic<int> dependentRuns{0};
  std::atomic<bool> sawUnfinishedDependency{false};
  std::vector<std::shared_ptr<NSOperation>> dependencies{cancelledEarly, cancelledWhileRunning, plain};
  auto dependent = NSBlockOperation::blockOperationWithBlock([&] {
    for (auto& dependency : dependencies) {
      if (!dependency->isFinished()) sawUnfinishedDependency = true;
    }
    ++dependentRuns;
  });
  for (auto& dependency : dependencies) dependent->addDependency(dependency);
  EXPECT_FALSE(dependent->isReady());

  cancelledEarly->cancel();
  queue->addOperation(dependent);
  queue->addOperations({cancelledEarly, cancelledWhileRunning, plain}, false);
  ASSERT_TRUE(RunMainLoopUntil([&] { return runningStarted.load() && plain->isFinished(); }));
  cancelledWhileRunning->cancel();
  EXPECT_TRUE(cancelledWhileRunning->isExecuting());
  EXPECT_FALSE(dependent->isFinished());
  release.count_down();

  ASSERT_TRUE(RunMainLoopUntil([&] { return dependent->isFinished(); }));
  EXPECT_EQ(dependentRuns.load(), 1);
  EXPECT_FALSE(sawUnfinishedDependency.load());
  EXPECT_TRUE(cancelledEarly->isFinished());
  EXPECT_TRUE(cancelledWhileRunning->isCancelled());
}

TEST(NSOperation, CancellingAPendingOperationFinishesItWithoutRunningItsBody) {
  auto queue = NSOperationQueue::create();
  std::latch release(1);
  auto blocker = NSBlockOperation::blockOperationWithBlock([&] { release.wait(); });
  std::atomic<int> bodyRuns{0};
  auto waiting = NSBlockOperation::blockOperationWithBlock([&] { ++bodyRuns; });
  waiting->addDependency(blocker);
  std::atomic<int> afterRuns{0};
  auto after = NSBlockOperation::blockOperationWithBlock([&] { ++afterRuns; });
  after->addDependency(waiting);
  queue->addOperations({blocker, waiting, after}, false);

  // The cancelled operation finishes at once, though its dependency still runs.
  waiting->cancel();
  ASSERT_TRUE(RunMainLoopUntil([&] { return waiting->isFinished() && after->isFinished(); }));
  EXPECT_FALSE(blocker->isFinished());
  EXPECT_EQ(afterRuns.load(), 1);
  release.count_down();
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_EQ(bodyRuns.load(), 0);
  EXPECT_EQ(queue->operationCount(), 0u);

  // Outside any queue: cancel, then start.
  auto loose = NSBlockOperation::blockOperationWithBlock([&] { ++bodyRuns; });
  loose->cancel();
  EXPECT_FALSE(loose->isFinished());
  loose->start();
  EXPECT_TRUE(loose->isFinished());
  EXPECT_EQ(bodyRuns.load(), 0);

  // Cancelling a finished operation changes nothing.
  auto done = NSOperation::create();
  done->start();
  done->cancel();
  EXPECT_FALSE(done->isCancelled());
}

TEST(NSOperation, StateChangesAreObservableAndFinishIsReportedOnce) {
  auto operation = NSBlockOperation::blockOperationWithBlock([] {});
  Log log;
  auto observe = [&](const std::string& key) {
    return operation->addObserver(key, NSKeyValueObservingOptions::New,
                                  [&log](const std::string& keyPath, NSObject&, const NSKeyValueChange& change) {
                                    log.add(keyPath + "=" + (change.newValue.boolValue() ? "1" : "0"));
                                  });
  };
  auto executing = observe("isExecuting");
  auto finished = observe("isFinished");
  auto cancelled = observe("isCancelled");
  auto queue = NSOperationQueue::create();
  queue->addOperation(operation);
  operation->waitUntilFinished();
  // The notifications are delivered on the finishing thread after the state
  // changed; the queue's own bookkeeping follows them.
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_EQ(log.events(), (std::vector<std::string>{"isExecuting=1", "isExecuting=0", "isFinished=1"}));

  auto cancelledOperation = NSOperation::create();
  Log cancelLog;
  auto cancelObservation = cancelledOperation->addObserver(
      "isCancelled", NSKeyValueObservingOptions::New | NSKeyValueObservingOptions::Old,
      [&](const std::string&, NSObject&, const NSKeyValueChange& change) {
        cancelLog.add(change.oldValue.description() + "->" + change.newValue.description());
      });
  cancelledOperation->cancel();
  cancelledOperation->cancel();
  EXPECT_EQ(cancelLog.events().size(), 1u);
  EXPECT_TRUE(cancelledOperation->valueForKey("isCancelled").boolValue());
}

TEST(NSOperation, WaitingOnTheMainThreadForMainQueueWorkDoesNotDeadlock) {
  auto background = NSOperationQueue::create();
  auto first = NSBlockOperation::blockOperationWithBlock([] {});
  std::atomic<bool> mainRan{false};
  auto onMain = NSBlockOperation::blockOperationWithBlock([&] { mainRan = true; });
  onMain->addDependency(first);
  auto last = NSBlockOperation::blockOperationWithBlock([] {});
  last->addDependency(onMain);
  NSOperationQueue::mainQueue()->addOperation(onMain);
  background->addOperations({first, last}, false);
  ASSERT_TRUE(NSRunLoop::isMainThread());
  last->waitUntilFinished();  // needs the main queue to drain meanwhile
  EXPECT_TRUE(mainRan.load());

  // From inside a main-queue operation, waiting for another main-queue one.
  std::atomic<bool> innerRan{false};
  auto inner = NSBlockOperation::blockOperationWithBlock([&] { innerRan = true; });
  auto outer = NSBlockOperation::blockOperationWithBlock([&] {
    NSOperationQueue::mainQueue()->addOperation(inner);
    inner->waitUntilFinished();
  });
  NSOperationQueue::mainQueue()->addOperation(outer);
  NSOperationQueue::mainQueue()->waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(innerRan.load());
  EXPECT_TRUE(outer->isFinished());
}

TEST(NSOperationQueue, WidthSuspensionAndCancelAll) {
  auto queue = NSOperationQueue::create();
  EXPECT_EQ(queue->maxConcurrentOperationCount(), NSOperationQueueDefaultMaxConcurrentOperationCount);
  queue->setMaxConcurrentOperationCount(2);
  std::atomic<int> running{0}, maxRunning{0}, runs{0};
  std::vector<std::shared_ptr<NSOperation>> operations;
  for (int i = 0; i < 24; ++i) {
    operations.push_back(NSBlockOperation::blockOperationWithBlock([&] {
      int now = ++running;
      int seen = maxRunning.load();
      while (now > seen && !maxRunning.compare_exchange_weak(seen, now)) {
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));  // give overlap a chance to show
      --running;
      ++runs;
    }));
  }
  queue->setSuspended(true);
  queue->addOperations(operations, false);
  EXPECT_EQ(queue->operationCount(), 24u);
  // Cancelled while suspended: finishes without running once resumed.
  operations[5]->cancel();
  queue->setSuspended(false);
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_EQ(runs.load(), 23);
  EXPECT_LE(maxRunning.load(), 2);
  EXPECT_EQ(queue->operationCount(), 0u);

  // cancelAllOperations: running ones go on; pending ones finish unrun.
  std::latch release(1);
  std::atomic<int> bodies{0};
  queue->setMaxConcurrentOperationCount(1);
  auto head = NSBlockOperation::blockOperationWithBlock([&] {
    ++bodies;
    release.wait();
  });
  queue->addOperation(head);
  for (int i = 0; i < 5; ++i) queue->addOperationWithBlock([&] { ++bodies; });
  ASSERT_TRUE(RunMainLoopUntil([&] { return head->isExecuting(); }));
  queue->cancelAllOperations();
  release.count_down();
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_EQ(bodies.load(), 1);
  EXPECT_TRUE(head->isCancelled());

  // Misuse is reported, not ignored.
  EXPECT_THROW(queue->addOperation(head), std::logic_error);
  EXPECT_THROW(head->addDependency(head), std::logic_error);
}

TEST(NSOperationQueue, BlockedOperationsDoNotStarveTheOneThatReleasesThem) {
  // More blocked operations than the pool starts threads for on its own; the
  // releasing operation can run only if the pool keeps growing.
  auto queue = NSOperationQueue::create();
  constexpr int kBlocked = 80;
  std::latch release(1);
  std::atomic<int> blockedStarted{0};
  for (int i = 0; i < kBlocked; ++i) {
    queue->addOperationWithBlock([&] {
      ++blockedStarted;
      release.wait();
    });
  }
  queue->addOperationWithBlock([&] { release.count_down(); });
  ASSERT_TRUE(RunMainLoopUntil([&] { return queue->operationCount() == 0; }));
  EXPECT_EQ(blockedStarted.load(), kBlocked);
}

TEST(NSOperationQueue, StressOfRandomDependenciesFinishesEachOperationExactlyOnce) {
  constexpr int kCount = 10000;
  std::mt19937 random(20240611);
  auto wide = NSOperationQueue::create();
  auto narrow = NSOperationQueue::create();
  narrow->setMaxConcurrentOperationCount(3);
  auto mainQueue = NSOperationQueue::mainQueue();

  std::vector<std::shared_ptr<NSOperation>> operations(kCount);
  std::vector<std::atomic<int>> bodyRuns(kCount);
  std::vector<std::atomic<int>> finishes(kCount);
  std::atomic<int> orderViolations{0};
  std::vector<std::vector<int>> dependencyIndexes(kCount);
  for (int i = 0; i < kCount; ++i) {
    operations[i] = NSBlockOperation::blockOperationWithBlock([&, i] {
      ++bodyRuns[i];
      for (int d : dependencyIndexes[i]) {
        if (!operations[d]->isFinished()) ++orderViolations;
      }
    });
    operations[i]->setCompletionBlock([&, i] { ++finishes[i]; });
    if (i > 0) {
      int dependencyCount = std::uniform_int_distribution<int>(0, 3)(random);
      for (int k = 0; k < dependencyCount; ++k) {
        int d = std::uniform_int_distribution<int>(0, i - 1)(random);
        dependencyIndexes[i].push_back(d);
        operations[i]->addDependency(operations[d]);
      }
    }
  }
  // Some cancelled before they are queued, some while everything runs.
  std::vector<bool> cancelledEarly(kCount, false);
  for (int i = 0; i < kCount; i += 97) {
    operations[i]->cancel();
    cancelledEarly[i] = true;
  }
  // Queue in a shuffled order across three queues, from two threads.
  std::vector<int> order(kCount);
  for (int i = 0; i < kCount; ++i) order[i] = i;
  std::shuffle(order.begin(), order.end(), random);
  auto queueFor = [&](int i) {
    switch (i % 10) {
      case 0: return mainQueue;
      case 1:
      case 2: return narrow;
      default: return wide;
    }
  };
  std::thread other([&] {
    for (int k = 0; k < kCount; k += 2) queueFor(order[k])->addOperation(operations[order[k]]);
  });
  for (int k = 1; k < kCount; k += 2) queueFor(order[k])->addOperation(operations[order[k]]);
  other.join();
  std::thread canceller([&] {
    for (int i = 50; i < kCount; i += 211) operations[i]->cancel();
  });

  ASSERT_TRUE(RunMainLoopUntil([&] {
    return std::all_of(operations.begin(), operations.end(), [](const auto& op) { return op->isFinished(); });
  }));
  canceller.join();
  wide->waitUntilAllOperationsAreFinished();
  narrow->waitUntilAllOperationsAreFinished();
  // Completion blocks run right after isFinished turns true; let them land.
  ASSERT_TRUE(RunMainLoopUntil([&] {
    return std::all_of(finishes.begin(), finishes.end(), [](const auto& n) { return n.load() != 0; });
  }));
  for (int i = 0; i < kCount; ++i) {
    ASSERT_EQ(finishes[i].load(), 1) << "operation " << i;
    ASSERT_LE(bodyRuns[i].load(), 1) << "operation " << i;
    if (cancelledEarly[i]) {
      ASSERT_EQ(bodyRuns[i].load(), 0) << "operation " << i;
    } else if (!operations[i]->isCancelled()) {
      ASSERT_EQ(bodyRuns[i].load(), 1) << "operation " << i;
    }
  }
  EXPECT_EQ(orderViolations.load(), 0);
  EXPECT_EQ(mainQueue->operationCount(), 0u);
}
