#include <gtest/gtest.h>

#include <limits>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "platform/archive/NSKeyedArchiver.h"
#include "platform/archive/NSKeyedUnarchiver.h"
#include "platform/foundation/NSPropertyListSerialization.h"
#include "support/TogetherThreads.h"

namespace {

const std::set<std::string> kStandard = {"NSString", "NSNumber", "NSDate", "NSData", "NSArray",
                                         "NSDictionary", "NSSet", "NSNull"};

class TestBookmark final : public NSObject, public NSCoding {
public:
  std::string title;
  Value tags;
  std::int64_t count = 0;
  bool flag = false;
  double ratio = 0;
  Value child;
  Value dollar;

  std::string className() const override { return "TestBookmark"; }
  void encodeWithCoder(NSKeyedArchiver& coder) const override {
    coder.encodeObject(Value(title), "title");
    coder.encodeObject(tags, "tags");
    coder.encodeInt64(count, "count");
    coder.encodeBool(flag, "flag");
    coder.encodeDouble(ratio, "ratio");
    coder.encodeObject(child, "child");
    coder.encodeObject(dollar, "$class");  // a key the format reserves
  }
  static void registerForCoding() {
    static std::once_flag once;
    std::call_once(once, [] {
      NSKeyedUnarchiver::registerClass("TestBookmark", {"TestItem"}, [](NSKeyedUnarchiver& coder, NSErrorPtr*) {
        auto object = std::make_shared<TestBookmark>();
        object->title = coder.decodeObjectOfClass("NSString", "title").asString();
        object->tags = coder.decodeObjectOfClasses({"NSArray", "NSString"}, "tags");
        object->count = coder.decodeInt64ForKey("count");
        object->flag = coder.decodeBoolForKey("flag");
        object->ratio = coder.decodeDoubleForKey("ratio");
        object->child = coder.decodeObjectOfClass("TestItem", "child");
        object->dollar = coder.decodeObjectForKey("$class");
        return object;
      });
      // Insists on a key, the way a class with a required property would.
      NSKeyedUnarchiver::registerClass("TestStrict", {}, [](NSKeyedUnarchiver& coder, NSErrorPtr* error) {
        if (!coder.containsValueForKey("required")) {
          *error = NSError::create("TestDomain", 1, "required is missing");
          return std::shared_ptr<NSObject>();
        }
        return std::make_shared<NSObject>();
      });
    });
  }
};

class TestStrict final : public NSObject, public NSCoding {
public:
  bool writeRequired = true;
  std::string className() const override { return "TestStrict"; }
  void encodeWithCoder(NSKeyedArchiver& coder) const override {
    if (writeRequired) coder.encodeBool(true, "required");
  }
};

class TestUnregistered final : public NSObject, public NSCoding {
public:
  std::string className() const override { return "TestUnregistered"; }
  void encodeWithCoder(NSKeyedArchiver&) const override {}
};

class TestSelfContaining final : public NSObject, public NSCoding {
public:
  std::shared_ptr<NSObject> inner;
  std::string className() const override { return "TestSelfContaining"; }
  void encodeWithCoder(NSKeyedArchiver& coder) const override { coder.encodeObject(Value(inner), "inner"); }
};

Value sample() {
  return Value(Dictionary{
      {"string", "\u00e9t\u00e9 \U0001F30D \"quoted\" $null"},
      {"empty", ""},
      {"true", true},
      {"false", false},
      {"min", std::numeric_limits<std::int64_t>::min()},
      {"max", std::numeric_limits<std::int64_t>::max()},
      {"double", 2.718281828459045},
      {"date", Value(NSDate(-123456789.000123))},
      {"future", Value(NSDate(4e9 + 0.5))},  // beyond what a property-list date holds
      {"data", Value(Data{0, 1, 0xFE, 0xFF})},
      {"null", Value::null()},
      {"set", Value(Set{1, "one", 1.5})},
      {"array", Value(Array{"a", "a", Value(Array{}), Value(Dictionary{{"k", Value(Array{Value::null()})}})})},
      {"$dollar", "keys with a dollar sign stay as they are"},
  });
}

// The archive's property list, for tests that look at or doctor the layout.
Dictionary layoutOf(const Data& archive) {
  return NSPropertyListSerialization::propertyListWithData(archive).asDictionary();
}
Data rebuild(const Dictionary& layout) {
  return NSPropertyListSerialization::dataWithPropertyList(Value(layout), NSPropertyListFormat::Binary_v1_0);
}
Value uid(std::int64_t index) { return Value(Dictionary{{"CF$UID", index}}); }
Value classEntry(const std::string& name, Array classes) {
  return Value(Dictionary{{"$classname", name}, {"$classes", Value(std::move(classes))}});
}
Data archiveWithObjects(Array objects, Value root = uid(1)) {
  return rebuild(Dictionary{{"$archiver", "NSKeyedArchiver"},
                            {"$version", 100000},
                            {"$top", Value(Dictionary{{"root", root}})},
                            {"$objects", Value(std::move(objects))}});
}

void expectCorrupt(const Data& data, const std::string& what, const std::set<std::string>& allowed = {"NSObject"}) {
  NSErrorPtr error;
  Value value = NSKeyedUnarchiver::unarchivedObjectOfClasses(allowed, data, &error);
  EXPECT_TRUE(value.isAbsent()) << what << ": " << value.description();
  ASSERT_TRUE(error) << what;
  EXPECT_EQ(error->domain(), NSCocoaErrorDomain) << what;
  EXPECT_EQ(error->code(), NSCoderReadCorruptError) << what;
}

}  // namespace

TEST(KeyedArchive, RoundTripsEveryStandardType) {
  NSErrorPtr error;
  Data archive = NSKeyedArchiver::archivedDataWithRootObject(sample(), &error);
  ASSERT_FALSE(archive.empty()) << (error ? error->description() : "");
  Value back = NSKeyedUnarchiver::unarchivedObjectOfClasses(kStandard, archive, &error);
  ASSERT_FALSE(error) << error->description();
  EXPECT_EQ(back, sample()) << back.description();
  const Dictionary& d = back.asDictionary();
  // Dates keep full double precision; numbers keep their kind.
  EXPECT_EQ(d["date"].asDate().timeIntervalSinceReferenceDate(), -123456789.000123);
  EXPECT_TRUE(d["true"].isBool());
  EXPECT_TRUE(d["max"].isInteger());
  EXPECT_TRUE(d["null"].isNull());

  // Scalars at the root, and an absent root, which reads back absent without error.
  for (Value root : {Value("root string"), Value(42), Value(NSDate(1.5)), Value::null()}) {
    Data data = NSKeyedArchiver::archivedDataWithRootObject(root);
    EXPECT_EQ(NSKeyedUnarchiver::unarchivedObjectOfClasses(kStandard, data), root) << root.description();
  }
  Data ofNothing = NSKeyedArchiver::archivedDataWithRootObject(Value());
  ASSERT_FALSE(ofNothing.empty());
  error = nullptr;
  EXPECT_TRUE(NSKeyedUnarchiver::unarchivedObjectOfClasses(kStandard, ofNothing, &error).isAbsent());
  EXPECT_FALSE(error);
}

TEST(KeyedArchive, WritesTheStandardLayout) {
  Data archive = NSKeyedArchiver::archivedDataWithRootObject(Value(Array{"x", "x", Value(NSDate(2.0))}));
  NSPropertyListFormat format{};
  Value plist = NSPropertyListSerialization::propertyListWithData(archive, &format);
  EXPECT_EQ(format, NSPropertyListFormat::Binary_v1_0);
  const Dictionary& layout = plist.asDictionary();
  EXPECT_EQ(layout["$archiver"], Value("NSKeyedArchiver"));
  EXPECT_EQ(layout["$version"], Value(100000));
  const Array& objects = layout["$objects"].asArray();
  ASSERT_FALSE(objects.empty());
  EXPECT_EQ(objects[0], Value("$null"));
  const Value& rootRef = layout["$top"].asDictionary()["root"];
  std::int64_t root = rootRef.asDictionary()["CF$UID"].integerValue();
  ASSERT_GT(root, 0);
  const Dictionary& array = objects[static_cast<std::size_t>(root)].asDictionary();
  const Array& elements = array["NS.objects"].asArray();
  ASSERT_EQ(elements.size(), 3u);
  EXPECT_EQ(elements[0], elements[1]);  // equal strings are stored once
  std::int64_t classIndex = array["$class"].asDictionary()["CF$UID"].integerValue();
  EXPECT_EQ(objects[static_cast<std::size_t>(classIndex)],
            classEntry("NSArray", Array{"NSArray", "NSObject"}));
  std::int64_t dateIndex = elements[2].asDictionary()["CF$UID"].integerValue();
  EXPECT_EQ(objects[static_cast<std::size_t>(dateIndex)].asDictionary()["NS.time"], Value(2.0));
}

TEST(KeyedArchive, AllowedClassesDecideWhatDecodes) {
  TestBookmark::registerForCoding();
  Data strings = NSKeyedArchiver::archivedDataWithRootObject(Value(Array{"a", "b"}));
  EXPECT_TRUE(NSKeyedUnarchiver::unarchivedObjectOfClasses({"NSArray", "NSString"}, strings).isArray());
  expectCorrupt(strings, "element class not allowed", {"NSArray"});
  expectCorrupt(strings, "root class not allowed", {"NSString"});
  EXPECT_TRUE(NSKeyedUnarchiver::unarchivedObjectOfClass("NSObject", strings).isArray());

  // Dictionary keys are strings and always admitted; values are checked.
  Data dict = NSKeyedArchiver::archivedDataWithRootObject(Value(Dictionary{{"k", 1}}));
  EXPECT_TRUE(NSKeyedUnarchiver::unarchivedObjectOfClasses({"NSDictionary", "NSNumber"}, dict).isDictionary());
  expectCorrupt(dict, "dictionary value not allowed", {"NSDictionary"});

  // Mutable variants count as their immutable ancestors.
  Dictionary layout = layoutOf(strings);
  Array objects = layout["$objects"].asArray();
  for (Value& object : objects) {
    if (object.isDictionary() && object.asDictionary()["$classname"] == Value("NSArray"))
      object = classEntry("NSMutableArray", Array{"NSMutableArray", "NSArray", "NSObject"});
  }
  layout.set("$objects", Value(objects));
  EXPECT_EQ(NSKeyedUnarchiver::unarchivedObjectOfClasses({"NSArray", "NSString"}, rebuild(layout)),
            Value(Array{"a", "b"}));

  // A registered class is admitted through its registered ancestors, never
  // through ancestors the archive claims for it.
  auto bookmark = std::make_shared<TestBookmark>();
  bookmark->title = "t";
  Data archived = NSKeyedArchiver::archivedDataWithRootObject(Value(bookmark));
  EXPECT_TRUE(NSKeyedUnarchiver::unarchivedObjectOfClass("TestItem", archived).as<TestBookmark>());
  expectCorrupt(archived, "registered class outside the set", kStandard);
  layout = layoutOf(archived);
  objects = layout["$objects"].asArray();
  for (Value& object : objects) {
    if (object.isDictionary() && object.asDictionary()["$classname"] == Value("TestBookmark"))
      object = classEntry("TestBookmark", Array{"TestBookmark", "NSString", "NSObject"});
  }
  layout.set("$objects", Value(objects));
  expectCorrupt(rebuild(layout), "forged ancestry", {"NSString"});
}

TEST(KeyedArchive, RegisteredClassesRoundTripWithSharedIdentity) {
  TestBookmark::registerForCoding();
  auto leaf = std::make_shared<TestBookmark>();
  leaf->title = "leaf";
  auto root = std::make_shared<TestBookmark>();
  root->title = "r\u00f6\u00f6t";
  root->tags = Value(Array{"a", "b"});
  root->count = std::numeric_limits<std::int64_t>::min();
  root->flag = true;
  root->ratio = -0.125;
  root->child = Value(leaf);
  root->dollar = Value(Set{1});
  NSErrorPtr error;
  Data archive = NSKeyedArchiver::archivedDataWithRootObject(Value(Array{Value(root), Value(leaf)}), &error);
  ASSERT_FALSE(archive.empty()) << (error ? error->description() : "");
  Value back = NSKeyedUnarchiver::unarchivedObjectOfClasses({"NSArray", "TestItem", "NSSet", "NSNumber"}, archive,
                                                            &error);
  ASSERT_TRUE(back.isArray()) << (error ? error->description() : "");
  auto decoded = back.asArray()[0].as<TestBookmark>();
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->title, root->title);
  EXPECT_EQ(decoded->tags, root->tags);
  EXPECT_EQ(decoded->count, root->count);
  EXPECT_TRUE(decoded->flag);
  EXPECT_EQ(decoded->ratio, -0.125);
  EXPECT_EQ(decoded->dollar, root->dollar);
  // The leaf was archived once and comes back as one object.
  auto decodedLeaf = decoded->child.as<TestBookmark>();
  ASSERT_TRUE(decodedLeaf);
  EXPECT_EQ(decodedLeaf->title, "leaf");
  EXPECT_EQ(decodedLeaf, back.asArray()[1].as<TestBookmark>());

  // A decoder's own class restriction applies to its fields: tags must not hold numbers.
  root->tags = Value(Array{1});
  expectCorrupt(NSKeyedArchiver::archivedDataWithRootObject(Value(root)), "field of a disallowed class");
  // A decoder's failure fails the whole decoding, carrying its error.
  auto strict = std::make_shared<TestStrict>();
  EXPECT_TRUE(NSKeyedUnarchiver::unarchivedObjectOfClass("NSObject", NSKeyedArchiver::archivedDataWithRootObject(Value(strict))));
  strict->writeRequired = false;
  error = nullptr;
  EXPECT_TRUE(NSKeyedUnarchiver::unarchivedObjectOfClass("NSObject", NSKeyedArchiver::archivedDataWithRootObject(Value(strict)),
                                                         &error)
                  .isAbsent());
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), "TestDomain");
  // A class nobody registered cannot be decoded at all.
  expectCorrupt(NSKeyedArchiver::archivedDataWithRootObject(Value(std::make_shared<TestUnregistered>())),
                "unregistered class");
}

TEST(KeyedArchive, RefusesToArchiveWhatItCannotRepresent) {
  auto expectFailure = [](const Value& root, std::int64_t code, const std::string& what) {
    NSErrorPtr error;
    EXPECT_TRUE(NSKeyedArchiver::archivedDataWithRootObject(root, &error).empty()) << what;
    ASSERT_TRUE(error) << what;
    EXPECT_EQ(error->code(), code) << what;
  };
  expectFailure(Value(std::make_shared<NSObject>()), NSCoderInvalidValueError, "object without NSCoding");
  auto loop = std::make_shared<TestSelfContaining>();
  loop->inner = loop;
  expectFailure(Value(loop), NSCoderInvalidValueError, "object containing itself");
  loop->inner.reset();
  Value deep = Value(Array{});
  for (std::size_t i = 0; i < ZBKeyedArchiveMaxDepth + 1; ++i) deep = Value(Array{deep});
  expectFailure(deep, NSCoderInvalidValueError, "nesting too deep");
  expectFailure(Value(Array{Value(std::string("\xc0\xaf"))}), NSPropertyListWriteInvalidError, "invalid UTF-8");
}

TEST(KeyedArchive, RefusesDamagedAndHostileArchives) {
  TestBookmark::registerForCoding();
  expectCorrupt({}, "empty");
  expectCorrupt(Data{'b', 'p', 'l', 'i', 's', 't', '0', '0'}, "bare header");
  expectCorrupt(NSPropertyListSerialization::dataWithPropertyList(Value(Array{1}), NSPropertyListFormat::Binary_v1_0),
                "a property list that is no archive");

  auto bookmark = std::make_shared<TestBookmark>();
  bookmark->tags = Value(Array{"x"});
  Data valid = NSKeyedArchiver::archivedDataWithRootObject(Value(Array{sample(), Value(bookmark)}));
  for (std::size_t cut = 0; cut < valid.size(); ++cut)
    expectCorrupt(Data(valid.begin(), valid.begin() + static_cast<std::ptrdiff_t>(cut)), "truncated");

  // Damage anywhere: a value or an error, never a crash.
  std::mt19937 random(7);
  for (int round = 0; round < 3000; ++round) {
    Data damaged = valid;
    for (int flips = 1 + round % 4; flips > 0; --flips)
      damaged[random() % damaged.size()] = static_cast<std::uint8_t>(random());
    NSErrorPtr error;
    Value value = NSKeyedUnarchiver::unarchivedObjectOfClasses({"NSObject"}, damaged, &error);
    EXPECT_TRUE(!error || value.isAbsent());
  }

  Value arrayClass = classEntry("NSArray", Array{"NSArray", "NSObject"});
  auto array = [&](Array refs) { return Value(Dictionary{{"$class", uid(2)}, {"NS.objects", Value(std::move(refs))}}); };
  expectCorrupt(archiveWithObjects({"$null", array({uid(9)}), arrayClass}), "reference out of range");
  expectCorrupt(archiveWithObjects({"$null", array({uid(1)}), arrayClass}), "array containing itself");
  expectCorrupt(archiveWithObjects({"$null", array({uid(3)}), arrayClass, array({uid(1)})}), "two-object cycle");
  expectCorrupt(archiveWithObjects({"$null", array({"inline"}), arrayClass}), "element that is no reference");
  expectCorrupt(archiveWithObjects({"$null", Value(Dictionary{{"$class", uid(2)}}), arrayClass}), "no NS.objects");
  expectCorrupt(archiveWithObjects({"$null", Value(Dictionary{{"$class", uid(1)}}), arrayClass}), "class is itself");
  expectCorrupt(archiveWithObjects({"$null", Value(Dictionary{{"$class", uid(2)}}), "NSArray"}), "class not a dict");
  expectCorrupt(archiveWithObjects({"$null", Value(Dictionary{{"NS.objects", Value(Array{})}})}), "no $class");
  expectCorrupt(archiveWithObjects({"$null", Value(Array{})}), "bare array object");
  expectCorrupt(archiveWithObjects({"$null", "x"}, Value("inline root")), "root not a reference");
  expectCorrupt(archiveWithObjects({"not null", "x"}), "index 0 not $null");
  Value dictClass = classEntry("NSDictionary", Array{"NSDictionary", "NSObject"});
  expectCorrupt(archiveWithObjects({"$null",
                                    Value(Dictionary{{"$class", uid(2)},
                                                     {"NS.keys", Value(Array{uid(3)})},
                                                     {"NS.objects", Value(Array{})}}),
                                    dictClass, "k"}),
                "keys and values of different counts");
  expectCorrupt(archiveWithObjects({"$null",
                                    Value(Dictionary{{"$class", uid(2)},
                                                     {"NS.keys", Value(Array{uid(3)})},
                                                     {"NS.objects", Value(Array{uid(3)})}}),
                                    dictClass, 5}),
                "number as dictionary key");
  expectCorrupt(archiveWithObjects({"$null", Value(Dictionary{{"$class", uid(2)}, {"NS.time", "soon"}}),
                                    classEntry("NSDate", Array{"NSDate", "NSObject"})}),
                "date without a time");
  expectCorrupt(archiveWithObjects({"$null",
                                    Value(Dictionary{{"$class", uid(2)}, {"count", "many"}, {"title", uid(0)}}),
                                    classEntry("TestBookmark", Array{"TestBookmark", "NSObject"})}),
                "registered class with a field of the wrong type");

  // A chain nested beyond the limit fails cleanly.
  Array chain{"$null", "unused", arrayClass};
  for (std::int64_t i = 3; i < 5003; ++i) chain.push_back(array({uid(i + 1)}));
  chain.push_back(array({}));
  expectCorrupt(archiveWithObjects(chain, uid(3)), "deep chain");

  // Each level refers to the next twice. Moderate sharing decodes (to shared
  // containers); sharing that expands beyond the limit is refused, since
  // hashing or comparing the result would never finish.
  auto doubling = [&](std::int64_t levels) {
    Array objects{"$null", "unused", arrayClass};
    for (std::int64_t i = 3; i < 3 + levels; ++i) objects.push_back(array({uid(i + 1), uid(i + 1)}));
    objects.push_back(true);
    return archiveWithObjects(objects, uid(3));
  };
  NSErrorPtr error;
  Value shared = NSKeyedUnarchiver::unarchivedObjectOfClasses({"NSArray", "NSNumber"}, doubling(10), &error);
  ASSERT_TRUE(shared.isArray()) << (error ? error->description() : "");
  Value leaf = shared;
  for (int level = 0; level < 10; ++level) leaf = leaf.asArray()[1];
  EXPECT_EQ(leaf, Value(true));
  expectCorrupt(doubling(64), "exponential sharing");
  // The same inside a set, whose construction hashes its elements.
  Array setOfDoubling{"$null", "unused", arrayClass, Value(Dictionary{{"$class", uid(4)}, {"NS.objects", Value(Array{uid(5)})}}),
                      classEntry("NSSet", Array{"NSSet", "NSObject"})};
  for (std::int64_t i = 5; i < 5 + 64; ++i) setOfDoubling.push_back(array({uid(i + 1), uid(i + 1)}));
  setOfDoubling.push_back(true);
  expectCorrupt(archiveWithObjects(setOfDoubling, uid(3)), "exponential sharing in a set");
}

TEST(KeyedArchive, ArchivesAndRegistersFromSeveralThreadsAtOnce) {
  TestBookmark::registerForCoding();
  auto bookmark = std::make_shared<TestBookmark>();
  bookmark->title = "shared";
  Data archive = NSKeyedArchiver::archivedDataWithRootObject(Value(Array{Value(bookmark), sample()}));
  RunTogether(4, [&](int t) {
    for (int i = 0; i < 50; ++i) {
      // Registrations of other classes while decoding goes on elsewhere.
      NSKeyedUnarchiver::registerClass("TestThread" + std::to_string(t), {"TestItem"},
                                       [](NSKeyedUnarchiver&, NSErrorPtr*) { return std::make_shared<NSObject>(); });
      Value back = NSKeyedUnarchiver::unarchivedObjectOfClasses({"NSObject"}, archive);
      ASSERT_TRUE(back.isArray());
      EXPECT_EQ(back.asArray()[0].as<TestBookmark>()->title, "shared");
      EXPECT_EQ(NSKeyedArchiver::archivedDataWithRootObject(back.asArray()[1]).empty(), false);
    }
  });
}
