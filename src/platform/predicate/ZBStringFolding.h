#pragma once
// Unicode string matching shared by in-memory predicate evaluation and the
// SQLite functions of the object store, so both give the same answers.
//
// Folding: case folding is full Unicode case folding (ß folds to "ss");
// diacritic folding decomposes compatibly (NFKD, so widths fold too) and drops
// non-spacing marks (é → e, ü → u, ñ → n). Results are in NFC, so canonically
// equivalent inputs fold to the same bytes. ASCII input takes a fast path
// without ICU. Invalid UTF-8 is read with U+FFFD replacements.
//
// All functions are thread-safe; ZBLikePattern and ZBRegex are immutable once
// built and may be shared between threads.

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/NSError.h"

// Returns text folded as asked; with both flags false, text unchanged.
std::string ZBFoldString(std::string_view text, bool caseInsensitive, bool diacriticInsensitive);
// The same into out (its capacity is reused: no allocation once warm).
void ZBFoldStringInto(std::string_view text, bool caseInsensitive, bool diacriticInsensitive, std::string& out);

// True when text holds only ASCII bytes.
bool ZBStringIsASCII(std::string_view text);

// A LIKE pattern: '*' matches any run of characters (newlines included), '?'
// exactly one character, a backslash makes the next character literal; all
// else is literal. The match covers the whole string.
class ZBLikePattern {
public:
  ZBLikePattern() = default;
  ZBLikePattern(std::string_view pattern, bool caseInsensitive, bool diacriticInsensitive);
  // Folds text with the pattern's flags, then matches.
  bool matches(std::string_view text) const;
  // Matches text that the caller has already folded with the same flags.
  bool matchesFolded(std::string_view foldedText) const;

private:
  enum class Kind : unsigned char { Literal, One, Any };
  struct Element {
    Kind kind;
    std::string literal;
  };
  std::vector<Element> _elements;
  bool _caseInsensitive = false;
  bool _diacriticInsensitive = false;
};

// One-shot LIKE.
bool ZBStringLike(std::string_view text, std::string_view pattern, bool caseInsensitive, bool diacriticInsensitive);

// An ICU regular expression that must match the whole string (MATCHES).
// Case-insensitivity is the regex flag; diacritic-insensitivity folds both the
// pattern and the text. A run that exceeds ICU's work limit counts as no match.
class ZBRegex {
public:
  // nullptr and ZBPredicateInvalidRegexError for an invalid pattern.
  static std::shared_ptr<const ZBRegex> create(std::string_view pattern, bool caseInsensitive,
                                               bool diacriticInsensitive, NSErrorPtr* error = nullptr);
  ~ZBRegex();
  // False for an empty pattern.
  bool matches(std::string_view text) const;

  struct Impl;
  explicit ZBRegex(std::unique_ptr<Impl> impl);

private:
  std::unique_ptr<Impl> _impl;
};

// One-shot MATCHES; false (and the error) for an invalid pattern.
bool ZBStringMatches(std::string_view text, std::string_view pattern, bool caseInsensitive, bool diacriticInsensitive,
                     NSErrorPtr* error = nullptr);
