#include "platform/pinboardkit/ZBPinboardResponseParser.h"

#include <simdjson.h>

#include <charconv>

#include "platform/foundation/ZBMD5.h"
#include "platform/pinboardkit/ZBPinboardKit.h"
#include "platform/pinboardkit/impl/ZBPinboardErrors.h"

using simdjson::dom::element;

namespace {

Value malformed(const std::string& method, NSErrorPtr* error, const std::string& reason) {
  ZBSetError(error, ZBPinboardMakeError(ZBPinboardKitMalformedResponseError, method,
                                        Dictionary{{NSLocalizedFailureReasonErrorKey, reason}}));
  return Value();
}

// Parses body as one JSON document, skipping a BOM and trailing whitespace.
// The parser owns the returned element's storage.
bool parse(std::string& body, simdjson::dom::parser& parser, element& root, std::string& reason) {
  std::size_t start = 0, end = body.size();
  if (body.compare(0, 3, "\xef\xbb\xbf") == 0) start = 3;
  while (end > start && (body[end - 1] == ' ' || body[end - 1] == '\n' || body[end - 1] == '\r' || body[end - 1] == '\t'))
    --end;
  if (end == start) {
    reason = "empty answer";
    return false;
  }
  // simdjson reads a little past the end; give it room instead of a copy.
  body.reserve(end + simdjson::SIMDJSON_PADDING);
  auto error = parser.parse(reinterpret_cast<const std::uint8_t*>(body.data() + start), end - start, false).get(root);
  if (error) {
    reason = simdjson::error_message(error);
    return false;
  }
  return true;
}

std::optional<std::string_view> string(element e) {
  std::string_view s;
  if (e.get_string().get(s)) return std::nullopt;
  return s;
}

std::optional<NSDate> date(element e) {
  auto s = string(e);
  if (!s) return std::nullopt;
  return NSDate::dateFromISO8601String(*s);
}

// "yes"/"no" as the service writes them; real JSON booleans are accepted too.
Value yesNo(element e) {
  bool b;
  if (!e.get_bool().get(b)) return Value(b);
  auto s = string(e);
  if (s == "yes") return Value(true);
  if (s == "no") return Value(false);
  return Value();
}

// A count sent as a number or as a numeric string.
std::optional<std::int64_t> count(element e) {
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

Value tagArray(std::string_view text) {
  // Untagged posts share one empty list instead of allocating their own.
  static const Value none{Array()};
  if (text.empty()) return none;
  Array tags;
  std::size_t i = 0;
  while (i < text.size()) {
    std::size_t j = text.find(' ', i);
    if (j == std::string_view::npos) j = text.size();
    if (j > i) tags.emplace_back(text.substr(i, j - i));
    i = j + 1;
  }
  return Value(std::move(tags));
}

// One post of the API. Entries go in in key order, so each set appends.
bool post(element e, const Value& username, Dictionary& out, std::string& reason) {
  simdjson::dom::object o;
  if (e.get_object().get(o)) {
    reason = "a post is not an object";
    return false;
  }
  Value dateV, desc, identifier, meta, others, shared, tags, title, unread, url;
  for (auto field : o) {
    std::string_view k = field.key;
    element v = field.value;
    if (k == "href") {
      if (auto s = string(v)) url = Value(*s);
    } else if (k == "description") {
      if (auto s = string(v)) title = Value(*s);
    } else if (k == "extended") {
      if (auto s = string(v)) desc = Value(*s);
    } else if (k == "meta") {
      if (auto s = string(v)) meta = Value(*s);
    } else if (k == "hash") {
      if (auto s = string(v)) identifier = Value(*s);
    } else if (k == "time") {
      if (auto d = date(v)) dateV = Value(*d);
    } else if (k == "shared") {
      shared = yesNo(v);
    } else if (k == "toread") {
      unread = yesNo(v);
    } else if (k == "tags") {
      if (auto s = string(v)) tags = tagArray(*s);
    } else if (k == "others") {
      if (auto n = count(v)) others = Value(*n);
    }
  }
  if (!url.isString() || url.asString().empty()) {
    reason = "a post has no href";
    return false;
  }
  if (!identifier.isString() || identifier.asString().empty()) identifier = Value(ZBMD5HexString(url.asString()));
  out.reserve(11);
  out.set(ZBPinboardPostDateKey, std::move(dateV));
  out.set(ZBPinboardPostDescKey, std::move(desc));
  out.set(ZBPinboardPostIdentifierKey, std::move(identifier));
  out.set(ZBPinboardPostMetaKey, std::move(meta));
  out.set(ZBPinboardPostOthersKey, std::move(others));
  out.set(ZBPinboardPostSharedKey, std::move(shared));
  out.set(ZBPinboardPostTagsKey, std::move(tags));
  out.set(ZBPinboardPostTitleKey, std::move(title));
  out.set(ZBPinboardPostUnreadKey, std::move(unread));
  out.set(ZBPinboardPostURLKey, std::move(url));
  out.set(ZBPinboardPostUsernameKey, username);
  return true;
}

bool feedItem(element e, Dictionary& out, std::string& reason) {
  simdjson::dom::object o;
  if (e.get_object().get(o)) {
    reason = "a feed item is not an object";
    return false;
  }
  Value dateV, desc, tags, title, url, username;
  for (auto field : o) {
    std::string_view k = field.key;
    element v = field.value;
    if (k == "u") {
      if (auto s = string(v)) url = Value(*s);
    } else if (k == "d") {
      if (auto s = string(v)) title = Value(*s);
    } else if (k == "n") {
      if (auto s = string(v)) desc = Value(*s);
    } else if (k == "dt") {
      if (auto d = date(v)) dateV = Value(*d);
    } else if (k == "a") {
      if (auto s = string(v)) username = Value(*s);
    } else if (k == "t") {
      simdjson::dom::array a;
      if (!v.get_array().get(a)) {
        Array list;
        for (element t : a)
          if (auto s = string(t); s && !s->empty()) list.emplace_back(*s);  // untagged items carry [""]
        tags = Value(std::move(list));
      } else if (auto s = string(v)) {
        tags = tagArray(*s);
      }
    }
  }
  if (!url.isString() || url.asString().empty()) {
    reason = "a feed item has no u";
    return false;
  }
  out.reserve(7);
  out.set(ZBPinboardPostDateKey, std::move(dateV));
  out.set(ZBPinboardPostDescKey, std::move(desc));
  out.set(ZBPinboardPostIdentifierKey, Value(ZBMD5HexString(url.asString())));
  out.set(ZBPinboardPostTagsKey, std::move(tags));
  out.set(ZBPinboardPostTitleKey, std::move(title));
  out.set(ZBPinboardPostURLKey, std::move(url));
  out.set(ZBPinboardPostUsernameKey, std::move(username));
  return true;
}

}  // namespace

Value ZBPinboardResponseParser::updateTime(std::string& body, const std::string& method, NSErrorPtr* error) {
  simdjson::dom::parser parser;
  element root;
  std::string reason;
  if (!parse(body, parser, root, reason)) return malformed(method, error, reason);
  element v;
  if (root.at_key("update_time").get(v)) return malformed(method, error, "no update_time");
  auto d = date(v);
  if (!d) return malformed(method, error, "update_time is not a date");
  return Value(*d);
}

Value ZBPinboardResponseParser::posts(std::string& body, const std::string& username, const std::string& method,
                                      NSErrorPtr* error) {
  simdjson::dom::parser parser;
  element root;
  std::string reason;
  if (!parse(body, parser, root, reason)) return malformed(method, error, reason);
  simdjson::dom::array list;
  if (root.get_array().get(list)) {
    element inner;
    if (root.at_key("posts").get(inner) || inner.get_array().get(list))
      return malformed(method, error, "neither a list of posts nor an envelope with posts");
  }
  const Value owner(username);
  Array out;
  out.reserve(list.size());
  for (element e : list) {
    Dictionary d;
    if (!post(e, owner, d, reason)) return malformed(method, error, reason);
    out.emplace_back(std::move(d));
  }
  return Value(std::move(out));
}

Value ZBPinboardResponseParser::feed(std::string& body, const std::string& method, NSErrorPtr* error) {
  simdjson::dom::parser parser;
  element root;
  std::string reason;
  if (!parse(body, parser, root, reason)) return malformed(method, error, reason);
  simdjson::dom::array list;
  if (root.get_array().get(list)) return malformed(method, error, "a feed is not a list");
  Array out;
  out.reserve(list.size());
  for (element e : list) {
    Dictionary d;
    if (!feedItem(e, d, reason)) return malformed(method, error, reason);
    out.emplace_back(std::move(d));
  }
  return Value(std::move(out));
}

Value ZBPinboardResponseParser::resultText(std::string& body, const std::string& method, NSErrorPtr* error) {
  simdjson::dom::parser parser;
  element root;
  std::string reason;
  if (!parse(body, parser, root, reason)) return malformed(method, error, reason);
  // Posts methods answer in "result_code", tags and user methods in "result".
  element v;
  if (root.at_key("result_code").get(v) && root.at_key("result").get(v))
    return malformed(method, error, "no result");
  auto s = string(v);
  if (!s) return malformed(method, error, "the result is not text");
  return Value(*s);
}

Value ZBPinboardResponseParser::suggestedTags(std::string& body, const std::string& method, NSErrorPtr* error) {
  simdjson::dom::parser parser;
  element root;
  std::string reason;
  if (!parse(body, parser, root, reason)) return malformed(method, error, reason);
  Array tags;
  bool ok = true;
  auto take = [&](element group) {
    simdjson::dom::object o;
    if (group.get_object().get(o)) return false;
    for (auto field : o) {
      if (field.key != "popular" && field.key != "recommended") continue;
      simdjson::dom::array a;
      if (field.value.get_array().get(a)) return false;
      for (element t : a) {
        auto s = string(t);
        if (!s) return false;
        tags.emplace_back(*s);
      }
    }
    return true;
  };
  // The service sends [{"popular":[…]},{"recommended":[…]}]; one object with
  // both keys is read the same way.
  simdjson::dom::array groups;
  if (!root.get_array().get(groups)) {
    for (element g : groups) ok = ok && take(g);
  } else {
    ok = take(root);
  }
  if (!ok) return malformed(method, error, "suggestions are not lists of tags");
  return Value(std::move(tags));
}

Value ZBPinboardResponseParser::tagCounts(std::string& body, const std::string& method, NSErrorPtr* error) {
  simdjson::dom::parser parser;
  element root;
  std::string reason;
  if (!parse(body, parser, root, reason)) return malformed(method, error, reason);
  simdjson::dom::array empty;
  if (!root.get_array().get(empty)) {
    if (empty.size() != 0) return malformed(method, error, "tags are a non-empty list");
    return Value(Dictionary());  // an empty map goes out as []
  }
  simdjson::dom::object o;
  if (root.get_object().get(o)) return malformed(method, error, "tags are not a map");
  std::vector<Dictionary::Entry> entries;
  for (auto field : o) {
    auto n = count(field.value);
    if (!n) return malformed(method, error, "a tag count is not a number");
    entries.emplace_back(std::string(field.key), Value(*n));
  }
  return Value(Dictionary::fromEntries(std::move(entries)));
}
