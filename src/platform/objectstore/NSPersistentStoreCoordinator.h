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
// (store reset).

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/NSError.h"
#include "platform/foundation/NSObject.h"
#include "platform/foundation/NSURL.h"
#include "platform/objectstore/NSManagedObjectID.h"
#include "platform/objectstore/NSManagedObjectModel.h"
#include "platform/objectstore/NSPersistentStore.h"
#include "platform/objectstore/impl/ZBStoreTypes.h"

class ZBObjectIDRegistry;
class ZBSQLiteStore;
struct ZBStoreQuery;

class NSPersistentStoreCoordinator final : public NSObject {
public:
  static std::shared_ptr<NSPersistentStoreCoordinator> create(std::shared_ptr<NSManagedObjectModel> model);

  const std::shared_ptr<NSManagedObjectModel>& managedObjectModel() const { return _model; }

  // Opens (creating if needed) the store file at url (a file URL) for the
  // entities of configuration (empty: all). Options: see NSPersistentStore.h.
  // Null and *error when the type is not NSSQLiteStoreType, the
  // configuration is unknown, a store at that location is already added, or
  // the file cannot be opened or migrated (it is then left as it was).
  std::shared_ptr<NSPersistentStore> addPersistentStoreWithType(const std::string& storeType,
                                                                const std::string& configuration, const NSURL& url,
                                                                const Dictionary& options, NSErrorPtr* error = nullptr);
  // Closes the store. Objects of its entities can no longer be fetched or
  // saved. False and *error when the store is not one of this coordinator's.
  bool removePersistentStore(const std::shared_ptr<NSPersistentStore>& store, NSErrorPtr* error = nullptr);
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
  void lock() { _lock.lock(); }
  void unlock() { _lock.unlock(); }
  bool tryLock() { return _lock.try_lock(); }
  // Runs block on the calling thread while holding the lock.
  void performBlockAndWait(const std::function<void()>& block);

  std::string className() const override { return "NSPersistentStoreCoordinator"; }

  explicit NSPersistentStoreCoordinator(std::shared_ptr<NSManagedObjectModel> model);
  ~NSPersistentStoreCoordinator() override;

  // --- For contexts. Each takes the lock for the duration of the call. ---

  // The store holding entity; null (and *error) when there is none.
  std::shared_ptr<NSPersistentStore> _storeForEntity(const NSEntityDescription* entity, NSErrorPtr* error) const;
  // Runs work with the SQLite store of entity under the lock; false and
  // *error when the entity has no store.
  bool _withStore(const NSEntityDescription* entity, NSErrorPtr* error,
                  const std::function<bool(ZBSQLiteStore&)>& work);
  bool _rowForObjectID(const NSManagedObjectIDPtr& objectID, ZBRowSnapshot* row, bool* found, NSErrorPtr* error);
  bool _relatedObjectIDs(const NSManagedObjectIDPtr& objectID, std::size_t relationship,
                         std::vector<NSManagedObjectIDPtr>* related, NSErrorPtr* error);
  // The permanent ID of a row of store.
  NSManagedObjectIDPtr _objectID(const std::shared_ptr<NSPersistentStore>& store,
                                 const std::shared_ptr<NSEntityDescription>& entity, std::int64_t primaryKey);
  // Writes changes (one transaction per store involved) and makes the IDs of
  // inserted objects permanent. On conflicts returns false with them listed
  // and *error untouched; nothing is written then.
  bool _save(const std::vector<ZBObjectChange>& changes, std::vector<ZBSaveConflict>* conflicts, NSErrorPtr* error);

private:
  std::shared_ptr<NSManagedObjectModel> _model;
  std::shared_ptr<ZBObjectIDRegistry> _registry;
  mutable std::recursive_mutex _lock;
  std::vector<std::shared_ptr<NSPersistentStore>> _stores;  // guarded by _lock, in the order added
  std::uint64_t _nextSerial = 1;                             // guarded by _lock
};
