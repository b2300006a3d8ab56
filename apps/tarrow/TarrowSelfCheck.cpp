#include "TarrowSelfCheck.h"

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "platform/archive/NSKeyedArchiver.h"
#include "platform/archive/NSKeyedUnarchiver.h"
#include "platform/foundation/NSCalendar.h"
#include "platform/foundation/NSPropertyListSerialization.h"
#include "platform/foundation/NSURL.h"
#include "platform/foundation/NSUUID.h"
#include "platform/foundation/NSUserDefaults.h"
#include "platform/foundation/ZBLocalizedString.h"
#include "platform/foundation/ZBMD5.h"
#include "platform/operations/NSBlockOperation.h"
#include "platform/operations/NSOperationQueue.h"
#include "platform/operations/NSRunLoop.h"
#include "platform/operations/ZBPromiseOperation.h"

namespace {

struct Check {
  std::string name;
  std::function<std::string()> run;  // empty string on success, else what went wrong
};

std::string expectEqual(const Value& got, const Value& want) {
  return got == want ? std::string() : "got " + got.description() + ", want " + want.description();
}

std::filesystem::path scratchDirectory() {
  std::string tmpl = (std::filesystem::temp_directory_path() / "tarrow-selfcheck-XXXXXX").string();
  if (!mkdtemp(tmpl.data())) return {};
  return tmpl;
}

}  // namespace

int TarrowSelfCheck(std::ostream& out) {
  const std::filesystem::path scratch = scratchDirectory();
  const Dictionary sample{{"title", "Café – “quoted”"},
                          {"count", std::int64_t{1} << 40},
                          {"unread", true},
                          {"date", NSDate(815000000)},
                          {"tags", Array{"c++", "sqlite"}},
                          {"blob", Data{0, 1, 2, 255}}};

  std::vector<Check> checks = {
      {"user defaults survive a restart",
       [&] {
         auto path = scratch / "defaults.plist";
         auto first = NSUserDefaults::create(path);
         first->setObject(sample, "sample");
         NSErrorPtr error;
         if (!first->synchronize(&error)) return "synchronize failed: " + error->localizedDescription();
         auto second = NSUserDefaults::create(path);
         return expectEqual(second->objectForKey("sample"), sample);
       }},
      {"property lists round-trip (XML and binary)",
       [&] {
         for (auto format : {NSPropertyListFormat::XML_v1_0, NSPropertyListFormat::Binary_v1_0}) {
           NSErrorPtr error;
           Data bytes = NSPropertyListSerialization::dataWithPropertyList(sample, format, &error);
           if (bytes.empty()) return "write failed: " + error->localizedDescription();
           Value back = NSPropertyListSerialization::propertyListWithData(bytes, nullptr, &error);
           if (auto diff = expectEqual(back, sample); !diff.empty()) return diff;
         }
         return std::string();
       }},
      {"keyed archives round-trip and refuse damage",
       [&] {
         Value root(Array{sample, Set{1, "two"}, Value::null()});
         NSErrorPtr error;
         Data bytes = NSKeyedArchiver::archivedDataWithRootObject(root, &error);
         if (bytes.empty()) return "archive failed: " + error->localizedDescription();
         Value back = NSKeyedUnarchiver::unarchivedObjectOfClasses({"NSArray", "NSDictionary", "NSSet", "NSString",
                                                                     "NSNumber", "NSDate", "NSData", "NSNull"},
                                                                    bytes, &error);
         if (auto diff = expectEqual(back, root); !diff.empty()) return diff;
         Data damaged(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(bytes.size() / 2));
         NSErrorPtr damageError;
         if (NSKeyedUnarchiver::unarchivedObjectOfClass("NSArray", damaged, &damageError) || !damageError)
           return std::string("a truncated archive was accepted");
         return std::string();
       }},
      {"German catalogue is found",
       [] {
         ZBSetLocalizationLanguage("de");
         std::string cancel = ZBLocalizedString("Cancel");
         std::string unknown = ZBLocalizedString("No such text \u2026");
         ZBSetLocalizationLanguage("");
         if (cancel == "Cancel") return "no German text under " + ZBLocalizationDirectory();
         return unknown == "No such text \u2026" ? std::string() : "an unknown text came back changed";
       }},
      {"calendar arithmetic follows month ends",
       [] {
         auto calendar = NSCalendar::currentCalendar();
         NSDateComponents c;
         c.year = 2026, c.month = 1, c.day = 31, c.hour = 12;
         auto jan31 = calendar->dateFromComponents(c);
         auto feb = jan31 ? calendar->dateByAddingUnit(NSCalendarUnit::Month, 1, *jan31) : std::nullopt;
         if (!feb) return std::string("no date");
         auto parts = calendar->components(NSCalendarUnit::Month | NSCalendarUnit::Day, *feb);
         return parts.month == 2 && parts.day == 28 ? std::string() : "31 January + 1 month is not 28 February";
       }},
      {"MD5, UUID and URL host",
       [] {
         if (ZBMD5HexString("https://pinboard.in/") != "af87ce148bb388dec047e4d638e3ba03")
           return std::string("MD5 mismatch");
         if (NSUUID().UUIDString().size() != 36) return std::string("malformed UUID");
         auto url = NSURL::URLWithString("https://user@Example.COM:8443/a?b=c");
         if (!url || !url->host() || *url->host() != "Example.COM") return std::string("wrong host");
         return std::string();
       }},
      {"operations chain across a background queue and the main run loop",
       [] {
         auto queue = NSOperationQueue::create();
         auto promise = ZBPromiseOperation::promiseOperationWithBlock([](NSErrorPtr*) { return Value(41); });
         Value seen;
         auto done = NSBlockOperation::blockOperationWithBlock([&] {
           seen = Value(promise->completionProvider()(nullptr).integerValue() + 1);
         });
         done->addDependency(promise);
         NSOperationQueue::mainQueue()->addOperation(done);
         queue->addOperation(promise);
         NSRunLoop::mainRunLoop()->runUntil([&] { return done->isFinished(); }, 10);
         return expectEqual(seen, 42);
       }},
  };

  int failures = 0;
  for (const auto& check : checks) {
    std::string problem = check.run();
    out << (problem.empty() ? "ok    " : "FAIL  ") << check.name;
    if (!problem.empty()) out << ": " << problem;
    out << "\n";
    failures += problem.empty() ? 0 : 1;
  }
  std::error_code ec;
  std::filesystem::remove_all(scratch, ec);
  out << (failures ? std::to_string(failures) + " check(s) failed" : "all checks passed") << "\n";
  return failures ? EXIT_FAILURE : EXIT_SUCCESS;
}
