#pragma once
// NSKeyedUnarchiver: reads keyed archives (binary or XML property lists in
// the NSKeyedArchiver layout) back into values, admitting only the classes a
// caller allows.
//
// Class names and what they decode to: NSString (string), NSNumber (bool,
// integer, real), NSDate, NSData, NSArray, NSDictionary (string keys only),
// NSSet, NSNull (the null marker), each also under its NSMutable… name, plus
// classes registered with registerClass. A class is admitted when it or one of
// its ancestors is in the allowed set (so "NSObject" admits everything);
// registered ancestors are taken from the registration, never from the
// archive. Containers decode their elements with the same allowed set;
// dictionary keys are always admitted as strings. A registered-class object
// referenced several times decodes once and is shared (its class is checked
// against each asking set).
//
// Damaged input of any kind (not a property list, wrong layout, out-of-range
// or cyclic references, wrong types, nesting deeper than
// ZBKeyedArchiveMaxDepth, shared references expanding to more than
// ZBKeyedArchiveMaxExpandedValues values, unknown or disallowed classes)
// yields absent and an NSCocoaErrorDomain / NSCoderReadCorruptError error; it
// never crashes.
//
// An unarchiver exists only during unarchivedObjectOfClasses, which is
// thread-safe; so is registerClass.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/archive/NSCoding.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/Value.h"

class NSKeyedUnarchiver {
public:
  // The root object of the archive. Absent with error on failure; absent
  // without error when the archived root was itself absent.
  [[nodiscard]] static Value unarchivedObjectOfClasses(const std::set<std::string>& allowedClasses, const Data& data,
                                                       NSErrorPtr* error = nullptr);
  [[nodiscard]] static Value unarchivedObjectOfClass(const std::string& allowedClass, const Data& data,
                                                     NSErrorPtr* error = nullptr);

  // Makes className decodable through decoder. superclassNames lists its
  // ancestors, nearest first ("NSObject" is implied); they are written to
  // archives and decide whether an allowed set admits the class. Registering
  // again replaces the earlier registration; the standard class names above
  // cannot be registered (returns false).
  static bool registerClass(const std::string& className, std::vector<std::string> superclassNames,
                            NSCodingDecoder decoder);
  // className followed by its ancestors, ending with "NSObject"; for an
  // unregistered class just {className, "NSObject"}.
  static std::vector<std::string> classHierarchy(const std::string& className);

  // For decoders, reading the object being decoded. After a failure every
  // decode returns absent / false / 0.
  bool containsValueForKey(const std::string& key) const;
  // The object under key if its class is admitted by classes; absent when the
  // key is missing or holds the archived absent value. A value of another
  // class fails the whole decoding.
  Value decodeObjectOfClasses(const std::set<std::string>& classes, const std::string& key);
  Value decodeObjectOfClass(const std::string& className, const std::string& key);
  // With the classes the object being decoded was admitted under.
  Value decodeObjectForKey(const std::string& key);
  // Missing keys read false / 0; a value of the wrong type fails decoding.
  bool decodeBoolForKey(const std::string& key);
  std::int64_t decodeInt64ForKey(const std::string& key);
  double decodeDoubleForKey(const std::string& key);
  // Makes the whole decoding fail with error (the first failure wins).
  void failWithError(NSErrorPtr error);
  NSErrorPtr error() const { return _error; }

  NSKeyedUnarchiver(const NSKeyedUnarchiver&) = delete;
  NSKeyedUnarchiver& operator=(const NSKeyedUnarchiver&) = delete;

private:
  struct Decoded {
    Value value;
    std::vector<std::string> hierarchy;  // set for registered-class objects only
  };
  struct Remembered {
    Value value;
    std::uint64_t size;  // values it expands to
  };
  struct DecodedObject {
    Value value;
    std::vector<std::string> hierarchy;
    std::uint64_t size;
  };
  struct Frame {
    const Dictionary* fields;
    std::size_t classes;  // index into _classSets
  };
  explicit NSKeyedUnarchiver(const Array& objects);
  // Allowed sets are interned (few distinct sets occur in one decoding).
  std::size_t _intern(const std::set<std::string>& classes);
  Value _decodeReference(const Value& reference, std::size_t classes);
  Value _decodeIndex(std::int64_t index, std::size_t classes);
  std::optional<Decoded> _decodeFresh(std::int64_t index, std::size_t classes);
  bool _decodeElements(const Dictionary& fields, const std::string& key, std::size_t classes, Array& out);
  const Value* _field(const std::string& key) const;
  void _fail(const std::string& reason);

  const Array& _objects;
  std::deque<std::set<std::string>> _classSets;
  // Values (plain data) are remembered per allowed set, so that a container
  // is never handed out under a set its elements were not checked against;
  // registered-class objects per index, so that they keep their identity.
  std::map<std::pair<std::int64_t, std::size_t>, Remembered> _decoded;
  std::map<std::int64_t, DecodedObject> _objectsDecoded;
  std::vector<bool> _inProgress;
  std::vector<Frame> _frames;
  std::vector<std::uint64_t> _sizes;  // values counted so far for each object being decoded
  std::size_t _depth = 0;
  NSErrorPtr _error;
};
