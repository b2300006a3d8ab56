#pragma once
// NSManagedObjectContext: a scratch pad of managed objects over a persistent
// store coordinator (or, for nesting, over a parent context). Objects are
// fetched into it, changed, inserted and deleted there, and save() writes all
// of its changes at once.
//
// Concurrency types: a private-queue context runs its work on its own serial
// queue (performBlock / performBlockAndWait, re-entrant); a main-queue
// context on the main run loop; a confinement context on whatever thread
// uses it, one thread at a time. Every public method other than
// performBlock, performBlockAndWait and concurrencyType must be called on the
// context's queue (inside a perform block for the queue types); debug builds
// assert it.
//
// Fetches and counts see the unsaved changes of the context and of its
// ancestors: objects inserted there are found, deleted ones are not, changed
// ones match on their changed values. Only objects of the fetched entity are
// re-evaluated: a key path through a relationship ("ANY tags.title") is
// matched against stored values for related objects that changed but were
// not saved. Counts run as SQL COUNT unless the predicate has no SQL form. A save validates every changed object, writes one transaction,
// makes the IDs of inserted objects permanent and posts
// NSManagedObjectContextDidSaveNotification (object: the context; user info:
// NSInsertedObjectsKey, NSUpdatedObjectsKey, NSDeletedObjectsKey, each a Set
// of objects). NSManagedObjectContextObjectsDidChangeNotification follows
// processPendingChanges, saves and merges, and for a main-queue context the
// end of every main run-loop turn in which it changed objects.
//
// Ownership: held by shared_ptr (create). It keeps objects with unsaved
// changes alive; other registered objects live as long as someone holds them.

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/foundation/NSError.h"
#include "platform/foundation/NSNotificationCenter.h"
#include "platform/foundation/NSObject.h"
#include "platform/objectstore/NSFetchRequest.h"
#include "platform/objectstore/NSManagedObject.h"
#include "platform/objectstore/NSPersistentStoreCoordinator.h"
#include "platform/objectstore/impl/ZBContextQueue.h"
#include "platform/objectstore/impl/ZBFetchPlanner.h"

extern const std::string NSManagedObjectContextDidSaveNotification;
extern const std::string NSManagedObjectContextWillSaveNotification;
extern const std::string NSManagedObjectContextObjectsDidChangeNotification;
extern const std::string NSInsertedObjectsKey;
extern const std::string NSUpdatedObjectsKey;
extern const std::string NSDeletedObjectsKey;
extern const std::string NSRefreshedObjectsKey;
extern const std::string NSInvalidatedObjectsKey;

// countForFetchRequest's result on failure.
inline constexpr std::int64_t NSNotFound = std::numeric_limits<std::int64_t>::max();

// How a save resolves rows changed underneath it since they were read.
enum class NSMergePolicyType {
  NSErrorMergePolicyType,                      // fail the save with the conflicts
  NSMergeByPropertyStoreTrumpMergePolicyType,  // the store's value wins where both changed
  NSMergeByPropertyObjectTrumpMergePolicyType, // the context's value wins where both changed
  NSOverwriteMergePolicyType,                  // the context's state overwrites the row
  NSRollbackMergePolicyType,                   // the row's state replaces the context's changes
};
using enum NSMergePolicyType;

class ZBPendingChanges;

class NSManagedObjectContext final : public NSObject {
public:
  static std::shared_ptr<NSManagedObjectContext> create(NSManagedObjectContextConcurrencyType type);
  ~NSManagedObjectContext() override;

  NSManagedObjectContextConcurrencyType concurrencyType() const { return _queue->type(); }

  // Queued on the context's queue (private: its serial queue; main: the main
  // run loop; confinement: run at once). Thread-safe.
  void performBlock(std::function<void()> block);
  // Runs block on the context's queue and returns when it has run;
  // re-entrant. Thread-safe.
  void performBlockAndWait(const std::function<void()>& block);

  // The coordinator beneath; for a child context, its parent's.
  std::shared_ptr<NSPersistentStoreCoordinator> persistentStoreCoordinator() const;
  void setPersistentStoreCoordinator(std::shared_ptr<NSPersistentStoreCoordinator> coordinator);
  std::shared_ptr<NSManagedObjectContext> parentContext() const { return _parent; }
  void setParentContext(std::shared_ptr<NSManagedObjectContext> parent);

  NSMergePolicyType mergePolicy() const { return _mergePolicy; }
  void setMergePolicy(NSMergePolicyType policy) { _mergePolicy = policy; }

  // A new object of the entity, registered as inserted, with its attributes'
  // defaults (and awakeFromInsert run). An unknown entity is a programming
  // error (std::logic_error).
  std::shared_ptr<NSManagedObject> insertNewObjectForEntityForName(const std::string& entityName);
  template <class T>
  std::shared_ptr<T> insertNewObject(const std::string& entityName) {
    return std::dynamic_pointer_cast<T>(insertNewObjectForEntityForName(entityName));
  }
  // Marks the object deleted (an object inserted and not yet saved is simply
  // forgotten). Relationships are updated by their delete rules at the next
  // processPendingChanges or save.
  void deleteObject(const std::shared_ptr<NSManagedObject>& object);

  // The results (see NSFetchRequestResultType), or nullopt and *error.
  std::optional<Array> executeFetchRequest(const NSFetchRequest& request, NSErrorPtr* error = nullptr);
  std::optional<Array> executeFetchRequest(const NSFetchRequestPtr& request, NSErrorPtr* error = nullptr) {
    return executeFetchRequest(*request, error);
  }
  // The number of objects the request would return, counted in SQL where
  // possible; NSNotFound and *error on failure.
  std::int64_t countForFetchRequest(const NSFetchRequest& request, NSErrorPtr* error = nullptr);
  std::int64_t countForFetchRequest(const NSFetchRequestPtr& request, NSErrorPtr* error = nullptr) {
    return countForFetchRequest(*request, error);
  }

  // The object for an ID, loaded; null and *error
  // (NSManagedObjectReferentialIntegrityError) when it does not exist.
  std::shared_ptr<NSManagedObject> existingObjectWithID(const NSManagedObjectIDPtr& objectID,
                                                        NSErrorPtr* error = nullptr);
  // The registered object for an ID, or a new fault for it (no I/O). A fault
  // whose row is gone reads as empty.
  std::shared_ptr<NSManagedObject> objectWithID(const NSManagedObjectIDPtr& objectID);
  // The registered object, or null.
  std::shared_ptr<NSManagedObject> objectRegisteredForID(const NSManagedObjectIDPtr& objectID) const;

  // Writes every change. On failure nothing is written, the changes stay in
  // the context, and *error tells why: a validation error (one, or
  // NSValidationMultipleErrorsError with NSDetailedErrorsKey), a merge
  // conflict (NSManagedObjectMergeError), or a store error.
  bool save(NSErrorPtr* error = nullptr);
  bool hasChanges() const;
  // Forgets every registered object and change.
  void reset();
  // mergeChanges false: drops the object's changes and turns it into a
  // fault. true: reloads its values from beneath and re-applies its changes.
  void refreshObject(const std::shared_ptr<NSManagedObject>& object, bool mergeChanges);
  // Brings the objects of another context's save (a did-save notification,
  // or one built by hand from object IDs or objects of this context) into
  // this context: updated objects registered here reload their stored values
  // and keep this context's own unsaved changes (observers hear of every
  // value that changes), deleted ones are taken out (they read isDeleted),
  // inserted ones become reachable. Then posts
  // NSManagedObjectContextObjectsDidChangeNotification. Call on this
  // context's queue.
  void mergeChangesFromContextDidSaveNotification(const NSNotification& notification);

  // Applies delete rules of pending deletions and posts
  // NSManagedObjectContextObjectsDidChangeNotification for the changes since
  // the last call.
  void processPendingChanges();

  std::vector<std::shared_ptr<NSManagedObject>> insertedObjects() const;
  std::vector<std::shared_ptr<NSManagedObject>> updatedObjects() const;
  std::vector<std::shared_ptr<NSManagedObject>> deletedObjects() const;
  std::vector<std::shared_ptr<NSManagedObject>> registeredObjects() const;

  std::string className() const override { return "NSManagedObjectContext"; }

  explicit NSManagedObjectContext(NSManagedObjectContextConcurrencyType type);

  // --- For managed objects and child contexts. ---
  bool _loadRow(const NSManagedObjectIDPtr& objectID, ZBRowSnapshot* row, bool* found, NSErrorPtr* error);
  bool _loadRelationship(const NSManagedObjectIDPtr& objectID, std::size_t relationship,
                         std::vector<NSManagedObjectIDPtr>* related, NSErrorPtr* error);
  void _objectDidChange(NSManagedObject& object);
  void _attributeWillChange(NSManagedObject& object, std::size_t attribute, const Value& oldValue,
                            const Value& newValue);
  ZBContextQueue& _contextQueue() const { return *_queue; }
  // As a parent, on its own queue: the state a child sees beneath it.
  bool _rowFromObjects(const NSManagedObjectIDPtr& objectID, ZBRowSnapshot* row, bool* found, NSErrorPtr* error);
  bool _relationshipFromObjects(const NSManagedObjectIDPtr& objectID, std::size_t relationship,
                                std::vector<NSManagedObjectIDPtr>* related, NSErrorPtr* error);
  // Whole rows, or in the plan's properties mode the values of its
  // properties, row after row, in *values.
  bool _collectRows(const ZBFetchPlan& plan, ZBExclusionChain& chain, std::vector<ZBRowSnapshot>* rows,
                    std::vector<Value>* values, bool* overlaid, NSErrorPtr* error);
  std::optional<std::int64_t> _countRows(const ZBFetchPlan& plan, ZBExclusionChain& chain, NSErrorPtr* error);
  bool _applyChildChanges(const std::vector<ZBObjectChange>& changes, NSErrorPtr* error);

private:
  std::shared_ptr<NSManagedObject> _register(std::shared_ptr<NSManagedObject> object);
  std::shared_ptr<NSManagedObject> _materialize(const ZBRowSnapshot& row);
  void _forget(NSManagedObject& object);
  void _noteForProcessing(NSManagedObject& object);
  void _propagateDeletes();
  bool _validate(const std::vector<std::shared_ptr<NSManagedObject>>& objects, NSErrorPtr* error);
  static ZBObjectChange _changeFor(const NSManagedObject& object);
  NSErrorPtr _conflictError(const std::vector<ZBSaveConflict>& conflicts);
  void _didSave(const std::vector<std::shared_ptr<NSManagedObject>>& changed, const std::vector<ZBObjectChange>& changes);
  void _pruneRegistry();
  // Takes row as object's committed state, keeping its own changes (all of
  // them, or only where the row did not change the same property), and tells
  // observers of every value that changes.
  void _applyRow(NSManagedObject& object, const ZBRowSnapshot& row, bool storeWins);
  // Resolves rows changed underneath a save by the merge policy. False and
  // *error when the policy cannot (the error policy never can).
  bool _resolveConflicts(const std::vector<ZBSaveConflict>& conflicts, NSErrorPtr* error);
  std::shared_ptr<NSEntityDescription> _entityNamed(const std::string& name, NSErrorPtr* error) const;
  bool _planFetch(const NSFetchRequest& request, ZBFetchPlan* plan, NSErrorPtr* error);
  bool _pendingRows(const ZBFetchPlan& plan, const ZBExclusionChain& chain, std::vector<ZBRowSnapshot>* rows,
                    std::vector<Value>* values);
  std::optional<Array> _fetchObjects(const ZBFetchPlan& plan, NSErrorPtr* error);

  std::shared_ptr<ZBContextQueue> _queue;
  std::shared_ptr<NSPersistentStoreCoordinator> _coordinator;
  std::shared_ptr<NSManagedObjectContext> _parent;
  NSMergePolicyType _mergePolicy = NSErrorMergePolicyType;

  // Registered objects, held weakly (keys are never dereferenced: an entry
  // whose object died is a miss).
  std::unordered_map<const NSManagedObjectID*, std::weak_ptr<NSManagedObject>> _registered;
  std::size_t _pruneThreshold = 1024;
  std::unique_ptr<ZBPendingChanges> _pending;
  std::vector<std::shared_ptr<NSManagedObject>> _unprocessed;        // changed since processPendingChanges
  std::vector<std::shared_ptr<NSManagedObject>> _deletesToPropagate;  // deleted, delete rules not yet applied
  bool _saving = false;
  std::uint64_t _turnObserver = 0;  // main queue: processes changes at the end of each run-loop turn
};

using NSManagedObjectContextPtr = std::shared_ptr<NSManagedObjectContext>;
