#include "pinboard-sim/Bookmark.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstdio>
#include <ctime>

namespace pinboard_sim {

namespace {

std::string digestHex(const EVP_MD* md, std::string_view bytes) {
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  EVP_Digest(bytes.data(), bytes.size(), out, &len, md, nullptr);
  static const char* digits = "0123456789abcdef";
  std::string hex;
  hex.reserve(len * 2);
  for (unsigned i = 0; i < len; ++i) {
    hex.push_back(digits[out[i] >> 4]);
    hex.push_back(digits[out[i] & 15]);
  }
  return hex;
}

// Days since 1970-01-01 of a proleptic Gregorian date (H. Hinnant's algorithm).
std::int64_t daysFromCivil(std::int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

struct Civil {
  std::int64_t year;
  unsigned month, day, hour, minute, second;
};

Civil civilFromSeconds(std::int64_t t) {
  std::int64_t days = t >= 0 ? t / 86400 : -((-t + 86399) / 86400);
  std::int64_t secs = t - days * 86400;
  days += 719468;
  const std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(days - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  const unsigned d = doy - (153 * mp + 2) / 5 + 1;
  const unsigned m = mp < 10 ? mp + 3 : mp - 9;
  Civil c;
  c.year = static_cast<std::int64_t>(yoe) + era * 400 + (m <= 2);
  c.month = m;
  c.day = d;
  c.hour = static_cast<unsigned>(secs / 3600);
  c.minute = static_cast<unsigned>(secs % 3600 / 60);
  c.second = static_cast<unsigned>(secs % 60);
  return c;
}

bool digits(std::string_view s, std::size_t pos, std::size_t n, unsigned& out) {
  if (pos + n > s.size()) return false;
  out = 0;
  for (std::size_t i = pos; i < pos + n; ++i) {
    if (s[i] < '0' || s[i] > '9') return false;
    out = out * 10 + static_cast<unsigned>(s[i] - '0');
  }
  return true;
}

}  // namespace

void Bookmark::refresh() {
  hash = md5Hex(url);
  std::string all;
  all.reserve(url.size() + title.size() + extended.size() + 64);
  // Unit separators keep ("ab","c") and ("a","bc") apart.
  for (const std::string* field : {&url, &title, &extended}) {
    all += *field;
    all += '\x1f';
  }
  all += tagString();
  all += '\x1f';
  all += std::to_string(time);
  all += shared ? "\x1fyes" : "\x1fno";
  all += toread ? "\x1fyes" : "\x1fno";
  meta = md5Hex(all);
}

std::string Bookmark::tagString() const {
  std::string s;
  for (const auto& t : tags) {
    if (!s.empty()) s += ' ';
    s += t;
  }
  return s;
}

std::string Note::hash() const { return sha1Hex(text).substr(0, 20); }
std::int64_t Note::length() const { return static_cast<std::int64_t>(characterCount(text)); }

const std::vector<const Bookmark*>& Account::sorted() const {
  if (_sortedVersion != version || _sorted.size() != bookmarks.size()) {
    _sorted.clear();
    _sorted.reserve(bookmarks.size());
    for (const auto& [url, b] : bookmarks) _sorted.push_back(&b);
    std::sort(_sorted.begin(), _sorted.end(), [](const Bookmark* a, const Bookmark* b) {
      if (a->time != b->time) return a->time > b->time;
      return a->url < b->url;
    });
    _sortedVersion = version;
  }
  return _sorted;
}

void Account::touch(std::int64_t now) {
  ++version;
  updateTime = now;
}

std::string formatDateTime(std::int64_t seconds, bool offsetStyle) {
  Civil c = civilFromSeconds(seconds);
  char buf[96];
  std::snprintf(buf, sizeof buf, "%04lld-%02u-%02uT%02u:%02u:%02u%s", static_cast<long long>(c.year), c.month, c.day,
                c.hour, c.minute, c.second, offsetStyle ? "+00:00" : "Z");
  return buf;
}

std::string formatDate(std::int64_t seconds) { return formatDateTime(seconds).substr(0, 10); }

std::string formatNoteTime(std::int64_t seconds) {
  std::string s = formatDateTime(seconds).substr(0, 19);
  s[10] = ' ';
  return s;
}

std::optional<std::int64_t> parseDateTime(std::string_view s, bool allowDateOnly) {
  unsigned y, mo, d, h = 0, mi = 0, se = 0;
  if (!digits(s, 0, 4, y) || s.size() < 10 || s[4] != '-' || !digits(s, 5, 2, mo) || s[7] != '-' ||
      !digits(s, 8, 2, d))
    return std::nullopt;
  if (s.size() == 10) {
    if (!allowDateOnly) return std::nullopt;
  } else {
    if (s.size() < 19 || s[10] != 'T' || !digits(s, 11, 2, h) || s[13] != ':' || !digits(s, 14, 2, mi) ||
        s[16] != ':' || !digits(s, 17, 2, se))
      return std::nullopt;
    std::string_view zone = s.substr(19);
    if (zone != "Z" && zone != "+00:00" && zone != "+0000") return std::nullopt;
  }
  if (mo < 1 || mo > 12 || d < 1 || d > 31 || h > 23 || mi > 59 || se > 60) return std::nullopt;
  static const unsigned monthDays[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (d > monthDays[mo - 1]) return std::nullopt;
  bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
  if (mo == 2 && d == 29 && !leap) return std::nullopt;
  std::int64_t t = daysFromCivil(y, mo, d) * 86400 + h * 3600 + mi * 60 + se;
  static const std::int64_t lowest = daysFromCivil(1, 1, 1) * 86400;
  static const std::int64_t highest = daysFromCivil(2100, 1, 1) * 86400;
  if (y < 1 || t < lowest || t > highest) return std::nullopt;
  return t;
}

std::string md5Hex(std::string_view bytes) { return digestHex(EVP_md5(), bytes); }
std::string sha1Hex(std::string_view bytes) { return digestHex(EVP_sha1(), bytes); }

std::optional<std::string> base64Decode(std::string_view text) {
  auto value = [](char c) -> int {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
  };
  while (!text.empty() && text.back() == '=') text.remove_suffix(1);
  std::string out;
  unsigned acc = 0;
  int bits = 0;
  for (char c : text) {
    int v = value(c);
    if (v < 0) return std::nullopt;
    acc = (acc << 6) | static_cast<unsigned>(v);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<char>((acc >> bits) & 0xff));
    }
  }
  return out;
}

std::string foldTag(std::string_view tag) {
  std::string s(tag);
  for (char& c : s)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return s;
}

bool hasTag(const Bookmark& bookmark, std::string_view tag) {
  std::string folded = foldTag(tag);
  return std::any_of(bookmark.tags.begin(), bookmark.tags.end(),
                     [&](const std::string& t) { return foldTag(t) == folded; });
}

std::vector<std::string> splitTags(std::string_view text) {
  std::vector<std::string> tags;
  std::string current;
  for (char c : text) {
    if (c == ' ' || c == ',' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f') {
      if (!current.empty()) tags.push_back(std::move(current));
      current.clear();
    } else {
      current.push_back(c);
    }
  }
  if (!current.empty()) tags.push_back(std::move(current));
  return tags;
}

std::size_t characterCount(std::string_view text) {
  std::size_t n = 0;
  for (unsigned char c : text)
    if ((c & 0xc0) != 0x80) ++n;
  return n;
}

std::string firstCharacters(std::string_view text, std::size_t characters) {
  std::size_t n = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if ((static_cast<unsigned char>(text[i]) & 0xc0) != 0x80 && n++ == characters) return std::string(text.substr(0, i));
  }
  return std::string(text);
}

}  // namespace pinboard_sim
