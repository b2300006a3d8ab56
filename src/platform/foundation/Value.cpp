#include "platform/foundation/Value.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>

#include <unicode/unistr.h>

#include "platform/foundation/NSObject.h"

namespace {

const std::string kEmptyString;
const Data kEmptyData;
const Array kEmptyArray;
const Set kEmptySet;
const Dictionary kEmptyDictionary;
const std::shared_ptr<NSObject> kNoObject;
const Value kAbsent;

std::size_t combine(std::size_t seed, std::size_t h) {
  return seed ^ (h + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2));
}

// A double that holds an exact int64 hashes like that integer, so that equal
// numbers of different kinds hash alike.
std::size_t hashNumber(double d) {
  if (std::isnan(d)) return 0x7ff8;
  if (d >= -9223372036854775808.0 && d < 9223372036854775808.0) {
    auto i = static_cast<std::int64_t>(d);
    if (static_cast<double>(i) == d) return std::hash<std::int64_t>()(i);
  }
  return std::hash<double>()(d);
}

// Exact comparison of an int64 with a double (no rounding of large integers).
int compareIntDouble(std::int64_t i, double d) {
  if (std::isnan(d)) return -1;
  if (d >= 9223372036854775808.0) return -1;
  if (d < -9223372036854775808.0) return 1;
  double fl = std::floor(d);
  auto di = static_cast<std::int64_t>(fl);
  if (i < di) return -1;
  if (i > di) return 1;
  return fl == d ? 0 : -1;
}

int sign(double x) { return x < 0 ? -1 : (x > 0 ? 1 : 0); }

std::string quoted(const std::string& s) {
  std::string out = "\"";
  for (char c : s) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\t': out += "\\t"; break;
      default: out += c;
    }
  }
  return out + "\"";
}

std::string formatDouble(double d) {
  char buf[64];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, d);
  return ec == std::errc() ? std::string(buf, end) : std::to_string(d);
}

bool parseBoolString(const std::string& s) {
  // The platform's string boolValue: leading whitespace, optional sign and
  // zeros, then Y/y/T/t or a non-zero digit.
  std::size_t i = 0;
  while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i]))) ++i;
  if (i < s.size() && (s[i] == '+' || s[i] == '-')) ++i;
  while (i < s.size() && s[i] == '0') ++i;
  if (i >= s.size()) return false;
  char c = s[i];
  return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

}  // namespace

Value::Value(::Data d) : _v(std::make_shared<const ::Data>(std::move(d))) {}
Value::Value(::Array a) : _v(std::make_shared<const ::Array>(std::move(a))) {}
Value::Value(::Set s) : _v(std::make_shared<const ::Set>(std::move(s))) {}
Value::Value(::Dictionary d) : _v(std::make_shared<const ::Dictionary>(std::move(d))) {}

void Value::_nullToAbsent() {
  bool empty = std::visit(
      [](const auto& x) {
        using T = std::decay_t<decltype(x)>;
        if constexpr (requires { x.get(); }) {
          return x.get() == nullptr;
        } else {
          (void)sizeof(T);
          return false;
        }
      },
      _v);
  if (empty) _v = std::monostate{};
}

bool Value::boolValue() const {
  switch (type()) {
    case Type::Bool: return std::get<bool>(_v);
    case Type::Integer: return std::get<std::int64_t>(_v) != 0;
    case Type::Double: return std::get<double>(_v) != 0.0;
    case Type::String: return parseBoolString(std::get<std::string>(_v));
    default: return false;
  }
}

std::int64_t Value::integerValue() const {
  switch (type()) {
    case Type::Bool: return std::get<bool>(_v) ? 1 : 0;
    case Type::Integer: return std::get<std::int64_t>(_v);
    case Type::Double: {
      double d = std::get<double>(_v);
      if (std::isnan(d)) return 0;
      if (d >= 9223372036854775807.0) return std::numeric_limits<std::int64_t>::max();
      if (d <= -9223372036854775808.0) return std::numeric_limits<std::int64_t>::min();
      return static_cast<std::int64_t>(d);
    }
    case Type::String: {
      const auto& s = std::get<std::string>(_v);
      std::size_t i = 0;
      while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i]))) ++i;
      if (i < s.size() && s[i] == '+') ++i;
      std::int64_t out = 0;
      std::from_chars(s.data() + i, s.data() + s.size(), out);
      return out;
    }
    default: return 0;
  }
}

double Value::doubleValue() const {
  switch (type()) {
    case Type::Bool: return std::get<bool>(_v) ? 1.0 : 0.0;
    case Type::Integer: return static_cast<double>(std::get<std::int64_t>(_v));
    case Type::Double: return std::get<double>(_v);
    case Type::String: {
      const auto& s = std::get<std::string>(_v);
      std::size_t i = 0;
      while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i]))) ++i;
      if (i < s.size() && s[i] == '+') ++i;
      double out = 0;
      std::from_chars(s.data() + i, s.data() + s.size(), out);
      return out;
    }
    case Type::Date: return std::get<NSDate>(_v).timeIntervalSinceReferenceDate();
    default: return 0;
  }
}

const std::string& Value::asString() const {
  const auto* s = std::get_if<std::string>(&_v);
  return s ? *s : kEmptyString;
}

NSDate Value::asDate() const {
  const auto* d = std::get_if<NSDate>(&_v);
  return d ? *d : NSDate();
}

const ::Data& Value::asData() const {
  const auto* d = std::get_if<std::shared_ptr<const ::Data>>(&_v);
  return d ? **d : kEmptyData;
}

const ::Array& Value::asArray() const {
  const auto* a = std::get_if<std::shared_ptr<const ::Array>>(&_v);
  return a ? **a : kEmptyArray;
}

const ::Set& Value::asSet() const {
  const auto* s = std::get_if<std::shared_ptr<const ::Set>>(&_v);
  return s ? **s : kEmptySet;
}

const ::Dictionary& Value::asDictionary() const {
  const auto* d = std::get_if<std::shared_ptr<const ::Dictionary>>(&_v);
  return d ? **d : kEmptyDictionary;
}

const std::shared_ptr<NSObject>& Value::asObject() const {
  const auto* o = std::get_if<std::shared_ptr<NSObject>>(&_v);
  return o ? *o : kNoObject;
}

::Array Value::collectionElements() const {
  if (isArray()) return asArray();
  if (isSet()) return asSet().allObjects();
  return {};
}

std::size_t Value::count() const {
  switch (type()) {
    case Type::Array: return asArray().size();
    case Type::Set: return asSet().size();
    case Type::Dictionary: return asDictionary().size();
    default: return 0;
  }
}

bool Value::isEqual(const Value& other) const {
  if (isNumber() && other.isNumber()) return compare(other) == 0;
  if (type() != other.type()) return false;
  switch (type()) {
    case Type::Absent:
    case Type::Null: return true;
    case Type::String: return asString() == other.asString();
    case Type::Date: return asDate() == other.asDate();
    case Type::Data: {
      const auto& a = std::get<std::shared_ptr<const ::Data>>(_v);
      const auto& b = std::get<std::shared_ptr<const ::Data>>(other._v);
      return a == b || *a == *b;
    }
    case Type::Array: {
      const auto& a = std::get<std::shared_ptr<const ::Array>>(_v);
      const auto& b = std::get<std::shared_ptr<const ::Array>>(other._v);
      return a == b || *a == *b;
    }
    case Type::Set: {
      const auto& a = std::get<std::shared_ptr<const ::Set>>(_v);
      const auto& b = std::get<std::shared_ptr<const ::Set>>(other._v);
      return a == b || *a == *b;
    }
    case Type::Dictionary: {
      const auto& a = std::get<std::shared_ptr<const ::Dictionary>>(_v);
      const auto& b = std::get<std::shared_ptr<const ::Dictionary>>(other._v);
      return a == b || *a == *b;
    }
    case Type::Object: {
      const auto& a = asObject();
      const auto& b = other.asObject();
      return a == b || a->isEqual(*b);
    }
    default: return false;
  }
}

std::size_t Value::hash() const {
  switch (type()) {
    case Type::Absent: return 0;
    case Type::Null: return 0x6e756c6c;
    case Type::Bool: return std::hash<std::int64_t>()(std::get<bool>(_v) ? 1 : 0);
    case Type::Integer: return std::hash<std::int64_t>()(std::get<std::int64_t>(_v));
    case Type::Double: return hashNumber(std::get<double>(_v));
    case Type::String: return std::hash<std::string>()(asString());
    case Type::Date: return combine(0xda7e, std::hash<double>()(asDate().timeIntervalSinceReferenceDate()));
    case Type::Data: {
      const auto& d = asData();
      return std::hash<std::string_view>()(std::string_view(reinterpret_cast<const char*>(d.data()), d.size()));
    }
    case Type::Array: {
      std::size_t h = 0xa77a;
      for (const auto& v : asArray()) h = combine(h, v.hash());
      return h;
    }
    case Type::Set: return asSet().hash();
    case Type::Dictionary: return asDictionary().hash();
    case Type::Object: return asObject()->hash();
  }
  return 0;
}

std::optional<int> Value::compare(const Value& other) const {
  if (isNumber() && other.isNumber()) {
    bool aInt = !isDouble(), bInt = !other.isDouble();
    if (aInt && bInt) {
      auto a = integerValue(), b = other.integerValue();
      return a < b ? -1 : (a > b ? 1 : 0);
    }
    if (aInt) return compareIntDouble(integerValue(), other.doubleValue());
    if (bInt) return -compareIntDouble(other.integerValue(), doubleValue());
    double a = doubleValue(), b = other.doubleValue();
    if (std::isnan(a) || std::isnan(b)) return std::nullopt;
    return sign(a - b);
  }
  if (type() != other.type()) return std::nullopt;
  switch (type()) {
    case Type::String: {
      int c = asString().compare(other.asString());
      return c < 0 ? -1 : (c > 0 ? 1 : 0);
    }
    case Type::Date: {
      double a = asDate().timeIntervalSinceReferenceDate(), b = other.asDate().timeIntervalSinceReferenceDate();
      return a < b ? -1 : (a > b ? 1 : 0);
    }
    case Type::Data: {
      const auto& a = asData();
      const auto& b = other.asData();
      auto r = std::lexicographical_compare_three_way(a.begin(), a.end(), b.begin(), b.end());
      return r < 0 ? -1 : (r > 0 ? 1 : 0);
    }
    default: return std::nullopt;
  }
}

std::string Value::description() const {
  switch (type()) {
    case Type::Absent: return "nil";
    case Type::Null: return "<null>";
    case Type::Bool: return std::get<bool>(_v) ? "YES" : "NO";
    case Type::Integer: return std::to_string(std::get<std::int64_t>(_v));
    case Type::Double: return formatDouble(std::get<double>(_v));
    case Type::String: return quoted(asString());
    case Type::Date: return asDate().ISO8601String();
    case Type::Data: {
      static const char* hex = "0123456789abcdef";
      std::string out = "<";
      const auto& d = asData();
      for (std::size_t i = 0; i < d.size(); ++i) {
        if (i && i % 4 == 0) out += ' ';
        out += hex[d[i] >> 4];
        out += hex[d[i] & 15];
      }
      return out + ">";
    }
    case Type::Array: {
      std::string out = "(";
      bool first = true;
      for (const auto& v : asArray()) {
        out += first ? "" : ", ";
        out += v.description();
        first = false;
      }
      return out + ")";
    }
    case Type::Set: {
      std::vector<std::string> parts;
      for (const auto& v : asSet()) parts.push_back(v.description());
      std::sort(parts.begin(), parts.end());
      std::string out = "{(";
      for (std::size_t i = 0; i < parts.size(); ++i) out += (i ? ", " : "") + parts[i];
      return out + ")}";
    }
    case Type::Dictionary: {
      std::string out = "{";
      bool first = true;
      for (const auto& [k, v] : asDictionary()) {
        out += first ? "" : ", ";
        out += quoted(k) + " = " + v.description();
        first = false;
      }
      return out + "}";
    }
    case Type::Object: return asObject()->description();
  }
  return {};
}

// MARK: Dictionary

Dictionary::Dictionary(std::initializer_list<Entry> entries) : _entries(entries) {
  *this = fromEntries(std::move(_entries));
}

Dictionary Dictionary::fromEntries(std::vector<Entry> entries) {
  // Stable sort keeps insertion order among equal keys; the last one wins.
  std::stable_sort(entries.begin(), entries.end(),
                   [](const Entry& a, const Entry& b) { return a.first < b.first; });
  Dictionary d;
  d._entries.reserve(entries.size());
  for (auto& e : entries) {
    if (e.second.isAbsent()) continue;
    if (!d._entries.empty() && d._entries.back().first == e.first) {
      d._entries.back().second = std::move(e.second);
    } else {
      d._entries.push_back(std::move(e));
    }
  }
  return d;
}

Dictionary Dictionary::fromSortedEntries(std::vector<Entry> entries) {
  for (std::size_t i = 0; i < entries.size(); ++i) {
    if (entries[i].second.isAbsent() || (i > 0 && !(entries[i - 1].first < entries[i].first)))
      return fromEntries(std::move(entries));
  }
  Dictionary d;
  d._entries = std::move(entries);
  return d;
}

std::vector<Dictionary::Entry>::iterator Dictionary::_find(std::string_view key) {
  auto it = std::lower_bound(_entries.begin(), _entries.end(), key,
                             [](const Entry& e, std::string_view k) { return e.first < k; });
  return (it != _entries.end() && it->first == key) ? it : _entries.end();
}

std::vector<Dictionary::Entry>::const_iterator Dictionary::_find(std::string_view key) const {
  auto it = std::lower_bound(_entries.begin(), _entries.end(), key,
                             [](const Entry& e, std::string_view k) { return e.first < k; });
  return (it != _entries.end() && it->first == key) ? it : _entries.end();
}

const Value& Dictionary::operator[](std::string_view key) const {
  auto it = _find(key);
  return it == _entries.end() ? kAbsent : it->second;
}

bool Dictionary::contains(std::string_view key) const { return _find(key) != _entries.end(); }

void Dictionary::set(std::string key, Value value) {
  if (value.isAbsent()) {
    remove(key);
    return;
  }
  // Appending in key order (the common bulk-build case) costs no search.
  if (_entries.empty() || _entries.back().first < key) {
    _entries.emplace_back(std::move(key), std::move(value));
    return;
  }
  auto it = std::lower_bound(_entries.begin(), _entries.end(), key,
                             [](const Entry& e, const std::string& k) { return e.first < k; });
  if (it != _entries.end() && it->first == key) {
    it->second = std::move(value);
  } else {
    _entries.emplace(it, std::move(key), std::move(value));
  }
}

bool Dictionary::remove(std::string_view key) {
  auto it = _find(key);
  if (it == _entries.end()) return false;
  _entries.erase(it);
  return true;
}

void Dictionary::addEntries(const Dictionary& other) {
  for (const auto& [k, v] : other) set(k, v);
}

Dictionary Dictionary::nullFilteredDictionary() const {
  Dictionary d;
  d._entries.reserve(_entries.size());
  for (const auto& e : _entries)
    if (!e.second.isNull()) d._entries.push_back(e);
  return d;
}

std::vector<std::string> Dictionary::allKeys() const {
  std::vector<std::string> keys;
  keys.reserve(_entries.size());
  for (const auto& e : _entries) keys.push_back(e.first);
  return keys;
}

bool Dictionary::operator==(const Dictionary& other) const {
  if (_entries.size() != other._entries.size()) return false;
  for (std::size_t i = 0; i < _entries.size(); ++i) {
    if (_entries[i].first != other._entries[i].first || !_entries[i].second.isEqual(other._entries[i].second))
      return false;
  }
  return true;
}

std::size_t Dictionary::hash() const {
  std::size_t h = 0xd1c7 + _entries.size();
  for (const auto& [k, v] : _entries) h = combine(combine(h, std::hash<std::string>()(k)), v.hash());
  return h;
}

// MARK: Set

Set::Set(std::initializer_list<Value> values) {
  for (const auto& v : values) insert(v);
}

Set::Set(const Array& values) {
  _items.reserve(values.size());
  for (const auto& v : values) insert(v);
}

bool Set::insert(Value value) {
  if (value.isAbsent()) return false;
  return _items.insert(std::move(value)).second;
}

bool Set::erase(const Value& value) { return _items.erase(value) != 0; }

void Set::unionSet(const Set& other) {
  for (const auto& v : other) _items.insert(v);
}

void Set::minusSet(const Set& other) {
  for (const auto& v : other) _items.erase(v);
}

bool Set::intersectsSet(const Set& other) const {
  const Set& small = size() <= other.size() ? *this : other;
  const Set& large = size() <= other.size() ? other : *this;
  for (const auto& v : small)
    if (large.contains(v)) return true;
  return false;
}

bool Set::operator==(const Set& other) const {
  if (size() != other.size()) return false;
  for (const auto& v : _items)
    if (!other.contains(v)) return false;
  return true;
}

std::size_t Set::hash() const {
  // Order-independent: iteration order differs between equal sets.
  std::size_t h = 0x5e7;
  for (const auto& v : _items) h += v.hash() * 0x9e3779b97f4a7c15ULL + 1;
  return h ^ _items.size();
}

std::size_t ZBStringUTF16Length(std::string_view text) {
  bool ascii = true;
  for (char c : text) ascii = ascii && static_cast<unsigned char>(c) < 0x80;
  if (ascii) return text.size();
  auto u = icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
  return static_cast<std::size_t>(u.length());
}
