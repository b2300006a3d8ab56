#include "platform/foundation/NSPropertyListSerialization.h"

#include <plist/plist.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/ZBLocalizedString.h"
#include "platform/foundation/impl/ZBUTF8.h"

namespace {

constexpr std::size_t kMaxInputBytes = 64u << 20;
constexpr std::uint64_t kMaxExpandedValues = 1u << 20;
const char* const kUIDKey = "CF$UID";

struct PlistFree {
  void operator()(plist_t node) const {
    if (node) plist_free(node);
  }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

struct MallocFree {
  void operator()(void* p) const { std::free(p); }
};

// The description is for people; the exact reason goes under the debug key.
const char* const kDebugDescriptionKey = "NSDebugDescription";

NSErrorPtr readError(const std::string& reason) {
  Dictionary info{
      {NSLocalizedDescriptionKey, ZBLocalizedString("The data couldn’t be read because it isn’t in the correct format.")},
      {kDebugDescriptionKey, reason}};
  return NSError::create(NSCocoaErrorDomain, NSPropertyListReadCorruptError, std::move(info));
}

NSErrorPtr writeError(const std::string& reason) {
  Dictionary info{
      {NSLocalizedDescriptionKey,
       ZBLocalizedString("The data couldn’t be written because it isn’t in the correct format.")},
      {kDebugDescriptionKey, reason}};
  return NSError::create(NSCocoaErrorDomain, NSPropertyListWriteInvalidError, std::move(info));
}

// ---------------------------------------------------------------------------
// Writing

const char* typeName(Value::Type type) {
  switch (type) {
    case Value::Type::Absent: return "an absent value";
    case Value::Type::Null: return "the null marker";
    case Value::Type::Set: return "a set";
    case Value::Type::Object: return "an object";
    default: return "a value";
  }
}

bool validText(std::string_view text) { return text.find('\0') == std::string_view::npos && zb::isValidUTF8(text); }

// Builds the libplist tree for value; null with reason set on failure.
plist_t toPlist(const Value& value, std::size_t depth, std::string& reason) {
  switch (value.type()) {
    case Value::Type::Bool: return plist_new_bool(value.boolValue() ? 1 : 0);
    case Value::Type::Integer: return plist_new_uint(static_cast<std::uint64_t>(value.integerValue()));
    case Value::Type::Double: return plist_new_real(value.doubleValue());
    case Value::Type::String:
      if (!validText(value.asString())) {
        reason = "A string is not valid UTF-8 or contains a NUL character.";
        return nullptr;
      }
      return plist_new_string(value.asString().c_str());
    case Value::Type::Data: {
      const Data& data = value.asData();
      return plist_new_data(reinterpret_cast<const char*>(data.data()), data.size());
    }
    case Value::Type::Date: {
      double t = value.asDate().timeIntervalSinceReferenceDate();
      double whole = std::trunc(t);
      if (!std::isfinite(t) || whole < std::numeric_limits<std::int32_t>::min() ||
          whole > std::numeric_limits<std::int32_t>::max()) {
        reason = "A date lies outside the range a property list can hold (about 1933 to 2069).";
        return nullptr;
      }
      // The library stores sec + usec / 1e6 as a double (usec carries the
      // sign of t) and truncates when it reads the microseconds back, which
      // can lose one. Pick the neighbour that reads back exactly, so that a
      // written date reads back to the microsecond.
      auto sec = static_cast<std::int32_t>(whole);
      auto usec = static_cast<std::int32_t>(std::llround((t - whole) * 1e6));
      if (usec >= 1000000 || usec <= -1000000) usec = usec > 0 ? 999999 : -999999;
      std::int32_t step = t < 0 ? -1 : 1;
      for (std::int32_t candidate : {usec, usec + step}) {
        if (candidate >= 1000000 || candidate <= -1000000) continue;
        PlistPtr node(plist_new_date(sec, candidate));
        std::int32_t readSec = 0, readUsec = 0;
        plist_get_date_val(node.get(), &readSec, &readUsec);
        if (readSec == sec && std::abs(readUsec) == std::abs(usec)) return node.release();
      }
      return plist_new_date(sec, usec);
    }
    case Value::Type::Array: {
      if (depth >= ZBPropertyListMaxDepth) {
        reason = "Containers are nested too deeply.";
        return nullptr;
      }
      PlistPtr array(plist_new_array());
      for (const Value& element : value.asArray()) {
        plist_t item = toPlist(element, depth + 1, reason);
        if (!item) return nullptr;
        plist_array_append_item(array.get(), item);
      }
      return array.release();
    }
    case Value::Type::Dictionary: {
      const Dictionary& dict = value.asDictionary();
      if (dict.size() == 1 && dict.begin()->first == kUIDKey) {
        const Value& uid = dict.begin()->second;
        if (uid.isInteger() && uid.integerValue() >= 0 && uid.integerValue() <= 0xFFFFFFFFll)
          return plist_new_uid(static_cast<std::uint64_t>(uid.integerValue()));
      }
      if (depth >= ZBPropertyListMaxDepth) {
        reason = "Containers are nested too deeply.";
        return nullptr;
      }
      PlistPtr node(plist_new_dict());
      for (const auto& [key, element] : dict) {
        if (!validText(key)) {
          reason = "A dictionary key is not valid UTF-8 or contains a NUL character.";
          return nullptr;
        }
        if (element.isAbsent()) continue;
        plist_t item = toPlist(element, depth + 1, reason);
        if (!item) return nullptr;
        plist_dict_set_item(node.get(), key.c_str(), item);
      }
      return node.release();
    }
    case Value::Type::Absent:
    case Value::Type::Null:
    case Value::Type::Set:
    case Value::Type::Object: break;
  }
  reason = std::string("Property lists cannot contain ") + typeName(value.type()) + ".";
  return nullptr;
}

// ---------------------------------------------------------------------------
// Input checks. libplist's parsers recurse (and free partial trees
// recursively on error) without a depth limit, and its binary parser expands
// shared references into copies; both are bounded here before it sees the
// bytes.

std::uint64_t readBigEndian(const std::uint8_t* p, unsigned width) {
  std::uint64_t v = 0;
  for (unsigned i = 0; i < width; ++i) v = (v << 8) | p[i];
  return v;
}

// Walks the object graph of a binary list from its top object: rejects
// reference cycles, nesting deeper than the limit and graphs whose expansion
// into a tree would exceed kMaxExpandedValues. Scalars are left to libplist.
bool checkBinary(const std::uint8_t* bytes, std::size_t size, std::string& reason) {
  if (size < 8 + 32 || std::memcmp(bytes, "bplist00", 8) != 0) {
    reason = "The binary property list is truncated or has an unknown version.";
    return false;
  }
  const std::uint8_t* trailer = bytes + size - 32;
  unsigned offsetSize = trailer[6];
  unsigned refSize = trailer[7];
  std::uint64_t objectCount = readBigEndian(trailer + 8, 8);
  std::uint64_t top = readBigEndian(trailer + 16, 8);
  std::uint64_t tableOffset = readBigEndian(trailer + 24, 8);
  std::uint64_t tableEnd = size - 32;
  if (offsetSize < 1 || offsetSize > 8 || refSize < 1 || refSize > 8 || objectCount == 0 || top >= objectCount ||
      tableOffset <= 8 || tableOffset > tableEnd || objectCount > (tableEnd - tableOffset) / offsetSize) {
    reason = "The binary property list has a damaged trailer or offset table.";
    return false;
  }

  struct Container {
    std::uint64_t refs = 0;  // byte position of the first reference
    std::uint64_t count = 0;  // number of references
    std::uint64_t keys = 0;   // how many of them (the first) are dictionary keys
  };
  // Describes object index; false when it is malformed. Non-containers get count 0.
  auto describe = [&](std::uint64_t index, Container& out) {
    std::uint64_t offset = readBigEndian(bytes + tableOffset + index * offsetSize, offsetSize);
    if (offset < 8 || offset >= tableOffset) return false;
    std::uint8_t marker = bytes[offset];
    unsigned kind = marker >> 4;
    out = {};
    if (kind != 0xA && kind != 0xC && kind != 0xD) return true;
    std::uint64_t count = marker & 0x0F;
    std::uint64_t pos = offset + 1;
    if (count == 0x0F) {
      if (pos >= tableOffset || (bytes[pos] >> 4) != 0x1 || (bytes[pos] & 0x0F) > 3) return false;
      unsigned width = 1u << (bytes[pos] & 0x0F);
      if (pos + 1 + width > tableOffset) return false;
      count = readBigEndian(bytes + pos + 1, width);
      pos += 1 + width;
    }
    std::uint64_t perEntry = kind == 0xD ? 2 : 1;
    if (count > (tableOffset - pos) / refSize / perEntry) return false;
    out.refs = pos;
    out.count = count * perEntry;
    out.keys = kind == 0xD ? count : 0;
    return true;
  };

  // Dictionary keys must be strings without NUL: libplist asserts (and
  // aborts the process) when it hands out a key whose length disagrees with
  // strlen.
  auto validKey = [&](std::uint64_t index) {
    std::uint64_t offset = readBigEndian(bytes + tableOffset + index * offsetSize, offsetSize);
    if (offset < 8 || offset >= tableOffset) return false;
    unsigned kind = bytes[offset] >> 4;
    if (kind != 0x5 && kind != 0x6) return false;
    std::uint64_t length = bytes[offset] & 0x0F;
    std::uint64_t pos = offset + 1;
    if (length == 0x0F) {
      if (pos >= tableOffset || (bytes[pos] >> 4) != 0x1 || (bytes[pos] & 0x0F) > 3) return false;
      unsigned width = 1u << (bytes[pos] & 0x0F);
      if (pos + 1 + width > tableOffset) return false;
      length = readBigEndian(bytes + pos + 1, width);
      pos += 1 + width;
    }
    unsigned unit = kind == 0x6 ? 2 : 1;
    if (length > (tableOffset - pos) / unit) return false;
    for (std::uint64_t i = 0; i < length; ++i) {
      const std::uint8_t* c = bytes + pos + i * unit;
      if (c[0] == 0 && (unit == 1 || c[1] == 0)) return false;
    }
    return true;
  };

  enum : std::uint8_t { Unseen, Open, Done };
  std::vector<std::uint8_t> state(objectCount, Unseen);
  std::vector<std::uint8_t> keyChecked(objectCount, 0);  // 0 unknown, 1 valid key, 2 invalid
  std::vector<std::uint16_t> height(objectCount, 0);
  std::vector<std::uint64_t> expanded(objectCount, 0);
  struct Frame {
    std::uint64_t index;
    Container container;
    std::uint64_t next = 0;
    std::uint16_t height = 0;
    std::uint64_t expanded = 1;
  };
  std::vector<Frame> stack;
  auto push = [&](std::uint64_t index) {
    Frame frame{index, {}};
    if (!describe(index, frame.container)) {
      reason = "The binary property list has a damaged object.";
      return false;
    }
    if (stack.size() > ZBPropertyListMaxDepth) {
      reason = "The property list is nested too deeply.";
      return false;
    }
    state[index] = Open;
    stack.push_back(frame);
    return true;
  };
  if (!push(top)) return false;
  while (!stack.empty()) {
    Frame& frame = stack.back();
    if (frame.next < frame.container.count) {
      std::uint64_t child = readBigEndian(bytes + frame.container.refs + frame.next * refSize, refSize);
      ++frame.next;
      if (child >= objectCount) {
        reason = "The binary property list refers to an object that does not exist.";
        return false;
      }
      if (frame.next <= frame.container.keys && keyChecked[child] == 0) keyChecked[child] = validKey(child) ? 1 : 2;
      if (frame.next <= frame.container.keys && keyChecked[child] != 1) {
        reason = "The binary property list has a dictionary key that is not a string.";
        return false;
      }
      if (state[child] == Open) {
        reason = "The binary property list contains a reference cycle.";
        return false;
      }
      if (state[child] == Unseen) {
        if (!push(child)) return false;
        continue;
      }
      frame.height = std::max<std::uint16_t>(frame.height, height[child] + 1);
      frame.expanded += expanded[child];
      if (frame.expanded > kMaxExpandedValues) {
        reason = "The binary property list expands to too many values.";
        return false;
      }
      continue;
    }
    std::uint64_t index = frame.index;
    state[index] = Done;
    height[index] = frame.height;
    expanded[index] = frame.expanded;
    stack.pop_back();
    if (!stack.empty()) {
      Frame& parent = stack.back();
      parent.height = std::max<std::uint16_t>(parent.height, height[index] + 1);
      parent.expanded += expanded[index];
      if (parent.expanded > kMaxExpandedValues) {
        reason = "The binary property list expands to too many values.";
        return false;
      }
    }
  }
  return true;
}

// Bounds the container nesting an XML document can make libplist build. The
// scan is a strict tokenizer: markup sections (comments, CDATA, processing
// instructions, declarations) must not contain '<', and quotes in them and in
// tags must pair up, so that no reading of where a section ends can hide a
// tag from this count. Documents that break these rules are refused; plists
// written by any usual tool never do.
bool checkXML(std::string_view text, std::string& reason) {
  auto refuse = [&](const char* why) {
    reason = why;
    return false;
  };
  auto startsWith = [&](std::size_t at, std::string_view prefix) { return text.substr(at, prefix.size()) == prefix; };
  // Position of terminator at or after from, requiring paired quotes and no
  // '<' before it; npos when missing or unsafe.
  auto sectionEnd = [&](std::size_t from, std::string_view terminator, bool allowQuotes) {
    std::size_t end = text.find(terminator, from);
    if (end == std::string_view::npos) return end;
    std::string_view body = text.substr(from, end - from);
    std::size_t doubleQuotes = 0, singleQuotes = 0;
    for (char c : body) {
      if (c == '<') return std::string_view::npos;
      doubleQuotes += c == '"';
      singleQuotes += c == '\'';
    }
    if (allowQuotes ? (doubleQuotes % 2 != 0 || singleQuotes % 2 != 0) : doubleQuotes != 0)
      return std::string_view::npos;
    return end;
  };
  auto isNameEnd = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '>' || c == '/'; };

  if (text.find('\0') != std::string_view::npos) return refuse("The XML contains a NUL character.");
  std::size_t depth = 0;
  std::size_t i = 0;
  while (true) {
    i = text.find('<', i);
    if (i == std::string_view::npos) return true;
    std::size_t end;
    if (startsWith(i, "<!--")) {
      if ((end = sectionEnd(i + 4, "-->", false)) == std::string_view::npos)
        return refuse("The XML contains an unterminated or unsupported comment.");
      i = end + 3;
    } else if (startsWith(i, "<![CDATA[")) {
      if ((end = sectionEnd(i + 9, "]]>", false)) == std::string_view::npos)
        return refuse("The XML contains an unterminated or unsupported CDATA section.");
      i = end + 3;
    } else if (startsWith(i, "<?")) {
      if ((end = sectionEnd(i + 2, "?>", true)) == std::string_view::npos)
        return refuse("The XML contains an unterminated or unsupported processing instruction.");
      i = end + 2;
    } else if (startsWith(i, "<!")) {
      end = sectionEnd(i + 2, ">", true);
      if (end == std::string_view::npos || text.substr(i, end - i).find('[') != std::string_view::npos)
        return refuse("The XML contains an unsupported declaration.");
      i = end + 1;
    } else {
      if ((end = sectionEnd(i + 1, ">", true)) == std::string_view::npos)
        return refuse("The XML contains an unterminated or malformed tag.");
      std::string_view tag = text.substr(i + 1, end - i - 1);
      bool closing = !tag.empty() && tag.front() == '/';
      bool selfClosing = !tag.empty() && tag.back() == '/';
      if (closing) {
        tag.remove_prefix(1);
        for (std::string_view name : {std::string_view("array"), std::string_view("dict")}) {
          if (tag.substr(0, name.size()) == name && (tag.size() == name.size() || isNameEnd(tag[name.size()]))) {
            if (depth > 0) --depth;
          }
        }
      } else if (!selfClosing) {
        std::size_t start = tag.find_first_not_of(" \t\r\n");
        if (start != std::string_view::npos &&
            (tag.substr(start, 5) == "array" || tag.substr(start, 4) == "dict")) {
          if (++depth > ZBPropertyListMaxDepth) return refuse("The property list is nested too deeply.");
        }
      }
      i = end + 1;
    }
  }
}

// ---------------------------------------------------------------------------
// Reading

Value fromPlist(plist_t node, std::size_t depth, std::string& reason) {
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      std::uint8_t b = 0;
      plist_get_bool_val(node, &b);
      return Value(b != 0);
    }
    case PLIST_UINT: {
      std::uint64_t u = 0;
      plist_get_uint_val(node, &u);
      return Value(static_cast<std::int64_t>(u));
    }
    case PLIST_REAL: {
      double d = 0;
      plist_get_real_val(node, &d);
      return Value(d);
    }
    case PLIST_STRING:
    case PLIST_KEY: {
      std::uint64_t length = 0;
      const char* s = plist_get_string_ptr(node, &length);
      std::string_view text(s ? s : "", s ? length : 0);
      if (!zb::isValidUTF8(text)) {
        reason = "A string is not valid UTF-8.";
        return {};
      }
      return Value(text);
    }
    case PLIST_DATE: {
      std::int32_t sec = 0, usec = 0;
      plist_get_date_val(node, &sec, &usec);
      // The library reports the fraction as a magnitude; it has the sign of sec.
      double fraction = std::abs(static_cast<double>(usec)) / 1e6;
      return Value(NSDate(sec < 0 ? sec - fraction : sec + fraction));
    }
    case PLIST_DATA: {
      std::uint64_t length = 0;
      const char* p = plist_get_data_ptr(node, &length);
      const auto* bytes = reinterpret_cast<const std::uint8_t*>(p);
      return Value(p ? Data(bytes, bytes + length) : Data());
    }
    case PLIST_UID: {
      std::uint64_t uid = 0;
      plist_get_uid_val(node, &uid);
      if (uid > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        reason = "An archive reference is out of range.";
        return {};
      }
      return Value(Dictionary{{kUIDKey, Value(static_cast<std::int64_t>(uid))}});
    }
    case PLIST_ARRAY: {
      if (depth >= ZBPropertyListMaxDepth) {
        reason = "The property list is nested too deeply.";
        return {};
      }
      Array array;
      array.reserve(plist_array_get_size(node));
      plist_array_iter it = nullptr;
      plist_array_new_iter(node, &it);
      std::unique_ptr<void, MallocFree> itOwner(it);
      for (;;) {
        plist_t item = nullptr;
        plist_array_next_item(node, it, &item);
        if (!item) break;
        Value element = fromPlist(item, depth + 1, reason);
        if (element.isAbsent()) return {};
        array.push_back(std::move(element));
      }
      return Value(std::move(array));
    }
    case PLIST_DICT: {
      if (depth >= ZBPropertyListMaxDepth) {
        reason = "The property list is nested too deeply.";
        return {};
      }
      std::vector<Dictionary::Entry> entries;
      entries.reserve(plist_dict_get_size(node));
      plist_dict_iter it = nullptr;
      plist_dict_new_iter(node, &it);
      std::unique_ptr<void, MallocFree> itOwner(it);
      for (;;) {
        char* rawKey = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(node, it, &rawKey, &item);
        std::unique_ptr<char, MallocFree> keyOwner(rawKey);
        if (!item) break;
        std::string key = rawKey ? rawKey : "";
        if (!zb::isValidUTF8(key)) {
          reason = "A dictionary key is not valid UTF-8.";
          return {};
        }
        Value element = fromPlist(item, depth + 1, reason);
        if (element.isAbsent()) return {};
        entries.emplace_back(std::move(key), std::move(element));
      }
      return Value(Dictionary::fromEntries(std::move(entries)));
    }
    default: break;
  }
  reason = "The property list contains a value of unknown type.";
  return {};
}

}  // namespace

Data NSPropertyListSerialization::dataWithPropertyList(const Value& plist, NSPropertyListFormat format,
                                                       NSErrorPtr* error) {
  std::string reason;
  PlistPtr root(toPlist(plist, 0, reason));
  if (!root) {
    ZBSetError(error, writeError(reason));
    return {};
  }
  char* out = nullptr;
  std::uint32_t length = 0;
  if (format == NSPropertyListFormat::Binary_v1_0) {
    plist_to_bin(root.get(), &out, &length);
  } else {
    plist_to_xml(root.get(), &out, &length);
  }
  std::unique_ptr<char, MallocFree> owner(out);
  if (!out || length == 0) {
    ZBSetError(error, writeError("The property list could not be serialised."));
    return {};
  }
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(out);
  return Data(bytes, bytes + length);
}

Value NSPropertyListSerialization::propertyListWithData(const Data& data, NSPropertyListFormat* format,
                                                        NSErrorPtr* error) {
  if (data.empty()) {
    ZBSetError(error, readError("The data is empty."));
    return {};
  }
  if (data.size() > kMaxInputBytes) {
    ZBSetError(error, readError("The data is too large to be a property list."));
    return {};
  }
  const char* bytes = reinterpret_cast<const char*>(data.data());
  auto length = static_cast<std::uint32_t>(data.size());
  bool binary = data.size() >= 6 && std::memcmp(bytes, "bplist", 6) == 0;
  std::string reason;
  plist_t parsed = nullptr;
  if (binary) {
    if (!checkBinary(data.data(), data.size(), reason)) {
      ZBSetError(error, readError(reason));
      return {};
    }
    plist_from_bin(bytes, length, &parsed);
  } else {
    if (!checkXML(std::string_view(bytes, data.size()), reason)) {
      ZBSetError(error, readError(reason));
      return {};
    }
    plist_from_xml(bytes, length, &parsed);
  }
  PlistPtr root(parsed);
  if (!root) {
    ZBSetError(error, readError(binary ? "The binary property list is damaged."
                                       : "The data is not a well-formed XML property list."));
    return {};
  }
  Value value = fromPlist(root.get(), 0, reason);
  if (value.isAbsent()) {
    ZBSetError(error, readError(reason));
    return {};
  }
  if (format) *format = binary ? NSPropertyListFormat::Binary_v1_0 : NSPropertyListFormat::XML_v1_0;
  return value;
}

bool NSPropertyListSerialization::propertyListIsValid(const Value& plist) {
  std::string reason;
  PlistPtr root(toPlist(plist, 0, reason));
  return root != nullptr;
}
