#include "platform/pinboardkit/impl/ZBPinboardPostFields.h"

#include "platform/foundation/ZBMD5.h"
#include "platform/pinboardkit/ZBPinboardKit.h"
#include "platform/pinboardkit/impl/ZBPinboardErrors.h"

namespace zb::pinboard {

Value malformed(const std::string& method, NSErrorPtr* error, const std::string& reason) {
  ZBSetError(error, ZBPinboardMakeError(ZBPinboardKitMalformedResponseError, method,
                                        Dictionary{{NSLocalizedFailureReasonErrorKey, reason}}));
  return Value();
}

bool parse(std::string& body, simdjson::dom::parser& parser, element& root, std::string& reason) {
  std::size_t start = 0, end = body.size();
  if (body.compare(0, 3, "\xef\xbb\xbf") == 0) start = 3;
  while (end > start && isSpace(body[end - 1])) --end;
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

Value tagArray(std::string_view text) {
  // Untagged posts share one empty list instead of allocating their own.
  static const Value none{Array()};
  if (text.empty()) return none;
  std::size_t words = 1;
  for (char c : text) words += c == ' ';
  Array tags;
  tags.reserve(words);
  std::size_t i = 0;
  while (i < text.size()) {
    std::size_t j = text.find(' ', i);
    if (j == std::string_view::npos) j = text.size();
    if (j > i) tags.emplace_back(text.substr(i, j - i));
    i = j + 1;
  }
  if (tags.empty()) return none;
  return Value(std::move(tags));
}

namespace {

enum class PostField { Other, Href, Description, Extended, Meta, Hash, Time, Shared, Toread, Tags, Others };

// Keys of the service's post objects; the length and first letter pick the
// one candidate to compare with.
PostField postField(std::string_view k) {
  auto is = [&](std::string_view name, PostField f) { return k == name ? f : PostField::Other; };
  switch (k.size()) {
    case 4:
      switch (k[0]) {
        case 'h': return k[1] == 'r' ? is("href", PostField::Href) : is("hash", PostField::Hash);
        case 'm': return is("meta", PostField::Meta);
        case 't': return k[1] == 'i' ? is("time", PostField::Time) : is("tags", PostField::Tags);
        default: return PostField::Other;
      }
    case 6:
      switch (k[0]) {
        case 's': return is("shared", PostField::Shared);
        case 't': return is("toread", PostField::Toread);
        case 'o': return is("others", PostField::Others);
        default: return PostField::Other;
      }
    case 8: return is("extended", PostField::Extended);
    case 11: return is("description", PostField::Description);
    default: return PostField::Other;
  }
}

// Reads one post into f; false (with the reason) for anything but a post.
bool postFields(element e, PostFields& f, std::string& reason) {
  simdjson::dom::object o;
  if (e.get_object().get(o)) {
    reason = "a post is not an object";
    return false;
  }
  for (auto field : o) {
    element v = field.value;
    switch (postField(field.key)) {
      case PostField::Href:
        if (auto s = string(v)) f.url = s;
        break;
      case PostField::Description:
        if (auto s = string(v)) f.title = s;
        break;
      case PostField::Extended:
        if (auto s = string(v)) f.desc = s;
        break;
      case PostField::Meta:
        if (auto s = string(v)) f.meta = s;
        break;
      case PostField::Hash:
        if (auto s = string(v)) f.identifier = s;
        break;
      case PostField::Time:
        if (auto d = date(v)) f.date = d;
        break;
      case PostField::Shared: f.shared = yesNo(v); break;
      case PostField::Toread: f.unread = yesNo(v); break;
      case PostField::Tags:
        if (auto s = string(v)) f.tags = s;
        break;
      case PostField::Others:
        if (auto n = count(v)) f.others = n;
        break;
      case PostField::Other: break;
    }
  }
  if (!f.url || f.url->empty()) {
    reason = "a post has no href";
    return false;
  }
  if (!f.identifier || f.identifier->empty()) {
    f.hash = ZBMD5HexString(*f.url);
    f.identifier = f.hash;
  }
  return true;
}

}  // namespace

bool listFields(element list, std::vector<PostFields>& posts, std::string& reason) {
  simdjson::dom::array elements;
  if (list.get_array().get(elements)) return false;
  for (element e : elements) {
    if (!postFields(e, posts.emplace_back(), reason)) {
      posts.pop_back();
      return false;
    }
  }
  return true;
}

Value postDictionary(const PostFields& f, const Value& username) {
  // In key order, so the dictionary takes the entries as they are.
  std::vector<Dictionary::Entry> entries;
  entries.reserve(3 + !!f.date + !!f.desc + !!f.meta + !!f.others + !!f.shared + !!f.tags + !!f.title + !!f.unread);
  auto add = [&entries](const std::string& key, auto&& value) {
    entries.emplace_back(std::piecewise_construct, std::forward_as_tuple(key),
                         std::forward_as_tuple(std::forward<decltype(value)>(value)));
  };
  if (f.date) add(ZBPinboardPostDateKey, *f.date);
  if (f.desc) add(ZBPinboardPostDescKey, *f.desc);
  add(ZBPinboardPostIdentifierKey, *f.identifier);
  if (f.meta) add(ZBPinboardPostMetaKey, *f.meta);
  if (f.others) add(ZBPinboardPostOthersKey, *f.others);
  if (f.shared) add(ZBPinboardPostSharedKey, *f.shared);
  if (f.tags) add(ZBPinboardPostTagsKey, tagArray(*f.tags));
  if (f.title) add(ZBPinboardPostTitleKey, *f.title);
  if (f.unread) add(ZBPinboardPostUnreadKey, *f.unread);
  add(ZBPinboardPostURLKey, *f.url);
  add(ZBPinboardPostUsernameKey, username);
  return Value(Dictionary::fromSortedEntries(std::move(entries)));
}

}  // namespace zb::pinboard
