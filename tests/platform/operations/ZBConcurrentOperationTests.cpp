#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <latch>
#include <mutex>

#include "platform/foundation/NSError.h"
#include "platform/operations/NSBlockOperation.h"
#include "platform/operations/NSOperationQueue.h"
#include "platform/operations/NSRunLoop.h"
#include "platform/operations/ZBConcurrentOperation.h"
#include "platform/operations/ZBPromiseOperation.h"
#include "support/RunLoopTestHelper.h"

namespace {

// A job whose plan is given by the test; the helpers are opened up so that
// plans can be written inline.
class TestJob : public ZBConcurrentOperation {
public:
  using Setup = std::function<void(TestJob& job, const ZBAddWorkOperation& add)>;
  static std::shared_ptr<TestJob> create(Setup setup) { return std::make_shared<TestJob>(std::move(setup)); }
  explicit TestJob(Setup setup) : _setup(std::move(setup)) {}

  using ZBConcurrentOperation::addContinuation;
  using ZBConcurrentOperation::addPhase;
  using ZBConcurrentOperation::beginPhase;
  using ZBConcurrentOperation::complete;
  using ZBConcurrentOperation::setCompletionProvider;
  std::atomic<int> setupCalls{0};

protected:
  void setupOperations(const ZBAddWorkOperation& add) override {
    ++setupCalls;
    if (_setup) _setup(*this, add);
  }

private:
  Setup _setup;
};

Value resultOf(const std::shared_ptr<NSOperation>& operation, NSErrorPtr* error) {
  return ZBOperationResult(*operation, error);
}

std::shared_ptr<ZBPromiseOperation> failing(NSErrorPtr error) {
  return ZBPromiseOperation::promiseOperationWithBlock([error](NSErrorPtr* slot) {
    ZBSetError(slot, error);
    return Value();
  });
}

// Runs job on a fresh queue and waits (running the main loop) until it ends.
void runToEnd(const std::shared_ptr<NSOperation>& job) {
  auto queue = NSOperationQueue::create();
  queue->addOperation(job);
  ASSERT_TRUE(RunMainLoopUntil([&] { return job->isFinished(); }));
}

}  // namespace

TEST(ZBConcurrentOperation, ResultWithoutWorkAndWithoutAnyProvider) {
  // Sets its provider in setup and hands over nothing: finishes at once.
  auto immediate = TestJob::create([](TestJob& job, const ZBAddWorkOperation&) { job.complete("done"); });
  runToEnd(immediate);
  NSErrorPtr untouched = NSError::create("sentinel", 1);
  NSErrorPtr slot = untouched;
  EXPECT_EQ(resultOf(immediate, &slot), Value("done"));
  EXPECT_EQ(slot, untouched);  // success leaves the slot alone
  EXPECT_EQ(resultOf(immediate, nullptr), Value("done"));  // readable again, without a slot

  // Work but never a provider: the documented internal-inconsistency error.
  auto forgetful = TestJob::create([](TestJob&, const ZBAddWorkOperation& add) {
    add(NSBlockOperation::blockOperationWithBlock([] {}));
  });
  runToEnd(forgetful);
  NSErrorPtr error;
  EXPECT_FALSE(resultOf(forgetful, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), ZBConcurrentOperationErrorDomain);
  EXPECT_EQ(error->code(), ZBConcurrentOperationNoResultError);

  // Cancelled before it started: no setup, and the cancellation error.
  auto cancelled = TestJob::create([](TestJob& job, const ZBAddWorkOperation&) { job.complete(true); });
  cancelled->cancel();
  runToEnd(cancelled);
  EXPECT_EQ(cancelled->setupCalls.load(), 0);
  error = nullptr;
  EXPECT_FALSE(resultOf(cancelled, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
  EXPECT_EQ(error->code(), NSUserCancelledError);
}

TEST(ZBConcurrentOperation, WorkHandedOverFromInsideRunningWorkKeepsTheOwnerUnfinished) {
  std::latch release(1);
  std::atomic<bool> innerStarted{false};
  std::shared_ptr<NSOperation> last;
  auto job = TestJob::create([&](TestJob& job, const ZBAddWorkOperation& add) {
    auto self = &job;
    add(NSBlockOperation::blockOperationWithBlock([add, self, &release, &innerStarted, &last] {
      // Phase two, added while phase one runs; it blocks until released.
      auto inner = NSBlockOperation::blockOperationWithBlock([add, self, &release, &innerStarted, &last] {
        innerStarted = true;
        release.wait();
        // And a third step added from inside the second.
        last = NSBlockOperation::blockOperationWithBlock([self] { self->complete("three steps"); });
        add(last);
      });
      add(inner);
    }));
  });
  auto queue = NSOperationQueue::create();
  queue->addOperation(job);
  ASSERT_TRUE(RunMainLoopUntil([&] { return innerStarted.load(); }));
  EXPECT_TRUE(job->isExecuting());
  EXPECT_FALSE(job->isFinished());
  release.count_down();
  ASSERT_TRUE(RunMainLoopUntil([&] { return job->isFinished(); }));
  ASSERT_TRUE(last);
  EXPECT_TRUE(last->isFinished());
  EXPECT_EQ(resultOf(job, nullptr), Value("three steps"));
}

namespace {

// A job of three standard phases, like the refresh: each phase runs a
// "request" (a promise), then a promise reading it, then moves on.
struct PhasedJob {
  std::shared_ptr<TestJob> job;
  std::atomic<int> phasesStarted{0};
  std::atomic<bool> firstPhaseBodyEnded{false};
  std::latch releaseFirstPhase{1};
  std::atomic<bool> firstPhaseRunning{false};

  PhasedJob() {
    job = TestJob::create([this](TestJob& owner, const ZBAddWorkOperation& add) { phase(owner, add, 1); });
  }

  void phase(TestJob& owner, const ZBAddWorkOperation& add, int number) {
    if (number > 1 && !owner.beginPhase()) return;
    ++phasesStarted;
    auto request = ZBPromiseOperation::promiseOperationWithBlock([this, number](NSErrorPtr*) -> Value {
      if (number == 1) {
        firstPhaseRunning = true;
        releaseFirstPhase.wait();
        firstPhaseBodyEnded = true;
      }
      return number;
    });
    auto ownerPtr = &owner;
    owner.addPhase(
        add, {request},
        [request](NSErrorPtr* error) { return resultOf(request, error); },
        [this, ownerPtr, add, number](const Value&) {
          if (number == 3) {
            ownerPtr->complete(true);
          } else {
            phase(*ownerPtr, add, number + 1);
          }
        });
  }
};

}  // namespace

TEST(ZBConcurrentOperation, CancellationIsReportedAtTheNextPhaseAfterTheRunningOneFinishes) {
  PhasedJob uncancelled;
  uncancelled.releaseFirstPhase.count_down();
  runToEnd(uncancelled.job);
  EXPECT_EQ(resultOf(uncancelled.job, nullptr), Value(true));
  EXPECT_EQ(uncancelled.phasesStarted.load(), 3);

  PhasedJob cancelled;
  auto queue = NSOperationQueue::create();
  queue->addOperation(cancelled.job);
  ASSERT_TRUE(RunMainLoopUntil([&] { return cancelled.firstPhaseRunning.load(); }));
  cancelled.job->cancel();
  EXPECT_FALSE(cancelled.job->isFinished());  // the running phase goes on
  cancelled.releaseFirstPhase.count_down();
  ASSERT_TRUE(RunMainLoopUntil([&] { return cancelled.job->isFinished(); }));
  EXPECT_TRUE(cancelled.firstPhaseBodyEnded.load());
  EXPECT_EQ(cancelled.phasesStarted.load(), 1);
  NSErrorPtr error;
  EXPECT_FALSE(resultOf(cancelled.job, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
  EXPECT_EQ(error->code(), NSUserCancelledError);
  EXPECT_TRUE(error->userInfo().empty());
}

TEST(ZBConcurrentOperation, ErrorsTravelUnchangedAndTheFirstInOrderWins) {
  // A promise whose dependency failed still runs and sees that error; passing
  // its slot through makes the error its own, unchanged.
  NSErrorPtr serviceError = NSError::create("ZBPinboardKitErrorDomain", 429, "Too many requests");
  std::atomic<bool> promiseRan{false};
  auto job = TestJob::create([&](TestJob& owner, const ZBAddWorkOperation& add) {
    auto request = failing(serviceError);
    owner.addPhase(
        add, {request},
        [&promiseRan, request](NSErrorPtr* error) {
          promiseRan = true;
          return resultOf(request, error);
        },
        [&owner](const Value&) { owner.complete(true); });
  });
  // The reader of the result is a main-queue step depending on the job, as
  // the controller does it.
  NSErrorPtr seenOnMain;
  bool readerRan = false;
  auto reader = NSBlockOperation::blockOperationWithBlock([&] {
    EXPECT_TRUE(NSRunLoop::isMainThread());
    EXPECT_FALSE(resultOf(job, &seenOnMain));
    readerRan = true;
  });
  reader->addDependency(job);
  NSOperationQueue::mainQueue()->addOperation(reader);
  runToEnd(job);
  ASSERT_TRUE(RunMainLoopUntil([&] { return readerRan; }));
  EXPECT_TRUE(promiseRan.load());
  EXPECT_EQ(seenOnMain, serviceError);  // the same error object

  // A continuation reads in the order given, not the order things finished:
  // the later-finishing first failure wins over an earlier second one.
  NSErrorPtr first = NSError::create("first", 1), second = NSError::create("second", 2);
  std::latch secondDone(1);
  auto ordered = TestJob::create([&](TestJob& owner, const ZBAddWorkOperation& add) {
    auto a = ZBPromiseOperation::promiseOperationWithBlock([&](NSErrorPtr* slot) {
      secondDone.wait();
      ZBSetError(slot, first);
      return Value();
    });
    auto b = ZBPromiseOperation::promiseOperationWithBlock([&](NSErrorPtr* slot) {
      ZBSetError(slot, second);
      secondDone.count_down();
      return Value();
    });
    auto ok = ZBPromiseOperation::promiseOperationWithBlock([](NSErrorPtr*) { return Value(true); });
    add(a);
    add(b);
    add(ok);
    owner.addContinuation(add, {ok, a, b}, [&owner](const Array&) { owner.complete(true); });
  });
  runToEnd(ordered);
  NSErrorPtr error;
  EXPECT_FALSE(resultOf(ordered, &error));
  EXPECT_EQ(error, first);

  // All succeeded: next sees every result, in order.
  Array seen;
  auto allGood = TestJob::create([&](TestJob& owner, const ZBAddWorkOperation& add) {
    auto x = ZBPromiseOperation::promiseOperationWithBlock([](NSErrorPtr*) { return Value("x"); });
    auto y = NSBlockOperation::blockOperationWithBlock([] {});  // a plain step reads as true
    add(x);
    add(y);
    owner.addContinuation(add, {x, y}, [&owner, &seen](const Array& results) {
      seen = results;
      owner.complete(static_cast<std::int64_t>(results.size()));
    });
  });
  runToEnd(allGood);
  EXPECT_EQ(seen, (Array{Value("x"), Value(true)}));
  EXPECT_EQ(resultOf(allGood, nullptr), Value(2));
}

TEST(ZBConcurrentOperation, SevenBlockedRequestsRunAtTheSameTime) {
  // Each "request" waits until all seven are in flight; a plan run with fewer
  // threads would never get there (each gives up after the test's time-out).
  constexpr int kRequests = 7;
  std::mutex mutex;
  std::condition_variable allInFlight;
  int inFlight = 0;
  auto job = TestJob::create([&](TestJob& owner, const ZBAddWorkOperation& add) {
    std::vector<std::shared_ptr<NSOperation>> requests;
    for (int i = 0; i < kRequests; ++i) {
      auto request = ZBPromiseOperation::promiseOperationWithBlock([&](NSErrorPtr* slot) -> Value {
        std::unique_lock lock(mutex);
        ++inFlight;
        allInFlight.notify_all();
        if (!allInFlight.wait_for(lock, std::chrono::duration<double>(kRunLoopTestTimeout),
                                  [&] { return inFlight == kRequests; })) {
          ZBSetError(slot, NSError::create("test", 1, "starved"));
          return Value();
        }
        return true;
      });
      add(request);
      requests.push_back(request);
    }
    owner.addContinuation(add, requests, [&owner](const Array&) { owner.complete(true); });
  });
  runToEnd(job);
  NSErrorPtr error;
  EXPECT_EQ(resultOf(job, &error), Value(true)) << (error ? error->description() : "");
}

TEST(ZBConcurrentOperation, WorkQueuedOnTheMainQueueIsWaitedFor) {
  std::atomic<bool> mainStepRan{false};
  auto job = TestJob::create([&](TestJob& owner, const ZBAddWorkOperation& add) {
    auto onMain = NSBlockOperation::blockOperationWithBlock([&] { mainStepRan = NSRunLoop::isMainThread(); });
    NSOperationQueue::mainQueue()->addOperation(onMain);
    add(onMain);  // already queued: only waited for
    owner.addContinuation(add, {onMain}, [&owner](const Array&) { owner.complete(true); });
  });
  runToEnd(job);
  EXPECT_TRUE(mainStepRan.load());
  EXPECT_EQ(resultOf(job, nullptr), Value(true));
}

TEST(ZBConcurrentOperation, ExceptionsFailTheirOperationAndTheJobNotTheProcess) {
  auto expectThrown = [](const std::shared_ptr<NSOperation>& operation, const std::string& what) {
    NSErrorPtr error;
    EXPECT_FALSE(resultOf(operation, &error)) << operation->description();
    ASSERT_TRUE(error) << operation->description();
    EXPECT_EQ(error->domain(), ZBConcurrentOperationErrorDomain);
    EXPECT_EQ(error->code(), ZBConcurrentOperationExceptionError);
    EXPECT_EQ(error->userInfo()[NSDebugDescriptionErrorKey], Value(what));
  };
  // A plain block and a promise, each on its own queue.
  auto block = NSBlockOperation::blockOperationWithBlock([] { throw std::runtime_error("bad block"); });
  runToEnd(block);
  expectThrown(block, "bad block");
  auto promise = ZBPromiseOperation::promiseOperationWithBlock([](NSErrorPtr*) -> Value { throw 42; });
  runToEnd(promise);
  expectThrown(promise, "unknown exception");

  // The plan itself throws after handing over work: the job waits for that
  // work and fails, whatever the work completes it with later.
  auto setupThrows = TestJob::create([](TestJob& job, const ZBAddWorkOperation& add) {
    add(NSBlockOperation::blockOperationWithBlock([&job] { job.complete("late success"); }));
    throw std::logic_error("bad plan");
  });
  runToEnd(setupThrows);
  expectThrown(setupThrows, "bad plan");

  // A work operation throws in the middle of a phase; the continuation still
  // runs and completes, but the exception decides the job's result.
  std::atomic<bool> continued{false};
  auto workThrows = TestJob::create([&](TestJob& job, const ZBAddWorkOperation& add) {
    auto thrower = NSBlockOperation::blockOperationWithBlock([] { throw std::out_of_range("bad work"); });
    add(thrower);
    job.addContinuation(add, {thrower}, [&](const Array&) {
      continued = true;
      job.complete("ignored");
    });
  });
  runToEnd(workThrows);
  expectThrown(workThrows, "bad work");
  EXPECT_FALSE(continued.load()) << "the continuation reads the thrower's error and stops";

  // The queue's threads survive: later work runs as usual.
  auto after = TestJob::create([](TestJob& job, const ZBAddWorkOperation&) { job.complete(1); });
  runToEnd(after);
  EXPECT_EQ(resultOf(after, nullptr), Value(1));
}
