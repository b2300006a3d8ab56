// Cost of reading a whole account through ZBPinboardClient: 100 000
// bookmarks fetched from the simulator over loopback and turned into post
// dictionaries, against a bare simdjson parse of the same bytes measured in
// the same iteration (target: ratio_vs_baseline ≤ 2).
//
//  - BM_FullListThroughClient: the client's posts/all request, end to end
//    (transfer, parse, dictionaries). Counters: ratio_vs_baseline,
//    transfer_ratio (a bare libcurl fetch of the same URL against the same
//    baseline), peak_rss_mb (the process's high-water mark so far, simulator
//    and baseline included), request_rss_mb (how far the resident set rose
//    during one request, posts included; Linux only).
//  - BM_FullListParseOnly: ZBPinboardResponseParser::posts on bytes already in
//    memory, against the same baseline: the price of the dictionaries alone.
//
//   build/<preset>/bench/client [--benchmark_filter=…]

#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <simdjson.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>

#include "pinboard-sim/Simulator.h"
#include "platform/foundation/NSUserDefaults.h"
#include "platform/pinboardkit/ZBPinboardClient.h"
#include "platform/pinboardkit/ZBPinboardResponseParser.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::size_t kBookmarks = 100000;

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

double peakRSSMegabytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_maxrss) / 1024.0;  // kilobytes on Linux
}

// A line of /proc/self/status ("VmRSS", "VmHWM") in megabytes, or -1.
double statusMegabytes(const std::string& field) {
  std::ifstream in("/proc/self/status");
  for (std::string line; std::getline(in, line);)
    if (line.compare(0, field.size() + 1, field + ":") == 0) return std::atof(line.c_str() + field.size() + 1) / 1024.0;
  return -1;
}

// Starts the high-water mark of the resident set afresh (Linux), so that it
// tells what one request needed; false where that cannot be done.
bool resetPeakRSS() { return static_cast<bool>(std::ofstream("/proc/self/clear_refs") << "5"); }

std::size_t onBody(char* data, std::size_t size, std::size_t count, void* out) {
  static_cast<std::string*>(out)->append(data, size * count);
  return size * count;
}

std::string fetch(const std::string& url) {
  std::string body;
  CURL* c = curl_easy_init();
  curl_easy_setopt(c, CURLOPT_URL, url.c_str());
  curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, onBody);
  curl_easy_setopt(c, CURLOPT_WRITEDATA, &body);
  curl_easy_perform(c);
  curl_easy_cleanup(c);
  return body;
}

// One simulator and client for the whole run: generating the account is not
// what is measured.
struct Fixture {
  Fixture() {
    std::string pattern = (std::filesystem::temp_directory_path() / "zbbench-XXXXXX").string();
    dir = mkdtemp(pattern.data()) ? pattern : std::filesystem::temp_directory_path().string();
    if (!sim.start()) return;
    pinboard_sim::AccountSeed seed;
    seed.username = "bench";
    token = sim.addAccount(seed);
    if (!sim.generateBookmarks("bench", kBookmarks)) return;
    defaults = NSUserDefaults::create(dir / "defaults.plist");
    defaults->setObject(Value((dir / "credentials.plist").string()), ZBPinboardCredentialsPathDefaultKey);
    defaults->setObject(Value(sim.apiURL()), ZBPinboardAPIBaseURLDefaultKey);
    defaults->setObject(Value(0.0), ZBPinboardRequestIntervalDefaultKey);
    defaults->setObject(Value(0.0), ZBPinboardAllPostsIntervalDefaultKey);
    client = ZBPinboardClient::create(defaults);
    client->setCredentials(ZBPinboardCredentials::create("bench", token.substr(token.find(':') + 1)));
    url = sim.apiURL() + "posts/all?format=json&auth_token=" + token;
    bytes = fetch(url);  // also warms the simulator's cache of the answer
    ready = true;
  }
  ~Fixture() {
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
  }
  std::filesystem::path dir;
  pinboard_sim::Simulator sim;
  std::string token, url, bytes;
  std::shared_ptr<NSUserDefaults> defaults;
  std::shared_ptr<ZBPinboardClient> client;
  bool ready = false;  // the simulator serves the account
};

Fixture& fixture() {
  static Fixture f;
  return f;
}

// The fixture, or nullptr (the benchmark skipped) when it could not be made.
Fixture* readyFixture(benchmark::State& state) {
  Fixture& f = fixture();
  if (f.ready) return &f;
  state.SkipWithError("the simulator could not serve the account");
  return nullptr;
}

// The baseline: simdjson building its document from the bytes, nothing more.
double bareParse(const std::string& bytes, std::size_t& elements) {
  simdjson::dom::parser parser;
  simdjson::padded_string padded(bytes);
  auto start = Clock::now();
  simdjson::dom::array list;
  if (parser.parse(padded).get_array().get(list)) return -1;
  elements = list.size();
  return secondsSince(start);
}

void BM_FullListThroughClient(benchmark::State& state) {
  Fixture* ready = readyFixture(state);
  if (!ready) return;
  Fixture& f = *ready;
  double measured = 0, baseline = 0, transfer = 0, requestRSS = 0;
  for (auto _ : state) {
    std::size_t elements = 0;
    baseline += bareParse(f.bytes, elements);

    auto start = Clock::now();
    {
      std::string raw = fetch(f.url);
      transfer += secondsSince(start);
      benchmark::DoNotOptimize(raw.data());
    }

    const double before = statusMegabytes("VmRSS");
    const bool peakReset = resetPeakRSS();
    start = Clock::now();
    auto op = f.client->retrieveAllPostsWithTags(Value());
    op->start();
    op->waitUntilFinished();
    NSErrorPtr error;
    Value posts = op->completionProvider()(&error);
    measured += secondsSince(start);
    if (peakReset) requestRSS = std::max(requestRSS, statusMegabytes("VmHWM") - before);
    if (posts.count() != kBookmarks || elements != kBookmarks) {
      state.SkipWithError(error ? error->localizedDescription().c_str() : "wrong number of posts");
      return;
    }
  }
  state.counters["ratio_vs_baseline"] = measured / baseline;
  state.counters["transfer_ratio"] = transfer / baseline;
  state.counters["ms_per_list"] = 1000 * measured / static_cast<double>(state.iterations());
  state.counters["baseline_ms"] = 1000 * baseline / static_cast<double>(state.iterations());
  state.counters["body_mb"] = static_cast<double>(f.bytes.size()) / (1024.0 * 1024.0);
  state.counters["peak_rss_mb"] = peakRSSMegabytes();
  if (requestRSS > 0) state.counters["request_rss_mb"] = requestRSS;
}
BENCHMARK(BM_FullListThroughClient)->Unit(benchmark::kMillisecond)->Iterations(5);

void BM_FullListParseOnly(benchmark::State& state) {
  Fixture* ready = readyFixture(state);
  if (!ready) return;
  Fixture& f = *ready;
  double measured = 0, baseline = 0;
  for (auto _ : state) {
    std::size_t elements = 0;
    baseline += bareParse(f.bytes, elements);
    // As the transport leaves it: sized from Content-Length, with room after.
    std::string body;
    body.reserve(f.bytes.size() + 64);
    body = f.bytes;
    auto start = Clock::now();
    Value posts = ZBPinboardResponseParser::posts(body, "bench", "posts/all");
    measured += secondsSince(start);
    if (posts.count() != kBookmarks) {
      state.SkipWithError("wrong number of posts");
      return;
    }
  }
  state.counters["ratio_vs_baseline"] = measured / baseline;
  state.counters["ms_per_list"] = 1000 * measured / static_cast<double>(state.iterations());
}
BENCHMARK(BM_FullListParseOnly)->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace

BENCHMARK_MAIN();
