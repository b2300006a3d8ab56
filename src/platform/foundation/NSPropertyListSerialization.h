#pragma once
// NSPropertyListSerialization: Value trees to and from property-list bytes
// (libplist). Reads XML and binary property lists; writes XML 1.0 or binary.
//
// Types: string, bool, integer (int64), real, date, data, array, dictionary.
// Absent values, the null marker, sets and objects cannot be written. A
// keyed-archive reference (binary UID) reads as the dictionary {"CF$UID": n},
// and such a dictionary (n in 0..2^32-1) is written back as a reference, so
// keyed archives survive a round trip through Value.
//
// Limits that keep hostile input harmless: at most 64 MiB of input, nesting
// at most ZBPropertyListMaxDepth containers deep, and a binary list may not
// expand (through shared references) to more than 2^20 values. XML must not
// contain NUL, a DOCTYPE internal subset, or '<' or an unpaired quote inside
// comments, CDATA sections, processing instructions or tags (no usual writer
// produces them). Input beyond these limits is reported as corrupt.
//
// Known narrowings: dates travel as whole seconds in XML and microseconds in
// binary, and must lie within about 68 years of 2001 (the library keeps
// seconds in 32 bits); integers above INT64_MAX read as negative numbers.
//
// Stateless; thread-safe.

#include <cstddef>

#include "platform/foundation/NSError.h"
#include "platform/foundation/Value.h"

enum class NSPropertyListFormat : int {
  XML_v1_0 = 100,
  Binary_v1_0 = 200,
};

inline constexpr std::size_t ZBPropertyListMaxDepth = 512;

class NSPropertyListSerialization {
public:
  // Serialises a property list. On failure returns empty Data and sets error
  // (NSCocoaErrorDomain, NSPropertyListWriteInvalidError) naming the offending
  // value.
  [[nodiscard]] static Data dataWithPropertyList(const Value& plist, NSPropertyListFormat format,
                                                 NSErrorPtr* error = nullptr);

  // Parses XML or binary bytes (detected from the content) and stores the
  // detected format in *format when given. On failure returns absent and sets
  // error (NSCocoaErrorDomain, NSPropertyListReadCorruptError) with the reason.
  [[nodiscard]] static Value propertyListWithData(const Data& data, NSPropertyListFormat* format = nullptr,
                                                  NSErrorPtr* error = nullptr);

  // True when dataWithPropertyList would accept the value.
  static bool propertyListIsValid(const Value& plist);
};
