// Cost of pushing local edits: 2 000 dirty posts sent to the simulator
// (spacing off) through ZBTarrowPinboardPostUpdateOperation — requests,
// confirmations in scratch contexts, the push context's save — against the
// same 2 000 update calls made through the client directly, as many in flight
// at once, measured in the same iteration (target: ratio_vs_baseline ≤ 1.3).
//
// Counters: ratio_vs_baseline; ms_per_push; peak_threads (the most threads the
// process had while the operation ran, simulator's included); push_rss_mb
// (how far the resident set rose during one push; Linux only).
//
//   build/<preset>/bench/push

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "model/ZBTarrowPinboardPost.h"
#include "pinboard-sim/Simulator.h"
#include "platform/foundation/NSUserDefaults.h"
#include "platform/objectstore/NSFetchRequest.h"
#include "platform/operations/NSOperationQueue.h"
#include "platform/pinboardkit/ZBPinboardClient.h"
#include "store/ZBTarrowDataStoreCoordinator.h"
#include "sync/ZBTarrowPinboardPostUpdateOperation.h"
#include "sync/impl/ZBTarrowPushPlan.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kPosts = 2000;

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// A line of /proc/self/status ("VmRSS", "VmHWM", "Threads") as a number, or -1.
double status(const std::string& field) {
  std::ifstream in("/proc/self/status");
  for (std::string line; std::getline(in, line);)
    if (line.compare(0, field.size() + 1, field + ":") == 0) return std::atof(line.c_str() + field.size() + 1);
  return -1;
}

// Counts the process's threads every millisecond while alive.
class ThreadSampler {
public:
  ThreadSampler() : _thread([this] {
      while (!_stop.load()) {
        _peak = std::max(_peak.load(), static_cast<int>(status("Threads")));
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    }) {}
  int stop() {
    _stop = true;
    _thread.join();
    return _peak;
  }

private:
  std::atomic<bool> _stop{false};
  std::atomic<int> _peak{0};
  std::thread _thread;
};

struct Fixture {
  Fixture() {
    std::string pattern = (std::filesystem::temp_directory_path() / "zbbench-XXXXXX").string();
    dir = mkdtemp(pattern.data()) ? pattern : std::filesystem::temp_directory_path().string();
    setenv("XDG_DATA_HOME", dir.c_str(), 1);
    if (!sim.start()) return;
    token = sim.addAccount({.username = "bench"});
    defaults = NSUserDefaults::create(dir / "defaults.plist");
    defaults->setObject(Value((dir / "credentials.plist").string()), ZBPinboardCredentialsPathDefaultKey);
    defaults->setObject(Value(sim.apiURL()), ZBPinboardAPIBaseURLDefaultKey);
    defaults->setObject(Value(0.0), ZBPinboardRequestIntervalDefaultKey);
    client = ZBPinboardClient::create(defaults);
    client->setCredentials(ZBPinboardCredentials::create("bench", token.substr(token.find(':') + 1)));
    stack = ZBTarrowDataStoreCoordinator::create();
    ready = stack->setup();
  }
  ~Fixture() {
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
  }

  // kPosts new dirty posts in the store; returns their dictionaries.
  Array makeDirtyPosts(int round) {
    auto root = stack->rootManagedObjectContext();
    Array dictionaries;
    root->performBlockAndWait([&] {
      for (int i = 0; i < kPosts; ++i) {
        auto post = root->insertNewObject<ZBTarrowPinboardPost>(ZBTarrowPinboardPostEntityName);
        std::string url = "https://push.example/" + std::to_string(round) + "/" + std::to_string(i);
        post->setUrl(url);
        post->setIdentifier(ZBTarrowPinboardPost::identifierForURL(url));
        post->setTitle("Bookmark " + std::to_string(i));
        post->setDesc("Notes on bookmark " + std::to_string(i));
        post->setDirty(true);
        dictionaries.push_back(Value(post->dictionaryRepresentation()));
      }
      ready = root->save();
    });
    return dictionaries;
  }

  std::filesystem::path dir;
  pinboard_sim::Simulator sim;
  std::string token;
  std::shared_ptr<NSUserDefaults> defaults;
  std::shared_ptr<ZBPinboardClient> client;
  std::shared_ptr<ZBTarrowDataStoreCoordinator> stack;
  bool ready = false;
};

void BM_PushDirtyPosts(benchmark::State& state) {
  static Fixture f;
  if (!f.ready) {
    state.SkipWithError("no simulator or store");
    return;
  }
  double measured = 0, baseline = 0, rss = 0;
  int peakThreads = 0, round = 0;
  for (auto _ : state) {
    Array posts = f.makeDirtyPosts(round++);

    // The baseline: the same calls, the same number in flight, nothing else.
    auto start = Clock::now();
    auto queue = NSOperationQueue::create();
    queue->setMaxConcurrentOperationCount(static_cast<int>(ZBTarrowPushPlanWidth));
    std::vector<ZBPinboardClient::Operation> calls;
    for (const Value& post : posts) calls.push_back(f.client->updatePostWithProperties(post.asDictionary()));
    for (const auto& call : calls) queue->addOperation(call);
    queue->waitUntilAllOperationsAreFinished();
    baseline += secondsSince(start);
    for (const auto& call : calls) {
      if (!call->completionProvider()(nullptr)) {
        state.SkipWithError("a direct update failed");
        return;
      }
    }
    calls.clear();

    const double before = status("VmRSS");
    const bool peakReset = static_cast<bool>(std::ofstream("/proc/self/clear_refs") << "5");
    ThreadSampler sampler;
    start = Clock::now();
    auto op = ZBTarrowPinboardPostUpdateOperation::create(posts, f.client, f.stack->rootManagedObjectContext());
    auto opQueue = NSOperationQueue::create();
    opQueue->addOperation(op);
    op->waitUntilFinished();
    measured += secondsSince(start);
    peakThreads = std::max(peakThreads, sampler.stop());
    if (peakReset) rss = std::max(rss, (status("VmHWM") - before) / 1024.0);
    NSErrorPtr error;
    if (!op->completionProvider()(&error)) {
      state.SkipWithError(error ? error->description().c_str() : "push failed");
      return;
    }
  }
  state.counters["ratio_vs_baseline"] = measured / baseline;
  state.counters["ms_per_push"] = 1000 * measured / static_cast<double>(state.iterations());
  state.counters["baseline_ms"] = 1000 * baseline / static_cast<double>(state.iterations());
  state.counters["peak_threads"] = peakThreads;
  if (rss > 0) state.counters["push_rss_mb"] = rss;
}
BENCHMARK(BM_PushDirtyPosts)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
