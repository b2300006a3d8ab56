#include "platform/objectstore/NSPersistentStoreCoordinator.h"

#include <algorithm>
#include <charconv>
#include <filesystem>

#include "platform/objectstore/impl/ZBObjectIDRegistry.h"
#include "platform/objectstore/impl/ZBSQLiteStore.h"

namespace {

std::filesystem::path canonicalPath(const NSURL& url) {
  std::error_code ec;
  auto path = std::filesystem::weakly_canonical(std::filesystem::path(url.path()), ec);
  return ec ? std::filesystem::path(url.path()).lexically_normal() : path;
}

NSErrorPtr coordinatorError(std::int64_t code, const std::string& description) {
  return NSError::create(NSCocoaErrorDomain, code, description);
}

}  // namespace

std::shared_ptr<NSPersistentStoreCoordinator> NSPersistentStoreCoordinator::create(
    std::shared_ptr<NSManagedObjectModel> model) {
  return std::make_shared<NSPersistentStoreCoordinator>(Passkey(), std::move(model));
}

NSPersistentStoreCoordinator::NSPersistentStoreCoordinator(Passkey, std::shared_ptr<NSManagedObjectModel> model)
    : _model(std::move(model)), _registry(std::make_shared<ZBObjectIDRegistry>()) {
  _model->markInUse();
}

NSPersistentStoreCoordinator::~NSPersistentStoreCoordinator() = default;

std::shared_ptr<NSPersistentStore> NSPersistentStoreCoordinator::addPersistentStoreWithType(
    const std::string& storeType, const std::string& configuration, const NSURL& url, const Dictionary& options,
    NSErrorPtr* error) {
  if (storeType != NSSQLiteStoreType) {
    ZBSetError(error, coordinatorError(NSPersistentStoreInvalidTypeError, "Unknown store type “" + storeType + "”."));
    return nullptr;
  }
  if (!configuration.empty() && _model->entitiesForConfiguration(configuration).empty()) {
    ZBSetError(error, coordinatorError(NSPersistentStoreOperationError,
                                       "The model has no configuration named “" + configuration + "”."));
    return nullptr;
  }
  if (!url.isFileURL()) {
    ZBSetError(error, coordinatorError(NSPersistentStoreOperationError,
                                       "The store location “" + url.absoluteString() + "” is not a file URL."));
    return nullptr;
  }
  ZBRecursiveMutexLock hold(_lock);
  if (_persistentStoreForURLLocked(url)) {
    ZBSetError(error, coordinatorError(NSPersistentStoreOperationError,
                                       "A store at “" + url.path() + "” is already added."));
    return nullptr;
  }
  ZBSQLiteStore::OpenOptions open;
  open.migrate = options[NSMigratePersistentStoresAutomaticallyOption].boolValue();
  open.inferMapping = options[NSInferMappingModelAutomaticallyOption].boolValue();
  if (options[NSPersistentStoreTimeoutOption].isNumber()) {
    open.busyTimeoutSeconds = options[NSPersistentStoreTimeoutOption].doubleValue();
  }
  auto sqlite = ZBSQLiteStore::open(std::filesystem::path(url.path()), *_model, configuration, open, error);
  if (!sqlite) return nullptr;
  auto store = std::make_shared<NSPersistentStore>(storeType, configuration, url, options);
  store->_identifier = sqlite->identifier();
  store->_serial = _nextSerial++;
  store->_coordinator = std::static_pointer_cast<NSPersistentStoreCoordinator>(shared_from_this());
  std::weak_ptr<NSPersistentStore> weakStore = store;
  std::weak_ptr<ZBObjectIDRegistry> weakRegistry = _registry;
  std::uint64_t serial = store->_serial;
  std::string identifier = store->_identifier;
  sqlite->setIDMaker([weakStore, weakRegistry, serial, identifier](const std::shared_ptr<NSEntityDescription>& entity,
                                                                   std::int64_t pk) -> NSManagedObjectIDPtr {
    auto registry = weakRegistry.lock();
    return registry->permanentID(weakStore.lock(), serial, identifier, entity, pk);
  });
  store->_sqlite = std::move(sqlite);
  _stores.push_back(store);
  return store;
}

bool NSPersistentStoreCoordinator::removePersistentStore(const std::shared_ptr<NSPersistentStore>& store,
                                                         NSErrorPtr* error) {
  ZBRecursiveMutexLock hold(_lock);
  for (auto it = _stores.begin(); it != _stores.end(); ++it) {
    if (*it != store) continue;
    store->_sqlite.reset();
    store->_coordinator.reset();
    _stores.erase(it);
    return true;
  }
  return ZBSetError(error, coordinatorError(NSPersistentStoreOperationError,
                                            "The store is not one of this coordinator’s stores."));
}

std::shared_ptr<NSPersistentStore> NSPersistentStoreCoordinator::persistentStoreForURL(const NSURL& url) const {
  ZBRecursiveMutexLock hold(_lock);
  return _persistentStoreForURLLocked(url);
}

std::shared_ptr<NSPersistentStore> NSPersistentStoreCoordinator::_persistentStoreForURLLocked(const NSURL& url) const {
  if (!url.isFileURL()) return nullptr;
  auto path = canonicalPath(url);
  for (auto& store : _stores) {
    if (canonicalPath(store->URL()) == path) return store;
  }
  return nullptr;
}

std::vector<std::shared_ptr<NSPersistentStore>> NSPersistentStoreCoordinator::persistentStores() const {
  ZBRecursiveMutexLock hold(_lock);
  return _stores;
}

NSManagedObjectIDPtr NSPersistentStoreCoordinator::managedObjectIDForURIRepresentation(std::string_view uri) const {
  constexpr std::string_view scheme = "x-coredata://";
  if (uri.substr(0, scheme.size()) != scheme) return nullptr;
  uri.remove_prefix(scheme.size());
  auto slash = uri.find('/');
  if (slash == std::string_view::npos || slash == 0) return nullptr;
  std::string_view storeIdentifier = uri.substr(0, slash);
  uri.remove_prefix(slash + 1);
  slash = uri.find('/');
  if (slash == std::string_view::npos || slash == 0) return nullptr;
  std::string_view entityName = uri.substr(0, slash);
  std::string_view key = uri.substr(slash + 1);
  if (key.size() < 2 || key[0] != 'p') return nullptr;
  std::int64_t pk = 0;
  auto [end, ec] = std::from_chars(key.data() + 1, key.data() + key.size(), pk);
  if (ec != std::errc() || end != key.data() + key.size() || pk <= 0) return nullptr;
  auto entity = _model->entityNamed(entityName);
  if (!entity) return nullptr;
  ZBRecursiveMutexLock hold(_lock);
  for (auto& store : _stores) {
    if (store->_identifier != storeIdentifier) continue;
    if (!store->_sqlite->layout(entity.get())) return nullptr;
    return _registry->permanentID(store, store->_serial, store->_identifier, entity, pk);
  }
  return nullptr;
}

void NSPersistentStoreCoordinator::performBlockAndWait(const std::function<void()>& block) {
  ZBRecursiveMutexLock hold(_lock);
  block();
}

std::shared_ptr<NSPersistentStore> NSPersistentStoreCoordinator::_storeForEntity(const NSEntityDescription* entity,
                                                                                  NSErrorPtr* error) const {
  ZBRecursiveMutexLock hold(_lock);
  return _storeForEntityLocked(entity, error);
}

std::shared_ptr<NSPersistentStore> NSPersistentStoreCoordinator::_storeForEntityLocked(
    const NSEntityDescription* entity, NSErrorPtr* error) const {
  for (auto& store : _stores) {
    if (store->_sqlite->layout(entity)) return store;
  }
  ZBSetError(error, coordinatorError(NSPersistentStoreOperationError,
                                     "No persistent store holds the entity “" + entity->name() + "”."));
  return nullptr;
}

bool NSPersistentStoreCoordinator::_withStore(const NSEntityDescription* entity, NSErrorPtr* error,
                                              const std::function<bool(ZBSQLiteStore&)>& work) {
  ZBRecursiveMutexLock hold(_lock);
  auto store = _storeForEntityLocked(entity, error);
  if (!store) return false;
  return work(*store->_sqlite);
}

bool NSPersistentStoreCoordinator::_rowForObjectID(const NSManagedObjectIDPtr& objectID, ZBRowSnapshot* row,
                                                   bool* found, NSErrorPtr* error) {
  ZBRecursiveMutexLock hold(_lock);
  *found = false;
  auto store = objectID->persistentStore();
  if (!store || store->_coordinator.lock().get() != this || !store->_sqlite) return true;
  return store->_sqlite->rowForPrimaryKey(objectID->entity().get(), objectID->primaryKey(), row, found, error);
}

bool NSPersistentStoreCoordinator::_relatedObjectIDs(const NSManagedObjectIDPtr& objectID, std::size_t relationship,
                                                     std::vector<NSManagedObjectIDPtr>* related, NSErrorPtr* error) {
  ZBRecursiveMutexLock hold(_lock);
  auto store = objectID->persistentStore();
  if (!store || store->_coordinator.lock().get() != this || !store->_sqlite) return true;
  std::vector<std::int64_t> keys;
  if (!store->_sqlite->relatedPrimaryKeys(objectID->entity().get(), objectID->primaryKey(), relationship, &keys,
                                          error)) {
    return false;
  }
  auto destination = objectID->entity()->relationships()[relationship]->destinationEntity();
  related->reserve(related->size() + keys.size());
  for (auto key : keys) related->push_back(_registry->permanentID(store, store->_serial, store->_identifier, destination, key));
  return true;
}

NSManagedObjectIDPtr NSPersistentStoreCoordinator::_objectID(const std::shared_ptr<NSPersistentStore>& store,
                                                             const std::shared_ptr<NSEntityDescription>& entity,
                                                             std::int64_t primaryKey) {
  return _registry->permanentID(store, store->_serial, store->_identifier, entity, primaryKey);
}

std::shared_ptr<NSPersistentStore> NSPersistentStoreCoordinator::_storeForChangeLocked(
    const ZBObjectChange& change) const {
  if (change.objectID->isTemporaryID()) return _storeForEntityLocked(change.objectID->entity().get(), nullptr);
  auto store = change.objectID->persistentStore();
  return store && store->_sqlite ? store : nullptr;
}

bool NSPersistentStoreCoordinator::_save(const std::vector<ZBObjectChange>& changes,
                                         std::vector<ZBSaveConflict>* conflicts, NSErrorPtr* error) {
  ZBRecursiveMutexLock hold(_lock);
  auto commit = [&](const std::shared_ptr<NSPersistentStore>& store, const std::vector<ZBObjectChange>& storeChanges) {
    std::vector<std::int64_t> assigned;
    std::vector<ZBSaveConflict> storeConflicts;
    if (!store->_sqlite->save(storeChanges, &assigned, &storeConflicts, error)) {
      if (conflicts) conflicts->insert(conflicts->end(), storeConflicts.begin(), storeConflicts.end());
      return false;
    }
    std::size_t next = 0;
    for (auto& change : storeChanges) {
      if (change.kind != ZBObjectChange::Kind::Insert) continue;
      _registry->promote(change.objectID, store, store->_serial, store->_identifier, assigned[next++]);
    }
    return true;
  };
  // Usually every change goes to one store: no need to regroup them.
  if (!changes.empty()) {
    auto first = _storeForChangeLocked(changes.front());
    bool one = first != nullptr;
    for (std::size_t i = 1; one && i < changes.size(); ++i) one = _storeForChangeLocked(changes[i]) == first;
    if (one) return commit(first, changes);
  }
  // Group the changes by store, keeping their order.
  std::vector<std::pair<std::shared_ptr<NSPersistentStore>, std::vector<ZBObjectChange>>> groups;
  for (auto& change : changes) {
    std::shared_ptr<NSPersistentStore> store;
    if (change.objectID->isTemporaryID()) {
      store = _storeForEntityLocked(change.objectID->entity().get(), error);
      if (!store) return false;
    } else {
      store = change.objectID->persistentStore();
      if (!store || !store->_sqlite) {
        return ZBSetError(error, coordinatorError(NSPersistentStoreSaveError,
                                                  "The store of a saved object has been removed."));
      }
    }
    auto it = std::find_if(groups.begin(), groups.end(), [&](auto& group) { return group.first == store; });
    if (it == groups.end()) {
      groups.emplace_back(store, std::vector<ZBObjectChange>());
      it = groups.end() - 1;
    }
    it->second.push_back(change);
  }
  for (auto& [store, storeChanges] : groups) {
    if (!commit(store, storeChanges)) return false;
  }
  return true;
}
