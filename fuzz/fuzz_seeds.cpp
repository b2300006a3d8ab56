// Writes seed inputs for the fuzzers: property lists in both formats and keyed
// archives of every supported type. Usage: fuzz_seeds <plist-dir> <archive-dir>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>

#include "FuzzCodingObject.h"
#include "platform/foundation/NSPropertyListSerialization.h"

namespace {

void write(const std::filesystem::path& file, const Data& data) {
  std::ofstream out(file, std::ios::binary);
  out.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s <plist-dir> <archive-dir>\n", argv[0]);
    return 2;
  }
  std::filesystem::create_directories(argv[1]);
  std::filesystem::create_directories(argv[2]);
  FuzzCodingObject::registerForCoding();

  auto object = std::make_shared<FuzzCodingObject>();
  object->name = Value("n\u00e4me");
  object->payload = Value(Array{1, Value::null(), Value(Set{"a", "b"})});
  object->count = -7;
  object->flag = true;
  object->ratio = 0.25;
  Value plistValues[] = {
      Value(Dictionary{{"s", "str\u00fc\U0001F600"}, {"i", std::numeric_limits<std::int64_t>::min()},
                       {"b", true}, {"r", 2.5}, {"d", Value(NSDate(12.5))}, {"data", Value(Data{0, 1, 2})},
                       {"a", Value(Array{1, "x", Value(Array{}), Value(Dictionary{})})},
                       {"uid", Value(Dictionary{{"CF$UID", 3}})}}),
      Value(Array{"a", "b", "a"}),
      Value("only a string"),
  };
  int n = 0;
  for (const Value& value : plistValues) {
    for (auto format : {NSPropertyListFormat::XML_v1_0, NSPropertyListFormat::Binary_v1_0})
      write(std::filesystem::path(argv[1]) / ("seed" + std::to_string(n++)), NSPropertyListSerialization::dataWithPropertyList(value, format));
  }
  Value archiveValues[] = {
      plistValues[0],
      Value(Array{Value(object), Value(object), Value(Set{1, 2.5}), Value::null(), Value(NSDate(-3.75))}),
      Value(Dictionary{{"$key", Value(object)}, {"k", "v"}}),
      Value(),
  };
  n = 0;
  for (const Value& value : archiveValues)
    write(std::filesystem::path(argv[2]) / ("seed" + std::to_string(n++)), NSKeyedArchiver::archivedDataWithRootObject(value));
  return 0;
}
