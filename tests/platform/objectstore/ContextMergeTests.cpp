#include <gtest/gtest.h>

#include "ObjectStoreTestSupport.h"
#include "support/RunLoopTestHelper.h"

namespace {

std::shared_ptr<NSManagedObject> postNamed(NSManagedObjectContext& context, const std::string& identifier) {
  auto found = fetchAll(context, "Post", "identifier == %@", {Value(identifier)});
  return found.empty() ? nullptr : found.front().as<NSManagedObject>();
}

}  // namespace

TEST(ContextMerge, ASiblingsSaveReachesRegisteredObjectsAndKeepsLocalChanges) {
  TestStore stack;
  {
    auto seed = stack.newContext();
    insertPost(*seed, "p1", "old", {"t"});
    insertPost(*seed, "p2", "doomed", {"t"});
    insertPost(*seed, "p3", "untouched");
    ASSERT_TRUE(seed->save());
  }
  auto writer = stack.newContext();
  auto reader = stack.newContext();

  auto p1 = postNamed(*reader, "p1");
  auto p2 = postNamed(*reader, "p2");
  auto tag = tagNamed(*reader, "t");
  ASSERT_EQ(tag->valueForKey("posts").count(), 2u);
  p1->setValueForKey(Value(9), "source");  // the reader's own, unsaved
  std::vector<Value> titles;
  auto observation = p1->addObserver("title", NSKeyValueObservingOptions::New,
                                     [&](const std::string&, NSObject&, const NSKeyValueChange& change) {
                                       titles.push_back(change.newValue);
                                     });
  std::vector<NSNotification> didChange;
  auto changes = NSNotificationCenter::defaultCenter().addObserver(
      NSManagedObjectContextObjectsDidChangeNotification, reader,
      [&](const NSNotification& notification) { didChange.push_back(notification); });

  NSNotification saved;
  auto token = NSNotificationCenter::defaultCenter().addObserver(
      NSManagedObjectContextDidSaveNotification, writer, [&](const NSNotification& n) { saved = n; });
  postNamed(*writer, "p1")->setValueForKey(Value("new"), "title");
  writer->deleteObject(postNamed(*writer, "p2"));
  insertPost(*writer, "p4", "added");
  ASSERT_TRUE(writer->save());

  reader->mergeChangesFromContextDidSaveNotification(saved);
  EXPECT_EQ(p1->valueForKey("title"), Value("new"));
  EXPECT_EQ(titles, (std::vector<Value>{Value("new")}));
  EXPECT_EQ(p1->valueForKey("source"), Value(9));
  EXPECT_TRUE(p1->hasChanges());
  EXPECT_EQ(p1->committedValuesForKeys({"title"})["title"], Value("new"));
  EXPECT_TRUE(p2->isDeleted());
  EXPECT_FALSE(postNamed(*reader, "p2"));
  EXPECT_EQ(tag->valueForKey("posts").count(), 1u);
  EXPECT_FALSE(tag->hasChanges());
  EXPECT_TRUE(postNamed(*reader, "p4"));
  ASSERT_EQ(didChange.size(), 1u);
  EXPECT_TRUE(didChange[0].userInfo[NSUpdatedObjectsKey].asSet().contains(Value(p1)));
  EXPECT_TRUE(didChange[0].userInfo[NSDeletedObjectsKey].asSet().contains(Value(p2)));
  EXPECT_EQ(didChange[0].userInfo[NSInsertedObjectsKey].count(), 1u);

  // The merged row version lets the reader save without a conflict.
  NSErrorPtr error;
  ASSERT_TRUE(reader->save(&error)) << error->description();
  auto check = stack.newContext();
  auto stored = postNamed(*check, "p1");
  EXPECT_EQ(stored->valueForKey("title"), Value("new"));
  EXPECT_EQ(stored->valueForKey("source"), Value(9));
}

TEST(ContextMerge, AHandBuiltNotificationOfObjectIDsMergesTheSameWay) {
  TestStore stack;
  {
    auto seed = stack.newContext();
    insertPost(*seed, "q1", "before");
    insertPost(*seed, "q2");
    ASSERT_TRUE(seed->save());
  }
  auto reader = stack.newContext();
  auto q1 = postNamed(*reader, "q1");
  auto q2 = postNamed(*reader, "q2");

  // Another process changes the store; only the IDs travel.
  auto other = NSManagedObjectContext::create(NSConfinementConcurrencyType);
  other->setPersistentStoreCoordinator(stack.reopen());
  postNamed(*other, "q1")->setValueForKey(Value("after"), "title");
  other->deleteObject(postNamed(*other, "q2"));
  ASSERT_TRUE(other->save());

  NSNotification notification{NSManagedObjectContextDidSaveNotification, nullptr,
                              Dictionary{{NSUpdatedObjectsKey, Value(Set{Value(q1)})},
                                         {NSDeletedObjectsKey, Value(Array{Value(q2->objectID())})}}};
  reader->mergeChangesFromContextDidSaveNotification(notification);
  EXPECT_EQ(q1->valueForKey("title"), Value("after"));
  EXPECT_FALSE(q1->hasChanges());
  EXPECT_TRUE(q2->isDeleted());
  EXPECT_EQ(reader->countForFetchRequest(NSFetchRequest::fetchRequestWithEntityName("Post")), 1);
}

// A conflict made by a sibling context or by a second process on the same
// file, resolved property by property.
TEST(ContextMerge, MergePoliciesResolveRealConflictsPropertyByProperty) {
  for (bool secondProcess : {false, true}) {
    for (auto policy : {NSMergeByPropertyStoreTrumpMergePolicyType, NSMergeByPropertyObjectTrumpMergePolicyType}) {
      SCOPED_TRACE(std::string(secondProcess ? "second process, " : "sibling, ") +
                   (policy == NSMergeByPropertyStoreTrumpMergePolicyType ? "store trump" : "object trump"));
      TestStore stack;
      {
        auto seed = stack.newContext();
        auto post = insertPost(*seed, "x", "t0", {"a"});
        post->setValueForKey(Value(1), "source");
        post->setValueForKey(Value(1.0), "rating");
        insertPost(*seed, "gone", "t0");
        ASSERT_TRUE(seed->save());
      }
      auto mine = stack.newContext();
      mine->setMergePolicy(policy);
      auto theirs = NSManagedObjectContext::create(NSConfinementConcurrencyType);
      theirs->setPersistentStoreCoordinator(secondProcess ? stack.reopen() : stack.coordinator);

      auto ours = postNamed(*mine, "x");
      auto doomed = postNamed(*mine, "gone");
      ASSERT_TRUE(ours && doomed);
      auto other = postNamed(*theirs, "x");
      other->setValueForKey(Value("theirs"), "title");
      other->setValueForKey(Value(2), "source");
      other->setValueForKey(Value(Set{Value(tagNamed(*theirs, "b"))}), "tags");
      theirs->deleteObject(postNamed(*theirs, "gone"));
      ASSERT_TRUE(theirs->save());

      std::vector<Value> heard;
      auto observation = ours->addObserver("title", NSKeyValueObservingOptions::New,
                                           [&](const std::string&, NSObject&, const NSKeyValueChange& change) {
                                             heard.push_back(change.newValue);
                                           });
      ours->setValueForKey(Value("mine"), "title");  // both sides changed it
      ours->setValueForKey(Value(5.0), "rating");    // only this side
      doomed->setValueForKey(Value("edited"), "title");
      NSErrorPtr error;
      ASSERT_TRUE(mine->save(&error)) << error->description();

      auto check = stack.newContext();
      auto stored = postNamed(*check, "x");
      bool storeWins = policy == NSMergeByPropertyStoreTrumpMergePolicyType;
      EXPECT_EQ(stored->valueForKey("title"), Value(storeWins ? "theirs" : "mine"));
      EXPECT_EQ(stored->valueForKey("source"), Value(2)) << "changed on their side only";
      EXPECT_EQ(stored->valueForKey("rating"), Value(5.0)) << "changed on this side only";
      std::vector<std::string> tags;
      for (auto& tag : stored->valueForKey("tags").collectionElements()) tags.push_back(valueForKey(tag, "title").asString());
      EXPECT_EQ(tags, (std::vector<std::string>{"b"}));
      EXPECT_FALSE(postNamed(*check, "gone")) << "a row deleted underneath stays deleted";
      EXPECT_EQ(ours->valueForKey("title"), stored->valueForKey("title"));
      EXPECT_EQ(heard.back(), stored->valueForKey("title")) << "observers saw the resolved value";
      EXPECT_FALSE(mine->hasChanges());
    }
  }
}

// The interface's context: a main-queue context beside a private root on
// one coordinator, each merging the other's saves.
TEST(ContextMerge, MainQueueContextMergesTheRootsSavesAndReportsChangesPerTurn) {
  TestStore stack;
  auto main = NSManagedObjectContext::create(NSMainQueueConcurrencyType);
  main->performBlockAndWait([&] { main->setPersistentStoreCoordinator(stack.coordinator); });
  auto root = stack.newContext(NSPrivateQueueConcurrencyType);
  auto forward = NSNotificationCenter::defaultCenter().addObserver(
      NSManagedObjectContextDidSaveNotification, root, [&](const NSNotification& notification) {
        main->performBlock([main, notification] { main->mergeChangesFromContextDidSaveNotification(notification); });
      });
  std::vector<NSNotification> changes;
  auto observed = NSNotificationCenter::defaultCenter().addObserver(
      NSManagedObjectContextObjectsDidChangeNotification, main,
      [&](const NSNotification& notification) { changes.push_back(notification); });

  // A change made in a main-queue block is reported when the turn ends.
  std::shared_ptr<NSManagedObject> local;
  main->performBlock([&] { local = insertPost(*main, "local", "on main"); });
  ASSERT_TRUE(RunMainLoopUntil([&] { return !changes.empty(); }));
  EXPECT_TRUE(changes[0].userInfo[NSInsertedObjectsKey].asSet().contains(Value(local)));
  changes.clear();

  // The root's save arrives through the merge; observers on the main
  // thread see the new value.
  std::shared_ptr<NSManagedObject> shown;
  root->performBlockAndWait([&] {
    insertPost(*root, "shared", "first");
    ASSERT_TRUE(root->save());
  });
  ASSERT_TRUE(RunMainLoopUntil([&] {
    auto found = fetchAll(*main, "Post", "identifier == 'shared'");
    if (!found.empty()) shown = found[0].as<NSManagedObject>();
    return shown != nullptr;
  }));
  std::vector<Value> titles;
  auto observation = shown->addObserver("title", NSKeyValueObservingOptions::New,
                                        [&](const std::string&, NSObject&, const NSKeyValueChange& change) {
                                          EXPECT_TRUE(NSRunLoop::isMainThread());
                                          titles.push_back(change.newValue);
                                        });
  root->performBlockAndWait([&] {
    fetchAll(*root, "Post", "identifier == 'shared'")[0].as<NSManagedObject>()->setValueForKey(Value("second"), "title");
    ASSERT_TRUE(root->save());
  });
  ASSERT_TRUE(RunMainLoopUntil([&] { return !titles.empty(); }));
  EXPECT_EQ(titles, (std::vector<Value>{Value("second")}));
  EXPECT_EQ(shown->valueForKey("title"), Value("second"));
  main->performBlockAndWait([&] { EXPECT_TRUE(main->hasChanges()) << "its own insert is still unsaved"; });
}
