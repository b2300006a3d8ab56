// Arbitrary bytes as answers of the Pinboard service: every reader either
// yields a well-formed value or a malformed-response error, and never crashes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/pinboardkit/ZBPinboardKit.h"
#include "platform/pinboardkit/ZBPinboardResponseParser.h"

namespace {

void check(const Value& result, const NSErrorPtr& error) {
  if (result) return;
  if (!error || error->domain() != ZBPinboardKitErrorDomain || error->code() != ZBPinboardKitMalformedResponseError)
    std::abort();
}

void checkPosts(const Value& posts, const NSErrorPtr& error) {
  check(posts, error);
  for (const Value& p : posts.asArray()) {
    const Dictionary& d = p.asDictionary();
    // What the refresh relies on: every post has a URL and an identifier.
    if (!d[ZBPinboardPostURLKey].isString() || !d[ZBPinboardPostIdentifierKey].isString()) std::abort();
    if (d[ZBPinboardPostTagsKey] && !d[ZBPinboardPostTagsKey].isArray()) std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  using P = ZBPinboardResponseParser;
  {
    std::string body = bytes;
    NSErrorPtr error;
    checkPosts(P::posts(body, "user", "posts/all", &error), error);
    if (body != bytes) std::abort();  // the caller's bytes stay as they were
  }
  {
    std::string body = bytes;
    NSErrorPtr error;
    checkPosts(P::feed(body, "feed", &error), error);
  }
  {
    std::string body = bytes;
    NSErrorPtr error;
    Value v = P::updateTime(body, "posts/update", &error);
    check(v, error);
    if (v && !v.isDate()) std::abort();
  }
  {
    std::string body = bytes;
    NSErrorPtr error;
    Value v = P::resultText(body, "posts/add", &error);
    check(v, error);
    if (v && !v.isString()) std::abort();
  }
  {
    std::string body = bytes;
    NSErrorPtr error;
    Value v = P::suggestedTags(body, "posts/suggest", &error);
    check(v, error);
    for (const Value& t : v.asArray())
      if (!t.isString()) std::abort();
  }
  {
    std::string body = bytes;
    NSErrorPtr error;
    check(P::tagCounts(body, "tags/get", &error), error);
  }
  return 0;
}
