// Writes: what a retry does after the service applied a write behind an
// error, what creating does to a bookmark the service has, untitled edits.
#include <atomic>

#include "PinboardClientTestSupport.h"

using pinboard_sim::Bookmark;

namespace {

std::string state(const std::optional<Bookmark>& b) {
  if (!b) return "(none)";
  std::string s = b->title + "|" + b->extended + "|" + std::to_string(b->time) + "|" + b->meta + "|";
  for (const auto& t : b->tags) s += t + " ";
  return s;
}

TEST_F(PinboardClientTest, WritesAppliedBehindAnErrorConvergeWhenRetried) {
  // The service stores the write, then its answer is lost (HTTP 500).
  auto tap = std::make_shared<TapTransport>();
  std::atomic<int> spoil{0};
  tap->afterAnswer = [&](const ZBHTTPRequest&, ZBHTTPResponse& response) {
    if (spoil.fetch_sub(1) > 0) {
      response.status = 500;
      response.body = "Internal Server Error";
    }
  };
  auto tapped = ZBPinboardClient::create(defaults, tap);
  tapped->setCredentials(ZBPinboardCredentials::create("alice", secret));
  ASSERT_TRUE(sim.addBookmark("alice", Bookmark{.url = "https://kept/", .title = "Kept", .tags = {"old", "x"}}));
  ASSERT_TRUE(sim.addBookmark("alice", Bookmark{.url = "https://doomed/", .title = "Doomed"}));
  const Dictionary fresh{{"url", "https://fresh/"}, {"title", "Fresh"}, {"desc", "notes"},
                         {"tags", Value(Array{Value("t")})}, {"unread", true}};
  const Dictionary edit{{"url", "https://kept/"}, {"title", "Kept"}, {"desc", "more"},
                        {"tags", Value(Array{Value("old"), Value("x")})}};
  auto tags = [&] { return sim.bookmark("alice", "https://kept/")->tags; };
  struct Case {
    const char* what;
    std::function<ZBPinboardClient::Operation()> make;
    std::function<bool()> applied;
  };
  const Case cases[] = {
      {"create", [&] { return tapped->createPostWithProperties(fresh); },
       [&] { return state(sim.bookmark("alice", "https://fresh/")).rfind("Fresh|notes|", 0) == 0; }},
      {"update", [&] { return tapped->updatePostWithProperties(edit); },
       [&] { return sim.bookmark("alice", "https://kept/")->extended == "more"; }},
      {"delete post", [&] { return tapped->deletePostWithProperties({{"url", "https://doomed/"}}); },
       [&] { return !sim.bookmark("alice", "https://doomed/"); }},
      {"rename tag", [&] { return tapped->renameTag("old", "new"); },
       [&] { return tags() == std::vector<std::string>{"new", "x"}; }},
      {"delete tag", [&] { return tapped->deleteTag("x"); }, [&] { return tags() == std::vector<std::string>{"new"}; }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    spoil = 1;
    expectFailure(c.make(), ZBPinboardKitServerError);
    ASSERT_TRUE(c.applied()) << "the service kept the first attempt";
    const std::string freshState = state(sim.bookmark("alice", "https://fresh/"));
    const std::string keptState = state(sim.bookmark("alice", "https://kept/"));
    NSErrorPtr error;
    EXPECT_TRUE(run(c.make(), &error)) << (error ? error->description() : "");
    EXPECT_TRUE(c.applied());
    EXPECT_EQ(state(sim.bookmark("alice", "https://fresh/")), freshState) << "the retry changed nothing more";
    EXPECT_EQ(state(sim.bookmark("alice", "https://kept/")), keptState);
  }
}

TEST_F(PinboardClientTest, CreatingNeverOverwritesABookmarkTheServiceHas) {
  signIn();
  ASSERT_TRUE(sim.addBookmark("alice", Bookmark{.url = "https://saved/", .title = "Saved", .extended = "my notes",
                                                .tags = {"keep"}, .time = 1000}));
  const std::string before = state(sim.bookmark("alice", "https://saved/"));
  // The share extension saves the same address anew.
  NSErrorPtr error = expectFailure(
      client->createPostWithProperties({{"url", "https://saved/"}, {"title", "Shared page"}, {"tags", Value(Array())}}),
      ZBPinboardKitServiceError);
  EXPECT_EQ(error->userInfo()[ZBPinboardResultCodeErrorKey], Value("item already exists"));
  EXPECT_EQ(state(sim.bookmark("alice", "https://saved/")), before);
  for (const auto& r : sim.requestLog()) {
    if (r.path == "/v1/posts/add") {
      EXPECT_EQ(r.params.at("replace"), "no");
    }
  }
  // An edit replaces it, as edits must.
  ASSERT_TRUE(run(client->updatePostWithProperties({{"url", "https://saved/"}, {"title", "Edited"}})));
  EXPECT_EQ(sim.bookmark("alice", "https://saved/")->title, "Edited");
  EXPECT_EQ(sim.requestLog().back().params.at("replace"), "yes");
}

TEST_F(PinboardClientTest, AnUntitledBookmarkIsStillSentAndEdited) {
  signIn();
  ASSERT_TRUE(sim.addBookmark("alice", Bookmark{.url = "https://untitled/", .tags = {"a"}}));
  const Dictionary edits[] = {
      {{"url", "https://untitled/"}, {"title", ""}, {"tags", Value(Array{Value("b")})}},
      {{"url", "https://untitled/"}, {"tags", Value(Array{Value("c")})}},  // no title at all
  };
  for (const Dictionary& edit : edits) {
    NSErrorPtr error;
    ASSERT_TRUE(run(client->updatePostWithProperties(edit), &error)) << (error ? error->description() : "");
    EXPECT_EQ(sim.requestLog().back().params.at("description"), "[no title]");
    EXPECT_EQ(Value(sim.bookmark("alice", "https://untitled/")->tags.at(0)), edit[ZBPinboardPostTagsKey].asArray()[0]);
  }
  ASSERT_TRUE(run(client->createPostWithProperties({{"url", "https://new-untitled/"}})));
  EXPECT_EQ(sim.bookmark("alice", "https://new-untitled/")->title, "[no title]");
}

}  // namespace
