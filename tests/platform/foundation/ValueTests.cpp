#include "platform/foundation/Value.h"

#include <gtest/gtest.h>

#include <limits>
#include <random>

TEST(Value, NumbersCompareByValueAcrossKindsAndHashAlike) {
  EXPECT_EQ(Value(true), Value(1));
  EXPECT_EQ(Value(1), Value(1.0));
  EXPECT_EQ(Value(false), Value(0.0));
  EXPECT_NE(Value(true), Value(2));
  EXPECT_EQ(Value(true).hash(), Value(1).hash());
  EXPECT_EQ(Value(1).hash(), Value(1.0).hash());

  // Large integers must not collapse through double rounding.
  const std::int64_t big = (std::int64_t{1} << 53) + 1;
  EXPECT_NE(Value(big), Value(static_cast<double>(big)));
  EXPECT_EQ(Value(big).compare(Value(static_cast<double>(big))), 1);
  EXPECT_EQ(Value(std::numeric_limits<std::int64_t>::max()).compare(Value(9.3e18)), -1);
  EXPECT_EQ(Value(-3).compare(Value(-2.5)), -1);
  EXPECT_EQ(Value(-2).compare(Value(-2.5)), 1);

  // A string never equals a number, and a date never equals its interval.
  EXPECT_NE(Value("1"), Value(1));
  EXPECT_NE(Value(NSDate(5)), Value(5.0));
  EXPECT_FALSE(Value("a").compare(Value(1)).has_value());
}

TEST(Value, AbsentNullAndPresence) {
  Value absent;
  EXPECT_FALSE(absent);
  EXPECT_TRUE(Value::null());
  EXPECT_NE(absent, Value::null());
  EXPECT_EQ(Value(std::shared_ptr<const Array>()).type(), Value::Type::Absent);
  // Wrong-type access yields empty values rather than throwing.
  EXPECT_EQ(Value(3).asString(), "");
  EXPECT_TRUE(Value("x").asArray().empty());
  EXPECT_EQ(Value("x").asObject(), nullptr);
}

TEST(Value, BoolAndNumberReadingsOfStrings) {
  EXPECT_TRUE(Value("YES").boolValue());
  EXPECT_TRUE(Value("  true").boolValue());
  EXPECT_TRUE(Value("007").boolValue());
  EXPECT_FALSE(Value("000").boolValue());
  EXPECT_FALSE(Value("no").boolValue());
  EXPECT_EQ(Value(" 42abc").integerValue(), 42);
  EXPECT_DOUBLE_EQ(Value("2.5").doubleValue(), 2.5);
  EXPECT_EQ(Value(1e30).integerValue(), std::numeric_limits<std::int64_t>::max());
}

TEST(Dictionary, KeepsKeysSortedUniqueAndDropsAbsentValues) {
  Dictionary d{{"b", 2}, {"a", 1}, {"b", 3}, {"c", Value()}};
  ASSERT_EQ(d.size(), 2u);
  EXPECT_EQ(d["b"], Value(3));  // the later duplicate wins
  EXPECT_FALSE(d.contains("c"));

  d.set("aa", "x");
  d.set("a", Value());  // absent removes
  d.set("z", Value::null());
  EXPECT_EQ(d.allKeys(), (std::vector<std::string>{"aa", "b", "z"}));
  EXPECT_EQ(d.nullFilteredDictionary().allKeys(), (std::vector<std::string>{"aa", "b"}));
  EXPECT_TRUE(d["missing"].isAbsent());

  // Order of construction does not matter for equality or hashing.
  Dictionary e;
  e.set("z", Value::null());
  e.set("b", 3.0);
  e.set("aa", "x");
  EXPECT_TRUE(d == e);
  EXPECT_EQ(Value(d).hash(), Value(e).hash());

  // Entries handed over as sorted must still end up sorted, unique and
  // present when they are not: lookups depend on it.
  using Entries = std::vector<Dictionary::Entry>;
  EXPECT_TRUE(Dictionary::fromSortedEntries(Entries{{"aa", "x"}, {"b", 3}, {"z", Value::null()}}) == d);
  Dictionary unsorted = Dictionary::fromSortedEntries(Entries{{"z", Value::null()}, {"b", 2}, {"aa", "x"}, {"b", 3}});
  EXPECT_TRUE(unsorted == d);
  EXPECT_EQ(unsorted["b"], Value(3));
  Dictionary holed = Dictionary::fromSortedEntries(Entries{{"aa", "x"}, {"ab", Value()}, {"b", 3}, {"z", Value::null()}});
  EXPECT_FALSE(holed.contains("ab"));
  EXPECT_TRUE(holed == d);
}

TEST(Dictionary, RandomEditsMatchAReferenceMap) {
  std::mt19937 rng(7);
  Dictionary d;
  std::map<std::string, int> ref;
  for (int i = 0; i < 5000; ++i) {
    std::string key = "k" + std::to_string(rng() % 300);
    if (rng() % 4 == 0) {
      EXPECT_EQ(d.remove(key), ref.erase(key) == 1);
    } else {
      int v = static_cast<int>(rng() % 1000);
      d.set(key, v);
      ref[key] = v;
    }
  }
  ASSERT_EQ(d.size(), ref.size());
  auto it = ref.begin();
  for (const auto& [k, v] : d) {
    EXPECT_EQ(k, it->first);
    EXPECT_EQ(v.integerValue(), it->second);
    ++it;
  }
}

TEST(Set, UniquenessFollowsEquality) {
  Set s{1, true, 1.0, "1", Value::null()};
  EXPECT_EQ(s.size(), 3u);  // 1 == YES == 1.0
  EXPECT_TRUE(s.contains(Value(1.0)));
  Set t{Value::null(), "1", 1};
  EXPECT_TRUE(s == t);
  EXPECT_EQ(Value(s).hash(), Value(t).hash());
  EXPECT_TRUE(s.intersectsSet(Set{"1"}));
  s.minusSet(Set{"1", 7});
  EXPECT_EQ(s.size(), 2u);
}

TEST(Value, NestedContainersCompareDeeplyAndShareOnCopy) {
  Array inner{1, "two", NSDate(3)};
  Value a(Dictionary{{"list", inner}, {"set", Set{1, 2}}});
  Value b(Dictionary{{"list", Array{1.0, "two", NSDate(3)}}, {"set", Set{2, 1}}});
  EXPECT_EQ(a, b);
  Value c = a;  // shares the dictionary
  EXPECT_EQ(&c.asDictionary(), &a.asDictionary());
  EXPECT_EQ(a.description(), "{\"list\" = (1, \"two\", 2001-01-01T00:00:03Z), \"set\" = {(1, 2)}}");
}
