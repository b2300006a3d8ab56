#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "ObjectStoreTestSupport.h"
#include "support/TogetherThreads.h"

TEST(ContextQueue, PrivateQueueRunsBlocksInOrderOneAtATime) {
  auto context = NSManagedObjectContext::create(NSPrivateQueueConcurrencyType);
  std::vector<int> order;  // touched only on the context's queue
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  constexpr int kThreads = 4, kBlocks = 300;
  RunTogether(kThreads, [&](int t) {
    for (int i = 0; i < kBlocks; ++i) {
      auto body = [&, t, i] {
        if (inside.fetch_add(1) != 0) overlapped = true;
        order.push_back(t * kBlocks + i);
        inside.fetch_sub(1);
      };
      if (i % 3 == 0) {
        context->performBlockAndWait(body);
      } else {
        context->performBlock(body);
      }
    }
  });
  // A waiting perform runs after everything queued before it.
  std::size_t seen = 0;
  context->performBlockAndWait([&] { seen = order.size(); });
  EXPECT_EQ(seen, static_cast<std::size_t>(kThreads * kBlocks));
  EXPECT_FALSE(overlapped);
  // Each thread's blocks ran in the order it queued them.
  std::vector<int> last(kThreads, -1);
  for (int value : order) {
    int t = value / kBlocks;
    EXPECT_LT(last[t], value % kBlocks);
    last[t] = value % kBlocks;
  }
}

TEST(ContextQueue, PerformBlockAndWaitIsReentrantAndNestsAcrossContexts) {
  TestStore stack;
  auto root = stack.newContext(NSPrivateQueueConcurrencyType);
  auto other = NSManagedObjectContext::create(NSPrivateQueueConcurrencyType);
  std::atomic<int> depth{0};
  std::atomic<bool> done{false};
  root->performBlock([&] {
    root->performBlockAndWait([&] {
      ++depth;
      other->performBlockAndWait([&] {
        root->performBlockAndWait([&] { ++depth; });
        ++depth;
      });
    });
    insertPost(*root, "queued");
    EXPECT_TRUE(root->save());
    done = true;
  });
  bool finished = false;
  root->performBlockAndWait([&] { finished = done.load(); });
  EXPECT_TRUE(finished);
  EXPECT_EQ(depth.load(), 3);
  auto reader = stack.newContext();
  EXPECT_EQ(fetchAll(*reader, "Post").size(), 1u);
}

TEST(ContextQueue, AThrowingBlockLeavesTheQueueUsable) {
  // The exception reaches the waiting caller, nested or not, and the queue is
  // handed on: queued blocks still run and a later wait does not hang.
  auto context = NSManagedObjectContext::create(NSPrivateQueueConcurrencyType);
  std::atomic<int> ran{0};
  for (int round = 0; round < 3; ++round) {
    context->performBlock([&] { ++ran; });
    EXPECT_THROW(context->performBlockAndWait([] { throw std::runtime_error("outer"); }), std::runtime_error);
    EXPECT_THROW(context->performBlockAndWait([&] {
      ++ran;
      context->performBlockAndWait([] { throw std::runtime_error("nested"); });
    }),
                 std::runtime_error);
  }
  bool reached = false;
  context->performBlockAndWait([&] { reached = true; });
  EXPECT_TRUE(reached);
  EXPECT_EQ(ran.load(), 6);
}

#ifndef NDEBUG
TEST(ContextQueueDeathTest, UsingAPrivateContextOutsideItsQueueIsCaught) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  TestStore stack;
  auto context = stack.newContext(NSPrivateQueueConcurrencyType);
  EXPECT_DEATH(context->hasChanges(), "outside its queue");
  EXPECT_DEATH(context->insertNewObjectForEntityForName("Post"), "outside its queue");
}
#endif

TEST(NestedContexts, AChildSavePushesIntoItsParentOnly) {
  TestStore stack;
  {
    auto seed = stack.newContext();
    insertPost(*seed, "kept", "old title");
    insertPost(*seed, "doomed");
    ASSERT_TRUE(seed->save());
  }
  auto root = stack.newContext(NSPrivateQueueConcurrencyType);
  auto child = NSManagedObjectContext::create(NSConfinementConcurrencyType);
  child->setParentContext(root);
  EXPECT_EQ(child->persistentStoreCoordinator(), stack.coordinator);

  auto fresh = insertPost(*child, "fresh", "new", {"tagged"});
  for (auto& post : fetchAll(*child, "Post")) {
    auto object = post.as<NSManagedObject>();
    if (object->valueForKey("identifier") == Value("kept")) object->setValueForKey(Value("new title"), "title");
    if (object->valueForKey("identifier") == Value("doomed")) child->deleteObject(object);
  }
  bool rootChanged = true;
  root->performBlockAndWait([&] { rootChanged = root->hasChanges(); });
  EXPECT_FALSE(rootChanged) << "nothing reaches the parent before the child saves";

  NSErrorPtr error;
  ASSERT_TRUE(child->save(&error)) << error->description();
  EXPECT_FALSE(child->hasChanges());
  EXPECT_TRUE(fresh->objectID()->isTemporaryID()) << "a child's save does not reach the store";
  root->performBlockAndWait([&] {
    EXPECT_TRUE(root->hasChanges());
    EXPECT_EQ(root->insertedObjects().size(), 2u);  // the post and its tag
    EXPECT_EQ(root->updatedObjects().size(), 1u);
    EXPECT_EQ(root->deletedObjects().size(), 1u);
    EXPECT_EQ(stringsOf(fetchAll(*root, "Post"), "identifier"), (std::vector<std::string>{"fresh", "kept"}));
    EXPECT_EQ(stringsOf(fetchAll(*root, "Post", "title == 'new title'"), "identifier"), (std::vector<std::string>{"kept"}));
  });
  auto outsider = stack.newContext();
  EXPECT_EQ(stringsOf(fetchAll(*outsider, "Post"), "identifier"), (std::vector<std::string>{"doomed", "kept"}));

  root->performBlockAndWait([&] { EXPECT_TRUE(root->save(&error)) << error->description(); });
  EXPECT_FALSE(fresh->objectID()->isTemporaryID()) << "the root's save made the child's ID permanent";
  auto later = stack.newContext();
  auto resolved = later->existingObjectWithID(fresh->objectID(), &error);
  ASSERT_TRUE(resolved) << error->description();
  EXPECT_EQ(resolved->valueForKey("title"), Value("new"));
  EXPECT_EQ(resolved->valueForKey("tags").count(), 1u);
  EXPECT_EQ(stringsOf(fetchAll(*later, "Post"), "identifier"), (std::vector<std::string>{"fresh", "kept"}));
  EXPECT_EQ(fetchAll(*later, "Post", "title == 'new title'").size(), 1u);
}

TEST(NestedContexts, ThreeLevelsSeeTheirAncestorsUnsavedChanges) {
  TestStore stack;
  {
    auto seed = stack.newContext();
    for (int i = 0; i < 5; ++i) insertPost(*seed, "s" + std::to_string(i), "stored");
    ASSERT_TRUE(seed->save());
  }
  auto root = stack.newContext(NSPrivateQueueConcurrencyType);
  auto push = NSManagedObjectContext::create(NSPrivateQueueConcurrencyType);
  push->performBlockAndWait([&] { push->setParentContext(root); });
  auto scratch = NSManagedObjectContext::create(NSConfinementConcurrencyType);
  scratch->setParentContext(push);

  root->performBlockAndWait([&] {
    insertPost(*root, "root-new", "stored");
    auto s0 = fetchAll(*root, "Post", "identifier == 's0'");
    s0.front().as<NSManagedObject>()->setValueForKey(Value("renamed"), "title");
  });
  push->performBlockAndWait([&] {
    auto s1 = fetchAll(*push, "Post", "identifier == 's1'");
    push->deleteObject(s1.front().as<NSManagedObject>());
    insertPost(*push, "push-new", "stored");
  });
  auto stored = NSFetchRequest::fetchRequestWithEntityName("Post");
  stored->setPredicate(NSPredicate::predicateWithFormat("title == 'stored'"));
  EXPECT_EQ(stringsOf(fetchAll(*scratch, "Post", "title == 'stored'"), "identifier"),
            (std::vector<std::string>{"push-new", "root-new", "s2", "s3", "s4"}));
  EXPECT_EQ(scratch->countForFetchRequest(stored), 5);
  auto renamed = fetchAll(*scratch, "Post", "title == 'renamed'");
  ASSERT_EQ(renamed.size(), 1u);
  auto s0 = renamed.front().as<NSManagedObject>();
  EXPECT_EQ(s0->valueForKey("identifier"), Value("s0"));

  // Changes made in the scratch context climb one level per save.
  s0->setValueForKey(Value("from scratch"), "title");
  insertPost(*scratch, "scratch-new", "stored");
  ASSERT_TRUE(scratch->save());
  push->performBlockAndWait([&] {
    EXPECT_EQ(push->countForFetchRequest(stored), 6);
    EXPECT_EQ(fetchAll(*push, "Post", "title == 'from scratch'").size(), 1u);
  });
  root->performBlockAndWait([&] { EXPECT_EQ(root->countForFetchRequest(stored), 5) << "s1 is still alive here"; });
  NSErrorPtr error;
  push->performBlockAndWait([&] { ASSERT_TRUE(push->save(&error)); });
  root->performBlockAndWait([&] {
    EXPECT_EQ(root->countForFetchRequest(stored), 6) << "s1 deleted, two posts added";
    ASSERT_TRUE(root->save(&error)) << error->description();
  });
  auto check = stack.newContext();
  EXPECT_EQ(stringsOf(fetchAll(*check, "Post"), "identifier"),
            (std::vector<std::string>{"push-new", "root-new", "s0", "s2", "s3", "s4", "scratch-new"}));
  EXPECT_EQ(fetchAll(*check, "Post", "title == 'from scratch'").size(), 1u);
}

TEST(NestedContexts, ManyChildrenSaveIntoOneParentAtOnce) {
  TestStore stack;
  auto root = stack.newContext(NSPrivateQueueConcurrencyType);
  constexpr int kChildren = 7, kPosts = 60;
  std::atomic<int> failures{0};
  RunTogether(kChildren, [&](int c) {
    auto child = NSManagedObjectContext::create(NSConfinementConcurrencyType);
    child->setParentContext(root);
    for (int i = 0; i < kPosts; ++i) {
      insertPost(*child, "c" + std::to_string(c) + "-" + std::to_string(i), "", {"shared-tag-" + std::to_string(c)});
      if (i % 20 == 19 && !child->save()) ++failures;
    }
    // Reads through the parent while the others write into it.
    if (fetchAll(*child, "Post", "identifier BEGINSWITH %@", {Value("c" + std::to_string(c) + "-")}).size() != kPosts) {
      ++failures;
    }
    NSErrorPtr error;
    root->performBlockAndWait([&] {
      if (!root->save(&error)) ++failures;
    });
  });
  EXPECT_EQ(failures.load(), 0);
  auto check = stack.newContext();
  EXPECT_EQ(check->countForFetchRequest(NSFetchRequest::fetchRequestWithEntityName("Post")), kChildren * kPosts);
  EXPECT_EQ(check->countForFetchRequest(NSFetchRequest::fetchRequestWithEntityName("Tag")), kChildren);
  auto request = NSFetchRequest::fetchRequestWithEntityName("Tag");
  request->setPredicate(NSPredicate::predicateWithFormat("posts.@count == %d", {Value(kPosts)}));
  EXPECT_EQ(check->countForFetchRequest(request), kChildren);
}
