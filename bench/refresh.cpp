// Cost of the refresh against an account of 100 000 bookmarks (starred and
// sourced shares) in the in-process simulator, spacing off, each as a ratio to
// a baseline measured in the same iteration:
//
//  - BM_FirstRefresh: all eight phases into an empty store, against one
//    client fetch and parse of the full list plus a hand-written sqlite3
//    insert of the same posts, tags and tag links into the same schema
//    (target ≤ 2). Counters: peak_rss_mb (the process's high-water mark during
//    the refresh; target < 700), refresh_s.
//  - BM_ChangedRefresh: a refresh after 100 bookmarks changed on the service,
//    against one fetch and parse of the full list plus a hash-map comparison
//    of identifier → meta with both columns read by hand-written sqlite3
//    (target ≤ 1.5). rows_written: post and tag rows inserted, updated or
//    deleted (must be those of the changed bookmarks).
//  - BM_UnchangedRefresh: nothing changed. requests (must be 1), commits and
//    rows_written (must be 0).
//
//   build/<preset>/bench/refresh

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <unordered_map>

#include "model/ZBTarrowPinboardPost.h"
#include "pinboard-sim/Simulator.h"
#include "platform/foundation/NSUserDefaults.h"
#include "platform/operations/NSOperationQueue.h"
#include "platform/pinboardkit/ZBPinboardClient.h"
#include "store/ZBTarrowDataStoreCoordinator.h"
#include "sync/ZBTarrowPinboardRefreshOperation.h"

namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;
constexpr std::size_t kBookmarks = 100000;

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

double statusMegabytes(const std::string& field) {
  std::ifstream in("/proc/self/status");
  for (std::string line; std::getline(in, line);)
    if (line.compare(0, field.size() + 1, field + ":") == 0) return std::atof(line.c_str() + field.size() + 1) / 1024.0;
  return -1;
}

// One SQL statement's first column as an integer (0 on failure).
std::int64_t scalar(sqlite3* db, const char* sql) {
  sqlite3_stmt* s = nullptr;
  std::int64_t value = 0;
  if (sqlite3_prepare_v2(db, sql, -1, &s, nullptr) == SQLITE_OK && sqlite3_step(s) == SQLITE_ROW)
    value = sqlite3_column_int64(s, 0);
  sqlite3_finalize(s);
  return value;
}

// Rows written since the last reading: each update raises a row's Z_OPT by
// one, and inserts and deletes change the counts.
std::int64_t rowState(sqlite3* db) {
  return scalar(db, "SELECT (SELECT total(Z_OPT) + 1000000 * count(*) FROM PinboardPost) + "
                    "(SELECT total(Z_OPT) + 1000000 * count(*) FROM PinboardTag)");
}
std::int64_t rowsWritten(std::int64_t before, std::int64_t after) {
  std::int64_t delta = after - before;
  return std::abs(delta / 1000000) + std::abs(delta % 1000000);
}

struct Fixture {
  Fixture() {
    std::string pattern = (fs::temp_directory_path() / "zbbench-XXXXXX").string();
    dir = mkdtemp(pattern.data()) ? pattern : fs::temp_directory_path().string();
    NSUserDefaults::setStandardUserDefaultsPath(dir / "standard.plist");
    sim.setClock([this] { return now.load(); });
    if (!sim.start()) return;
    token = sim.addAccount({.username = "bench"});
    if (!sim.generateBookmarks("bench", kBookmarks)) return;
    defaults = NSUserDefaults::create(dir / "defaults.plist");
    defaults->setObject(Value((dir / "credentials.plist").string()), ZBPinboardCredentialsPathDefaultKey);
    defaults->setObject(Value(sim.apiURL()), ZBPinboardAPIBaseURLDefaultKey);
    defaults->setObject(Value(sim.feedsURL()), ZBPinboardFeedsBaseURLDefaultKey);
    for (const auto* key : {&ZBPinboardRequestIntervalDefaultKey, &ZBPinboardRecentIntervalDefaultKey,
                            &ZBPinboardAllPostsIntervalDefaultKey, &ZBPinboardFeedIntervalDefaultKey})
      defaults->setObject(Value(0.0), *key);
    defaults->setObject(Value(120.0), ZBPinboardAllPostsTimeoutDefaultKey);
    client = ZBPinboardClient::create(defaults);
    client->setCredentials(ZBPinboardCredentials::create("bench", token.substr(token.find(':') + 1)));
    ready = true;
  }
  ~Fixture() {
    std::error_code ec;
    fs::remove_all(dir, ec);
  }

  // A fresh, empty store stack in a data home of its own.
  void freshStore(const std::string& name) {
    stack.reset();
    fs::path home = dir / name;
    fs::remove_all(home);
    setenv("XDG_DATA_HOME", home.c_str(), 1);
    NSUserDefaults::standardUserDefaults()->removeObject(ZBTarrowPinboardRefreshOperationLastUpdateTimestampDefaultKey);
    stack = ZBTarrowDataStoreCoordinator::create();
    ready = stack->setup();
  }
  fs::path storeFile() const { return fs::path(ZBTarrowDataApplicationGroupContainerStoresURL().path()) / "Pinboard" / "Pinboard.sqlite"; }

  bool refresh(std::string* failure) {
    auto op = ZBTarrowPinboardRefreshOperation::create(client, stack->rootManagedObjectContext());
    auto queue = NSOperationQueue::create();
    queue->addOperation(op);
    op->waitUntilFinished();
    NSErrorPtr error;
    if (op->completionProvider()(&error)) return true;
    *failure = error ? error->description() : "refresh failed";
    return false;
  }

  Array fetchList() {
    auto op = client->retrieveAllPostsWithTags(Value());
    auto queue = NSOperationQueue::create();
    queue->addOperation(op);
    op->waitUntilFinished();
    return op->completionProvider()(nullptr).asArray();
  }

  fs::path dir;
  std::atomic<double> now{1.75e9};
  pinboard_sim::Simulator sim;
  std::string token;
  std::shared_ptr<NSUserDefaults> defaults;
  std::shared_ptr<ZBPinboardClient> client;
  std::shared_ptr<ZBTarrowDataStoreCoordinator> stack;
  bool ready = false;
};

Fixture& fixture() {
  static Fixture f;
  return f;
}

// Hand-written insert of posts (with their tags) into a new database with the
// store's own schema and settings.
double bareInsert(const Array& posts, const fs::path& schemaFrom, const fs::path& file) {
  fs::remove(file);
  sqlite3* source = nullptr;
  sqlite3* db = nullptr;
  sqlite3_open_v2(schemaFrom.c_str(), &source, SQLITE_OPEN_READONLY, nullptr);
  sqlite3_open(file.c_str(), &db);
  sqlite3_exec(db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;", nullptr, nullptr, nullptr);
  sqlite3_stmt* s = nullptr;
  sqlite3_prepare_v2(source, "SELECT sql FROM sqlite_master WHERE sql NOT NULL AND name NOT LIKE 'sqlite_%'", -1, &s, nullptr);
  while (sqlite3_step(s) == SQLITE_ROW)
    sqlite3_exec(db, reinterpret_cast<const char*>(sqlite3_column_text(s, 0)), nullptr, nullptr, nullptr);
  sqlite3_finalize(s);
  sqlite3_close(source);

  auto start = Clock::now();
  sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
  sqlite3_stmt *post = nullptr, *tag = nullptr, *link = nullptr;
  sqlite3_prepare_v2(db, "INSERT INTO PinboardPost (identifier, meta, url, title, desc, date, shared, unread) "
                         "VALUES (?, ?, ?, ?, ?, ?, ?, ?)", -1, &post, nullptr);
  sqlite3_prepare_v2(db, "INSERT INTO PinboardTag (title) VALUES (?)", -1, &tag, nullptr);
  sqlite3_prepare_v2(db, "INSERT INTO PinboardPost_tags VALUES (?, ?)", -1, &link, nullptr);
  std::unordered_map<std::string, std::int64_t> tagKeys;
  auto text = [](sqlite3_stmt* st, int i, const Value& v) {
    sqlite3_bind_text(st, i, v.asString().data(), static_cast<int>(v.asString().size()), SQLITE_STATIC);
  };
  for (const Value& value : posts) {
    const Dictionary& p = value.asDictionary();
    text(post, 1, p[ZBTarrowPinboardPostIdentifierKey]);
    text(post, 2, p[ZBTarrowPinboardPostMetaKey]);
    text(post, 3, p[ZBTarrowPinboardPostURLKey]);
    text(post, 4, p[ZBTarrowPinboardPostTitleKey]);
    text(post, 5, p[ZBTarrowPinboardPostDescKey]);
    sqlite3_bind_double(post, 6, p[ZBTarrowPinboardPostDateKey].asDate().timeIntervalSinceReferenceDate());
    sqlite3_bind_int(post, 7, p[ZBTarrowPinboardPostSharedKey].boolValue());
    sqlite3_bind_int(post, 8, p[ZBTarrowPinboardPostUnreadKey].boolValue());
    sqlite3_step(post);
    sqlite3_reset(post);
    const std::int64_t postKey = sqlite3_last_insert_rowid(db);
    for (const Value& title : p[ZBTarrowPinboardPostTagsKey].collectionElements()) {
      auto [it, fresh] = tagKeys.try_emplace(title.asString(), 0);
      if (fresh) {
        text(tag, 1, title);
        sqlite3_step(tag);
        sqlite3_reset(tag);
        it->second = sqlite3_last_insert_rowid(db);
      }
      sqlite3_bind_int64(link, 1, postKey);
      sqlite3_bind_int64(link, 2, it->second);
      sqlite3_step(link);
      sqlite3_reset(link);
    }
  }
  sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
  double seconds = secondsSince(start);
  sqlite3_finalize(post);
  sqlite3_finalize(tag);
  sqlite3_finalize(link);
  sqlite3_close(db);
  return seconds;
}

// Hand-written read of identifier and meta, compared with the list by hash map.
double bareCompare(const Array& posts, const fs::path& file, std::size_t& differing) {
  auto start = Clock::now();
  sqlite3* db = nullptr;
  sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
  std::unordered_map<std::string, std::string> local;
  local.reserve(posts.size());
  sqlite3_stmt* s = nullptr;
  sqlite3_prepare_v2(db, "SELECT identifier, meta FROM PinboardPost", -1, &s, nullptr);
  while (sqlite3_step(s) == SQLITE_ROW) {
    auto column = [&](int i) {
      const unsigned char* t = sqlite3_column_text(s, i);
      return t ? std::string(reinterpret_cast<const char*>(t)) : std::string();
    };
    local.try_emplace(column(0), column(1));
  }
  sqlite3_finalize(s);
  sqlite3_close(db);
  differing = 0;
  for (const Value& value : posts) {
    const Dictionary& p = value.asDictionary();
    auto it = local.find(p[ZBTarrowPinboardPostIdentifierKey].asString());
    if (it == local.end() || it->second != p[ZBTarrowPinboardPostMetaKey].asString()) {
      ++differing;
    }
  }
  return secondsSince(start);
}

void BM_FirstRefresh(benchmark::State& state) {
  Fixture& f = fixture();
  if (!f.ready) return state.SkipWithError("no simulator");
  double measured = 0, baseline = 0, peak = 0;
  int round = 0;
  for (auto _ : state) {
    f.freshStore("first" + std::to_string(round++));
    auto start = Clock::now();
    Array list = f.fetchList();
    baseline += secondsSince(start);
    if (list.size() != kBookmarks) return state.SkipWithError("the full list is incomplete");
    baseline += bareInsert(list, f.storeFile(), f.dir / "bare.sqlite");
    list = Array();

    const bool peakReset = static_cast<bool>(std::ofstream("/proc/self/clear_refs") << "5");
    start = Clock::now();
    std::string failure;
    if (!f.refresh(&failure)) return state.SkipWithError(failure.c_str());
    measured += secondsSince(start);
    if (peakReset) peak = std::max(peak, statusMegabytes("VmHWM"));
  }
  state.counters["ratio_vs_baseline"] = measured / baseline;
  state.counters["refresh_s"] = measured / static_cast<double>(state.iterations());
  state.counters["baseline_s"] = baseline / static_cast<double>(state.iterations());
  if (peak > 0) state.counters["peak_rss_mb"] = peak;
}
BENCHMARK(BM_FirstRefresh)->Unit(benchmark::kMillisecond)->Iterations(1);

void BM_ChangedRefresh(benchmark::State& state) {
  Fixture& f = fixture();
  if (!f.ready) return state.SkipWithError("no simulator");
  std::string failure;
  f.freshStore("changed");
  if (!f.refresh(&failure)) return state.SkipWithError(failure.c_str());
  sqlite3* db = nullptr;
  sqlite3_open_v2(f.storeFile().c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
  double measured = 0, baseline = 0;
  std::int64_t rows = 0;
  int round = 0;
  for (auto _ : state) {
    state.PauseTiming();
    f.now = f.now.load() + 60;
    auto bookmarks = f.sim.bookmarks("bench");
    for (std::size_t i = 0; i < 100; ++i) {
      auto b = bookmarks[(i * 997 + static_cast<std::size_t>(round) * 13) % bookmarks.size()];
      b.title += " (changed " + std::to_string(round) + ")";
      b.time = static_cast<std::int64_t>(f.now.load());  // saved again now, as an edit there does
      (void)f.sim.addBookmark("bench", b);
    }
    ++round;
    state.ResumeTiming();

    auto start = Clock::now();
    Array list = f.fetchList();
    std::size_t differing = 0;
    baseline += secondsSince(start) + bareCompare(list, f.storeFile(), differing);
    list = Array();
    if (differing != 100) {
      std::string message = "the baseline saw " + std::to_string(differing) + " changes, not 100";
      return state.SkipWithError(message.c_str());
    }

    const std::int64_t before = rowState(db);
    start = Clock::now();
    if (!f.refresh(&failure)) return state.SkipWithError(failure.c_str());
    measured += secondsSince(start);
    rows = rowsWritten(before, rowState(db));
  }
  sqlite3_close(db);
  state.counters["ratio_vs_baseline"] = measured / baseline;
  state.counters["refresh_ms"] = 1000 * measured / static_cast<double>(state.iterations());
  state.counters["rows_written"] = static_cast<double>(rows);
}
BENCHMARK(BM_ChangedRefresh)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_UnchangedRefresh(benchmark::State& state) {
  Fixture& f = fixture();
  if (!f.ready) return state.SkipWithError("no simulator");
  std::string failure;
  if (!f.stack) f.freshStore("unchanged");
  if (!f.refresh(&failure)) return state.SkipWithError(failure.c_str());
  sqlite3* db = nullptr;
  sqlite3_open_v2(f.storeFile().c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
  std::int64_t rows = 0, commits = 0;
  std::size_t requests = 0;
  for (auto _ : state) {
    f.sim.clearRequestLog();
    const std::int64_t before = rowState(db), version = scalar(db, "PRAGMA data_version");
    if (!f.refresh(&failure)) return state.SkipWithError(failure.c_str());
    rows = rowsWritten(before, rowState(db));
    commits = scalar(db, "PRAGMA data_version") - version;
    requests = f.sim.requestLog().size();
  }
  sqlite3_close(db);
  state.counters["requests"] = static_cast<double>(requests);
  state.counters["commits"] = static_cast<double>(commits);
  state.counters["rows_written"] = static_cast<double>(rows);
}
BENCHMARK(BM_UnchangedRefresh)->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace

BENCHMARK_MAIN();
