#pragma once
// ZBTarrowDataStoreCoordinator: the library's persistence stack — the object
// model, one persistent store coordinator over two SQLite stores (the
// service's data in "Pinboard", the application's own sidebar items in
// "Tarrow") and two sibling contexts directly on it: a private-queue root
// context, parent of all background work, and a main-queue context for the
// interface. A save of either context is merged into the other,
// asynchronously on the other's queue; saves of any other context are not
// observed.
//
// Where the stores live: the container of the process's application group
// (ZBTarrowDataDefaultSecurityApplicationGroupIdentifier) under
// $XDG_DATA_HOME (~/.local/share when unset), then
// "Library/Application Support/Stores", then "Pinboard/Pinboard.sqlite" and
// "Tarrow/Tarrow.sqlite". An application and its extensions that name the
// same group open the same files.
//
// Ownership: held by shared_ptr (create); it owns the coordinator and both
// contexts. Destroying it ends the save observation.
// Thread-safety: create, setup, teardown and the resets belong on the main
// thread; the contexts follow their own queue rules. The save observer may
// run on any thread: it only schedules merges.

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/foundation/NSError.h"
#include "platform/foundation/NSNotificationCenter.h"
#include "platform/foundation/NSObject.h"
#include "platform/foundation/NSURL.h"
#include "platform/objectstore/NSManagedObjectContext.h"
#include "platform/objectstore/NSPersistentStoreCoordinator.h"

// The library's identifier, also the domain of its own errors.
extern const std::string ZBTarrowDataBundleIdentifier;  // "com.orvane.zbtarrowdata"
extern const std::string ZBTarrowDataErrorDomain;       // "com.orvane.zbtarrowdata"

// The first entry of the colon-separated list in ZBTARROW_APPLICATION_GROUPS
// (the application groups the process belongs to); nullopt when the variable
// is unset or its first entry is empty.
std::optional<std::string> ZBTarrowDataDefaultSecurityApplicationGroupIdentifier();
// <data home>/<group, or the library's identifier when there is none>/
// Library/Application Support/Stores, created if missing (creation failures
// are ignored; opening the stores reports them).
NSURL ZBTarrowDataApplicationGroupContainerStoresURL();

class ZBTarrowDataStoreCoordinator final : public NSObject {
  struct Passkey {
    explicit Passkey() = default;
  };

public:
  // Builds the model, the coordinator and both contexts; adds no store.
  static std::shared_ptr<ZBTarrowDataStoreCoordinator> create();
  // For create only (the merging of saves is set up there).
  explicit ZBTarrowDataStoreCoordinator(Passkey);
  ~ZBTarrowDataStoreCoordinator() override;

  const std::shared_ptr<NSPersistentStoreCoordinator>& persistentStoreCoordinator() const { return _coordinator; }
  const NSManagedObjectContextPtr& rootManagedObjectContext() const { return _rootContext; }
  const NSManagedObjectContextPtr& mainManagedObjectContext() const { return _mainContext; }

  // Adds both stores and creates the built-in sidebar items that are missing.
  // False when a store cannot be added or the items cannot be saved. A
  // failure to open the Pinboard store leaves *error untouched (the Tarrow
  // store is then not tried); the other failures set it.
  [[nodiscard]] bool setup(NSErrorPtr* error = nullptr);
  // Removes both stores from the coordinator (the files stay). False and
  // *error when a removal fails; a failure at the Pinboard store leaves the
  // Tarrow store in place.
  [[nodiscard]] bool teardown(NSErrorPtr* error = nullptr);

  // Deletes the store's directory with everything in it and opens a fresh,
  // empty store with the same configuration and options in its place, while
  // holding the coordinator exclusively. False and *error on failure: when no
  // store is open there (ZBTarrowDataErrorDomain, code 0, no user
  // information; nothing is deleted), or the platform's error of the step
  // that failed. No step is undone. Objects already in contexts are not
  // refreshed; cancel work using the store first.
  [[nodiscard]] bool resetPinboardStore(NSErrorPtr* error = nullptr);
  [[nodiscard]] bool resetTarrowStore(NSErrorPtr* error = nullptr);

  // Observer of NSManagedObjectContextDidSaveNotification (registered for the
  // root and the main context).
  void managedObjectContextDidSave(const NSNotification& notification);

  // Store locations; each creates the directory that will hold the file.
  static NSURL _persistentStoresContainerLocation();
  static NSURL _pinboardPersistentStoreLocation();
  static NSURL _tarrowPersistentStoreLocation();
  // Where the single store of old versions lived; nothing reads it.
  static NSURL _legacyPersistentStoreLocation();
  static Dictionary _pinboardPersistentStoreOptions();
  static Dictionary _tarrowPersistentStoreOptions();

  std::string className() const override { return "ZBTarrowDataStoreCoordinator"; }

private:
  [[nodiscard]] bool _setupAndCreateDefaultItems(bool createDefaultItems, NSErrorPtr* error);
  [[nodiscard]] bool _createDefaultItemsIfNeeded(const NSManagedObjectContextPtr& context, NSErrorPtr* error);
  [[nodiscard]] bool _resetStoreAtLocation(const NSURL& location, NSErrorPtr* error);
  void _performCriticalSectionOnPersistentStoreCoordinator(const std::function<void()>& work);
  void _observeSaves();

  std::shared_ptr<NSPersistentStoreCoordinator> _coordinator;
  NSManagedObjectContextPtr _rootContext;
  NSManagedObjectContextPtr _mainContext;
  NSNotificationObservation _rootSaveObservation;
  NSNotificationObservation _mainSaveObservation;
};

using ZBTarrowDataStoreCoordinatorPtr = std::shared_ptr<ZBTarrowDataStoreCoordinator>;
