// Predicates through the keyed archiver: what collections and backups store.

#include <gtest/gtest.h>

#include <random>

#include "platform/archive/NSKeyedArchiver.h"
#include "platform/archive/NSKeyedUnarchiver.h"
#include "platform/foundation/NSPropertyListSerialization.h"
#include "platform/predicate/NSComparisonPredicate.h"
#include "platform/predicate/NSCompoundPredicate.h"
#include "platform/predicate/NSPredicate.h"

namespace {

Data archive(const NSPredicatePtr& p) {
  NSErrorPtr error;
  Data data = NSKeyedArchiver::archivedDataWithRootObject(Value(p), &error);
  EXPECT_FALSE(data.empty()) << p->predicateFormat() << ": " << (error ? error->localizedDescription() : "");
  return data;
}

NSPredicatePtr unarchive(const Data& data, NSErrorPtr* error = nullptr) {
  return NSKeyedUnarchiver::unarchivedObjectOfClasses({"NSPredicate"}, data, error).as<NSPredicate>();
}

// Rewrites the archived object that holds key so that key holds value.
Data tamper(const Data& data, const std::string& key, const Value& value) {
  Value plist = NSPropertyListSerialization::propertyListWithData(data);
  Dictionary root = plist.asDictionary();
  Array objects = root["$objects"].asArray();
  for (Value& object : objects) {
    if (object.isDictionary() && object.asDictionary().contains(key)) {
      Dictionary fields = object.asDictionary();
      fields.set(key, value);
      object = Value(std::move(fields));
      break;
    }
  }
  root.set("$objects", Value(std::move(objects)));
  return NSPropertyListSerialization::dataWithPropertyList(Value(std::move(root)), NSPropertyListFormat::Binary_v1_0);
}

}  // namespace

TEST(PredicateArchiving, DecodingGivesAnEqualPredicate) {
  const char* formats[] = {
      "shared == NO", "tags.@count == 0", "deleting == NO AND (unread == YES OR starred == YES)",
      "relative_date < $7__days", "NOT ANY tags.title ==[cd] 'Swift'", "ALL tags.title BEGINSWITH[n] 'a'",
      "title LIKE[cd] '*café*' OR title MATCHES '.*x.*'", "date >= CAST(725760000.25, 'NSDate')",
      "x BETWEEN {1, 2.5}", "x IN {'a', nil, {1, 2}}", "TRUEPREDICATE", "FALSEPREDICATE OR NOT TRUEPREDICATE",
      "SELF == $obj", "$v.title == 1", "(a + b) * -c ** 2 == d / 4", "a[FIRST] == a[SIZE]",
      "sum:(list) > now()", "CAST(x, 'NSString') == '1'", "x IN {$a, 1}",
      "SUBQUERY(tags, $t, $t.title CONTAINS 'a' AND $t.posts.@count > 1).@count > 0",
      "FUNCTION(a, 'pow:', 2) == FUNCTION(SELF, 'pow:', 2)", "a & 1 | b << 2 == c ^ d >> 1",
  };
  for (const char* format : formats) {
    SCOPED_TRACE(format);
    auto p = NSPredicate::predicateWithFormat(format);
    ASSERT_TRUE(p);
    auto decoded = unarchive(archive(p));
    ASSERT_TRUE(decoded);
    EXPECT_TRUE(decoded->isEqual(*p));
    EXPECT_EQ(decoded->predicateFormat(), p->predicateFormat());
  }
  // Values that have no literal form survive too: sets, data, n-ary compounds.
  auto p = NSCompoundPredicate::andPredicateWithSubpredicates(
      {NSPredicate::predicateWithFormat("x IN %@", {Set{"a", "b"}}),
       NSPredicate::predicateWithFormat("y == %@", {Data{1, 2, 3}}),
       NSPredicate::predicateWithFormat("z == %@", {Dictionary{{"k", 1}}}),
       NSPredicate::predicateWithFormat("w == 1")});
  auto decoded = unarchive(archive(p));
  ASSERT_TRUE(decoded);
  EXPECT_TRUE(decoded->isEqual(*p));
  EXPECT_TRUE(decoded->evaluateWithObject(Value(Dictionary{{"x", "b"}, {"y", Data{1, 2, 3}}, {"z", Dictionary{{"k", 1}}}, {"w", 1}})));
  // Decoded predicates work: a decoded regex still compiles and matches.
  auto regex = unarchive(archive(NSPredicate::predicateWithFormat("t MATCHES[c] 'ab+'")));
  ASSERT_TRUE(regex);
  EXPECT_TRUE(regex->evaluateWithObject(Value(Dictionary{{"t", "ABBB"}})));
  // Expressions archive on their own as well.
  auto e = NSExpression::expressionWithFormat("tags.@count + $n");
  Value back = NSKeyedUnarchiver::unarchivedObjectOfClass("NSExpression", NSKeyedArchiver::archivedDataWithRootObject(Value(e)));
  ASSERT_TRUE(back.as<NSExpression>());
  EXPECT_TRUE(back.as<NSExpression>()->isEqual(*e));
}

TEST(PredicateArchiving, DisallowedClassesAndDamagedBytesGiveNothing) {
  auto p = NSPredicate::predicateWithFormat("a == 1 AND ANY tags.title ==[c] 'x'");
  Data data = archive(p);
  NSErrorPtr error;
  EXPECT_TRUE(NSKeyedUnarchiver::unarchivedObjectOfClasses({"NSString"}, data, &error).isAbsent());
  EXPECT_TRUE(error);
  EXPECT_TRUE(NSKeyedUnarchiver::unarchivedObjectOfClasses({"NSComparisonPredicate"}, data).isAbsent());
  EXPECT_TRUE(NSKeyedUnarchiver::unarchivedObjectOfClasses({"NSCompoundPredicate"}, data).as<NSPredicate>());

  // Values the decoder must refuse.
  const std::pair<std::string, Value> tampered[] = {
      {"NSPredicateOperatorType", 55},  {"NSPredicateOperatorType", -1},  {"NSPredicateOperatorType", "x"},
      {"NSModifier", 3},                {"NSOptions", 0x100},             {"NSCompoundPredicateType", 7},
      {"NSExpressionType", 42},         {"NSLeftExpression", Value(Dictionary{{"CF$UID", 0}})},
      {"NSSubpredicates", Value(Dictionary{{"CF$UID", 0}})},              {"NSName", 5},
  };
  for (const auto& [key, value] : tampered) {
    SCOPED_TRACE(key + " = " + value.description());
    error = nullptr;
    EXPECT_FALSE(unarchive(tamper(data, key, value), &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), NSCoderReadCorruptError);
  }

  // Random damage: never a crash; anything decoded is a usable predicate.
  std::mt19937 random(1234);
  for (int round = 0; round < 2000; ++round) {
    Data damaged = data;
    if (round % 3 == 0) damaged.resize(random() % damaged.size());
    int flips = 1 + static_cast<int>(random() % 4);
    for (int i = 0; i < flips && !damaged.empty(); ++i) damaged[random() % damaged.size()] ^= static_cast<std::uint8_t>(1u << (random() % 8));
    if (auto decoded = unarchive(damaged)) {
      decoded->predicateFormat();
      decoded->evaluateWithObject(Value(Dictionary{{"a", 1}}));
    }
  }
}

TEST(PredicateArchiving, ConstantsThatCannotBeArchivedFailCleanly) {
  class Opaque final : public NSObject {};
  auto p = NSPredicate::predicateWithFormat("SELF == %@", {Value(std::make_shared<Opaque>())});
  ASSERT_TRUE(p);
  NSErrorPtr error;
  EXPECT_TRUE(NSKeyedArchiver::archivedDataWithRootObject(Value(p), &error).empty());
  EXPECT_TRUE(error);
}
