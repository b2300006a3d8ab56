#include "pinboard-sim/Wire.h"

#include <cstdio>

namespace pinboard_sim {

namespace {

void appendUnicodeEscape(std::string& out, unsigned code) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "\\u%04x", code);
  out += buf;
}

// Decodes one UTF-8 sequence at text[i]; returns its length, or 0 when the
// bytes there are not well-formed.
std::size_t decodeUTF8(std::string_view text, std::size_t i, unsigned& code) {
  unsigned char c = static_cast<unsigned char>(text[i]);
  std::size_t n;
  unsigned min;
  if (c < 0x80) {
    code = c;
    return 1;
  } else if ((c & 0xe0) == 0xc0) {
    n = 2, code = c & 0x1f, min = 0x80;
  } else if ((c & 0xf0) == 0xe0) {
    n = 3, code = c & 0x0f, min = 0x800;
  } else if ((c & 0xf8) == 0xf0) {
    n = 4, code = c & 0x07, min = 0x10000;
  } else {
    return 0;
  }
  if (i + n > text.size()) return 0;
  for (std::size_t k = 1; k < n; ++k) {
    unsigned char cc = static_cast<unsigned char>(text[i + k]);
    if ((cc & 0xc0) != 0x80) return 0;
    code = (code << 6) | (cc & 0x3f);
  }
  if (code < min || code > 0x10ffff || (code >= 0xd800 && code <= 0xdfff)) return 0;
  return n;
}

}  // namespace

void appendJSONString(std::string& out, std::string_view text, const Quirks& quirks) {
  out.push_back('"');
  std::size_t i = 0;
  while (i < text.size()) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (c >= 0x20 && c < 0x80 && c != '"' && c != '\\' && c != '/') {
      // Copy the run of plain characters at once.
      std::size_t j = i + 1;
      while (j < text.size()) {
        unsigned char d = static_cast<unsigned char>(text[j]);
        if (d < 0x20 || d >= 0x80 || d == '"' || d == '\\' || d == '/') break;
        ++j;
      }
      out.append(text.data() + i, j - i);
      i = j;
      continue;
    }
    switch (c) {
      case '"': out += "\\\""; ++i; continue;
      case '\\': out += "\\\\"; ++i; continue;
      case '/': out += quirks.escapeSlashes ? "\\/" : "/"; ++i; continue;
      case '\n': out += "\\n"; ++i; continue;
      case '\r': out += "\\r"; ++i; continue;
      case '\t': out += "\\t"; ++i; continue;
      case '\b': out += "\\b"; ++i; continue;
      case '\f': out += "\\f"; ++i; continue;
      default: break;
    }
    if (c < 0x20) {
      appendUnicodeEscape(out, c);
      ++i;
      continue;
    }
    unsigned code = 0;
    std::size_t n = decodeUTF8(text, i, code);
    if (n == 0) {
      code = 0xfffd;
      n = 1;
      if (!quirks.escapeNonASCII) {
        out += "\xef\xbf\xbd";
        i += n;
        continue;
      }
    } else if (!quirks.escapeNonASCII) {
      out.append(text.data() + i, n);
      i += n;
      continue;
    }
    if (code >= 0x10000) {
      code -= 0x10000;
      appendUnicodeEscape(out, 0xd800 + (code >> 10));
      appendUnicodeEscape(out, 0xdc00 + (code & 0x3ff));
    } else {
      appendUnicodeEscape(out, code);
    }
    i += n;
  }
  out.push_back('"');
}

void appendPost(std::string& out, const Bookmark& b, const Quirks& quirks) {
  // Keys in the order the service sends them.
  out += "{\"href\":";
  appendJSONString(out, b.url, quirks);
  out += ",\"description\":";
  appendJSONString(out, b.title, quirks);
  out += ",\"extended\":";
  appendJSONString(out, b.extended, quirks);
  out += ",\"meta\":\"";
  out += b.meta;
  out += "\",\"hash\":\"";
  out += b.hash;
  out += "\",\"time\":\"";
  out += formatDateTime(b.time);
  out += b.shared ? "\",\"shared\":\"yes\"" : "\",\"shared\":\"no\"";
  out += b.toread ? ",\"toread\":\"yes\"" : ",\"toread\":\"no\"";
  out += ",\"tags\":";
  appendJSONString(out, b.tagString(), quirks);
  if (quirks.includeOthers && b.others) {
    out += ",\"others\":";
    out += std::to_string(*b.others);
  }
  out += '}';
}

std::string postsArray(const std::vector<const Bookmark*>& posts, const Quirks& quirks) {
  std::string out;
  out.reserve(posts.size() * 400 + 2);
  out.push_back('[');
  bool first = true;
  for (const Bookmark* b : posts) {
    if (!first) out.push_back(',');
    first = false;
    appendPost(out, *b, quirks);
  }
  out.push_back(']');
  return out;
}

void appendFeedItem(std::string& out, const Bookmark& b, const std::string& author, bool privateTags,
                    const Quirks& quirks) {
  out += "{\"u\":";
  appendJSONString(out, b.url, quirks);
  out += ",\"d\":";
  appendJSONString(out, b.title, quirks);
  out += ",\"n\":";
  appendJSONString(out, b.extended, quirks);
  out += ",\"dt\":\"";
  out += formatDateTime(b.time, quirks.feedDatesWithOffset);
  out += "\",\"a\":";
  appendJSONString(out, author, quirks);
  out += ",\"t\":[";
  bool any = false;
  for (const auto& tag : b.tags) {
    if (!privateTags && !tag.empty() && tag[0] == '.') continue;
    if (any) out.push_back(',');
    any = true;
    appendJSONString(out, tag, quirks);
  }
  if (!any && quirks.untaggedFeedItemEmptyTag) out += "\"\"";
  out += "]}";
}

std::string wellFormedUTF8(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    unsigned code = 0;
    std::size_t n = decodeUTF8(text, i, code);
    if (n == 0) {
      out += "\xef\xbf\xbd";
      ++i;
    } else {
      out.append(text.data() + i, n);
      i += n;
    }
  }
  return out;
}

std::string dump(const nlohmann::ordered_json& value, const Quirks& quirks) {
  std::string s = value.dump(-1, ' ', quirks.escapeNonASCII, nlohmann::ordered_json::error_handler_t::replace);
  if (!quirks.escapeSlashes) return s;
  // A '/' can only occur inside a string literal, so every one is escaped.
  std::string out;
  out.reserve(s.size() + s.size() / 16);
  for (char c : s) {
    if (c == '/') out += "\\/";
    else out.push_back(c);
  }
  return out;
}

std::string frame(std::string json, const Quirks& quirks, std::string_view trailer) {
  if (quirks.byteOrderMark) json.insert(0, "\xef\xbb\xbf");
  if (quirks.trailingWhitespace) json += trailer;
  return json;
}

}  // namespace pinboard_sim
