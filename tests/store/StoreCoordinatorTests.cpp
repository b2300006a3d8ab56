#include <fstream>
#include <map>

#include <gtest/gtest.h>

#include "model/ZBTarrowCollection.h"
#include "model/ZBTarrowPinboardPost.h"
#include "model/ZBTarrowSearch.h"
#include "platform/objectstore/NSFetchRequest.h"
#include "platform/objectstore/NSPersistentStore.h"
#include "store/StoreTestSupport.h"
#include "store/ZBTarrowDataStoreCoordinator.h"
#include "support/RunLoopTestHelper.h"

namespace {

namespace fs = std::filesystem;

Array fetchAll(const NSManagedObjectContextPtr& context, const std::string& entity, NSPredicatePtr predicate = nullptr) {
  Array results;
  context->performBlockAndWait([&] {
    auto request = NSFetchRequest::fetchRequestWithEntityName(entity);
    request->setPredicate(std::move(predicate));
    NSErrorPtr error;
    auto fetched = context->executeFetchRequest(request, &error);
    ASSERT_TRUE(fetched) << (error ? error->description() : "");
    results = *fetched;
  });
  return results;
}

NSPredicatePtr identifierIs(const std::string& identifier) {
  return NSPredicate::predicateWithFormat("identifier == %@", {Value(identifier)});
}

std::map<std::string, ZBTarrowCollectionPtr> collectionsByIdentifier(const NSManagedObjectContextPtr& context) {
  std::map<std::string, ZBTarrowCollectionPtr> result;
  for (const Value& value : fetchAll(context, ZBTarrowCollectionEntityName)) {
    auto collection = value.as<ZBTarrowCollection>();
    result[collection->identifier().value_or("")] = collection;
  }
  return result;
}

void insertPost(const NSManagedObjectContextPtr& context, const std::string& url) {
  context->performBlockAndWait([&] {
    auto post = context->insertNewObjectForEntityForName(ZBTarrowPinboardPostEntityName);
    post->setValueForKey(url, ZBTarrowPinboardPostURLKey);
    NSErrorPtr error;
    ASSERT_TRUE(context->save(&error)) << (error ? error->description() : "");
  });
}

void writeFile(const fs::path& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
}

}  // namespace

TEST(ZBTarrowDataStoreCoordinator, StoreLocationsFollowTheFirstApplicationGroup) {
  StoreEnvironment environment("group.first:group.second");
  EXPECT_EQ(ZBTarrowDataDefaultSecurityApplicationGroupIdentifier(), "group.first");

  NSURL pinboard = ZBTarrowDataStoreCoordinator::_pinboardPersistentStoreLocation();
  NSURL tarrow = ZBTarrowDataStoreCoordinator::_tarrowPersistentStoreLocation();
  EXPECT_EQ(fs::path(pinboard.path()), environment.stores("group.first") / "Pinboard" / "Pinboard.sqlite");
  EXPECT_EQ(fs::path(tarrow.path()), environment.stores("group.first") / "Tarrow" / "Tarrow.sqlite");
  EXPECT_TRUE(fs::is_directory(environment.stores("group.first") / "Pinboard"));
  EXPECT_TRUE(fs::is_directory(environment.stores("group.first") / "Tarrow"));

  // No group, or an empty first entry even with later ones: the library's own container.
  for (const char* groups : {"", ":group.second"}) {
    setenv("ZBTARROW_APPLICATION_GROUPS", groups, 1);
    EXPECT_EQ(ZBTarrowDataDefaultSecurityApplicationGroupIdentifier(), std::nullopt) << groups;
    EXPECT_EQ(fs::path(ZBTarrowDataApplicationGroupContainerStoresURL().path()),
              environment.stores("com.orvane.zbtarrowdata"));
  }
  unsetenv("ZBTARROW_APPLICATION_GROUPS");
  EXPECT_EQ(ZBTarrowDataDefaultSecurityApplicationGroupIdentifier(), std::nullopt);

  // The legacy location is computed (under the program's name) but never opened.
  NSURL legacy = ZBTarrowDataStoreCoordinator::_legacyPersistentStoreLocation();
  EXPECT_EQ(fs::path(legacy.path()).filename(), "Pinboard.sqlite");
  EXPECT_EQ(fs::path(legacy.path()).parent_path().parent_path(), environment.home());
  EXPECT_FALSE(fs::exists(legacy.path()));
}

TEST(ZBTarrowDataStoreCoordinator, SetupCreatesBothStoresAndTheBuiltInItemsOnce) {
  StoreEnvironment environment;
  {
    auto coordinator = ZBTarrowDataStoreCoordinator::create();
    EXPECT_TRUE(coordinator->persistentStoreCoordinator()->persistentStores().empty());
    NSErrorPtr error;
    ASSERT_TRUE(coordinator->setup(&error)) << (error ? error->description() : "");
    EXPECT_TRUE(fs::exists(environment.stores() / "Pinboard" / "Pinboard.sqlite"));
    EXPECT_TRUE(fs::exists(environment.stores() / "Tarrow" / "Tarrow.sqlite"));
    auto stores = coordinator->persistentStoreCoordinator()->persistentStores();
    ASSERT_EQ(stores.size(), 2u);
    for (const auto& store : stores) {
      EXPECT_EQ(store->type(), NSSQLiteStoreType);
      EXPECT_EQ(store->options(), ZBTarrowDataStoreCoordinator::_pinboardPersistentStoreOptions());
    }
    EXPECT_EQ(stores[0]->configurationName(), "Pinboard");
    EXPECT_EQ(stores[1]->configurationName(), "Tarrow");

    auto collections = collectionsByIdentifier(coordinator->rootManagedObjectContext());
    ASSERT_EQ(collections.size(), 7u);
    struct Expected { const char* identifier; const char* title; const char* predicate; std::int64_t order; };
    for (const Expected& expected : {Expected{"ALL", "All", nullptr, 0},
                                     Expected{"PRIVATE", "Private", "shared == NO", 1},
                                     Expected{"PUBLIC", "Public", "shared == YES", 2},
                                     Expected{"UNREAD", "Unread", "unread == YES", 3},
                                     Expected{"UNTAGGED", "Untagged", "tags.@count == 0", 4},
                                     Expected{"STARRED", "Starred", "starred == YES", 5},
                                     Expected{"DEAD", "Dead Links", "dead == YES", 6}}) {
      auto& collection = collections[expected.identifier];
      ASSERT_TRUE(collection) << expected.identifier;
      coordinator->rootManagedObjectContext()->performBlockAndWait([&] {
        EXPECT_EQ(collection->title(), expected.title);
        EXPECT_EQ(collection->order(), expected.order);
        EXPECT_FALSE(collection->editable());
        EXPECT_FALSE(collection->valueForKey(ZBTarrowCollectionHiddenKey).boolValue()) << expected.identifier;
        if (expected.predicate) {
          ASSERT_TRUE(collection->predicate()) << expected.identifier;
          EXPECT_TRUE(collection->predicate()->isEqual(*NSPredicate::predicateWithFormat(expected.predicate)))
              << collection->predicate()->predicateFormat();
        } else {
          EXPECT_FALSE(collection->valueForKey(ZBTarrowCollectionPredicateKey));
        }
      });
    }

    auto searches = fetchAll(coordinator->rootManagedObjectContext(), ZBTarrowSearchEntityName);
    ASSERT_EQ(searches.size(), 6u);
    std::map<std::string, ZBTarrowSearchPtr> byIdentifier;
    for (const Value& value : searches) byIdentifier[value.as<ZBTarrowSearch>()->identifier().value_or("")] =
        value.as<ZBTarrowSearch>();
    struct ExpectedSearch { const char* identifier; const char* title; const char* method; bool authenticated; std::int64_t order; };
    for (const ExpectedSearch& expected : {ExpectedSearch{"NETWORK", "Network", "network", true, 0},
                                           ExpectedSearch{"RECENT", "Recent", "recent", false, 1},
                                           ExpectedSearch{"POPULAR", "Popular", "popular", false, 2},
                                           ExpectedSearch{"WIKIPEDIA", "Wikipedia", "popular/wikipedia", false, 3},
                                           ExpectedSearch{"FANDOM", "Fandom", "popular/fandom", false, 4},
                                           ExpectedSearch{"JAPANESE", "日本語", "popular/japanese", false, 5}}) {
      auto& search = byIdentifier[expected.identifier];
      ASSERT_TRUE(search) << expected.identifier;
      coordinator->rootManagedObjectContext()->performBlockAndWait([&] {
        EXPECT_EQ(search->title(), expected.title);
        EXPECT_EQ(search->method(), expected.method);
        EXPECT_EQ(search->authenticated(), expected.authenticated);
        EXPECT_EQ(search->order(), expected.order);
        EXPECT_FALSE(search->editable());
        EXPECT_EQ(search->username(), std::nullopt);
        EXPECT_EQ(search->tags(), std::nullopt);
      });
    }

    // A user retitles "Unread" and deletes "Starred".
    auto context = coordinator->rootManagedObjectContext();
    context->performBlockAndWait([&] {
      collections["UNREAD"]->setValueForKey("To Read", ZBTarrowCollectionTitleKey);
      context->deleteObject(collections["STARRED"]);
      ASSERT_TRUE(context->save());
    });
    ASSERT_TRUE(coordinator->teardown());
  }

  // The next start: the deleted item comes back, the edit stays, nothing doubles.
  auto coordinator = ZBTarrowDataStoreCoordinator::create();
  ASSERT_TRUE(coordinator->setup());
  auto collections = collectionsByIdentifier(coordinator->rootManagedObjectContext());
  EXPECT_EQ(fetchAll(coordinator->rootManagedObjectContext(), ZBTarrowCollectionEntityName).size(), 7u);
  EXPECT_EQ(fetchAll(coordinator->rootManagedObjectContext(), ZBTarrowSearchEntityName).size(), 6u);
  coordinator->rootManagedObjectContext()->performBlockAndWait([&] {
    ASSERT_TRUE(collections["STARRED"]);
    EXPECT_EQ(collections["STARRED"]->order(), 5);
    EXPECT_EQ(collections["UNREAD"]->title(), "To Read");
  });
}

TEST(ZBTarrowDataStoreCoordinator, RootAndMainContextsSeeEachOthersSaves) {
  StoreEnvironment environment;
  auto coordinator = ZBTarrowDataStoreCoordinator::create();
  ASSERT_TRUE(coordinator->setup());
  auto root = coordinator->rootManagedObjectContext();
  auto main = coordinator->mainManagedObjectContext();
  EXPECT_EQ(root->concurrencyType(), NSPrivateQueueConcurrencyType);
  EXPECT_EQ(main->concurrencyType(), NSMainQueueConcurrencyType);
  EXPECT_EQ(root->mergePolicy(), NSMergeByPropertyStoreTrumpMergePolicyType);
  EXPECT_EQ(main->mergePolicy(), NSMergeByPropertyObjectTrumpMergePolicyType);
  EXPECT_EQ(root->parentContext(), nullptr);
  EXPECT_EQ(main->parentContext(), nullptr);

  // Both hold the same collection; the root context's save reaches the main one.
  auto mainAll = fetchAll(main, ZBTarrowCollectionEntityName, identifierIs("ALL"))[0].as<ZBTarrowCollection>();
  auto rootAll = fetchAll(root, ZBTarrowCollectionEntityName, identifierIs("ALL"))[0].as<ZBTarrowCollection>();
  root->performBlockAndWait([&] {
    rootAll->setValueForKey("Everything", ZBTarrowCollectionTitleKey);
    ASSERT_TRUE(root->save());
  });
  EXPECT_TRUE(RunMainLoopUntil([&] { return mainAll->title() == "Everything"; }));

  // And the other way, including a deletion.
  auto mainDead = fetchAll(main, ZBTarrowCollectionEntityName, identifierIs("DEAD"))[0].as<ZBTarrowCollection>();
  auto mainPublic = fetchAll(main, ZBTarrowCollectionEntityName, identifierIs("PUBLIC"))[0].as<ZBTarrowCollection>();
  auto rootPublic = fetchAll(root, ZBTarrowCollectionEntityName, identifierIs("PUBLIC"))[0].as<ZBTarrowCollection>();
  main->performBlockAndWait([&] {
    mainPublic->setValueForKey(true, ZBTarrowCollectionHiddenKey);
    main->deleteObject(mainDead);
    ASSERT_TRUE(main->save());
  });
  EXPECT_TRUE(RunMainLoopUntil([&] {
    bool hidden = false;
    root->performBlockAndWait([&] { hidden = rootPublic->hidden(); });
    return hidden;
  }));
  EXPECT_EQ(fetchAll(root, ZBTarrowCollectionEntityName).size(), 6u);
}

TEST(ZBTarrowDataStoreCoordinator, ResetEmptiesOneStoreAndLeavesTheOtherAlone) {
  StoreEnvironment environment;
  auto coordinator = ZBTarrowDataStoreCoordinator::create();
  ASSERT_TRUE(coordinator->setup());
  auto root = coordinator->rootManagedObjectContext();
  insertPost(root, "https://example.com/a");
  insertPost(root, "https://example.com/b");
  fs::path pinboardDirectory = environment.stores() / "Pinboard";
  writeFile(pinboardDirectory / "stray.txt", "left behind");
  fs::create_directories(pinboardDirectory / "nested" / "deeper");
  ASSERT_TRUE(fs::exists(pinboardDirectory / "Pinboard.sqlite-wal"));

  NSErrorPtr error;
  ASSERT_TRUE(coordinator->resetPinboardStore(&error)) << (error ? error->description() : "");
  EXPECT_FALSE(fs::exists(pinboardDirectory / "stray.txt"));
  EXPECT_FALSE(fs::exists(pinboardDirectory / "nested"));
  EXPECT_TRUE(fs::exists(pinboardDirectory / "Pinboard.sqlite"));
  auto store = coordinator->persistentStoreCoordinator()->persistentStoreForURL(
      ZBTarrowDataStoreCoordinator::_pinboardPersistentStoreLocation());
  ASSERT_TRUE(store);
  EXPECT_EQ(store->configurationName(), "Pinboard");
  EXPECT_EQ(store->options(), ZBTarrowDataStoreCoordinator::_pinboardPersistentStoreOptions());

  // Posts are gone, the sidebar is not, and the new store works.
  root->performBlockAndWait([&] { root->reset(); });
  EXPECT_EQ(fetchAll(root, ZBTarrowPinboardPostEntityName).size(), 0u);
  EXPECT_EQ(fetchAll(root, ZBTarrowCollectionEntityName).size(), 7u);
  insertPost(root, "https://example.com/c");
  EXPECT_EQ(fetchAll(root, ZBTarrowPinboardPostEntityName).size(), 1u);

  ASSERT_TRUE(coordinator->resetTarrowStore());
  root->performBlockAndWait([&] { root->reset(); });
  EXPECT_EQ(fetchAll(root, ZBTarrowCollectionEntityName).size(), 0u);
  EXPECT_EQ(fetchAll(root, ZBTarrowPinboardPostEntityName).size(), 1u);

  // After teardown there is nothing to reset: a bare error, and no file is touched.
  ASSERT_TRUE(coordinator->teardown());
  writeFile(pinboardDirectory / "stray.txt", "kept");
  error = nullptr;
  EXPECT_FALSE(coordinator->resetPinboardStore(&error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), ZBTarrowDataErrorDomain);
  EXPECT_EQ(error->code(), 0);
  EXPECT_TRUE(error->userInfo().empty());
  EXPECT_TRUE(fs::exists(pinboardDirectory / "stray.txt"));
  EXPECT_TRUE(fs::exists(pinboardDirectory / "Pinboard.sqlite"));
  EXPECT_FALSE(coordinator->resetTarrowStore());  // no out-parameter: still just NO
}

TEST(ZBTarrowDataStoreCoordinator, AStoreThatCannotBeOpenedFailsSetupAsDocumented) {
  StoreEnvironment environment;
  NSErrorPtr sentinel = NSError::create("sentinel", 42);

  // A directory where the Pinboard file belongs: NO, the caller's error untouched,
  // the Tarrow store not even tried.
  fs::path pinboardFile = environment.stores() / "Pinboard" / "Pinboard.sqlite";
  fs::create_directories(pinboardFile);
  {
    auto coordinator = ZBTarrowDataStoreCoordinator::create();
    NSErrorPtr error = sentinel;
    EXPECT_FALSE(coordinator->setup(&error));
    EXPECT_EQ(error, sentinel);
    EXPECT_TRUE(coordinator->persistentStoreCoordinator()->persistentStores().empty());
    EXPECT_FALSE(fs::exists(environment.stores() / "Tarrow" / "Tarrow.sqlite"));
  }
  fs::remove_all(pinboardFile);

  // A working set-up with a bookmark, then a corrupt Tarrow file: NO with an
  // error, no built-in items, and the bookmark still there.
  {
    auto coordinator = ZBTarrowDataStoreCoordinator::create();
    ASSERT_TRUE(coordinator->setup());
    insertPost(coordinator->rootManagedObjectContext(), "https://example.com/kept");
    ASSERT_TRUE(coordinator->teardown());
  }
  fs::path tarrowDirectory = environment.stores() / "Tarrow";
  for (const auto& entry : fs::directory_iterator(tarrowDirectory)) fs::remove(entry.path());
  writeFile(tarrowDirectory / "Tarrow.sqlite", std::string(8192, '\x5a'));
  {
    auto coordinator = ZBTarrowDataStoreCoordinator::create();
    NSErrorPtr error = sentinel;
    EXPECT_FALSE(coordinator->setup(&error));
    ASSERT_TRUE(error);
    EXPECT_NE(error, sentinel);
    auto stores = coordinator->persistentStoreCoordinator()->persistentStores();
    ASSERT_EQ(stores.size(), 1u);
    EXPECT_EQ(stores[0]->configurationName(), "Pinboard");
    auto posts = fetchAll(coordinator->rootManagedObjectContext(), ZBTarrowPinboardPostEntityName);
    ASSERT_EQ(posts.size(), 1u);
    EXPECT_EQ(posts[0].as<NSManagedObject>()->valueForKey(ZBTarrowPinboardPostURLKey), Value("https://example.com/kept"));
  }
}
