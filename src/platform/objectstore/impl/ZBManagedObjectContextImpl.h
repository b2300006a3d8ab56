#pragma once
// The state and workings of NSManagedObjectContext, kept out of its public
// header. Managed objects reach it (friend) to load their rows and record
// their changes; a child context reaches its parent's to read and push.
// Every member runs on the context's queue unless said otherwise.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/objectstore/NSManagedObjectContext.h"
#include "platform/objectstore/impl/ZBContextQueue.h"
#include "platform/objectstore/impl/ZBFetchPlanner.h"
#include "platform/objectstore/impl/ZBStoreTypes.h"

class ZBPendingChanges;

class NSManagedObjectContext::Impl {
public:
  Impl(NSManagedObjectContext& owner, NSManagedObjectContextConcurrencyType type);
  ~Impl();
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  // The public operations (see NSManagedObjectContext.h).
  std::shared_ptr<NSPersistentStoreCoordinator> persistentStoreCoordinator() const;
  void setPersistentStoreCoordinator(std::shared_ptr<NSPersistentStoreCoordinator> coordinator);
  void setParentContext(std::shared_ptr<NSManagedObjectContext> parent);
  std::shared_ptr<NSManagedObject> insertNewObjectForEntityForName(const std::string& entityName);
  void deleteObject(const std::shared_ptr<NSManagedObject>& object);
  std::optional<Array> executeFetchRequest(const NSFetchRequest& request, NSErrorPtr* error);
  std::int64_t countForFetchRequest(const NSFetchRequest& request, NSErrorPtr* error);
  std::shared_ptr<NSManagedObject> existingObjectWithID(const NSManagedObjectIDPtr& objectID, NSErrorPtr* error);
  std::shared_ptr<NSManagedObject> objectWithID(const NSManagedObjectIDPtr& objectID);
  std::shared_ptr<NSManagedObject> objectRegisteredForID(const NSManagedObjectIDPtr& objectID) const;
  [[nodiscard]] bool save(NSErrorPtr* error);
  bool hasChanges() const;
  void reset();
  void refreshObject(const std::shared_ptr<NSManagedObject>& object, bool mergeChanges);
  void mergeChangesFromContextDidSaveNotification(const NSNotification& notification);
  void processPendingChanges();
  std::vector<std::shared_ptr<NSManagedObject>> insertedObjects() const;
  std::vector<std::shared_ptr<NSManagedObject>> updatedObjects() const;
  std::vector<std::shared_ptr<NSManagedObject>> deletedObjects() const;
  std::vector<std::shared_ptr<NSManagedObject>> registeredObjects() const;

  // --- For managed objects and child contexts. ---
  // The row of an object as the level beneath this context holds it;
  // *found false (and true returned) when there is none.
  [[nodiscard]] bool _loadRow(const NSManagedObjectIDPtr& objectID, ZBRowSnapshot* row, bool* found, NSErrorPtr* error);
  [[nodiscard]] bool _loadRelationship(const NSManagedObjectIDPtr& objectID, std::size_t relationship,
                                       std::vector<NSManagedObjectIDPtr>* related, NSErrorPtr* error);
  void _objectDidChange(NSManagedObject& object);
  void _attributeWillChange(NSManagedObject& object, std::size_t attribute, const Value& oldValue,
                            const Value& newValue);
  // As a parent, on its own queue: the state a child sees beneath it.
  [[nodiscard]] bool _rowFromObjects(const NSManagedObjectIDPtr& objectID, ZBRowSnapshot* row, bool* found,
                                     NSErrorPtr* error);
  [[nodiscard]] bool _relationshipFromObjects(const NSManagedObjectIDPtr& objectID, std::size_t relationship,
                                              std::vector<NSManagedObjectIDPtr>* related, NSErrorPtr* error);
  // Whole rows, or in the plan's properties mode the values of its
  // properties, row after row, in *values.
  [[nodiscard]] bool _collectRows(const ZBFetchPlan& plan, ZBExclusionChain& chain, std::vector<ZBRowSnapshot>* rows,
                                  std::vector<Value>* values, bool* overlaid, NSErrorPtr* error);
  std::optional<std::int64_t> _countRows(const ZBFetchPlan& plan, ZBExclusionChain& chain, NSErrorPtr* error);
  [[nodiscard]] bool _applyChildChanges(const std::vector<ZBObjectChange>& changes, NSErrorPtr* error);

  NSManagedObjectContext& _owner;
  std::shared_ptr<ZBContextQueue> _queue;
  std::shared_ptr<NSPersistentStoreCoordinator> _coordinator;
  std::shared_ptr<NSManagedObjectContext> _parent;
  NSMergePolicyType _mergePolicy = NSErrorMergePolicyType;
  std::uint64_t _turnObserver = 0;  // main queue: processes changes at the end of each run-loop turn

private:
  std::shared_ptr<NSManagedObjectContext> _self() const;
  std::shared_ptr<NSManagedObject> _register(std::shared_ptr<NSManagedObject> object);
  std::shared_ptr<NSManagedObject> _materialize(const ZBRowSnapshot& row);
  void _forget(NSManagedObject& object);
  void _noteForProcessing(NSManagedObject& object);
  void _propagateDeletes();
  [[nodiscard]] bool _validate(const std::vector<std::shared_ptr<NSManagedObject>>& objects, NSErrorPtr* error);
  static ZBObjectChange _changeFor(const NSManagedObject& object);
  NSErrorPtr _conflictError(const std::vector<ZBSaveConflict>& conflicts);
  void _didSave(const std::vector<std::shared_ptr<NSManagedObject>>& changed,
                const std::vector<ZBObjectChange>& changes);
  void _pruneRegistry();
  // Takes row as object's committed state, keeping its own changes (all of
  // them, or only where the row did not change the same property), and tells
  // observers of every value that changes.
  void _applyRow(NSManagedObject& object, const ZBRowSnapshot& row, bool storeWins);
  // Resolves rows changed underneath a save by the merge policy. False and
  // *error when the policy cannot (the error policy never can).
  [[nodiscard]] bool _resolveConflicts(const std::vector<ZBSaveConflict>& conflicts, NSErrorPtr* error);
  std::shared_ptr<NSEntityDescription> _entityNamed(const std::string& name, NSErrorPtr* error) const;
  [[nodiscard]] bool _planFetch(const NSFetchRequest& request, ZBFetchPlan* plan, NSErrorPtr* error);
  bool _pendingRows(const ZBFetchPlan& plan, const ZBExclusionChain& chain, std::vector<ZBRowSnapshot>* rows,
                    std::vector<Value>* values);
  std::optional<Array> _fetchObjects(const ZBFetchPlan& plan, NSErrorPtr* error);

  // Registered objects, held weakly (keys are never dereferenced: an entry
  // whose object died is a miss).
  std::unordered_map<const NSManagedObjectID*, std::weak_ptr<NSManagedObject>> _registered;
  std::size_t _pruneThreshold = 1024;
  std::unique_ptr<ZBPendingChanges> _pending;
  std::vector<std::shared_ptr<NSManagedObject>> _unprocessed;         // changed since processPendingChanges
  std::vector<std::shared_ptr<NSManagedObject>> _deletesToPropagate;  // deleted, delete rules not yet applied
  bool _saving = false;
};
