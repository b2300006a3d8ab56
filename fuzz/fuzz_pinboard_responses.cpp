// Arbitrary bytes as answers of the Pinboard service: every reader either
// yields a well-formed value or a malformed-response error, and never crashes;
// the full list read piece by piece comes out as it does read whole.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/pinboardkit/ZBPinboardKit.h"
#include "platform/pinboardkit/ZBPinboardPostListReader.h"
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
    const Value whole = P::posts(body, "user", "posts/all", &error);
    checkPosts(whole, error);
    if (body != bytes) std::abort();  // the caller's bytes stay as they were
    // Read piece by piece, cut into small runs, it must come out the same.
    ZBPinboardPostListReader reader("user", "posts/all", size ? 1 + data[0] % 97 : 1);
    for (std::size_t i = 0, n; i < size; i += n) {
      n = 1 + (data[i] * 7u + i) % 61;
      reader.append(std::string_view(bytes).substr(i, n));
    }
    reader.close();
    NSErrorPtr piecesError;
    const Value pieces = reader.finish(&piecesError);
    checkPosts(pieces, piecesError);
    if (bool(pieces) != bool(whole) || (whole && !(pieces == whole))) std::abort();
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
