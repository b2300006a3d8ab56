#pragma once
// The library's model over a real pair of SQLite stores ("Pinboard" and
// "Tarrow") in a temporary directory, an injected clock and time zone, and a
// few builders for the model's tests.

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "model/ZBTarrowCollection.h"
#include "model/ZBTarrowPinboardPost.h"
#include "model/ZBTarrowPinboardTag.h"
#include "model/ZBTarrowSearch.h"
#include "platform/foundation/NSTimeZone.h"
#include "platform/foundation/ZBClock.h"
#include "platform/objectstore/NSManagedObjectContext.h"
#include "support/TemporaryDirectory.h"

class ModelStore {
public:
  ModelStore();
  // A new confinement context on the coordinator.
  std::shared_ptr<NSManagedObjectContext> newContext() const;
  // A new coordinator over the same two files, as another process would.
  std::shared_ptr<NSPersistentStoreCoordinator> reopen() const;

  TemporaryDirectory directory;
  std::filesystem::path pinboardFile;
  std::filesystem::path tarrowFile;
  std::shared_ptr<NSPersistentStoreCoordinator> coordinator;
};

// Sets the default time zone to `zone` and the process clock to a manual
// one; both are restored when it goes.
class InjectedTime {
public:
  explicit InjectedTime(const std::string& zone);
  ~InjectedTime();
  void setNow(NSDate now) { clock->setNow(now); }
  std::shared_ptr<ZBManualClock> clock;
};

// The date of a wall-clock time in the default time zone.
NSDate wallClock(int year, int month, int day, int hour = 0, int minute = 0, int second = 0);

std::shared_ptr<ZBTarrowPinboardPost> insertPost(NSManagedObjectContext& context, const std::string& url,
                                                 std::optional<NSDate> date = std::nullopt);
std::shared_ptr<ZBTarrowCollection> insertCollection(NSManagedObjectContext& context, const std::string& format,
                                                     std::vector<Value> arguments = {});
Array fetchAll(NSManagedObjectContext& context, const std::string& entity, const std::string& format = "",
               std::vector<Value> arguments = {});
// The titles of a post's tags, sorted by code point.
std::vector<std::string> tagTitles(const ZBTarrowPinboardPost& post);
