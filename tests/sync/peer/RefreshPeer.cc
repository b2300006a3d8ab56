// The process the kill trials kill: it opens the stores of the data home in
// its environment and runs one refresh against the simulator, then exits 0
// (1 when the refresh failed). The standard defaults (the refresh's
// timestamp) live in DEFAULTS_DIR, shared with the test.
//   refresh_peer API_URL TOKEN DEFAULTS_DIR
// Kept out of the test program's sources (.cc) so that it has its own main.

#include <iostream>

#include "platform/operations/NSOperationQueue.h"
#include "platform/pinboardkit/ZBPinboardClient.h"
#include "store/ZBTarrowDataStoreCoordinator.h"
#include "sync/ZBTarrowPinboardRefreshOperation.h"

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  const std::filesystem::path dir = argv[3];
  NSUserDefaults::setStandardUserDefaultsPath(dir / "standard.plist");
  auto defaults = NSUserDefaults::create(dir / "peer-defaults.plist");
  defaults->setObject(Value(argv[1]), ZBPinboardAPIBaseURLDefaultKey);
  defaults->setObject(Value(std::string(argv[1]).replace(std::string(argv[1]).find("/v1/"), 4, "/json/")),
                      ZBPinboardFeedsBaseURLDefaultKey);
  for (const auto* key : {&ZBPinboardRequestIntervalDefaultKey, &ZBPinboardRecentIntervalDefaultKey,
                          &ZBPinboardAllPostsIntervalDefaultKey, &ZBPinboardFeedIntervalDefaultKey})
    defaults->setObject(Value(0.0), *key);
  defaults->setObject(Value((dir / "peer-credentials.plist").string()), ZBPinboardCredentialsPathDefaultKey);
  std::string token = argv[2];
  auto client = ZBPinboardClient::create(defaults);
  client->setCredentials(ZBPinboardCredentials::create(token.substr(0, token.find(':')), token.substr(token.find(':') + 1)));

  auto stack = ZBTarrowDataStoreCoordinator::create();
  NSErrorPtr error;
  if (!stack->setup(&error)) return 3;
  auto refresh = ZBTarrowPinboardRefreshOperation::create(client, stack->rootManagedObjectContext());
  auto queue = NSOperationQueue::create();
  queue->addOperation(refresh);
  refresh->waitUntilFinished();
  if (!refresh->completionProvider()(&error)) {
    std::cerr << error->description() << '\n';
    return 1;
  }
  return 0;
}
