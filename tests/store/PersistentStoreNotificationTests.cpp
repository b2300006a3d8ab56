#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <random>
#include <sstream>

#include <gtest/gtest.h>

#include "model/ZBTarrowPinboardPost.h"
#include "platform/archive/NSKeyedArchiver.h"
#include "platform/objectstore/NSFetchRequest.h"
#include "store/NSManagedObjectContext+ZBTarrowPersistentStoreSaveNotification.h"
#include "store/StoreTestSupport.h"
#include "store/ZBTarrowDataStoreCoordinator.h"

extern char** environ;

namespace {

std::shared_ptr<NSManagedObject> insertPost(const NSManagedObjectContextPtr& context, const std::string& url,
                                            const std::string& title) {
  auto post = context->insertNewObjectForEntityForName(ZBTarrowPinboardPostEntityName);
  post->setValueForKey(url, ZBTarrowPinboardPostURLKey);
  post->setValueForKey(title, ZBTarrowPinboardPostTitleKey);
  return post;
}

// Saves context and returns its did-save notification.
NSNotification saveCapturing(const NSManagedObjectContextPtr& context) {
  NSNotification captured;
  auto token = NSNotificationCenter::defaultCenter().addObserver(
      NSManagedObjectContextDidSaveNotification, context, [&](const NSNotification& n) { captured = n; });
  NSErrorPtr error;
  EXPECT_TRUE(context->save(&error)) << (error ? error->description() : "");
  return captured;
}

// The stores are opened even when the built-in items cannot be written.
ZBTarrowDataStoreCoordinatorPtr openStores() {
  auto coordinator = ZBTarrowDataStoreCoordinator::create();
  (void)coordinator->setup();  // the result is the built-in items'; the stores are checked below
  EXPECT_EQ(coordinator->persistentStoreCoordinator()->persistentStores().size(), 2u);
  return coordinator;
}

// A context of its own on the stores, so that these tests depend on nothing
// the set-up left in the root context.
NSManagedObjectContextPtr contextOn(const ZBTarrowDataStoreCoordinatorPtr& coordinator) {
  auto context = NSManagedObjectContext::create(NSPrivateQueueConcurrencyType);
  context->performBlockAndWait([&] { context->setPersistentStoreCoordinator(coordinator->persistentStoreCoordinator()); });
  return context;
}

}  // namespace

TEST(ZBTarrowPersistentStoreNotification, ArchivesRoundTripAndRefuseAnythingElse) {
  auto original = ZBTarrowPersistentStoreNotification::notificationWithName(
      NSManagedObjectContextDidSaveNotification,
      Dictionary{{"inserted", Array{"x-coredata://A/PinboardPost/p1", "x-coredata://A/PinboardPost/p2"}},
                 {"deleted", Array{"x-coredata://A/PinboardPost/p3"}}});
  auto data = original->archive();
  ASSERT_TRUE(data);
  auto copy = ZBTarrowPersistentStoreNotification::unarchive(*data);
  ASSERT_TRUE(copy);
  EXPECT_EQ(copy->name(), NSManagedObjectContextDidSaveNotification);
  EXPECT_EQ(copy->userInfo(), original->userInfo());

  // Random bytes, truncations, an archive of another class, values of a kind
  // the format does not admit: all give nothing.
  std::mt19937 random(7);
  for (int i = 0; i < 200; ++i) {
    Data bytes(random() % 300);
    for (auto& byte : bytes) byte = static_cast<std::uint8_t>(random());
    EXPECT_FALSE(ZBTarrowPersistentStoreNotification::unarchive(bytes));
  }
  for (std::size_t length = 0; length < data->size(); length += 7) {
    EXPECT_FALSE(ZBTarrowPersistentStoreNotification::unarchive(Data(data->begin(), data->begin() + length)));
  }
  EXPECT_FALSE(ZBTarrowPersistentStoreNotification::unarchive(
      NSKeyedArchiver::archivedDataWithRootObject(Dictionary{{"name", "x"}, {"userInfo", Dictionary{}}})));
  auto numbers = ZBTarrowPersistentStoreNotification::notificationWithName("n", Dictionary{{"inserted", Array{1, 2}}});
  auto numbersData = numbers->archive();
  ASSERT_TRUE(numbersData);
  EXPECT_FALSE(ZBTarrowPersistentStoreNotification::unarchive(*numbersData));
}

TEST(ZBTarrowPersistentStoreNotification, ConvertsSavesBetweenCoordinatorsOnTheSameFiles) {
  StoreEnvironment environment;
  auto writer = openStores();
  auto reader = openStores();
  auto out = contextOn(writer);
  auto in = contextOn(reader);

  std::string keptURI, goneURI;
  out->performBlockAndWait([&] {
    insertPost(out, "https://example.com/kept", "Kept");
    auto gone = insertPost(out, "https://example.com/gone", "Gone");
    NSNotification saved = saveCapturing(out);
    auto portable = ZBTarrowCreatePersistentStoreSaveNotificationFromSaveNotification(out, saved);
    EXPECT_EQ(portable->name(), NSManagedObjectContextDidSaveNotification);
    // Only non-empty change sets travel.
    EXPECT_EQ(portable->userInfo().allKeys(), std::vector<std::string>{NSInsertedObjectsKey});
    EXPECT_EQ(portable->userInfo()[NSInsertedObjectsKey].count(), 2u);
    goneURI = gone->objectID()->URIRepresentation();
    for (const Value& uri : portable->userInfo()[NSInsertedObjectsKey].asArray()) {
      if (uri.asString() != goneURI) keptURI = uri.asString();
    }
    // The other side deletes one before the notification arrives.
    out->deleteObject(gone);
    ASSERT_TRUE(out->save());
  });
  ASSERT_FALSE(keptURI.empty());

  auto portable = ZBTarrowPersistentStoreNotification::notificationWithName(
      "ignored", Dictionary{{NSInsertedObjectsKey, Array{keptURI, goneURI, "not a url", "x-coredata://NOPE/PinboardPost/p1"}},
                            {NSUpdatedObjectsKey, Array{"junk"}},
                            {NSDeletedObjectsKey, Array{}}});
  auto copy = ZBTarrowPersistentStoreNotification::unarchive(*portable->archive());
  ASSERT_TRUE(copy);
  in->performBlockAndWait([&] {
    NSNotification notification = ZBTarrowCreateSaveNotificationFromPersistentStoreSaveNotification(in, *copy);
    EXPECT_EQ(notification.name, NSManagedObjectContextDidSaveNotification);
    EXPECT_EQ(notification.object, nullptr);
    // A key whose every entry was dropped keeps an empty set; an empty key is left out.
    EXPECT_TRUE(notification.userInfo.contains(NSUpdatedObjectsKey));
    EXPECT_EQ(notification.userInfo[NSUpdatedObjectsKey].count(), 0u);
    EXPECT_FALSE(notification.userInfo.contains(NSDeletedObjectsKey));
    std::map<std::string, std::shared_ptr<NSManagedObject>> byURI;
    for (const Value& member : notification.userInfo[NSInsertedObjectsKey].collectionElements()) {
      auto object = member.as<NSManagedObject>();
      byURI[object->objectID()->URIRepresentation()] = object;
    }
    ASSERT_EQ(byURI.size(), 2u);
    ASSERT_TRUE(byURI[keptURI]);
    EXPECT_EQ(byURI[keptURI]->managedObjectContext(), in);
    EXPECT_EQ(byURI[keptURI]->valueForKey(ZBTarrowPinboardPostTitleKey), Value("Kept"));
    // The deleted row is found only by the plain lookup, so the merge can remove it here.
    ASSERT_TRUE(byURI[goneURI]);
    EXPECT_FALSE(ZBTarrowFetchCleanManagedObjectForURIRepresentation(in, *NSURL::URLWithString(goneURI)));
    EXPECT_TRUE(ZBTarrowManagedObjectForURIRepresentation(in, *NSURL::URLWithString(goneURI)));
  });
}

#ifdef ZB_STORE_PEER_PATH
TEST(ZBTarrowPersistentStoreNotification, AnotherProcessMergesExactlyTheSavedChange) {
  StoreEnvironment environment;
  auto coordinator = openStores();
  auto context = contextOn(coordinator);
  std::map<std::string, std::string> uriOf;
  context->performBlockAndWait([&] {
    for (const char* name : {"one", "two", "three"}) insertPost(context, std::string("https://example.com/") + name, name);
    ASSERT_TRUE(context->save());
  });

  int toPeer[2], fromPeer[2];
  ASSERT_EQ(pipe(toPeer), 0);
  ASSERT_EQ(pipe(fromPeer), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, toPeer[0], 0);
  posix_spawn_file_actions_adddup2(&actions, fromPeer[1], 1);
  posix_spawn_file_actions_addclose(&actions, toPeer[1]);
  posix_spawn_file_actions_addclose(&actions, fromPeer[0]);
  pid_t pid = 0;
  char* argv[] = {const_cast<char*>(ZB_STORE_PEER_PATH), nullptr};
  ASSERT_EQ(posix_spawn(&pid, ZB_STORE_PEER_PATH, &actions, nullptr, argv, environ), 0);
  posix_spawn_file_actions_destroy(&actions);
  close(toPeer[0]);
  close(fromPeer[1]);
  FILE* output = fdopen(fromPeer[0], "r");
  char line[1024];
  ASSERT_TRUE(fgets(line, sizeof line, output));
  ASSERT_STREQ(line, "ready\n");

  // Update one, delete one, insert one; send the save.
  Data bytes;
  context->performBlockAndWait([&] {
    auto request = NSFetchRequest::fetchRequestWithEntityName(ZBTarrowPinboardPostEntityName);
    auto posts = context->executeFetchRequest(request);
    ASSERT_TRUE(posts);
    for (const Value& value : *posts) {
      auto post = value.as<NSManagedObject>();
      std::string url = post->valueForKey(ZBTarrowPinboardPostURLKey).asString();
      uriOf[url] = post->objectID()->URIRepresentation();
      if (url == "https://example.com/one") post->setValueForKey("first", ZBTarrowPinboardPostTitleKey);
      if (url == "https://example.com/two") context->deleteObject(post);
    }
    auto inserted = insertPost(context, "https://example.com/four", "four");
    NSNotification saved = saveCapturing(context);
    uriOf["https://example.com/four"] = inserted->objectID()->URIRepresentation();
    bytes = *ZBTarrowCreatePersistentStoreSaveNotificationFromSaveNotification(context, saved)->archive();
  });
  unsigned char header[8];
  for (int i = 0; i < 8; ++i) header[i] = static_cast<unsigned char>(bytes.size() >> (8 * i));
  ASSERT_EQ(write(toPeer[1], header, 8), 8);
  ASSERT_EQ(write(toPeer[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  close(toPeer[1]);

  std::string report;
  while (fgets(line, sizeof line, output)) report += line;
  fclose(output);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << report;

  std::string expected = NSDeletedObjectsKey + " " + uriOf["https://example.com/two"] + " https://example.com/two two\n" +
                         NSInsertedObjectsKey + " " + uriOf["https://example.com/four"] + " https://example.com/four four\n" +
                         NSUpdatedObjectsKey + " " + uriOf["https://example.com/one"] + " https://example.com/one ";
  EXPECT_EQ(report.substr(0, expected.size()), expected) << report;
  // After the merge: the update reached the loaded object, the deleted one left the context.
  EXPECT_NE(report.find("\nmerged\n"), std::string::npos) << report;
  EXPECT_NE(report.find("held https://example.com/one first present\n"), std::string::npos) << report;
  EXPECT_NE(report.find("held https://example.com/three three present\n"), std::string::npos) << report;
  EXPECT_NE(report.find("held https://example.com/two two deleted\n"), std::string::npos) << report;
  EXPECT_NE(report.find("count 3\n"), std::string::npos) << report;
}
#endif
