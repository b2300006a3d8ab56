#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <set>

#include "ObjectStoreTestSupport.h"
#include "platform/objectstore/NSPersistentStore.h"

extern char** environ;

namespace {

// A plain sqlite3 connection, as any SQLite tool would open the file.
class RawDatabase {
public:
  explicit RawDatabase(const std::filesystem::path& path) { sqlite3_open(path.c_str(), &_db); }
  ~RawDatabase() { sqlite3_close(_db); }
  std::vector<std::string> column(const std::string& sql, int index = 0) const {
    std::vector<std::string> values;
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(_db, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
      ADD_FAILURE() << sqlite3_errmsg(_db) << " in " << sql;
      return values;
    }
    while (sqlite3_step(statement) == SQLITE_ROW) {
      auto* text = sqlite3_column_text(statement, index);
      values.push_back(text ? reinterpret_cast<const char*>(text) : "NULL");
    }
    sqlite3_finalize(statement);
    return values;
  }
  std::string value(const std::string& sql) const {
    auto values = column(sql);
    return values.empty() ? "" : values.front();
  }
  int exec(const std::string& sql) { return sqlite3_exec(_db, sql.c_str(), nullptr, nullptr, nullptr); }

private:
  sqlite3* _db = nullptr;
};

std::int64_t countOf(NSManagedObjectContext& context, const std::string& entity) {
  return context.countForFetchRequest(NSFetchRequest::fetchRequestWithEntityName(entity));
}

std::shared_ptr<NSPersistentStoreCoordinator> open(const std::filesystem::path& file,
                                                   std::shared_ptr<NSManagedObjectModel> model, Dictionary options,
                                                   NSErrorPtr* error) {
  auto coordinator = NSPersistentStoreCoordinator::create(std::move(model));
  if (!coordinator->addPersistentStoreWithType(NSSQLiteStoreType, "", NSURL::fileURLWithPath(file.string()), options,
                                               error)) {
    return nullptr;
  }
  return coordinator;
}

std::shared_ptr<NSManagedObjectContext> contextOn(std::shared_ptr<NSPersistentStoreCoordinator> coordinator) {
  auto context = NSManagedObjectContext::create(NSConfinementConcurrencyType);
  context->setPersistentStoreCoordinator(std::move(coordinator));
  return context;
}

}  // namespace

TEST(SQLiteStore, SchemaIsPlainAndReadableByAnySQLiteTool) {
  TestStore stack;
  auto context = stack.newContext();
  auto post = insertPost(*context, "id-1", "Readable", {"alpha", "beta"});
  auto folder = context->insertNewObjectForEntityForName("Folder");
  folder->setValueForKey(Value("Inbox"), "name");
  post->setValueForKey(Value(folder), "folder");
  ASSERT_TRUE(context->save());

  RawDatabase raw(stack.file);
  std::set<std::string> tables;
  for (auto& name : raw.column("SELECT name FROM sqlite_master WHERE type = 'table'")) tables.insert(name);
  for (auto* expected : {"Post", "Tag", "Folder", "Collection", "Post_tags", "Z_METADATA"}) {
    EXPECT_TRUE(tables.count(expected)) << expected;
  }
  std::set<std::string> indexes;
  for (auto& name : raw.column("SELECT name FROM sqlite_master WHERE type = 'index'")) indexes.insert(name);
  for (auto* expected : {"Z_Post_identifier", "Z_Post_url", "Z_Post_deleting", "Z_Tag_title", "Z_Post_folder"}) {
    EXPECT_TRUE(indexes.count(expected)) << expected;
  }
  EXPECT_EQ(raw.value("PRAGMA journal_mode"), "wal");
  EXPECT_EQ(raw.value("SELECT Z_VALUE FROM Z_METADATA WHERE Z_KEY = 'NSStoreUUID'"), stack.store->identifier());
  EXPECT_EQ(raw.value("SELECT title FROM Post WHERE identifier = 'id-1'"), "Readable");
  EXPECT_EQ(raw.value("SELECT Folder.name FROM Post JOIN Folder ON Folder.Z_PK = Post.folder"), "Inbox");
  EXPECT_EQ(raw.column("SELECT Tag.title FROM Post_tags JOIN Tag ON Tag.Z_PK = Post_tags.Tag JOIN Post ON Post.Z_PK = "
                       "Post_tags.Post WHERE Post.identifier = 'id-1' ORDER BY 1"),
            (std::vector<std::string>{"alpha", "beta"}));
  EXPECT_EQ(raw.value("SELECT unread FROM Post"), "0");
  EXPECT_EQ(raw.value("SELECT Z_OPT FROM Post"), "1");

  // Every write bumps the row version.
  post->setValueForKey(Value("Changed"), "title");
  ASSERT_TRUE(context->save());
  EXPECT_EQ(raw.value("SELECT Z_OPT FROM Post"), "2");
  // Deleted rows never hand their primary key to a new row.
  context->deleteObject(post);
  ASSERT_TRUE(context->save());
  auto next = insertPost(*context, "id-2");
  ASSERT_TRUE(context->save());
  EXPECT_EQ(next->objectID()->primaryKey(), 2);
}

TEST(SQLiteStore, OlderStoreOpensWithNewAttributesAndEntitiesKeepingItsData) {
  TestStore stack;
  {
    auto context = stack.newContext();
    insertPost(*context, "old", "kept", {"t"});
    ASSERT_TRUE(context->save());
  }
  auto newer = makeTestModel({.extraAttribute = true, .extraEntity = true});

  // Without permission to migrate, the store is refused and left alone.
  NSErrorPtr error;
  EXPECT_FALSE(open(stack.file, newer, Dictionary{}, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), NSPersistentStoreIncompatibleVersionHashError);
  EXPECT_FALSE(open(stack.file, newer, Dictionary{{NSMigratePersistentStoresAutomaticallyOption, Value(true)}}, &error));
  EXPECT_EQ(error->code(), NSMigrationMissingMappingModelError);
  EXPECT_TRUE(open(stack.file, makeTestModel(), Dictionary{}, &error)) << "still the old schema";

  auto migrated = open(stack.file, newer, migrationOptions(), &error);
  ASSERT_TRUE(migrated) << error->description();
  auto context = contextOn(migrated);
  auto posts = fetchAll(*context, "Post");
  ASSERT_EQ(posts.size(), 1u);
  auto post = posts[0].as<NSManagedObject>();
  EXPECT_EQ(post->valueForKey("title"), Value("kept"));
  EXPECT_TRUE(post->valueForKey("note").isAbsent());
  EXPECT_EQ(post->valueForKey("tags").count(), 1u);
  post->setValueForKey(Value("new column"), "note");
  auto archive = context->insertNewObjectForEntityForName("Archive");
  archive->setValueForKey(Value("new table"), "label");
  ASSERT_TRUE(context->save(&error)) << error->description();

  // Opening again with the newer model needs no migration; the older model
  // still reads its part of the data.
  auto again = open(stack.file, newer, Dictionary{}, &error);
  ASSERT_TRUE(again) << error->description();
  EXPECT_EQ(fetchAll(*contextOn(again), "Post", "note == 'new column'").size(), 1u);
  auto older = open(stack.file, makeTestModel(), Dictionary{}, &error);
  ASSERT_TRUE(older) << error->description();
  EXPECT_EQ(fetchAll(*contextOn(older), "Post", "title == 'kept'").size(), 1u);
}

TEST(SQLiteStore, IncompatibleChangesFailClearlyAndKeepTheData) {
  TestStore stack;
  {
    auto context = stack.newContext();
    auto post = insertPost(*context, "keep-me");
    post->setValueForKey(Value(3), "source");
    ASSERT_TRUE(context->save());
  }
  NSErrorPtr error;
  EXPECT_FALSE(open(stack.file, makeTestModel({.retypedSource = true}), migrationOptions(), &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), NSInferredMappingModelError);
  EXPECT_NE(error->localizedFailureReason().value_or("").find("Post.source"), std::string::npos);

  EXPECT_FALSE(open(stack.file, makeTestModel({.extraAttribute = true, .noteRequired = true}), migrationOptions(), &error));
  EXPECT_EQ(error->code(), NSInferredMappingModelError);

  auto original = open(stack.file, makeTestModel(), Dictionary{}, &error);
  ASSERT_TRUE(original);
  auto posts = fetchAll(*contextOn(original), "Post");
  ASSERT_EQ(posts.size(), 1u);
  EXPECT_EQ(valueForKey(posts[0], "source"), Value(3));

  // A required attribute can be added where there are no rows to fill.
  TestStore empty;
  EXPECT_TRUE(open(empty.file, makeTestModel({.extraAttribute = true, .noteRequired = true}), migrationOptions(), &error))
      << error->description();
}

TEST(SQLiteStore, ForeignFilesAreRefusedUntouched) {
  TemporaryDirectory directory;
  auto text = directory / "notes.sqlite";
  std::ofstream(text) << "this is not a database, just some notes\n";
  NSErrorPtr error;
  EXPECT_FALSE(open(text, makeTestModel(), migrationOptions(), &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), NSFileReadCorruptFileError);
  std::ifstream in(text);
  std::string line;
  std::getline(in, line);
  EXPECT_EQ(line, "this is not a database, just some notes");

  auto other = directory / "other.sqlite";
  {
    RawDatabase raw(other);
    raw.exec("CREATE TABLE accounts (id INTEGER, name TEXT); INSERT INTO accounts VALUES (1, 'x')");
  }
  EXPECT_FALSE(open(other, makeTestModel(), migrationOptions(), &error));
  EXPECT_EQ(error->code(), NSPersistentStoreIncompatibleSchemaError);
  EXPECT_EQ(RawDatabase(other).value("SELECT name FROM accounts"), "x");

  auto coordinator = NSPersistentStoreCoordinator::create(makeTestModel());
  EXPECT_FALSE(coordinator->addPersistentStoreWithType("XML", "", NSURL::fileURLWithPath((directory / "a").string()),
                                                       Dictionary{}, &error));
  EXPECT_EQ(error->code(), NSPersistentStoreInvalidTypeError);
  EXPECT_FALSE(coordinator->addPersistentStoreWithType(NSSQLiteStoreType, "",
                                                       NSURL::fileURLWithPath((directory / "no/such/dir/a").string()),
                                                       Dictionary{}, &error));
  EXPECT_TRUE(coordinator->persistentStores().empty());
}

TEST(SQLiteStore, EachConfigurationLivesInItsOwnStore) {
  TemporaryDirectory directory;
  auto model = makeTestModel({.configurations = true});
  auto coordinator = NSPersistentStoreCoordinator::create(model);
  NSErrorPtr error;
  auto pinboardURL = NSURL::fileURLWithPath((directory / "Pinboard.sqlite").string());
  auto tarrowURL = NSURL::fileURLWithPath((directory / "Tarrow.sqlite").string());
  auto pinboard = coordinator->addPersistentStoreWithType(NSSQLiteStoreType, "Pinboard", pinboardURL, migrationOptions(), &error);
  ASSERT_TRUE(pinboard) << error->description();
  EXPECT_FALSE(coordinator->addPersistentStoreWithType(NSSQLiteStoreType, "Nope", tarrowURL, migrationOptions(), &error));
  EXPECT_FALSE(coordinator->addPersistentStoreWithType(NSSQLiteStoreType, "Tarrow", pinboardURL, migrationOptions(), &error))
      << "the same file twice";
  auto tarrow = coordinator->addPersistentStoreWithType(NSSQLiteStoreType, "Tarrow", tarrowURL, migrationOptions(), &error);
  ASSERT_TRUE(tarrow) << error->description();
  EXPECT_NE(pinboard->identifier(), tarrow->identifier());
  EXPECT_EQ(coordinator->persistentStoreForURL(tarrowURL), tarrow);
  EXPECT_EQ(coordinator->persistentStoreForURL(NSURL::fileURLWithPath((directory / "x/../Tarrow.sqlite").string())), tarrow);
  EXPECT_EQ(tarrow->configurationName(), "Tarrow");
  EXPECT_EQ(tarrow->metadata()[NSStoreUUIDKey], Value(tarrow->identifier()));

  auto context = contextOn(coordinator);
  auto post = insertPost(*context, "p");
  auto collection = context->insertNewObjectForEntityForName("Collection");
  collection->setValueForKey(Value("Unread"), "title");
  ASSERT_TRUE(context->save(&error)) << error->description();
  EXPECT_EQ(post->objectID()->persistentStore(), pinboard);
  EXPECT_EQ(collection->objectID()->persistentStore(), tarrow);
  EXPECT_NE(collection->objectID()->URIRepresentation().find(tarrow->identifier()), std::string::npos);

  EXPECT_EQ(RawDatabase(directory / "Pinboard.sqlite").value("SELECT COUNT(*) FROM Post"), "1");
  EXPECT_EQ(RawDatabase(directory / "Tarrow.sqlite").value("SELECT COUNT(*) FROM Collection"), "1");
  EXPECT_TRUE(RawDatabase(directory / "Tarrow.sqlite").column("SELECT name FROM sqlite_master WHERE name = 'Post'").empty());

  // Without its store an entity can be neither fetched nor saved.
  ASSERT_TRUE(coordinator->removePersistentStore(tarrow, &error));
  EXPECT_FALSE(coordinator->removePersistentStore(tarrow, &error));
  EXPECT_FALSE(coordinator->persistentStoreForURL(tarrowURL));
  auto fresh = contextOn(coordinator);
  EXPECT_FALSE(fresh->executeFetchRequest(NSFetchRequest::fetchRequestWithEntityName("Collection"), &error));
  EXPECT_EQ(fresh->countForFetchRequest(NSFetchRequest::fetchRequestWithEntityName("Collection"), &error), NSNotFound);
  fresh->insertNewObjectForEntityForName("Collection");
  EXPECT_FALSE(fresh->save(&error));
  EXPECT_EQ(countOf(*fresh, "Post"), 1);
}

TEST(SQLiteStore, AWriterWaitsForAnotherConnectionThenGivesUp) {
  TemporaryDirectory directory;
  auto file = directory / "Busy.sqlite";
  NSErrorPtr error;
  Dictionary options = migrationOptions();
  options.set(NSPersistentStoreTimeoutOption, Value(0.2));
  auto coordinator = open(file, makeTestModel(), options, &error);
  ASSERT_TRUE(coordinator) << error->description();
  auto context = contextOn(coordinator);

  RawDatabase other(file);
  ASSERT_EQ(other.exec("BEGIN IMMEDIATE"), SQLITE_OK);
  insertPost(*context, "blocked");
  EXPECT_FALSE(context->save(&error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), NSPersistentStoreSaveError);
  EXPECT_EQ(error->userInfo()["NSSQLiteErrorDomain"].integerValue() & 0xff, SQLITE_BUSY);
  EXPECT_TRUE(context->hasChanges());
  ASSERT_EQ(other.exec("ROLLBACK"), SQLITE_OK);
  EXPECT_TRUE(context->save(&error)) << error->description();
  EXPECT_EQ(other.value("SELECT identifier FROM Post"), "blocked");
}

namespace {

// The default VFS under another name, whose write-ahead log files write
// through stoppingWrite: once armed, the chosen write first tells the parent
// (one byte on a pipe) and then waits for the parent's SIGKILL, so the kill
// lands at that very point of the save.
enum class StopAt { FirstWrite, CommitFrame };
bool gArmed = false;
StopAt gStopAt = StopAt::FirstWrite;
int gReportFd = -1;
sqlite3_io_methods gLogMethods;  // the default VFS's, but for xWrite
int (*gLogWrite)(sqlite3_file*, const void*, int, sqlite3_int64) = nullptr;

bool isCommitFrameHeader(const void* data, int size) {
  // A frame header is 24 bytes; bytes 4-7 hold the database size after a
  // commit, zero in every other frame.
  auto* bytes = static_cast<const unsigned char*>(data);
  return size == 24 && (bytes[4] | bytes[5] | bytes[6] | bytes[7]) != 0;
}

int stoppingWrite(sqlite3_file* file, const void* data, int size, sqlite3_int64 offset) {
  if (gArmed && (gStopAt == StopAt::FirstWrite || isCommitFrameHeader(data, size))) {
    char byte = 'S';
    if (write(gReportFd, &byte, 1) == 1) {
      for (;;) pause();
    }
  }
  return gLogWrite(file, data, size, offset);
}

void installStoppingVfs() {
  static sqlite3_vfs* base = sqlite3_vfs_find(nullptr);
  static sqlite3_vfs vfs = *base;
  vfs.zName = "stopping";
  vfs.xOpen = [](sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* outFlags) {
    int rc = base->xOpen(base, name, file, flags, outFlags);
    if (rc == SQLITE_OK && (flags & SQLITE_OPEN_WAL) && file->pMethods) {
      gLogMethods = *file->pMethods;
      gLogWrite = gLogMethods.xWrite;
      gLogMethods.xWrite = stoppingWrite;
      file->pMethods = &gLogMethods;
    }
    return rc;
  };
  sqlite3_vfs_register(&vfs, 1);
}

constexpr int kCommittedPosts = 1000;
constexpr int kDoomedPosts = 5000;

}  // namespace

// The child side of the test below: runs only in the process it spawns.
TEST(SQLiteStoreChild, StopInsideALargeSave) {
  const char* path = std::getenv("ZB_OBJECTSTORE_CHILD_STORE");
  if (!path) GTEST_SKIP() << "runs in a child process only";
  gReportFd = std::atoi(std::getenv("ZB_OBJECTSTORE_CHILD_REPORT"));
  gStopAt =
      std::string(std::getenv("ZB_OBJECTSTORE_CHILD_STOP")) == "commit" ? StopAt::CommitFrame : StopAt::FirstWrite;
  installStoppingVfs();
  auto coordinator = open(path, makeTestModel(), migrationOptions(), nullptr);
  ASSERT_TRUE(coordinator);
  auto context = contextOn(coordinator);
  for (int i = 0; i < kCommittedPosts; ++i) insertPost(*context, "committed-" + std::to_string(i));
  ASSERT_TRUE(context->save());
  for (int i = 0; i < kDoomedPosts; ++i) insertPost(*context, "doomed-" + std::to_string(i));
  gArmed = true;
  ASSERT_TRUE(context->save());
  ADD_FAILURE() << "the save ended without reaching its stopping point";
}

// The child stops at a chosen point of the write-ahead log inside its save
// (the first write, when nothing of the save is in the log yet, and the
// commit frame, when every other frame is), reports it and is killed there:
// each kill lands mid-save by construction.
TEST(SQLiteStore, AProcessKilledInALargeSaveLeavesTheLastCommittedState) {
  std::map<std::string, std::uintmax_t> logBytes;
  for (const std::string stop : {"first", "commit"}) {
    SCOPED_TRACE("stopped at the " + stop + " write of the log");
    TemporaryDirectory directory;
    auto file = directory / "Killed.sqlite";
    int report[2];
    ASSERT_EQ(pipe(report), 0);
    fcntl(report[0], F_SETFD, FD_CLOEXEC);
    std::vector<std::string> variables{"ZB_OBJECTSTORE_CHILD_STORE=" + file.string(),
                                       "ZB_OBJECTSTORE_CHILD_REPORT=" + std::to_string(report[1]),
                                       "ZB_OBJECTSTORE_CHILD_STOP=" + stop};
    std::string filter = "--gtest_filter=SQLiteStoreChild.StopInsideALargeSave";
    std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
    char* argv[] = {self.data(), filter.data(), nullptr};
    std::vector<char*> envp;
    for (char** e = environ; *e; ++e) envp.push_back(*e);
    for (auto& variable : variables) envp.push_back(variable.data());
    envp.push_back(nullptr);
    pid_t child = 0;
    int spawned = posix_spawn(&child, self.c_str(), nullptr, nullptr, argv, envp.data());
    close(report[1]);
    ASSERT_EQ(spawned, 0);

    // The report comes once the save is inside the log; end of file means
    // the child ended without getting there.
    pollfd ready{report[0], POLLIN, 0};
    char byte = 0;
    const bool stopped = poll(&ready, 1, 120000) == 1 && read(report[0], &byte, 1) == 1;
    close(report[0]);
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(stopped) << "the child never stopped inside its save";
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    logBytes[stop] = std::filesystem::file_size(file.string() + "-wal");

    RawDatabase raw(file);
    EXPECT_EQ(raw.value("PRAGMA integrity_check"), "ok");
    auto coordinator = open(file, makeTestModel(), migrationOptions(), nullptr);
    ASSERT_TRUE(coordinator);
    auto context = contextOn(coordinator);
    EXPECT_EQ(countOf(*context, "Post"), kCommittedPosts);
    EXPECT_TRUE(fetchAll(*context, "Post", "identifier BEGINSWITH 'doomed-'").empty());
  }
  // At the commit frame the log held the rest of the save, uncommitted.
  EXPECT_GT(logBytes["commit"], logBytes["first"] + 100 * 4096);
}

TEST(SQLiteStore, ArchivedValuesSurviveASaveAndDamagedOnesReadAsAbsent) {
  TestStore stack;
  auto context = stack.newContext();
  auto predicate = NSPredicate::predicateWithFormat("unread == YES AND ANY tags.title ==[cd] %@", {Value("Swift")});
  auto collection = context->insertNewObjectForEntityForName("Collection");
  collection->setValueForKey(Value("Unread Swift"), "title");
  collection->setValueForKey(Value(predicate), "predicate");
  auto listed = context->insertNewObjectForEntityForName("Collection");
  listed->setValueForKey(Value("Listed"), "title");
  listed->setValueForKey(Value(Array{Value("a"), Value(2), Value(Dictionary{{"k", Value(true)}})}), "predicate");
  auto unarchivable = context->insertNewObjectForEntityForName("Collection");
  unarchivable->setValueForKey(Value(NSError::create("domain", 1)), "predicate");
  NSErrorPtr error;
  EXPECT_FALSE(context->save(&error)) << "an error object cannot be archived";
  EXPECT_EQ(error->code(), NSPersistentStoreSaveError);
  context->deleteObject(unarchivable);
  ASSERT_TRUE(context->save(&error)) << error->description();

  auto reader = NSManagedObjectContext::create(NSConfinementConcurrencyType);
  reader->setPersistentStoreCoordinator(stack.reopen());
  auto read = fetchAll(*reader, "Collection", "title == 'Unread Swift'");
  ASSERT_EQ(read.size(), 1u);
  auto stored = valueForKey(read[0], "predicate").as<NSPredicate>();
  ASSERT_TRUE(stored);
  EXPECT_TRUE(stored->isEqual(*predicate));
  EXPECT_EQ(stored->predicateFormat(), predicate->predicateFormat());
  // Archived values are compared in memory.
  EXPECT_EQ(fetchAll(*reader, "Collection", "predicate == %@", {Value(predicate)}).size(), 1u);
  EXPECT_EQ(valueForKey(fetchAll(*reader, "Collection", "title == 'Listed'")[0], "predicate"),
            Value(Array{Value("a"), Value(2), Value(Dictionary{{"k", Value(true)}})}));

  RawDatabase raw(stack.file);
  ASSERT_EQ(raw.exec("UPDATE Collection SET predicate = X'62706C6973743030DEADBEEF'"), SQLITE_OK);
  auto damaged = NSManagedObjectContext::create(NSConfinementConcurrencyType);
  damaged->setPersistentStoreCoordinator(stack.reopen());
  auto all = fetchAll(*damaged, "Collection");
  ASSERT_EQ(all.size(), 2u);
  for (auto& object : all) EXPECT_TRUE(valueForKey(object, "predicate").isAbsent());
}

// Counting by flags reads a narrow covering index rather than the table,
// while a date range keeps its own index and a text search scans the table
// (walking any index there would add a lookup per row).
TEST(SQLiteStore, ACoveringIndexServesFlagCountsWithoutStealingOtherQueries) {
  auto item = NSEntityDescription::create("Item");
  item->addAttribute("title", NSAttributeType::String);
  item->addAttribute("date", NSAttributeType::Date, {.indexed = true});
  item->addAttribute("deleting", NSAttributeType::Boolean);
  item->addAttribute("shared", NSAttributeType::Boolean);
  item->addAttribute("starred", NSAttributeType::Boolean, {.indexed = true});
  item->addCoveringIndex({"deleting", "shared", "starred"});
  auto model = NSManagedObjectModel::create({item});
  TemporaryDirectory directory;
  auto file = directory.path() / "Items.sqlite";
  auto coordinator = NSPersistentStoreCoordinator::create(model);
  NSErrorPtr error;
  ASSERT_TRUE(coordinator->addPersistentStoreWithType(NSSQLiteStoreType, "", NSURL::fileURLWithPath(file.string()), {},
                                                      &error));
  auto context = NSManagedObjectContext::create(NSConfinementConcurrencyType);
  context->setPersistentStoreCoordinator(coordinator);
  for (int i = 0; i < 2000; ++i) {
    auto object = context->insertNewObjectForEntityForName("Item");
    object->setValueForKey(Value("Item number " + std::to_string(i)), "title");
    object->setValueForKey(Value(NSDate(60.0 * i)), "date");
    object->setValueForKey(Value(i % 50 == 0), "deleting");
    object->setValueForKey(Value(i % 3 == 0), "shared");
    object->setValueForKey(Value(i % 20 == 0), "starred");
  }
  ASSERT_TRUE(context->save(&error)) << error->description();

  RawDatabase raw(file);
  auto plan = [&](const std::string& where) {
    std::string joined;
    for (auto& detail : raw.column("EXPLAIN QUERY PLAN SELECT COUNT(*) FROM \"Item\" t0 WHERE " + where, 3)) {
      joined += detail + "; ";
    }
    return joined;
  };
  auto uses = [](const std::string& plan, const std::string& what) { return plan.find(what) != std::string::npos; };
  const std::string covering = "COVERING INDEX Z_Item_covering_deleting_shared_starred";
  EXPECT_PRED2(uses, plan("t0.\"deleting\" = 0"), covering);
  EXPECT_PRED2(uses, plan("t0.\"deleting\" = 0 AND t0.\"shared\" = 1"), covering);
  EXPECT_PRED2(uses, plan("t0.\"deleting\" = 0 AND t0.\"date\" >= 1000"), "INDEX Z_Item_date (date>?)");
  EXPECT_PRED2(uses, plan("t0.\"deleting\" = 0 AND t0.\"shared\" = 0 AND t0.\"date\" >= 1000"),
               "INDEX Z_Item_date (date>?)");
  EXPECT_PRED2(uses, plan("t0.\"starred\" = 1 AND t0.\"deleting\" = 0"), "INDEX Z_Item_starred (starred=?)");
  auto text = plan("t0.\"deleting\" = 0 AND instr(t0.\"title\", 'number 12') > 0");
  EXPECT_TRUE(uses(text, "SCAN t0") && !uses(text, "INDEX")) << text;

  // The counts themselves, through the store.
  auto count = [&](const char* format) {
    auto request = NSFetchRequest::fetchRequestWithEntityName("Item");
    request->setPredicate(NSPredicate::predicateWithFormat(format));
    return context->countForFetchRequest(request);
  };
  EXPECT_EQ(count("deleting == NO AND shared == YES"), 653);
  EXPECT_EQ(count("deleting == NO AND starred == YES"), 80);
}
