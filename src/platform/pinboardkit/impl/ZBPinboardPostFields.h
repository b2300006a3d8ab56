#pragma once
// The service's JSON as the readers see it: a whole answer parsed into a
// document, the forms its values take on the wire, and a post read into plain
// fields and turned into a post dictionary. Pure functions; thread-safe.

#include <simdjson.h>

#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/NSDate.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/Value.h"

namespace zb::pinboard {

using simdjson::dom::element;

// Absent, with a ZBPinboardKitMalformedResponseError naming method and reason.
Value malformed(const std::string& method, NSErrorPtr* error, const std::string& reason);

// Parses body as one JSON document, skipping a BOM and trailing whitespace.
// The parser owns the returned element's storage. body's capacity may grow
// (simdjson's padding); its text stays as it was.
bool parse(std::string& body, simdjson::dom::parser& parser, element& root, std::string& reason);

inline bool isSpace(char c) { return c == ' ' || c == '\n' || c == '\r' || c == '\t'; }

inline std::optional<std::string_view> string(element e) {
  std::string_view s;
  if (e.get_string().get(s)) return std::nullopt;
  return s;
}

inline std::optional<NSDate> date(element e) {
  auto s = string(e);
  if (!s) return std::nullopt;
  return NSDate::dateFromISO8601String(*s);
}

// "yes"/"no" as the service writes them; real JSON booleans are accepted too.
inline std::optional<bool> yesNo(element e) {
  bool b;
  if (!e.get_bool().get(b)) return b;
  auto s = string(e);
  if (s == "yes") return true;
  if (s == "no") return false;
  return std::nullopt;
}

// A count sent as a number or as a numeric string.
inline std::optional<std::int64_t> count(element e) {
  std::int64_t n;
  if (!e.get_int64().get(n)) return n;
  double d;
  if (!e.get_double().get(d) && d >= -9.2e18 && d <= 9.2e18) return static_cast<std::int64_t>(d);
  auto s = string(e);
  if (!s || s->empty()) return std::nullopt;
  auto [ptr, ec] = std::from_chars(s->data(), s->data() + s->size(), n);
  if (ec != std::errc() || ptr != s->data() + s->size()) return std::nullopt;
  return n;
}

// Tags as one space-separated text: an Array of the words.
Value tagArray(std::string_view text);

// What a post of the API says, as views into its parsed document.
struct PostFields {
  std::optional<std::string_view> url, title, desc, meta, identifier, tags;
  std::optional<NSDate> date;
  std::optional<std::int64_t> others;
  std::optional<bool> shared, unread;
  std::string hash;  // the identifier when the service sent none
};

// Reads the posts of a parsed list into posts; false (with the reason) at the
// first element that is not a post, or when list is not a list.
bool listFields(element list, std::vector<PostFields>& posts, std::string& reason);

// The post dictionary with the ZBPinboardPost… keys; username is a string.
Value postDictionary(const PostFields& fields, const Value& username);

}  // namespace zb::pinboard
