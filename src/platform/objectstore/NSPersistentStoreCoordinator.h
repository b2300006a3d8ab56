#pragma once
// NSPersistentStoreCoordinator: the stores of one model, and the one place
// where contexts read rows and write their saves. Each entity lives in the
// first added store whose configuration holds it; fetches and saves of an
// entity go to that store.
//
// Ownership: contexts hold their coordinator strongly; stores belong to the
// coordinator until removed.
// Thread-safety: thread-safe. Every store access runs under the
// coordinator's recursive lock, so contexts on different threads take turns;
// lock()/unlock() and performBlockAndWait give that exclusivity to callers
// (store reset). The list of stores is guarded by that lock.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/NSError.h"
#include "platform/foundation/NSObject.h"
#include "platform/foundation/NSURL.h"
#include "platform/foundation/ZBMutex.h"
#include "platform/objectstore/NSManagedObjectID.h"
#include "platform/objectstore/NSManagedObjectModel.h"
#include "platform/objectstore/NSPersistentStore.h"
#include "platform/objectstore/impl/ZBStoreTypes.h"

class ZBObjectIDRegistry;
class ZBSQLiteStore;
struct ZBStoreQuery;

class NSPersistentStoreCoordinator final : public NSObject {
  struct Passkey {
    explicit Passkey() = default;
  };

public:
  static std::shared_ptr<NSPersistentStoreCoordinator> create(std::shared_ptr<NSManagedObjectModel> model);
  // For create only (stores refer back to the coordinator's shared_ptr).
  NSPersistentStoreCoordinator(Passkey, std::shared_ptr<NSManagedObjectModel> model);
  ~NSPersistentStoreCoordinator() override;

  const std::shared_ptr<NSManagedObjectModel>& managedObjectModel() const { return _model; }

  // Opens (creating if needed) the store file at url (a file URL) for the
  // entities of configuration (empty: all). Options: see NSPersistentStore.h.
  // Null and *error when the type is not NSSQLiteStoreType, the
  // configuration is unknown, a store at that location is already added, or
  // the file cannot be opened or migrated (it is then left as it was).
  [[nodiscard]] std::shared_ptr<NSPersistentStore> addPersistentStoreWithType(const std::string& storeType,
                                                                              const std::string& configuration,
                                                                              const NSURL& url,
                                                                              const Dictionary& options,
                                                                              NSErrorPtr* error = nullptr);
  // Closes the store. Objects of its entities can no longer be fetched or
  // saved. False and *error when the store is not one of this coordinator's.
  [[nodiscard]] bool removePersistentStore(const std::shared_ptr<NSPersistentStore>& store,
                                           NSErrorPtr* error = nullptr);
  // Null when no store of this coordinator is at url.
  std::shared_ptr<NSPersistentStore> persistentStoreForURL(const NSURL& url) const;
  std::vector<std::shared_ptr<NSPersistentStore>> persistentStores() const;

  // The permanent ID named by a URI (x-coredata://<store UUID>/<Entity>/p<pk>)
  // of one of this coordinator's stores; null for anything else (a temporary
  // ID's URI, an unknown store or entity, malformed text). Whether the row
  // exists is not checked.
  NSManagedObjectIDPtr managedObjectIDForURIRepresentation(std::string_view uri) const;
  NSManagedObjectIDPtr managedObjectIDForURIRepresentation(const NSURL& uri) const {
    return managedObjectIDForURIRepresentation(uri.absoluteString());
  }

  // Exclusive use of the coordinator (and so of all its stores) from the
  // calling thread. Recursive.
  void lock() ZB_ACQUIRE(_lock) { _lock.lock(); }
  void unlock() ZB_RELEASE(_lock) { _lock.unlock(); }
  // Runs block on the calling thread while holding the lock.
  void performBlockAndWait(const std::function<void()>& block);

  std::string className() const override { return "NSPersistentStoreCoordinator"; }

  // --- For contexts. Each takes the lock for the duration of the call. ---

  // The store holding entity; null (and *error) when there is none.
  std::shared_ptr<NSPersistentStore> _storeForEntity(const NSEntityDescription* entity, NSErrorPtr* error) const;
  // Runs work with the SQLite store of entity under the lock; false and
  // *error when the entity has no store.
  [[nodiscard]] bool _withStore(const NSEntityDescription* entity, NSErrorPtr* error,
                                const std::function<bool(ZBSQLiteStore&)>& work);
  [[nodiscard]] bool _rowForObjectID(const NSManagedObjectIDPtr& objectID, ZBRowSnapshot* row, bool* found,
                                     NSErrorPtr* error);
  [[nodiscard]] bool _relatedObjectIDs(const NSManagedObjectIDPtr& objectID, std::size_t relationship,
                                       std::vector<NSManagedObjectIDPtr>* related, NSErrorPtr* error);
  // The permanent ID of a row of store.
  NSManagedObjectIDPtr _objectID(const std::shared_ptr<NSPersistentStore>& store,
                                 const std::shared_ptr<NSEntityDescription>& entity, std::int64_t primaryKey);
  // Writes changes (one transaction per store involved) and makes the IDs of
  // inserted objects permanent. On conflicts returns false with them listed
  // and *error untouched; nothing is written then.
  [[nodiscard]] bool _save(const std::vector<ZBObjectChange>& changes, std::vector<ZBSaveConflict>* conflicts,
                           NSErrorPtr* error);

private:
  std::shared_ptr<NSPersistentStore> _persistentStoreForURLLocked(const NSURL& url) const ZB_REQUIRES(_lock);
  std::shared_ptr<NSPersistentStore> _storeForEntityLocked(const NSEntityDescription* entity, NSErrorPtr* error) const
      ZB_REQUIRES(_lock);
  // The store a change goes to; null when there is none (any more).
  std::shared_ptr<NSPersistentStore> _storeForChangeLocked(const ZBObjectChange& change) const ZB_REQUIRES(_lock);

  std::shared_ptr<NSManagedObjectModel> _model;
  std::shared_ptr<ZBObjectIDRegistry> _registry;
  mutable ZBRecursiveMutex _lock;
  std::vector<std::shared_ptr<NSPersistentStore>> _stores ZB_GUARDED_BY(_lock);  // in the order added
  std::uint64_t _nextSerial ZB_GUARDED_BY(_lock) = 1;
};
