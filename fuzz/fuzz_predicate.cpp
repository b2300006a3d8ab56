// Predicate format parser: any bytes must give a predicate or an error, never
// a crash or a hang. A parsed predicate must print to text that parses back to
// an equal predicate and prints identically; it must evaluate without
// throwing, and archive and decode to an equal predicate.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "platform/archive/NSKeyedArchiver.h"
#include "platform/archive/NSKeyedUnarchiver.h"
#include "platform/predicate/NSPredicate.h"

namespace {

[[noreturn]] void fail(const char* what, std::string_view format, const std::string& printed) {
  std::fprintf(stderr, "%s\n  format:  %.*s\n  printed: %s\n", what, static_cast<int>(format.size()), format.data(),
               printed.c_str());
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static const std::vector<Value> arguments = {"key.path", 3, Array{1, "two"}, "x", NSDate(5.0), Value(), 2.5, "k",
                                               "$k.$v"};
  std::string_view format(reinterpret_cast<const char*>(bytes), size);
  NSErrorPtr error;
  auto p = NSPredicate::predicateWithFormat(format, arguments, &error);
  if (!p) {
    if (!error) fail("no error for a refused format", format, "");
    return 0;
  }
  std::string printed = p->predicateFormat();
  auto again = NSPredicate::predicateWithFormat(printed, {}, &error);
  if (!again) fail("printed form does not parse", format, printed);
  if (!p->isEqual(*again) || !again->isEqual(*p)) fail("printed form parses to a different predicate", format, printed);
  if (again->predicateFormat() != printed) fail("printing is not stable", format, printed);

  static const Value object = Dictionary{{"a", 1}, {"b", Dictionary{{"c", "Café"}}}, {"tags", Array{"x", "y"}}};
  p->evaluateWithObject(object, Dictionary{{"v", 2}, {"7__days", NSDate(0.0)}}, &error);

  Data archived = NSKeyedArchiver::archivedDataWithRootObject(Value(p), &error);
  if (!archived.empty()) {  // very deep trees exceed the archive's nesting limit
    auto decoded = NSKeyedUnarchiver::unarchivedObjectOfClasses({"NSPredicate"}, archived, &error).as<NSPredicate>();
    if (!decoded || !decoded->isEqual(*p)) fail("archive does not decode to an equal predicate", format, printed);
  }
  return 0;
}
