#include "platform/pinboardkit/ZBPinboardResponseParser.h"

#include "platform/foundation/ZBMD5.h"
#include "platform/pinboardkit/ZBPinboardKit.h"
#include "platform/pinboardkit/ZBPinboardPostListReader.h"
#include "platform/pinboardkit/impl/ZBPinboardPostFields.h"
#include "platform/pinboardkit/impl/ZBPinboardPostList.h"

using namespace zb::pinboard;

namespace {

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
  std::size_t bracket = 0;
  if (shapeOf(body, bracket) == Shape::List) {
    body.reserve(body.size() + simdjson::SIMDJSON_PADDING);
    PostList list(username, ZBPinboardPostListReader::kDefaultRunBytes);
    list.read(body.data(), bracket, body.size(), true);
    return list.result(method, error);
  }
  // An envelope {"posts": […]} (posts/get, posts/recent), or no list at all.
  simdjson::dom::parser parser;
  element root;
  std::string reason;
  if (!parse(body, parser, root, reason)) return malformed(method, error, reason);
  simdjson::dom::array list;
  element inner;
  if (root.at_key("posts").get(inner) || inner.get_array().get(list))
    return malformed(method, error, "neither a list of posts nor an envelope with posts");
  std::vector<PostFields> fields;
  if (!listFields(inner, fields, reason)) return malformed(method, error, reason);
  const Value owner(username);
  Array out;
  out.reserve(fields.size());
  for (const PostFields& f : fields) out.push_back(postDictionary(f, owner));
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
