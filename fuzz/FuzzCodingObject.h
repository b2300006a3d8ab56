#pragma once
// A small archivable class so that fuzzing reaches the registered-class path
// of the unarchiver as well as the standard types.

#include <memory>
#include <string>

#include "platform/archive/NSKeyedArchiver.h"
#include "platform/archive/NSKeyedUnarchiver.h"

class FuzzCodingObject final : public NSObject, public NSCoding {
public:
  Value name;
  Value payload;
  std::int64_t count = 0;
  bool flag = false;
  double ratio = 0;

  std::string className() const override { return "FuzzCodingObject"; }
  void encodeWithCoder(NSKeyedArchiver& coder) const override {
    coder.encodeObject(name, "name");
    coder.encodeObject(payload, "payload");
    coder.encodeInt64(count, "count");
    coder.encodeBool(flag, "flag");
    coder.encodeDouble(ratio, "ratio");
  }

  static void registerForCoding() {
    NSKeyedUnarchiver::registerClass("FuzzCodingObject", {"FuzzBase"}, [](NSKeyedUnarchiver& coder, NSErrorPtr*) {
      auto object = std::make_shared<FuzzCodingObject>();
      object->name = coder.decodeObjectOfClass("NSString", "name");
      object->payload = coder.decodeObjectForKey("payload");
      object->count = coder.decodeInt64ForKey("count");
      object->flag = coder.decodeBoolForKey("flag");
      object->ratio = coder.decodeDoubleForKey("ratio");
      return coder.error() ? nullptr : object;
    });
  }
};
