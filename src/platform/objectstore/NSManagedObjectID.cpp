#include "platform/objectstore/NSManagedObjectID.h"

#include "platform/foundation/NSUUID.h"
#include "platform/objectstore/NSEntityDescription.h"
#include "platform/objectstore/impl/ZBObjectIDRegistry.h"

NSManagedObjectID::NSManagedObjectID(std::shared_ptr<NSEntityDescription> entity, std::string temporaryTag)
    : _entity(std::move(entity)), _temporaryTag(std::move(temporaryTag)) {}

NSManagedObjectID::~NSManagedObjectID() {
  if (primaryKey() == 0) return;
  if (auto registry = _registry.lock()) registry->remove(this);
}

std::shared_ptr<NSPersistentStore> NSManagedObjectID::persistentStore() const {
  if (primaryKey() == 0) return nullptr;
  return _store.lock();
}

std::string NSManagedObjectID::URIRepresentation() const {
  std::int64_t pk = primaryKey();
  if (pk == 0) return "x-coredata:///" + _entity->name() + "/t" + _temporaryTag;
  return "x-coredata://" + _storeIdentifier + "/" + _entity->name() + "/p" + std::to_string(pk);
}

NSManagedObjectIDPtr ZBObjectIDRegistry::temporaryID(std::shared_ptr<NSEntityDescription> entity) {
  return std::make_shared<NSManagedObjectID>(std::move(entity), ZBGloballyUniqueString());
}

NSManagedObjectIDPtr ZBObjectIDRegistry::permanentID(const std::shared_ptr<NSPersistentStore>& store,
                                                     std::uint64_t storeSerial, const std::string& storeIdentifier,
                                                     const std::shared_ptr<NSEntityDescription>& entity,
                                                     std::int64_t primaryKey) {
  ZBMutexLock hold(_mutex);
  auto it = _ids.find(Key{storeSerial, entity.get(), primaryKey});
  if (it != _ids.end()) {
    if (auto existing = it->second.id.lock()) return existing;
  }
  auto objectID = std::make_shared<NSManagedObjectID>(entity, std::string());
  _makePermanent(objectID, store, storeSerial, storeIdentifier, primaryKey);
  return objectID;
}

NSManagedObjectIDPtr ZBObjectIDRegistry::existingID(std::uint64_t storeSerial, const NSEntityDescription* entity,
                                                    std::int64_t primaryKey) {
  ZBMutexLock hold(_mutex);
  auto it = _ids.find(Key{storeSerial, entity, primaryKey});
  return it == _ids.end() ? nullptr : it->second.id.lock();
}

void ZBObjectIDRegistry::promote(const NSManagedObjectIDPtr& objectID, const std::shared_ptr<NSPersistentStore>& store,
                                 std::uint64_t storeSerial, const std::string& storeIdentifier, std::int64_t primaryKey) {
  ZBMutexLock hold(_mutex);
  _makePermanent(objectID, store, storeSerial, storeIdentifier, primaryKey);
}

void ZBObjectIDRegistry::_makePermanent(const NSManagedObjectIDPtr& objectID,
                                        const std::shared_ptr<NSPersistentStore>& store, std::uint64_t storeSerial,
                                        const std::string& storeIdentifier, std::int64_t primaryKey) {
  objectID->_store = store;
  objectID->_storeSerial = storeSerial;
  objectID->_storeIdentifier = storeIdentifier;
  objectID->_registry = weak_from_this();
  objectID->_primaryKey.store(primaryKey, std::memory_order_release);
  auto& entry = _ids[Key{storeSerial, objectID->entity().get(), primaryKey}];
  entry.id = objectID;
  entry.raw = objectID.get();
}

void ZBObjectIDRegistry::remove(const NSManagedObjectID* objectID) {
  ZBMutexLock hold(_mutex);
  auto it = _ids.find(Key{objectID->_storeSerial, objectID->entity().get(), objectID->primaryKey()});
  if (it != _ids.end() && it->second.raw == objectID) _ids.erase(it);
}
