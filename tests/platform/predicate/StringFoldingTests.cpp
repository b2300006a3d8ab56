// The Unicode matching helpers shared with the object store's SQL functions.

#include <gtest/gtest.h>

#include "platform/predicate/ZBPredicateError.h"
#include "platform/predicate/ZBStringFolding.h"

TEST(StringFolding, FoldsCaseDiacriticsAndCanonicalForms) {
  struct Case {
    const char* input;
    bool c, d;
    const char* expected;
  };
  const Case cases[] = {
      {"Hello", false, false, "Hello"},
      {"Hello", true, false, "hello"},
      {"Hello", false, true, "Hello"},
      {"Café", true, false, "café"},
      {"Café", false, true, "Cafe"},
      {"ÉCOLE Ñandú Über", true, true, "ecole nandu uber"},
      {"Straße", true, false, "strasse"},          // full case folding
      {"ΣΊΣΥΦΟΣ", true, false, "σίσυφοσ"},         // final sigma folds like the others
      {"E\u0301", true, false, "\u00e9"},          // decomposed input composes
      {"\u00e9", false, false, "\u00e9"},
      {"ＡＢＣ１", false, true, "ABC1"},             // [d] is also width-insensitive
      {"ﬁ", false, true, "fi"},
      {"Ǆ", true, false, "ǆ"},
      {"İ", true, false, "i\u0307"},               // dotted capital I keeps its dot
      {"日本語", true, true, "日本語"},
      {"", true, true, ""},
  };
  for (const Case& c : cases) EXPECT_EQ(ZBFoldString(c.input, c.c, c.d), c.expected) << c.input;

  // Invalid UTF-8 never crashes and yields replacement characters.
  std::string invalid = "a\xff\xfe" "b\xc3";
  EXPECT_EQ(ZBFoldString(invalid, true, true), "a\uFFFD\uFFFDb\uFFFD");
  // Folding into a reused buffer overwrites it.
  std::string buffer = "leftover text";
  ZBFoldStringInto("AB", true, false, buffer);
  EXPECT_EQ(buffer, "ab");
}

TEST(StringFolding, LikeMatchesWholeStringsWithWildcards) {
  struct Case {
    const char* text;
    const char* pattern;
    bool c, d;
    bool expected;
  };
  const Case cases[] = {
      {"", "", false, false, true},
      {"", "*", false, false, true},
      {"", "?", false, false, false},
      {"a", "", false, false, false},
      {"abc", "abc", false, false, true},
      {"abc", "ab", false, false, false},
      {"abc", "a*", false, false, true},
      {"abc", "*c", false, false, true},
      {"abc", "*b*", false, false, true},
      {"abc", "a?c", false, false, true},
      {"abc", "a??c", false, false, false},
      {"abc", "***", false, false, true},
      {"aaa", "a*a*a", false, false, true},
      {"aa", "a*a*a", false, false, false},
      {"mississippi", "m*iss*ppi", false, false, true},
      {"mississippi", "m*iss*ppx", false, false, false},
      {"a.c", "a.c", false, false, true},          // regex characters are literal
      {"abc", "a.c", false, false, false},
      {"a(b)[c]{d}+^$|", "a(b)[c]{d}+^$|", false, false, true},
      {"a*c", "a\\*c", false, false, true},        // escaped wildcard
      {"abc", "a\\*c", false, false, false},
      {"a?c", "a\\?c", false, false, true},
      {"a\\c", "a\\\\c", false, false, true},
      {"é", "?", false, false, true},              // '?' is one character, not one byte
      {"日本語", "日?語", false, false, true},
      {"line1\nline2", "line1*line2", false, false, true},
      {"Café", "cafe", true, true, true},
      {"Café", "CAF?", true, false, true},
      {"Café", "cafe", true, false, false},
      {"ＡＢ", "ab", true, true, true},
      {"x﹡y", "x*y", false, true, true},          // a folded literal never becomes a wildcard
      {"xay", "x﹡y", false, true, false},
  };
  for (const Case& c : cases)
    EXPECT_EQ(ZBStringLike(c.text, c.pattern, c.c, c.d), c.expected) << c.text << " LIKE " << c.pattern;

  // A long hostile input stays fast enough to finish (no exponential backtracking).
  std::string text(20000, 'a');
  EXPECT_FALSE(ZBStringLike(text, "*a*a*a*a*a*a*a*b", false, false));
}

TEST(StringFolding, RegexMatchesTheWholeStringAndReportsBadPatterns) {
  EXPECT_TRUE(ZBStringMatches("Swift", "Swift", false, false));
  EXPECT_FALSE(ZBStringMatches("Café Swift Tips", "Swift", false, false));
  EXPECT_TRUE(ZBStringMatches("Café Swift Tips", ".*Swift.*", false, false));
  EXPECT_TRUE(ZBStringMatches("SWIFT", "swift", true, false));
  EXPECT_FALSE(ZBStringMatches("SWIFT", "swift", false, false));
  EXPECT_TRUE(ZBStringMatches("Café", "Cafe", false, true));
  EXPECT_TRUE(ZBStringMatches("CAFÉ", "café", true, true));
  EXPECT_TRUE(ZBStringMatches("AB", "\\W*\\w+", true, false));  // escapes survive case-insensitivity
  EXPECT_FALSE(ZBStringMatches("anything", "", false, false));
  EXPECT_TRUE(ZBStringMatches("a\nb", "a\\nb", false, false));

  NSErrorPtr error;
  EXPECT_FALSE(ZBStringMatches("x", "([", false, false, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), ZBPredicateErrorDomain);
  EXPECT_EQ(error->code(), ZBPredicateInvalidRegexError);
  EXPECT_FALSE(ZBRegex::create("(", false, false));

  // Catastrophic backtracking is cut off, not hung on.
  auto evil = ZBRegex::create("(a+)+b", false, false);
  ASSERT_TRUE(evil);
  EXPECT_FALSE(evil->matches(std::string(40, 'a')));
}
