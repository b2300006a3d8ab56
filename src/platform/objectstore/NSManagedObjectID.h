#pragma once
// NSManagedObjectID: the identity of a stored object, valid across contexts
// of one coordinator. Objects cross threads and contexts as IDs.
//
// A new object's ID is temporary; when the object is first saved to a store,
// the same ID object becomes permanent in place (it gains its store and
// primary key), so every context holding it sees the change. There is one ID
// object per identity within a coordinator, so IDs compare by identity
// (isEqual is pointer equality) and can key hash tables across promotion.
//
// URIs: permanent "x-coredata://<store UUID>/<Entity>/p<primary key>",
// temporary "x-coredata:///<Entity>/t<unique string>".
// Thread-safety: thread-safe; promotion is published atomically.

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/foundation/NSObject.h"

class NSEntityDescription;
class NSPersistentStore;
class ZBObjectIDRegistry;

class NSManagedObjectID final : public NSObject {
public:
  ~NSManagedObjectID() override;

  const std::shared_ptr<NSEntityDescription>& entity() const { return _entity; }
  bool isTemporaryID() const { return _primaryKey.load(std::memory_order_acquire) == 0; }
  // Null while temporary, or when the store has been removed.
  std::shared_ptr<NSPersistentStore> persistentStore() const;
  std::string URIRepresentation() const;

  std::string className() const override { return "NSManagedObjectID"; }
  std::string description() const override { return "<NSManagedObjectID " + URIRepresentation() + ">"; }

  // For the store layer: the row's primary key (0 while temporary) and the
  // serial number of its store within the coordinator.
  std::int64_t primaryKey() const { return _primaryKey.load(std::memory_order_acquire); }
  std::uint64_t storeSerial() const { return primaryKey() ? _storeSerial : 0; }

  NSManagedObjectID(std::shared_ptr<NSEntityDescription> entity, std::string temporaryTag);

private:
  friend class ZBObjectIDRegistry;
  std::shared_ptr<NSEntityDescription> _entity;
  std::string _temporaryTag;
  // Written once, before _primaryKey is published (release) and read only
  // after it is seen non-zero (acquire).
  std::weak_ptr<NSPersistentStore> _store;
  std::uint64_t _storeSerial = 0;
  std::string _storeIdentifier;
  std::atomic<std::int64_t> _primaryKey{0};
  std::weak_ptr<ZBObjectIDRegistry> _registry;
};

using NSManagedObjectIDPtr = std::shared_ptr<NSManagedObjectID>;
