// Writes seed inputs for the fuzzers: property lists in both formats, keyed
// archives of every supported type and, given a third directory, answers of
// the Pinboard service in the shapes it sends (escaped non-ASCII, surrogate
// pairs, string and integer counts, a BOM, trailing whitespace).
// Usage: fuzz_seeds <plist-dir> <archive-dir> [<pinboard-dir>]

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

// Answers written for these seeds, in the service's shapes; each reader of
// fuzz_pinboard_responses gets all of them.
void writePinboardSeeds(const std::filesystem::path& dir) {
  std::filesystem::create_directories(dir);
  const char* answers[] = {
      // posts/all: escapes, an emoji as a surrogate pair, an empty title, no meta.
      R"([{"href":"https:\/\/example.org\/caf\u00e9","description":"\u00ae\u2122 \ud83d\ude00","extended":"\u2026\u2019 ","meta":"00112233445566778899aabbccddeeff","hash":"ffeeddccbbaa99887766554433221100","time":"2019-03-04T05:06:07Z","shared":"yes","toread":"no","tags":"\uc815\ubcf4 to:fb !tobuy"},{"href":"https:\/\/b\/","description":"","extended":"","hash":"x","time":"2019-03-04T05:06:07Z","shared":"no","toread":"yes","tags":""}])" "\t",
      // posts/get envelope behind a BOM.
      "\xef\xbb\xbf" R"({"date":"2018-07-08T09:10:11Z","user":"u","posts":[{"href":"http:\/\/x\/","description":"[no title]","extended":"","meta":"m","hash":"h","time":"2018-07-08T09:10:11Z","shared":"yes","toread":"no","tags":"\ud83c\udf4e"}]})",
      // Broken surrogates.
      R"([{"href":"x","description":"\ud83d"},{"href":"y","description":"\ude00\ud83d"}])",
      // tags/get, counts as strings and as integers; an empty map as [].
      R"({"\ud83c\udf4e":"4","caf\u00e9":2339,"c++":1})", "[]\t",
      // A feed, the suggestions, result texts, the update time.
      R"([{"u":"https:\/\/e\/\u00e9","d":"\ud83c\udf89","n":"","dt":"2022-02-03T04:05:06+00:00","a":"someone","t":[""]}])",
      R"([{"popular":[]},{"recommended":["\uc815\ubcf4\ud1b5\uc2e0","\ud83d\ude00"]}])",
      "{\"result_code\":\"item already exists\"}\n", "{\"result\":\"done\"}\n\t",
      "{\"update_time\":\"2021-11-12T13:14:15Z\"}\n\t\n",
  };
  int n = 0;
  for (const char* answer : answers) {
    const std::string text(answer);
    write(dir / ("seed" + std::to_string(n++)), Data(text.begin(), text.end()));
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 && argc != 4) {
    std::fprintf(stderr, "usage: %s <plist-dir> <archive-dir> [<pinboard-dir>]\n", argv[0]);
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
  if (argc == 4) writePinboardSeeds(argv[3]);
  return 0;
}
