// The simulator over real HTTP: what a client of the service would see.
#include <gtest/gtest.h>
#include <httplib.h>

#include <atomic>
#include <cctype>
#include <cmath>
#include <functional>
#include <set>
#include <nlohmann/json.hpp>
#include <thread>
#include <tuple>

#include "pinboard-sim/Simulator.h"
#include "support/TemporaryDirectory.h"
#include "support/TogetherThreads.h"
#include "support/WaitUntil.h"

using namespace pinboard_sim;
using nlohmann::json;

namespace {

class SimulatorTest : public ::testing::Test {
protected:
  void SetUp() override {
    sim.setClock([this] { return now.load(); });
    ASSERT_TRUE(sim.start());
    AccountSeed alice;
    alice.username = "alice";
    alice.password = "wonderland";
    token = sim.addAccount(alice);
  }

  httplib::Result get(const std::string& path, httplib::Params params = {}, const std::string& auth = "token") {
    httplib::Client client("127.0.0.1", sim.port());
    client.set_read_timeout(10);
    if (auth == "token") params.emplace("auth_token", token);
    if (!params.count("format")) params.emplace("format", "json");
    return client.Get(path, params, httplib::Headers{});
  }
  json call(const std::string& path, httplib::Params params = {}) {
    auto r = get(path, std::move(params));
    EXPECT_TRUE(r) << path;
    if (!r) return json();
    EXPECT_EQ(r->status, 200) << path << ": " << r->body;
    return json::parse(r->body, nullptr, false);
  }
  std::string add(const std::string& url, httplib::Params params = {}) {
    params.emplace("url", url);
    if (!params.count("description")) params.emplace("description", "Title of " + url);
    return call("/v1/posts/add", std::move(params)).value("result_code", "?");
  }
  static std::vector<std::string> hrefs(const json& posts) {
    std::vector<std::string> out;
    for (const auto& p : posts) out.push_back(p.value("href", p.value("u", "")));
    return out;
  }

  std::atomic<double> now{1700000000};  // 2023-11-14T22:13:20Z
  Simulator sim;
  std::string token;
};

TEST_F(SimulatorTest, AuthenticationTakesTokenOrPasswordAndAnswers401Otherwise) {
  EXPECT_EQ(token, "alice:" + sim.token("alice").substr(6));
  EXPECT_EQ(sim.token("alice").size(), 6u + 20u);
  EXPECT_EQ(get("/v1/posts/update")->status, 200);

  httplib::Client basic("127.0.0.1", sim.port());
  basic.set_basic_auth("alice", "wonderland");
  EXPECT_EQ(basic.Get("/v1/posts/update?format=json")->status, 200);
  basic.set_basic_auth("alice", "looking-glass");
  auto wrongPassword = basic.Get("/v1/posts/update?format=json");
  EXPECT_EQ(wrongPassword->status, 401);
  EXPECT_EQ(wrongPassword->reason, "Forbidden") << "the service's reason phrase";
  EXPECT_TRUE(json::parse(wrongPassword->body, nullptr, false).is_discarded()) << "401 bodies are not JSON";

  EXPECT_EQ(get("/v1/posts/update", {}, "none")->status, 401);
  EXPECT_EQ(get("/v1/posts/update", {{"auth_token", "alice:WRONG"}}, "none")->status, 401);
  // The common mistake of sending only the secret part.
  EXPECT_EQ(get("/v1/posts/update", {{"auth_token", token.substr(6)}}, "none")->status, 401);
  EXPECT_EQ(get("/v1/posts/update", {{"auth_token", "mallory:" + token.substr(6)}}, "none")->status, 401);

  // An account without a password never accepts basic authentication.
  AccountSeed bob;
  bob.username = "bob";
  sim.addAccount(bob);
  basic.set_basic_auth("bob", "");
  EXPECT_EQ(basic.Get("/v1/posts/update?format=json")->status, 401);

  EXPECT_EQ(get("/v1/no/such/method")->status, 404);
  EXPECT_EQ(get("/elsewhere")->status, 404);

  auto log = sim.requestLog();
  ASSERT_FALSE(log.empty());
  EXPECT_EQ(log.front().user, "alice");
  EXPECT_EQ(log.front().status, 200);
  EXPECT_EQ(log[1].basicAuth, true);
}

TEST_F(SimulatorTest, AddReplacesTheWholeBookmarkAndKeepsHashStable) {
  const std::string url = "http://notavalidwebsite.com/";
  EXPECT_EQ(add(url, {{"description", "Full"}, {"extended", "notes"}, {"tags", "b a"}, {"shared", "no"},
                      {"toread", "yes"}, {"dt", "2015-02-13T06:27:59Z"}}),
            "done");
  auto first = sim.bookmark("alice", url);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->hash, "3b82c6973a0dd71ff00d359fee028046");  // md5 of the URL, as the service computes it
  EXPECT_EQ(first->tags, (std::vector<std::string>{"b", "a"}));
  EXPECT_FALSE(first->shared);
  EXPECT_TRUE(first->toread);
  std::int64_t updated = sim.updateTime("alice");

  // A replace without the other fields loses them: the service does not merge.
  EXPECT_EQ(add(url, {{"description", "Short"}}), "done");
  auto second = sim.bookmark("alice", url);
  ASSERT_TRUE(second);
  EXPECT_EQ(second->title, "Short");
  EXPECT_EQ(second->extended, "");
  EXPECT_TRUE(second->tags.empty());
  EXPECT_TRUE(second->shared);
  EXPECT_FALSE(second->toread);
  EXPECT_EQ(second->time, first->time) << "a replace without dt keeps the time";
  EXPECT_EQ(second->hash, first->hash);
  EXPECT_NE(second->meta, first->meta);
  EXPECT_EQ(sim.updateTime("alice"), updated) << "two changes in one second share the update time";

  // Re-sending identical data leaves the signature alone.
  std::string meta = second->meta;
  EXPECT_EQ(add(url, {{"description", "Short"}}), "done");
  EXPECT_EQ(sim.bookmark("alice", url)->meta, meta);

  EXPECT_EQ(add(url, {{"replace", "no"}}), "item already exists");
  EXPECT_EQ(add("", {}), "missing url");
  EXPECT_EQ(add("gopher://old.net/", {}), "missing url");
  EXPECT_EQ(add("not a url", {}), "missing url");
  EXPECT_EQ(call("/v1/posts/add", {{"url", "https://example.com"}}).value("result_code", ""), "missing description");
  EXPECT_EQ(add("https://example.com", {{"description", std::string(256, 'x')}}), "something went wrong");
  EXPECT_EQ(add("https://example.com", {{"dt", "yesterday"}}), "something went wrong");
  std::string manyTags;
  for (int i = 0; i < 101; ++i) manyTags += "t" + std::to_string(i) + " ";
  EXPECT_EQ(add("https://example.com", {{"tags", manyTags}}), "something went wrong");
  EXPECT_FALSE(sim.bookmark("alice", "https://example.com"));

  // A date more than ten minutes ahead becomes the server's now; 255
  // characters of non-ASCII text are within the limit.
  EXPECT_EQ(add("https://example.com", {{"dt", "2030-01-01T00:00:00Z"}, {"description", std::string(255, 'y')},
                                        {"tags", "c++ 日本語 C++"}}),
            "done");
  auto future = sim.bookmark("alice", "https://example.com");
  ASSERT_TRUE(future);
  EXPECT_EQ(future->time, 1700000000);
  EXPECT_EQ(future->hash, "c984d06aafbecf6bc55569f964148ea3");
  EXPECT_EQ(future->tags, (std::vector<std::string>{"c++", "日本語"})) << "'+' survives, case duplicates fold";

  // "Save all bookmarks as private" changes the default of shared.
  AccountSeed carol;
  carol.username = "carol";
  carol.saveAllPrivate = true;
  std::string carolToken = sim.addAccount(carol);
  ASSERT_EQ(get("/v1/posts/add", {{"auth_token", carolToken}, {"url", "https://c.org/"}, {"description", "c"}}, "")->status, 200);
  EXPECT_FALSE(sim.bookmark("carol", "https://c.org/")->shared);
}

TEST_F(SimulatorTest, DeleteAnswersItemNotFoundForUnknownURLs) {
  ASSERT_EQ(add("https://a.org/"), "done");
  std::int64_t before = sim.updateTime("alice");
  EXPECT_EQ(call("/v1/posts/delete", {{"url", "https://a.org"}}).value("result_code", ""), "item not found");
  EXPECT_EQ(sim.updateTime("alice"), before) << "a failed delete changes nothing";
  now = now + 1;
  EXPECT_EQ(call("/v1/posts/delete", {{"url", "https://a.org/"}}).value("result_code", ""), "done");
  EXPECT_FALSE(sim.bookmark("alice", "https://a.org/"));
  EXPECT_GT(sim.updateTime("alice"), before);
  EXPECT_EQ(call("/v1/posts/delete", {{"url", "https://a.org/"}}).value("result_code", ""), "item not found");
  EXPECT_EQ(call("/v1/posts/delete", {}).value("result_code", ""), "item not found");
}

TEST_F(SimulatorTest, PostListsFilterAndOrderLikeTheService) {
  // Five bookmarks on three days, newest last in insertion order.
  ASSERT_EQ(add("https://1.org/", {{"dt", "2020-01-01T10:00:00Z"}, {"tags", "x y"}}), "done");
  ASSERT_EQ(add("https://2.org/", {{"dt", "2020-01-01T12:00:00Z"}, {"tags", "X"}}), "done");
  ASSERT_EQ(add("https://3.org/", {{"dt", "2020-01-02T00:00:00Z"}, {"tags", "y z"}}), "done");
  ASSERT_EQ(add("https://4.org/", {{"dt", "2020-01-03T23:59:59Z"}, {"tags", "x y z"}}), "done");
  ASSERT_EQ(add("https://5.org/", {{"dt", "2020-01-03T00:00:00Z"}}), "done");

  json got = call("/v1/posts/get");
  EXPECT_EQ(got["user"], "alice");
  EXPECT_EQ(got["date"], "2020-01-03T23:59:59Z");
  EXPECT_EQ(hrefs(got["posts"]), (std::vector<std::string>{"https://4.org/", "https://5.org/"}))
      << "without arguments: the day of the newest bookmark";
  json day = call("/v1/posts/get", {{"dt", "2020-01-01"}});
  EXPECT_EQ(hrefs(day["posts"]), (std::vector<std::string>{"https://2.org/", "https://1.org/"}));
  EXPECT_EQ(day["date"], "2020-01-01T12:00:00Z") << "the first post listed";
  EXPECT_EQ(hrefs(call("/v1/posts/get", {{"url", "https://3.org/"}})["posts"]), (std::vector<std::string>{"https://3.org/"}));
  json none = call("/v1/posts/get", {{"url", "https://none.org/"}});
  EXPECT_TRUE(none["posts"].is_array() && none["posts"].empty());
  EXPECT_EQ(none["date"], "2020-01-03T23:59:59Z");
  json post = call("/v1/posts/get", {{"url", "https://4.org/"}})["posts"][0];
  std::vector<std::string> keys;
  for (auto it = post.begin(); it != post.end(); ++it) keys.push_back(it.key());
  std::sort(keys.begin(), keys.end());
  EXPECT_EQ(keys, (std::vector<std::string>{"description", "extended", "hash", "href", "meta", "shared", "tags", "time",
                                            "toread"}));
  EXPECT_EQ(post["tags"], "x y z");
  EXPECT_EQ(post["shared"], "yes");

  // Tag filters are ANDed and ignore letter case; at most three count.
  EXPECT_EQ(hrefs(call("/v1/posts/all", {{"tag", "x"}})),
            (std::vector<std::string>{"https://4.org/", "https://2.org/", "https://1.org/"}));
  EXPECT_EQ(hrefs(call("/v1/posts/all", {{"tag", "x Y"}})), (std::vector<std::string>{"https://4.org/", "https://1.org/"}));
  EXPECT_EQ(hrefs(call("/v1/posts/all", {{"start", "1"}, {"results", "2"}})),
            (std::vector<std::string>{"https://5.org/", "https://3.org/"}));
  EXPECT_EQ(hrefs(call("/v1/posts/all", {{"fromdt", "2020-01-01T12:00:00Z"}, {"todt", "2020-01-03T00:00:01Z"}})),
            (std::vector<std::string>{"https://5.org/", "https://3.org/"}))
      << "created after fromdt and before todt";
  auto empty = get("/v1/posts/all", {{"tag", "nothing"}});
  EXPECT_EQ(empty->body, "[]\t");

  json recent = call("/v1/posts/recent", {{"count", "2"}, {"tag", "y"}});
  EXPECT_EQ(hrefs(recent["posts"]), (std::vector<std::string>{"https://4.org/", "https://3.org/"}));
  EXPECT_EQ(recent["date"], "2020-01-03T23:59:59Z");
  for (int i = 0; i < 120; ++i)
    ASSERT_TRUE(sim.addBookmark("alice", Bookmark{.url = "https://bulk/" + std::to_string(i), .time = i}));
  EXPECT_EQ(call("/v1/posts/recent")["posts"].size(), 15u);
  EXPECT_EQ(call("/v1/posts/recent", {{"count", "1000"}})["posts"].size(), 100u);
  EXPECT_EQ(call("/v1/posts/all").size(), 125u);
}

TEST_F(SimulatorTest, CountsAndEmptyMapsFollowTheQuirkSwitches) {
  json dates = call("/v1/posts/dates");
  EXPECT_TRUE(dates["dates"].is_array() && dates["dates"].empty()) << "an empty map goes out as []";
  EXPECT_TRUE(call("/v1/tags/get").is_array());

  ASSERT_EQ(add("https://1.org/", {{"dt", "2020-01-01T10:00:00Z"}, {"tags", "a b"}}), "done");
  ASSERT_EQ(add("https://2.org/", {{"dt", "2020-01-01T11:00:00Z"}, {"tags", "a"}}), "done");
  EXPECT_EQ(call("/v1/tags/get"), json({{"a", 2}, {"b", 1}}));
  dates = call("/v1/posts/dates", {{"tag", "a b"}});
  EXPECT_EQ(dates["dates"], json({{"2020-01-01", 1}}));
  EXPECT_EQ(dates["tag"], "a+b");

  Quirks q = sim.quirks();
  q.stringCounts = true;
  q.emptyMapAsArray = false;
  sim.setQuirks(q);
  EXPECT_EQ(call("/v1/tags/get"), json({{"a", "2"}, {"b", "1"}}));
  EXPECT_EQ(call("/v1/posts/dates", {{"tag", "a"}})["dates"], json({{"2020-01-01", "2"}}));
  EXPECT_EQ(call("/v1/posts/dates", {{"tag", "zzz"}})["dates"], json::object());
}

TEST_F(SimulatorTest, TagRenameFoldsAndDeleteAlwaysSaysDone) {
  ASSERT_EQ(add("https://1.org/", {{"tags", "Old keep"}}), "done");
  ASSERT_EQ(add("https://2.org/", {{"tags", "old new"}}), "done");
  std::string meta1 = sim.bookmark("alice", "https://1.org/")->meta;
  std::int64_t before = sim.updateTime("alice");
  now = now + 1;

  EXPECT_EQ(call("/v1/tags/rename", {{"old", "OLD"}, {"new", "new"}}), json({{"result", "done"}}));
  EXPECT_EQ(sim.bookmark("alice", "https://1.org/")->tags, (std::vector<std::string>{"new", "keep"}));
  EXPECT_EQ(sim.bookmark("alice", "https://2.org/")->tags, (std::vector<std::string>{"new"})) << "folded into the existing tag";
  EXPECT_NE(sim.bookmark("alice", "https://1.org/")->meta, meta1);
  EXPECT_GT(sim.updateTime("alice"), before);

  EXPECT_EQ(call("/v1/tags/rename", {{"old", "keep"}, {"new", ""}}), json({{"result", "rename to null"}}));
  EXPECT_EQ(call("/v1/tags/rename", {{"old", "keep"}}), json({{"result", "rename to null"}}));
  EXPECT_EQ(call("/v1/tags/rename", {{"old", ""}, {"new", "x"}}), json({{"result", "done"}}));

  before = sim.updateTime("alice");
  EXPECT_EQ(call("/v1/tags/delete", {{"tag", "unknown"}}), json({{"result", "done"}}));
  EXPECT_EQ(call("/v1/tags/delete", {}), json({{"result", "done"}}));
  EXPECT_EQ(sim.updateTime("alice"), before) << "nothing changed, nothing bumped";
  now = now + 1;
  EXPECT_EQ(call("/v1/tags/delete", {{"tag", "NEW"}}), json({{"result", "done"}}));
  EXPECT_EQ(sim.tagCounts("alice"), (std::map<std::string, int>{{"keep", 1}}));
  EXPECT_GT(sim.updateTime("alice"), before);
}

TEST_F(SimulatorTest, SuggestUserNotesAndXML) {
  AccountSeed bob;
  bob.username = "bob";
  sim.addAccount(bob);
  ASSERT_TRUE(
      sim.addBookmark("bob", Bookmark{.url = "https://shared.org/python", .tags = {"python", "lang", ".secret"}}));
  ASSERT_TRUE(sim.addBookmark("alice", Bookmark{.url = "https://other.org/", .tags = {"python", "misc"}}));
  json suggest = call("/v1/posts/suggest", {{"url", "https://shared.org/python"}});
  ASSERT_TRUE(suggest.is_array());
  ASSERT_EQ(suggest.size(), 2u);
  EXPECT_EQ(suggest[0]["popular"], json({"lang", "python"}));
  EXPECT_EQ(suggest[1]["recommended"], json({"python"}));
  sim.setPopularTags("https://x.org/", {"seeded"});
  EXPECT_EQ(call("/v1/posts/suggest", {{"url", "https://x.org/"}})[0]["popular"], json({"seeded"}));

  EXPECT_EQ(call("/v1/user/api_token")["result"], token.substr(6));
  std::string secret = call("/v1/user/secret")["result"];
  EXPECT_EQ(secret, sim.rssKey("alice"));
  EXPECT_EQ(secret.size(), 20u);

  // A recorded note: its hash is the start of the SHA-1 of its text.
  ASSERT_TRUE(sim.addNote("alice", "Test note", "This is a note for `pinboard.js` tests", 1423818502, 1423818502));
  json list = call("/v1/notes/list");
  EXPECT_EQ(list["count"], 1);
  EXPECT_EQ(list["notes"][0]["length"], 38);
  EXPECT_EQ(list["notes"][0]["hash"], "b001e4e34e76b3b93b32");
  EXPECT_EQ(list["notes"][0]["created_at"], "2015-02-13 09:08:22");
  json note = call("/v1/notes/" + list["notes"][0]["id"].get<std::string>());
  EXPECT_EQ(note["length"], 38);
  EXPECT_EQ(note["text"], "This is a note for `pinboard.js` tests");
  EXPECT_EQ(get("/v1/notes/ffffffffffffffffffff")->status, 404);

  // Without format=json the service speaks XML.
  auto xml = get("/v1/posts/update", {{"format", "xml"}});
  EXPECT_NE(xml->body.find("<update time=\"2023-11-14T22:13:20Z\""), std::string::npos) << xml->body;
  auto code = get("/v1/posts/delete", {{"format", "xml"}, {"url", "https://nope/"}});
  EXPECT_NE(code->body.find("<result code=\"item not found\" />"), std::string::npos) << code->body;
}

TEST_F(SimulatorTest, FeedsShowPublicBookmarksAndSecretFeedsTheRest) {
  AccountSeed bob;
  bob.username = "bob";
  sim.addAccount(bob);
  ASSERT_TRUE(sim.addBookmark(
      "alice", Bookmark{.url = "https://a.org/pub", .title = "Pub", .tags = {"x", ".hidden"}, .time = 300}));
  ASSERT_TRUE(sim.addBookmark("alice", Bookmark{.url = "https://a.org/priv",
                                                .tags = {"x"},
                                                .time = 200,
                                                .shared = false,
                                                .toread = true,
                                                .starred = true,
                                                .source = "pocket"}));
  ASSERT_TRUE(sim.addBookmark(
      "alice", Bookmark{.url = "https://a.org/star", .time = 100, .starred = true, .source = "twitter"}));
  ASSERT_TRUE(sim.addBookmark("bob", Bookmark{.url = "https://a.org/pub", .tags = {"x", "y"}, .time = 400}));
  ASSERT_TRUE(sim.addBookmark("bob", Bookmark{.url = "https://en.wikipedia.org/wiki/Z", .title = "Z", .time = 50}));
  ASSERT_TRUE(sim.addBookmark("bob", Bookmark{.url = "https://b.org/ja", .title = "東京の記事", .time = 60}));
  ASSERT_TRUE(sim.addBookmark("bob", Bookmark{.url = "https://b.org/bobpriv", .time = 500, .shared = false}));
  ASSERT_TRUE(sim.setNetwork("alice", {"bob", "nobody"}));
  const std::string key = sim.rssKey("alice");
  auto feed = [&](const std::string& path, httplib::Params params = {}) {
    auto r = get("/json/" + path, std::move(params), "none");
    EXPECT_TRUE(r);
    if (!r || r->status != 200) return json(r ? r->status : -1);
    return json::parse(r->body);
  };

  json pub = feed("u:alice/");
  EXPECT_EQ(hrefs(pub), (std::vector<std::string>{"https://a.org/pub", "https://a.org/star"}));
  EXPECT_EQ(pub[0]["a"], "alice");
  EXPECT_EQ(pub[0]["d"], "Pub");
  EXPECT_EQ(pub[0]["t"], json({"x"})) << "private tags stay out of public feeds";
  EXPECT_EQ(pub[0]["dt"], "1970-01-01T00:05:00Z");
  EXPECT_EQ(pub[1]["t"], json({""})) << "an untagged item carries one empty tag";
  EXPECT_EQ(hrefs(feed("secret:" + key + "/u:alice/")),
            (std::vector<std::string>{"https://a.org/pub", "https://a.org/priv", "https://a.org/star"}));
  EXPECT_EQ(feed("secret:" + key + "/u:alice/")[0]["t"], json({"x", ".hidden"}));
  EXPECT_EQ(hrefs(feed("secret:" + key + "/u:alice/private/")), (std::vector<std::string>{"https://a.org/priv"}));
  EXPECT_EQ(hrefs(feed("secret:" + key + "/u:alice/toread/")), (std::vector<std::string>{"https://a.org/priv"}));
  EXPECT_EQ(hrefs(feed("secret:" + key + "/u:alice/starred/")),
            (std::vector<std::string>{"https://a.org/priv", "https://a.org/star"}));
  EXPECT_EQ(hrefs(feed("secret:" + key + "/u:alice/from:pocket/")), (std::vector<std::string>{"https://a.org/priv"}));
  EXPECT_EQ(hrefs(feed("u:alice/from:pocket/")), std::vector<std::string>{}) << "private, so not public";
  EXPECT_EQ(hrefs(feed("u:alice/from:twitter/")), (std::vector<std::string>{"https://a.org/star"}));
  json network = feed("secret:" + key + "/u:alice/network/");
  EXPECT_EQ(hrefs(network), (std::vector<std::string>{"https://a.org/pub", "https://b.org/ja", "https://en.wikipedia.org/wiki/Z"}));
  EXPECT_EQ(network[0]["a"], "bob");
  EXPECT_EQ(feed("secret:WRONG/u:alice/private/"), json(401));
  EXPECT_EQ(feed("u:alice/private/"), json(401));
  EXPECT_EQ(feed("u:nobody/"), json(404));
  EXPECT_EQ(feed("sideways/"), json(404));

  EXPECT_EQ(hrefs(feed("t:x/")), (std::vector<std::string>{"https://a.org/pub", "https://a.org/pub"}));
  EXPECT_EQ(hrefs(feed("t:x/t:y/")), (std::vector<std::string>{"https://a.org/pub"}));
  EXPECT_EQ(feed("t:x/t:y/")[0]["a"], "bob");
  EXPECT_EQ(hrefs(feed("u:bob/t:x/")), (std::vector<std::string>{"https://a.org/pub"}));
  EXPECT_EQ(hrefs(feed("v1/u:bob/t:x/")), (std::vector<std::string>{"https://a.org/pub"})) << "the old prefix";
  EXPECT_EQ(hrefs(feed("recent/", {{"count", "2"}})), (std::vector<std::string>{"https://a.org/pub", "https://a.org/pub"}));
  EXPECT_EQ(feed("recent/").size(), 5u) << "bob's private bookmark never shows";

  json popular = feed("popular/");
  ASSERT_GE(popular.size(), 1u);
  EXPECT_EQ(popular[0]["u"], "https://a.org/pub") << "saved by two users";
  EXPECT_EQ(popular[0]["a"], "alice") << "the first saver";
  EXPECT_EQ(hrefs(feed("popular/wikipedia")), (std::vector<std::string>{"https://en.wikipedia.org/wiki/Z"}));
  EXPECT_EQ(hrefs(feed("popular/japanese")), (std::vector<std::string>{"https://b.org/ja"}));
  EXPECT_EQ(feed("popular/fandom"), json::array());
  EXPECT_EQ(feed("popular/martian"), json(404));

  auto jsonp = get("/json/u:bob/", {{"cb", "show"}, {"count", "1"}}, "none");
  EXPECT_EQ(jsonp->body.rfind("show([{", 0), 0u) << jsonp->body;
  for (int i = 0; i < 500; ++i) ASSERT_TRUE(sim.addBookmark("bob", Bookmark{.url = "https://n/" + std::to_string(i)}));
  EXPECT_EQ(feed("u:bob/").size(), 50u);
  EXPECT_EQ(feed("u:bob/", {{"count", "10000"}}).size(), 400u);
}

TEST_F(SimulatorTest, WireQuirksCanBeSwitched) {
  ASSERT_TRUE(sim.addBookmark("alice", Bookmark{.url = "https://a.org/x", .title = "Café ✔ 🎉", .time = 1}));
  auto body = [&] { return get("/v1/posts/all")->body; };
  std::string def = body();
  EXPECT_NE(def.find("https:\\/\\/a.org\\/x"), std::string::npos);
  EXPECT_NE(def.find("Caf\\u00e9 \\u2714 \\ud83c\\udf89"), std::string::npos) << def;
  EXPECT_EQ(def.back(), '\t');
  EXPECT_EQ(get("/v1/posts/all")->get_header_value("Content-Type"), "text/plain; charset=utf-8");

  Quirks q;
  q.escapeSlashes = false;
  q.escapeNonASCII = false;
  q.byteOrderMark = true;
  q.trailingWhitespace = false;
  q.textPlain = false;
  sim.setQuirks(q);
  std::string other = body();
  EXPECT_EQ(other.substr(0, 3), "\xef\xbb\xbf");
  EXPECT_EQ(other.back(), ']');
  EXPECT_NE(other.find("https://a.org/x"), std::string::npos);
  EXPECT_NE(other.find("Café ✔ 🎉"), std::string::npos) << other;
  EXPECT_EQ(get("/v1/posts/all")->get_header_value("Content-Type"), "application/json; charset=utf-8");
  // Both forms decode to the same data.
  EXPECT_EQ(json::parse(other.substr(3)), json::parse(def));

  // Compression only when switched on, and only as the client allows.
  httplib::Client gzipClient("127.0.0.1", sim.port());
  httplib::Headers acceptGzip{{"Accept-Encoding", "gzip"}};
  std::string path = "/v1/posts/all?format=json&auth_token=" + token;
  EXPECT_EQ(gzipClient.Get(path, acceptGzip)->get_header_value("Content-Encoding"), "");
  q.gzip = true;
  q.textPlain = true;
  sim.setQuirks(q);
  gzipClient.set_decompress(false);
  auto compressed = gzipClient.Get(path, acceptGzip);
  EXPECT_EQ(compressed->get_header_value("Content-Encoding"), "gzip");
  EXPECT_NE(compressed->body, other);
  EXPECT_EQ(gzipClient.Get(path)->get_header_value("Content-Encoding"), "");

  // Invalid UTF-8 sent by a client is stored, and answered as valid JSON.
  ASSERT_EQ(add("https://bad.org/", {{"description", std::string("bad \xff\xfe bytes")}}), "done");
  EXPECT_FALSE(json::parse(body().substr(3), nullptr, false).is_discarded());
}

TEST_F(SimulatorTest, InjectedFaultsShapeTheAnswers) {
  ASSERT_EQ(add("https://a.org/"), "done");
  Fault f;
  f.path = "/v1/posts/update";
  f.status = 503;
  f.times = 2;
  f.after = 1;
  sim.addFault(f);
  EXPECT_EQ(get("/v1/posts/update")->status, 200) << "after=1 lets the first through";
  EXPECT_EQ(get("/v1/posts/update")->status, 503);
  EXPECT_EQ(get("/v1/posts/all")->status, 200) << "other paths are untouched";
  EXPECT_EQ(get("/v1/posts/update")->status, 503);
  EXPECT_EQ(get("/v1/posts/update")->status, 200) << "times=2 is used up";

  sim.addFault(*Fault::parse("/v1/posts/all:garbage,times=1"));
  auto garbage = get("/v1/posts/all");
  EXPECT_EQ(garbage->status, 200);
  EXPECT_TRUE(json::parse(garbage->body, nullptr, false).is_discarded());
  sim.addFault(*Fault::parse("/v1/posts/all:truncate,times=1"));
  auto truncated = get("/v1/posts/all");
  EXPECT_EQ(truncated->status, 200);
  EXPECT_TRUE(json::parse(truncated->body, nullptr, false).is_discarded());
  EXPECT_FALSE(truncated->body.empty());
  sim.addFault(*Fault::parse("*:empty,times=1"));
  EXPECT_EQ(get("/v1/posts/all")->body, "");

  sim.addFault(*Fault::parse("/v1/posts/all:drop,times=1"));
  auto dropped = get("/v1/posts/all");
  EXPECT_FALSE(dropped) << "no answer at all";
  sim.addFault(*Fault::parse("/v1/posts/all:cut,times=1"));
  auto cut = get("/v1/posts/all");
  EXPECT_TRUE(!cut || cut->body.size() < get("/v1/posts/all")->body.size()) << "the body stops short";

  // A delay longer than the client waits: the client gives up, the server
  // stays healthy.
  sim.addFault(*Fault::parse("/json/*:delay=30,times=1"));
  httplib::Client impatient("127.0.0.1", sim.port());
  impatient.set_read_timeout(0, 200000);
  EXPECT_FALSE(impatient.Get("/json/recent/"));
  EXPECT_EQ(get("/v1/posts/update")->status, 200);

  sim.addFault(*Fault::parse("/v1/posts/update:status=429"));
  for (int i = 0; i < 3; ++i) EXPECT_EQ(get("/v1/posts/update")->status, 429) << "times=0 lasts until cleared";
  sim.clearFaults();
  EXPECT_EQ(get("/v1/posts/update")->status, 200);
  EXPECT_GE(sim.requestCount("/v1/posts/update"), 9u);
  size_t faulted = 0;
  for (const auto& r : sim.requestLog()) faulted += r.faulted;
  EXPECT_EQ(faulted, 10u) << "the delayed request is still held, and logged when it ends";
}

TEST(SimulatorFault, ParsesFaultSettingsAndRejectsNonsense) {
  auto f = Fault::parse("/json/u:alice/*:status=500,delay=0.5,times=3,after=2");
  ASSERT_TRUE(f);
  EXPECT_EQ(f->path, "/json/u:alice/*");
  EXPECT_EQ(f->status, 500);
  EXPECT_DOUBLE_EQ(f->delay, 0.5);
  EXPECT_EQ(f->times, 3);
  EXPECT_EQ(f->after, 2);
  EXPECT_TRUE(f->matches("/json/u:alice/t:x/"));
  EXPECT_FALSE(f->matches("/json/u:bob/"));
  EXPECT_TRUE(Fault::parse(":drop")->matches("/anything"));
  EXPECT_TRUE(Fault::parse("/v1/posts/all:cut")->cut);
  auto applied = Fault::parse("/v1/posts/add:status=500,times=1,apply,bom");
  ASSERT_TRUE(applied);
  EXPECT_TRUE(applied->apply && applied->bom);
  EXPECT_EQ(applied->status, 500);
  std::string error;
  for (const char* bad : {"", "/v1/posts/all", "/v1/posts/all:", "/v1/posts/all:times=3", "/x:status=99",
                          "/x:status=abc", "/x:delay=-1", "/x:explode", "/x:garbage=1", "/x:times=-1", "/x:apply",
                          "/x:apply=yes", "/x:bom=1"}) {
    error.clear();
    EXPECT_FALSE(Fault::parse(bad, &error)) << bad;
    EXPECT_FALSE(error.empty()) << bad;
  }
}

TEST_F(SimulatorTest, RateLimitsAnswer429UntilTheIntervalHasPassed) {
  sim.setRateLimits(RateLimits::service());
  EXPECT_EQ(get("/v1/posts/update")->status, 200);
  EXPECT_EQ(get("/v1/posts/update")->status, 429);
  now = now + 2.9;
  EXPECT_EQ(get("/v1/tags/get")->status, 429) << "the general limit spans every method";
  now = now + 0.2;
  EXPECT_EQ(get("/v1/posts/all")->status, 200);
  now = now + 3;
  EXPECT_EQ(get("/v1/posts/all")->status, 429) << "posts/all waits five minutes";
  EXPECT_EQ(get("/v1/posts/update")->status, 200) << "a refused call does not count against others";
  now = now + 297;
  EXPECT_EQ(get("/v1/posts/all")->status, 200);
  now = now + 3;
  EXPECT_EQ(get("/v1/posts/recent")->status, 200);
  now = now + 3;
  EXPECT_EQ(get("/v1/posts/recent")->status, 429);
  EXPECT_EQ(sim.rateLimitViolations("alice"), 4u) << "every 429 for coming too soon is counted";

  // Limits are per user; feeds are not limited.
  AccountSeed bob;
  bob.username = "bob";
  std::string bobToken = sim.addAccount(bob);
  EXPECT_EQ(get("/v1/posts/update", {{"auth_token", bobToken}}, "")->status, 200);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(get("/json/recent/", {}, "none")->status, 200);
  EXPECT_EQ(get("/v1/posts/update", {{"auth_token", bobToken}}, "")->status, 429);
  EXPECT_EQ(sim.rateLimitViolations("bob"), 1u);
  EXPECT_EQ(sim.rateLimitViolations(), 5u);
  sim.setRateLimits({});
  EXPECT_EQ(get("/v1/posts/recent")->status, 200);
}

TEST_F(SimulatorTest, ConcurrentClientsLoseNoWrite) {
  constexpr int kThreads = 8, kEach = 25;
  std::atomic<int> failures{0};
  RunTogether(kThreads, [&](int t) {
    httplib::Client client("127.0.0.1", sim.port());
    for (int i = 0; i < kEach; ++i) {
      std::string url = "https://c.org/" + std::to_string(t) + "/" + std::to_string(i);
      auto r = client.Get("/v1/posts/add",
                          httplib::Params{{"auth_token", token},
                                          {"format", "json"},
                                          {"url", url},
                                          {"description", "d"},
                                          {"tags", "t" + std::to_string(t)}},
                          httplib::Headers{});
      if (!r || r->status != 200 || r->body.find("done") == std::string::npos) ++failures;
    }
  });
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(sim.bookmarkCount("alice"), std::size_t(kThreads * kEach));
  EXPECT_EQ(call("/v1/posts/all").size(), std::size_t(kThreads * kEach));
  EXPECT_EQ(sim.updateTime("alice"), 1700000000) << "whole seconds of the clock, never ahead of it";
  EXPECT_EQ(sim.tagCounts("alice").size(), std::size_t(kThreads));
}

TEST(SimulatorServer, RefusesABusyPortAndStopsTwice) {
  Simulator first;
  ASSERT_TRUE(first.start());
  SimulatorOptions options;
  options.port = first.port();
  Simulator second(options);
  std::string error;
  EXPECT_FALSE(second.start(&error));
  EXPECT_NE(error.find(std::to_string(first.port())), std::string::npos) << error;
  first.stop();
  first.stop();
  EXPECT_TRUE(second.start(&error)) << "the port is free again: " << error;
}

TEST(SimulatorGenerator, PointsAShareAtTheWebSideAndLeavesTheRestAlone) {
  auto plain = generateBookmarks("alice", 2000);
  GeneratorOptions web;
  web.webBase = "http://127.0.0.1:9";
  web.webShare = 0.3;
  auto mixed = generateBookmarks("alice", 2000, web);
  ASSERT_EQ(mixed.size(), plain.size());
  int onWeb = 0, dead = 0;
  for (std::size_t i = 0; i < plain.size(); ++i) {
    EXPECT_EQ(mixed[i].title, plain[i].title) << i;
    EXPECT_EQ(mixed[i].tags, plain[i].tags) << i;
    if (mixed[i].url.rfind(web.webBase + "/status/", 0) != 0) {
      // Only the suffix that keeps repeated popular URLs apart may differ.
      auto bare = [](const std::string& url) { return url.substr(0, url.find("?v=")); };
      EXPECT_EQ(bare(mixed[i].url), bare(plain[i].url)) << i;
      continue;
    }
    ++onWeb;
    std::string status = mixed[i].url.substr(web.webBase.size() + 8, 3);
    EXPECT_TRUE(status == "200" || status == "404" || status == "410") << mixed[i].url;
    dead += status != "200";
  }
  EXPECT_NEAR(onWeb, 600, 100);
  EXPECT_NEAR(dead, onWeb / 4, 60);
}

TEST(SimulatorGenerator, IsDeterministicAndRealistic) {
  auto a = generateBookmarks("alice", 3000);
  auto b = generateBookmarks("alice", 3000);
  ASSERT_EQ(a.size(), 3000u);
  for (std::size_t i = 0; i < a.size(); ++i) {
    ASSERT_EQ(a[i].url, b[i].url);
    ASSERT_EQ(a[i].meta, b[i].meta);
  }
  GeneratorOptions other;
  other.seed = 2;
  EXPECT_NE(generateBookmarks("alice", 10, other)[0].meta, a[0].meta);

  std::set<std::string> urls;
  std::map<std::string, int> tagUse;
  int priv = 0, unread = 0, starred = 0, sourced = 0, nonASCII = 0, untagged = 0;
  int sameTime = 0, untitled = 0, astral = 0, decomposed = 0, untidyNotes = 0;
  for (std::size_t i = 0; i < a.size(); ++i) {
    const Bookmark& x = a[i];
    urls.insert(x.url);
    if (i) {
      EXPECT_LE(x.time, a[i - 1].time) << "newest first";
    }
    EXPECT_EQ(x.hash, md5Hex(x.url));
    priv += !x.shared;
    unread += x.toread;
    starred += x.starred;
    sourced += !x.source.empty();
    untagged += x.tags.empty();
    nonASCII += std::any_of(x.title.begin(), x.title.end(), [](char c) { return static_cast<unsigned char>(c) >= 0x80; });
    for (const auto& t : x.tags) ++tagUse[t];
    sameTime += i && x.time == a[i - 1].time;
    untitled += x.title.empty() || x.title == "[no title]";
    astral += x.title.find_first_of("\xf0\xf1\xf2\xf3\xf4") != std::string::npos;
    decomposed += x.title.find("\xcc") != std::string::npos || x.title.find("\xe1\x84") != std::string::npos;
    untidyNotes += !x.extended.empty() && std::isspace(static_cast<unsigned char>(x.extended.back()));
    std::set<std::string> folded;
    for (const auto& t : x.tags) folded.insert(foldTag(t));
    EXPECT_EQ(folded.size(), x.tags.size()) << "no two case variants of a tag on one bookmark";
  }
  // The untidiness of real accounts, each in its share.
  EXPECT_NEAR(sameTime, 700, 250) << "import runs";
  EXPECT_NEAR(untitled, 120, 50);
  EXPECT_NEAR(astral, 150, 60);
  EXPECT_NEAR(decomposed, 90, 45);
  EXPECT_NEAR(untidyNotes, 180, 70);
  for (const char* odd : {"home+improvement", "c#", "drum&bass", "for:someone", "!tobuy", "c/c++"})
    EXPECT_GT(tagUse[odd], 5) << odd;
  EXPECT_EQ(urls.size(), a.size());
  EXPECT_NEAR(priv, 600, 120);
  EXPECT_NEAR(unread, 450, 100);
  EXPECT_NEAR(starred, 240, 80);
  EXPECT_NEAR(sourced, 360, 90);
  EXPECT_NEAR(nonASCII, 600, 100);
  EXPECT_GT(untagged, 100);
  // Zipf: the most used tag is far more common than the median one.
  std::vector<int> uses;
  for (auto& [t, n] : tagUse) uses.push_back(n);
  std::sort(uses.rbegin(), uses.rend());
  EXPECT_GT(uses.front(), 20 * uses[uses.size() / 2]);
  EXPECT_GT(tagUse.size(), 200u);
}

TEST_F(SimulatorTest, StateRoundTripsThroughSeedFiles) {
  ASSERT_TRUE(sim.generateBookmarks("alice", 200));
  ASSERT_TRUE(sim.setStarred("alice", sim.bookmarks("alice")[3].url, true));
  ASSERT_TRUE(sim.addNote("alice", "n", "text", 1, 2));
  ASSERT_TRUE(sim.setNetwork("alice", {"bob"}));
  sim.setPopularTags("https://x.org/", {"a", "b"});
  TemporaryDirectory dir;
  std::string path = (dir / "state.json").string();
  ASSERT_TRUE(sim.saveState(path));

  Simulator copy;
  std::string error;
  ASSERT_TRUE(copy.loadSeedFile(path, &error)) << error;
  auto original = sim.bookmarks("alice"), restored = copy.bookmarks("alice");
  ASSERT_EQ(restored.size(), original.size());
  for (std::size_t i = 0; i < original.size(); ++i) {
    EXPECT_EQ(restored[i].meta, original[i].meta);
    EXPECT_EQ(restored[i].starred, original[i].starred);
    EXPECT_EQ(restored[i].source, original[i].source);
    EXPECT_EQ(restored[i].others, original[i].others);
  }
  EXPECT_EQ(copy.token("alice"), sim.token("alice"));
  EXPECT_EQ(copy.rssKey("alice"), sim.rssKey("alice"));
  EXPECT_EQ(copy.updateTime("alice"), sim.updateTime("alice"));
  EXPECT_EQ(copy.exportState(), sim.exportState());

  // Damaged seeds are refused with a message, never a crash.
  for (const char* bad : {"[]", "{\"accounts\":[{}]}", "{\"accounts\":[{\"username\":\"a:b\"}]}",
                          "{\"accounts\":[{\"username\":\"x\",\"bookmarks\":[{\"title\":1}]}]}",
                          "{\"accounts\":7}"}) {
    error.clear();
    EXPECT_FALSE(copy.loadSeed(json::parse(bad), &error)) << bad;
    EXPECT_FALSE(error.empty());
  }
  EXPECT_FALSE(copy.loadSeedFile((dir / "missing.json").string(), &error));
  std::ofstream(dir / "junk.json") << "{not json";
  EXPECT_FALSE(copy.loadSeedFile((dir / "junk.json").string(), &error));
}

TEST(SimulatorExecutable, PrintsItsAddressAndServesSeededUsers) {
  const std::string binary = std::string(ZB_TEST_BINARY_DIR) + "/tools/pinboard-sim/pinboard-sim";
  if (access(binary.c_str(), X_OK) != 0) GTEST_SKIP() << "pinboard-sim not built";
  TemporaryDirectory dir;
  const std::string state = (dir / "state.json").string();
  std::string command = binary + " --port 0 --seed-user eve:EVETOKEN --bookmarks 30 --state " + state +
                        " --fault /v1/posts/recent:status=500 --fault /v1/posts/delete:status=500,times=1,apply & echo $!";
  FILE* out = popen(command.c_str(), "r");
  ASSERT_TRUE(out);
  char line[256] = {};
  ASSERT_TRUE(fgets(line, sizeof line, out));
  int pid = std::atoi(line);
  ASSERT_TRUE(fgets(line, sizeof line, out));
  std::string url(line);
  url.erase(url.find_last_not_of("\n") + 1);
  ASSERT_EQ(url.rfind("http://127.0.0.1:", 0), 0u) << url;
  httplib::Client client(url);
  auto all = client.Get("/v1/posts/all?format=json&auth_token=eve:EVETOKEN");
  ASSERT_TRUE(all);
  EXPECT_EQ(json::parse(all->body).size(), 30u);
  EXPECT_EQ(client.Get("/v1/posts/recent?format=json&auth_token=eve:EVETOKEN")->status, 500);
  EXPECT_EQ(client.Get("/v1/posts/delete?format=json&auth_token=eve:EVETOKEN&url=" +
                       httplib::detail::encode_query_param(json::parse(all->body)[0]["href"].get<std::string>()))
                ->status,
            500)
      << "the deletion is stored, then answered with an error";
  kill(pid, SIGTERM);
  pclose(out);
  // The simulator writes its state on the way out; wait for it to be gone.
  ASSERT_TRUE(WaitUntil([pid] { return kill(pid, 0) != 0; }));
  Simulator restored;
  ASSERT_TRUE(restored.loadSeedFile(state));
  EXPECT_EQ(restored.bookmarkCount("eve"), 29u) << "the state file holds the deletion made behind the error";
}

TEST_F(SimulatorTest, UpdateTimeIsTheWholeSecondOfTheLastWrite) {
  const std::string url = "https://w.org/";
  ASSERT_EQ(add(url, {{"tags", "t"}}), "done");
  // API writes and the seeding helpers alike, in an order where each applies.
  const std::pair<const char*, std::function<bool()>> writes[] = {
      {"posts/add", [&] { return add(url, {{"tags", "t"}}) == "done"; }},
      {"tags/rename", [&] { return call("/v1/tags/rename", {{"old", "t"}, {"new", "u"}})["result"] == "done"; }},
      {"tags/delete", [&] { return call("/v1/tags/delete", {{"tag", "u"}})["result"] == "done"; }},
      {"posts/delete", [&] { return call("/v1/posts/delete", {{"url", url}})["result_code"] == "done"; }},
      {"addBookmark", [&] { return sim.addBookmark("alice", Bookmark{.url = url, .time = 2000000000}); }},
      {"setStarred", [&] { return sim.setStarred("alice", url, true); }},
      {"setSource", [&] { return sim.setSource("alice", url, "pocket"); }},
      {"generateBookmarks", [&] { return sim.generateBookmarks("alice", 3); }},
  };
  for (const auto& [name, write] : writes) {
    now = now + 1.75;
    ASSERT_TRUE(write()) << name;
    const auto second = static_cast<std::int64_t>(now.load());
    EXPECT_EQ(sim.updateTime("alice"), second) << name << ": the clock's second, never ahead of it";
    EXPECT_EQ(call("/v1/posts/update")["update_time"], formatDateTime(second)) << name;
  }
  now = std::floor(now.load()) + 0.1;
  ASSERT_EQ(add("https://x.org/"), "done");
  const std::int64_t first = sim.updateTime("alice");
  now = now + 0.8;
  ASSERT_EQ(add("https://y.org/"), "done");
  EXPECT_EQ(sim.updateTime("alice"), first) << "two writes in one second share it";
}

TEST_F(SimulatorTest, MalformedDatesAreRefusedNeverReadAsNoLimit) {
  ASSERT_EQ(add("https://a.org/", {{"dt", "2020-01-01T10:00:00Z"}}), "done");
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"/v1/posts/all", "fromdt", "2020-01-01"},  // a day where a time is due
      {"/v1/posts/all", "fromdt", ""},
      {"/v1/posts/all", "todt", "2020-13-01T00:00:00Z"},
      {"/v1/posts/all", "todt", "yesterday"},
      {"/v1/posts/get", "dt", "2020-02-30"},
      {"/v1/posts/get", "dt", "01/01/2020"},
      {"/v1/posts/add", "dt", "2020-01-01 10:00:00"},
      {"/v1/posts/add", "dt", "2020-01-01T10:00:00+02:00"},
  };
  for (const auto& [path, name, value] : cases) {
    httplib::Params params{{name, value}};
    if (std::string(path) == "/v1/posts/add") params.insert({{"url", "https://b.org/"}, {"description", "b"}});
    EXPECT_EQ(call(path, params), json({{"result_code", "something went wrong"}})) << path << " " << name << "=" << value;
  }
  EXPECT_FALSE(sim.bookmark("alice", "https://b.org/"));
  EXPECT_NE(get("/v1/posts/all", {{"format", "xml"}, {"todt", "soon"}})->body.find("<result code=\"something went wrong\" />"),
            std::string::npos);

  now = now + 100;
  ASSERT_EQ(add("https://a.org/", {{"dt", ""}}), "done");
  EXPECT_EQ(sim.bookmark("alice", "https://a.org/")->time, 1700000100) << "an empty dt is now, also on a replace";
}

TEST_F(SimulatorTest, RangesAndPagingHoldWhenManyBookmarksShareOneSecond) {
  // An import: forty bookmarks in one second, one just before and one just after.
  const std::int64_t t = 1600000000;
  ASSERT_TRUE(sim.addBookmark("alice", Bookmark{.url = "https://before/", .time = t - 1}));
  ASSERT_TRUE(sim.addBookmark("alice", Bookmark{.url = "https://after/", .time = t + 1}));
  for (int i = 139; i >= 100; --i)
    ASSERT_TRUE(sim.addBookmark("alice", Bookmark{.url = "https://import/" + std::to_string(i), .time = t}));
  const std::string before = formatDateTime(t - 1), at = formatDateTime(t), after = formatDateTime(t + 1);
  const std::tuple<std::string, std::string, bool, std::size_t> ranges[] = {
      {at, "", false, 1},       {at, "", true, 41},       {before, "", false, 41}, {"", at, false, 1},
      {"", at, true, 41},       {before, after, false, 40}, {before, after, true, 42}, {at, at, false, 0},
      {at, at, true, 40},
  };
  for (const auto& [from, to, inclusive, count] : ranges) {
    Quirks q;
    q.inclusiveDateRange = inclusive;
    sim.setQuirks(q);
    httplib::Params params;
    if (!from.empty()) params.emplace("fromdt", from);
    if (!to.empty()) params.emplace("todt", to);
    EXPECT_EQ(call("/v1/posts/all", params).size(), count) << from << " .. " << to << (inclusive ? " inclusive" : "");
  }
  sim.setQuirks({});

  // Newest first, one second's bookmarks by URL: pages put together give the
  // whole list, and every list agrees on the order.
  const std::vector<std::string> all = hrefs(call("/v1/posts/all"));
  ASSERT_EQ(all.size(), 42u);
  EXPECT_EQ(all[1], "https://import/100");
  EXPECT_EQ(all[40], "https://import/139");
  std::vector<std::string> paged;
  for (int start = 0; start < 42; start += 8) {
    auto page = hrefs(call("/v1/posts/all", {{"start", std::to_string(start)}, {"results", "8"}}));
    paged.insert(paged.end(), page.begin(), page.end());
  }
  EXPECT_EQ(paged, all);
  EXPECT_EQ(hrefs(call("/v1/posts/recent", {{"count", "5"}})["posts"]), std::vector<std::string>(all.begin(), all.begin() + 5));
  json day = call("/v1/posts/get", {{"dt", formatDate(t)}});
  EXPECT_EQ(hrefs(day["posts"]), all);
  EXPECT_EQ(day["date"], after);
}

TEST_F(SimulatorTest, WhatAddStoresIsWhatItAnswersSoResendingItChangesNothing) {
  Quirks truncating;
  truncating.truncateOverlong = true;
  sim.setQuirks(truncating);
  std::string manyTags;
  for (int i = 0; i < 104; ++i) manyTags += "t" + std::to_string(i) + ",";
  struct Case {
    const char* what;
    httplib::Params params;
    std::string url;  // as stored
    std::vector<std::string> tags;
  };
  const Case cases[] = {
      {"commas and whitespace split tags, case variants fold",
       {{"url", "https://a.org/"}, {"tags", "a,b\tB  c,,\nd"}}, "https://a.org/", {"a", "b", "c", "d"}},
      {"feed: stands for http:", {{"url", "feed://f.org/rss"}}, "http://f.org/rss", {}},
      {"feed: before a whole address", {{"url", "feed:https://g.org/rss"}}, "https://g.org/rss", {}},
      {"bytes that are not UTF-8", {{"url", "https://u.org/"}, {"description", "bad \xff"}, {"tags", "caf\xe9"}},
       "https://u.org/", {"caf\xef\xbf\xbd"}},
      {"over-long title and tags are cut",
       {{"url", "https://l.org/"}, {"description", std::string(300, 'x')}, {"tags", std::string(300, 'z') + " " + manyTags}},
       "https://l.org/", {}},
      {"an empty dt", {{"url", "https://d.org/"}, {"dt", ""}, {"extended", "notes \xf0\x9f\x8e\x89 \n"}}, "https://d.org/", {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    httplib::Params params = c.params;
    if (!params.count("description")) params.emplace("description", "Title");
    ASSERT_EQ(call("/v1/posts/add", params)["result_code"], "done");
    json read = call("/v1/posts/get", {{"url", c.url}})["posts"];
    ASSERT_EQ(read.size(), 1u);
    const json post = read[0];
    if (!c.tags.empty()) {
      EXPECT_EQ(splitTags(post["tags"].get<std::string>()), c.tags);
    }
    EXPECT_LE(characterCount(post["description"].get<std::string>()), 255u);
    EXPECT_LE(splitTags(post["tags"].get<std::string>()).size(), 100u);
    for (const auto& t : splitTags(post["tags"].get<std::string>())) EXPECT_LE(characterCount(t), 255u);
    // Push back what was pulled: the stored bookmark does not change.
    httplib::Params back;
    for (const char* key : {"href", "description", "extended", "tags", "time", "shared", "toread"})
      back.emplace(std::string(key) == "href" ? "url" : std::string(key) == "time" ? "dt" : key, post[key].get<std::string>());
    ASSERT_EQ(call("/v1/posts/add", back)["result_code"], "done");
    EXPECT_EQ(call("/v1/posts/get", {{"url", c.url}})["posts"][0], post);
  }
  EXPECT_EQ(sim.bookmarkCount("alice"), std::size(cases));
  EXPECT_EQ(hrefs(call("/v1/posts/all", {{"tag", "A,d"}})), std::vector<std::string>{"https://a.org/"}) << "ANDed";
  EXPECT_EQ(call("/v1/posts/all", {{"tag", "a,nothing"}}), json::array());
}

TEST_F(SimulatorTest, AFaultWithApplyStoresTheWriteThenSpoilsTheAnswer) {
  const std::string url = "https://w.org/";
  const std::tuple<const char*, httplib::Params, std::function<bool()>> writes[] = {
      {"/v1/posts/add", {{"url", url}, {"description", "w"}, {"tags", "t"}}, [&] { return sim.bookmarkCount("alice") == 1; }},
      {"/v1/tags/rename", {{"old", "t"}, {"new", "u"}}, [&] { return sim.tagCounts("alice").count("u") == 1; }},
      {"/v1/tags/delete", {{"tag", "u"}}, [&] { return sim.tagCounts("alice").empty(); }},
      {"/v1/posts/delete", {{"url", url}}, [&] { return sim.bookmarkCount("alice") == 0; }},
  };
  for (const char* effect : {"status=500", "garbage", "bom", "cut", "drop"}) {
    for (const auto& [path, params, stored] : writes) {
      SCOPED_TRACE(std::string(path) + " " + effect);
      auto spoiled = [&](const httplib::Result& r) {
        return !r || r->status != 200 || r->body.rfind("\xef\xbb\xbf", 0) == 0 ||
               json::parse(r->body, nullptr, false).is_discarded();
      };
      now = now + 10;
      const std::int64_t before = sim.updateTime("alice");
      sim.addFault(*Fault::parse(std::string(path) + ":" + effect + ",times=1"));
      EXPECT_TRUE(spoiled(get(path, params)));
      EXPECT_FALSE(stored()) << "without apply the fault replaces the call";
      EXPECT_EQ(sim.updateTime("alice"), before);

      sim.addFault(*Fault::parse(std::string(path) + ":" + effect + ",times=1,apply"));
      EXPECT_TRUE(spoiled(get(path, params)));
      EXPECT_TRUE(stored());
      EXPECT_EQ(sim.updateTime("alice"), static_cast<std::int64_t>(now.load()));
    }
  }
  sim.addFault(*Fault::parse("/v1/posts/add:bom,apply,times=1"));
  auto bom = get("/v1/posts/add", {{"url", url}, {"description", "w"}});
  ASSERT_TRUE(bom);
  EXPECT_EQ(bom->body.substr(0, 3), "\xef\xbb\xbf");
  EXPECT_EQ(json::parse(bom->body.substr(3)), json({{"result_code", "done"}}));
}

TEST_F(SimulatorTest, DefaultAnswersAreWrittenAsTheServiceWritesThem) {
  ASSERT_TRUE(sim.generateBookmarks("alice", 120));
  ASSERT_EQ(add("https://c.org/", {{"tags", "one,Two"}, {"description", "Tea \xf0\x9f\x8d\xb5 caf\xc3\xa9"}}), "done");
  for (const char* path : {"/v1/posts/all", "/v1/posts/recent", "/v1/tags/get", "/json/u:alice/"}) {
    std::string body = get(path)->body;
    EXPECT_TRUE(std::all_of(body.begin(), body.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; }))
        << path << ": non-ASCII goes out escaped";
  }
  std::string all = get("/v1/posts/all")->body;
  EXPECT_NE(all.find("Tea \\ud83c\\udf75 caf\\u00e9"), std::string::npos) << "a surrogate pair above U+FFFF";
  EXPECT_NE(all.find("\\ud83"), std::string::npos) << "generated accounts carry emoji";
  EXPECT_EQ(call("/v1/posts/get", {{"url", "https://c.org/"}})["posts"][0]["tags"], "one Two");

  // tags/get: integer counts, in the order of a case-insensitive collation.
  auto tags = nlohmann::ordered_json::parse(get("/v1/tags/get")->body);
  EXPECT_EQ(tags["Two"], 1);
  std::string previous;
  for (auto it = tags.begin(); it != tags.end(); ++it) {
    EXPECT_TRUE(it.value().is_number_integer()) << it.key();
    std::string upper = it.key();
    for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    EXPECT_LE(previous, upper);
    previous = upper;
  }
  // posts/dates: keys as the service orders them, newest date first.
  auto dates = nlohmann::ordered_json::parse(get("/v1/posts/dates")->body);
  std::vector<std::string> keys, days;
  for (auto it = dates.begin(); it != dates.end(); ++it) keys.push_back(it.key());
  EXPECT_EQ(keys, (std::vector<std::string>{"user", "tag", "dates"}));
  for (auto it = dates["dates"].begin(); it != dates["dates"].end(); ++it) days.push_back(it.key());
  ASSERT_GT(days.size(), 2u);
  EXPECT_TRUE(std::is_sorted(days.rbegin(), days.rend()));
  EXPECT_TRUE(dates["dates"].front().is_number_integer());
}

TEST_F(SimulatorTest, FeedsAreLaggingWindowsOntoTheNewest) {
  sim.setFeedWindow({.defaultCount = 4, .maxCount = 10, .lag = 60});
  ASSERT_TRUE(sim.generateBookmarks("alice", 1000));
  std::vector<std::string> starred, fromPocket;
  for (const Bookmark& b : sim.bookmarks("alice")) {
    if (b.starred) starred.push_back(b.url);
    if (b.source == "pocket") fromPocket.push_back(b.url);
  }
  ASSERT_GT(starred.size(), 10u);
  ASSERT_GT(fromPocket.size(), 10u);
  const std::string secret = "/json/secret:" + sim.rssKey("alice") + "/u:alice/";
  auto feed = [&](const std::string& path, httplib::Params params = {}) { return json::parse(get(path, std::move(params), "none")->body); };
  EXPECT_EQ(feed(secret + "starred/").size(), 4u);
  EXPECT_EQ(hrefs(feed(secret + "starred/", {{"count", "400"}})), std::vector<std::string>(starred.begin(), starred.begin() + 10));
  EXPECT_EQ(hrefs(feed(secret + "from:pocket/", {{"count", "400"}})),
            std::vector<std::string>(fromPocket.begin(), fromPocket.begin() + 10));

  // An API write reaches the feeds a minute later; until then they show the
  // version before it.
  now = now + 1000;
  ASSERT_EQ(add("https://lag.org/", {{"description", "Old"}}), "done");
  EXPECT_EQ(call("/v1/posts/recent", {{"count", "1"}})["posts"][0]["href"], "https://lag.org/") << "the API at once";
  EXPECT_NE(feed("/json/u:alice/")[0]["u"], "https://lag.org/");
  now = now + 61;
  EXPECT_EQ(feed("/json/u:alice/")[0]["d"], "Old");
  ASSERT_EQ(add("https://lag.org/", {{"description", "New"}}), "done");
  now = now + 30;
  ASSERT_EQ(add("https://lag.org/", {{"description", "Newer"}}), "done");
  EXPECT_EQ(feed("/json/u:alice/")[0]["d"], "Old");
  now = now + 61;
  EXPECT_EQ(feed("/json/u:alice/")[0]["d"], "Newer");
}

}  // namespace
