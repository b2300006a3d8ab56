#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "platform/foundation/NSUserDefaults.h"
#include "support/TemporaryDirectory.h"
#include "support/TogetherThreads.h"

namespace {

std::string contentsOf(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeFile(const std::filesystem::path& file, const std::string& text) {
  std::ofstream out(file, std::ios::binary);
  out << text;
}

}  // namespace

TEST(UserDefaults, PersistentValuesHideRegisteredOnesAndRemovalUncoversThem) {
  TemporaryDirectory dir;
  auto defaults = NSUserDefaults::create(dir / "defaults.plist");
  defaults->registerDefaults(Dictionary{{"interval", 300}, {"baseURL", "https://api.example"}});
  EXPECT_EQ(defaults->integerForKey("interval"), 300);
  defaults->setInteger(60, "interval");
  EXPECT_EQ(defaults->integerForKey("interval"), 60);
  // Registering again does not override a persistent value.
  defaults->registerDefaults(Dictionary{{"interval", 900}});
  EXPECT_EQ(defaults->integerForKey("interval"), 60);
  defaults->removeObject("interval");
  EXPECT_EQ(defaults->integerForKey("interval"), 900);
  EXPECT_EQ(defaults->stringForKey("baseURL"), "https://api.example");
  EXPECT_TRUE(defaults->objectForKey("missing").isAbsent());
  EXPECT_FALSE(defaults->boolForKey("missing"));

  // Values a property list cannot hold are refused and change nothing.
  EXPECT_FALSE(defaults->setObject(Value(Set{1}), "baseURL"));
  EXPECT_FALSE(defaults->setObject(Value(Array{Value::null()}), "baseURL"));
  EXPECT_EQ(defaults->stringForKey("baseURL"), "https://api.example");
}

TEST(UserDefaults, ValuesSurviveARestart) {
  TemporaryDirectory dir;
  auto file = dir / "nested" / "dir" / "defaults.plist";  // directories are created on write
  Value nested(Dictionary{{"list", Value(Array{1, "two", 3.5})}, {"flag", false}});
  {
    auto defaults = NSUserDefaults::create(file);
    defaults->setObject(Value("s\u00fc\u00df"), "string");
    defaults->setBool(true, "bool");
    defaults->setInteger(std::numeric_limits<std::int64_t>::min(), "int");
    defaults->setDouble(0.1, "double");
    defaults->setObject(Value(NSDate(700000000)), "date");
    defaults->setObject(Value(Data{0, 255, 7}), "data");
    defaults->setObject(nested, "nested");
    NSErrorPtr error;
    ASSERT_TRUE(defaults->synchronize(&error)) << (error ? error->description() : "");
  }
  EXPECT_EQ(contentsOf(file).rfind("<?xml", 0), 0u);
  struct stat info {};
  ASSERT_EQ(::stat(file.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);

  auto restarted = NSUserDefaults::create(file);
  EXPECT_FALSE(restarted->lastError());
  EXPECT_EQ(restarted->stringForKey("string"), "s\u00fc\u00df");
  EXPECT_TRUE(restarted->objectForKey("bool").isBool());
  EXPECT_EQ(restarted->integerForKey("int"), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(restarted->doubleForKey("double"), 0.1);
  EXPECT_EQ(restarted->dateForKey("date"), NSDate(700000000));
  EXPECT_EQ(restarted->dataForKey("data"), (Data{0, 255, 7}));
  EXPECT_EQ(restarted->objectForKey("nested"), nested);

  // Changes not synchronised explicitly are kept when the object goes away.
  restarted->setInteger(5, "late");
  restarted.reset();
  EXPECT_EQ(NSUserDefaults::create(file)->integerForKey("late"), 5);
}

TEST(UserDefaults, DamagedFileShowsRegisteredValuesAndIsKeptUntilASuccessfulWrite) {
  TemporaryDirectory dir;
  auto file = dir / "defaults.plist";
  const std::string damaged = "<?xml version=\"1.0\"?><plist><dict><key>interval</key><integer>5</int";
  writeFile(file, damaged);

  auto defaults = NSUserDefaults::create(file);
  defaults->registerDefaults(Dictionary{{"interval", 300}});
  EXPECT_EQ(defaults->integerForKey("interval"), 300);
  NSErrorPtr loadError = defaults->lastError();
  ASSERT_TRUE(loadError);
  EXPECT_EQ(loadError->code(), NSFileReadCorruptFileError);
  EXPECT_EQ(loadError->userInfo()[NSFilePathErrorKey].asString(), file.string());
  ASSERT_TRUE(loadError->underlyingError());
  EXPECT_EQ(loadError->underlyingError()->code(), NSPropertyListReadCorruptError);

  // Reading, re-reading and synchronising with nothing to write leave it alone.
  NSErrorPtr error;
  EXPECT_FALSE(defaults->synchronize(&error));
  EXPECT_TRUE(error);
  EXPECT_EQ(contentsOf(file), damaged);

  // A root that is not a dictionary is damage too.
  writeFile(dir / "array.plist", "<plist><array/></plist>");
  EXPECT_TRUE(NSUserDefaults::create(dir / "array.plist")->lastError());

  // The first successful write replaces it with a valid file.
  defaults->setInteger(42, "interval");
  ASSERT_TRUE(defaults->synchronize(&error)) << (error ? error->description() : "");
  EXPECT_FALSE(defaults->lastError());
  auto reopened = NSUserDefaults::create(file);
  EXPECT_FALSE(reopened->lastError());
  EXPECT_EQ(reopened->persistentDomain(), (Dictionary{{"interval", 42}}));
}

TEST(UserDefaults, FailedWriteKeepsChangesPendingAndTheOldFile) {
  TemporaryDirectory dir;
  writeFile(dir / "blocker", "a file where a directory should be");
  auto defaults = NSUserDefaults::create(dir / "blocker" / "defaults.plist");
  defaults->setObject(Value("kept"), "key");
  NSErrorPtr error;
  EXPECT_FALSE(defaults->synchronize(&error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
  EXPECT_EQ(defaults->lastError(), error);
  EXPECT_EQ(defaults->stringForKey("key"), "kept");
  EXPECT_EQ(contentsOf(dir / "blocker"), "a file where a directory should be");
  // No temporary files are left behind next to the target.
  int entries = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(dir.path())) ++entries;
  EXPECT_EQ(entries, 1);
}

TEST(UserDefaults, ObjectsSharingAFileKeepEachOthersKeys) {
  TemporaryDirectory dir;
  auto file = dir / "defaults.plist";
  auto first = NSUserDefaults::create(file);
  auto second = NSUserDefaults::create(file);
  first->setObject(Value("a"), "fromFirst");
  first->setObject(Value("old"), "doomed");
  ASSERT_TRUE(first->synchronize());
  second->setObject(Value("b"), "fromSecond");
  ASSERT_TRUE(second->synchronize());  // re-reads the file before writing
  EXPECT_EQ(second->stringForKey("fromFirst"), "a");
  first->removeObject("doomed");
  ASSERT_TRUE(first->synchronize());
  EXPECT_EQ(first->stringForKey("fromSecond"), "b");

  auto third = NSUserDefaults::create(file);
  EXPECT_EQ(third->persistentDomain(), (Dictionary{{"fromFirst", "a"}, {"fromSecond", "b"}}));
}

TEST(UserDefaults, ConcurrentWritersAndReadersLoseNothing) {
  TemporaryDirectory dir;
  auto file = dir / "defaults.plist";
  auto defaults = NSUserDefaults::create(file);
  defaults->registerDefaults(Dictionary{{"shared", 0}});
  const int threads = 4, perThread = 100;
  RunTogether(threads, [&](int t) {
    for (int i = 0; i < perThread; ++i) {
      std::string key = "k" + std::to_string(t) + "_" + std::to_string(i);
      defaults->setInteger(i, key);
      defaults->setInteger(i, "shared");
      EXPECT_EQ(defaults->integerForKey(key), i);
      (void)defaults->dictionaryRepresentation();
      if (i % 25 == 0) defaults->synchronize();
    }
  });
  ASSERT_TRUE(defaults->synchronize());
  auto fresh = NSUserDefaults::create(file);
  for (int t = 0; t < threads; ++t) {
    for (int i = 0; i < perThread; ++i)
      EXPECT_EQ(fresh->integerForKey("k" + std::to_string(t) + "_" + std::to_string(i)), i);
  }
  EXPECT_EQ(fresh->integerForKey("shared"), perThread - 1);
}

TEST(UserDefaults, ObserversHearChangesFromSettersRegistrationAndReloads) {
  TemporaryDirectory dir;
  auto file = dir / "defaults.plist";
  auto defaults = NSUserDefaults::create(file);
  std::vector<Value> seen;
  auto token = defaults->addObserver("interval", NSKeyValueObservingOptions::New,
                                     [&](const std::string&, NSObject&, const NSKeyValueChange& change) {
                                       seen.push_back(change.newValue);
                                     });
  defaults->registerDefaults(Dictionary{{"interval", 300}});
  defaults->setInteger(60, "interval");
  defaults->setObject(Value(), "interval");  // back to the registered value
  ASSERT_TRUE(defaults->synchronize());
  // Another writer changes the file; a synchronize with nothing pending reloads it.
  auto other = NSUserDefaults::create(file);
  other->setInteger(7, "interval");
  ASSERT_TRUE(other->synchronize());
  ASSERT_TRUE(defaults->synchronize());
  EXPECT_EQ(seen, (std::vector<Value>{300, 60, 300, 7}));
  EXPECT_EQ(defaults->valueForKey("interval"), Value(7));
}

TEST(UserDefaults, StandardDefaultsFollowTheConfiguredPath) {
  TemporaryDirectory dir;
  NSUserDefaults::setStandardUserDefaultsPath(dir / "first.plist");
  auto standard = NSUserDefaults::standardUserDefaults();
  EXPECT_EQ(standard, NSUserDefaults::standardUserDefaults());
  EXPECT_EQ(standard->path(), dir / "first.plist");
  standard->setObject(Value("x"), "key");

  // Moving the path synchronises the old object and hands out a new one.
  NSUserDefaults::setStandardUserDefaultsPath(dir / "second.plist");
  EXPECT_EQ(NSUserDefaults::create(dir / "first.plist")->stringForKey("key"), "x");
  auto moved = NSUserDefaults::standardUserDefaults();
  EXPECT_NE(moved, standard);
  EXPECT_EQ(moved->path(), dir / "second.plist");
  EXPECT_TRUE(moved->objectForKey("key").isAbsent());

  // Without an explicit path the environment decides.
  const char* saved = std::getenv("ZBTARROW_DEFAULTS_PATH");
  std::string savedValue = saved ? saved : "";
  ::setenv("ZBTARROW_DEFAULTS_PATH", (dir / "env.plist").c_str(), 1);
  NSUserDefaults::setStandardUserDefaultsPath({});
  EXPECT_EQ(NSUserDefaults::standardUserDefaultsPath(), dir / "env.plist");
  ::unsetenv("ZBTARROW_DEFAULTS_PATH");
  std::string xdgPath = NSUserDefaults::standardUserDefaultsPath().string();
  EXPECT_NE(xdgPath.find("com.orvane.zbtarrowdata/defaults.plist"), std::string::npos);
  if (saved) ::setenv("ZBTARROW_DEFAULTS_PATH", savedValue.c_str(), 1);
  NSUserDefaults::setStandardUserDefaultsPath(dir / "unused.plist");
}
