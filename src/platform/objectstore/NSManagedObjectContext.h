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
// not saved. Counts run as SQL COUNT unless the predicate has no SQL form. A
// save validates every changed object, writes one transaction, makes the IDs
// of inserted objects permanent and posts
// NSManagedObjectContextDidSaveNotification (object: the context; user info:
// NSInsertedObjectsKey, NSUpdatedObjectsKey, NSDeletedObjectsKey, each a Set
// of objects). NSManagedObjectContextObjectsDidChangeNotification follows
// processPendingChanges, saves and merges, and for a main-queue context the
// end of every main run-loop turn in which it changed objects.
//
// Ownership: held by shared_ptr (create only). It keeps objects with unsaved
// changes alive; other registered objects live as long as someone holds them.

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/NSError.h"
#include "platform/foundation/NSNotificationCenter.h"
#include "platform/foundation/NSObject.h"
#include "platform/objectstore/NSFetchRequest.h"
#include "platform/objectstore/NSManagedObject.h"
#include "platform/objectstore/NSManagedObjectContextConcurrencyType.h"
#include "platform/objectstore/NSPersistentStoreCoordinator.h"

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

class NSManagedObjectContext final : public NSObject {
  struct Passkey {
    explicit Passkey() = default;
  };

public:
  static std::shared_ptr<NSManagedObjectContext> create(NSManagedObjectContextConcurrencyType type);
  // For create only (a main-queue context is wired to the run loop there).
  NSManagedObjectContext(Passkey, NSManagedObjectContextConcurrencyType type);
  ~NSManagedObjectContext() override;

  NSManagedObjectContextConcurrencyType concurrencyType() const;

  // Queued on the context's queue (private: its serial queue; main: the main
  // run loop; confinement: run at once). Thread-safe.
  void performBlock(std::function<void()> block);
  // Runs block on the context's queue and returns when it has run;
  // re-entrant. Thread-safe.
  void performBlockAndWait(const std::function<void()>& block);

  // The coordinator beneath; for a child context, its parent's.
  std::shared_ptr<NSPersistentStoreCoordinator> persistentStoreCoordinator() const;
  void setPersistentStoreCoordinator(std::shared_ptr<NSPersistentStoreCoordinator> coordinator);
  std::shared_ptr<NSManagedObjectContext> parentContext() const;
  void setParentContext(std::shared_ptr<NSManagedObjectContext> parent);

  NSMergePolicyType mergePolicy() const;
  void setMergePolicy(NSMergePolicyType policy);

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
  [[nodiscard]] bool save(NSErrorPtr* error = nullptr);
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

private:
  friend class NSManagedObject;  // loads its rows and records its changes through the implementation
  class Impl;                    // impl/ZBManagedObjectContextImpl.h
  std::unique_ptr<Impl> _impl;
};

using NSManagedObjectContextPtr = std::shared_ptr<NSManagedObjectContext>;
