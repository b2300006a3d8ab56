// Evaluation against dictionaries, object graphs and collections.

#include <gtest/gtest.h>

#include <thread>

#include "platform/predicate/NSComparisonPredicate.h"
#include "platform/predicate/NSCompoundPredicate.h"
#include "platform/predicate/NSPredicate.h"
#include "platform/predicate/ZBPredicateError.h"
#include "support/TogetherThreads.h"

namespace {

bool eval(std::string_view format, const Value& object, std::vector<Value> arguments = {}) {
  NSErrorPtr error;
  auto p = NSPredicate::predicateWithFormat(format, std::move(arguments), &error);
  if (!p) {
    ADD_FAILURE() << format << ": " << error->localizedDescription();
    return false;
  }
  return p->evaluateWithObject(object);
}

// Evaluates with bindings and returns the error code met (0 for none).
std::int64_t faultOf(std::string_view format, const Value& object, const Dictionary& bindings = {}) {
  auto p = NSPredicate::predicateWithFormat(format);
  EXPECT_TRUE(p) << format;
  if (!p) return -1;
  NSErrorPtr error;
  bool result = p->evaluateWithObject(object, bindings, &error);
  if (error) {
    EXPECT_FALSE(result) << format;
  }
  return error ? error->code() : 0;
}

class Tag final : public NSObject {
public:
  explicit Tag(std::string title) : _title(std::move(title)) {}
  Value valueForKey(const std::string& key) const override {
    if (key == "title") return _title;
    return NSObject::valueForKey(key);
  }
  std::string className() const override { return "Tag"; }

private:
  std::string _title;
};

class Post final : public NSObject {
public:
  Post(std::string title, bool unread, Set tags, Value date = {}) : _title(std::move(title)), _unread(unread), _tags(std::move(tags)), _date(std::move(date)) {}
  Value valueForKey(const std::string& key) const override {
    if (key == "title") return _title;
    if (key == "unread") return _unread;
    if (key == "tags") return Value(_tags);
    if (key == "date") return _date;
    if (key == "author") return Value();  // never set
    return NSObject::valueForKey(key);
  }
  std::string className() const override { return "Post"; }

private:
  std::string _title;
  bool _unread;
  Set _tags;
  Value _date;
};

Value tag(std::string title) { return Value(std::make_shared<Tag>(std::move(title))); }

}  // namespace

TEST(PredicateEvaluation, ComparesDictionaryValuesWithPlatformEquality) {
  Value post = Dictionary{{"title", "Café Swift Tips"}, {"unread", true},   {"shared", false},
                          {"others", 3},                {"score", 2.5},     {"date", NSDate(1000.0)},
                          {"nothing", Value::null()},   {"nested", Dictionary{{"level", 2}}}};
  // Numbers and booleans compare by value across kinds.
  EXPECT_TRUE(eval("unread == YES", post));
  EXPECT_TRUE(eval("unread == 1", post));
  EXPECT_TRUE(eval("unread == true", post));
  EXPECT_TRUE(eval("unread != 0", post));
  EXPECT_TRUE(eval("shared == NO", post));
  EXPECT_TRUE(eval("others == 3.0", post));
  EXPECT_TRUE(eval("unread > 0", post));
  EXPECT_TRUE(eval("score > 2 AND score < 3", post));
  // A string never equals a number.
  EXPECT_FALSE(eval("others == '3'", post));
  // Dates compare by time.
  EXPECT_TRUE(eval("date == %@", post, {NSDate(1000.0)}));
  EXPECT_TRUE(eval("date > %@ AND date < %@", post, {NSDate(999.5), NSDate(1000.5)}));
  EXPECT_TRUE(eval("date >= CAST(1000, 'NSDate')", post));
  // Nil: equal only to nil, so != is true; ordering false except <= and >=.
  EXPECT_TRUE(eval("missing == nil", post));
  EXPECT_TRUE(eval("nothing == nil", post));
  EXPECT_FALSE(eval("missing == 0", post));
  EXPECT_TRUE(eval("missing != 'x'", post));
  EXPECT_FALSE(eval("missing < 1", post));
  EXPECT_FALSE(eval("missing > 1", post));
  EXPECT_TRUE(eval("missing <= nil", post));
  EXPECT_FALSE(eval("missing < nil", post));
  // Key paths through nested dictionaries, and the evaluated object itself.
  EXPECT_TRUE(eval("nested.level == 2", post));
  EXPECT_TRUE(eval("nested.missing.deeper == nil", post));
  EXPECT_TRUE(eval("SELF.others == 3", post));
  EXPECT_TRUE(eval("SELF == 'x'", Value("x")));
  EXPECT_TRUE(eval("SELF BETWEEN {1, 5}", Value(5)));
  EXPECT_TRUE(eval("@count == 8", post));
}

TEST(PredicateEvaluation, StringOperatorsHonourCaseAndDiacriticOptions) {
  Value post = Dictionary{{"title", "Café Swift Tips"}, {"tag", "ÉCOLE"}, {"empty", ""}, {"n", 5}};
  struct Case {
    const char* format;
    bool expected;
  };
  const Case cases[] = {
      {"title BEGINSWITH 'Café'", true},         {"title BEGINSWITH 'café'", false},
      {"title BEGINSWITH[c] 'café'", true},      {"title BEGINSWITH[c] 'cafe'", false},
      {"title BEGINSWITH[cd] 'cafe'", true},     {"title BEGINSWITH[d] 'Cafe'", true},
      {"title ENDSWITH 'Tips'", true},           {"title ENDSWITH[c] 'TIPS'", true},
      {"title CONTAINS 'Swift'", true},          {"title CONTAINS 'swift'", false},
      {"title CONTAINS[c] 'SWIFT'", true},       {"title CONTAINS[n] 'swift'", false},
      {"title CONTAINS[cn] 'swift'", false},     // [n] overrides [c]
      {"title ==[cd] 'cafe swift tips'", true},  {"title == 'cafe swift tips'", false},
      {"title !=[cd] 'CAFE SWIFT TIPS'", false}, {"tag ==[cd] 'ecole'", true},
      {"tag ==[c] 'école'", true},               {"tag ==[d] 'ecole'", false},
      {"tag ==[d] 'ECOLE'", true},               {"tag <[c] 'f'", false},
      {"tag >[c] 'ecole'", true},                {"tag <[cd] 'f'", true},                {"tag >[cd] 'ecole'", false},
      {"tag BETWEEN[cd] {'e', 'f'}", true},
      // Canonically equivalent spellings match under folding.
      {"tag ==[c] 'E\u0301cole'", true},
      // An empty search string is found nowhere; either side nil is false.
      {"title BEGINSWITH ''", false},            {"title CONTAINS ''", false},
      {"title ENDSWITH[c] ''", false},           {"missing BEGINSWITH 'a'", false},
      {"NOT missing BEGINSWITH 'a'", true},      {"title CONTAINS nil", false},
      {"empty == ''", true},                     {"empty LIKE '*'", true},
      // LIKE: whole string, * and ?, backslash escapes, regex characters literal.
      {"title LIKE 'Café*'", true},              {"title LIKE 'Caf?'", false},
      {"title LIKE 'Caf? Swift Tips'", true},    {"title LIKE '*Swift*'", true},
      {"title LIKE 'Swift'", false},             {"title LIKE[cd] 'cafe*tips'", true},
      {"title LIKE '*.*'", false},               {"title LIKE 'C*f* S*t T*s'", true},
      {"'a*b' LIKE 'a\\\\*b'", true},            {"'axb' LIKE 'a\\\\*b'", false},
      {"'a.b' LIKE 'a.b'", true},                {"'axb' LIKE 'a.b'", false},
      {"'line1\nline2' LIKE 'line1*2'", true},   {"'ß' LIKE[c] 'ss'", true},
      // MATCHES: whole string, ICU syntax.
      {"title MATCHES 'Swift'", false},          {"title MATCHES '.*Swift.*'", true},
      {"title MATCHES '[A-Z]a.*'", true},        {"title MATCHES[c] 'café.*'", true},
      {"title MATCHES[d] 'Cafe.*'", true},       {"title MATCHES ''", false},
      {"title MATCHES '\\\\w+ \\\\w+ \\\\w+'", true},
      // IN with a string is a substring test; CONTAINS on a string likewise.
      {"'Swift' IN title", true},                {"'swift' IN[c] title", true},
      {"'' IN title", false},
  };
  for (const Case& c : cases) EXPECT_EQ(eval(c.format, post), c.expected) << c.format;
}

TEST(PredicateEvaluation, MembershipAndRanges) {
  Value post = Dictionary{{"title", "b"},
                          {"n", 5},
                          {"list", Array{1, "two", 3.5}},
                          {"set", Set{"a", "B"}},
                          {"map", Dictionary{{"k", "v"}}}};
  EXPECT_TRUE(eval("title IN {'a', 'b'}", post));
  EXPECT_FALSE(eval("title IN {'A', 'B'}", post));
  EXPECT_TRUE(eval("title IN[c] {'A', 'B'}", post));
  EXPECT_TRUE(eval("n IN {5.0}", post));
  EXPECT_TRUE(eval("n IN %@", post, {Set{5, 6}}));
  EXPECT_TRUE(eval("'v' IN map", post));
  EXPECT_FALSE(eval("'k' IN map", post));
  EXPECT_FALSE(eval("missing IN {nil}", post));
  EXPECT_FALSE(eval("title IN missing", post));
  EXPECT_TRUE(eval("list CONTAINS 'two'", post));
  EXPECT_TRUE(eval("list CONTAINS 3.5", post));
  EXPECT_FALSE(eval("list CONTAINS 2", post));
  EXPECT_TRUE(eval("set CONTAINS[c] 'b'", post));
  EXPECT_FALSE(eval("set CONTAINS 'b'", post));
  EXPECT_TRUE(eval("n BETWEEN {5, 6}", post));
  EXPECT_TRUE(eval("n BETWEEN {4, 5}", post));
  EXPECT_FALSE(eval("n BETWEEN {6, 9}", post));
  EXPECT_FALSE(eval("missing BETWEEN {1, 9}", post));
  EXPECT_TRUE(eval("n BETWEEN %@", post, {Value(Array{1.5, 5.5})}));
  EXPECT_FALSE(eval("n BETWEEN {$lo, n}", post));  // $lo unbound
  // A collection never equals a scalar without a quantifier.
  EXPECT_FALSE(eval("list == 1", post));
  EXPECT_TRUE(eval("list == {1, 'two', 3.5}", post));
  EXPECT_TRUE(eval("list[0] == 1 AND list[LAST] == 3.5 AND list[SIZE] == 3 AND list[FIRST] == 1", post));
  EXPECT_TRUE(eval("list[7] == nil AND map['k'] == 'v'", post));
}

TEST(PredicateEvaluation, QuantifiersAndKeyPathsThroughObjectGraphs) {
  Set tags{tag("swift"), tag("iOS"), tag("Café")};
  Value post = Value(std::make_shared<Post>("Notes", true, tags, Value(NSDate(50.0))));
  Value untagged = Value(std::make_shared<Post>("Bare", false, Set{}));

  EXPECT_TRUE(eval("title == 'Notes' AND unread == YES", post));
  EXPECT_TRUE(eval("author == nil AND author != 'x'", post));
  EXPECT_TRUE(eval("ANY tags.title == 'swift'", post));
  EXPECT_TRUE(eval("SOME tags.title ==[c] 'IOS'", post));
  EXPECT_TRUE(eval("ANY tags.title ==[cd] 'cafe'", post));
  EXPECT_FALSE(eval("ANY tags.title == 'rust'", post));
  EXPECT_TRUE(eval("NONE tags.title == 'rust'", post));
  EXPECT_FALSE(eval("NONE tags.title == 'swift'", post));
  EXPECT_TRUE(eval("ALL tags.title == 'abc'", Value(Dictionary{{"tags", Array{Dictionary{{"title", "abc"}}}}})));
  EXPECT_TRUE(eval("ALL tags.title MATCHES '.+'", post));
  EXPECT_FALSE(eval("ALL tags.title BEGINSWITH 's'", post));
  // Through a to-many the key path yields the collection itself.
  EXPECT_FALSE(eval("tags.title == 'swift'", post));
  EXPECT_TRUE(eval("tags.title CONTAINS 'swift'", post));
  EXPECT_TRUE(eval("'iOS' IN tags.title", post));
  EXPECT_TRUE(eval("tags.@count == 3", post));
  EXPECT_TRUE(eval("tags.@count == 0", untagged));
  EXPECT_TRUE(eval("tags.@max.title == 'swift' AND tags.@min.title == 'Café'", post));
  // Empty and nil collections: ANY false, ALL and NONE true.
  EXPECT_FALSE(eval("ANY tags.title == 'x'", untagged));
  EXPECT_TRUE(eval("ALL tags.title == 'x'", untagged));
  EXPECT_TRUE(eval("NONE tags.title == 'x'", untagged));
  EXPECT_FALSE(eval("ANY author == 'x'", post));
  EXPECT_TRUE(eval("ALL author == 'x'", post));
  // SUBQUERY binds each element to its variable and as SELF.
  EXPECT_TRUE(eval("SUBQUERY(tags, $t, $t.title BEGINSWITH[c] 'i').@count == 1", post));
  EXPECT_TRUE(eval("SUBQUERY(tags, $t, title CONTAINS 'f').@count == 2", post));
  EXPECT_FALSE(eval("SUBQUERY(tags, $t, $t.title == $wanted).@count == 1", post));
  auto p = NSPredicate::predicateWithFormat("SUBQUERY(tags, $t, $t.title == $wanted).@count == 1");
  EXPECT_TRUE(p->evaluateWithObject(post, Dictionary{{"wanted", "iOS"}}));
  // An array of objects: the evaluated object may itself be a collection.
  EXPECT_TRUE(eval("SELF.@count == 2 AND ANY SELF.title == 'Bare'", Value(Array{post, untagged})));
  // The evaluated object compared with a constant object (the clean fetch).
  EXPECT_TRUE(eval("SELF == %@", post, {post}));
  EXPECT_FALSE(eval("SELF == %@", post, {untagged}));
  EXPECT_TRUE(eval("SELF IN %@", post, {Value(Array{untagged, post})}));
}

TEST(PredicateEvaluation, CompoundsShortCircuitAndConstantsHold) {
  Value object = Dictionary{{"a", 1}};
  EXPECT_TRUE(eval("TRUEPREDICATE", object));
  EXPECT_FALSE(eval("FALSEPREDICATE", object));
  EXPECT_TRUE(eval("a == 1 OR b.c.d MATCHES '('", object));   // second never evaluated
  EXPECT_FALSE(eval("a == 2 AND b.c.d MATCHES '('", object));
  EXPECT_TRUE(eval("NOT (a == 2 OR a == 3)", object));
  EXPECT_TRUE(NSCompoundPredicate::andPredicateWithSubpredicates({})->evaluateWithObject(object));
  EXPECT_FALSE(NSCompoundPredicate::orPredicateWithSubpredicates({})->evaluateWithObject(object));
  auto a1 = NSPredicate::predicateWithFormat("a == 1");
  auto a2 = NSPredicate::predicateWithFormat("a == 2");
  EXPECT_FALSE(NSCompoundPredicate::create(NSCompoundPredicateType::Not, {a1, a1})->evaluateWithObject(object));
  EXPECT_TRUE(NSCompoundPredicate::create(NSCompoundPredicateType::Not, {a1, a2})->evaluateWithObject(object));
  EXPECT_EQ(NSCompoundPredicate::andPredicateWithSubpredicates({})->predicateFormat(), "TRUEPREDICATE");
  EXPECT_EQ(NSCompoundPredicate::orPredicateWithSubpredicates({})->predicateFormat(), "FALSEPREDICATE");
  EXPECT_EQ(NSCompoundPredicate::andPredicateWithSubpredicates({a1, a2, a1})->predicateFormat(),
            "a == 1 AND a == 2 AND a == 1");
}

TEST(PredicateEvaluation, ArithmeticAndFunctions) {
  Value object = Dictionary{{"a", 7}, {"b", 2}, {"x", 2.5}, {"list", Array{3, 1, 2, 2}}, {"name", "straße"}};
  const char* truths[] = {
      "a + b == 9",          "a - b == 5",           "a * b == 14",          "a / b == 3",
      "x * 2 == 5",          "a / 2.0 == 3.5",       "2 ** 10 == 1024",      "-a == -7",
      "a + missing == nil",  "sum:(list) == 8",      "count:(list) == 4",    "min:(list) == 1",
      "max:(list) == 3",     "average:(list) == 2",  "median:(list) == 2",   "mode:(list) == {2}",
      "stddev:({2, 4, 4, 4, 5, 5, 7, 9}) == 2",      "sqrt:(16) == 4",       "log:(1000) == 3",
      "ln:(1) == 0",         "exp:(0) == 1",         "floor:(x) == 2",       "ceiling:(x) == 3",
      "abs:(-3) == 3",       "trunc:(-2.5) == -2",   "uppercase:(name) == 'STRASSE'",
      "lowercase:('ÀB') == 'àb'",                    "now() > CAST(0, 'NSDate')",
      "random() < 1",        "randomn:(3) < 3",      "CAST('2.5', 'NSNumber') == x",
      "CAST(a, 'NSString') == '7'",                  "CAST(x, 'NSDate') == CAST(2.5, 'NSDate')",
      "sum:({}) == 0",       "average:({}) == nil",  "9223372036854775807 + 1 > 0",
      "list[a - 6] == 1",    "{a, b}[1] == 2",       "a == 7 AND a / 0 == nil",
  };
  for (const char* format : truths) EXPECT_TRUE(eval(format, object)) << format;
  EXPECT_EQ(faultOf("a / 0 == 1", object), ZBPredicateTypeMismatchError);
}

TEST(PredicateEvaluation, BitwiseOperatorsSelectorsAndStringLength) {
  Value object = Dictionary{{"a", 6},         {"b", 3},
                            {"w", 4.0},       {"x", 2.5},
                            {"name", "abc"},  {"wide", "a\U0001F600é"},
                            {"list", Array{"ab", "cde", 7}}, {"set", Set{"ab", "cd"}}};
  const char* truths[] = {
      "1 << 3 == 8",          "2 | 1 == 3",            "a & b == 2",           "a ^ b == 5",
      "a >> 1 == 3",          "-8 >> 1 == -4",         "1 << 64 == 0",         "-1 >> 70 == -1",
      "1 << 63 < 0",          "YES | 2 == 3",          "w & 5 == 4",           "missing & 1 == nil",
      // Below arithmetic, in C's order: 6 & (3 + 1), 1 | (2 ^ (3 & (4 << 1))).
      "6 & 3 + 1 == 4",       "1 + 1 << 2 == 8",       "1 | 2 ^ 3 & 4 << 1 == 3",
      "FUNCTION('a', 'uppercase') == 'A'",             "FUNCTION(name, 'uppercaseString') == 'ABC'",
      "FUNCTION('ÀB', 'lowercase') == 'àb'",           "FUNCTION(wide, 'length') == 4",
      "FUNCTION(b, 'pow:', 2) == 9",                   "FUNCTION(2, 'pow:', -1) == 0.5",
      "FUNCTION(missing, 'length') == nil",            "FUNCTION({name}[0], 'length') == 3",
      "min(list.length) == 2", "max({1, 5}) == 5",     "abs(-2) == 2",         "sum(list.length) == 5",
      // Strings answer length in UTF-16 code units, also inside collections
      // (a set maps to a set; an operator sees every element).
      "name.length == 3",     "wide.length == 4",      "ANY list.length == 3", "list.@max.length == 3",
      "set.@sum.length == 4", "set.length.@count == 1", "name.size == nil",    "a.length == nil",
  };
  for (const char* format : truths) EXPECT_TRUE(eval(format, object)) << format;
  EXPECT_TRUE(eval("%K & %@ == %K", object, {"a", 14, "a"}));
  EXPECT_FALSE(eval("%K & %@ == %K", object, {"a", 1, "a"}));
  Value post = Value(std::make_shared<Post>("Notes", true, Set{tag("swift"), tag("iOS")}));
  EXPECT_TRUE(eval("title.length == 5 AND ANY tags.title.length == 3 AND NOT ANY tags.title.length == 4", post));
  auto bound = NSPredicate::predicateWithFormat("FUNCTION($s, 'length') == 3")->predicateWithSubstitutionVariables(
      Dictionary{{"s", "abc"}});
  EXPECT_EQ(bound->predicateFormat(), "FUNCTION(\"abc\", \"length\") == 3");
  EXPECT_TRUE(bound->evaluateWithObject(Value()));

  EXPECT_EQ(faultOf("name.length == 3 AND name.size == nil", object), 0);
  EXPECT_EQ(faultOf("FUNCTION(name, 'frobnicate') == 1", object), ZBPredicateUnsupportedError);
  EXPECT_EQ(faultOf("FUNCTION(name, 'length', 1) == 1", object), ZBPredicateUnsupportedError);
  EXPECT_EQ(faultOf("FUNCTION(name, 'pow:', 2) == 1", object), ZBPredicateTypeMismatchError);
  EXPECT_EQ(faultOf("FUNCTION(a, 'uppercase') == 1", object), ZBPredicateTypeMismatchError);
  EXPECT_EQ(faultOf("FUNCTION(a, 'pow:', 'x') == 1", object), ZBPredicateTypeMismatchError);
  EXPECT_EQ(faultOf("x | 1 == 3", object), ZBPredicateTypeMismatchError);
  EXPECT_EQ(faultOf("1 << -1 == 0", object), ZBPredicateTypeMismatchError);
}

TEST(PredicateEvaluation, VariablesBindAtEvaluationOrBySubstitution) {
  auto p = NSPredicate::predicateWithFormat("date >= $since AND title == $title");
  ASSERT_TRUE(p);
  Value post = Dictionary{{"date", NSDate(100.0)}, {"title", "t"}};
  EXPECT_TRUE(p->evaluateWithObject(post, Dictionary{{"since", NSDate(50.0)}, {"title", "t"}}));
  EXPECT_FALSE(p->evaluateWithObject(post, Dictionary{{"since", NSDate(150.0)}, {"title", "t"}}));
  NSErrorPtr error;
  EXPECT_FALSE(p->evaluateWithObject(post, Dictionary{{"title", "t"}}, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), ZBPredicateUnboundVariableError);
  EXPECT_NE(error->localizedDescription().find("since"), std::string::npos);

  auto bound = p->predicateWithSubstitutionVariables(Dictionary{{"since", NSDate(50.0)}});
  EXPECT_EQ(bound->predicateFormat(), "date >= CAST(50.000000, \"NSDate\") AND title == $title");
  EXPECT_TRUE(bound->evaluateWithObject(post, Dictionary{{"title", "t"}}));
  // Unchanged trees are shared, not copied.
  EXPECT_EQ(p->predicateWithSubstitutionVariables(Dictionary{{"other", 1}}), p);
  // A subquery's own variable is never substituted from outside.
  auto sub = NSPredicate::predicateWithFormat("SUBQUERY(list, $x, $x > $min).@count == 1");
  auto subBound = sub->predicateWithSubstitutionVariables(Dictionary{{"x", 100}, {"min", 2}});
  EXPECT_EQ(subBound->predicateFormat(), "SUBQUERY(list, $x, $x > 2).@count == 1");
  EXPECT_TRUE(subBound->evaluateWithObject(Value(Dictionary{{"list", Array{1, 2, 3}}})));
}

TEST(PredicateEvaluation, FaultsMakeTheComparisonFalseAndAreReported) {
  Value object = Dictionary{{"s", "text"}, {"n", 3}, {"list", Array{1}}};
  Value post = Value(std::make_shared<Post>("t", false, Set{}));
  EXPECT_EQ(faultOf("s < 3", object), ZBPredicateTypeMismatchError);
  EXPECT_EQ(faultOf("n BEGINSWITH 'a'", object), ZBPredicateTypeMismatchError);
  EXPECT_EQ(faultOf("ANY n == 1", object), ZBPredicateTypeMismatchError);
  EXPECT_EQ(faultOf("n BETWEEN {1}", object), ZBPredicateTypeMismatchError);
  EXPECT_EQ(faultOf("s MATCHES '('", object), ZBPredicateInvalidRegexError);
  EXPECT_EQ(faultOf("s MATCHES $p", object, Dictionary{{"p", "(["}}), ZBPredicateInvalidRegexError);
  EXPECT_EQ(faultOf("$nope == 1", object), ZBPredicateUnboundVariableError);
  EXPECT_EQ(faultOf("unknownKey == 1", post), ZBPredicateUnknownKeyError);
  EXPECT_EQ(faultOf("s == 'text' AND n == 3", object), 0);
  // A fault in one branch does not stop the other from deciding.
  auto p = NSPredicate::predicateWithFormat("s < 3 OR n == 3");
  NSErrorPtr error;
  EXPECT_TRUE(p->evaluateWithObject(object, {}, &error));
  EXPECT_TRUE(error);
  // Functions unknown to the layer fail at evaluation, not at construction.
  auto f = NSComparisonPredicate::create(NSExpression::expressionForFunction("frobnicate:", {}),
                                         NSExpression::expressionForConstantValue(1),
                                         NSComparisonPredicateModifier::Direct, NSPredicateOperatorType::EqualTo);
  error = nullptr;
  EXPECT_FALSE(f->evaluateWithObject(object, {}, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), ZBPredicateUnsupportedError);
  // Without an error slot nothing is thrown either.
  EXPECT_FALSE(NSPredicate::predicateWithFormat("unknownKey == 1")->evaluateWithObject(post));
}

TEST(PredicateEvaluation, SharedPredicatesEvaluateOnManyThreads) {
  auto p = NSPredicate::predicateWithFormat("title CONTAINS[cd] 'cafe' AND title LIKE[c] '*TIPS' AND title MATCHES '.*Sw.*'");
  ASSERT_TRUE(p);
  Value hit = Dictionary{{"title", "Café Swift Tips"}};
  Value miss = Dictionary{{"title", "Cafe Rust Tips"}};
  std::atomic<int> wrong{0};
  RunTogether(4, [&](int) {
    for (int i = 0; i < 2000; ++i) {
      if (!p->evaluateWithObject(hit) || p->evaluateWithObject(miss)) ++wrong;
    }
  });
  EXPECT_EQ(wrong.load(), 0);
}
