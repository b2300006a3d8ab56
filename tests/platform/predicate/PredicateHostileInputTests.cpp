// Random and truncated format strings: no crash, no hang, and whatever parses
// prints to text that parses back to an equal predicate.

#include <gtest/gtest.h>

#include <random>

#include "platform/predicate/NSPredicate.h"

namespace {

const char* kFragments[] = {
    "a", "b.c", "tags.@count", "@sum.x", "#in", "SELF", "$v", "$7__days", "1", "-2", "3.5", "1e3", "0x1f", "'s'",
    "\"q\\\"\"", "nil", "YES", "NO", "{", "}", "{1, 'a'}", "(", ")", "[", "]", "[c]", "[cd]", "[n]", ",", ".",
    "==", "=", "!=", "<>", "<", "<=", "=<", ">", ">=", "=>", "+", "-", "*", "/", "**", "AND", "&&", "OR", "||",
    "NOT", "!", "ANY", "ALL", "NONE", "SOME", "IN", "CONTAINS", "BEGINSWITH", "ENDSWITH", "LIKE", "MATCHES",
    "BETWEEN", "TRUEPREDICATE", "FALSEPREDICATE", "SUBQUERY(", "CAST(", "'NSDate'", "sum:(", "now()", "FIRST",
    "LAST", "SIZE", "%@", "%K", "%d", "%%", "%", "?", "\\x41", "é", "\xff", "#", "@", "$", ":", " ", "\n",
    "&", "|", "^", "<<", ">>", "FUNCTION(", "'pow:'", "min(", ".length", ".$k",
};

// Builds random text from the grammar, so most of it parses and reaches the
// printer; spelling variants (case, operator synonyms, spacing) are mixed in.
class Generator {
public:
  explicit Generator(std::uint32_t seed) : _random(seed) {}

  std::string predicate(int depth) {
    switch (depth <= 0 ? _pick(3) : _pick(7)) {
      case 0:
      case 1:
      case 2:
        return _comparison(depth);
      case 3: return _pick(2) ? "TRUEPREDICATE" : "falsepredicate";
      case 4: return predicate(depth - 1) + _one({" AND ", " && ", " and "}) + predicate(depth - 1);
      case 5: return predicate(depth - 1) + _one({" OR ", " || ", " Or "}) + predicate(depth - 1);
      default: return _one({"NOT ", "!", "not "}) + std::string(_pick(2) ? "(" + predicate(depth - 1) + ")" : _comparison(depth));
    }
  }

  std::string expression(int depth) {
    switch (depth <= 0 ? _pick(6) : _pick(12)) {
      case 0: return _one({"a", "b.c", "tags.title", "tags.@count", "#first", "ÄÖ", "a\\x2db", "@count"});
      case 1: return _one({"1", "-2", "3.5", "1e3", "0x1f", "0b11", "9.2e-5", "99999999999999999999", "-0.0"});
      case 2: return _one({"'s'", "\"q\\\"\"", "'it\\'s'", "''", "'é'", "'\\n'", "'a*b?c'"});
      case 3: return _one({"nil", "NULL", "YES", "no", "TRUE", "SELF"});
      case 4: return _one({"$v", "$7__days", "$x1"});
      case 5: return _one({"%@", "%K", "%d", "%f", "%%"});
      case 6: return "{" + expression(depth - 1) + ", " + expression(depth - 1) + "}";
      case 7:
        return expression(depth - 1) + _one({" + ", " - ", " * ", " / ", " ** ", " & ", " | ", " ^ ", " << ", " >> "}) +
               expression(depth - 1);
      case 8: return "(" + expression(depth - 1) + ")";
      case 9: return expression(depth - 1) + "[" + _one({"0", "FIRST", "last", "SIZE", "$i"}) + "]";
      case 10:
        if (_pick(3) == 0)
          return "FUNCTION(" + expression(depth - 1) + ", " + _one({"'length'", "'pow:', 2", "'a:b:', $v, x"}) + ")";
        return _one({"sum:(", "count:(", "abs:(", "uppercase:(", "min("}) + expression(depth - 1) + ")";
      default:
        return _pick(2) ? "CAST(" + expression(depth - 1) + ", " + _one({"'NSDate'", "'NSNumber'", "'NSString'"}) + ")"
                        : "SUBQUERY(" + expression(depth - 1) + ", $t, " + predicate(depth - 1) + ")" +
                              (_pick(2) ? ".@count" : "");
    }
  }

private:
  std::string _comparison(int depth) {
    std::string text = _one({"", "", "ANY ", "ALL ", "NONE ", "SOME "}) + expression(depth - 1) + " ";
    text += _one({"==", "=", "!=", "<>", "<", "<=", "=<", ">", ">=", "=>", "IN", "contains", "BEGINSWITH",
                  "endswith", "LIKE", "matches", "BETWEEN"});
    text += _one({"", "", "", "[c]", "[cd]", "[n]", "[DC]", "[l]"});
    return text + " " + expression(depth - 1);
  }
  unsigned _pick(unsigned n) { return _random() % n; }
  std::string _one(std::initializer_list<const char*> choices) { return *(choices.begin() + _pick(static_cast<unsigned>(choices.size()))); }

  std::mt19937 _random;
};

void checkRoundTrip(const std::string& format, const std::vector<Value>& arguments) {
  NSErrorPtr error;
  auto p = NSPredicate::predicateWithFormat(format, arguments, &error);
  if (!p) {
    ASSERT_TRUE(error) << format;
    EXPECT_LE(error->userInfo()["ZBPredicateErrorPosition"].integerValue(), static_cast<std::int64_t>(format.size()));
    return;
  }
  std::string text = p->predicateFormat();
  auto again = NSPredicate::predicateWithFormat(text, {}, &error);
  ASSERT_TRUE(again) << format << " printed as " << text << " which fails: " << error->localizedDescription();
  EXPECT_TRUE(p->isEqual(*again)) << format << " printed as " << text;
  EXPECT_EQ(again->predicateFormat(), text);
  p->evaluateWithObject(Value(Dictionary{{"a", 1}, {"b", Dictionary{{"c", "x"}}}}), Dictionary{{"v", 2}});
}

}  // namespace

TEST(PredicateHostileInput, RandomFragmentSequencesNeverCrash) {
  std::mt19937 random(20240601);
  const std::vector<Value> arguments = {"key.path", 3, Array{1, 2}, "x", NSDate(5.0), Value(), 2.5, "k", "$k.$v"};
  int parsed = 0;
  for (int round = 0; round < 8000; ++round) {
    std::string format;
    int pieces = 1 + static_cast<int>(random() % 12);
    for (int i = 0; i < pieces; ++i) {
      format += kFragments[random() % std::size(kFragments)];
      if (random() % 2) format += ' ';
    }
    NSPredicatePtr p = NSPredicate::predicateWithFormat(format, arguments);
    if (p) ++parsed;
    checkRoundTrip(format, arguments);
    if (HasFatalFailure()) return;
  }
  // The generator must actually reach the printer, or this test proves little.
  EXPECT_GT(parsed, 20);
}

TEST(PredicateHostileInput, GeneratedPredicatesRoundTrip) {
  Generator generator(4242);
  const std::vector<Value> arguments = {"key.path", "k", 3, 2.5, "x", Array{1, "2"}, NSDate(5.0), Value(), "kk", 9,
                                        "$a.b.$c"};
  int parsed = 0;
  for (int round = 0; round < 10000; ++round) {
    std::string format = generator.predicate(3);
    if (NSPredicate::predicateWithFormat(format, arguments)) ++parsed;
    checkRoundTrip(format, arguments);
    if (HasFatalFailure()) return;
  }
  // Most generated text must parse, or the round trip is barely exercised.
  EXPECT_GT(parsed, 5000);
}

TEST(PredicateHostileInput, TruncationsAndByteNoiseNeverCrash) {
  const std::string seeds[] = {
      "(a == 1 OR b.c CONTAINS[cd] 'x') AND NOT ANY tags.title IN {'a', \"b\"}",
      "SUBQUERY(tags, $t, $t.title MATCHES '.*' AND $t.n BETWEEN {1, 2}).@count > CAST(3, 'NSDate')",
      "a + b * -c ** 2 == sum:({1, 2.5e3, 0x10}) || #first[LAST] LIKE[n] 'a\\*?' && $7__days >= now()",
      "FUNCTION(a.$b, 'pow:', 1 << 2 | x & 3 ^ 1) >= min(name.length) >> 1",
  };
  std::mt19937 random(77);
  for (const std::string& seed : seeds) {
    for (std::size_t n = 0; n <= seed.size(); ++n) checkRoundTrip(seed.substr(0, n), {});
    for (int round = 0; round < 1500; ++round) {
      std::string noisy = seed;
      int edits = 1 + static_cast<int>(random() % 3);
      for (int i = 0; i < edits; ++i) {
        std::size_t at = random() % noisy.size();
        switch (random() % 3) {
          case 0: noisy[at] = static_cast<char>(random() % 256); break;
          case 1: noisy.erase(at, 1); break;
          default: noisy.insert(at, 1, "()[]{}'\"\\%$#@.,!=<>"[random() % 19]); break;
        }
        if (noisy.empty()) noisy = "x";
      }
      checkRoundTrip(noisy, {});
      if (HasFatalFailure()) return;
    }
  }
}
