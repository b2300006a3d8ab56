#include "platform/archive/NSKeyedArchiver.h"

#include <utility>

#include "platform/archive/NSKeyedUnarchiver.h"
#include "platform/archive/impl/ZBArchiveKeys.h"
#include "platform/foundation/NSPropertyListSerialization.h"
#include "platform/foundation/ZBLocalizedString.h"

namespace {

Value reference(std::int64_t index) { return Value(Dictionary{{"CF$UID", Value(index)}}); }

}  // namespace

NSKeyedArchiver::NSKeyedArchiver() { _objects.emplace_back("$null"); }

Data NSKeyedArchiver::archivedDataWithRootObject(const Value& root, NSErrorPtr* error) {
  NSKeyedArchiver archiver;
  archiver._frames.emplace_back();
  archiver.encodeObject(root, "root");
  if (archiver._error) {
    ZBSetError(error, archiver._error);
    return {};
  }
  Dictionary archive{{"$archiver", "NSKeyedArchiver"},
                     {"$version", Value(100000)},
                     {"$top", Value(std::move(archiver._frames.back()))},
                     {"$objects", Value(std::move(archiver._objects))}};
  NSErrorPtr plistError;
  Data data = NSPropertyListSerialization::dataWithPropertyList(Value(std::move(archive)),
                                                                NSPropertyListFormat::Binary_v1_0, &plistError);
  if (data.empty()) ZBSetError(error, plistError);
  return data;
}

void NSKeyedArchiver::encodeObject(const Value& value, const std::string& key) {
  if (_error || _frames.empty()) return;
  std::int64_t index = _encode(value);
  _frames.back().set(zb::archive::escapedKey(key), reference(index));
}

void NSKeyedArchiver::encodeBool(bool value, const std::string& key) {
  if (!_frames.empty()) _frames.back().set(zb::archive::escapedKey(key), Value(value));
}

void NSKeyedArchiver::encodeInt64(std::int64_t value, const std::string& key) {
  if (!_frames.empty()) _frames.back().set(zb::archive::escapedKey(key), Value(value));
}

void NSKeyedArchiver::encodeDouble(double value, const std::string& key) {
  if (!_frames.empty()) _frames.back().set(zb::archive::escapedKey(key), Value(value));
}

void NSKeyedArchiver::failWithError(NSErrorPtr error) {
  if (!_error) _error = error ? std::move(error) : NSError::create(NSCocoaErrorDomain, NSCoderInvalidValueError);
}

void NSKeyedArchiver::_fail(const std::string& reason) {
  if (_error) return;
  Dictionary info{
      {NSLocalizedDescriptionKey,
       ZBLocalizedString("The data couldn’t be written because it isn’t in the correct format.")},
      {"NSDebugDescription", reason}};
  _error = NSError::create(NSCocoaErrorDomain, NSCoderInvalidValueError, std::move(info));
}

std::int64_t NSKeyedArchiver::_append(Value value) {
  _objects.push_back(std::move(value));
  return static_cast<std::int64_t>(_objects.size() - 1);
}

std::int64_t NSKeyedArchiver::_classReference(const std::string& className) {
  auto found = _classes.find(className);
  if (found != _classes.end()) return found->second;
  Array names;
  for (auto& name : NSKeyedUnarchiver::classHierarchy(className)) names.emplace_back(std::move(name));
  std::int64_t index = _append(Value(Dictionary{{"$classname", className}, {"$classes", Value(std::move(names))}}));
  _classes.emplace(className, index);
  return index;
}

std::int64_t NSKeyedArchiver::_encode(const Value& value) {
  if (_error) return 0;
  switch (value.type()) {
    case Value::Type::Absent: return 0;
    case Value::Type::String: {
      auto found = _strings.find(value.asString());
      if (found != _strings.end()) return found->second;
      std::int64_t index = _append(value);
      _strings.emplace(value.asString(), index);
      return index;
    }
    case Value::Type::Bool:
    case Value::Type::Integer:
    case Value::Type::Double:
    case Value::Type::Data: return _append(value);
    case Value::Type::Date:
      return _append(Value(Dictionary{{"$class", reference(_classReference("NSDate"))},
                                      {"NS.time", Value(value.asDate().timeIntervalSinceReferenceDate())}}));
    case Value::Type::Null:
      if (_nullMarker < 0) _nullMarker = _append(Value(Dictionary{{"$class", reference(_classReference("NSNull"))}}));
      return _nullMarker;
    case Value::Type::Object: return _encodeObject(value.asObject());
    case Value::Type::Array:
    case Value::Type::Set:
    case Value::Type::Dictionary: break;
  }

  if (_depth >= ZBKeyedArchiveMaxDepth) {
    _fail("Objects are nested too deeply to archive.");
    return 0;
  }
  ++_depth;
  // The container takes its index before its elements, as the format's
  // readers expect of a parent.
  std::int64_t index = _append(Value());
  Dictionary fields;
  if (value.isDictionary()) {
    Array keys, objects;
    keys.reserve(value.count());
    objects.reserve(value.count());
    for (const auto& [key, element] : value.asDictionary()) {
      keys.push_back(reference(_encode(Value(key))));
      objects.push_back(reference(_encode(element)));
    }
    fields.set("NS.keys", Value(std::move(keys)));
    fields.set("NS.objects", Value(std::move(objects)));
    fields.set("$class", reference(_classReference("NSDictionary")));
  } else {
    Array objects;
    objects.reserve(value.count());
    for (const Value& element : value.collectionElements()) objects.push_back(reference(_encode(element)));
    fields.set("NS.objects", Value(std::move(objects)));
    fields.set("$class", reference(_classReference(value.isSet() ? "NSSet" : "NSArray")));
  }
  --_depth;
  _objects[static_cast<std::size_t>(index)] = Value(std::move(fields));
  return _error ? 0 : index;
}

std::int64_t NSKeyedArchiver::_encodeObject(const std::shared_ptr<NSObject>& object) {
  const auto* coding = dynamic_cast<const NSCoding*>(object.get());
  if (!coding) {
    _fail("Objects of class " + object->className() + " cannot be archived.");
    return 0;
  }
  if (auto found = _written.find(object.get()); found != _written.end()) return found->second;
  if (_inProgress.count(object.get())) {
    _fail("An object of class " + object->className() + " contains itself.");
    return 0;
  }
  if (_depth >= ZBKeyedArchiveMaxDepth) {
    _fail("Objects are nested too deeply to archive.");
    return 0;
  }
  ++_depth;
  _retained.push_back(object);
  _inProgress.insert(object.get());
  std::int64_t index = _append(Value());
  _frames.emplace_back();
  coding->encodeWithCoder(*this);
  Dictionary fields = std::move(_frames.back());
  _frames.pop_back();
  fields.set("$class", reference(_classReference(object->className())));
  _objects[static_cast<std::size_t>(index)] = Value(std::move(fields));
  _inProgress.erase(object.get());
  _written.emplace(object.get(), index);
  --_depth;
  return _error ? 0 : index;
}
