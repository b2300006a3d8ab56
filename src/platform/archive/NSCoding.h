#pragma once
// NSCoding: adopted by NSObject subclasses that can be written into a keyed
// archive and read back. A class adopts it by deriving from both NSObject and
// NSCoding, implementing encodeWithCoder, and registering a decoder with
// NSKeyedUnarchiver::registerClass before anything is unarchived.
//
// The class name written to the archive is the object's className().

#include <functional>
#include <memory>

#include "platform/foundation/NSError.h"
#include "platform/foundation/NSObject.h"

class NSKeyedArchiver;
class NSKeyedUnarchiver;

class NSCoding {
public:
  virtual ~NSCoding() = default;
  // Writes the receiver's state with the coder's encode… calls.
  virtual void encodeWithCoder(NSKeyedArchiver& coder) const = 0;
};

// Builds an object of a registered class from the coder's current object
// (read it with the coder's decode… calls). Returns null on failure, setting
// *error or calling coder.failWithError; decoding of the whole archive then
// fails.
using NSCodingDecoder = std::function<std::shared_ptr<NSObject>(NSKeyedUnarchiver& coder, NSErrorPtr* error)>;
