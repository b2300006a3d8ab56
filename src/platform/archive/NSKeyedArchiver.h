#pragma once
// NSKeyedArchiver: writes a graph of values into a keyed archive, the binary
// property list {"$archiver": "NSKeyedArchiver", "$version": 100000,
// "$top": {"root": UID}, "$objects": [...]} with "$null" at index 0 and a
// "$class" dictionary ({"$classname", "$classes"}) per class.
//
// Archivable: absent (written as "$null"), strings, numbers, bools, dates,
// data, arrays, dictionaries, sets, the null marker and objects adopting
// NSCoding. The same NSCoding object reached twice is written once; an object
// that contains itself, an object not adopting NSCoding, or nesting deeper
// than ZBKeyedArchiveMaxDepth makes archiving fail.
//
// An archiver exists only during archivedDataWithRootObject, which is
// thread-safe; the coder passed to encodeWithCoder is for that call only.

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/archive/NSCoding.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/Value.h"

inline constexpr std::size_t ZBKeyedArchiveMaxDepth = 256;
inline constexpr std::uint64_t ZBKeyedArchiveMaxExpandedValues = 1u << 20;

class NSKeyedArchiver {
public:
  // The archive of root. On failure returns empty Data and sets error
  // (NSCocoaErrorDomain, NSCoderInvalidValueError) saying what could not be
  // archived.
  [[nodiscard]] static Data archivedDataWithRootObject(const Value& root, NSErrorPtr* error = nullptr);

  // For encodeWithCoder: store a value under key in the object being written.
  // Keys are free-form ("$" at the start is escaped, as the format requires).
  void encodeObject(const Value& value, const std::string& key);
  void encodeBool(bool value, const std::string& key);
  void encodeInt64(std::int64_t value, const std::string& key);
  void encodeDouble(double value, const std::string& key);
  // Makes the whole archiving fail with error (the first failure wins).
  void failWithError(NSErrorPtr error);

  NSKeyedArchiver(const NSKeyedArchiver&) = delete;
  NSKeyedArchiver& operator=(const NSKeyedArchiver&) = delete;

private:
  NSKeyedArchiver();
  // Index in $objects of value, written on first use; 0 after a failure.
  std::int64_t _encode(const Value& value);
  std::int64_t _encodeObject(const std::shared_ptr<NSObject>& object);
  std::int64_t _classReference(const std::string& className);
  std::int64_t _append(Value value);
  void _fail(const std::string& reason);

  Array _objects;
  std::vector<Dictionary> _frames;  // keyed values of the objects being written, innermost last
  std::unordered_map<std::string, std::int64_t> _strings;
  std::unordered_map<std::string, std::int64_t> _classes;
  std::map<const NSObject*, std::int64_t> _written;  // finished NSCoding objects
  // Keeps every written object alive until the archive is done, so that an
  // address seen twice is really the same object.
  std::vector<std::shared_ptr<NSObject>> _retained;
  std::set<const NSObject*> _inProgress;
  std::int64_t _nullMarker = -1;
  std::size_t _depth = 0;
  NSErrorPtr _error;
};
