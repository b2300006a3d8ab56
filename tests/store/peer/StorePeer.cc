// The second process of the cross-process save test. It opens the stores of
// the data home it is given (the same files as the test), loads every post
// into its main context, says "ready", then reads one archived save
// notification (8-byte little-endian length, then the bytes) from stdin,
// converts it, merges it into its main context and reports on stdout what it
// sees, one fact per line:
//   <change key> <object URI> <url> <title>   members of the rebuilt notification
//   merged                                    the merge ran
//   held <url> <title> <deleted|present>      each post loaded before the merge
//   count <n>                                 posts now in the main context
// Kept out of the test program's sources (.cc) so that it has its own main.

#include <cstdint>
#include <cstdio>
#include <iostream>
#include <vector>

#include "model/ZBTarrowPinboardPost.h"
#include "platform/objectstore/NSFetchRequest.h"
#include "store/NSManagedObjectContext+ZBTarrowPersistentStoreSaveNotification.h"
#include "store/ZBTarrowDataStoreCoordinator.h"

namespace {

std::string text(const Value& value) { return value.isString() ? value.asString() : "-"; }

std::optional<Array> fetchPosts(const NSManagedObjectContextPtr& context) {
  return context->executeFetchRequest(NSFetchRequest::fetchRequestWithEntityName(ZBTarrowPinboardPostEntityName));
}

}  // namespace

int main() {
  auto coordinator = ZBTarrowDataStoreCoordinator::create();
  (void)coordinator->setup();  // as the application does: a missing default item is no reason to stop
  auto context = coordinator->mainManagedObjectContext();

  std::vector<std::shared_ptr<NSManagedObject>> held;
  bool loaded = false;
  context->performBlockAndWait([&] {
    auto before = fetchPosts(context);
    if (!before) return;
    for (const Value& post : *before) held.push_back(post.as<NSManagedObject>());
    loaded = true;
  });
  if (!loaded) return 2;
  std::cout << "ready" << std::endl;

  unsigned char header[8];
  if (std::fread(header, 1, 8, stdin) != 8) return 3;
  std::uint64_t length = 0;
  for (int i = 7; i >= 0; --i) length = (length << 8) | header[i];
  Data bytes(length);
  if (length && std::fread(bytes.data(), 1, length, stdin) != length) return 4;

  auto portable = ZBTarrowPersistentStoreNotification::unarchive(bytes);
  if (!portable) {
    std::cout << "unarchive-failed" << std::endl;
    return 5;
  }
  context->performBlockAndWait([&] {
    NSNotification notification = ZBTarrowCreateSaveNotificationFromPersistentStoreSaveNotification(context, *portable);
    for (const auto& [key, objects] : notification.userInfo) {
      for (const Value& member : objects.collectionElements()) {
        auto object = member.as<NSManagedObject>();
        std::cout << key << ' ' << object->objectID()->URIRepresentation() << ' '
                  << text(object->valueForKey(ZBTarrowPinboardPostURLKey)) << ' '
                  << text(object->valueForKey(ZBTarrowPinboardPostTitleKey)) << '\n';
      }
    }
    context->mergeChangesFromContextDidSaveNotification(notification);
    std::cout << "merged\n";
    for (const auto& object : held) {
      bool gone = object->isDeleted() || object->managedObjectContext() != context;
      std::cout << "held " << text(object->valueForKey(ZBTarrowPinboardPostURLKey)) << ' '
                << text(object->valueForKey(ZBTarrowPinboardPostTitleKey)) << ' ' << (gone ? "deleted" : "present")
                << '\n';
    }
    auto after = fetchPosts(context);
    std::cout << "count " << (after ? static_cast<long>(after->size()) : -1L) << std::endl;
  });
  return 0;
}
