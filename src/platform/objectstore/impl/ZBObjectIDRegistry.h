#pragma once
// The interning table of permanent object IDs of one coordinator: one ID
// object per (store, entity, primary key), so that IDs compare by identity.
// Entries are weak; an ID removes its own entry when it dies.
// Thread-safety: thread-safe.

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

#include "platform/foundation/ZBMutex.h"
#include "platform/objectstore/NSManagedObjectID.h"

class NSEntityDescription;
class NSPersistentStore;

class ZBObjectIDRegistry : public std::enable_shared_from_this<ZBObjectIDRegistry> {
public:
  // A new temporary ID (not interned: it is unique by construction).
  static NSManagedObjectIDPtr temporaryID(std::shared_ptr<NSEntityDescription> entity);

  // The one permanent ID for the row.
  NSManagedObjectIDPtr permanentID(const std::shared_ptr<NSPersistentStore>& store, std::uint64_t storeSerial,
                                   const std::string& storeIdentifier,
                                   const std::shared_ptr<NSEntityDescription>& entity, std::int64_t primaryKey);
  // The permanent ID if one is alive; null otherwise.
  NSManagedObjectIDPtr existingID(std::uint64_t storeSerial, const NSEntityDescription* entity, std::int64_t primaryKey);

  // Makes a temporary ID permanent in place. If an ID for that row already
  // exists (it cannot for a newly inserted row) it is replaced in the table.
  void promote(const NSManagedObjectIDPtr& objectID, const std::shared_ptr<NSPersistentStore>& store,
               std::uint64_t storeSerial, const std::string& storeIdentifier, std::int64_t primaryKey);

  void remove(const NSManagedObjectID* objectID);

private:
  // Gives objectID its row (published last, see NSManagedObjectID) and the
  // table entry for it.
  void _makePermanent(const NSManagedObjectIDPtr& objectID, const std::shared_ptr<NSPersistentStore>& store,
                      std::uint64_t storeSerial, const std::string& storeIdentifier, std::int64_t primaryKey)
      ZB_REQUIRES(_mutex);

  struct Key {
    std::uint64_t store;
    const NSEntityDescription* entity;
    std::int64_t pk;
    bool operator==(const Key&) const = default;
  };
  struct KeyHash {
    std::size_t operator()(const Key& k) const {
      return std::hash<std::int64_t>()(k.pk) ^ (std::hash<const void*>()(k.entity) << 1) ^ (k.store * 0x9e3779b97f4a7c15ull);
    }
  };
  struct Entry {
    std::weak_ptr<NSManagedObjectID> id;
    const NSManagedObjectID* raw;  // to tell a dying ID's entry from its replacement
  };
  ZBMutex _mutex;
  std::unordered_map<Key, Entry, KeyHash> _ids ZB_GUARDED_BY(_mutex);
};
