// Cost of checking links with ZBWebLinkCheckOperation against the simulator's
// web side, which runs in a child process so that the threads and memory
// counted here are the checker's alone.
//
//  - BM_FiveThousandOverFiveHundredHosts: 5 000 addresses over 500 host names
//    (all mapped to the web side by resolve overrides), each answered after
//    20 ms, 32 connections at once, 2 per host. ratio_vs_baseline is the wall
//    time over the ideal 5 000 × 20 ms / 32 (target ≤ 1.3). Also peak_rss_mb
//    (the process's high-water mark) and threads (the most the process had
//    while the check ran).
//  - BM_HundredThousandAddresses: 100 000 addresses over 2 000 host names,
//    answered at once: rss_growth_mb (how far the resident set rose during
//    the run, results included) and threads.
//  - BM_AddressList: the addresses of the file named by ZB_LINKCHECK_LIST
//    (one a line), checked with the same limits against whatever they name;
//    the broken ones are written to ZB_LINKCHECK_DEAD_OUT when set. For the
//    side-by-side run with other link checkers (bench/linkchecker-compare.sh).
//
//   build/<preset>/bench/linkcheck [--benchmark_filter=…]

#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "pinboard-sim/WebSide.h"
#include "platform/foundation/NSUserDefaults.h"
#include "platform/operations/NSOperationQueue.h"
#include "platform/webkit/ZBWebLinkCheckOperation.h"

namespace {

using Clock = std::chrono::steady_clock;

// The web side in a child process; the port comes back through a pipe.
class ChildWebSide {
public:
  ChildWebSide() {
    int fds[2];
    if (pipe(fds) != 0) std::abort();
    _pid = fork();
    if (_pid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);  // dies with the benchmark, even when it aborts
      close(fds[0]);
      pinboard_sim::WebSide web;
      if (!web.start()) _exit(1);
      int port = web.port();
      if (write(fds[1], &port, sizeof port) != sizeof port) _exit(1);
      close(fds[1]);
      pause();
      _exit(0);
    }
    close(fds[1]);
    if (read(fds[0], &_port, sizeof _port) != sizeof _port) std::abort();
    close(fds[0]);
  }
  ~ChildWebSide() {
    kill(_pid, SIGKILL);
    waitpid(_pid, nullptr, 0);
  }
  int port() const { return _port; }

private:
  pid_t _pid = -1;
  int _port = 0;
};

ChildWebSide& webSide() {
  static ChildWebSide web;  // made before any thread of this process exists
  return web;
}

double statusValue(const std::string& field) {
  std::ifstream in("/proc/self/status");
  for (std::string line; std::getline(in, line);)
    if (line.compare(0, field.size() + 1, field + ":") == 0) return std::atof(line.c_str() + field.size() + 1);
  return -1;
}

std::shared_ptr<NSUserDefaults> benchDefaults(int hosts) {
  static int n = 0;
  auto path = std::filesystem::temp_directory_path() / ("zb-linkcheck-bench-" + std::to_string(getpid()) + "-" +
                                                        std::to_string(++n) + ".plist");
  auto defaults = NSUserDefaults::create(path);
  Array overrides;
  for (int h = 0; h < hosts; ++h)
    overrides.push_back(Value("h" + std::to_string(h) + ".test:" + std::to_string(webSide().port()) + ":127.0.0.1"));
  defaults->setObject(Value(overrides), ZBWebLinkCheckResolveOverridesDefaultKey);
  defaults->setObject(Value(32), ZBWebLinkCheckMaximumConnectionsDefaultKey);
  defaults->setObject(Value(2), ZBWebLinkCheckMaximumConnectionsPerHostDefaultKey);
  defaults->setObject(Value(2.0), ZBWebLinkCheckRecheckDelayDefaultKey);
  return defaults;
}

struct Outcome {
  double seconds = 0;
  double threads = 0;
  std::size_t broken = 0;
  Array results;
};

Outcome runCheck(std::vector<NSURL> urls, const std::shared_ptr<NSUserDefaults>& defaults) {
  auto op = ZBWebLinkCheckOperation::create(std::move(urls), defaults);
  auto queue = NSOperationQueue::create();
  std::atomic<bool> done{false};
  std::atomic<double> threads{0};
  std::thread sampler([&] {
    while (!done.load()) {
      threads = std::max(threads.load(), statusValue("Threads") - 1);  // less the sampler
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  });
  auto start = Clock::now();
  queue->addOperation(op);
  op->waitUntilFinished();
  Outcome outcome;
  outcome.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  done = true;
  sampler.join();
  outcome.threads = threads.load();
  NSErrorPtr error;
  Value results = op->completionProvider()(&error);
  if (!results) {
    std::fprintf(stderr, "link check failed: %s\n", error ? error->description().c_str() : "?");
    std::abort();
  }
  outcome.results = results.asArray();
  for (const Value& r : outcome.results) outcome.broken += r.as<ZBWebLinkCheckResult>()->broken();
  return outcome;
}

std::vector<NSURL> addresses(std::size_t count, int hosts, const std::string& query) {
  std::vector<NSURL> urls;
  urls.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    urls.push_back(*NSURL::URLWithString("http://h" + std::to_string(i % hosts) + ".test:" +
                                         std::to_string(webSide().port()) + "/status/200/" + std::to_string(i) +
                                         query));
  }
  return urls;
}

void BM_FiveThousandOverFiveHundredHosts(benchmark::State& state) {
  const std::size_t count = 5000;
  auto defaults = benchDefaults(500);
  Outcome outcome;
  for (auto _ : state) outcome = runCheck(addresses(count, 500, "?delay=20"), defaults);
  const double ideal = count * 0.020 / 32;
  state.counters["ratio_vs_baseline"] = outcome.seconds / ideal;
  state.counters["wall_s"] = outcome.seconds;
  state.counters["ideal_s"] = ideal;
  state.counters["peak_rss_mb"] = statusValue("VmHWM") / 1024.0;
  state.counters["threads"] = outcome.threads;
  state.counters["broken"] = static_cast<double>(outcome.broken);
}
BENCHMARK(BM_FiveThousandOverFiveHundredHosts)->Unit(benchmark::kSecond)->Iterations(1)->UseRealTime();

void BM_HundredThousandAddresses(benchmark::State& state) {
  const std::size_t count = 100000;
  auto defaults = benchDefaults(2000);
  Outcome outcome;
  double growth = 0;
  for (auto _ : state) {
    auto urls = addresses(count, 2000, "");
    std::ofstream("/proc/self/clear_refs") << "5";
    double before = statusValue("VmRSS");
    outcome = runCheck(std::move(urls), defaults);
    growth = (statusValue("VmHWM") - before) / 1024.0;
  }
  state.counters["rss_growth_mb"] = growth;
  state.counters["threads"] = outcome.threads;
  state.counters["addresses_per_s"] = count / outcome.seconds;
}
BENCHMARK(BM_HundredThousandAddresses)->Unit(benchmark::kSecond)->Iterations(1)->UseRealTime();

void BM_AddressList(benchmark::State& state) {
  const char* list = std::getenv("ZB_LINKCHECK_LIST");
  if (!list) {
    state.SkipWithError("ZB_LINKCHECK_LIST names no file");
    return;
  }
  std::vector<std::string> lines;
  std::ifstream in(list);
  for (std::string line; std::getline(in, line);)
    if (!line.empty()) lines.push_back(line);
  auto defaults = benchDefaults(0);
  Outcome outcome;
  for (auto _ : state) {
    std::vector<NSURL> urls;
    for (const auto& line : lines)
      if (auto url = NSURL::URLWithString(line)) urls.push_back(*url);
    outcome = runCheck(std::move(urls), defaults);
  }
  state.counters["wall_s"] = outcome.seconds;
  state.counters["broken"] = static_cast<double>(outcome.broken);
  if (const char* out = std::getenv("ZB_LINKCHECK_DEAD_OUT")) {
    std::ofstream dead(out);
    for (const Value& r : outcome.results) {
      auto result = r.as<ZBWebLinkCheckResult>();
      if (result->broken()) dead << result->websiteURL().absoluteString() << "\n";
    }
  }
}
BENCHMARK(BM_AddressList)->Unit(benchmark::kSecond)->Iterations(1)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  webSide();  // fork before benchmark or any library starts a thread
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
