#include "store/ZBTarrowDataStoreCoordinator.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string_view>

#include "model/ZBTarrowDataModel.h"
#include "platform/objectstore/NSPersistentStore.h"
#include "store/ZBTarrowDataStoreDefaultGenerator.h"

const std::string ZBTarrowDataBundleIdentifier = "com.orvane.zbtarrowdata";
const std::string ZBTarrowDataErrorDomain = "com.orvane.zbtarrowdata";

namespace {

const char* const kApplicationGroupsVariable = "ZBTARROW_APPLICATION_GROUPS";

// $XDG_DATA_HOME, or ~/.local/share as the XDG base directory rules say.
std::filesystem::path dataHome() {
  const char* xdg = std::getenv("XDG_DATA_HOME");
  if (xdg && *xdg == '/') return xdg;
  const char* home = std::getenv("HOME");
  return std::filesystem::path(home && *home ? home : "/") / ".local" / "share";
}

void createDirectory(const std::filesystem::path& path) {
  std::error_code ignored;
  std::filesystem::create_directories(path, ignored);
}

NSURL directoryURL(const std::filesystem::path& path) { return NSURL::fileURLWithPath(path.string(), true); }

}  // namespace

std::optional<std::string> ZBTarrowDataDefaultSecurityApplicationGroupIdentifier() {
  const char* groups = std::getenv(kApplicationGroupsVariable);
  if (!groups) return std::nullopt;
  std::string_view list(groups);
  std::string_view first = list.substr(0, list.find(':'));
  if (first.empty()) return std::nullopt;
  return std::string(first);
}

NSURL ZBTarrowDataApplicationGroupContainerStoresURL() {
  auto group = ZBTarrowDataDefaultSecurityApplicationGroupIdentifier();
  auto container = dataHome() / group.value_or(ZBTarrowDataBundleIdentifier);
  auto applicationSupport = container / "Library" / "Application Support";
  createDirectory(applicationSupport);
  auto stores = applicationSupport / "Stores";
  createDirectory(stores);
  return directoryURL(stores);
}

std::shared_ptr<ZBTarrowDataStoreCoordinator> ZBTarrowDataStoreCoordinator::create() {
  auto coordinator = std::make_shared<ZBTarrowDataStoreCoordinator>(Passkey());
  coordinator->_observeSaves();
  return coordinator;
}

ZBTarrowDataStoreCoordinator::ZBTarrowDataStoreCoordinator(Passkey) {
  _coordinator = NSPersistentStoreCoordinator::create(ZBTarrowDataCreateManagedObjectModel());

  // The root context has no undo manager: the object store keeps none.
  _rootContext = NSManagedObjectContext::create(NSPrivateQueueConcurrencyType);
  _rootContext->setMergePolicy(NSMergeByPropertyStoreTrumpMergePolicyType);
  _rootContext->performBlockAndWait([this] { _rootContext->setPersistentStoreCoordinator(_coordinator); });

  _mainContext = NSManagedObjectContext::create(NSMainQueueConcurrencyType);
  _mainContext->setMergePolicy(NSMergeByPropertyObjectTrumpMergePolicyType);
  _mainContext->performBlockAndWait([this] { _mainContext->setPersistentStoreCoordinator(_coordinator); });
}

ZBTarrowDataStoreCoordinator::~ZBTarrowDataStoreCoordinator() {
  _rootSaveObservation.invalidate();
  _mainSaveObservation.invalidate();
}

void ZBTarrowDataStoreCoordinator::_observeSaves() {
  std::weak_ptr<ZBTarrowDataStoreCoordinator> weakSelf =
      std::static_pointer_cast<ZBTarrowDataStoreCoordinator>(shared_from_this());
  auto observer = [weakSelf](const NSNotification& notification) {
    if (auto self = weakSelf.lock()) self->managedObjectContextDidSave(notification);
  };
  auto& center = NSNotificationCenter::defaultCenter();
  _rootSaveObservation = center.addObserver(NSManagedObjectContextDidSaveNotification, _rootContext, observer);
  _mainSaveObservation = center.addObserver(NSManagedObjectContextDidSaveNotification, _mainContext, observer);
}

void ZBTarrowDataStoreCoordinator::managedObjectContextDidSave(const NSNotification& notification) {
  NSManagedObjectContextPtr target;
  if (notification.object == _rootContext) {
    target = _mainContext;
  } else if (notification.object == _mainContext) {
    target = _rootContext;
  } else {
    return;
  }
  // Never wait here: the saving context's queue must not block on the other's.
  std::weak_ptr<NSManagedObjectContext> weakTarget = target;
  target->performBlock([weakTarget, notification] {
    if (auto context = weakTarget.lock()) context->mergeChangesFromContextDidSaveNotification(notification);
  });
}

bool ZBTarrowDataStoreCoordinator::setup(NSErrorPtr* error) { return _setupAndCreateDefaultItems(true, error); }

bool ZBTarrowDataStoreCoordinator::_setupAndCreateDefaultItems(bool createDefaultItems, NSErrorPtr* error) {
  NSURL pinboardLocation = _pinboardPersistentStoreLocation();
  NSURL tarrowLocation = _tarrowPersistentStoreLocation();

  // The Pinboard store's failure is deliberately not handed to the caller.
  NSErrorPtr pinboardError;
  if (!_coordinator->addPersistentStoreWithType(NSSQLiteStoreType, ZBTarrowDataPinboardConfigurationName,
                                                pinboardLocation, _pinboardPersistentStoreOptions(),
                                                &pinboardError)) {
    return false;
  }
  if (!_coordinator->addPersistentStoreWithType(NSSQLiteStoreType, ZBTarrowDataTarrowConfigurationName,
                                                tarrowLocation, _tarrowPersistentStoreOptions(), error)) {
    return false;
  }
  if (!createDefaultItems) return true;
  return _createDefaultItemsIfNeeded(_rootContext, error);
}

bool ZBTarrowDataStoreCoordinator::_createDefaultItemsIfNeeded(const NSManagedObjectContextPtr& context,
                                                               NSErrorPtr* error) {
  bool result = false;
  context->performBlockAndWait([&] {
    ZBTarrowDataStoreDefaultGenerator generator;
    result = generator.createDefaultSidebarItemsIfNeeded(context, error);
  });
  return result;
}

bool ZBTarrowDataStoreCoordinator::teardown(NSErrorPtr* error) {
  auto pinboard = _coordinator->persistentStoreForURL(_pinboardPersistentStoreLocation());
  if (!_coordinator->removePersistentStore(pinboard, error)) return false;
  auto tarrow = _coordinator->persistentStoreForURL(_tarrowPersistentStoreLocation());
  return _coordinator->removePersistentStore(tarrow, error);
}

NSURL ZBTarrowDataStoreCoordinator::_persistentStoresContainerLocation() {
  return ZBTarrowDataApplicationGroupContainerStoresURL();
}

NSURL ZBTarrowDataStoreCoordinator::_pinboardPersistentStoreLocation() {
  std::filesystem::path directory = std::filesystem::path(_persistentStoresContainerLocation().path()) / "Pinboard";
  createDirectory(directory);
  return NSURL::fileURLWithPath((directory / "Pinboard.sqlite").string());
}

NSURL ZBTarrowDataStoreCoordinator::_tarrowPersistentStoreLocation() {
  std::filesystem::path directory = std::filesystem::path(_persistentStoresContainerLocation().path()) / "Tarrow";
  createDirectory(directory);
  return NSURL::fileURLWithPath((directory / "Tarrow.sqlite").string());
}

NSURL ZBTarrowDataStoreCoordinator::_legacyPersistentStoreLocation() {
  std::filesystem::path directory = dataHome() / program_invocation_short_name;
  createDirectory(directory);
  return NSURL::fileURLWithPath((directory / "Pinboard.sqlite").string());
}

Dictionary ZBTarrowDataStoreCoordinator::_pinboardPersistentStoreOptions() {
  return Dictionary{{NSMigratePersistentStoresAutomaticallyOption, true},
                    {NSInferMappingModelAutomaticallyOption, true},
                    {NSPersistentStoreTimeoutOption, 1800}};
}

Dictionary ZBTarrowDataStoreCoordinator::_tarrowPersistentStoreOptions() { return _pinboardPersistentStoreOptions(); }
