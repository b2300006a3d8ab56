// Keyed unarchiver: any bytes must give a value or an error, never a crash,
// under a permissive and a strict allowed-class set; whatever decodes must
// archive again and decode to the same values.

#include <cstdint>
#include <cstdlib>

#include "FuzzCompare.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  FuzzCodingObject::registerForCoding();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  Data data(bytes, bytes + size);
  NSErrorPtr error;
  Value strict = NSKeyedUnarchiver::unarchivedObjectOfClasses({"NSArray", "NSDictionary", "NSString"}, data, &error);
  error = nullptr;
  Value value = NSKeyedUnarchiver::unarchivedObjectOfClasses({"NSObject"}, data, &error);
  // A stricter set can only refuse more.
  if (!strict.isAbsent() && value.isAbsent()) std::abort();
  if (value.isAbsent()) return 0;
  Data once = NSKeyedArchiver::archivedDataWithRootObject(value, &error);
  if (once.empty()) return 0;  // e.g. a string the property-list writer refuses
  Value again = NSKeyedUnarchiver::unarchivedObjectOfClasses({"NSObject"}, once, &error);
  if (!sameValue(value, again, 0)) std::abort();
  return 0;
}
