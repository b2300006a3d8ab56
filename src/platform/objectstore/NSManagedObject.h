#pragma once
// NSManagedObject: one object of an entity, living in one context.
//
// Values are read and written by key: valueForKey/setValueForKey notify
// key-value observers and record the change; the primitive accessors do
// neither notification nor inverse maintenance. Attributes hold Values of
// the attribute's type (numbers are converted). A to-one relationship reads
// as the destination object (absent for nil); a to-many relationship reads as
// a Set of objects. Changing one side of a relationship changes its inverse.
// A value of the wrong kind is refused, not thrown: see setValueForKey.
//
// An object that has not loaded its values yet is a fault: the first access
// to a property loads them from beneath its context. To-many relationships
// load on first access, each on its own.
//
// Subclasses (one per entity, see NSEntityDescription::setManagedObjectClass)
// add derived properties by overriding valueForKey and calling the base for
// other keys, and may override the hooks below, calling the base.
//
// Ownership: made by contexts only; the context keeps objects with unsaved
// changes alive, others as long as someone holds them.
// Thread-safety: use only on its context's queue.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "platform/foundation/NSError.h"
#include "platform/foundation/NSObject.h"
#include "platform/objectstore/NSEntityDescription.h"
#include "platform/objectstore/NSManagedObjectID.h"
#include "platform/objectstore/impl/ZBStoreTypes.h"

class NSManagedObjectContext;

class NSManagedObject : public NSObject {
public:
  NSManagedObject();
  ~NSManagedObject() override;

  const std::shared_ptr<NSEntityDescription>& entity() const { return _entity; }
  const NSManagedObjectIDPtr& objectID() const { return _objectID; }
  // Null once the object is no longer registered in a context (its deletion
  // was saved, the context was reset or destroyed).
  std::shared_ptr<NSManagedObjectContext> managedObjectContext() const;

  bool isInserted() const { return _state.inserted; }
  // Has unsaved changes and is neither inserted nor deleted.
  bool isUpdated() const { return !_state.inserted && !_state.deleted && hasChanges(); }
  bool isDeleted() const { return _state.deleted; }
  bool isFault() const { return _state.fault; }
  // Inserted, deleted, or with changed properties.
  bool hasChanges() const;

  // Key-value coding over the entity's properties; an unknown key is passed
  // to NSObject (which throws std::logic_error). A value that does not fit
  // the property (see validateValueForKey) is refused: the object stays as
  // it was and no observer hears of it. Callers holding outside data check
  // first, or use setValuesForKeysWithDictionary, which says what it skipped.
  Value valueForKey(const std::string& key) const override;
  void setValueForKey(const Value& value, const std::string& key) override;
  // Without notification, change recording stays (a primitive set is still
  // saved), inverses are not maintained. Refuses what setValueForKey does.
  Value primitiveValueForKey(const std::string& key) const;
  void setPrimitiveValueForKey(const Value& value, const std::string& key);

  // Whether setValueForKey would take value for key: absent and null always
  // fit; otherwise an attribute takes a value of its type (numbers of any
  // kind for numbers and Booleans), a to-one relationship an object of its
  // destination entity, a to-many one an array or set of such objects. False
  // and *error (NSManagedObjectValidationError naming this object and the
  // key) when it does not fit. An unknown key throws std::logic_error.
  [[nodiscard]] bool validateValueForKey(const Value& value, const std::string& key, NSErrorPtr* error = nullptr) const;
  // Sets each entry with setValueForKey. Every key must name a property of
  // the entity: an unknown key throws std::logic_error before anything is
  // set. Entries whose value does not fit are skipped and the others set;
  // the result is then false and *error holds each refusal (one validation
  // error, or NSValidationMultipleErrorsError with NSDetailedErrorsKey).
  bool setValuesForKeysWithDictionary(const Dictionary& values, NSErrorPtr* error = nullptr);

  // To-many relationships, one member at a time (inverses maintained,
  // observers notified).
  void addObjectToRelationship(const std::shared_ptr<NSManagedObject>& object, const std::string& key);
  void removeObjectFromRelationship(const std::shared_ptr<NSManagedObject>& object, const std::string& key);

  // Properties changed since the last save or fetch, with their new values
  // (to-many relationships as their whole Set).
  Dictionary changedValues() const;
  // Values as last saved or fetched; every property when keys is empty.
  // Inserted objects have none.
  Dictionary committedValuesForKeys(const std::vector<std::string>& keys = {}) const;

  // Hooks. awakeFromInsert runs once, when the object is inserted;
  // awakeFromFetch when its values are loaded from beneath; willTurnIntoFault
  // before its values are dropped (refresh, reset, deletion saved).
  virtual void awakeFromInsert() {}
  virtual void awakeFromFetch() {}
  virtual void willTurnIntoFault() {}
  virtual void didTurnIntoFault() {}
  // Validation before a save. The base checks that every required property
  // is present: NSValidationMissingMandatoryPropertyError in
  // NSCocoaErrorDomain, naming the object and key in the user info.
  [[nodiscard]] virtual bool validateForInsert(NSErrorPtr* error);
  [[nodiscard]] virtual bool validateForUpdate(NSErrorPtr* error);
  [[nodiscard]] virtual bool validateForDelete(NSErrorPtr* error);
  virtual void willSave() {}
  virtual void didSave() {}

  std::string className() const override { return _entity ? _entity->managedObjectClassName() : "NSManagedObject"; }
  std::string description() const override;

  // --- For contexts. ---
  struct ToManyState {
    bool loaded = false;
    std::unordered_set<NSManagedObjectIDPtr> members;  // valid when loaded
    // Changes since the last save, kept whether or not members are loaded.
    std::unordered_set<NSManagedObjectIDPtr> added;
    std::unordered_set<NSManagedObjectIDPtr> removed;
  };
  struct RelationshipState {
    NSManagedObjectIDPtr target;          // to-one
    NSManagedObjectIDPtr originalTarget;  // to-one: as last saved, when changed
    bool toOneChanged = false;
    std::unique_ptr<ToManyState> toMany;  // to-many, made on first use
  };
  struct State {
    bool fault = false;
    bool inserted = false;
    bool deleted = false;
    bool inaccessible = false;  // a fault whose row was gone when fired
  };

  void _initialise(std::shared_ptr<NSEntityDescription> entity, NSManagedObjectIDPtr objectID,
                   const std::shared_ptr<NSManagedObjectContext>& context);
  void _applyDefaults();
  void _fill(const ZBRowSnapshot& row);
  // The object's current state as a row (what a child context sees).
  ZBRowSnapshot _snapshot() const;
  // Takes the row as the new committed state and keeps the object's own
  // changes on top of it.
  void _mergeRow(const ZBRowSnapshot& row);
  // Gives up this object's own changes wherever the row changed the same
  // property since this object read it (the store wins there).
  void _yieldToRow(const ZBRowSnapshot& row);
  // Whether the change of kind "noted since the last processPendingChanges".
  bool _noted = false;
  void _turnIntoFault();
  void _clearChanges();
  void _fireFault() const;
  void _markDeleted(bool deleted) { _state.deleted = deleted; }
  void _markInserted(bool inserted) { _state.inserted = inserted; }
  void _detach();
  std::int64_t _version() const { return _rowVersion; }
  void _setVersion(std::int64_t version) { _rowVersion = version; }
  const std::vector<Value>& _attributeValues() const { return _values; }
  // Every attribute at once, for an object not yet registered anywhere.
  void _setAttributeValues(const std::vector<Value>& values) {
    _values = values;
    _values.resize(_entity->attributes().size());
  }
  const std::vector<std::pair<std::size_t, Value>>& _originalAttributes() const { return _originals; }
  std::vector<RelationshipState>& _relationshipStates() const { return _relationships; }
  bool _hasChangedProperties() const;
  // The members of a to-many relationship as IDs (loads them).
  const std::unordered_set<NSManagedObjectIDPtr>& _toManyIDs(std::size_t relationship) const;
  // Raw relationship changes used by inverse maintenance and merges.
  void _setToOneID(std::size_t relationship, NSManagedObjectIDPtr target);
  // _setToOneID between the will- and did-change notifications of its key.
  void _setToOneIDNotifying(std::size_t relationship, NSManagedObjectIDPtr target);
  void _addToManyID(std::size_t relationship, const NSManagedObjectIDPtr& member);
  void _removeToManyID(std::size_t relationship, const NSManagedObjectIDPtr& member);
  void _setAttribute(std::size_t index, Value value);

  mutable State _state;

private:
  std::shared_ptr<NSManagedObjectContext> _contextOrNull() const { return _context.lock(); }
  std::shared_ptr<NSManagedObject> _objectForID(const NSManagedObjectIDPtr& objectID) const;
  // value as the property stores it (an attribute's value converted to its
  // type); nullopt when it does not fit.
  std::optional<Value> _acceptedValue(const NSPropertyDescription& property, const Value& value) const;
  // Sets value if it fits (else does nothing); observed: notified and with
  // inverses maintained, else a primitive set.
  void _setProperty(const NSPropertyDescription& property, const Value& value, bool observed);
  void _setRelationship(const NSRelationshipDescription& relationship, const Value& value, bool maintainInverse);
  void _changeToManyMember(const NSRelationshipDescription& relationship, const std::shared_ptr<NSManagedObject>& other,
                           bool add, bool notify);
  void _noteChanged();
  const NSPropertyDescription& _property(const std::string& key) const;

  std::shared_ptr<NSEntityDescription> _entity;
  NSManagedObjectIDPtr _objectID;
  std::weak_ptr<NSManagedObjectContext> _context;
  mutable std::int64_t _rowVersion = 0;
  mutable std::vector<Value> _values;                           // by attribute index
  mutable std::vector<std::pair<std::size_t, Value>> _originals;  // committed values of changed attributes
  mutable std::vector<RelationshipState> _relationships;        // by relationship index
};

using NSManagedObjectPtr = std::shared_ptr<NSManagedObject>;
