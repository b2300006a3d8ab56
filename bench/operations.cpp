// Overhead of the operation machinery: 10 000 trivial operations run as a
// chain (each depends on the one before) and as a fan-out (all depend on one
// root), against the same trivial work done by plain function calls, measured
// in the same run. Counters: ratio_vs_baseline (time of the operations / time
// of the plain calls) and ns_per_operation (the operations' time per
// operation).
//
//   build/<preset>/bench/operations

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <vector>

#include "platform/operations/NSBlockOperation.h"
#include "platform/operations/NSOperationQueue.h"
#include "platform/operations/ZBConcurrentOperation.h"

namespace {

constexpr int kOperations = 10000;
using Clock = std::chrono::steady_clock;

std::atomic<long> gCounter{0};
void trivialWork() { gCounter.fetch_add(1, std::memory_order_relaxed); }

// The same work as plain calls through std::function, as the operations make
// them. It is timed inside every iteration, next to the operations; the best
// round counts, as a short loop is easily hit by a preemption.
class Baseline {
public:
  Baseline() : _calls(kOperations, trivialWork) {}
  void measure() {
    auto start = Clock::now();
    for (int round = 0; round < kRounds; ++round) {
      for (auto& call : _calls) call();
      benchmark::ClobberMemory();
    }
    _best = std::min(_best, std::chrono::duration<double>(Clock::now() - start).count() / kRounds);
  }
  double seconds() const { return _best; }

private:
  static constexpr int kRounds = 16;
  std::vector<std::function<void()>> _calls;
  double _best = 1e9;
};

void report(benchmark::State& state, double seconds, const Baseline& baseline) {
  state.counters["ratio_vs_baseline"] = seconds / static_cast<double>(state.iterations()) / baseline.seconds();
  state.counters["ns_per_operation"] = seconds * 1e9 / kOperations / static_cast<double>(state.iterations());
}

void BM_PlainCalls(benchmark::State& state) {
  std::vector<std::function<void()>> calls(kOperations, trivialWork);
  for (auto _ : state) {
    for (auto& call : calls) call();
    benchmark::ClobberMemory();
  }
}

void BM_OperationChain(benchmark::State& state) {
  auto queue = NSOperationQueue::create();
  Baseline baseline;
  double seconds = 0;
  for (auto _ : state) {
    baseline.measure();
    auto start = Clock::now();
    std::vector<std::shared_ptr<NSOperation>> operations;
    operations.reserve(kOperations);
    for (int i = 0; i < kOperations; ++i) {
      auto operation = NSBlockOperation::blockOperationWithBlock(trivialWork);
      if (i > 0) operation->addDependency(operations.back());
      operations.push_back(std::move(operation));
    }
    queue->addOperations(operations, false);
    operations.back()->waitUntilFinished();
    queue->waitUntilAllOperationsAreFinished();
    seconds += std::chrono::duration<double>(Clock::now() - start).count();
  }
  report(state, seconds, baseline);
}

void BM_OperationFanOut(benchmark::State& state) {
  auto queue = NSOperationQueue::create();
  Baseline baseline;
  double seconds = 0;
  for (auto _ : state) {
    baseline.measure();
    auto start = Clock::now();
    auto root = NSBlockOperation::blockOperationWithBlock(trivialWork);
    std::vector<std::shared_ptr<NSOperation>> operations;
    operations.reserve(kOperations);
    operations.push_back(root);
    for (int i = 1; i < kOperations; ++i) {
      auto operation = NSBlockOperation::blockOperationWithBlock(trivialWork);
      operation->addDependency(root);
      operations.push_back(std::move(operation));
    }
    queue->addOperations(operations, false);
    queue->waitUntilAllOperationsAreFinished();
    seconds += std::chrono::duration<double>(Clock::now() - start).count();
  }
  report(state, seconds, baseline);
}

// The same chain as work operations of one job, each promise adding the next
// from inside its own body, as multi-phase jobs extend their plans.
class ChainJob : public ZBConcurrentOperation {
protected:
  void setupOperations(const ZBAddWorkOperation& add) override { _step(add, 0); }

private:
  void _step(const ZBAddWorkOperation& add, int index) {
    add(ZBPromiseOperation::promiseOperationWithBlock([this, add, index](NSErrorPtr*) -> Value {
      trivialWork();
      if (index + 1 < kOperations) {
        _step(add, index + 1);
      } else {
        complete(true);
      }
      return true;
    }));
  }
};

void BM_WorkOperationChain(benchmark::State& state) {
  auto queue = NSOperationQueue::create();
  Baseline baseline;
  double seconds = 0;
  for (auto _ : state) {
    baseline.measure();
    auto start = Clock::now();
    auto job = std::make_shared<ChainJob>();
    queue->addOperation(job);
    job->waitUntilFinished();
    seconds += std::chrono::duration<double>(Clock::now() - start).count();
    if (!ZBOperationResult(*job)) state.SkipWithError("the job failed");
  }
  report(state, seconds, baseline);
}

}  // namespace

BENCHMARK(BM_PlainCalls);
BENCHMARK(BM_OperationChain)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_OperationFanOut)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_WorkOperationChain)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
