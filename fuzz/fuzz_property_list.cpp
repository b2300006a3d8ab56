// Property-list reader: any bytes must give a value or an error, never a
// crash; a value that can be written must read back the same (the writer and
// reader agree).

#include <cstdint>
#include <cstdlib>

#include "FuzzCompare.h"
#include "platform/foundation/NSPropertyListSerialization.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  Data data(bytes, bytes + size);
  NSErrorPtr error;
  Value value = NSPropertyListSerialization::propertyListWithData(data, nullptr, &error);
  if (value.isAbsent() != (error != nullptr)) std::abort();
  if (value.isAbsent()) return 0;
  for (auto format : {NSPropertyListFormat::XML_v1_0, NSPropertyListFormat::Binary_v1_0}) {
    Data once = NSPropertyListSerialization::dataWithPropertyList(value, format);
    if (once.empty()) continue;  // e.g. a string holding NUL, which the writer refuses
    Value reread = NSPropertyListSerialization::propertyListWithData(once, nullptr, &error);
    double tolerance = format == NSPropertyListFormat::XML_v1_0 ? 1.0 : 1e-5;
    if (!sameValue(value, reread, tolerance)) std::abort();
  }
  return 0;
}
