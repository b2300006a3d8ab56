// Parsing and canonical printing of format strings.

#include <gtest/gtest.h>

#include <cmath>

#include "platform/predicate/NSComparisonPredicate.h"
#include "platform/predicate/NSCompoundPredicate.h"
#include "platform/predicate/NSPredicate.h"
#include "platform/predicate/ZBPredicateError.h"

namespace {

std::string printed(std::string_view format, std::vector<Value> arguments = {}) {
  NSErrorPtr error;
  auto p = NSPredicate::predicateWithFormat(format, std::move(arguments), &error);
  if (!p) return "ERROR: " + error->localizedDescription();
  return p->predicateFormat();
}

// Parses, prints, parses the print again: the two trees must be equal and the
// second print identical to the first.
void expectRoundTrip(std::string_view format, std::vector<Value> arguments = {}) {
  SCOPED_TRACE(std::string(format));
  NSErrorPtr error;
  auto first = NSPredicate::predicateWithFormat(format, std::move(arguments), &error);
  ASSERT_TRUE(first) << error->localizedDescription();
  std::string text = first->predicateFormat();
  auto second = NSPredicate::predicateWithFormat(text, {}, &error);
  ASSERT_TRUE(second) << "reprint does not parse: " << text << ": " << error->localizedDescription();
  EXPECT_TRUE(first->isEqual(*second)) << text << " vs " << second->predicateFormat();
  EXPECT_TRUE(second->isEqual(*first));
  EXPECT_EQ(first->hash(), second->hash()) << text;
  EXPECT_EQ(second->predicateFormat(), text);
}

std::int64_t errorPosition(std::string_view format, std::vector<Value> arguments = {}, std::int64_t* code = nullptr) {
  NSErrorPtr error;
  auto p = NSPredicate::predicateWithFormat(format, std::move(arguments), &error);
  EXPECT_FALSE(p) << format << " parsed as " << (p ? p->predicateFormat() : "");
  if (!error) {
    ADD_FAILURE() << "no error for " << format;
    return -1;
  }
  EXPECT_EQ(error->domain(), ZBPredicateErrorDomain);
  if (code) *code = error->code();
  EXPECT_FALSE(error->localizedDescription().empty());
  return error->userInfo()[ZBPredicateErrorPositionKey].integerValue();
}

}  // namespace

TEST(PredicateFormat, PrintsTheCanonicalForm) {
  const std::pair<const char*, const char*> cases[] = {
      {"X = 10", "X == 10"},
      {"a <> 1 AND b =< 2 AND c => 3", "(a != 1 AND b <= 2) AND c >= 3"},
      {"a != 1", "a != 1"},
      {"name like[DC] 'ab*'", "name LIKE[cd] \"ab*\""},
      {"name ==[dc] \"a\"", "name ==[cd] \"a\""},
      {"name beginswith[lnc] 'x'", "name BEGINSWITH[cnl] \"x\""},
      {"(X == 10 AND Y == 30) AND (Z == 20 OR K == 40)", "(X == 10 AND Y == 30) AND (Z == 20 OR K == 40)"},
      {"a == 1 AND b == 2 AND c == 3", "(a == 1 AND b == 2) AND c == 3"},
      {"a == 1 OR b == 2 AND c == 3", "a == 1 OR (b == 2 AND c == 3)"},
      {"a == 1 && b == 2 || c == 3", "(a == 1 AND b == 2) OR c == 3"},
      {"(a == 1) AND (b == 2)", "a == 1 AND b == 2"},
      {"((((a == 1))))", "a == 1"},
      {"NOT a == 1", "NOT a == 1"},
      {"!(a == 1 OR b == 2)", "NOT (a == 1 OR b == 2)"},
      {"NOT NOT a == 1", "NOT (NOT a == 1)"},
      {"not (a == 1) and b == 2", "(NOT a == 1) AND b == 2"},
      {"NONE tags.title == 'x'", "NOT ANY tags.title == \"x\""},
      {"some tags.title == 'x'", "ANY tags.title == \"x\""},
      {"all tags.@count > 0", "ALL tags.@count > 0"},
      {"truepredicate", "TRUEPREDICATE"},
      {"FalsePredicate OR TRUEPREDICATE", "FALSEPREDICATE OR TRUEPREDICATE"},
      {"isMale == YES AND x == no AND y == true AND z == False", "((isMale == 1 AND x == 0) AND y == 1) AND z == 0"},
      {"a == nil OR b == NULL", "a == nil OR b == nil"},
      {"title == 'it\\'s' OR title == \"say \\\"hi\\\"\"", "title == \"it's\" OR title == \"say \\\"hi\\\"\""},
      {"title == \"a'b'c\"", "title == \"a'b'c\""},
      {"title MATCHES '([A-B])\\\\w+'", "title MATCHES \"([A-B])\\\\w+\""},
      {"title == 'Bó'", "title == \"Bó\""},
      {"title == 'line\\nbreak'", "title == \"line\nbreak\""},
      {"x == 3.0", "x == 3"},
      {"x == 40.5 AND y == 2.71828 AND z == 9.2e-5", "(x == 40.5 AND y == 2.71828) AND z == 9.2e-05"},
      {"x == 0x1F OR x == 0o17 OR x == 0b101", "(x == 31 OR x == 15) OR x == 5"},
      {"x == -1 AND y == - 2.5", "x == -1 AND y == -2.5"},
      {"x == 1e20", "x == 1e+20"},
      {"x == 99999999999999999999", "x == 1e+20"},
      {"score BETWEEN {1, 10}", "score BETWEEN {1, 10}"},
      {"firstName IN {}", "firstName IN {}"},
      {"property IN {'Riri', \"Fifi\"}", "property IN {\"Riri\", \"Fifi\"}"},
      {"x IN {1, {2, 3}, nil}", "x IN {1, {2, 3}, nil}"},
      {"x IN {$a, 1}", "x IN {$a, 1}"},
      {"tags.@count == 0", "tags.@count == 0"},
      {"@count > 1", "@count > 1"},
      {"SELF.title == 'x'", "title == \"x\""},
      {"SELF == $obj", "SELF == $obj"},
      {"relative_date < $7__days", "relative_date < $7__days"},
      {"$v.title == 1 AND $v.a.b == 2", "$v.title == 1 AND $v.a.b == 2"},
      {"#first == 1 AND a.#in == 2 AND #Self == 3", "(#first == 1 AND a.#in == 2) AND #Self == 3"},
      {"a.first == 1", "a.#first == 1"},
      {"tags.@sum.count > 3 AND tags.@avg.x < 2", "tags.@sum.count > 3 AND tags.@avg.x < 2"},
      {"a + 1 == 2", "a + 1 == 2"},
      {"a + b * c == d", "a + (b * c) == d"},
      {"(a + b) * c == d", "(a + b) * c == d"},
      {"a - b - c == 0", "(a - b) - c == 0"},
      {"2 ** 3 ** 2 == x", "(2 ** 3) ** 2 == x"},
      {"-x == 1", "0 - x == 1"},
      {"x - -1 == 0", "x - -1 == 0"},
      {"10 / 4 == 2", "10 / 4 == 2"},
      {"(a).b == 1", "a.b == 1"},
      {"(a + b).c == 1", "(a + b).c == 1"},
      {"a[0] == 1 AND a[FIRST] == 1 AND a[last] == 1 AND a[size] == 3",
       "((a[0] == 1 AND a[FIRST] == 1) AND a[LAST] == 1) AND a[SIZE] == 3"},
      {"d['key'] == 1", "d[\"key\"] == 1"},
      {"sum:({1, 2}) == 3 AND count:(tags) > 0 AND now() > x", "(sum:({1, 2}) == 3 AND count:(tags) > 0) AND now() > x"},
      {"date > CAST(725760000, 'NSDate')", "date > CAST(725760000.000000, \"NSDate\")"},
      {"date > CAST(725760000.5, \"NSDate\")", "date > CAST(725760000.500000, \"NSDate\")"},
      {"x == CAST('12', 'NSNumber')", "x == 12"},
      {"x == CAST(y, 'NSString')", "x == CAST(y, \"NSString\")"},
      {"SUBQUERY(tags, $t, $t.title BEGINSWITH 'a').@count > 0",
       "SUBQUERY(tags, $t, $t.title BEGINSWITH \"a\").@count > 0"},
      {"ANY tags.title IN {'a', 'b'}", "ANY tags.title IN {\"a\", \"b\"}"},
      {"'%K' like '%@'", "\"%K\" LIKE \"%@\""},
      {"  a\t==\n1  ", "a == 1"},
      {"a CONTAINS 'x' AND a ENDSWITH 'y' AND a MATCHES 'z'", "(a CONTAINS \"x\" AND a ENDSWITH \"y\") AND a MATCHES \"z\""},
      {"ÄÖ == 1", "ÄÖ == 1"},
      {"a\\x2db == 1", "a\\x2db == 1"},
      {"FUNCTION('a', 'uppercase') == 'A'", "FUNCTION(\"a\", \"uppercase\") == \"A\""},
      {"function(a, \"pow:\", 3) == 8", "FUNCTION(a, \"pow:\" , 3) == 8"},
      {"FUNCTION(SELF, 'a:b:', 1, x + 1) == 1", "FUNCTION(SELF, \"a:b:\" , 1, x + 1) == 1"},
      {"1 << 3 == 8 AND 2 | 1 == 3", "1 << 3 == 8 AND 2 | 1 == 3"},
      // Bitwise operators bind less tightly than arithmetic: | ^ & then shifts.
      {"a | b ^ c & d << 1 + 2 == 0", "a | (b ^ (c & (d << (1 + 2)))) == 0"},
      {"a >> 1 << 2 == b & c & d", "(a >> 1) << 2 == (b & c) & d"},
      {"(a | b) * 2 == 6", "(a | b) * 2 == 6"},
      {"a & 1 == 1 && b|2 == 3", "a & 1 == 1 AND b | 2 == 3"},
      {"min(x) == 1 AND sum({1, 2}) == 3 AND now() > d", "(min:(x) == 1 AND sum:({1, 2}) == 3) AND now() > d"},
      {"name.length == 3", "name.length == 3"},
      {"a.$b == 1 AND $v.$w == 2", "a.$b == 1 AND $v.$w == 2"},
  };
  for (const auto& [input, expected] : cases) EXPECT_EQ(printed(input), expected) << input;
}

TEST(PredicateFormat, SubstitutesArgumentsStructurally) {
  EXPECT_EQ(printed("%K == %@", {"shared", false}), "shared == 0");
  EXPECT_EQ(printed("%K == YES", {"unread"}), "unread == 1");
  EXPECT_EQ(printed("%K.@count == 0", {"tags"}), "tags.@count == 0");
  EXPECT_EQ(printed("%K == %@", {"tags.title", "swift"}), "tags.title == \"swift\"");
  // A string argument is a constant, never a key path, and keeps its quotes
  // and keywords inside.
  EXPECT_EQ(printed("%@ LIKE %@", {"firstName", "Adam"}), "\"firstName\" LIKE \"Adam\"");
  EXPECT_EQ(printed("title == %@", {"a\" OR 1 == 1 OR \"b"}), "title == \"a\\\" OR 1 == 1 OR \\\"b\"");
  EXPECT_EQ(printed("%K like %@", {"firstName", "Adam"}), "firstName LIKE \"Adam\"");
  EXPECT_EQ(printed("lastName LIKE '%@'", {"Smith"}), "lastName LIKE \"%@\"");
  EXPECT_EQ(printed("SELF like[c] %@*%@", {"prefix", "suffix"}), "SELF LIKE[c] \"prefix\" * \"suffix\"");
  EXPECT_EQ(printed("isMale == %@", {true}), "isMale == 1");
  EXPECT_EQ(printed("x == %@ AND y == %@", {Value(), Value::null()}), "x == nil AND y == nil");
  EXPECT_EQ(printed("x IN %@", {Value(Array{1, "a"})}), "x IN {1, \"a\"}");
  EXPECT_EQ(printed("x IN %@", {Set{"b", "a"}}), "x IN {\"a\", \"b\"}");
  EXPECT_EQ(printed("x BETWEEN %@", {Value(Array{1.5, 2})}), "x BETWEEN {1.5, 2}");
  EXPECT_EQ(printed("d >= %@", {NSDate(725760000.0)}), "d >= CAST(725760000.000000, \"NSDate\")");
  EXPECT_EQ(printed("d >= %@", {NSDate(0.1234567)}), "d >= CAST(0.1234567, \"NSDate\")");
  EXPECT_EQ(printed("x == %d AND y == %ld AND z == %lld AND w == %i", {7, 8.9, true, -3}),
            "((x == 7 AND y == 8) AND z == 1) AND w == -3");
  EXPECT_EQ(printed("x == %f AND y == %lf AND z == %g", {40.5, 2, 1e-3}), "(x == 40.5 AND y == 2) AND z == 0.001");
  EXPECT_EQ(printed("x == %s AND y == %c", {"str", "c"}), "x == \"str\" AND y == \"c\"");
  EXPECT_EQ(printed("x CONTAINS %%"), "x CONTAINS \"%\"");
  EXPECT_EQ(printed("a.%K == 1", {"b.c"}), "a.b.c == 1");
  EXPECT_EQ(printed("%K == 1", {"first"}), "#first == 1");
  EXPECT_EQ(printed("%K == 1", {"has space"}), "has\\x20space == 1");
  EXPECT_EQ(printed("%K & %@ == %K", {"flags", 4, "flags"}), "flags & 4 == flags");
  EXPECT_EQ(printed("min(%@) == 1", {Value(Array{1, 2})}), "min:({1, 2}) == 1");
  EXPECT_EQ(printed("FUNCTION(%K, %@) == 3", {"name", "length"}), "FUNCTION(name, \"length\") == 3");
  // A key beginning with '$' prints as written except first in a path, where
  // it would read back as a variable.
  EXPECT_EQ(printed("%K == 1", {"$single"}), "\\x24single == 1");
  EXPECT_EQ(printed("%K == 1", {"a.$b.$"}), "a.$b.\\x24 == 1");
  EXPECT_EQ(printed("$v.%K == 1", {"$w x"}), "$v.$w\\x20x == 1");
  // Extra arguments are ignored; the count of consumed ones follows %%.
  EXPECT_EQ(printed("a == %d AND b CONTAINS %% AND c == %d", {1, 2, 3}), "(a == 1 AND b CONTAINS \"%\") AND c == 2");
}

TEST(PredicateFormat, RoundTripsABroadCorpus) {
  const char* corpus[] = {
      "a == 1", "a = 'x'", "a != nil", "a < 1", "a <= 1.25", "a > -7", "a >= 1e-9", "a <> 3", "a =< 3", "a => 3",
      "a BETWEEN {1, 2}", "a BETWEEN {$low, $high}", "a IN {1, 2, 3}", "a IN 'haystack'", "a IN $list",
      "tags CONTAINS 'x'", "title CONTAINS[c] 'Swift'", "title BEGINSWITH[d] 'é'", "title ENDSWITH[cd] 'É'",
      "title LIKE '*a?b\\\\*'", "title LIKE[cd] 'caf*'", "title MATCHES '^[a-z]+$'", "title MATCHES[c] '.*'",
      "title ==[n] 'x'", "title ==[l] 'x'", "title !=[cd] 'x'", "title <[c] 'm'",
      "ANY tags.title ==[cd] 'swift'", "ALL tags.title BEGINSWITH 'a'", "NONE tags.title == 'x'",
      "SOME tags.@count > 0", "ANY tags IN {'a'}",
      "a == 1 AND b == 2", "a == 1 OR b == 2", "NOT a == 1", "NOT (a == 1 AND b == 2)",
      "(a == 1 OR b == 2) AND (c == 3 OR NOT d == 4)", "a == 1 AND (b == 2 OR (c == 3 AND (d == 4 OR e == 5)))",
      "TRUEPREDICATE", "FALSEPREDICATE", "NOT TRUEPREDICATE", "TRUEPREDICATE AND a == 1",
      "shared == NO", "unread == YES", "deleting == NO AND (unread == YES OR starred == YES)",
      "date >= CAST(725760000, 'NSDate')", "date < CAST(-1.5, 'NSDate')", "date > CAST(725760000.123456789, 'NSDate')",
      "relative_date < $7__days", "relative_date >= $12__hours AND tags.@count > 0", "$1 == $_",
      "SELF == 'x'", "SELF IN {1, 2}", "SELF.@count == 2", "@sum.price > 10", "tags.@max.title == 'z'",
      "a.b.c.d == 1", "#size == 1 AND #SUBQUERY.#cast == 2", "ключ == 'значение'", "日本語 == 1",
      "a + 1 == b - 2", "a * b / c == d ** 2", "(a + b) * (c - d) == 0", "-(a + b) == 1", "- -1 == 1",
      "1 + 2 + 3 + 4 == x", "a[0] == 1", "a[FIRST][LAST] == 1", "(1)[0] == 1", "{1, 2}[1] == 2", "$v[SIZE] > 1",
      "a[b + 1] == 2", "sum:(a) == 1", "average:({1, 2, 3}) == 2", "max:(tags.@count) > 1", "sqrt:(4) == 2",
      "floor:(x) == ceiling:(y)", "abs:(-3) == 3", "uppercase:(name) == 'A'", "random() < 1", "randomn:(10) < 10",
      "now() > date", "CAST(x, 'NSNumber') == 1", "CAST(CAST(x, 'NSString'), 'NSNumber') == 1",
      "SUBQUERY(tags, $t, $t.title == 'a' AND $t.posts.@count > 1).@count == 0",
      "SUBQUERY(SUBQUERY(a, $x, $x > 1), $y, $y < 5).@count == 2", "SUBQUERY(a, $x, TRUEPREDICATE)[FIRST] == 1",
      "x IN {{1, 2}, {3}}", "{a, b} CONTAINS 1", "{} == x", "x == {nil}", "'a' == \"b\"", "'\\\\' == '\"'",
      "title == '\\n\\t\\r'", "title == '\\u00e9'", "x == 0", "x == -0.0", "x == 9223372036854775807",
      "x == -9223372036854775808", "x == 1.7976931348623157e308", "x == 4.9e-324", "x == 1e999", "x == -1e999",
      "x == 0.1 + 0.2", "a\\u00e9b == 1", "a\\101 == 1", "x == CAST('00ff10', 'NSData')",
      "x == 1 AND x == 2 AND x == 3 AND x == 4 AND x == 5 OR x == 6 OR x == 7",
      "FUNCTION(a, 'pow:', 3) == 8", "FUNCTION(FUNCTION('a', 'x'), 'y:z:', {1, b}, $v) == nil",
      "FUNCTION(a + 1, 'sum:', 1)[0] == 1", "a | b & c ^ d >> e << 1 == -x & 3", "(a & b) + 1 == c ** 2 | 1",
      "min(x) == max(y) AND randomn(3) < 3", "name.length > 2", "a.$b.c == 1", "SELF.$x == 1", "$v.$w.$x == 1",
  };
  for (const char* format : corpus) expectRoundTrip(format);
  expectRoundTrip("x == %@ AND y IN %@ AND z == %@ AND w == %K",
                  {Value(Data{0, 1, 254}), Array{NSDate(1.0), "q\"uote", 3.5}, NSDate(-12345.6789), "a.b"});
  expectRoundTrip("x == %@", {std::numeric_limits<double>::infinity()});
  expectRoundTrip("%K == %@", {"true", "YES"});
  expectRoundTrip("x IN {CAST('nan', 'NSNumber'), CAST('-nan', 'NSNumber')} AND y == %@", {std::nan("")});
  expectRoundTrip("$a\\x20b == 1 AND SUBQUERY(x, $\\x2d, TRUEPREDICATE) == 1");
  expectRoundTrip("%K == 1 AND %K == 2 AND $v.%K == 3", {"$x", "a.$y\\z.$", "$\x01"});
}

TEST(PredicateFormat, MalformedInputGivesAnErrorWithItsPosition) {
  struct Case {
    const char* format;
    std::int64_t position;
  };
  const Case cases[] = {
      {"", 0},                       // nothing to parse
      {"   ", 3},                    // only blanks
      {"a", 1},                      // a bare key is not a predicate
      {"1", 1},                      // nor a bare number
      {"(a == 1", 7},                // unbalanced: missing ')'
      {"a == 1)", 6},                // unbalanced: stray ')'
      {"((a == 1)", 9},              //
      {"a == (1", 7},                //
      {"a ==", 4},                   // missing right operand
      {"== 1", 0},                   // missing left operand
      {"a === 1", 4},                // unknown operator
      {"a LIKES 'x'", 2},            // unknown operator word
      {"a ! 1", 2},                  //
      {"a & b", 5},                  // a bitwise expression is not a predicate
      {"a << == 1", 5},              //
      {"a & & b == 1", 4},           //
      {"a == 'x", 5},                // unterminated string
      {"a == \"x\\\"", 5},           // escaped closing quote leaves it open
      {"a == 1 AND", 10},            // dangling AND
      {"AND a == 1", 0},             //
      {"a == 1 b == 2", 7},          // missing conjunction
      {"NOT", 3},                    //
      {"a ==[x] 1", 4},              // unknown option letter
      {"a ==[c 1", 4},               // unclosed options
      {"a == %", 5},                 // stray %
      {"a == %k", 5},                // unknown specifier
      {"a == %5d", 5},               // widths are not part of the language
      {"a == 1 ? 2 : 3", 7},         // '?' is not a token
      {"a.1 == 2", 1},               // a number after '.'
      {"a. == 2", 3},                //
      {"a == 1x", 5},                // malformed number
      {"a == 0x", 5},                //
      {"a == 1e", 5},                //
      {"a == .5", 5},                //
      {"a == 0xFFFFFFFFFFFFFFFFF", 5},  // out of range
      {"a == $", 5},                 // variable without a name
      {"a == @", 5},                 //
      {"# == 1", 0},                 //
      {"a\\q == 1", 1},              // bad identifier escape
      {"a\\u002e\\x2eb == 1", 1},    // an escape cannot hide a key separator
      {"a\\056 == 1", 1},
      {"AND == 1", 0},               // reserved word as a key
      {"a == FIRST", 5},             // FIRST outside an index
      {"a[1 == 2", 4},               // unclosed index
      {"a == {1, 2", 10},            // unclosed aggregate
      {"a == {1 2}", 8},             //
      {"ANY a", 5},                  // quantifier without comparison
      {"ANY (a == 1)", 7},           // quantifier over a predicate
      {"(a) AND b == 1", 4},         // a bare expression in a compound
      {"NOT (a)", 7},                //
      {"SUBQUERY(a, x, x == 1).@count == 0", 12},  // subquery variable must be $x
      {"SUBQUERY(a, $x, $x).@count == 0", 18},
      {"CAST(1) == 2", 0},           // CAST takes two arguments
      {"CAST('x', 'NSNumber') == 1", 0},  // constant that cannot be cast
      {"foo:(1) == 1", 0},           // unknown function
      {"sum:(1, 2) == 1", 0},        // wrong arity
      {"FUNCTION(a) == 1", 0},       // FUNCTION needs a selector string
      {"FUNCTION(a, b) == 1", 0},    //
      {"FUNCTION(a, '') == 1", 0},   //
      {"FUNCTION == 1", 0},          //
      {"min(1, 2) == 1", 0},         // a bare name has the arity of its colon form
      {"foo(1) == 1", 0},            //
      {"a.$ == 1", 2},               //
      {"a == 1 ANYKEY", 7},          //
      {"a BETWEEN", 9},              //
      {"TRUEPREDICATE == 1", 14},    //
  };
  for (const Case& c : cases) EXPECT_EQ(errorPosition(c.format), c.position) << c.format;
}

TEST(PredicateFormat, BadArgumentsAreReportedAsArgumentErrors) {
  std::int64_t code = 0;
  EXPECT_EQ(errorPosition("a == %@", {}, &code), 5);
  EXPECT_EQ(code, ZBPredicateArgumentError);
  EXPECT_EQ(errorPosition("%K == 1 AND b == %@", {"a"}, &code), 17);
  EXPECT_EQ(code, ZBPredicateArgumentError);
  EXPECT_EQ(errorPosition("%K == 1", {42}, &code), 0);
  EXPECT_EQ(code, ZBPredicateArgumentError);
  EXPECT_EQ(errorPosition("%K == 1", {""}, &code), 0);
  EXPECT_EQ(errorPosition("%K == 1", {"a..b"}, &code), 0);
  EXPECT_EQ(errorPosition("%K == 1", {"a."}, &code), 0);
  EXPECT_EQ(errorPosition("a == %d", {"seven"}, &code), 5);
  EXPECT_EQ(code, ZBPredicateArgumentError);
  EXPECT_EQ(errorPosition("a == %s", {7}, &code), 5);
  // A quoted specifier consumes nothing, so the next one still needs its own.
  EXPECT_EQ(errorPosition("a == '%@' AND b == %@", {}, &code), 19);
  // A null error slot is allowed.
  EXPECT_FALSE(NSPredicate::predicateWithFormat("(((", {}, nullptr));
}

TEST(PredicateFormat, DeepNestingIsRefusedNotCrashing) {
  std::string deep(100000, '(');
  EXPECT_GE(errorPosition(deep + "a == 1" + std::string(100000, ')')), 0);
  EXPECT_GE(errorPosition(std::string(100000, '!') + "a == 1"), 0);
  EXPECT_GE(errorPosition("a == " + std::string(100000, '-') + "1"), 0);
  EXPECT_GE(errorPosition("a == " + std::string(100000, '{')), 0);
  std::string chain = "a == 1";
  for (int i = 0; i < 5000; ++i) chain += " AND a == 1";
  EXPECT_GE(errorPosition(chain), 0);
  std::string sum = "a == 1";
  for (int i = 0; i < 5000; ++i) sum += " + 1";
  EXPECT_GE(errorPosition(sum), 0);
  // Depth up to the limit still works, and its reprint (which needs more
  // parentheses than the input) parses again.
  std::string moderate = "a == 1";
  for (int i = 0; i < 200; ++i) moderate = "(" + moderate + " OR b == " + std::to_string(i) + ")";
  expectRoundTrip(moderate);
  expectRoundTrip("a == 1 AND " + std::string(250, '!') + "b == 2");
  expectRoundTrip("a == " + std::string(250, '(') + "1" + std::string(250, ')'));
  std::string nested = "x";
  for (int i = 0; i < 240; ++i) nested = i % 3 == 0 ? "(" + nested + " + 1)" : (i % 3 == 1 ? nested + "[0]" : "-" + nested);
  expectRoundTrip(nested + " == 1");
}

TEST(PredicateFormat, ExpressionsParseOnTheirOwn) {
  NSErrorPtr error;
  auto e = NSExpression::expressionWithFormat("tags.@count + %d", {2}, &error);
  ASSERT_TRUE(e) << error->localizedDescription();
  EXPECT_EQ(e->expressionType(), NSExpressionType::Function);
  EXPECT_EQ(e->function(), "add:to:");
  EXPECT_EQ(e->expressionFormat(), "tags.@count + 2");
  EXPECT_FALSE(NSExpression::expressionWithFormat("a == 1", {}, &error));
  EXPECT_EQ(error->code(), ZBPredicateFormatError);
  EXPECT_FALSE(NSExpression::expressionWithFormat("", {}, &error));
}
