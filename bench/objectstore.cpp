// Object store against hand-written SQLite doing the same work, in the same
// run: 100 000 bookmarks with 0–8 tags each from a deterministic generator.
// Each benchmark reports ratio_vs_baseline (ours / hand-written); the counts
// also report their absolute time in milliseconds, and the bulk insert the
// process's peak resident size.

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/foundation/NSURL.h"
#include "platform/objectstore/NSManagedObjectContext.h"
#include "platform/objectstore/NSPersistentStore.h"
#include "platform/objectstore/NSPersistentStoreCoordinator.h"

namespace {

constexpr int kPosts = 100000;
constexpr int kTagPool = 6000;

using Clock = std::chrono::steady_clock;
double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

struct GeneratedPost {
  std::string identifier, meta, url, title, desc, username;
  double date;
  bool unread, shared, starred, deleting, dirty;
  std::int64_t source, others;
  std::vector<int> tags;
};

// A small deterministic generator (64-bit LCG).
struct Generator {
  std::uint64_t state;
  std::uint64_t next() {
    state = state * 6364136223846793005ull + 1442695040888963407ull;
    return state >> 11;
  }
  std::string hex(int digits) {
    static const char* alphabet = "0123456789abcdef";
    std::string text;
    while (static_cast<int>(text.size()) < digits) {
      auto bits = next();
      for (int i = 0; i < 12 && static_cast<int>(text.size()) < digits; ++i, bits >>= 4) text += alphabet[bits & 15];
    }
    return text;
  }
};

const std::vector<std::string>& tagTitles() {
  static std::vector<std::string> titles = [] {
    std::vector<std::string> t;
    Generator g{7};
    for (int i = 0; i < kTagPool; ++i) t.push_back("tag" + std::to_string(i) + "-" + g.hex(4));
    return t;
  }();
  return titles;
}

const std::vector<GeneratedPost>& posts() {
  static std::vector<GeneratedPost> generated = [] {
    std::vector<GeneratedPost> all;
    all.reserve(kPosts);
    Generator g{42};
    for (int i = 0; i < kPosts; ++i) {
      GeneratedPost p;
      p.identifier = g.hex(32);
      p.meta = g.hex(32);
      p.url = "https://example" + std::to_string(i % 997) + ".com/articles/" + std::to_string(i) + "/" + g.hex(8);
      p.title = "Bookmark number " + std::to_string(i) + " about " + g.hex(6);
      p.desc = (i % 3 == 0) ? "" : "A longer description of bookmark " + std::to_string(i) + " " + g.hex(24);
      p.username = "someone";
      p.date = 500000000.0 + i * 60.0;
      p.unread = g.next() % 4 == 0;
      p.shared = g.next() % 3 != 0;
      p.starred = g.next() % 20 == 0;
      p.deleting = g.next() % 50 == 0;
      p.dirty = g.next() % 40 == 0;
      p.source = static_cast<std::int64_t>(g.next() % 8);
      p.others = static_cast<std::int64_t>(g.next() % 1000);
      int tagCount = static_cast<int>(g.next() % 9);
      for (int t = 0; t < tagCount; ++t) {
        // Skewed towards the first tags, as real tag use is.
        auto r = g.next() % kTagPool;
        int tag = static_cast<int>((r * r) / kTagPool);
        if (std::find(p.tags.begin(), p.tags.end(), tag) == p.tags.end()) p.tags.push_back(tag);
      }
      all.push_back(std::move(p));
    }
    return all;
  }();
  return generated;
}

std::shared_ptr<NSManagedObjectModel> bookmarkModel() {
  auto post = NSEntityDescription::create("PinboardPost");
  post->addAttribute("identifier", NSAttributeType::String, {.indexed = true});
  post->addAttribute("meta", NSAttributeType::String);
  post->addAttribute("username", NSAttributeType::String);
  post->addAttribute("url", NSAttributeType::String, {.optional = false, .indexed = true});
  post->addAttribute("title", NSAttributeType::String);
  post->addAttribute("desc", NSAttributeType::String);
  post->addAttribute("date", NSAttributeType::Date);
  post->addAttribute("unread", NSAttributeType::Boolean);
  post->addAttribute("shared", NSAttributeType::Boolean);
  post->addAttribute("starred", NSAttributeType::Boolean);
  post->addAttribute("dead", NSAttributeType::Boolean);
  post->addAttribute("source", NSAttributeType::Integer64);
  post->addAttribute("others", NSAttributeType::Integer64);
  post->addAttribute("deleting", NSAttributeType::Boolean, {.indexed = true});
  post->addAttribute("dirty", NSAttributeType::Boolean, {.indexed = true});
  post->addRelationship("tags", "PinboardTag", {.toMany = true, .inverseName = "posts"});
  // Collections count non-deleting posts by one more flag.
  post->addCompoundIndex({"deleting", "shared"});
  auto tag = NSEntityDescription::create("PinboardTag");
  tag->addAttribute("title", NSAttributeType::String, {.indexed = true});
  tag->addAttribute("previousTitle", NSAttributeType::String);
  tag->addAttribute("deleting", NSAttributeType::Boolean);
  tag->addAttribute("dirty", NSAttributeType::Boolean);
  tag->addRelationship("posts", "PinboardPost", {.toMany = true, .inverseName = "tags"});
  return NSManagedObjectModel::create({post, tag});
}

std::filesystem::path scratchDirectory() {
  static std::filesystem::path directory = [] {
    auto path = std::filesystem::temp_directory_path() / ("zb-bench-objectstore-" + std::to_string(getpid()));
    std::filesystem::remove_all(path);
    std::filesystem::create_directories(path);
    return path;
  }();
  return directory;
}

void removeStore(const std::filesystem::path& file) {
  for (auto suffix : {"", "-wal", "-shm"}) std::filesystem::remove(file.string() + suffix);
}

std::shared_ptr<NSPersistentStoreCoordinator> openStore(const std::filesystem::path& file) {
  static auto model = bookmarkModel();
  auto coordinator = NSPersistentStoreCoordinator::create(model);
  NSErrorPtr error;
  if (!coordinator->addPersistentStoreWithType(NSSQLiteStoreType, "", NSURL::fileURLWithPath(file.string()),
                                               Dictionary{{NSPersistentStoreTimeoutOption, Value(30)}}, &error)) {
    std::fprintf(stderr, "cannot open store: %s\n", error->description().c_str());
    std::abort();
  }
  return coordinator;
}

// Inserts every generated bookmark with its tags into context (on its queue).
void insertAll(NSManagedObjectContext& context) {
  std::vector<std::shared_ptr<NSManagedObject>> tags(kTagPool);
  for (int i = 0; i < kTagPool; ++i) {
    tags[i] = context.insertNewObjectForEntityForName("PinboardTag");
    tags[i]->setValueForKey(Value(tagTitles()[i]), "title");
  }
  for (auto& p : posts()) {
    auto post = context.insertNewObjectForEntityForName("PinboardPost");
    post->setValueForKey(Value(p.identifier), "identifier");
    post->setValueForKey(Value(p.meta), "meta");
    post->setValueForKey(Value(p.username), "username");
    post->setValueForKey(Value(p.url), "url");
    post->setValueForKey(Value(p.title), "title");
    if (!p.desc.empty()) post->setValueForKey(Value(p.desc), "desc");
    post->setValueForKey(Value(NSDate(p.date)), "date");
    post->setValueForKey(Value(p.unread), "unread");
    post->setValueForKey(Value(p.shared), "shared");
    post->setValueForKey(Value(p.starred), "starred");
    post->setValueForKey(Value(p.source), "source");
    post->setValueForKey(Value(p.others), "others");
    post->setValueForKey(Value(p.deleting), "deleting");
    post->setValueForKey(Value(p.dirty), "dirty");
    if (!p.tags.empty()) {
      Set set;
      for (int t : p.tags) set.insert(Value(tags[t]));
      post->setValueForKey(Value(std::move(set)), "tags");
    }
  }
}

// --- The hand-written baseline: the same schema, the same rows. ---

struct Raw {
  sqlite3* db = nullptr;
  explicit Raw(const std::filesystem::path& file) {
    sqlite3_open(file.c_str(), &db);
    exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;");
  }
  ~Raw() { sqlite3_close(db); }
  void exec(const char* sql) {
    char* message = nullptr;
    if (sqlite3_exec(db, sql, nullptr, nullptr, &message) != SQLITE_OK) {
      std::fprintf(stderr, "baseline: %s\n", message);
      std::abort();
    }
  }
  sqlite3_stmt* prepare(const char* sql) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &statement, nullptr) != SQLITE_OK) std::abort();
    return statement;
  }
};

void bindText(sqlite3_stmt* s, int i, const std::string& text) {
  sqlite3_bind_text(s, i, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
}

double baselineInsert(const std::filesystem::path& file) {
  removeStore(file);
  Raw raw(file);
  raw.exec(
      "CREATE TABLE PinboardPost (Z_PK INTEGER PRIMARY KEY AUTOINCREMENT, Z_OPT INTEGER NOT NULL DEFAULT 1, "
      "identifier TEXT, meta TEXT, username TEXT, url TEXT, title TEXT, desc TEXT, date REAL, unread INTEGER DEFAULT 0, "
      "shared INTEGER DEFAULT 0, starred INTEGER DEFAULT 0, dead INTEGER DEFAULT 0, source INTEGER, others INTEGER, "
      "deleting INTEGER DEFAULT 0, dirty INTEGER DEFAULT 0);"
      "CREATE TABLE PinboardTag (Z_PK INTEGER PRIMARY KEY AUTOINCREMENT, Z_OPT INTEGER NOT NULL DEFAULT 1, title TEXT, "
      "previousTitle TEXT, deleting INTEGER DEFAULT 0, dirty INTEGER DEFAULT 0);"
      "CREATE TABLE PinboardPost_tags (PinboardPost INTEGER NOT NULL, PinboardTag INTEGER NOT NULL, "
      "PRIMARY KEY (PinboardPost, PinboardTag)) WITHOUT ROWID;"
      "CREATE INDEX a ON PinboardPost (identifier); CREATE INDEX b ON PinboardPost (url);"
      "CREATE INDEX c ON PinboardPost (deleting); CREATE INDEX d ON PinboardPost (dirty);"
      "CREATE INDEX e ON PinboardTag (title); CREATE INDEX f ON PinboardPost_tags (PinboardTag, PinboardPost);"
      "CREATE INDEX g ON PinboardPost (deleting, shared);");
  auto start = Clock::now();
  raw.exec("BEGIN IMMEDIATE");
  auto* insertTag = raw.prepare("INSERT INTO PinboardTag (Z_OPT, title, previousTitle, deleting, dirty) VALUES (1, ?, NULL, 0, 0)");
  std::vector<std::int64_t> tagKeys(kTagPool);
  for (int i = 0; i < kTagPool; ++i) {
    bindText(insertTag, 1, tagTitles()[i]);
    sqlite3_step(insertTag);
    sqlite3_reset(insertTag);
    tagKeys[i] = sqlite3_last_insert_rowid(raw.db);
  }
  auto* insertPost = raw.prepare(
      "INSERT INTO PinboardPost (Z_OPT, identifier, meta, username, url, title, desc, date, unread, shared, starred, "
      "dead, source, others, deleting, dirty) VALUES (1, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, 0, ?, ?, ?, ?)");
  auto* insertJoin = raw.prepare("INSERT INTO PinboardPost_tags (PinboardPost, PinboardTag) VALUES (?, ?)");
  for (auto& p : posts()) {
    bindText(insertPost, 1, p.identifier);
    bindText(insertPost, 2, p.meta);
    bindText(insertPost, 3, p.username);
    bindText(insertPost, 4, p.url);
    bindText(insertPost, 5, p.title);
    if (p.desc.empty()) {
      sqlite3_bind_null(insertPost, 6);
    } else {
      bindText(insertPost, 6, p.desc);
    }
    sqlite3_bind_double(insertPost, 7, p.date);
    sqlite3_bind_int(insertPost, 8, p.unread);
    sqlite3_bind_int(insertPost, 9, p.shared);
    sqlite3_bind_int(insertPost, 10, p.starred);
    sqlite3_bind_int64(insertPost, 11, p.source);
    sqlite3_bind_int64(insertPost, 12, p.others);
    sqlite3_bind_int(insertPost, 13, p.deleting);
    sqlite3_bind_int(insertPost, 14, p.dirty);
    sqlite3_step(insertPost);
    sqlite3_reset(insertPost);
    auto pk = sqlite3_last_insert_rowid(raw.db);
    for (int t : p.tags) {
      sqlite3_bind_int64(insertJoin, 1, pk);
      sqlite3_bind_int64(insertJoin, 2, tagKeys[t]);
      sqlite3_step(insertJoin);
      sqlite3_reset(insertJoin);
    }
  }
  raw.exec("COMMIT");
  double seconds = secondsSince(start);
  sqlite3_finalize(insertTag);
  sqlite3_finalize(insertPost);
  sqlite3_finalize(insertJoin);
  return seconds;
}

double peakResidentMegabytes() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmHWM:", 0) == 0) return std::stod(line.substr(6)) / 1024.0;
  }
  return 0;
}

// The populated store shared by the read benchmarks, written once.
const std::filesystem::path& populatedStore() {
  static std::filesystem::path file = [] {
    auto path = scratchDirectory() / "Populated.sqlite";
    removeStore(path);
    auto coordinator = openStore(path);
    auto context = NSManagedObjectContext::create(NSPrivateQueueConcurrencyType);
    context->performBlockAndWait([&] {
      context->setPersistentStoreCoordinator(coordinator);
      insertAll(*context);
      if (!context->save()) std::abort();
    });
    return path;
  }();
  return file;
}

// (a) Insert everything through a private-queue context and save.
void BM_InsertAndSave(benchmark::State& state) {
  auto file = scratchDirectory() / "Insert.sqlite";
  double ours = 0, baseline = 0;
  for (auto _ : state) {
    baseline = baselineInsert(scratchDirectory() / "Baseline.sqlite");
    removeStore(file);
    auto coordinator = openStore(file);
    auto start = Clock::now();
    {
      auto context = NSManagedObjectContext::create(NSPrivateQueueConcurrencyType);
      context->performBlockAndWait([&] {
        context->setPersistentStoreCoordinator(coordinator);
        insertAll(*context);
        NSErrorPtr error;
        if (!context->save(&error)) state.SkipWithError(error->description().c_str());
      });
    }
    ours = secondsSince(start);
    state.SetIterationTime(ours);
  }
  state.counters["ratio_vs_baseline"] = ours / baseline;
  state.counters["baseline_ms"] = baseline * 1000;
  state.counters["peak_rss_mb"] = peakResidentMegabytes();
}
BENCHMARK(BM_InsertAndSave)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// (f) The same inserts made in a confinement child of a private root, the
// child saved into the root, the root saved.
void BM_InsertThroughChildContext(benchmark::State& state) {
  auto file = scratchDirectory() / "Child.sqlite";
  double ours = 0, baseline = 0;
  for (auto _ : state) {
    baseline = baselineInsert(scratchDirectory() / "Baseline.sqlite");
    removeStore(file);
    auto coordinator = openStore(file);
    auto start = Clock::now();
    {
      auto root = NSManagedObjectContext::create(NSPrivateQueueConcurrencyType);
      root->performBlockAndWait([&] { root->setPersistentStoreCoordinator(coordinator); });
      auto child = NSManagedObjectContext::create(NSConfinementConcurrencyType);
      child->setParentContext(root);
      insertAll(*child);
      NSErrorPtr error;
      if (!child->save(&error)) state.SkipWithError(error->description().c_str());
      root->performBlockAndWait([&] {
        if (!root->save(&error)) state.SkipWithError(error->description().c_str());
      });
    }
    ours = secondsSince(start);
    state.SetIterationTime(ours);
  }
  state.counters["ratio_vs_baseline"] = ours / baseline;
  state.counters["baseline_ms"] = baseline * 1000;
}
BENCHMARK(BM_InsertThroughChildContext)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// (b) "identifier" and "meta" of every post as dictionaries.
void BM_FetchIdentifierAndMetaDictionaries(benchmark::State& state) {
  auto file = populatedStore();
  auto coordinator = openStore(file);
  auto context = NSManagedObjectContext::create(NSConfinementConcurrencyType);
  context->setPersistentStoreCoordinator(coordinator);
  auto request = NSFetchRequest::fetchRequestWithEntityName("PinboardPost");
  request->setResultType(NSDictionaryResultType);
  request->setPropertiesToFetch({"identifier", "meta"});
  Raw raw(file);
  auto* select = raw.prepare("SELECT identifier, meta FROM PinboardPost");
  double ours = 0, baseline = 0;
  int rounds = 0;
  for (auto _ : state) {
    auto start = Clock::now();
    std::vector<std::pair<std::string, std::string>> rows;
    while (sqlite3_step(select) == SQLITE_ROW) {
      rows.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(select, 0)),
                        reinterpret_cast<const char*>(sqlite3_column_text(select, 1)));
    }
    sqlite3_reset(select);
    baseline += secondsSince(start);
    benchmark::DoNotOptimize(rows);

    start = Clock::now();
    auto result = context->executeFetchRequest(request);
    double elapsed = secondsSince(start);
    ours += elapsed;
    if (!result || result->size() != kPosts) state.SkipWithError("wrong result");
    state.SetIterationTime(elapsed);
    ++rounds;
  }
  sqlite3_finalize(select);
  state.counters["ratio_vs_baseline"] = ours / baseline;
  state.counters["baseline_ms"] = baseline * 1000 / rounds;
}
BENCHMARK(BM_FetchIdentifierAndMetaDictionaries)->Iterations(5)->UseManualTime()->Unit(benchmark::kMillisecond);

void countBenchmark(benchmark::State& state, const char* entity, const char* format, const char* rawSQL,
                    std::int64_t expectAtLeast) {
  auto file = populatedStore();
  auto coordinator = openStore(file);
  auto context = NSManagedObjectContext::create(NSConfinementConcurrencyType);
  context->setPersistentStoreCoordinator(coordinator);
  auto request = NSFetchRequest::fetchRequestWithEntityName(entity);
  request->setPredicate(NSPredicate::predicateWithFormat(format));
  Raw raw(file);
  auto* count = raw.prepare(rawSQL);
  double ours = 0, baseline = 0;
  int rounds = 0;
  for (auto _ : state) {
    auto start = Clock::now();
    sqlite3_step(count);
    benchmark::DoNotOptimize(sqlite3_column_int64(count, 0));
    sqlite3_reset(count);
    baseline += secondsSince(start);

    start = Clock::now();
    auto n = context->countForFetchRequest(request);
    double elapsed = secondsSince(start);
    ours += elapsed;
    if (n < expectAtLeast || n == NSNotFound) state.SkipWithError("wrong count");
    state.SetIterationTime(elapsed);
    ++rounds;
  }
  sqlite3_finalize(count);
  state.counters["ratio_vs_baseline"] = ours / baseline;
  state.counters["ms"] = ours * 1000 / rounds;
}

// (c) Posts neither deleting nor private.
void BM_CountSharedNotDeleting(benchmark::State& state) {
  countBenchmark(state, "PinboardPost", "deleting == NO AND shared == YES",
                 "SELECT COUNT(*) FROM PinboardPost WHERE deleting = 0 AND shared = 1", 1);
}
BENCHMARK(BM_CountSharedNotDeleting)->Iterations(20)->UseManualTime()->Unit(benchmark::kMillisecond);

// (d) Tags that no post uses.
void BM_CountUnusedTags(benchmark::State& state) {
  countBenchmark(state, "PinboardTag", "posts.@count == 0",
                 "SELECT COUNT(*) FROM PinboardTag t WHERE NOT EXISTS (SELECT 1 FROM PinboardPost_tags j WHERE "
                 "j.PinboardTag = t.Z_PK)",
                 0);
}
BENCHMARK(BM_CountUnusedTags)->Iterations(20)->UseManualTime()->Unit(benchmark::kMillisecond);

// (g) Fetch by identifier in a child whose parent holds every post unsaved.
void BM_FetchByIdentifierOverUnsavedParent(benchmark::State& state) {
  auto file = scratchDirectory() / "Unsaved.sqlite";
  removeStore(file);
  auto coordinator = openStore(file);
  auto root = NSManagedObjectContext::create(NSPrivateQueueConcurrencyType);
  root->performBlockAndWait([&] {
    root->setPersistentStoreCoordinator(coordinator);
    insertAll(*root);
  });
  auto child = NSManagedObjectContext::create(NSConfinementConcurrencyType);
  child->setParentContext(root);
  auto request = NSFetchRequest::fetchRequestWithEntityName("PinboardPost");
  // The baseline: the same lookup by index in a hand-written store.
  auto baselineFile = scratchDirectory() / "Baseline.sqlite";
  baselineInsert(baselineFile);
  Raw raw(baselineFile);
  auto* select = raw.prepare("SELECT Z_PK, meta FROM PinboardPost WHERE identifier = ?");
  // The first lookup indexes the parent's pending objects by identifier;
  // every later one uses that index.
  request->setPredicate(NSPredicate::predicateWithFormat("identifier == %@", {Value(posts()[0].identifier)}));
  if (!child->executeFetchRequest(request)) state.SkipWithError("warm-up failed");
  double ours = 0, baseline = 0;
  std::size_t i = 0, rounds = 0;
  for (auto _ : state) {
    auto& identifier = posts()[(i++ * 7919) % kPosts].identifier;
    auto start = Clock::now();
    bindText(select, 1, identifier);
    sqlite3_step(select);
    benchmark::DoNotOptimize(sqlite3_column_int64(select, 0));
    sqlite3_reset(select);
    baseline += secondsSince(start);

    start = Clock::now();
    request->setPredicate(NSPredicate::predicateWithFormat("identifier == %@", {Value(identifier)}));
    auto result = child->executeFetchRequest(request);
    double elapsed = secondsSince(start);
    ours += elapsed;
    if (!result || result->size() != 1) state.SkipWithError("not found");
    state.SetIterationTime(elapsed);
    ++rounds;
  }
  sqlite3_finalize(select);
  state.counters["ratio_vs_baseline"] = ours / baseline;
  state.counters["us_per_fetch"] = ours * 1e6 / static_cast<double>(rounds);
}
#ifndef ZB_BENCH_LOOKUPS
#define ZB_BENCH_LOOKUPS 2000
#endif
BENCHMARK(BM_FetchByIdentifierOverUnsavedParent)->Iterations(ZB_BENCH_LOOKUPS)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::filesystem::remove_all(scratchDirectory());
  return 0;
}
