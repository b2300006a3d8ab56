#pragma once
// Readers of the service's answers, pure functions of the bytes (simdjson).
// They accept the wire's habits: a leading BOM, whitespace after the JSON,
// "\/" and \uXXXX escapes, counts sent as strings, [] for an empty map. Any
// other shape yields absent and a ZBPinboardKitMalformedResponseError naming
// method. They never throw and are safe on hostile bytes. Thread-safe.
//
// The std::string overloads may grow the string's capacity (simdjson needs
// padding after the text) but leave its contents alone; they avoid copying
// large answers.

#include <memory>
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

// Reads a posts/all answer piece by piece as it arrives: the appending side
// cuts a bare list into runs of complete posts and parses each run as soon as
// it is whole; the reading side turns the runs into post dictionaries (so
// they are allocated on its thread). Only a few runs are held at a time. The
// outcome is the one posts() gives for the whole answer: the same Array, or
// absent and a malformed-response error (whose reason may name a different
// fault when there are several). An answer other than a bare list is kept
// whole and read by posts() at the end.
//
// The two sides may be two threads, each used by one thread at a time: one
// appends and then closes, the other calls finish(). While finish() runs,
// append() waits whenever it is a few runs ahead of it. From a single thread,
// append everything and close() before finish(). Never throws on hostile
// bytes.
class ZBPinboardPostListReader {
public:
  // A run of posts this long fits in the cache together with its parsed form.
  static constexpr std::size_t kDefaultRunBytes = 256 * 1024;

  // username becomes every post's "username"; method names the request in
  // errors; runBytes is about how much of the list is cut off and parsed at
  // once (small values exercise the cutting in tests).
  ZBPinboardPostListReader(std::string username, std::string method, std::size_t runBytes = kDefaultRunBytes);
  ~ZBPinboardPostListReader();
  ZBPinboardPostListReader(const ZBPinboardPostListReader&) = delete;
  ZBPinboardPostListReader& operator=(const ZBPinboardPostListReader&) = delete;

  // The answer's next bytes.
  void append(std::string_view bytes);
  // After the last bytes (once).
  void close();
  // Reads the runs as they come until close(); then, once: the Array of post
  // dictionaries, or absent and the error.
  Value finish(NSErrorPtr* error = nullptr);

private:
  struct State;
  std::unique_ptr<State> _state;
};
