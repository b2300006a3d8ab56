#include "platform/predicate/ZBStringFolding.h"

#include <unicode/normalizer2.h>
#include <unicode/regex.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include "platform/predicate/ZBPredicateError.h"

namespace {

inline char asciiLower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + ('a' - 'A')) : c; }

// Length of the UTF-8 sequence that starts with lead (1 for stray bytes, so
// scanning always advances).
inline std::size_t utf8Length(unsigned char lead) {
  if (lead < 0xC0) return 1;
  if (lead < 0xE0) return 2;
  if (lead < 0xF0) return 3;
  if (lead < 0xF8) return 4;
  return 1;
}

// ICU builds its normalizers lazily behind its own atomics; fetching them once
// through a static makes the hand-over to other threads one the compiler (and
// ThreadSanitizer) can see, and saves a lookup per fold.
struct Normalizers {
  const icu::Normalizer2* nfd = nullptr;
  const icu::Normalizer2* nfkd = nullptr;
  const icu::Normalizer2* nfc = nullptr;
};

const Normalizers& normalizers() {
  static const Normalizers instances = [] {
    Normalizers n;
    UErrorCode status = U_ZERO_ERROR;
    n.nfd = icu::Normalizer2::getNFDInstance(status);
    n.nfkd = icu::Normalizer2::getNFKDInstance(status);
    n.nfc = icu::Normalizer2::getNFCInstance(status);
    return U_SUCCESS(status) ? n : Normalizers{};
  }();
  return instances;
}

icu::UnicodeString foldUnicode(const icu::UnicodeString& text, bool caseInsensitive, bool diacriticInsensitive) {
  const Normalizers& n = normalizers();
  const icu::Normalizer2* decompose = diacriticInsensitive ? n.nfkd : n.nfd;
  const icu::Normalizer2* compose = n.nfc;
  if (!decompose || !compose) return text;
  UErrorCode status = U_ZERO_ERROR;
  icu::UnicodeString decomposed = decompose->normalize(text, status);
  if (U_FAILURE(status)) return text;
  if (diacriticInsensitive) {
    icu::UnicodeString stripped;
    for (int32_t i = 0; i < decomposed.length();) {
      UChar32 c = decomposed.char32At(i);
      if (u_charType(c) != U_NON_SPACING_MARK) stripped.append(c);
      i += U16_LENGTH(c);
    }
    decomposed = std::move(stripped);
  }
  if (caseInsensitive) decomposed.foldCase(U_FOLD_CASE_DEFAULT);
  icu::UnicodeString composed = compose->normalize(decomposed, status);
  return U_FAILURE(status) ? decomposed : composed;
}

}  // namespace

bool ZBStringIsASCII(std::string_view text) {
  for (char c : text)
    if (static_cast<unsigned char>(c) >= 0x80) return false;
  return true;
}

void ZBFoldStringInto(std::string_view text, bool caseInsensitive, bool diacriticInsensitive, std::string& out) {
  if (ZBStringIsASCII(text)) {
    out.assign(text);
    if (caseInsensitive)
      for (char& c : out) c = asciiLower(c);
    return;
  }
  if (!caseInsensitive && !diacriticInsensitive) {
    out.assign(text);
    return;
  }
  icu::UnicodeString folded = foldUnicode(
      icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size()))),
      caseInsensitive, diacriticInsensitive);
  out.clear();
  folded.toUTF8String(out);
}

std::string ZBFoldString(std::string_view text, bool caseInsensitive, bool diacriticInsensitive) {
  std::string out;
  ZBFoldStringInto(text, caseInsensitive, diacriticInsensitive, out);
  return out;
}

// MARK: LIKE

ZBLikePattern::ZBLikePattern(std::string_view pattern, bool caseInsensitive, bool diacriticInsensitive)
    : _caseInsensitive(caseInsensitive), _diacriticInsensitive(diacriticInsensitive) {
  // Split into literal runs and wildcards first, then fold only the literals,
  // so folding can never turn a character into a wildcard.
  std::string literal;
  auto flush = [&] {
    if (literal.empty()) return;
    _elements.push_back({Kind::Literal, ZBFoldString(literal, caseInsensitive, diacriticInsensitive)});
    literal.clear();
  };
  for (std::size_t i = 0; i < pattern.size(); ++i) {
    char c = pattern[i];
    if (c == '\\' && i + 1 < pattern.size()) {
      literal.push_back(pattern[++i]);
    } else if (c == '*') {
      flush();
      if (_elements.empty() || _elements.back().kind != Kind::Any) _elements.push_back({Kind::Any, {}});
    } else if (c == '?') {
      flush();
      _elements.push_back({Kind::One, {}});
    } else {
      literal.push_back(c);
    }
  }
  flush();
}

bool ZBLikePattern::matchesFolded(std::string_view text) const {
  // Greedy matching that backtracks only to the last '*': O(text × pattern).
  const std::size_t n = _elements.size();
  std::size_t t = 0, p = 0;
  std::size_t starElement = n, starText = 0;
  while (t < text.size()) {
    if (p < n) {
      const Element& e = _elements[p];
      if (e.kind == Kind::Literal && text.compare(t, e.literal.size(), e.literal) == 0) {
        t += e.literal.size();
        ++p;
        continue;
      }
      if (e.kind == Kind::One) {
        t += utf8Length(static_cast<unsigned char>(text[t]));
        ++p;
        continue;
      }
      if (e.kind == Kind::Any) {
        starElement = p++;
        starText = t;
        continue;
      }
    }
    if (starElement == n) return false;
    p = starElement + 1;
    starText += utf8Length(static_cast<unsigned char>(text[starText]));
    t = starText;
  }
  while (p < n && _elements[p].kind == Kind::Any) ++p;
  return p == n && t == text.size();
}

bool ZBLikePattern::matches(std::string_view text) const {
  if (!_caseInsensitive && !_diacriticInsensitive) return matchesFolded(text);
  thread_local std::string folded;
  ZBFoldStringInto(text, _caseInsensitive, _diacriticInsensitive, folded);
  return matchesFolded(folded);
}

bool ZBStringLike(std::string_view text, std::string_view pattern, bool caseInsensitive, bool diacriticInsensitive) {
  return ZBLikePattern(pattern, caseInsensitive, diacriticInsensitive).matches(text);
}

// MARK: MATCHES

struct ZBRegex::Impl {
  std::unique_ptr<icu::RegexPattern> pattern;  // null for the empty pattern
  bool diacriticInsensitive = false;
};

ZBRegex::ZBRegex(std::unique_ptr<Impl> impl) : _impl(std::move(impl)) {}
ZBRegex::~ZBRegex() = default;

std::shared_ptr<const ZBRegex> ZBRegex::create(std::string_view pattern, bool caseInsensitive,
                                               bool diacriticInsensitive, NSErrorPtr* error) {
  auto impl = std::make_unique<Impl>();
  impl->diacriticInsensitive = diacriticInsensitive;
  if (!pattern.empty()) {
    // The pattern is folded for diacritics only: case-folding it would turn
    // escapes such as \W into \w.
    std::string source = diacriticInsensitive ? ZBFoldString(pattern, false, true) : std::string(pattern);
    UErrorCode status = U_ZERO_ERROR;
    UParseError parseError;
    impl->pattern.reset(icu::RegexPattern::compile(
        icu::UnicodeString::fromUTF8(icu::StringPiece(source.data(), static_cast<int32_t>(source.size()))),
        caseInsensitive ? UREGEX_CASE_INSENSITIVE : 0, parseError, status));
    if (U_FAILURE(status) || !impl->pattern) {
      ZBSetError(error, ZBPredicateMakeError(ZBPredicateInvalidRegexError,
                                             "Invalid regular expression “" + std::string(pattern) +
                                                 "” at offset " + std::to_string(parseError.offset) + ": " +
                                                 u_errorName(status)));
      return nullptr;
    }
  }
  return std::make_shared<const ZBRegex>(std::move(impl));
}

bool ZBRegex::matches(std::string_view text) const {
  if (!_impl->pattern) return false;
  icu::UnicodeString subject;
  if (_impl->diacriticInsensitive) {
    thread_local std::string folded;
    ZBFoldStringInto(text, false, true, folded);
    subject = icu::UnicodeString::fromUTF8(icu::StringPiece(folded.data(), static_cast<int32_t>(folded.size())));
  } else {
    subject = icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
  }
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::RegexMatcher> matcher(_impl->pattern->matcher(subject, status));
  if (U_FAILURE(status) || !matcher) return false;
  // Bounds catastrophic backtracking; ICU's steps are on the order of a
  // millisecond each.
  matcher->setTimeLimit(2000, status);
  bool result = matcher->matches(status);
  return U_SUCCESS(status) && result;
}

bool ZBStringMatches(std::string_view text, std::string_view pattern, bool caseInsensitive, bool diacriticInsensitive,
                     NSErrorPtr* error) {
  auto regex = ZBRegex::create(pattern, caseInsensitive, diacriticInsensitive, error);
  return regex && regex->matches(text);
}
