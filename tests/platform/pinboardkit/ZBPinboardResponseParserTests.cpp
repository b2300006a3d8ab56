// The readers of service answers on recorded bodies and on hostile bytes.
#include <gtest/gtest.h>

#include <random>

#include "platform/pinboardkit/ZBPinboardKit.h"
#include "platform/pinboardkit/ZBPinboardResponseParser.h"

namespace {

using P = ZBPinboardResponseParser;

void expectMalformed(const Value& result, const NSErrorPtr& error, const std::string& what) {
  EXPECT_FALSE(result) << what;
  ASSERT_TRUE(error) << what;
  EXPECT_EQ(error->domain(), ZBPinboardKitErrorDomain) << what;
  EXPECT_EQ(error->code(), ZBPinboardKitMalformedResponseError) << what;
}

TEST(ZBPinboardResponseParser, ReadsRecordedAnswersOfTheService) {
  // A two-post day as the service sent it (escaped slashes, string booleans).
  std::string day =
      R"({"date":"2014-07-13T03:03:58Z","user":"dlo","posts":[{"href":"http:\/\/sebastianraschka.com\/Articles\/2014_python_2_3_key_diff.html","description":"Python 2.7.x and Python 3.x key differences","extended":"","meta":"561d1f53791a8c50109393411f0301fc","hash":"e2311835eb0de6bff2595a9b1525bb98","time":"2014-07-13T03:03:58Z","shared":"yes","toread":"no","tags":"python"},{"href":"http:\/\/www.theguardian.com\/world","description":"Miami","extended":"","meta":"2ca547789553ba9d3202a5cd3d367685","hash":"4abe28f70154bd35f84be73cec0c53ef","time":"2014-07-13T02:53:54Z","shared":"yes","toread":"yes","tags":""}]})"
      "\n\t";
  NSErrorPtr error;
  Value posts = P::posts(day, "dlo", "posts/get", &error);
  ASSERT_TRUE(posts) << (error ? error->description() : "");
  ASSERT_EQ(posts.count(), 2u);
  const Dictionary& first = posts.asArray()[0].asDictionary();
  EXPECT_EQ(first[ZBPinboardPostURLKey], Value("http://sebastianraschka.com/Articles/2014_python_2_3_key_diff.html"));
  EXPECT_EQ(first[ZBPinboardPostIdentifierKey], Value("e2311835eb0de6bff2595a9b1525bb98"));
  EXPECT_EQ(first[ZBPinboardPostMetaKey], Value("561d1f53791a8c50109393411f0301fc"));
  EXPECT_EQ(first[ZBPinboardPostTitleKey], Value("Python 2.7.x and Python 3.x key differences"));
  EXPECT_EQ(first[ZBPinboardPostDescKey], Value(""));
  EXPECT_EQ(first[ZBPinboardPostDateKey].asDate().ISO8601String(), "2014-07-13T03:03:58Z");
  EXPECT_EQ(first[ZBPinboardPostUnreadKey], Value(false));
  EXPECT_EQ(first[ZBPinboardPostUsernameKey], Value("dlo"));
  EXPECT_EQ(posts.asArray()[1].asDictionary()[ZBPinboardPostUnreadKey], Value(true));
  EXPECT_EQ(posts.asArray()[1].asDictionary()[ZBPinboardPostTagsKey], Value(Array()));

  // A hash missing from a post is recomputed from the URL; "others" may come
  // as a number or a string.
  Value own = P::posts(std::string_view(R"([{"href":"https://example.com","others":"7"},{"href":"x","others":3}])"), "me");
  ASSERT_EQ(own.count(), 2u);
  EXPECT_EQ(own.asArray()[0].asDictionary()[ZBPinboardPostIdentifierKey], Value("c984d06aafbecf6bc55569f964148ea3"));
  EXPECT_EQ(own.asArray()[0].asDictionary()[ZBPinboardPostOthersKey], Value(7));
  EXPECT_EQ(own.asArray()[1].asDictionary()[ZBPinboardPostOthersKey], Value(3));
  std::string empty = "[]\t";
  EXPECT_EQ(P::posts(empty, "me", "posts/all"), Value(Array()));
  std::string noneThatDay = R"({"date":"2013-04-01T06:31:50Z","user":"twolfson","posts":[]})";
  EXPECT_EQ(P::posts(noneThatDay, "me", "posts/get"), Value(Array()));

  std::string update = "\xef\xbb\xbf{\"update_time\":\"2014-01-29T09:42:58Z\"}\n\t\n";
  EXPECT_EQ(P::updateTime(update, "posts/update").asDate().ISO8601String(), "2014-01-29T09:42:58Z");
  std::string done = "{\"result_code\":\"done\"}\n\t", tagDone = "{\"result\":\"done\"}", token = R"({"result":"692D3D4BD4A2825D5A4A"})";
  EXPECT_EQ(P::resultText(done, "posts/add"), Value("done"));
  EXPECT_EQ(P::resultText(tagDone, "tags/delete"), Value("done"));
  EXPECT_EQ(P::resultText(token, "user/api_token"), Value("692D3D4BD4A2825D5A4A"));

  std::string suggest = R"([{"popular":["pinboard"]},{"recommended":["bookmark","\uc815\ubcf4\ud1b5\uc2e0","pinboard"]}])";
  Value tags = P::suggestedTags(suggest, "posts/suggest");
  ASSERT_EQ(tags.count(), 4u);
  EXPECT_EQ(tags.asArray()[2], Value("정보통신"));
  EXPECT_EQ(tags.asArray()[3], Value("pinboard"));

  std::string counts = R"({"algorithms\/data_objects":"4","web_dev_code":2339})", noTags = "[]";
  EXPECT_EQ(P::tagCounts(counts, "tags/get"),
            Value(Dictionary{{"algorithms/data_objects", Value(4)}, {"web_dev_code", Value(2339)}}));
  EXPECT_EQ(P::tagCounts(noTags, "tags/get"), Value(Dictionary()));

  // Feed items: untagged ones carry [""], times may have an offset.
  Value feed = P::feed(std::string_view(
      R"([{"u":"https:\/\/example.com\/article","d":"Example title","n":"","dt":"2023-03-20T16:30:35+00:00","a":"someuser","t":[""]},{"u":"x","t":"a b"}])"));
  ASSERT_EQ(feed.count(), 2u);
  const Dictionary& item = feed.asArray()[0].asDictionary();
  EXPECT_EQ(item[ZBPinboardPostURLKey], Value("https://example.com/article"));
  EXPECT_EQ(item[ZBPinboardPostUsernameKey], Value("someuser"));
  EXPECT_EQ(item[ZBPinboardPostTagsKey], Value(Array()));
  EXPECT_EQ(item[ZBPinboardPostDateKey].asDate().ISO8601String(), "2023-03-20T16:30:35Z");
  EXPECT_EQ(feed.asArray()[1].asDictionary()[ZBPinboardPostTagsKey], Value(Array{Value("a"), Value("b")}));
}

TEST(ZBPinboardResponseParser, RefusesHostileOrMisshapenBytesWithAnError) {
  const std::vector<std::string> bodies = {
      "", " \n\t", "\xef\xbb\xbf", "[", "{", "nul", "<html>502</html>", "[1,2]", "[{}]", "[{\"href\":7}]",
      "{\"posts\":{}}", "{\"posts\":[null]}", "\"text\"", "[\"\xff\xfe\"]", std::string(100000, '['),
      "[{\"href\":\"a\"}]garbage", std::string("[{\"href\":\"a\0b\"}", 16)};
  for (const std::string& b : bodies) {
    std::string body = b;
    NSErrorPtr error;
    Value posts = P::posts(body, "me", "posts/all", &error);
    if (b == "[{\"href\":\"a\"}]garbage" || b.rfind("[{\"href\":\"a", 0) == 0) {
      expectMalformed(posts, error, "trailing or truncated: " + b.substr(0, 20));
      continue;
    }
    expectMalformed(posts, error, b.substr(0, 20));
    EXPECT_TRUE(error->userInfo()[NSLocalizedFailureReasonErrorKey].isString());
    body = b;
    error = nullptr;
    expectMalformed(P::feed(body, "feed", &error), error, "feed " + b.substr(0, 20));
    body = b;
    error = nullptr;
    expectMalformed(P::updateTime(body, "posts/update", &error), error, "update " + b.substr(0, 20));
    body = b;
    error = nullptr;
    expectMalformed(P::resultText(body, "posts/add", &error), error, "result " + b.substr(0, 20));
  }
  // Right JSON, wrong shapes.
  for (const char* b : {R"({"update_time":5})", R"({"update_time":"yesterday"})", R"({"date":"2014-01-29T09:42:58Z"})"}) {
    std::string body = b;
    NSErrorPtr error;
    expectMalformed(P::updateTime(body, "posts/update", &error), error, b);
  }
  for (const char* b : {R"({"result_code":5})", R"({"status":"done"})", "[]"}) {
    std::string body = b;
    NSErrorPtr error;
    expectMalformed(P::resultText(body, "posts/add", &error), error, b);
  }
  for (const char* b : {R"([{"popular":"a"}])", R"([{"popular":[1]}])", R"([5])"}) {
    std::string body = b;
    NSErrorPtr error;
    expectMalformed(P::suggestedTags(body, "posts/suggest", &error), error, b);
  }
  for (const char* b : {R"({"a":"x"})", R"({"a":[]})", R"(["a"])", R"(7)"}) {
    std::string body = b;
    NSErrorPtr error;
    expectMalformed(P::tagCounts(body, "tags/get", &error), error, b);
  }
  // The caller's error slot is left alone on success.
  std::string ok = "[]";
  NSErrorPtr untouched = NSError::create("sentinel", 1);
  EXPECT_TRUE(P::posts(ok, "me", "posts/all", &untouched));
  EXPECT_EQ(untouched->domain(), "sentinel");
}

TEST(ZBPinboardResponseParser, EscapedTextIsDecodedAndBrokenSurrogatesFail) {
  // All non-ASCII arrives escaped; above U+FFFF as a surrogate pair.
  std::string list = R"([{"href":"https:\/\/a\/\u00e9","description":"\u00ae\u2122 \ud83d\ude00","tags":"caf\u00e9 \ud83c\udf4e"}])";
  Value posts = P::posts(list, "me", "posts/all");
  ASSERT_EQ(posts.count(), 1u);
  const Dictionary& post = posts.asArray()[0].asDictionary();
  EXPECT_EQ(post[ZBPinboardPostURLKey], Value("https://a/é"));
  EXPECT_EQ(post[ZBPinboardPostTitleKey], Value("®™ 😀"));
  EXPECT_EQ(post[ZBPinboardPostTagsKey], Value(Array{Value("café"), Value("🍎")}));
  std::string counts = R"({"\ud83c\udf4e":"2","caf\u00e9":3})";
  EXPECT_EQ(P::tagCounts(counts, "tags/get"), Value(Dictionary{{"🍎", Value(2)}, {"café", Value(3)}}));
  // A half pair, a reversed pair or a pair around something else is an
  // error: never a crash, nor a title with a broken character in it.
  for (const char* bad : {R"(\ud83d)", R"(\ude00)", R"(\ude00\ud83d)", R"(\ud83d\u0041)", R"(\ud83dx)"}) {
    std::string body = std::string(R"([{"href":"x","description":")") + bad + R"("}])";
    NSErrorPtr error;
    expectMalformed(P::posts(body, "me", "posts/all", &error), error, bad);
  }
}

TEST(ZBPinboardResponseParser, LeavesTheCallersBytesUnchanged) {
  // Padding may grow the capacity; the text must stay as it was.
  std::string body = "\xef\xbb\xbf[{\"href\":\"https://a\",\"tags\":\"x y\"}]\n\t";
  const std::string copy = body;
  ASSERT_TRUE(P::posts(body, "me", "posts/all"));
  EXPECT_EQ(body, copy);
}

}  // namespace

namespace {

// Post times take a short path of their own in the date reader; it must agree
// with what the printer writes and refuse what is not a date.
TEST(ZBPinboardResponseParser, PostTimesReadAsTheyWereWritten) {
  // Near the edges of the service's form: the date as printed back, or none.
  std::vector<std::pair<std::string, std::string>> times = {
      {"2000-02-29T12:00:00Z", "2000-02-29T12:00:00Z"}, {"1900-02-29T00:00:00Z", ""},
      {"2100-02-28T23:59:59Z", "2100-02-28T23:59:59Z"}, {"2100-02-29T00:00:00Z", ""},
      {"0000-02-29T00:00:00Z", "0000-02-29T00:00:00Z"}, {"0001-01-01T00:00:00Z", "0001-01-01T00:00:00Z"},
      {"9999-12-31T23:59:59Z", "9999-12-31T23:59:59Z"}, {"1969-12-31T23:59:59Z", "1969-12-31T23:59:59Z"},
      {"2024-13-01T00:00:00Z", ""}, {"2024-00-10T00:00:00Z", ""}, {"2024-04-31T00:00:00Z", ""},
      {"2024-04-00T00:00:00Z", ""}, {"2024-01-01T24:00:00Z", ""}, {"2024-01-01T00:60:00Z", ""},
      {"2024-01-01T00:00:60Z", ""}, {"2024-1-01T00:00:00Z", ""}, {"2024-01-01 00:00:00Z", ""},
      {"2O24-01-01T00:00:00Z", ""}, {"2024-01-01T00:00:00z", ""}, {"-024-01-01T00:00:00Z", ""},
      {"2024-01-01T00:00:00+00:00", "2024-01-01T00:00:00Z"}, {"2024-01-01T00:00:00.5Z", "2024-01-01T00:00:00.500Z"}};
  // Seconds of a few centuries, sampled, as the service would write them.
  std::mt19937_64 rng(11);
  for (int i = 0; i < 3000; ++i) {
    const std::string t =
        NSDate::dateWithTimeIntervalSince1970(static_cast<double>(rng() % 8000000000ULL) - 2000000000.0).ISO8601String();
    times.emplace_back(t, t);
  }
  std::string body = "[";
  for (const auto& [text, printed] : times) body += R"({"href":"x","time":")" + text + R"("},)";
  body.back() = ']';
  Value posts = P::posts(body, "me", "posts/all");
  ASSERT_EQ(posts.count(), times.size());
  for (std::size_t i = 0; i < times.size(); ++i) {
    const Value& date = posts.asArray()[i].asDictionary()[ZBPinboardPostDateKey];
    EXPECT_EQ(date ? date.asDate().ISO8601String() : "", times[i].second) << times[i].first;
  }
}

}  // namespace
