// The client's requests against the simulator: what goes out, what comes back.
#include <set>

#include "PinboardClientTestSupport.h"
#include "pinboard-sim/Wire.h"
#include "platform/foundation/ZBMD5.h"
#include "platform/pinboardkit/ZBPinboardResponseParser.h"

using pinboard_sim::Bookmark;

namespace {

const Dictionary& dict(const Value& v) { return v.asDictionary(); }

std::vector<std::string> strings(const Value& v) {
  std::vector<std::string> out;
  for (const Value& e : v.collectionElements()) out.push_back(e.asString());
  return out;
}

std::vector<std::string> urls(const Value& posts) {
  std::vector<std::string> out;
  for (const Value& p : posts.asArray()) out.push_back(p.asDictionary()[ZBPinboardPostURLKey].asString());
  return out;
}

TEST_F(PinboardClientTest, AuthenticationStoresCredentialsOnlyTheUserCanRead) {
  EXPECT_FALSE(client->credentials()) << "no file yet: signed out";
  Value result = run(client->authenticateWithUsernameToken("alice", secret));
  auto credentials = result.as<ZBPinboardCredentials>();
  ASSERT_TRUE(credentials);
  EXPECT_EQ(credentials->username(), "alice");
  EXPECT_EQ(credentials->token(), secret);
  EXPECT_EQ(credentials->valueForKey("username"), Value("alice"));
  EXPECT_EQ(credentials->description().find(secret), std::string::npos);
  EXPECT_FALSE(client->credentials()) << "installing them is the caller's decision";

  const auto file = dir / "pinboard-credentials.plist";
  EXPECT_EQ(mode(file), 0600u);
  EXPECT_NE(fileContents(file).find(secret), std::string::npos);

  // The whole token as the settings page shows it is accepted too.
  auto whole = run(client->authenticateWithUsernameToken("alice", apiToken)).as<ZBPinboardCredentials>();
  ASSERT_TRUE(whole);
  EXPECT_EQ(whole->token(), secret);

  // A password obtains the token and is never written anywhere.
  std::filesystem::remove(file);
  auto viaPassword = run(client->authenticateWithUsernamePassword("alice", "wonderland")).as<ZBPinboardCredentials>();
  ASSERT_TRUE(viaPassword);
  EXPECT_EQ(viaPassword->token(), secret);
  EXPECT_EQ(fileContents(file).find("wonderland"), std::string::npos);
  EXPECT_EQ(mode(file), 0600u);
  EXPECT_TRUE(sim.requestLog().back().basicAuth);
  EXPECT_EQ(sim.requestLog().back().params.count("auth_token"), 0u);

  // A new client (the next launch) starts signed in from the file.
  auto relaunched = ZBPinboardClient::create(defaults);
  ASSERT_TRUE(relaunched->credentials());
  EXPECT_TRUE(relaunched->credentials()->isEqual(*viaPassword));

  // Refusals: wrong token, wrong password, empty or odd input (no request).
  expectFailure(client->authenticateWithUsernameToken("alice", "WRONGWRONGWRONGWRONG"), ZBPinboardKitUnauthorizedError);
  expectFailure(client->authenticateWithUsernamePassword("alice", "looking-glass"), ZBPinboardKitUnauthorizedError);
  std::size_t requests = sim.requestLog().size();
  expectFailure(client->authenticateWithUsernameToken("", secret), ZBPinboardKitUnauthorizedError);
  expectFailure(client->authenticateWithUsernameToken("alice", ""), ZBPinboardKitUnauthorizedError);
  expectFailure(client->authenticateWithUsernamePassword("al:ice", "x"), ZBPinboardKitUnauthorizedError);
  EXPECT_EQ(sim.requestLog().size(), requests);
}

TEST_F(PinboardClientTest, CredentialsThatCannotBeStoredComeBackInTheError) {
  // A regular file where the directory should be: nothing can be created.
  std::ofstream(dir / "blocker") << "x";
  defaults->setObject(Value((dir / "blocker" / "credentials.plist").string()), ZBPinboardCredentialsPathDefaultKey);
  NSErrorPtr error = expectFailure(client->authenticateWithUsernameToken("alice", secret),
                                   ZBPinboardKitCredentialsNotStoredError);
  ASSERT_TRUE(error);
  auto credentials = error->userInfo()[ZBPinboardCredentialsErrorKey].as<ZBPinboardCredentials>();
  ASSERT_TRUE(credentials) << "the caller may continue without saving";
  EXPECT_EQ(credentials->username(), "alice");
  EXPECT_EQ(credentials->token(), secret);
  EXPECT_TRUE(error->underlyingError());
  EXPECT_FALSE(error->localizedDescription().empty());
}

TEST_F(PinboardClientTest, CredentialChangesAreObservableAndSigningOutForgetsTheFile) {
  int changes = 0;
  Value last;
  auto token = client->addObserver(ZBPinboardClientCredentialsKey, NSKeyValueObservingOptions::New,
                                   [&](const std::string&, NSObject&, const NSKeyValueChange& change) {
                                     ++changes;
                                     last = change.newValue;
                                   });
  ASSERT_TRUE(run(client->authenticateWithUsernameToken("alice", secret)));
  const auto file = dir / "pinboard-credentials.plist";
  ASSERT_TRUE(std::filesystem::exists(file));
  client->setCredentials(ZBPinboardCredentials::create("alice", secret));
  EXPECT_EQ(changes, 1);
  EXPECT_EQ(last.as<ZBPinboardCredentials>()->username(), "alice");
  EXPECT_EQ(client->valueForKey(ZBPinboardClientCredentialsKey).as<ZBPinboardCredentials>()->username(), "alice");

  // A failed sign-in clears the credentials, and the next launch agrees.
  client->setCredentials(nullptr);
  EXPECT_EQ(changes, 2);
  EXPECT_FALSE(last);
  EXPECT_FALSE(std::filesystem::exists(file));
  EXPECT_FALSE(ZBPinboardClient::create(defaults)->credentials());

  ASSERT_TRUE(run(client->authenticateWithUsernameToken("alice", secret)));
  NSErrorPtr error;
  EXPECT_TRUE(client->logout(&error));
  EXPECT_FALSE(std::filesystem::exists(file));
  EXPECT_TRUE(client->logout(&error)) << "nothing left to remove is fine";
  client->setValueForKey(Value(), ZBPinboardClientCredentialsKey);
  EXPECT_EQ(changes, 3);

  // A damaged credentials file reads as signed out.
  std::ofstream(file) << "<plist>garbage";
  EXPECT_FALSE(ZBPinboardClient::create(defaults)->credentials());
}

TEST_F(PinboardClientTest, RequestsNeedCredentialsAndMakeNoCallWithout) {
  expectFailure(client->retrieveLastPostUpdateDate(), ZBPinboardKitNotAuthenticatedError);
  expectFailure(client->retrieveAllPostsWithTags(Value()), ZBPinboardKitNotAuthenticatedError);
  expectFailure(client->retrieveFeedWithMethod("starred", true, 10), ZBPinboardKitNotAuthenticatedError);
  expectFailure(client->retrieveFeedWithSource("twitter", 10), ZBPinboardKitNotAuthenticatedError);
  expectFailure(client->deleteTag("x"), ZBPinboardKitNotAuthenticatedError);
  EXPECT_TRUE(sim.requestLog().empty());
  // Public feeds need nobody.
  EXPECT_TRUE(run(client->retrieveFeedWithMethod("recent", false, 10)));
}

TEST_F(PinboardClientTest, PostListsArriveInTheModelsVocabulary) {
  signIn();
  EXPECT_EQ(run(client->retrieveAllPostsWithTags(Value())), Value(Array())) << "nothing is an empty list, not a failure";
  EXPECT_EQ(sim.requestLog().back().params.at("meta"), "yes") << "the refresh compares change signatures";

  ASSERT_TRUE(sim.addBookmark("alice", Bookmark{.url = "https://example.com/a?b=c&d=%20",
                                                .title = "Ünïcödé “title” \\ /",
                                                .extended = "line\nbreak\ttab",
                                                .tags = {"c++", "日本語", "x"},
                                                .time = 1420070400,
                                                .shared = false,
                                                .toread = true,
                                                .others = 12}));
  ASSERT_TRUE(
      sim.addBookmark("alice", Bookmark{.url = "https://example.com/untagged", .title = "u", .time = 1420070500}));
  ASSERT_TRUE(sim.addBookmark(
      "alice", Bookmark{.url = "https://example.com/old", .title = "o", .tags = {"x"}, .time = 1000000000}));
  Value all = run(client->retrieveAllPostsWithTags(Value()));
  ASSERT_EQ(all.count(), 3u);
  EXPECT_EQ(urls(all), (std::vector<std::string>{"https://example.com/untagged", "https://example.com/a?b=c&d=%20",
                                                 "https://example.com/old"}));
  const Dictionary& p = dict(all.asArray()[1]);
  auto stored = sim.bookmark("alice", "https://example.com/a?b=c&d=%20");
  EXPECT_EQ(p.allKeys(), (std::vector<std::string>{"date", "desc", "identifier", "meta", "shared", "tags", "title",
                                                   "unread", "url", "username"}))
      << "no others unless the service sends it";
  EXPECT_EQ(p[ZBPinboardPostIdentifierKey], Value(ZBMD5HexString("https://example.com/a?b=c&d=%20")));
  EXPECT_EQ(p[ZBPinboardPostMetaKey], Value(stored->meta));
  EXPECT_EQ(p[ZBPinboardPostTitleKey], Value("Ünïcödé “title” \\ /"));
  EXPECT_EQ(p[ZBPinboardPostDescKey], Value("line\nbreak\ttab"));
  EXPECT_EQ(p[ZBPinboardPostDateKey], Value(NSDate::dateWithTimeIntervalSince1970(1420070400)));
  EXPECT_EQ(p[ZBPinboardPostSharedKey], Value(false));
  EXPECT_TRUE(p[ZBPinboardPostSharedKey].isBool());
  EXPECT_EQ(p[ZBPinboardPostUnreadKey], Value(true));
  EXPECT_EQ(strings(p[ZBPinboardPostTagsKey]), (std::vector<std::string>{"c++", "日本語", "x"}));
  EXPECT_EQ(p[ZBPinboardPostUsernameKey], Value("alice"));
  const Dictionary& untagged = dict(all.asArray()[0]);
  EXPECT_TRUE(untagged[ZBPinboardPostTagsKey].isArray());
  EXPECT_EQ(untagged[ZBPinboardPostTagsKey].count(), 0u) << "present and empty: the post loses its tags";
  EXPECT_EQ(untagged[ZBPinboardPostSharedKey], Value(true));

  pinboard_sim::Quirks q = sim.quirks();
  q.includeOthers = true;
  sim.setQuirks(q);
  EXPECT_EQ(dict(run(client->retrieveAllPostsWithTags(Value())).asArray()[1])[ZBPinboardPostOthersKey], Value(12));

  // Date spans include both ends; no start date means from the beginning.
  // The client sends its ends as fromdt/todt unchanged, so it needs a service
  // that includes them (the simulator's default excludes them).
  q.inclusiveDateRange = true;
  sim.setQuirks(q);
  auto span = [&](Value start, Value end) {
    return urls(run(client->retrieveAllPostsWithTagsStartDate(Value(), start, end)));
  };
  const Value jan1(NSDate::dateWithTimeIntervalSince1970(1420070400));
  const Value later(NSDate::dateWithTimeIntervalSince1970(1420070500));
  EXPECT_EQ(span(jan1, later), (std::vector<std::string>{"https://example.com/untagged", "https://example.com/a?b=c&d=%20"}));
  EXPECT_EQ(span(Value(), jan1), (std::vector<std::string>{"https://example.com/a?b=c&d=%20", "https://example.com/old"}));
  EXPECT_EQ(span(Value(NSDate::dateWithTimeIntervalSince1970(1420070400.75)), later),
            (std::vector<std::string>{"https://example.com/untagged", "https://example.com/a?b=c&d=%20"}))
      << "fractions are cut to whole seconds, which the service needs";
  EXPECT_EQ(urls(run(client->retrieveAllPostsWithTags(Value(Set{Value("x"), Value("C++")})))),
            (std::vector<std::string>{"https://example.com/a?b=c&d=%20"}));
  expectFailure(client->retrieveAllPostsWithTags(Value(Array{Value("a"), Value("b"), Value("c"), Value("d")})),
                ZBPinboardKitInvalidArgumentError);
  expectFailure(client->retrieveAllPostsWithTags(Value(Array{Value(1)})), ZBPinboardKitInvalidArgumentError);
  expectFailure(client->retrieveAllPostsWithTagsStartDate(Value(), Value("yesterday"), Value()),
                ZBPinboardKitInvalidArgumentError);

  Value updated = run(client->retrieveLastPostUpdateDate());
  ASSERT_TRUE(updated.isDate());
  EXPECT_EQ(updated.asDate(), NSDate::dateWithTimeIntervalSince1970(static_cast<double>(sim.updateTime("alice"))));
}

// Over a megabyte: the list is cut into several runs while it arrives, also
// when the transfer decompresses it piece by piece.
TEST_F(PinboardClientTest, ALongListReadWhileItArrivesHoldsEveryBookmark) {
  signIn();
  ASSERT_TRUE(sim.generateBookmarks("alice", 2500));
  const std::vector<Bookmark> marks = sim.bookmarks("alice");
  for (int mask = 0; mask < 4; ++mask) {
    pinboard_sim::Quirks q;
    q.gzip = mask & 1;
    q.byteOrderMark = q.escapeNonASCII = q.includeOthers = mask & 2;
    sim.setQuirks(q);
    Value all = run(client->retrieveAllPostsWithTags(Value()));
    ASSERT_EQ(all.count(), marks.size()) << mask;
    for (std::size_t i = 0; i < marks.size(); ++i) {
      const Dictionary& p = dict(all.asArray()[i]);
      ASSERT_EQ(p[ZBPinboardPostURLKey], Value(marks[i].url)) << mask << " " << i;
      ASSERT_EQ(p[ZBPinboardPostIdentifierKey], Value(marks[i].hash)) << i;
      ASSERT_EQ(p[ZBPinboardPostTitleKey], Value(marks[i].title)) << i;
      ASSERT_EQ(p[ZBPinboardPostDescKey], Value(marks[i].extended)) << i;
      ASSERT_EQ(strings(p[ZBPinboardPostTagsKey]), marks[i].tags) << i;
      ASSERT_EQ(p[ZBPinboardPostOthersKey], q.includeOthers && marks[i].others ? Value(*marks[i].others) : Value()) << i;
    }
  }
}

// A transport that cannot stream hands the whole answer back at once.
class WholeAnswerTransport final : public ZBHTTPTransport {
public:
  explicit WholeAnswerTransport(std::string body) : _body(std::move(body)) {}
  bool send(const ZBHTTPRequest&, ZBHTTPResponse& response, const std::function<bool()>&, NSErrorPtr*) override {
    response.status = 200;
    response.body = _body;
    return true;
  }

private:
  const std::string _body;
};

TEST_F(PinboardClientTest, AWholeAnswerFromATransportThatCannotStreamIsReadTheSame) {
  ASSERT_TRUE(sim.generateBookmarks("alice", 2500));
  std::vector<const Bookmark*> posts;
  const std::vector<Bookmark> marks = sim.bookmarks("alice");
  for (const Bookmark& b : marks) posts.push_back(&b);
  std::string body = pinboard_sim::frame(pinboard_sim::postsArray(posts, pinboard_sim::Quirks()), {}, "\t");
  auto whole = ZBPinboardClient::create(defaults, std::make_shared<WholeAnswerTransport>(body));
  whole->setCredentials(ZBPinboardCredentials::create("alice", secret));
  Value all = run(whole->retrieveAllPostsWithTags(Value()));
  ASSERT_EQ(all.count(), marks.size());
  EXPECT_EQ(all, ZBPinboardResponseParser::posts(body, "alice", "posts/all"));
  EXPECT_EQ(dict(all.asArray().back())[ZBPinboardPostURLKey], Value(marks.back().url));
}

TEST_F(PinboardClientTest, EveryWireQuirkReadsTheSame) {
  signIn();
  ASSERT_TRUE(sim.addBookmark(
      "alice", Bookmark{.url = "https://a.org/x/y", .title = "Zürich → 🎉", .tags = {"a/b", "ü"}, .time = 5}));
  ASSERT_TRUE(sim.addBookmark("alice", Bookmark{.url = "https://a.org/z", .time = 4}));
  const Value posts = run(client->retrieveAllPostsWithTags(Value()));
  const Value feed = run(client->retrieveFeedWithUsername("alice", Value(), 10));
  const Value tags = run(client->retrieveTags());
  ASSERT_EQ(posts.count(), 2u);
  ASSERT_EQ(feed.count(), 2u);
  EXPECT_EQ(tags, Value(Dictionary{{"a/b", Value(1)}, {"ü", Value(1)}}));
  for (int mask = 0; mask < 64; ++mask) {
    pinboard_sim::Quirks q;
    q.byteOrderMark = mask & 1;
    q.trailingWhitespace = mask & 2;
    q.escapeNonASCII = mask & 4;
    q.escapeSlashes = mask & 8;
    q.stringCounts = mask & 16;
    q.feedDatesWithOffset = mask & 32;
    q.textPlain = mask & 1;
    q.untaggedFeedItemEmptyTag = mask & 2;
    q.gzip = mask & 4;
    sim.setQuirks(q);
    EXPECT_EQ(run(client->retrieveAllPostsWithTags(Value())), posts) << mask;
    EXPECT_EQ(run(client->retrieveFeedWithUsername("alice", Value(), 10)), feed) << mask;
    EXPECT_EQ(run(client->retrieveTags()), tags) << mask;
  }
  EXPECT_FALSE(sim.addBookmark("bob", Bookmark{})) << "no such account: nothing changes";
  pinboard_sim::Quirks empty;
  empty.emptyMapAsArray = true;
  sim.setQuirks(empty);
  ASSERT_TRUE(run(client->deleteTag("a/b")));
  ASSERT_TRUE(run(client->deleteTag("ü")));
  EXPECT_EQ(run(client->retrieveTags()), Value(Dictionary())) << "[] stands for an empty map";
}

TEST_F(PinboardClientTest, SendingAPostSendsEveryFieldAndEchoesItsIdentifier) {
  signIn();
  // A model dictionary: local keys ride along and are not sent.
  Dictionary properties{{"identifier", "local-id"},
                        {"url", "https://new.org/page"},
                        {"title", "New & “quoted”"},
                        {"desc", "notes + more"},
                        {"tags", Value(Set{Value("b"), Value("a"), Value("c++")})},
                        {"date", Value(NSDate::dateWithTimeIntervalSince1970(1600000000))},
                        {"shared", false},
                        {"unread", true},
                        {"starred", true},
                        {"dirty", true},
                        {"deleting", false},
                        {"source", 3}};
  Value result = run(client->updatePostWithProperties(properties));
  EXPECT_EQ(dict(result)[ZBPinboardPostIdentifierKey], Value("local-id")) << "the identifier that was sent";
  auto b = sim.bookmark("alice", "https://new.org/page");
  ASSERT_TRUE(b);
  EXPECT_EQ(b->title, "New & “quoted”");
  EXPECT_EQ(b->extended, "notes + more");
  EXPECT_EQ(b->tags, (std::vector<std::string>{"a", "b", "c++"}));
  EXPECT_EQ(b->time, 1600000000);
  EXPECT_FALSE(b->shared);
  EXPECT_TRUE(b->toread);
  const auto params = sim.requestLog().back().params;
  EXPECT_EQ(params.at("replace"), "yes");
  EXPECT_EQ(params.at("dt"), "2020-09-13T12:26:40Z");
  for (const char* local : {"identifier", "starred", "dirty", "deleting", "source"}) EXPECT_EQ(params.count(local), 0u);

  // Clearing fields locally clears them on the service: empty ones go out too.
  Dictionary cleared{{"url", "https://new.org/page"}, {"title", "Only a title"}, {"tags", Value(Array())},
                     {"shared", true}, {"unread", false}};
  result = run(client->updatePostWithProperties(cleared));
  ASSERT_TRUE(result);
  EXPECT_EQ(dict(result)[ZBPinboardPostIdentifierKey], Value(ZBMD5HexString("https://new.org/page")));
  b = sim.bookmark("alice", "https://new.org/page");
  EXPECT_EQ(b->extended, "");
  EXPECT_TRUE(b->tags.empty());
  EXPECT_TRUE(b->shared);
  EXPECT_FALSE(b->toread);

  // The service's refusals carry its words; bad input never leaves the client.
  NSErrorPtr error =
      expectFailure(client->createPostWithProperties({{"url", "gopher://x/"}, {"title", "t"}}), ZBPinboardKitServiceError);
  EXPECT_EQ(error->userInfo()[ZBPinboardResultCodeErrorKey], Value("missing url"));
  EXPECT_NE(error->localizedRecoverySuggestion().value_or("").find("missing url"), std::string::npos);
  std::size_t requests = sim.requestLog().size();
  expectFailure(client->updatePostWithProperties({{"title", "no url"}}), ZBPinboardKitInvalidArgumentError);
  expectFailure(client->updatePostWithProperties({{"url", "https://x/"}, {"date", "soon"}}), ZBPinboardKitInvalidArgumentError);
  expectFailure(client->updatePostWithProperties({{"url", "https://x/"}, {"tags", 7}}), ZBPinboardKitInvalidArgumentError);
  expectFailure(client->deletePostWithProperties({{"identifier", "x"}}), ZBPinboardKitInvalidArgumentError);
  // A comma or a space would make the service store two tags where one was
  // meant: such a tag is refused, naming it.
  for (const char* tag : {"a,b", "two words", "tab\there"}) {
    error = expectFailure(client->updatePostWithProperties({{"url", "https://x/"}, {"title", "t"},
                                                            {"tags", Value(Array{Value("ok"), Value(tag)})}}),
                          ZBPinboardKitInvalidArgumentError);
    EXPECT_NE(error->userInfo()[NSLocalizedFailureReasonErrorKey].asString().find(tag), std::string::npos);
  }
  expectFailure(client->renameTag("old", "new one"), ZBPinboardKitInvalidArgumentError);
  expectFailure(client->renameTag("a,b", "c"), ZBPinboardKitInvalidArgumentError);
  expectFailure(client->deleteTag("a,b"), ZBPinboardKitInvalidArgumentError);
  expectFailure(client->retrieveAllPostsWithTags(Value(Array{Value("x y")})), ZBPinboardKitInvalidArgumentError);
  EXPECT_EQ(sim.requestLog().size(), requests);

  // Deleting reports the identifier; a bookmark already gone counts as deleted.
  Dictionary doomed{{"identifier", "local-id"}, {"url", "https://new.org/page"}, {"deleting", true}};
  EXPECT_EQ(dict(run(client->deletePostWithProperties(doomed)))[ZBPinboardPostIdentifierKey], Value("local-id"));
  EXPECT_FALSE(sim.bookmark("alice", "https://new.org/page"));
  EXPECT_EQ(dict(run(client->deletePostWithProperties(doomed)))[ZBPinboardPostIdentifierKey], Value("local-id"));
}

TEST_F(PinboardClientTest, TagRequestsAnswerWithTheTitleToLookFor) {
  signIn();
  ASSERT_TRUE(sim.addBookmark("alice", Bookmark{.url = "https://1/", .tags = {"Old", "keep"}}));
  EXPECT_EQ(run(client->renameTag("old", "new")), Value("new"));
  EXPECT_EQ(sim.bookmark("alice", "https://1/")->tags, (std::vector<std::string>{"new", "keep"}));
  NSErrorPtr error = expectFailure(client->renameTag("keep", ""), ZBPinboardKitServiceError);
  EXPECT_EQ(error->userInfo()[ZBPinboardResultCodeErrorKey], Value("rename to null"));
  EXPECT_EQ(run(client->deleteTag("KEEP")), Value("KEEP"));
  EXPECT_EQ(run(client->deleteTag("never-there")), Value("never-there"));
  EXPECT_EQ(sim.bookmark("alice", "https://1/")->tags, (std::vector<std::string>{"new"}));
}

TEST_F(PinboardClientTest, SuggestedTagsListPopularThenRecommendedWithRepeats) {
  signIn();
  sim.setPopularTags("https://s.org/python", {"python", "programming"});
  ASSERT_TRUE(sim.addBookmark("alice", Bookmark{.url = "https://s.org/python", .tags = {"python", "mine"}}));
  EXPECT_EQ(strings(run(client->retrievePostSuggestedTagsForURL("https://s.org/python"))),
            (std::vector<std::string>{"python", "programming", "python", "mine"}));
  EXPECT_EQ(run(client->retrievePostSuggestedTagsForURL("https://unknown.org/")), Value(Array()));
  expectFailure(client->retrievePostSuggestedTagsForURL(""), ZBPinboardKitInvalidArgumentError);
}

TEST_F(PinboardClientTest, FeedsMapTheirItemsAndUseTheSecretKeyOnce) {
  signIn();
  pinboard_sim::AccountSeed bob;
  bob.username = "bob";
  sim.addAccount(bob);
  ASSERT_TRUE(sim.setNetwork("alice", {"bob"}));
  ASSERT_TRUE(sim.addBookmark("alice", Bookmark{.url = "https://a/priv",
                                                .title = "P",
                                                .extended = "n",
                                                .tags = {"t"},
                                                .time = 30,
                                                .shared = false,
                                                .starred = true,
                                                .source = "twitter"}));
  ASSERT_TRUE(sim.addBookmark("alice", Bookmark{.url = "https://a/pub", .time = 20, .source = "pocket"}));
  ASSERT_TRUE(sim.addBookmark(
      "bob", Bookmark{.url = "https://en.wikipedia.org/wiki/X", .title = "X", .tags = {"t", "u"}, .time = 10}));
  ASSERT_TRUE(sim.addBookmark("bob", Bookmark{.url = "https://b/t-only", .tags = {"t"}, .time = 5}));

  Value starred = run(client->retrieveFeedWithMethod("starred", true, 1000));
  ASSERT_EQ(starred.count(), 1u);
  const Dictionary& item = dict(starred.asArray()[0]);
  EXPECT_EQ(item.allKeys(), (std::vector<std::string>{"date", "desc", "identifier", "tags", "title", "url", "username"}));
  EXPECT_EQ(item[ZBPinboardPostURLKey], Value("https://a/priv"));
  EXPECT_EQ(item[ZBPinboardPostTitleKey], Value("P"));
  EXPECT_EQ(item[ZBPinboardPostDescKey], Value("n"));
  EXPECT_EQ(item[ZBPinboardPostUsernameKey], Value("alice"));
  EXPECT_EQ(item[ZBPinboardPostDateKey], Value(NSDate::dateWithTimeIntervalSince1970(30)));
  EXPECT_EQ(item[ZBPinboardPostIdentifierKey], Value(ZBMD5HexString("https://a/priv")));
  EXPECT_EQ(strings(item[ZBPinboardPostTagsKey]), (std::vector<std::string>{"t"}));

  EXPECT_EQ(urls(run(client->retrieveFeedWithSource("twitter", 1000))), (std::vector<std::string>{"https://a/priv"}))
      << "source feeds include private bookmarks";
  EXPECT_EQ(urls(run(client->retrieveFeedWithSource("pocket", 1000))), (std::vector<std::string>{"https://a/pub"}));
  EXPECT_EQ(run(client->retrieveFeedWithSource("delicious", 1000)), Value(Array()));
  Value network = run(client->retrieveFeedWithMethod("network", true, 100));
  EXPECT_EQ(urls(network), (std::vector<std::string>{"https://en.wikipedia.org/wiki/X", "https://b/t-only"}));
  EXPECT_EQ(dict(network.asArray()[0])[ZBPinboardPostUsernameKey], Value("bob"));
  EXPECT_EQ(sim.requestCount("/v1/user/secret"), 1u) << "the feed key is asked for once";

  EXPECT_EQ(urls(run(client->retrieveFeedWithMethod("popular/wikipedia", false, 10))),
            (std::vector<std::string>{"https://en.wikipedia.org/wiki/X"}));
  EXPECT_EQ(run(client->retrieveFeedWithMethod("recent", false, 2)).count(), 2u);
  EXPECT_EQ(urls(run(client->retrieveFeedWithUsername("bob", Value(Set{Value("u"), Value("t")}), 10))),
            (std::vector<std::string>{"https://en.wikipedia.org/wiki/X"}));
  EXPECT_EQ(urls(run(client->retrieveFeedWithUsername("", Value(Set{Value("t"), Value("")}), 10))),
            (std::vector<std::string>{"https://en.wikipedia.org/wiki/X", "https://b/t-only"}))
      << "an empty tag is ignored; private bookmarks never show";
  EXPECT_FALSE(client->retrieveFeedWithUsername("", Value(), 10)) << "the whole site is too broad";
  EXPECT_FALSE(client->retrieveFeedWithUsername("", Value(Set{Value("")}), 10));
  EXPECT_EQ(run(client->retrieveFeedWithUsername("bob", Value(Set{Value("no such tag")}), 10)), Value(Array()));
  expectFailure(client->retrieveFeedWithUsername("nobody", Value(), 10), ZBPinboardKitServerError);

  // Signing in as someone else asks for their key.
  pinboard_sim::AccountSeed carol;
  carol.username = "carol";
  std::string carolToken = sim.addAccount(carol);
  client->setCredentials(ZBPinboardCredentials::create("carol", carolToken.substr(6)));
  EXPECT_EQ(run(client->retrieveFeedWithMethod("starred", true, 10)), Value(Array()));
  EXPECT_EQ(sim.requestCount("/v1/user/secret"), 2u);
}

}  // namespace
