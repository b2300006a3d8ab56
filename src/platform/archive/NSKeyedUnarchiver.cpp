#include "platform/archive/NSKeyedUnarchiver.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>
#include <utility>

#include "platform/archive/NSKeyedArchiver.h"
#include "platform/archive/impl/ZBArchiveKeys.h"
#include "platform/foundation/NSPropertyListSerialization.h"
#include "platform/foundation/ZBLocalizedString.h"

namespace {

enum class Kind { String, Number, Data, Date, Array, Set, Dictionary, Null, Registered };

struct Builtin {
  Kind kind;
  std::vector<std::string> hierarchy;
};

const std::unordered_map<std::string, Builtin>& builtins() {
  static const std::unordered_map<std::string, Builtin> table = {
      {"NSString", {Kind::String, {"NSString", "NSObject"}}},
      {"NSMutableString", {Kind::String, {"NSMutableString", "NSString", "NSObject"}}},
      {"NSNumber", {Kind::Number, {"NSNumber", "NSValue", "NSObject"}}},
      {"NSData", {Kind::Data, {"NSData", "NSObject"}}},
      {"NSMutableData", {Kind::Data, {"NSMutableData", "NSData", "NSObject"}}},
      {"NSDate", {Kind::Date, {"NSDate", "NSObject"}}},
      {"NSArray", {Kind::Array, {"NSArray", "NSObject"}}},
      {"NSMutableArray", {Kind::Array, {"NSMutableArray", "NSArray", "NSObject"}}},
      {"NSSet", {Kind::Set, {"NSSet", "NSObject"}}},
      {"NSMutableSet", {Kind::Set, {"NSMutableSet", "NSSet", "NSObject"}}},
      {"NSDictionary", {Kind::Dictionary, {"NSDictionary", "NSObject"}}},
      {"NSMutableDictionary", {Kind::Dictionary, {"NSMutableDictionary", "NSDictionary", "NSObject"}}},
      {"NSNull", {Kind::Null, {"NSNull", "NSObject"}}},
  };
  return table;
}

struct Registration {
  std::vector<std::string> hierarchy;
  NSCodingDecoder decoder;
};

std::shared_mutex gRegistryMutex;
std::unordered_map<std::string, Registration> gRegistry;  // guarded by gRegistryMutex

std::optional<Registration> registration(const std::string& className) {
  std::shared_lock lock(gRegistryMutex);
  auto found = gRegistry.find(className);
  if (found == gRegistry.end()) return std::nullopt;
  return found->second;
}

bool admits(const std::set<std::string>& classes, const std::vector<std::string>& hierarchy) {
  return std::any_of(hierarchy.begin(), hierarchy.end(), [&](const std::string& name) { return classes.count(name); });
}

// The index a reference ({"CF$UID": n}) points at, or -1 when value is not one.
std::int64_t referenceIndex(const Value& value) {
  if (!value.isDictionary() || value.count() != 1) return -1;
  const Value& uid = value.asDictionary()["CF$UID"];
  return uid.isInteger() && uid.integerValue() >= 0 ? uid.integerValue() : -1;
}

NSErrorPtr corruptError(const std::string& reason, NSErrorPtr underlying = nullptr) {
  Dictionary info{
      {NSLocalizedDescriptionKey, ZBLocalizedString("The data couldn’t be read because it isn’t in the correct format.")},
      {"NSDebugDescription", reason}};
  if (underlying) info.set(NSUnderlyingErrorKey, Value(underlying));
  return NSError::create(NSCocoaErrorDomain, NSCoderReadCorruptError, std::move(info));
}

const std::set<std::string> kKeyClasses = {"NSString"};

}  // namespace

// ---------------------------------------------------------------------------
// Registration

bool NSKeyedUnarchiver::registerClass(const std::string& className, std::vector<std::string> superclassNames,
                                      NSCodingDecoder decoder) {
  if (className.empty() || builtins().count(className) || !decoder) return false;
  std::vector<std::string> hierarchy{className};
  for (auto& name : superclassNames) {
    if (name != "NSObject") hierarchy.push_back(std::move(name));
  }
  hierarchy.emplace_back("NSObject");
  std::unique_lock lock(gRegistryMutex);
  gRegistry[className] = Registration{std::move(hierarchy), std::move(decoder)};
  return true;
}

std::vector<std::string> NSKeyedUnarchiver::classHierarchy(const std::string& className) {
  if (auto found = builtins().find(className); found != builtins().end()) return found->second.hierarchy;
  if (auto entry = registration(className)) return entry->hierarchy;
  return {className, "NSObject"};
}

// ---------------------------------------------------------------------------
// Top level

NSKeyedUnarchiver::NSKeyedUnarchiver(const Array& objects) : _objects(objects), _inProgress(objects.size(), false) {}

Value NSKeyedUnarchiver::unarchivedObjectOfClass(const std::string& allowedClass, const Data& data, NSErrorPtr* error) {
  return unarchivedObjectOfClasses({allowedClass}, data, error);
}

Value NSKeyedUnarchiver::unarchivedObjectOfClasses(const std::set<std::string>& allowedClasses, const Data& data,
                                                   NSErrorPtr* error) {
  NSErrorPtr plistError;
  Value plist = NSPropertyListSerialization::propertyListWithData(data, nullptr, &plistError);
  if (plist.isAbsent()) {
    ZBSetError(error, corruptError("The data is not a property list.", plistError));
    return {};
  }
  const Dictionary& archive = plist.asDictionary();
  const Value& objects = archive["$objects"];
  const Value& top = archive["$top"];
  if (!plist.isDictionary() || archive["$archiver"].asString() != "NSKeyedArchiver" ||
      !archive["$version"].isInteger() || !objects.isArray() || objects.asArray().empty() ||
      objects.asArray()[0].asString() != "$null" || !top.isDictionary()) {
    ZBSetError(error, corruptError("The data is not a keyed archive."));
    return {};
  }
  NSKeyedUnarchiver unarchiver(objects.asArray());
  const Value& root = top.asDictionary()["root"];
  if (referenceIndex(root) < 0) {
    ZBSetError(error, corruptError("The archive has no root object."));
    return {};
  }
  unarchiver._sizes.push_back(0);
  Value result = unarchiver._decodeReference(root, unarchiver._intern(allowedClasses));
  if (unarchiver._error) {
    ZBSetError(error, unarchiver._error);
    return {};
  }
  return result;
}

// ---------------------------------------------------------------------------
// Decoding

std::size_t NSKeyedUnarchiver::_intern(const std::set<std::string>& classes) {
  for (std::size_t i = 0; i < _classSets.size(); ++i) {
    if (_classSets[i] == classes) return i;
  }
  _classSets.push_back(classes);
  return _classSets.size() - 1;
}

void NSKeyedUnarchiver::_fail(const std::string& reason) {
  if (!_error) _error = corruptError(reason);
}

void NSKeyedUnarchiver::failWithError(NSErrorPtr error) {
  if (!_error) _error = error ? std::move(error) : corruptError("An object could not be decoded.");
}

Value NSKeyedUnarchiver::_decodeReference(const Value& reference, std::size_t classes) {
  std::int64_t index = referenceIndex(reference);
  if (index < 0) {
    _fail("An object reference is malformed.");
    return {};
  }
  return _decodeIndex(index, classes);
}

Value NSKeyedUnarchiver::_decodeIndex(std::int64_t index, std::size_t classes) {
  if (_error) return {};
  if (index < 0 || static_cast<std::uint64_t>(index) >= _objects.size()) {
    _fail("An object reference is out of range.");
    return {};
  }
  if (index == 0) return {};
  // Every use of a value counts its whole size, shared or not: that is what
  // hashing or comparing the result will cost.
  auto count = [&](std::uint64_t size) {
    _sizes.back() += size;
    if (_sizes.back() > ZBKeyedArchiveMaxExpandedValues) _fail("The archive expands to too many values.");
  };
  if (auto found = _decoded.find({index, classes}); found != _decoded.end()) {
    count(found->second.size);
    return _error ? Value() : found->second.value;
  }
  if (auto found = _objectsDecoded.find(index); found != _objectsDecoded.end()) {
    // One archived object is one object, whichever set asks for it again;
    // its class must still be admitted by this set.
    if (!admits(_classSets[classes], found->second.hierarchy)) {
      _fail("The archive holds an object of class " + found->second.hierarchy.front() + ", which is not allowed here.");
      return {};
    }
    count(found->second.size);
    return _error ? Value() : found->second.value;
  }
  auto slot = static_cast<std::size_t>(index);
  if (_inProgress[slot]) {
    _fail("The archive's references form a cycle.");
    return {};
  }
  if (_depth >= ZBKeyedArchiveMaxDepth) {
    _fail("The archive's objects are nested too deeply.");
    return {};
  }
  _inProgress[slot] = true;
  ++_depth;
  _sizes.push_back(1);
  std::optional<Decoded> decoded = _decodeFresh(index, classes);
  std::uint64_t size = _sizes.back();
  _sizes.pop_back();
  --_depth;
  _inProgress[slot] = false;
  if (!decoded || _error) {
    _fail("An object could not be decoded.");
    return {};
  }
  count(size);
  if (_error) return {};
  if (decoded->hierarchy.empty()) {
    _decoded.emplace(std::make_pair(index, classes), Remembered{decoded->value, size});
  } else {
    _objectsDecoded.emplace(index, DecodedObject{decoded->value, std::move(decoded->hierarchy), size});
  }
  return decoded->value;
}

bool NSKeyedUnarchiver::_decodeElements(const Dictionary& fields, const std::string& key, std::size_t classes,
                                        Array& out) {
  const Value& list = fields[key];
  if (!list.isArray()) {
    _fail("A collection has no " + key + " list.");
    return false;
  }
  out.reserve(list.count());
  for (const Value& reference : list.asArray()) {
    out.push_back(_decodeReference(reference, classes));
    if (_error) return false;
  }
  return true;
}

std::optional<NSKeyedUnarchiver::Decoded> NSKeyedUnarchiver::_decodeFresh(std::int64_t index, std::size_t classes) {
  const Value& object = _objects[static_cast<std::size_t>(index)];
  auto admitted = [&](const std::string& className, const std::vector<std::string>& hierarchy) {
    if (admits(_classSets[classes], hierarchy)) return true;
    _fail("The archive holds an object of class " + className + ", which is not allowed here.");
    return false;
  };
  switch (object.type()) {
    case Value::Type::String:
      if (!admitted("NSString", builtins().at("NSString").hierarchy)) return std::nullopt;
      return Decoded{object};
    case Value::Type::Bool:
    case Value::Type::Integer:
    case Value::Type::Double:
      if (!admitted("NSNumber", builtins().at("NSNumber").hierarchy)) return std::nullopt;
      return Decoded{object};
    case Value::Type::Data:
      if (!admitted("NSData", builtins().at("NSData").hierarchy)) return std::nullopt;
      return Decoded{object};
    case Value::Type::Dictionary: break;
    default: _fail("The archive holds a value of an unexpected type."); return std::nullopt;
  }

  const Dictionary& fields = object.asDictionary();
  std::int64_t classIndex = referenceIndex(fields["$class"]);
  if (classIndex <= 0 || static_cast<std::uint64_t>(classIndex) >= _objects.size() ||
      !_objects[static_cast<std::size_t>(classIndex)].isDictionary()) {
    _fail("An archived object has no valid class.");
    return std::nullopt;
  }
  const Value& classNameValue = _objects[static_cast<std::size_t>(classIndex)].asDictionary()["$classname"];
  if (!classNameValue.isString()) {
    _fail("An archived class has no name.");
    return std::nullopt;
  }
  const std::string& className = classNameValue.asString();

  auto builtin = builtins().find(className);
  if (builtin == builtins().end()) {
    std::optional<Registration> entry = registration(className);
    if (!entry) {
      _fail("The archive holds an object of unknown class " + className + ".");
      return std::nullopt;
    }
    if (!admitted(className, entry->hierarchy)) return std::nullopt;
    _frames.push_back(Frame{&fields, classes});
    NSErrorPtr decoderError;
    std::shared_ptr<NSObject> decoded = entry->decoder(*this, &decoderError);
    _frames.pop_back();
    if (decoderError) failWithError(decoderError);
    if (!decoded || _error) {
      _fail("An object of class " + className + " could not be decoded.");
      return std::nullopt;
    }
    return Decoded{Value(std::move(decoded)), std::move(entry->hierarchy)};
  }

  if (!admitted(className, builtin->second.hierarchy)) return std::nullopt;
  switch (builtin->second.kind) {
    case Kind::Array: {
      Array elements;
      if (!_decodeElements(fields, "NS.objects", classes, elements)) return std::nullopt;
      return Decoded{Value(std::move(elements))};
    }
    case Kind::Set: {
      Array elements;
      if (!_decodeElements(fields, "NS.objects", classes, elements)) return std::nullopt;
      return Decoded{Value(Set(elements))};
    }
    case Kind::Dictionary: {
      Array keys, values;
      if (!_decodeElements(fields, "NS.keys", _intern(kKeyClasses), keys) ||
          !_decodeElements(fields, "NS.objects", classes, values))
        return std::nullopt;
      if (keys.size() != values.size()) {
        _fail("A dictionary has different numbers of keys and values.");
        return std::nullopt;
      }
      std::vector<Dictionary::Entry> entries;
      entries.reserve(keys.size());
      for (std::size_t i = 0; i < keys.size(); ++i) {
        if (!keys[i].isString()) {
          _fail("A dictionary key is not a string.");
          return std::nullopt;
        }
        entries.emplace_back(keys[i].asString(), std::move(values[i]));
      }
      return Decoded{Value(Dictionary::fromEntries(std::move(entries)))};
    }
    case Kind::Date: {
      const Value& time = fields["NS.time"];
      if (!(time.isDouble() || time.isInteger())) {
        _fail("A date has no time.");
        return std::nullopt;
      }
      return Decoded{Value(NSDate(time.doubleValue()))};
    }
    case Kind::Null: return Decoded{Value::null()};
    case Kind::String: {
      const Value& text = fields["NS.string"];
      if (!text.isString()) {
        _fail("A string object has no text.");
        return std::nullopt;
      }
      return Decoded{text};
    }
    case Kind::Data: {
      const Value& bytes = fields["NS.data"];
      if (!bytes.isData()) {
        _fail("A data object has no bytes.");
        return std::nullopt;
      }
      return Decoded{bytes};
    }
    case Kind::Number:
    case Kind::Registered: break;
  }
  _fail("The archive holds an object of class " + className + " in a form that cannot be read.");
  return std::nullopt;
}

// ---------------------------------------------------------------------------
// The decoder-facing interface

const Value* NSKeyedUnarchiver::_field(const std::string& key) const {
  if (_frames.empty()) return nullptr;
  const Value& value = (*_frames.back().fields)[zb::archive::escapedKey(key)];
  return value.isAbsent() ? nullptr : &value;
}

bool NSKeyedUnarchiver::containsValueForKey(const std::string& key) const { return _field(key) != nullptr; }

Value NSKeyedUnarchiver::decodeObjectOfClasses(const std::set<std::string>& classes, const std::string& key) {
  if (_error) return {};
  const Value* value = _field(key);
  if (!value) return {};
  return _decodeReference(*value, _intern(classes));
}

Value NSKeyedUnarchiver::decodeObjectOfClass(const std::string& className, const std::string& key) {
  return decodeObjectOfClasses({className}, key);
}

Value NSKeyedUnarchiver::decodeObjectForKey(const std::string& key) {
  if (_error || _frames.empty()) return {};
  const Value* value = _field(key);
  if (!value) return {};
  return _decodeReference(*value, _frames.back().classes);
}

bool NSKeyedUnarchiver::decodeBoolForKey(const std::string& key) {
  if (_error) return false;
  const Value* value = _field(key);
  if (!value) return false;
  if (!value->isBool() && !value->isInteger()) {
    _fail("The value for key " + key + " is not a Boolean.");
    return false;
  }
  return value->boolValue();
}

std::int64_t NSKeyedUnarchiver::decodeInt64ForKey(const std::string& key) {
  if (_error) return 0;
  const Value* value = _field(key);
  if (!value) return 0;
  if (value->isInteger() || value->isBool()) return value->integerValue();
  if (value->isDouble()) {
    double d = value->doubleValue();
    // Outside this range the conversion would be undefined.
    if (std::isfinite(d) && d >= -9.2233720368547758e18 && d < 9.2233720368547758e18)
      return static_cast<std::int64_t>(d);
  }
  _fail("The value for key " + key + " is not an integer.");
  return 0;
}

double NSKeyedUnarchiver::decodeDoubleForKey(const std::string& key) {
  if (_error) return 0;
  const Value* value = _field(key);
  if (!value) return 0;
  if (!value->isNumber()) {
    _fail("The value for key " + key + " is not a number.");
    return 0;
  }
  return value->doubleValue();
}
