// The refresh against the simulator: what it merges, what it leaves alone,
// where it stops.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <functional>
#include <map>
#include <set>

#include "platform/predicate/ZBStringFolding.h"
#include "support/WaitUntil.h"
#include "sync/SyncTestSupport.h"
#include "sync/ZBTarrowDataError.h"
#include "sync/ZBTarrowPinboardRefreshOperation.h"

namespace {

using pinboard_sim::Bookmark;

class RefreshTest : public SyncTest {
protected:
  Value refresh(NSErrorPtr* error = nullptr, bool localOnly = false) {
    auto op = ZBTarrowPinboardRefreshOperation::create(client, root);
    op->setRefreshLocalChangesOnly(localOnly);
    return run(op, error);
  }
  void expectRefreshes() {
    NSErrorPtr error;
    EXPECT_EQ(refresh(&error), Value(true)) << (error ? error->description() : "");
  }

  // Every local post by URL, read from the store in a fresh context.
  std::map<std::string, Dictionary> localPosts() {
    auto context = NSManagedObjectContext::create(NSPrivateQueueConcurrencyType);
    std::map<std::string, Dictionary> posts;
    context->performBlockAndWait([&] {
      context->setPersistentStoreCoordinator(stack->persistentStoreCoordinator());
      auto request = NSFetchRequest::fetchRequestWithEntityName(ZBTarrowPinboardPostEntityName);
      auto objects = context->executeFetchRequest(*request);
      ASSERT_TRUE(objects);
      for (const Value& v : *objects) {
        auto post = v.as<ZBTarrowPinboardPost>();
        posts[post->url().value_or("")] = post->dictionaryRepresentation();
      }
    });
    return posts;
  }

  // The local posts equal the service's bookmarks, field by field, and
  // nothing is left to push.
  void expectInStep() {
    auto local = localPosts();
    auto server = sim.bookmarks("alice");
    EXPECT_EQ(local.size(), server.size());
    for (const Bookmark& b : server) {
      SCOPED_TRACE(b.url);
      auto it = local.find(b.url);
      ASSERT_NE(it, local.end());
      const Dictionary& p = it->second;
      EXPECT_EQ(p[ZBTarrowPinboardPostIdentifierKey], Value(b.hash));
      EXPECT_EQ(p[ZBTarrowPinboardPostMetaKey], Value(b.meta));
      EXPECT_EQ(p[ZBTarrowPinboardPostTitleKey].asString(), b.title);
      EXPECT_EQ(p[ZBTarrowPinboardPostDescKey].asString(), b.extended);
      // Tags differing only in case are one tag here, spelled as first seen.
      std::set<std::string> local, remote;
      for (const Value& t : p[ZBTarrowPinboardPostTagsKey].collectionElements()) local.insert(ZBFoldString(t.asString(), true, false));
      for (const auto& t : b.tags) remote.insert(ZBFoldString(t, true, false));
      EXPECT_EQ(local, remote);
      EXPECT_EQ(p[ZBTarrowPinboardPostSharedKey].boolValue(), b.shared);
      EXPECT_EQ(p[ZBTarrowPinboardPostUnreadKey].boolValue(), b.toread);
      EXPECT_FALSE(p[ZBTarrowPinboardObjectDirtyKey].boolValue());
    }
  }

  // How many transactions other connections committed to the Pinboard store
  // since the last call (PRAGMA data_version, read on a connection of our own).
  int commitsSince() {
    if (!_db) {
      auto path = environment.stores() / "Pinboard" / "Pinboard.sqlite";
      EXPECT_EQ(sqlite3_open_v2(path.c_str(), &_db, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
    }
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(_db, "PRAGMA data_version", -1, &statement, nullptr);
    sqlite3_step(statement);
    int version = sqlite3_column_int(statement, 0);
    sqlite3_finalize(statement);
    int changes = version - _version;
    _version = version;
    return changes;
  }
  ~RefreshTest() override {
    if (_db) sqlite3_close(_db);
  }

  Value storedDate() {
    return NSUserDefaults::standardUserDefaults()->objectForKey(
        ZBTarrowPinboardRefreshOperationLastUpdateTimestampDefaultKey);
  }

private:
  sqlite3* _db = nullptr;
  int _version = 0;
};

TEST_F(RefreshTest, FirstRefreshTakesEverythingAndAnUnchangedAccountWritesNothing) {
  ASSERT_TRUE(sim.generateBookmarks("alice", 300));
  ASSERT_TRUE(sim.setStarred("alice", sim.bookmarks("alice")[3].url, true));
  ASSERT_TRUE(sim.setSource("alice", sim.bookmarks("alice")[5].url, "pocket"));
  auto op = ZBTarrowPinboardRefreshOperation::create(client, root);
  std::vector<std::string> statuses;
  auto observation = op->addObserver("status", NSKeyValueObservingOptions::None,
                                     [&](const std::string&, NSObject& o, const NSKeyValueChange&) {
                                       statuses.push_back(o.valueForKey("status").asString());
                                     });
  EXPECT_EQ(run(op), Value(true));
  observation.invalidate();
  EXPECT_EQ(statuses, (std::vector<std::string>{
                          "Retrieving local changes…", "Sending local changes to Pinboard…", "Cleanup local data…",
                          "Retrieving last update date…", "Refreshing latest bookmarks…",
                          "Refreshing all bookmarks from Pinboard…", "Retrieving starred bookmarks from Pinboard…",
                          "Retrieving bookmark sources from Pinboard…"}));
  expectInStep();
  auto local = localPosts();
  EXPECT_EQ(local[sim.bookmarks("alice")[3].url][ZBTarrowPinboardPostStarredKey], Value(true));
  EXPECT_EQ(local[sim.bookmarks("alice")[5].url][ZBTarrowPinboardPostSourceKey], Value(4));
  EXPECT_EQ(storedDate(), Value(NSDate::dateWithTimeIntervalSince1970(static_cast<double>(sim.updateTime("alice")))));

  // Nothing changed: one request, no transaction.
  commitsSince();
  sim.clearRequestLog();
  expectRefreshes();
  EXPECT_EQ(commitsSince(), 0);
  auto log = sim.requestLog();
  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(log[0].path, "/v1/posts/update");

  // Changed on the service (even with the stored date gone): merged, and the
  // full list runs again.
  tick();
  Bookmark edited = sim.bookmarks("alice")[7];
  edited.title = "Changed there";
  ASSERT_TRUE(sim.addBookmark("alice", edited));
  NSUserDefaults::standardUserDefaults()->removeObject(ZBTarrowPinboardRefreshOperationLastUpdateTimestampDefaultKey);
  expectRefreshes();
  expectInStep();
}

// Local edits made while the service's list is on its way win over it; the
// stale pass spares local creations and edits but not local deletes; a
// bookmark whose tags were all removed there loses them here; starred is
// never cleared by the feed.
TEST_F(RefreshTest, MergeRulesAgainstEditsMadeDuringTheRun) {
  for (const char* url : {"https://x.example/", "https://y.example/", "https://z.example/", "https://w.example/",
                          "https://s.example/"})
    ASSERT_TRUE(sim.addBookmark("alice", bookmark(url, "T", {"t1", "t2"})));
  ASSERT_TRUE(sim.setStarred("alice", "https://s.example/", true));
  expectRefreshes();

  tick();
  Bookmark x = *sim.bookmark("alice", "https://x.example/");
  x.title = "theirs";
  ASSERT_TRUE(sim.addBookmark("alice", x));
  Bookmark w = *sim.bookmark("alice", "https://w.example/");
  w.tags.clear();
  ASSERT_TRUE(sim.addBookmark("alice", w));
  // posts/delete through the API, as another client would.
  for (const char* url : {"https://y.example/", "https://z.example/"}) {
    auto op = client->deletePostWithProperties(Dictionary{{ZBTarrowPinboardPostURLKey, Value(url)}});
    ASSERT_TRUE(run(op));
  }
  ASSERT_TRUE(sim.setStarred("alice", "https://s.example/", false));

  auto gate = std::make_shared<GateTransport>("posts/all");
  makeClient(gate);
  auto edit = [&] {
    root->performBlockAndWait([&] {
      auto request = NSFetchRequest::fetchRequestWithEntityName(ZBTarrowPinboardPostEntityName);
      for (const Value& v : fetched(*request)) {
        auto post = v.as<ZBTarrowPinboardPost>();
        if (post->url() == "https://x.example/") post->setTitle("mine");
        if (post->url() != "https://x.example/" && post->url() != "https://y.example/" &&
            post->url() != "https://z.example/")
          continue;
        post->setDirty(true);
        if (post->url() == "https://z.example/") post->setDeleting(true);
      }
      ASSERT_TRUE(root->save());
    });
  };
  NSErrorPtr error;
  EXPECT_EQ(runHeld(*gate, ZBTarrowPinboardRefreshOperation::create(client, root), edit, &error), Value(true))
      << (error ? error->description() : "");

  auto local = localPosts();
  EXPECT_EQ(local["https://x.example/"][ZBTarrowPinboardPostTitleKey], Value("mine"));
  EXPECT_EQ(local["https://x.example/"][ZBTarrowPinboardObjectDirtyKey], Value(true));
  ASSERT_TRUE(local.count("https://y.example/"));  // dirty, not deleting: a local edit survives
  EXPECT_FALSE(local.count("https://z.example/"));  // deleted on both sides
  EXPECT_EQ(local["https://w.example/"][ZBTarrowPinboardPostTagsKey], Value(Set()));
  EXPECT_EQ(local["https://s.example/"][ZBTarrowPinboardPostStarredKey], Value(true));

  // The next run pushes the survivors and settles. (Its push must land in a
  // later second than the last merge: in the same second the service's date
  // would not move, and the run would end before pulling the new meta.)
  tick();
  expectRefreshes();
  EXPECT_EQ(sim.bookmark("alice", "https://x.example/")->title, "mine");
  expectInStep();
}

TEST_F(RefreshTest, EmptyAnswersRemoveNothingAndTheDateIsKeptWhenALaterPhaseFails) {
  addPost("https://kept.example/", "Kept", false, false, {"tag"});
  // The service has nothing: both lists come back empty and delete nothing.
  expectRefreshes();
  EXPECT_EQ(localPosts().size(), 1u);

  Bookmark added = bookmark("https://new.example/", "New");
  added.time = tick();  // a new bookmark moves the service's date
  ASSERT_TRUE(sim.addBookmark("alice", added));
  sim.addFault(*pinboard_sim::Fault::parse("/json/*:status=500"));
  NSErrorPtr error;
  EXPECT_FALSE(refresh(&error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), ZBPinboardKitErrorDomain);
  EXPECT_EQ(storedDate(), Value(NSDate::dateWithTimeIntervalSince1970(static_cast<double>(sim.updateTime("alice")))));
  EXPECT_TRUE(localPosts().count("https://new.example/"));
  sim.clearFaults();
  sim.clearRequestLog();
  expectRefreshes();  // the date has not moved: the run ends at phase 5
  EXPECT_EQ(sim.requestLog().size(), 1u);
}

TEST_F(RefreshTest, LocalOnlyRunsPushAndTidyAndAskNothingElse) {
  addPost("https://mine.example/", "Mine", true, false, {"t"});
  addPost("https://gone.example/", "Gone", true, true, {"orphan"});
  ASSERT_TRUE(sim.addBookmark("alice", bookmark("https://gone.example/", "Gone", {"orphan"})));
  NSErrorPtr error;
  EXPECT_EQ(refresh(&error, true), Value(true)) << (error ? error->description() : "");
  std::set<std::string> paths;
  for (const auto& r : sim.requestLog()) paths.insert(r.path);
  EXPECT_EQ(paths, (std::set<std::string>{"/v1/posts/add", "/v1/posts/delete"}));
  EXPECT_TRUE(sim.bookmark("alice", "https://mine.example/"));
  EXPECT_FALSE(sim.bookmark("alice", "https://gone.example/"));
  root->performBlockAndWait([&] {
    auto request = NSFetchRequest::fetchRequestWithEntityName(ZBTarrowPinboardTagEntityName);
    std::set<std::string> titles;
    for (const Value& v : fetched(*request)) titles.insert(*v.as<ZBTarrowPinboardTag>()->title());
    EXPECT_EQ(titles, std::set<std::string>{"t"});  // "orphan" lost its last post
  });
  EXPECT_FALSE(storedDate());
}

TEST_F(RefreshTest, AFailedPushEndsTheRunAfterSavingWhatWentThrough) {
  addPost("https://ok.example/", "OK", true);
  addPost("not a url", "Refused", true);
  NSErrorPtr error;
  EXPECT_FALSE(refresh(&error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), ZBTarrowDataErrorDomain);
  EXPECT_EQ(error->code(), 0);
  auto local = localPosts();
  EXPECT_EQ(local["https://ok.example/"][ZBTarrowPinboardObjectDirtyKey], Value(false));  // saved to the file
  EXPECT_EQ(local["not a url"][ZBTarrowPinboardObjectDirtyKey], Value(true));
  for (const auto& r : sim.requestLog()) EXPECT_NE(r.path, "/v1/posts/update");
}

TEST_F(RefreshTest, CancelledBetweenPhasesStopsWithTheCancellationError) {
  auto gate = std::make_shared<GateTransport>("posts/update");
  makeClient(gate);
  auto op = ZBTarrowPinboardRefreshOperation::create(client, root);
  NSErrorPtr error;
  EXPECT_FALSE(runHeld(*gate, op, [&] { op->cancel(); }, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
  EXPECT_EQ(error->code(), NSUserCancelledError);
  EXPECT_TRUE(error->userInfo().empty());
  EXPECT_EQ(sim.requestCount("/v1/posts/all"), 0u);
}

// Cancelled while its full list waits out the service's five minutes: the
// wait is abandoned at once and nothing more reaches the service.
TEST_F(RefreshTest, CancelledWhileWaitingForItsTurnLeavesTheLineAtOnce) {
  ASSERT_TRUE(sim.addBookmark("alice", bookmark("https://example.com/a", "A")));
  NSUserDefaults::standardUserDefaults()->setObject(Value(NSDate(1.0)),
                                                    ZBTarrowPinboardRefreshOperationLastUpdateTimestampDefaultKey);
  defaults->setObject(Value(300.0), ZBPinboardAllPostsIntervalDefaultKey);
  makeClient(nullptr);
  auto op = ZBTarrowPinboardRefreshOperation::create(client, root);
  auto queue = NSOperationQueue::create();
  queue->addOperation(op);
  // Phase 5's list left; phase 6's waits for its turn, and the status says so.
  const std::string waiting = "Waiting for Pinboard’s rate limit… ";
  ASSERT_TRUE(WaitUntil([&] { return op->status().starts_with(waiting); })) << op->status();
  const std::string left = op->status().substr(waiting.size());
  EXPECT_TRUE(left.starts_with("5:0") || left.starts_with("4:5")) << left;
  const std::size_t sent = sim.requestLog().size();
  op->cancel();
  ASSERT_TRUE(WaitUntil([&] { return op->isFinished(); }));  // far sooner than the five minutes
  NSErrorPtr error;
  EXPECT_FALSE(op->completionProvider()(&error));
  EXPECT_EQ(sim.requestLog().size(), sent);
}

// The service stores a write, then answers with an error: the run fails,
// the edit stays waiting, and the next run settles without doubling anything.
TEST_F(RefreshTest, WritesAppliedBehindAnErrorSettleOnTheNextRun) {
  struct Case {
    const char* name;
    const char* path;
    std::function<void(ZBTarrowPinboardPost&)> edit;  // on https://a.example/, tagged "old"
  } cases[] = {
      {"edit", "/v1/posts/add", [](ZBTarrowPinboardPost& p) { p.setTitle("edited"); }},
      {"delete", "/v1/posts/delete", [](ZBTarrowPinboardPost& p) { p.setDeleting(true); }},
      {"new bookmark", "/v1/posts/add",
       [](ZBTarrowPinboardPost& p) {
         auto created = p.managedObjectContext()->insertNewObject<ZBTarrowPinboardPost>(ZBTarrowPinboardPostEntityName);
         created->setUrl("https://new.example/");
         created->setIdentifier(ZBTarrowPinboardPost::identifierForURL("https://new.example/"));
         created->setTitle("New");
         created->setDirty(true);
       }},
      {"tag rename", "/v1/tags/rename",
       [](ZBTarrowPinboardPost& p) {
         auto tag = *p.tags().begin();
         tag->setValueForKey(Value("old"), ZBTarrowPinboardTagPreviousTitleKey);
         tag->setTitle("renamed");
         tag->setDirty(true);
       }},
      {"tag delete", "/v1/tags/delete",
       [](ZBTarrowPinboardPost& p) {
         auto tag = *p.tags().begin();
         tag->setDeleting(true);
         tag->setDirty(true);
       }},
  };
  for (const auto& c : cases) {
    for (const char* effect : {"status=500", "garbage", "cut"}) {
      SCOPED_TRACE(std::string(c.name) + " " + effect);
      sim.clearFaults();
      for (const auto& b : sim.bookmarks("alice")) {
        ASSERT_TRUE(run(client->deletePostWithProperties(Dictionary{{ZBTarrowPinboardPostURLKey, Value(b.url)}})));
      }
      tick();
      ASSERT_TRUE(sim.addBookmark("alice", bookmark("https://a.example/", "A", {"old", "keep"})));
      tick();
      expectRefreshes();
      root->performBlockAndWait([&] {
        auto request = NSFetchRequest::fetchRequestWithEntityName(ZBTarrowPinboardPostEntityName);
        request->setPredicate(NSPredicate::predicateWithFormat("%K == %@", {Value(ZBTarrowPinboardPostURLKey), Value("https://a.example/")}));
        auto found = fetched(*request);
        ASSERT_EQ(found.size(), 1u);
        auto post = found[0].as<ZBTarrowPinboardPost>();
        // Keep "old" first: the cases edit the first tag.
        if (*(*post->tags().begin())->title() != "old") {
          (void)post->updateWithDictionaryRepresentation(Dictionary{{ZBTarrowPinboardPostTagsKey, Value(Set{Value("old")})}});
          post->setDirty(false);
        }
        c.edit(*post);
        if (std::string(c.name) == "edit" || std::string(c.name) == "delete") post->setDirty(true);
        ASSERT_TRUE(root->save());
      });
      tick();
      sim.addFault(*pinboard_sim::Fault::parse(std::string(c.path) + ":" + effect + ",times=1,apply"));
      NSErrorPtr error;
      EXPECT_FALSE(refresh(&error));
      sim.clearFaults();
      tick();
      expectRefreshes();
      expectInStep();
      if (HasFailure()) return;
    }
  }
}

// A tag holding a comma or a space (another program's, an import's) reaches
// the service split, as the service would store it, and the next run brings
// the split tags back: no refresh fails on it, none loops.
TEST_F(RefreshTest, ATagWithCommasGoesOutSplitAndComesBackSplit) {
  addPost("https://a.example/", "A", true, false, {"a,b c", "d"});
  expectRefreshes();
  auto server = sim.bookmark("alice", "https://a.example/");
  ASSERT_TRUE(server);
  EXPECT_EQ(std::set<std::string>(server->tags.begin(), server->tags.end()),
            (std::set<std::string>{"a", "b", "c", "d"}));
  tick();
  expectRefreshes();
  expectInStep();
}

}  // namespace
