#pragma once
// Readers of the service's answers, pure functions of the bytes (simdjson).
// They accept the wire's habits: a leading BOM, whitespace after the JSON,
// "\/" and \uXXXX escapes, counts sent as strings, [] for an empty map. Any
// other shape yields absent and a ZBPinboardKitMalformedResponseError naming
// method. They never throw and are safe on hostile bytes. Thread-safe.
//
// The std::string overloads may grow the string's capacity (simdjson needs
// padding after the text) but leave its contents alone; they avoid copying
// large answers. A full list still arriving is read by ZBPinboardPostListReader.

#include <string>
#include <string_view>

#include "platform/foundation/NSError.h"
#include "platform/foundation/Value.h"

class ZBPinboardResponseParser {
public:
  // posts/update: the NSDate of "update_time".
  static Value updateTime(std::string& body, const std::string& method, NSErrorPtr* error = nullptr);
  // posts/all (a bare array) or posts/get and posts/recent (an envelope with
  // "posts"): an Array of post dictionaries with the ZBPinboardPost… keys;
  // "username" is the given name. An empty list is an empty Array.
  static Value posts(std::string& body, const std::string& username, const std::string& method,
                     NSErrorPtr* error = nullptr);
  // A JSON feed (a bare array of {"u","d","n","dt","a","t"}): an Array of post
  // dictionaries; "identifier" is the MD5 of the URL, "username" the author.
  static Value feed(std::string& body, const std::string& method, NSErrorPtr* error = nullptr);
  // {"result_code": text} or {"result": text}: the text.
  static Value resultText(std::string& body, const std::string& method, NSErrorPtr* error = nullptr);
  // posts/suggest: the popular tags, then the recommended ones, repeats kept.
  static Value suggestedTags(std::string& body, const std::string& method, NSErrorPtr* error = nullptr);
  // tags/get: a Dictionary from tag to integer count.
  static Value tagCounts(std::string& body, const std::string& method, NSErrorPtr* error = nullptr);

  // Copying conveniences for small or borrowed bytes (tests, the fuzzer).
  static Value posts(std::string_view body, const std::string& username, NSErrorPtr* error = nullptr) {
    std::string copy(body);
    return posts(copy, username, "posts/all", error);
  }
  static Value feed(std::string_view body, NSErrorPtr* error = nullptr) {
    std::string copy(body);
    return feed(copy, "feed", error);
  }
};
