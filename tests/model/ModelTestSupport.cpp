#include "model/ModelTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "model/ZBTarrowDataModel.h"
#include "platform/foundation/NSCalendar.h"
#include "platform/objectstore/NSFetchRequest.h"
#include "platform/objectstore/NSPersistentStore.h"

namespace {

bool addStores(NSPersistentStoreCoordinator& coordinator, const std::filesystem::path& pinboard,
               const std::filesystem::path& tarrow) {
  NSErrorPtr error;
  for (auto& [configuration, file] : {std::pair{ZBTarrowDataPinboardConfigurationName, pinboard},
                                      std::pair{ZBTarrowDataTarrowConfigurationName, tarrow}}) {
    if (!coordinator.addPersistentStoreWithType(NSSQLiteStoreType, configuration,
                                                NSURL::fileURLWithPath(file.string()), {}, &error)) {
      ADD_FAILURE() << "cannot open the " << configuration << " store: " << (error ? error->description() : "?");
      return false;
    }
  }
  return true;
}

}  // namespace

ModelStore::ModelStore()
    : pinboardFile(directory / "Pinboard.sqlite"),
      tarrowFile(directory / "Tarrow.sqlite"),
      coordinator(NSPersistentStoreCoordinator::create(ZBTarrowDataCreateManagedObjectModel())) {
  addStores(*coordinator, pinboardFile, tarrowFile);
}

std::shared_ptr<NSManagedObjectContext> ModelStore::newContext() const {
  auto context = NSManagedObjectContext::create(NSConfinementConcurrencyType);
  context->setPersistentStoreCoordinator(coordinator);
  return context;
}

std::shared_ptr<NSPersistentStoreCoordinator> ModelStore::reopen() const {
  auto other = NSPersistentStoreCoordinator::create(ZBTarrowDataCreateManagedObjectModel());
  return addStores(*other, pinboardFile, tarrowFile) ? other : nullptr;
}

InjectedTime::InjectedTime(const std::string& zone) : clock(std::make_shared<ZBManualClock>(NSDate(0))) {
  auto timeZone = NSTimeZone::timeZoneWithName(zone);
  if (!timeZone) ADD_FAILURE() << "unknown time zone " << zone;
  NSTimeZone::setDefaultTimeZone(timeZone);
  ZBClock::setCurrent(clock);
}

InjectedTime::~InjectedTime() {
  ZBClock::setCurrent(nullptr);
  NSTimeZone::setDefaultTimeZone(std::nullopt);
}

NSDate wallClock(int year, int month, int day, int hour, int minute, int second) {
  auto calendar = NSCalendar::calendarWithIdentifier(NSCalendarIdentifierGregorian);
  NSDateComponents components;
  components.year = year;
  components.month = month;
  components.day = day;
  components.hour = hour;
  components.minute = minute;
  components.second = second;
  auto date = calendar->dateFromComponents(components);
  if (!date) ADD_FAILURE() << "no such date";
  return date.value_or(NSDate());
}

std::shared_ptr<ZBTarrowPinboardPost> insertPost(NSManagedObjectContext& context, const std::string& url,
                                                 std::optional<NSDate> date) {
  auto post = context.insertNewObject<ZBTarrowPinboardPost>(ZBTarrowPinboardPostEntityName);
  post->setUrl(url);
  if (date) post->setDate(*date);
  return post;
}

std::shared_ptr<ZBTarrowCollection> insertCollection(NSManagedObjectContext& context, const std::string& format,
                                                     std::vector<Value> arguments) {
  auto collection = context.insertNewObject<ZBTarrowCollection>(ZBTarrowCollectionEntityName);
  if (!format.empty()) {
    NSErrorPtr error;
    auto predicate = NSPredicate::predicateWithFormat(format, std::move(arguments), &error);
    if (!predicate) ADD_FAILURE() << "bad predicate " << format << ": " << error->description();
    collection->setPredicate(predicate);
  }
  return collection;
}

Array fetchAll(NSManagedObjectContext& context, const std::string& entity, const std::string& format,
               std::vector<Value> arguments) {
  auto request = NSFetchRequest::fetchRequestWithEntityName(entity);
  if (!format.empty()) request->setPredicate(NSPredicate::predicateWithFormat(format, std::move(arguments)));
  NSErrorPtr error;
  auto results = context.executeFetchRequest(request, &error);
  if (!results) {
    ADD_FAILURE() << "fetch of " << entity << " failed: " << error->description();
    return {};
  }
  return *results;
}

std::vector<std::string> tagTitles(const ZBTarrowPinboardPost& post) {
  std::vector<std::string> titles;
  for (auto& tag : post.tags()) titles.push_back(tag->title().value_or("<none>"));
  std::sort(titles.begin(), titles.end());
  return titles;
}
