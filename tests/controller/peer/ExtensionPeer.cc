// The second process of the controller's cross-process test, standing in for
// the share extension: it opens the same stores (the data home and
// application group come from the environment), saves one new post in its
// main context, sends it with sendPostCreation, and writes the archived form
// of every save of its contexts to OUTDIR/save-<n>.archive, in order.
//   extension_peer API_URL FEEDS_URL USER SECRET URL OUTDIR
// Exit status 0 once the service has the post. Kept out of the test program's
// sources (.cc) so that it has its own main.

#include <fstream>
#include <iostream>
#include <mutex>

#include "controller/ZBTarrowDataController.h"
#include "model/ZBTarrowPinboardPost.h"
#include "platform/foundation/NSNotificationCenter.h"
#include "platform/operations/NSRunLoop.h"
#include "platform/pinboardkit/ZBPinboardKit.h"
#include "store/NSManagedObjectContext+ZBTarrowPersistentStoreSaveNotification.h"

int main(int argc, char** argv) {
  if (argc != 7) return 2;
  const std::filesystem::path out = argv[6];
  NSUserDefaults::setStandardUserDefaultsPath(out / "extension-standard.plist");
  auto defaults = NSUserDefaults::create(out / "extension-defaults.plist");
  defaults->setObject(Value(argv[1]), ZBPinboardAPIBaseURLDefaultKey);
  defaults->setObject(Value(argv[2]), ZBPinboardFeedsBaseURLDefaultKey);
  defaults->setObject(Value((out / "extension-credentials.plist").string()), ZBPinboardCredentialsPathDefaultKey);
  defaults->setObject(Value(0.0), ZBPinboardRequestIntervalDefaultKey);
  auto controller = ZBTarrowDataController::create(defaults);
  controller->pinboardClient()->setCredentials(ZBPinboardCredentials::create(argv[3], argv[4]));

  std::mutex mutex;
  int saves = 0;
  bool written = true;
  auto root = controller->pinboardStoreCoordinator()->rootManagedObjectContext();
  auto main = controller->mainManagedObjectContext();
  std::vector<NSNotificationObservation> observations;
  for (const auto& context : {root, main}) {
    observations.push_back(NSNotificationCenter::defaultCenter().addObserver(
        NSManagedObjectContextDidSaveNotification, context, [&, context](const NSNotification& notification) {
          // Posted on the saving context's queue, where the conversion runs.
          auto portable = ZBTarrowCreatePersistentStoreSaveNotificationFromSaveNotification(context, notification);
          auto bytes = portable ? portable->archive() : std::nullopt;
          std::lock_guard lock(mutex);
          std::ofstream file(out / ("save-" + std::to_string(saves++) + ".archive"), std::ios::binary);
          if (bytes) file.write(reinterpret_cast<const char*>(bytes->data()), static_cast<std::streamsize>(bytes->size()));
          written = written && bytes && file.good();
        }));
  }

  auto post = main->insertNewObject<ZBTarrowPinboardPost>(ZBTarrowPinboardPostEntityName);
  post->setUrl(std::string(argv[5]));
  post->setIdentifier(ZBTarrowPinboardPost::identifierForURL(argv[5]));
  post->setTitle("Shared from the extension");
  post->setDirty(true);
  NSErrorPtr error;
  if (!main->save(&error)) return 3;

  int calls = 0;
  bool sent = false;
  controller->sendPostCreation(post, [&](bool success, NSErrorPtr failure) {
    ++calls;
    sent = success;
    if (failure) std::cerr << failure->description() << '\n';
  });
  if (!NSRunLoop::mainRunLoop()->runUntil([&] { return calls > 0; }, 60)) return 4;
  std::lock_guard lock(mutex);
  return sent && written ? 0 : 5;
}
