// Store reset: throws one store's data away (logout) while the coordinator
// and both contexts stay alive.

#include <filesystem>
#include <system_error>

#include "platform/objectstore/NSPersistentStore.h"
#include "store/ZBTarrowDataStoreCoordinator.h"

namespace {

NSErrorPtr fileError(std::int64_t code, const std::error_code& failure, const std::filesystem::path& path) {
  return NSError::create(
      NSCocoaErrorDomain, code,
      Dictionary{{NSFilePathErrorKey, path.string()},
                 {NSUnderlyingErrorKey,
                  Value(NSError::create(NSPOSIXErrorDomain, failure.value(),
                                        Dictionary{{NSLocalizedDescriptionKey, failure.message()}}))}});
}

}  // namespace

bool ZBTarrowDataStoreCoordinator::resetPinboardStore(NSErrorPtr* error) {
  return _resetStoreAtLocation(_pinboardPersistentStoreLocation(), error);
}

bool ZBTarrowDataStoreCoordinator::resetTarrowStore(NSErrorPtr* error) {
  return _resetStoreAtLocation(_tarrowPersistentStoreLocation(), error);
}

void ZBTarrowDataStoreCoordinator::_performCriticalSectionOnPersistentStoreCoordinator(
    const std::function<void()>& work) {
  // The coordinator's performBlockAndWait holds its lock, so no context can
  // fetch or save while a store is missing.
  _coordinator->performBlockAndWait(work);
}

bool ZBTarrowDataStoreCoordinator::_resetStoreAtLocation(const NSURL& location, NSErrorPtr* error) {
  bool result = false;
  _performCriticalSectionOnPersistentStoreCoordinator([&] {
    auto store = _coordinator->persistentStoreForURL(location);
    if (!store) {
      // Deliberately bare: no description, no user information.
      ZBSetError(error, NSError::create(ZBTarrowDataErrorDomain, 0, Dictionary{}));
      return;
    }
    std::string type = store->type();
    std::string configuration = store->configurationName();
    Dictionary options = store->options();
    if (!_coordinator->removePersistentStore(store, error)) return;

    // The whole directory goes: the SQLite side files and anything left
    // beside the store file.
    std::filesystem::path directory = std::filesystem::path(location.path()).parent_path();
    std::error_code failure;
    std::filesystem::remove_all(directory, failure);
    if (failure) {
      ZBSetError(error, fileError(NSFileWriteUnknownError, failure, directory));
      return;
    }
    std::filesystem::create_directories(directory, failure);
    if (failure) {
      ZBSetError(error, fileError(NSFileWriteUnknownError, failure, directory));
      return;
    }
    result = _coordinator->addPersistentStoreWithType(type, configuration, location, options, error) != nullptr;
  });
  return result;
}
