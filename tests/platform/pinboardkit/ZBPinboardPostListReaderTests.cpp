// The full list read piece by piece must come out exactly as the whole answer
// read at once: same posts, same verdict on damaged bytes, whatever the
// pieces, the run size and the threads.
#include <gtest/gtest.h>

#include <random>
#include <thread>

#include "pinboard-sim/Generator.h"
#include "pinboard-sim/Wire.h"
#include "platform/pinboardkit/ZBPinboardKit.h"
#include "platform/pinboardkit/ZBPinboardPostListReader.h"
#include "platform/pinboardkit/ZBPinboardResponseParser.h"

namespace {

// How the bytes reach the reader.
struct Delivery {
  std::size_t runBytes = 512;
  std::size_t largestPiece = 3000;  // pieces of random sizes up to this
  bool twoThreads = false;
};

Value readInPieces(const std::string& body, const Delivery& how, NSErrorPtr* error) {
  ZBPinboardPostListReader reader("me", "posts/all", how.runBytes);
  auto feed = [&] {
    std::mt19937 rng(static_cast<unsigned>(body.size()));
    for (std::size_t i = 0; i < body.size();) {
      std::size_t n = 1 + rng() % how.largestPiece;
      reader.append(std::string_view(body).substr(i, n));
      i += n;
    }
    reader.close();
  };
  if (!how.twoThreads) {
    feed();
    return reader.finish(error);
  }
  std::thread producer(feed);
  Value posts = reader.finish(error);
  producer.join();
  return posts;
}

// The whole answer at once: for bodies under the default run size this is a
// plain parse of one document, the reference the pieces must match.
Value readWhole(std::string body, NSErrorPtr* error) { return ZBPinboardResponseParser::posts(body, "me", "posts/all", error); }

void expectSameOutcome(const std::string& body, const Delivery& how, const std::string& what) {
  NSErrorPtr wholeError, piecesError;
  const Value whole = readWhole(body, &wholeError);
  const Value pieces = readInPieces(body, how, &piecesError);
  ASSERT_EQ(bool(pieces), bool(whole)) << what << ": " << (piecesError ? piecesError->description() : "")
                                       << (wholeError ? wholeError->description() : "");
  if (whole) {
    EXPECT_TRUE(pieces == whole) << what;
  } else {
    ASSERT_TRUE(piecesError) << what;
    EXPECT_EQ(piecesError->domain(), ZBPinboardKitErrorDomain) << what;
    EXPECT_EQ(piecesError->code(), ZBPinboardKitMalformedResponseError) << what;
  }
}

std::string generatedList(std::size_t count, const pinboard_sim::Quirks& quirks) {
  static const auto bookmarks = pinboard_sim::generateBookmarks("me", 400);
  std::vector<const pinboard_sim::Bookmark*> posts;
  for (std::size_t i = 0; i < count; ++i) posts.push_back(&bookmarks[i % bookmarks.size()]);
  return pinboard_sim::frame(pinboard_sim::postsArray(posts, quirks), quirks, "\t");
}

// Posts whose strings hold what a post boundary looks like, nested lists of
// objects, and whitespace between posts: every cut near them must be undone.
std::string trappedList() {
  std::string body = "[";
  for (int i = 0; i < 300; ++i) {
    if (i) body += i % 7 ? "," : " ,\n  ";
    body += R"({"href":"https:\/\/t.org\/)" + std::to_string(i) + R"(","hash":"h)" + std::to_string(i) + '"';
    switch (i % 5) {
      case 0: body += R"(,"description":"ends like a post},{")"; break;
      case 1: body += R"(,"description":"a},{\"href\":\"fake\"} and }, {","extended":"\\")"; break;
      case 2: body += R"(,"extra":[{"a":1},{"b":[{"c":2},{}]}],"tags":"x},{ y")"; break;
      case 3: body += R"(,"description":"plain","time":"2020-02-29T23:59:59Z","shared":"no")"; break;
      default: body += R"(,"tags":"","toread":"yes","others":"4")"; break;
    }
    body += "}";
  }
  return body + "]\n\t";
}

TEST(ZBPinboardPostListReader, PiecesReadAsTheWholeWhateverTheCutsAndThreads) {
  pinboard_sim::Quirks plain, marked;
  marked.byteOrderMark = marked.escapeNonASCII = marked.includeOthers = true;
  marked.escapeSlashes = false;
  const std::vector<std::pair<std::string, std::string>> bodies = {
      {"generated", generatedList(400, plain)},
      {"bom, escaped, others", generatedList(400, marked)},
      {"trapped", trappedList()},
      {"empty", "[]\t"},
      {"one", R"( [{"href":"x"}] )"},
      {"envelope", R"({"date":"2014-07-13T03:03:58Z","posts":[{"href":"a"},{"href":"b","tags":"c d"}]})"},
  };
  const std::vector<Delivery> deliveries = {
      {1, 1, false}, {64, 7, false}, {512, 3000, false}, {4096, 100000, false}, {300, 500, true}, {100000, 4096, true}};
  for (const auto& [name, body] : bodies) {
    for (const Delivery& how : deliveries) {
      if (how.largestPiece == 1 && body.size() > 20000) continue;  // byte by byte only where it stays quick
      expectSameOutcome(body, how, name + " run " + std::to_string(how.runBytes));
    }
  }
  // What the reference says is what the service sent.
  const Value trapped = readWhole(trappedList(), nullptr);
  ASSERT_EQ(trapped.count(), 300u);
  EXPECT_EQ(trapped.asArray()[0].asDictionary()[ZBPinboardPostTitleKey], Value("ends like a post},{"));
  EXPECT_EQ(trapped.asArray()[1].asDictionary()[ZBPinboardPostDescKey], Value("\\"));
  EXPECT_EQ(trapped.asArray()[2].asDictionary()[ZBPinboardPostTagsKey], Value(Array{Value("x},{"), Value("y")}));
  EXPECT_EQ(trapped.asArray()[4].asDictionary()[ZBPinboardPostOthersKey], Value(4));
  EXPECT_EQ(readWhole(generatedList(400, plain), nullptr).count(), 400u);
}

TEST(ZBPinboardPostListReader, CutOrDamagedListsFailAsTheWholeDoes) {
  const std::string body = generatedList(150, pinboard_sim::Quirks());
  const std::size_t close = body.rfind(']');
  std::vector<std::size_t> ends;  // where to cut the answer short
  for (std::size_t at = body.find("},{"); at != std::string::npos && ends.size() < 300; at = body.find("},{", at + 1))
    for (std::size_t d : {0, 1, 2, 3}) ends.push_back(at + d);
  std::mt19937 rng(3);
  for (int i = 0; i < 100; ++i) ends.push_back(rng() % body.size());
  for (std::size_t d : {0, 1, 2}) ends.push_back(close + d);
  for (std::size_t end : ends) {
    const std::string cut = body.substr(0, end);
    expectSameOutcome(cut, {200, 1000, false}, "cut at " + std::to_string(end));
    if (end <= close) {
      EXPECT_FALSE(readInPieces(cut, {200, 1000, true}, nullptr)) << "cut at " << end;
    }
  }
  // A bad post far into the list, after many runs were read.
  const std::size_t late = body.find("},{", body.size() * 3 / 4) + 2;
  for (std::string bad : {"7", "{}", R"({"href":""})", "null", R"({"href":"x"}})", "[{}]"}) {
    std::string damaged = body;
    damaged.insert(late, bad + ",");
    expectSameOutcome(damaged, {200, 1000, false}, bad);
    expectSameOutcome(damaged, {200, 1000, true}, bad);
    EXPECT_FALSE(readWhole(damaged, nullptr)) << bad;
  }
  for (const std::string& odd : {std::string(), std::string("  \n"), std::string("\xef\xbb"), body + "x", body + "]",
                                 "[" + body, std::string(20000, '['), std::string("[1,2]")}) {
    expectSameOutcome(odd, {200, 1000, false}, odd.substr(0, 12));
    EXPECT_FALSE(readWhole(odd, nullptr)) << odd.substr(0, 12);
  }
}

}  // namespace
