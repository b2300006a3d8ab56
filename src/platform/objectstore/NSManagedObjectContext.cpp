#include "platform/objectstore/NSManagedObjectContext.h"

#include <algorithm>
#include <stdexcept>

#include "platform/objectstore/impl/ZBFetchPlanner.h"
#include "platform/objectstore/impl/ZBManagedObjectContextImpl.h"
#include "platform/objectstore/impl/ZBObjectIDRegistry.h"
#include "platform/objectstore/impl/ZBPendingChanges.h"
#include "platform/objectstore/impl/ZBSQLiteStore.h"
#include "platform/objectstore/impl/ZBValidationErrors.h"
#include "platform/operations/NSRunLoop.h"
#include "platform/predicate/NSComparisonPredicate.h"
#include "platform/predicate/NSCompoundPredicate.h"

const std::string NSManagedObjectContextDidSaveNotification = "NSManagedObjectContextDidSaveNotification";
const std::string NSManagedObjectContextWillSaveNotification = "NSManagedObjectContextWillSaveNotification";
const std::string NSManagedObjectContextObjectsDidChangeNotification =
    "NSManagedObjectContextObjectsDidChangeNotification";
const std::string NSInsertedObjectsKey = "inserted";
const std::string NSUpdatedObjectsKey = "updated";
const std::string NSDeletedObjectsKey = "deleted";
const std::string NSRefreshedObjectsKey = "refreshed";
const std::string NSInvalidatedObjectsKey = "invalidated";

namespace {

NSErrorPtr contextError(std::int64_t code, const std::string& description) {
  return NSError::create(NSCocoaErrorDomain, code, description);
}

}  // namespace

std::shared_ptr<NSManagedObjectContext> NSManagedObjectContext::create(NSManagedObjectContextConcurrencyType type) {
  auto context = std::make_shared<NSManagedObjectContext>(Passkey(), type);
  if (type == NSMainQueueConcurrencyType) {
    std::weak_ptr<NSManagedObjectContext> weak = context;
    context->_impl->_turnObserver = NSRunLoop::mainRunLoop()->addTurnObserver([weak] {
      if (auto strong = weak.lock()) strong->processPendingChanges();
    });
  }
  return context;
}

NSManagedObjectContext::NSManagedObjectContext(Passkey, NSManagedObjectContextConcurrencyType type)
    : _impl(std::make_unique<Impl>(*this, type)) {}

NSManagedObjectContext::~NSManagedObjectContext() = default;

// --- The public face: each call goes to the implementation. ---

NSManagedObjectContextConcurrencyType NSManagedObjectContext::concurrencyType() const { return _impl->_queue->type(); }
void NSManagedObjectContext::performBlock(std::function<void()> block) { _impl->_queue->async(std::move(block)); }
void NSManagedObjectContext::performBlockAndWait(const std::function<void()>& block) { _impl->_queue->sync(block); }
std::shared_ptr<NSPersistentStoreCoordinator> NSManagedObjectContext::persistentStoreCoordinator() const {
  return _impl->persistentStoreCoordinator();
}
void NSManagedObjectContext::setPersistentStoreCoordinator(std::shared_ptr<NSPersistentStoreCoordinator> coordinator) {
  _impl->setPersistentStoreCoordinator(std::move(coordinator));
}
std::shared_ptr<NSManagedObjectContext> NSManagedObjectContext::parentContext() const { return _impl->_parent; }
void NSManagedObjectContext::setParentContext(std::shared_ptr<NSManagedObjectContext> parent) {
  _impl->setParentContext(std::move(parent));
}
NSMergePolicyType NSManagedObjectContext::mergePolicy() const { return _impl->_mergePolicy; }
void NSManagedObjectContext::setMergePolicy(NSMergePolicyType policy) { _impl->_mergePolicy = policy; }
std::shared_ptr<NSManagedObject> NSManagedObjectContext::insertNewObjectForEntityForName(
    const std::string& entityName) {
  return _impl->insertNewObjectForEntityForName(entityName);
}
void NSManagedObjectContext::deleteObject(const std::shared_ptr<NSManagedObject>& object) {
  _impl->deleteObject(object);
}
std::optional<Array> NSManagedObjectContext::executeFetchRequest(const NSFetchRequest& request, NSErrorPtr* error) {
  return _impl->executeFetchRequest(request, error);
}
std::int64_t NSManagedObjectContext::countForFetchRequest(const NSFetchRequest& request, NSErrorPtr* error) {
  return _impl->countForFetchRequest(request, error);
}
std::shared_ptr<NSManagedObject> NSManagedObjectContext::existingObjectWithID(const NSManagedObjectIDPtr& objectID,
                                                                              NSErrorPtr* error) {
  return _impl->existingObjectWithID(objectID, error);
}
std::shared_ptr<NSManagedObject> NSManagedObjectContext::objectWithID(const NSManagedObjectIDPtr& objectID) {
  return _impl->objectWithID(objectID);
}
std::shared_ptr<NSManagedObject> NSManagedObjectContext::objectRegisteredForID(
    const NSManagedObjectIDPtr& objectID) const {
  return _impl->objectRegisteredForID(objectID);
}
bool NSManagedObjectContext::save(NSErrorPtr* error) { return _impl->save(error); }
bool NSManagedObjectContext::hasChanges() const { return _impl->hasChanges(); }
void NSManagedObjectContext::reset() { _impl->reset(); }
void NSManagedObjectContext::refreshObject(const std::shared_ptr<NSManagedObject>& object, bool mergeChanges) {
  _impl->refreshObject(object, mergeChanges);
}
void NSManagedObjectContext::mergeChangesFromContextDidSaveNotification(const NSNotification& notification) {
  _impl->mergeChangesFromContextDidSaveNotification(notification);
}
void NSManagedObjectContext::processPendingChanges() { _impl->processPendingChanges(); }
std::vector<std::shared_ptr<NSManagedObject>> NSManagedObjectContext::insertedObjects() const {
  return _impl->insertedObjects();
}
std::vector<std::shared_ptr<NSManagedObject>> NSManagedObjectContext::updatedObjects() const {
  return _impl->updatedObjects();
}
std::vector<std::shared_ptr<NSManagedObject>> NSManagedObjectContext::deletedObjects() const {
  return _impl->deletedObjects();
}
std::vector<std::shared_ptr<NSManagedObject>> NSManagedObjectContext::registeredObjects() const {
  return _impl->registeredObjects();
}

// --- The implementation ---

NSManagedObjectContext::Impl::Impl(NSManagedObjectContext& owner, NSManagedObjectContextConcurrencyType type)
    : _owner(owner), _queue(ZBContextQueue::create(type)), _pending(std::make_unique<ZBPendingChanges>()) {}

NSManagedObjectContext::Impl::~Impl() {
  if (_turnObserver) NSRunLoop::mainRunLoop()->removeTurnObserver(_turnObserver);
  // Objects that outlive the context must not reach back into it.
  for (auto& [id, weak] : _registered) {
    if (auto object = weak.lock()) object->_detach();
  }
}

std::shared_ptr<NSManagedObjectContext> NSManagedObjectContext::Impl::_self() const {
  return std::static_pointer_cast<NSManagedObjectContext>(_owner.shared_from_this());
}

std::shared_ptr<NSPersistentStoreCoordinator> NSManagedObjectContext::Impl::persistentStoreCoordinator() const {
  if (_parent) return _parent->persistentStoreCoordinator();
  return _coordinator;
}

void NSManagedObjectContext::Impl::setPersistentStoreCoordinator(
    std::shared_ptr<NSPersistentStoreCoordinator> coordinator) {
  ZBContextQueueAccess access(*_queue);
  _coordinator = std::move(coordinator);
  _parent.reset();
}

void NSManagedObjectContext::Impl::setParentContext(std::shared_ptr<NSManagedObjectContext> parent) {
  ZBContextQueueAccess access(*_queue);
  if (parent.get() == &_owner) throw std::logic_error("a context cannot be its own parent");
  _parent = std::move(parent);
  _coordinator.reset();
}

std::shared_ptr<NSEntityDescription> NSManagedObjectContext::Impl::_entityNamed(const std::string& name,
                                                                                NSErrorPtr* error) const {
  auto coordinator = persistentStoreCoordinator();
  if (!coordinator) {
    ZBSetError(error, contextError(NSPersistentStoreOperationError, "The context has no persistent store coordinator."));
    return nullptr;
  }
  auto entity = coordinator->managedObjectModel()->entityNamed(name);
  if (!entity) ZBSetError(error, contextError(NSCoreDataError, "The model has no entity named “" + name + "”."));
  return entity;
}

// --- Registration ---

std::shared_ptr<NSManagedObject> NSManagedObjectContext::Impl::objectRegisteredForID(
    const NSManagedObjectIDPtr& objectID) const {
  if (!objectID) return nullptr;
  auto it = _registered.find(objectID.get());
  return it == _registered.end() ? nullptr : it->second.lock();
}

std::shared_ptr<NSManagedObject> NSManagedObjectContext::Impl::_register(std::shared_ptr<NSManagedObject> object) {
  _registered[object->objectID().get()] = object;
  if (_registered.size() >= _pruneThreshold) _pruneRegistry();
  return object;
}

void NSManagedObjectContext::Impl::_pruneRegistry() {
  for (auto it = _registered.begin(); it != _registered.end();) {
    it = it->second.expired() ? _registered.erase(it) : std::next(it);
  }
  _pruneThreshold = std::max<std::size_t>(1024, _registered.size() * 2);
}

void NSManagedObjectContext::Impl::_forget(NSManagedObject& object) {
  _pending->remove(object);
  auto it = _registered.find(object.objectID().get());
  if (it != _registered.end()) {
    auto registered = it->second.lock();
    if (!registered || registered.get() == &object) _registered.erase(it);
  }
}

std::vector<std::shared_ptr<NSManagedObject>> NSManagedObjectContext::Impl::registeredObjects() const {
  ZBContextQueueAccess access(*_queue);
  std::vector<std::shared_ptr<NSManagedObject>> objects;
  for (auto& [id, weak] : _registered) {
    if (auto object = weak.lock()) objects.push_back(std::move(object));
  }
  return objects;
}

std::shared_ptr<NSManagedObject> NSManagedObjectContext::Impl::_materialize(const ZBRowSnapshot& row) {
  if (auto object = objectRegisteredForID(row.objectID)) {
    if (object->isFault()) {
      object->_fill(row);
      object->awakeFromFetch();
    }
    return object;
  }
  auto& entity = row.objectID->entity();
  auto object = entity->makeObject();
  object->_initialise(entity, row.objectID, _self());
  object->_fill(row);
  _register(object);
  object->awakeFromFetch();
  return object;
}

std::shared_ptr<NSManagedObject> NSManagedObjectContext::Impl::objectWithID(const NSManagedObjectIDPtr& objectID) {
  ZBContextQueueAccess access(*_queue);
  if (!objectID) return nullptr;
  if (auto object = objectRegisteredForID(objectID)) return object;
  auto& entity = objectID->entity();
  auto object = entity->makeObject();
  object->_initialise(entity, objectID, _self());
  object->_state.fault = true;
  return _register(object);
}

std::shared_ptr<NSManagedObject> NSManagedObjectContext::Impl::existingObjectWithID(
    const NSManagedObjectIDPtr& objectID, NSErrorPtr* error) {
  ZBContextQueueAccess access(*_queue);
  auto missing = [&] {
    ZBSetError(error, NSError::create(NSCocoaErrorDomain, NSManagedObjectReferentialIntegrityError,
                                      Dictionary{{NSLocalizedDescriptionKey, Value("The object does not exist.")},
                                                 {"objectID", objectID ? Value(objectID) : Value()}}));
    return nullptr;
  };
  if (!objectID) return missing();
  if (auto object = objectRegisteredForID(objectID)) {
    object->_fireFault();
    if (object->_state.inaccessible) return missing();
    return object;
  }
  ZBRowSnapshot row;
  bool found = false;
  if (!_loadRow(objectID, &row, &found, error)) return nullptr;
  if (!found) return missing();
  return _materialize(row);
}

// --- Loading from beneath ---

bool NSManagedObjectContext::Impl::_loadRow(const NSManagedObjectIDPtr& objectID, ZBRowSnapshot* row, bool* found,
                                            NSErrorPtr* error) {
  *found = false;
  if (_parent) {
    bool ok = true;
    _parent->performBlockAndWait([&] { ok = _parent->_impl->_rowFromObjects(objectID, row, found, error); });
    return ok;
  }
  if (!_coordinator || objectID->isTemporaryID()) return true;
  return _coordinator->_rowForObjectID(objectID, row, found, error);
}

bool NSManagedObjectContext::Impl::_loadRelationship(const NSManagedObjectIDPtr& objectID, std::size_t relationship,
                                                     std::vector<NSManagedObjectIDPtr>* related, NSErrorPtr* error) {
  if (_parent) {
    bool ok = true;
    _parent->performBlockAndWait(
        [&] { ok = _parent->_impl->_relationshipFromObjects(objectID, relationship, related, error); });
    return ok;
  }
  if (!_coordinator || objectID->isTemporaryID()) return true;
  return _coordinator->_relatedObjectIDs(objectID, relationship, related, error);
}

bool NSManagedObjectContext::Impl::_rowFromObjects(const NSManagedObjectIDPtr& objectID, ZBRowSnapshot* row,
                                                   bool* found, NSErrorPtr* error) {
  auto object = objectRegisteredForID(objectID);
  if (!object) return _loadRow(objectID, row, found, error);
  object->_fireFault();
  if (object->isDeleted() || object->_state.inaccessible) {
    *found = false;
    return true;
  }
  *row = object->_snapshot();
  *found = true;
  return true;
}

bool NSManagedObjectContext::Impl::_relationshipFromObjects(const NSManagedObjectIDPtr& objectID,
                                                            std::size_t relationship,
                                                            std::vector<NSManagedObjectIDPtr>* related,
                                                            NSErrorPtr* error) {
  auto object = objectRegisteredForID(objectID);
  if (!object) return _loadRelationship(objectID, relationship, related, error);
  auto& ids = object->_toManyIDs(relationship);
  related->insert(related->end(), ids.begin(), ids.end());
  return true;
}

// --- Changes ---

std::shared_ptr<NSManagedObject> NSManagedObjectContext::Impl::insertNewObjectForEntityForName(
    const std::string& entityName) {
  ZBContextQueueAccess access(*_queue);
  NSErrorPtr error;
  auto entity = _entityNamed(entityName, &error);
  if (!entity) throw std::logic_error(error->localizedDescription());
  auto object = entity->makeObject();
  object->_initialise(entity, ZBObjectIDRegistry::temporaryID(entity), _self());
  object->_applyDefaults();
  object->_markInserted(true);
  _register(object);
  _pending->add(object);
  _noteForProcessing(*object);
  object->awakeFromInsert();
  return object;
}

void NSManagedObjectContext::Impl::deleteObject(const std::shared_ptr<NSManagedObject>& object) {
  ZBContextQueueAccess access(*_queue);
  if (!object || object->isDeleted()) return;
  if (object->managedObjectContext().get() != &_owner) {
    throw std::logic_error("an object can only be deleted in its own context");
  }
  object->_fireFault();
  object->_markDeleted(true);
  _pending->add(object);
  _noteForProcessing(*object);
  _deletesToPropagate.push_back(object);
}

void NSManagedObjectContext::Impl::_objectDidChange(NSManagedObject& object) {
  if (object.isDeleted()) return;
  if (!_pending->contains(object)) _pending->add(std::static_pointer_cast<NSManagedObject>(object.shared_from_this()));
  _noteForProcessing(object);
}

void NSManagedObjectContext::Impl::_attributeWillChange(NSManagedObject& object, std::size_t attribute,
                                                        const Value& oldValue, const Value& newValue) {
  _pending->attributeWillChange(object, attribute, oldValue, newValue);
}

void NSManagedObjectContext::Impl::_noteForProcessing(NSManagedObject& object) {
  if (object._noted) return;
  object._noted = true;
  _unprocessed.push_back(std::static_pointer_cast<NSManagedObject>(object.shared_from_this()));
}

void NSManagedObjectContext::Impl::_propagateDeletes() {
  while (!_deletesToPropagate.empty()) {
    auto deleting = std::move(_deletesToPropagate);
    _deletesToPropagate.clear();
    for (auto& object : deleting) {
      auto& relationships = object->entity()->relationships();
      for (std::size_t i = 0; i < relationships.size(); ++i) {
        auto& relationship = *relationships[i];
        auto inverse = relationship.inverseRelationship();
        if (relationship.deleteRule() == NSDeleteRule::NoAction || relationship.deleteRule() == NSDeleteRule::Deny) {
          continue;
        }
        std::vector<NSManagedObjectIDPtr> related;
        if (relationship.isToMany()) {
          auto& ids = object->_toManyIDs(i);
          related.assign(ids.begin(), ids.end());
        } else if (auto& target = object->_relationshipStates()[i].target) {
          related.push_back(target);
        }
        for (auto& id : related) {
          auto other = objectWithID(id);
          if (!other || other->isDeleted()) continue;
          if (relationship.deleteRule() == NSDeleteRule::Cascade) {
            deleteObject(other);
            continue;
          }
          if (!inverse) continue;
          other->willChangeValueForKey(inverse->name());
          if (inverse->isToMany()) {
            other->_removeToManyID(inverse->index(), object->objectID());
          } else if (other->_relationshipStates()[inverse->index()].target == object->objectID()) {
            other->_setToOneID(inverse->index(), nullptr);
          }
          other->didChangeValueForKey(inverse->name());
        }
      }
      if (object->isInserted()) {
        // Never saved: it simply goes away.
        object->_markInserted(false);
        _forget(*object);
      }
    }
  }
}

void NSManagedObjectContext::Impl::processPendingChanges() {
  ZBContextQueueAccess access(*_queue);
  _propagateDeletes();
  if (_unprocessed.empty()) return;
  auto changed = std::move(_unprocessed);
  _unprocessed.clear();
  Set inserted, updated, deleted;
  for (auto& object : changed) {
    object->_noted = false;
    if (object->isDeleted()) {
      deleted.insert(Value(object));
    } else if (object->isInserted()) {
      inserted.insert(Value(object));
    } else {
      // Changed since the last notification, even if back to its saved
      // values: observers' views of it are stale either way.
      updated.insert(Value(object));
    }
  }
  if (inserted.empty() && updated.empty() && deleted.empty()) return;
  Dictionary info;
  if (!inserted.empty()) info.set(NSInsertedObjectsKey, Value(std::move(inserted)));
  if (!updated.empty()) info.set(NSUpdatedObjectsKey, Value(std::move(updated)));
  if (!deleted.empty()) info.set(NSDeletedObjectsKey, Value(std::move(deleted)));
  NSNotificationCenter::defaultCenter().post(NSManagedObjectContextObjectsDidChangeNotification,
                                             _owner.shared_from_this(), std::move(info));
}

bool NSManagedObjectContext::Impl::hasChanges() const {
  ZBContextQueueAccess access(*_queue);
  return !_deletesToPropagate.empty() || _pending->anyChanged();
}

std::vector<std::shared_ptr<NSManagedObject>> NSManagedObjectContext::Impl::insertedObjects() const {
  ZBContextQueueAccess access(*_queue);
  std::vector<std::shared_ptr<NSManagedObject>> result;
  for (auto& object : _pending->objects()) {
    if (object->isInserted() && !object->isDeleted()) result.push_back(object);
  }
  return result;
}

std::vector<std::shared_ptr<NSManagedObject>> NSManagedObjectContext::Impl::updatedObjects() const {
  ZBContextQueueAccess access(*_queue);
  std::vector<std::shared_ptr<NSManagedObject>> result;
  for (auto& object : _pending->objects()) {
    if (object->isUpdated()) result.push_back(object);
  }
  return result;
}

std::vector<std::shared_ptr<NSManagedObject>> NSManagedObjectContext::Impl::deletedObjects() const {
  ZBContextQueueAccess access(*_queue);
  std::vector<std::shared_ptr<NSManagedObject>> result;
  for (auto& object : _pending->objects()) {
    if (object->isDeleted() && !object->isInserted()) result.push_back(object);
  }
  return result;
}

void NSManagedObjectContext::Impl::reset() {
  ZBContextQueueAccess access(*_queue);
  for (auto& [id, weak] : _registered) {
    if (auto object = weak.lock()) {
      object->_turnIntoFault();
      object->_markInserted(false);
      object->_markDeleted(false);
      object->_noted = false;
      object->_detach();
    }
  }
  _registered.clear();
  _pending->clear();
  _unprocessed.clear();
  _deletesToPropagate.clear();
  _pruneThreshold = 1024;
}

void NSManagedObjectContext::Impl::refreshObject(const std::shared_ptr<NSManagedObject>& object, bool mergeChanges) {
  ZBContextQueueAccess access(*_queue);
  if (!object || object->managedObjectContext().get() != &_owner || object->isInserted()) return;
  if (!mergeChanges) {
    _pending->remove(*object);
    object->_markDeleted(false);
    object->_turnIntoFault();
    return;
  }
  ZBRowSnapshot row;
  bool found = false;
  if (!_loadRow(object->objectID(), &row, &found, nullptr) || !found) return;
  bool wasPending = _pending->contains(*object);
  if (wasPending) _pending->remove(*object);  // its indexed values may change
  object->_mergeRow(row);
  if (object->hasChanges()) _pending->add(object);
}

// --- Saving ---

bool NSManagedObjectContext::Impl::_validate(const std::vector<std::shared_ptr<NSManagedObject>>& objects,
                                             NSErrorPtr* error) {
  std::vector<NSErrorPtr> errors;
  for (auto& object : objects) {
    NSErrorPtr objectError;
    bool valid = true;
    if (object->isDeleted()) {
      valid = object->validateForDelete(&objectError);
    } else if (object->isInserted()) {
      valid = object->validateForInsert(&objectError);
    } else if (object->hasChanges()) {
      valid = object->validateForUpdate(&objectError);
    }
    if (valid) continue;
    if (!objectError) {
      objectError = contextError(NSManagedObjectValidationError, "An object failed validation.");
    }
    errors.push_back(std::move(objectError));
  }
  return ZBReportValidationErrors(errors, error);
}

ZBObjectChange NSManagedObjectContext::Impl::_changeFor(const NSManagedObject& object) {
  ZBObjectChange change;
  change.objectID = object.objectID();
  change.version = object._version();
  auto& relationships = object._relationshipStates();
  if (object.isDeleted()) {
    change.kind = ZBObjectChange::Kind::Delete;
    return change;
  }
  auto& values = object._attributeValues();
  if (object.isInserted()) {
    change.kind = ZBObjectChange::Kind::Insert;
    change.insertedValues = &values;
    for (std::size_t i = 0; i < relationships.size(); ++i) {
      if (relationships[i].target) change.toOne.emplace_back(i, relationships[i].target);
      // A new object's members are all additions.
      auto& toMany = relationships[i].toMany;
      if (toMany && !toMany->members.empty()) {
        ZBToManyDelta delta;
        delta.relationship = i;
        delta.added.assign(toMany->members.begin(), toMany->members.end());
        change.toMany.push_back(std::move(delta));
      }
    }
    return change;
  } else {
    change.kind = ZBObjectChange::Kind::Update;
    for (auto& [index, original] : object._originalAttributes()) {
      change.attributes.emplace_back(index, values[index]);
      change.originalAttributes.emplace_back(index, original);
    }
    for (std::size_t i = 0; i < relationships.size(); ++i) {
      if (relationships[i].toOneChanged) change.toOne.emplace_back(i, relationships[i].target);
    }
  }
  for (std::size_t i = 0; i < relationships.size(); ++i) {
    auto& toMany = relationships[i].toMany;
    if (!toMany || (toMany->added.empty() && toMany->removed.empty())) continue;
    ZBToManyDelta delta;
    delta.relationship = i;
    delta.added.assign(toMany->added.begin(), toMany->added.end());
    delta.removed.assign(toMany->removed.begin(), toMany->removed.end());
    change.toMany.push_back(std::move(delta));
  }
  return change;
}

bool NSManagedObjectContext::Impl::save(NSErrorPtr* error) {
  ZBContextQueueAccess access(*_queue);
  if (_saving) return ZBSetError(error, contextError(NSManagedObjectContextLockingError, "A save is already running."));
  processPendingChanges();
  std::vector<std::shared_ptr<NSManagedObject>> changed;
  for (auto& object : _pending->objects()) {
    if (object->hasChanges()) changed.push_back(object);
  }
  if (changed.empty()) return true;
  if (!_parent && !_coordinator) {
    return ZBSetError(error, contextError(NSPersistentStoreOperationError,
                                          "The context has no persistent store coordinator."));
  }
  struct SavingFlag {
    bool& flag;
    explicit SavingFlag(bool& f) : flag(f) { flag = true; }
    ~SavingFlag() { flag = false; }
  } saving(_saving);

  NSNotificationCenter::defaultCenter().post(NSManagedObjectContextWillSaveNotification, _owner.shared_from_this());
  for (auto& object : changed) object->willSave();
  // willSave may change objects; validation sees the final state.
  if (!_validate(changed, error)) return false;

  std::vector<ZBObjectChange> changes;
  changes.reserve(changed.size());
  for (auto& object : changed) changes.push_back(_changeFor(*object));

  if (_parent) {
    bool ok = true;
    auto self = _self();
    _parent->performBlockAndWait([&] { ok = _parent->_impl->_applyChildChanges(changes, error); });
    if (!ok) return false;
  } else {
    // A row changed underneath is resolved by the merge policy and the
    // save tried again (a resolution can meet a newer change).
    for (int attempt = 0;; ++attempt) {
      std::vector<ZBSaveConflict> conflicts;
      if (_coordinator->_save(changes, &conflicts, error)) break;
      if (conflicts.empty()) return false;
      if (attempt == 4) return ZBSetError(error, _conflictError(conflicts));
      if (!_resolveConflicts(conflicts, error)) return false;
      changed.clear();
      changes.clear();
      for (auto& object : _pending->objects()) {
        if (!object->hasChanges()) continue;
        changed.push_back(object);
        changes.push_back(_changeFor(*object));
      }
      if (changed.empty()) return true;
    }
  }
  _didSave(changed, changes);
  return true;
}

NSErrorPtr NSManagedObjectContext::Impl::_conflictError(const std::vector<ZBSaveConflict>& conflicts) {
  Array list;
  for (auto& conflict : conflicts) {
    Dictionary entry{{"objectID", Value(conflict.objectID)},
                     {"oldVersion", Value(conflict.expectedVersion)},
                     {"newVersion", Value(conflict.storedVersion)}};
    if (auto object = objectRegisteredForID(conflict.objectID)) entry.set("object", Value(object));
    list.push_back(Value(std::move(entry)));
  }
  return NSError::create(NSCocoaErrorDomain, NSManagedObjectMergeError,
                         Dictionary{{NSLocalizedDescriptionKey, Value("Could not merge changes.")},
                                    {"conflictList", Value(std::move(list))}});
}

void NSManagedObjectContext::Impl::_didSave(const std::vector<std::shared_ptr<NSManagedObject>>& changed,
                                            const std::vector<ZBObjectChange>& changes) {
  Set inserted, updated, deleted;
  for (std::size_t i = 0; i < changed.size(); ++i) {
    auto& object = changed[i];
    switch (changes[i].kind) {
      case ZBObjectChange::Kind::Insert:
        object->_markInserted(false);
        object->_setVersion(1);
        inserted.insert(Value(object));
        break;
      case ZBObjectChange::Kind::Update:
        object->_setVersion(object->_version() + 1);
        updated.insert(Value(object));
        break;
      case ZBObjectChange::Kind::Delete:
        deleted.insert(Value(object));
        break;
    }
    object->_clearChanges();
  }
  _pending->clear();
  for (auto& object : changed) {
    if (object->isDeleted()) {
      _forget(*object);
      object->_turnIntoFault();
      object->_detach();
    }
    object->didSave();
  }
  Dictionary info{{NSInsertedObjectsKey, Value(std::move(inserted))},
                  {NSUpdatedObjectsKey, Value(std::move(updated))},
                  {NSDeletedObjectsKey, Value(std::move(deleted))}};
  NSNotificationCenter::defaultCenter().post(NSManagedObjectContextDidSaveNotification, _owner.shared_from_this(),
                                             std::move(info));
}

// --- Children ---

bool NSManagedObjectContext::Impl::_applyChildChanges(const std::vector<ZBObjectChange>& changes, NSErrorPtr* error) {
  auto self = _self();
  // Every object a change refers to must still be here before anything is
  // applied, so a refused push leaves this context as it was.
  for (auto& change : changes) {
    if (change.kind == ZBObjectChange::Kind::Insert) continue;
    auto object = objectRegisteredForID(change.objectID);
    if (object) object->_fireFault();
    bool gone = object ? (object->isDeleted() || object->_state.inaccessible) : false;
    if (!object) {
      ZBRowSnapshot row;
      bool found = false;
      if (!_loadRow(change.objectID, &row, &found, error)) return false;
      gone = !found;
    }
    if (gone && change.kind == ZBObjectChange::Kind::Update) {
      return ZBSetError(error, NSError::create(NSCocoaErrorDomain, NSManagedObjectReferentialIntegrityError,
                                               Dictionary{{NSLocalizedDescriptionKey,
                                                           Value("A changed object no longer exists in the parent context.")},
                                                          {"objectID", Value(change.objectID)}}));
    }
  }
  for (auto& change : changes) {
    auto& entity = change.objectID->entity();
    std::shared_ptr<NSManagedObject> object;
    if (change.kind == ZBObjectChange::Kind::Insert) {
      object = objectRegisteredForID(change.objectID);
      if (!object) {
        object = entity->makeObject();
        object->_initialise(entity, change.objectID, self);
        object->_applyDefaults();
        object->_markInserted(true);
        if (change.insertedValues) object->_setAttributeValues(*change.insertedValues);
        _register(object);
        _pending->add(object);
        _noteForProcessing(*object);
      } else if (change.insertedValues) {
        for (std::size_t i = 0; i < change.insertedValues->size(); ++i) {
          object->_setAttribute(i, (*change.insertedValues)[i]);
        }
      }
    } else {
      object = objectWithID(change.objectID);
      object->_fireFault();
      if (change.kind == ZBObjectChange::Kind::Delete) {
        deleteObject(object);
        continue;
      }
    }
    auto& attributes = entity->attributes();
    for (auto& [index, value] : change.attributes) {
      object->willChangeValueForKey(attributes[index]->name());
      object->_setAttribute(index, value);
      object->didChangeValueForKey(attributes[index]->name());
    }
    auto& relationships = entity->relationships();
    for (auto& [index, target] : change.toOne) {
      object->_setToOneIDNotifying(index, target);
    }
    for (auto& delta : change.toMany) {
      object->willChangeValueForKey(relationships[delta.relationship]->name());
      for (auto& id : delta.removed) object->_removeToManyID(delta.relationship, id);
      for (auto& id : delta.added) object->_addToManyID(delta.relationship, id);
      object->didChangeValueForKey(relationships[delta.relationship]->name());
    }
  }
  return true;
}

// --- Merging another context's save ---

namespace {

NSManagedObjectIDPtr objectIDOf(const Value& value) {
  if (auto object = value.as<NSManagedObject>()) return object->objectID();
  if (auto objectID = value.as<NSManagedObjectID>()) return objectID;
  return nullptr;
}

}  // namespace

void NSManagedObjectContext::Impl::mergeChangesFromContextDidSaveNotification(const NSNotification& notification) {
  ZBContextQueueAccess access(*_queue);
  auto& info = notification.userInfo;
  Set inserted, updated, deleted;

  for (auto& value : info[NSUpdatedObjectsKey].collectionElements()) {
    auto objectID = objectIDOf(value);
    auto object = objectID ? objectRegisteredForID(objectID) : nullptr;
    if (!object || object->isInserted()) continue;
    if (object->isFault()) {
      updated.insert(Value(object));
      continue;  // it reads the new values when it fires
    }
    ZBRowSnapshot row;
    bool found = false;
    if (!_loadRow(objectID, &row, &found, nullptr) || !found) continue;
    _applyRow(*object, row, false);
    updated.insert(Value(object));
  }

  std::unordered_set<NSManagedObjectIDPtr> gone;
  for (auto& value : info[NSDeletedObjectsKey].collectionElements()) {
    auto objectID = objectIDOf(value);
    auto object = objectID ? objectRegisteredForID(objectID) : nullptr;
    if (!object) continue;
    gone.insert(objectID);
    _pending->remove(*object);
    object->_markInserted(false);
    object->_markDeleted(true);
    _forget(*object);
    deleted.insert(Value(object));
  }
  if (!gone.empty()) {
    // The store already dropped every reference to them; registered objects
    // forget theirs without counting that as a change of their own.
    for (auto& [key, weak] : _registered) {
      auto other = weak.lock();
      if (!other || other->isFault()) continue;
      auto& relationships = other->entity()->relationships();
      for (std::size_t i = 0; i < relationships.size(); ++i) {
        auto& state = other->_relationshipStates()[i];
        bool changed = false;
        if (state.toMany) {
          for (auto& id : gone) {
            changed |= state.toMany->members.erase(id) > 0;
            changed |= state.toMany->added.erase(id) > 0;
            state.toMany->removed.erase(id);
          }
        } else if (state.target && gone.count(state.target)) {
          state.target.reset();
          if (state.toOneChanged && !state.originalTarget) state.toOneChanged = false;
          changed = true;
        }
        if (changed) {
          other->willChangeValueForKey(relationships[i]->name());
          other->didChangeValueForKey(relationships[i]->name());
        }
      }
    }
  }

  for (auto& value : info[NSInsertedObjectsKey].collectionElements()) {
    auto objectID = objectIDOf(value);
    if (!objectID) continue;
    inserted.insert(Value(objectWithID(objectID)));
  }

  if (inserted.empty() && updated.empty() && deleted.empty()) return;
  Dictionary changes;
  if (!inserted.empty()) changes.set(NSInsertedObjectsKey, Value(std::move(inserted)));
  if (!updated.empty()) changes.set(NSUpdatedObjectsKey, Value(std::move(updated)));
  if (!deleted.empty()) changes.set(NSDeletedObjectsKey, Value(std::move(deleted)));
  NSNotificationCenter::defaultCenter().post(NSManagedObjectContextObjectsDidChangeNotification,
                                             _owner.shared_from_this(), std::move(changes));
}

void NSManagedObjectContext::Impl::_applyRow(NSManagedObject& object, const ZBRowSnapshot& row, bool storeWins) {
  auto& entity = *object.entity();
  auto& values = object._attributeValues();
  auto& originals = object._originalAttributes();
  auto same = [](const Value& a, const Value& b) { return a.type() == b.type() && a.isEqual(b); };
  static const Value absent;
  std::vector<std::size_t> changing;
  for (std::size_t i = 0; i < entity.attributes().size(); ++i) {
    const Value& stored = i < row.attributes.size() ? row.attributes[i] : absent;
    auto own = std::find_if(originals.begin(), originals.end(), [&](auto& entry) { return entry.first == i; });
    const Value& after = own == originals.end() || (storeWins && !same(stored, own->second)) ? stored : values[i];
    if (!same(values[i], after)) changing.push_back(i);
  }
  std::vector<std::size_t> relationships;
  for (std::size_t i = 0; i < entity.relationships().size(); ++i) {
    auto& state = object._relationshipStates()[i];
    if (entity.relationships()[i]->isToMany()) {
      if (state.toMany && state.toMany->loaded) relationships.push_back(i);
    } else if (state.target != row.toOne[i] && (!state.toOneChanged || storeWins)) {
      relationships.push_back(i);
    }
  }
  for (auto i : changing) object.willChangeValueForKey(entity.attributes()[i]->name());
  for (auto i : relationships) object.willChangeValueForKey(entity.relationships()[i]->name());
  auto self = std::static_pointer_cast<NSManagedObject>(object.shared_from_this());
  bool pending = _pending->contains(object);
  if (pending) _pending->remove(object);  // its indexed values may change
  if (storeWins) object._yieldToRow(row);
  object._mergeRow(row);
  if (pending || object.hasChanges()) _pending->add(self);
  for (auto i : relationships) object.didChangeValueForKey(entity.relationships()[i]->name());
  for (auto i : changing) object.didChangeValueForKey(entity.attributes()[i]->name());
}

bool NSManagedObjectContext::Impl::_resolveConflicts(const std::vector<ZBSaveConflict>& conflicts, NSErrorPtr* error) {
  if (_mergePolicy == NSErrorMergePolicyType) return ZBSetError(error, _conflictError(conflicts));
  for (auto& conflict : conflicts) {
    auto object = objectRegisteredForID(conflict.objectID);
    if (!object) continue;
    ZBRowSnapshot row;
    bool found = false;
    if (conflict.storedVersion != 0 && !_loadRow(conflict.objectID, &row, &found, error)) return false;
    if (!found) {
      // Deleted underneath: nothing is left to update or delete.
      _pending->remove(*object);
      object->_markDeleted(true);
      _forget(*object);
      continue;
    }
    if (object->isDeleted()) {
      if (_mergePolicy == NSRollbackMergePolicyType) {
        // The stored state wins over the deletion too.
        _pending->remove(*object);
        object->_markDeleted(false);
        object->_clearChanges();
        object->_fill(row);
      } else {
        object->_setVersion(row.version);
      }
      continue;
    }
    switch (_mergePolicy) {
      case NSMergeByPropertyStoreTrumpMergePolicyType: _applyRow(*object, row, true); break;
      case NSMergeByPropertyObjectTrumpMergePolicyType:
      case NSOverwriteMergePolicyType: _applyRow(*object, row, false); break;
      case NSRollbackMergePolicyType:
        _pending->remove(*object);
        object->_clearChanges();
        _applyRow(*object, row, true);
        break;
      case NSErrorMergePolicyType: break;
    }
  }
  return true;
}
