// The push operations and the search against the simulator, with real
// requests and a real store.

#include <gtest/gtest.h>

#include <set>

#include "model/ZBTarrowSearch.h"
#include "sync/SyncTestSupport.h"
#include "sync/ZBTarrowDataError.h"
#include "sync/ZBTarrowPinboardPostCreationOperation.h"
#include "sync/ZBTarrowPinboardPostUpdateOperation.h"
#include "sync/ZBTarrowPinboardSearchOperation.h"
#include "sync/ZBTarrowPinboardTagUpdateOperation.h"

namespace {

using pinboard_sim::Bookmark;

// The batch error's shape: code 0 in the library's domain, how many went
// through, and the domain and code of each failure in item order.
void expectBatchError(const NSErrorPtr& error, const std::string& description, std::size_t succeeded,
                      const std::vector<std::pair<std::string, std::int64_t>>& failures) {
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), ZBTarrowDataErrorDomain);
  EXPECT_EQ(error->code(), 0);
  EXPECT_EQ(error->userInfo().size(), 4u);
  EXPECT_EQ(error->localizedDescription(), description);
  const Array& results = error->userInfo()[ZBTarrowDataSucceededResultsKey].asArray();
  EXPECT_EQ(results.size(), succeeded);
  for (const Value& r : results) EXPECT_EQ(r, Value(true));
  const Array& errors = error->userInfo()[ZBTarrowDataUnderlyingErrorsKey].asArray();
  ASSERT_EQ(errors.size(), failures.size()) << error->description();
  for (std::size_t i = 0; i < errors.size(); ++i) {
    auto e = errors[i].as<NSError>();
    ASSERT_TRUE(e) << i;
    EXPECT_EQ(e->domain(), failures[i].first) << e->description();
    EXPECT_EQ(e->code(), failures[i].second) << e->description();
  }
}

std::multiset<std::string> segments(const std::string& path) {
  std::multiset<std::string> result;
  std::size_t start = 0, slash;
  while ((slash = path.find('/', start)) != std::string::npos) {
    if (slash > start) result.insert(path.substr(start, slash - start));
    start = slash + 1;
  }
  if (start < path.size()) result.insert(path.substr(start));
  return result;
}

class PushTest : public SyncTest {};

TEST_F(PushTest, PostUpdatePushesEditsAndDeletesAndAggregatesEachPostsFailure) {
  ASSERT_TRUE(sim.addBookmark("alice", bookmark("https://a.example/", "old A")));
  ASSERT_TRUE(sim.addBookmark("alice", bookmark("https://b.example/", "B")));
  addPost("https://a.example/", "new A", true, false, {"x", "y"});
  addPost("https://b.example/", "B", true, true);          // deleted here
  addPost("https://gone.example/", "G", true, true);       // deleted here, already gone there
  addPost("not a url", "C", true);                         // the service refuses it
  Array posts = dictionaries(ZBTarrowPinboardPostEntityName, ZBTarrowPinboardObjectDirtyKey);
  ASSERT_EQ(posts.size(), 4u);
  // A post without identifier fails alone; a deleting post missing from the
  // store (taken away meanwhile) still counts as pushed.
  Dictionary noIdentifier{{ZBTarrowPinboardPostURLKey, Value("https://d.example/")}};
  Dictionary vanished{{ZBTarrowPinboardPostURLKey, Value("https://v.example/")},
                      {ZBTarrowPinboardPostIdentifierKey, Value(ZBTarrowPinboardPost::identifierForURL("https://v.example/"))},
                      {ZBTarrowPinboardObjectDeletingKey, Value(true)}};
  std::sort(posts.begin(), posts.end(), [](const Value& a, const Value& b) {
    return a.asDictionary()[ZBTarrowPinboardPostURLKey].asString() < b.asDictionary()[ZBTarrowPinboardPostURLKey].asString();
  });
  posts.push_back(Value(noIdentifier));
  posts.push_back(Value(vanished));

  NSErrorPtr error;
  EXPECT_FALSE(run(ZBTarrowPinboardPostUpdateOperation::create(posts, client, root), &error));
  // Items in order: a, b, gone, not a url (service), no identifier (validation), vanished.
  expectBatchError(error, "Couldn’t Update Some Bookmarks", 4,
                   {{ZBPinboardKitErrorDomain, ZBPinboardKitServiceError},
                    {NSCocoaErrorDomain, NSValidationMissingMandatoryPropertyError}});
  saveRoot();

  EXPECT_EQ(sim.bookmark("alice", "https://a.example/")->title, "new A");
  EXPECT_EQ(sim.bookmark("alice", "https://a.example/")->tags, (std::vector<std::string>{"x", "y"}));
  EXPECT_FALSE(sim.bookmark("alice", "https://b.example/"));
  EXPECT_EQ(storedPost("https://a.example/")[ZBTarrowPinboardObjectDirtyKey], Value(false));
  EXPECT_TRUE(storedPost("https://b.example/").empty());
  EXPECT_TRUE(storedPost("https://gone.example/").empty());
  EXPECT_EQ(storedPost("not a url")[ZBTarrowPinboardObjectDirtyKey], Value(true));

  // Nothing to push: true.
  EXPECT_EQ(run(ZBTarrowPinboardPostUpdateOperation::create({}, client, root)), Value(true));
}

TEST_F(PushTest, PostUpdateKeepsAnEditMadeWhileItsRequestWasOut) {
  addPost("https://a.example/", "sent", true);
  addPost("https://b.example/", "B", true, true);
  Array posts = dictionaries(ZBTarrowPinboardPostEntityName, ZBTarrowPinboardObjectDirtyKey);
  ASSERT_TRUE(sim.addBookmark("alice", bookmark("https://b.example/", "B")));
  // After the dictionaries were taken: a new title, and the delete undone.
  root->performBlockAndWait([&] {
    auto request = NSFetchRequest::fetchRequestWithEntityName(ZBTarrowPinboardPostEntityName);
    for (const Value& v : fetched(*request)) {
      auto post = v.as<ZBTarrowPinboardPost>();
      if (post->url() == "https://a.example/") post->setTitle("edited meanwhile");
      else post->setDeleting(false);
    }
    ASSERT_TRUE(root->save());
  });

  EXPECT_EQ(run(ZBTarrowPinboardPostUpdateOperation::create(posts, client, root)), Value(true));
  saveRoot();
  EXPECT_EQ(sim.bookmark("alice", "https://a.example/")->title, "sent");
  Dictionary a = storedPost("https://a.example/"), b = storedPost("https://b.example/");
  EXPECT_EQ(a[ZBTarrowPinboardPostTitleKey], Value("edited meanwhile"));
  EXPECT_EQ(a[ZBTarrowPinboardObjectDirtyKey], Value(true));
  ASSERT_FALSE(b.empty());  // not removed: the user took the delete back
  EXPECT_EQ(b[ZBTarrowPinboardObjectDirtyKey], Value(true));
}

// Many posts, a fault of every kind scattered among them: each post that
// failed stays dirty and unchanged on the service, each that went through is
// clean and on the service, and a second push settles the rest.
TEST_F(PushTest, PostUpdateOfThousandsWithScatteredFaultsSettlesPostByPost) {
  constexpr int kPosts = 2000;
  root->performBlockAndWait([&] {
    for (int i = 0; i < kPosts; ++i) {
      auto post = root->insertNewObject<ZBTarrowPinboardPost>(ZBTarrowPinboardPostEntityName);
      std::string url = "https://p.example/" + std::to_string(i);
      post->setUrl(url);
      post->setIdentifier(ZBTarrowPinboardPost::identifierForURL(url));
      post->setTitle("edit " + std::to_string(i));
      post->setDirty(true);
    }
    ASSERT_TRUE(root->save());
  });
  // "apply": the service stores the edit, then answers with the fault.
  const char* kinds[] = {"status=500",       "status=503", "garbage", "truncate",         "drop",
                         "cut",              "empty",      "status=401", "status=500,apply", "garbage,apply"};
  for (int k = 0; k < kPosts / 100; ++k) {
    std::string text = "/v1/posts/add:" + std::string(kinds[k % 10]) + ",times=1,after=" + std::to_string(k * 97);
    auto fault = pinboard_sim::Fault::parse(text);
    ASSERT_TRUE(fault) << text;
    sim.addFault(*fault);
  }
  sim.addFault(*pinboard_sim::Fault::parse("/v1/posts/add:status=429,times=3,after=50"));  // retried by the client
  // An answer later than the time-out.
  defaults->setObject(Value(2.0), ZBPinboardRequestTimeoutDefaultKey);
  sim.addFault(*pinboard_sim::Fault::parse("/v1/posts/add:delay=4,times=1,after=1500"));

  NSErrorPtr error;
  Value result = run(ZBTarrowPinboardPostUpdateOperation::create(
                         dictionaries(ZBTarrowPinboardPostEntityName, ZBTarrowPinboardObjectDirtyKey), client, root),
                     &error);
  saveRoot();
  ASSERT_FALSE(result);
  ASSERT_TRUE(error);
  const std::size_t failed = error->userInfo()[ZBTarrowDataUnderlyingErrorsKey].count();
  EXPECT_GT(failed, 0u);  // (a loaded machine may time out a few more)
  EXPECT_EQ(error->userInfo()[ZBTarrowDataSucceededResultsKey].count() + failed, std::size_t(kPosts));

  std::size_t dirty = 0;
  for (int i = 0; i < kPosts; ++i) {
    std::string url = "https://p.example/" + std::to_string(i);
    bool isDirty = storedPost(url)[ZBTarrowPinboardObjectDirtyKey].boolValue();
    dirty += isDirty;
    if (!isDirty) {
      EXPECT_TRUE(sim.bookmark("alice", url)) << url;  // confirmed means stored there
    }
  }
  EXPECT_EQ(dirty, failed);

  sim.clearFaults();
  defaults->setObject(Value(20.0), ZBPinboardRequestTimeoutDefaultKey);
  EXPECT_EQ(run(ZBTarrowPinboardPostUpdateOperation::create(
                dictionaries(ZBTarrowPinboardPostEntityName, ZBTarrowPinboardObjectDirtyKey), client, root)),
            Value(true));
  saveRoot();
  EXPECT_TRUE(dictionaries(ZBTarrowPinboardPostEntityName, ZBTarrowPinboardObjectDirtyKey).empty());
  EXPECT_EQ(sim.bookmarkCount("alice"), std::size_t(kPosts));
}

TEST_F(PushTest, PostUpdateCancelledStopsSendingAndKeepsWhatWasConfirmed) {
  auto gate = std::make_shared<GateTransport>("posts/add");
  makeClient(gate);
  root->performBlockAndWait([&] {
    for (int i = 0; i < 100; ++i) {
      auto post = root->insertNewObject<ZBTarrowPinboardPost>(ZBTarrowPinboardPostEntityName);
      std::string url = "https://p.example/" + std::to_string(i);
      post->setUrl(url);
      post->setIdentifier(ZBTarrowPinboardPost::identifierForURL(url));
      post->setTitle("t");
      post->setDirty(true);
    }
    ASSERT_TRUE(root->save());
  });
  auto op = ZBTarrowPinboardPostUpdateOperation::create(
      dictionaries(ZBTarrowPinboardPostEntityName, ZBTarrowPinboardObjectDirtyKey), client, root);
  NSErrorPtr error;
  EXPECT_FALSE(runHeld(*gate, op, [&] { op->cancel(); }, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), NSUserCancelledError);
  saveRoot();
  // At most the requests already out went through, and exactly those are clean.
  const std::size_t sent = sim.requestCount("/v1/posts/add");
  EXPECT_LE(sent, 8u);
  EXPECT_EQ(dictionaries(ZBTarrowPinboardPostEntityName, ZBTarrowPinboardObjectDirtyKey).size(),
            100 - sim.bookmarkCount("alice"));
}

TEST_F(PushTest, TagUpdateRenamesDeletesSkipsAndAggregates) {
  ASSERT_TRUE(sim.addBookmark("alice", bookmark("https://a.example/", "A", {"old", "doomed"})));
  addPost("https://a.example/", "A", false, false, {"old", "doomed", "fresh", "stray"});
  root->performBlockAndWait([&] {
    auto request = NSFetchRequest::fetchRequestWithEntityName(ZBTarrowPinboardTagEntityName);
    for (const Value& v : fetched(*request)) {
      auto tag = v.as<ZBTarrowPinboardTag>();
      const std::string title = *tag->title();
      tag->setDirty(true);
      if (title == "old") {
        tag->setTitle("new");
        tag->setValueForKey(Value("old"), ZBTarrowPinboardTagPreviousTitleKey);
      }
      if (title == "doomed" || title == "stray") tag->setDeleting(true);  // "stray" was never on the service
    }
    ASSERT_TRUE(root->save());
  });
  Array tags = dictionaries(ZBTarrowPinboardTagEntityName, ZBTarrowPinboardObjectDirtyKey);
  ASSERT_EQ(tags.size(), 4u);  // new (renamed), doomed, fresh (no previous title: skipped), stray
  std::sort(tags.begin(), tags.end(), [](const Value& a, const Value& b) {
    return a.asDictionary()[ZBTarrowPinboardTagTitleKey].asString() < b.asDictionary()[ZBTarrowPinboardTagTitleKey].asString();
  });
  // A rename whose answer names a title the store lacks, and a title that is not text.
  tags.push_back(Value(Dictionary{{ZBTarrowPinboardTagTitleKey, Value("nowhere")},
                                  {ZBTarrowPinboardTagPreviousTitleKey, Value("doomed2")}}));
  tags.push_back(Value(Dictionary{{ZBTarrowPinboardTagTitleKey, Value(7)}, {ZBTarrowPinboardObjectDeletingKey, Value(true)}}));

  NSErrorPtr error;
  EXPECT_FALSE(run(ZBTarrowPinboardTagUpdateOperation::create(tags, client, root), &error));
  expectBatchError(error, "Couldn’t Update Some Tags", 4, {{NSCocoaErrorDomain, NSValidationMissingMandatoryPropertyError}});
  saveRoot();

  EXPECT_EQ(sim.bookmark("alice", "https://a.example/")->tags, (std::vector<std::string>{"new"}));
  Array stillDirty = dictionaries(ZBTarrowPinboardTagEntityName, ZBTarrowPinboardObjectDirtyKey);
  ASSERT_EQ(stillDirty.size(), 1u);
  EXPECT_EQ(stillDirty[0].asDictionary()[ZBTarrowPinboardTagTitleKey], Value("fresh"));
  Dictionary a = storedPost("https://a.example/");
  EXPECT_EQ(a[ZBTarrowPinboardPostTagsKey], Value(Set{Value("new"), Value("fresh")}));
}

TEST_F(PushTest, PostCreationSendsMarksCleanAndSavesOrLeavesThePostDirty) {
  auto post = addPost("https://new.example/", "New", true, false, {"t"});
  NSManagedObjectIDPtr id;
  root->performBlockAndWait([&] { id = post->objectID(); });
  EXPECT_EQ(run(ZBTarrowPinboardPostCreationOperation::create(client, id, root)), Value(true));
  EXPECT_EQ(sim.bookmark("alice", "https://new.example/")->title, "New");
  EXPECT_EQ(storedPost("https://new.example/")[ZBTarrowPinboardObjectDirtyKey], Value(false));  // saved to the file

  // The service refuses: the post stays dirty, nothing saved.
  auto refused = addPost("https://refused.example/", "R", true);
  root->performBlockAndWait([&] { id = refused->objectID(); });
  sim.addFault(*pinboard_sim::Fault::parse("/v1/posts/add:status=500"));
  NSErrorPtr error;
  EXPECT_FALSE(run(ZBTarrowPinboardPostCreationOperation::create(client, id, root), &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), ZBPinboardKitErrorDomain);
  EXPECT_EQ(storedPost("https://refused.example/")[ZBTarrowPinboardObjectDirtyKey], Value(true));
  sim.clearFaults();

  // Gone before: the lookup error, and no request.
  root->performBlockAndWait([&] {
    root->deleteObject(refused);
    ASSERT_TRUE(root->save());
  });
  sim.clearRequestLog();
  error = nullptr;
  EXPECT_FALSE(run(ZBTarrowPinboardPostCreationOperation::create(client, id, root), &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
  EXPECT_EQ(sim.requestCount("/v1/posts/add"), 0u);
}

TEST_F(PushTest, PostCreationOfAPostDeletedWhileItsRequestIsOut) {
  auto gate = std::make_shared<GateTransport>("posts/add");
  makeClient(gate);
  auto post = addPost("https://new.example/", "New", true);
  NSManagedObjectIDPtr id;
  root->performBlockAndWait([&] { id = post->objectID(); });
  auto op = ZBTarrowPinboardPostCreationOperation::create(client, id, root);
  NSErrorPtr error;
  EXPECT_FALSE(runHeld(
      *gate, op,
      [&] {
        root->performBlockAndWait([&] {
          root->deleteObject(post);
          ASSERT_TRUE(root->save());
        });
      },
      &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), NSCocoaErrorDomain);               // the lookup's error
  EXPECT_TRUE(sim.bookmark("alice", "https://new.example/"));  // the service kept it
  EXPECT_TRUE(storedPost("https://new.example/").empty());
}

TEST_F(PushTest, SearchChoosesItsFeedOrIsTooBroad) {
  Bookmark shared = bookmark("https://s.example/", "S", {"a", "b"});
  ASSERT_TRUE(sim.addBookmark("alice", shared));
  struct Case {
    Dictionary parameters;
    std::string path;  // the request expected, empty for none
    std::int64_t code = 1;  // 1: success, else the error code
  } cases[] = {
      {{{ZBTarrowSearchMethodKey, Value("popular")}, {ZBTarrowSearchUsernameKey, Value("alice")}}, "/json/popular"},
      {{{ZBTarrowSearchUsernameKey, Value("alice")}}, "/json/u:alice"},
      {{{ZBTarrowSearchTagsKey, Value("a b a")}}, "/json/t:a/t:b"},
      {{{ZBTarrowSearchUsernameKey, Value("alice")}, {ZBTarrowSearchTagsKey, Value("b a")}}, "/json/u:alice/t:a/t:b"},
      {{}, "", ZBTarrowDataSearchTooBroadError},
      {{{ZBTarrowSearchAuthenticatedKey, Value(true)}}, "", ZBTarrowDataSearchTooBroadError},
      {{{ZBTarrowSearchTagsKey, Value(3)}}, "", NSValidationMissingMandatoryPropertyError},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(Value(c.parameters).description());
    sim.clearRequestLog();
    NSErrorPtr error;
    Value result = run(ZBTarrowPinboardSearchOperation::create(c.parameters, client, root), &error);
    auto log = sim.requestLog();
    if (c.path.empty()) {
      EXPECT_TRUE(log.empty());
      ASSERT_TRUE(error);
      EXPECT_EQ(error->code(), c.code);
      if (c.code == ZBTarrowDataSearchTooBroadError) {
        EXPECT_EQ(error->domain(), ZBTarrowDataErrorDomain);
        EXPECT_EQ(error->localizedDescription(), "Couldn’t Search Pinboard");
        EXPECT_EQ(error->localizedRecoverySuggestion(), "The search is too broad. Please try again.");
      }
      continue;
    }
    ASSERT_TRUE(result.isArray()) << (error ? error->description() : "");
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(segments(log[0].path), segments(c.path));  // tags in any order, each once
  }
}

}  // namespace
