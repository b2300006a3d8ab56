#pragma once
// Value: the dynamic currency of dictionaries, key-value coding, predicates and
// property lists. One of: absent (nil), the null marker (NSNull), bool, int64,
// double, string, date, data, array, set, dictionary, object.
//
// Values are immutable once built: containers are shared, so copying a Value
// never copies a container (strings are copied). Thread-safe to read and copy
// from several threads at once.
//
// Equality follows the platform's isEqual: numbers compare by value across
// bool/int/double (@YES equals @1, @1 equals @1.0), strings by content, dates
// by time, containers element-wise, objects through NSObject::isEqual. A
// string never equals a number. hash() agrees with equality.

#include <concepts>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <variant>
#include <vector>

#include "platform/foundation/NSDate.h"

class NSObject;
class Value;
class Dictionary;
class Set;
using Array = std::vector<Value>;
using Data = std::vector<std::uint8_t>;

struct NullMarker {
  bool operator==(const NullMarker&) const = default;
};

class Value {
public:
  enum class Type : std::uint8_t { Absent, Null, Bool, Integer, Double, String, Date, Data, Array, Set, Dictionary, Object };

  Value() noexcept = default;
  Value(std::nullptr_t) noexcept {}
  static Value null() { Value v; v._v = NullMarker{}; return v; }

  Value(bool b) : _v(b) {}
  template <std::integral T>
    requires(!std::same_as<T, bool>)
  Value(T i) : _v(static_cast<std::int64_t>(i)) {}
  Value(double d) : _v(d) {}
  Value(float d) : _v(static_cast<double>(d)) {}
  Value(const char* s) : _v(std::string(s)) {}
  Value(std::string s) : _v(std::move(s)) {}
  Value(std::string_view s) : _v(std::string(s)) {}
  Value(NSDate d) : _v(d) {}
  Value(::Data d);
  Value(::Array a);
  Value(::Set s);
  Value(::Dictionary d);
  Value(std::shared_ptr<const ::Data> d) : _v(std::move(d)) { _nullToAbsent(); }
  Value(std::shared_ptr<const ::Array> a) : _v(std::move(a)) { _nullToAbsent(); }
  Value(std::shared_ptr<const ::Set> s) : _v(std::move(s)) { _nullToAbsent(); }
  Value(std::shared_ptr<const ::Dictionary> d) : _v(std::move(d)) { _nullToAbsent(); }
  template <class T>
    requires std::derived_from<T, NSObject>
  Value(std::shared_ptr<T> o) : _v(std::static_pointer_cast<NSObject>(std::const_pointer_cast<std::remove_const_t<T>>(o))) {
    _nullToAbsent();
  }

  Type type() const { return static_cast<Type>(_v.index()); }
  // Present: anything but absent (the null marker is present, as NSNull is).
  explicit operator bool() const { return !isAbsent(); }
  bool isAbsent() const { return type() == Type::Absent; }
  bool isNull() const { return type() == Type::Null; }
  bool isBool() const { return type() == Type::Bool; }
  bool isInteger() const { return type() == Type::Integer; }
  bool isDouble() const { return type() == Type::Double; }
  bool isNumber() const { return isBool() || isInteger() || isDouble(); }
  bool isString() const { return type() == Type::String; }
  bool isDate() const { return type() == Type::Date; }
  bool isData() const { return type() == Type::Data; }
  bool isArray() const { return type() == Type::Array; }
  bool isSet() const { return type() == Type::Set; }
  bool isDictionary() const { return type() == Type::Dictionary; }
  bool isObject() const { return type() == Type::Object; }
  // Array or set.
  bool isCollection() const { return isArray() || isSet(); }

  // Numeric readings as the platform's number and string classes give them:
  // numbers convert; strings parse ("YES"/"true"/a non-zero number is true);
  // anything else is false / 0.
  bool boolValue() const;
  std::int64_t integerValue() const;
  double doubleValue() const;

  // Typed access; the wrong type yields an empty value of the asked type.
  const std::string& asString() const;
  NSDate asDate() const;
  const ::Data& asData() const;
  const ::Array& asArray() const;
  const ::Set& asSet() const;
  const ::Dictionary& asDictionary() const;
  const std::shared_ptr<NSObject>& asObject() const;
  template <class T>
  std::shared_ptr<T> as() const {
    return std::dynamic_pointer_cast<T>(asObject());
  }
  // Elements of an array or set (in the set's iteration order); empty otherwise.
  ::Array collectionElements() const;
  std::size_t count() const;  // elements of a collection, entries of a dictionary, else 0

  bool isEqual(const Value& other) const;
  bool operator==(const Value& other) const { return isEqual(other); }
  std::size_t hash() const;

  // Natural order for sorting and comparison predicates: numbers by value,
  // strings by UTF-8 code units, dates by time, data bytewise. nullopt when the
  // two are not comparable (different kinds, containers, objects).
  std::optional<int> compare(const Value& other) const;

  // A readable, deterministic description for logs and test failures
  // (dictionaries and sets print sorted).
  std::string description() const;

private:
  void _nullToAbsent();
  std::variant<std::monostate, NullMarker, bool, std::int64_t, double, std::string, NSDate,
               std::shared_ptr<const ::Data>, std::shared_ptr<const ::Array>, std::shared_ptr<const ::Set>,
               std::shared_ptr<const ::Dictionary>, std::shared_ptr<NSObject>>
      _v;
};

struct ValueHash {
  std::size_t operator()(const Value& v) const { return v.hash(); }
};

// The length of text in UTF-16 code units, as the platform counts a string's
// length (a character outside the Basic Multilingual Plane counts 2).
std::size_t ZBStringUTF16Length(std::string_view text);

// A dictionary with string keys: a flat vector sorted by key, cheap to build in
// bulk and to copy into a Value. Setting an absent value removes the key.
class Dictionary {
public:
  using Entry = std::pair<std::string, Value>;
  using const_iterator = std::vector<Entry>::const_iterator;

  Dictionary() = default;
  Dictionary(std::initializer_list<Entry> entries);
  // Builds from entries in any order; a later duplicate key wins.
  static Dictionary fromEntries(std::vector<Entry> entries);
  // Takes entries whose keys already strictly increase and whose values are
  // all present as they are: bulk builders that emit keys in order skip the
  // sort and the searches. Entries that break the rule are built as
  // fromEntries would.
  static Dictionary fromSortedEntries(std::vector<Entry> entries);

  // Absent when the key is missing.
  const Value& operator[](std::string_view key) const;
  Value objectForKey(std::string_view key) const { return (*this)[key]; }
  bool contains(std::string_view key) const;
  void set(std::string key, Value value);
  bool remove(std::string_view key);
  // Adds every entry of other, replacing existing keys.
  void addEntries(const Dictionary& other);
  // A copy without entries holding the null marker.
  Dictionary nullFilteredDictionary() const;
  std::vector<std::string> allKeys() const;

  std::size_t size() const { return _entries.size(); }
  bool empty() const { return _entries.empty(); }
  void reserve(std::size_t n) { _entries.reserve(n); }
  const_iterator begin() const { return _entries.begin(); }
  const_iterator end() const { return _entries.end(); }

  bool operator==(const Dictionary& other) const;
  std::size_t hash() const;

private:
  std::vector<Entry>::iterator _find(std::string_view key);
  std::vector<Entry>::const_iterator _find(std::string_view key) const;
  std::vector<Entry> _entries;
};

// An unordered collection of distinct values (by isEqual).
class Set {
public:
  using Storage = std::unordered_set<Value, ValueHash>;
  using const_iterator = Storage::const_iterator;

  Set() = default;
  Set(std::initializer_list<Value> values);
  explicit Set(const Array& values);

  bool insert(Value value);  // false when an equal value was present
  bool erase(const Value& value);
  bool contains(const Value& value) const { return _items.count(value) != 0; }
  Array allObjects() const { return Array(_items.begin(), _items.end()); }
  void unionSet(const Set& other);
  void minusSet(const Set& other);
  bool intersectsSet(const Set& other) const;

  std::size_t size() const { return _items.size(); }
  bool empty() const { return _items.empty(); }
  const_iterator begin() const { return _items.begin(); }
  const_iterator end() const { return _items.end(); }

  bool operator==(const Set& other) const;
  std::size_t hash() const;

private:
  Storage _items;
};

template <>
struct std::hash<Value> {
  std::size_t operator()(const Value& v) const { return v.hash(); }
};
