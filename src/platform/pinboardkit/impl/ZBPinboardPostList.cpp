#include "platform/pinboardkit/impl/ZBPinboardPostList.h"

#include <algorithm>
#include <cstring>

namespace zb::pinboard {

Shape shapeOf(std::string_view text, std::size_t& bracket) {
  static constexpr std::string_view bom = "\xef\xbb\xbf";
  std::size_t i = 0;
  if (text.substr(0, 3) == bom) i = 3;
  else if (text.size() < 3 && bom.substr(0, text.size()) == text) return Shape::Undecided;
  while (i < text.size() && isSpace(text[i])) ++i;
  if (i == text.size()) return Shape::Undecided;
  bracket = i;
  return text[i] == '[' ? Shape::List : Shape::Other;
}

bool boundary(const char* text, std::size_t from, std::size_t end, std::size_t& cut, std::size_t& next,
              std::size_t& resume) {
  std::size_t i = from;
  while (i < end) {
    const void* found = std::memchr(text + i, '}', end - i);
    if (!found) break;
    const std::size_t b = static_cast<std::size_t>(static_cast<const char*>(found) - text);
    std::size_t j = b + 1;
    while (j < end && isSpace(text[j])) ++j;
    if (j < end && text[j] == ',') {
      ++j;
      while (j < end && isSpace(text[j])) ++j;
      if (j < end && text[j] == '{') {
        cut = b + 1;
        next = j;
        return true;
      }
    }
    if (j == end) {  // undecided until more bytes come
      resume = b;
      return false;
    }
    i = b + 1;
  }
  resume = end;
  return false;
}

simdjson::error_code parseRun(simdjson::dom::parser& parser, simdjson::dom::document& document, char* text,
                              std::size_t slot, std::size_t cut, bool final) {
  const char open = text[slot];
  const char close = final ? '\0' : text[cut];
  text[slot] = '[';
  if (!final) text[cut] = ']';
  const std::size_t length = (final ? cut : cut + 1) - slot;
  simdjson::dom::array list;
  auto error = parser.parse_into_document(document, reinterpret_cast<const std::uint8_t*>(text + slot), length, false)
                   .get_array()
                   .get(list);
  text[slot] = open;
  if (!final) text[cut] = close;
  return error;
}

std::size_t PostList::read(char* text, std::size_t slot, std::size_t end, bool final) {
  while (_reason.empty() && !_whole) {
    std::size_t cut, next, resume;
    if (!boundary(text, std::max(slot + 1 + _runBytes, slot + _searched), end, cut, next, resume)) {
      _searched = resume - slot;
      break;
    }
    if (parseRun(_parser, _document, text, slot, cut, false)) {
      _whole = true;
      break;
    }
    if (!add(_document.root())) break;
    slot = next - 1;
    _searched = 0;
  }
  if (final && _reason.empty()) {
    if (auto error = parseRun(_parser, _document, text, slot, end, true)) _reason = simdjson::error_message(error);
    else add(_document.root());
  }
  return slot;
}

bool PostList::add(element list) {
  if (!_reason.empty()) return false;
  _fields.clear();
  std::string reason;
  listFields(list, _fields, reason);
  add(_fields, reason);
  return _reason.empty();
}

void PostList::add(const std::vector<PostFields>& posts, const std::string& reason) {
  if (!_reason.empty()) return;
  if (!reason.empty()) {
    _reason = reason;  // the answer is malformed: its posts are of no use
    return;
  }
  for (const PostFields& f : posts) _posts.push_back(postDictionary(f, _owner));
}

Value PostList::result(const std::string& method, NSErrorPtr* error) {
  if (failed()) return malformed(method, error, _reason);
  return Value(std::move(_posts));
}

}  // namespace zb::pinboard
