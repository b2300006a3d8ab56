#include "platform/objectstore/NSManagedObject.h"

#include <algorithm>
#include <stdexcept>

#include "platform/objectstore/NSManagedObjectContext.h"
#include "platform/objectstore/impl/ZBManagedObjectContextImpl.h"
#include "platform/objectstore/impl/ZBStoreTypes.h"
#include "platform/objectstore/impl/ZBValidationErrors.h"

std::shared_ptr<NSManagedObject> NSEntityDescription::makeObject() const {
  if (_factory) {
    if (auto object = _factory()) return object;
  }
  return std::make_shared<NSManagedObject>();
}

NSManagedObject::NSManagedObject() = default;
NSManagedObject::~NSManagedObject() = default;

std::shared_ptr<NSManagedObjectContext> NSManagedObject::managedObjectContext() const { return _context.lock(); }

void NSManagedObject::_initialise(std::shared_ptr<NSEntityDescription> entity, NSManagedObjectIDPtr objectID,
                                  const std::shared_ptr<NSManagedObjectContext>& context) {
  _entity = std::move(entity);
  _objectID = std::move(objectID);
  _context = context;
  _values.assign(_entity->attributes().size(), Value());
  _relationships.clear();
  _relationships.resize(_entity->relationships().size());
}

void NSManagedObject::_detach() { _context.reset(); }

void NSManagedObject::_applyDefaults() {
  auto& attributes = _entity->attributes();
  for (std::size_t i = 0; i < attributes.size(); ++i) {
    auto& attribute = *attributes[i];
    if (attribute.defaultValue()) {
      _values[i] = attribute.defaultValue();
    } else if (attribute.attributeType() == NSAttributeType::Boolean) {
      _values[i] = Value(false);
    }
  }
  // A new object has no stored members to load.
  for (std::size_t i = 0; i < _relationships.size(); ++i) {
    if (_entity->relationships()[i]->isToMany()) {
      _relationships[i].toMany = std::make_unique<ToManyState>();
      _relationships[i].toMany->loaded = true;
    }
  }
}

void NSManagedObject::_fill(const ZBRowSnapshot& row) {
  _values = row.attributes;
  _values.resize(_entity->attributes().size());
  _rowVersion = row.version;
  _originals.clear();
  for (std::size_t i = 0; i < _relationships.size(); ++i) {
    auto& state = _relationships[i];
    state.toOneChanged = false;
    state.originalTarget.reset();
    if (_entity->relationships()[i]->isToMany()) {
      state.toMany.reset();
    } else {
      state.target = i < row.toOne.size() ? row.toOne[i] : nullptr;
    }
  }
  _state.fault = false;
  _state.inaccessible = false;
}

ZBRowSnapshot NSManagedObject::_snapshot() const {
  _fireFault();
  ZBRowSnapshot row;
  row.objectID = _objectID;
  row.version = _rowVersion;
  row.attributes = _values;
  row.toOne.resize(_relationships.size());
  for (std::size_t i = 0; i < _relationships.size(); ++i) row.toOne[i] = _relationships[i].target;
  return row;
}

void NSManagedObject::_mergeRow(const ZBRowSnapshot& row) {
  if (_state.fault) {
    _fill(row);
    return;
  }
  std::vector<std::pair<std::size_t, Value>> changed;
  for (auto& [index, original] : _originals) changed.emplace_back(index, _values[index]);
  std::vector<std::pair<std::size_t, NSManagedObjectIDPtr>> changedTargets;
  std::vector<std::unique_ptr<ToManyState>> toMany(_relationships.size());
  for (std::size_t i = 0; i < _relationships.size(); ++i) {
    if (_relationships[i].toOneChanged) changedTargets.emplace_back(i, _relationships[i].target);
    toMany[i] = std::move(_relationships[i].toMany);
  }
  _fill(row);
  for (auto& [index, value] : changed) {
    if (_values[index].type() == value.type() && _values[index].isEqual(value)) continue;
    _originals.emplace_back(index, _values[index]);
    _values[index] = value;
  }
  for (auto& [index, target] : changedTargets) {
    auto& state = _relationships[index];
    if (state.target == target) continue;
    state.originalTarget = state.target;
    state.target = target;
    state.toOneChanged = true;
  }
  // Members are reloaded on next use; unsaved additions and removals stay.
  for (std::size_t i = 0; i < toMany.size(); ++i) {
    if (!toMany[i]) continue;
    toMany[i]->loaded = false;
    toMany[i]->members.clear();
    if (!toMany[i]->added.empty() || !toMany[i]->removed.empty()) _relationships[i].toMany = std::move(toMany[i]);
  }
}

void NSManagedObject::_yieldToRow(const ZBRowSnapshot& row) {
  for (auto& [index, original] : _originals) {
    const Value& stored = index < row.attributes.size() ? row.attributes[index] : Value();
    if (!(stored.type() == original.type() && stored.isEqual(original))) _values[index] = stored;
  }
  for (std::size_t i = 0; i < _relationships.size(); ++i) {
    auto& state = _relationships[i];
    if (state.toOneChanged && i < row.toOne.size() && row.toOne[i] != state.originalTarget) state.target = row.toOne[i];
  }
}

void NSManagedObject::_turnIntoFault() {
  if (_state.fault) return;
  willTurnIntoFault();
  _values.assign(_entity->attributes().size(), Value());
  _originals.clear();
  for (auto& state : _relationships) state = RelationshipState();
  _state.fault = true;
  didTurnIntoFault();
}

void NSManagedObject::_clearChanges() {
  _originals.clear();
  for (auto& state : _relationships) {
    state.toOneChanged = false;
    state.originalTarget.reset();
    if (state.toMany) {
      state.toMany->added.clear();
      state.toMany->removed.clear();
    }
  }
}

void NSManagedObject::_fireFault() const {
  if (!_state.fault) return;
  auto* self = const_cast<NSManagedObject*>(this);
  _state.fault = false;
  auto context = _context.lock();
  ZBRowSnapshot row;
  bool found = false;
  if (context && context->_impl->_loadRow(_objectID, &row, &found, nullptr) && found) {
    self->_fill(row);
    self->awakeFromFetch();
    return;
  }
  // The row is gone: the object reads as a new one would, with nothing set.
  _state.inaccessible = true;
  auto& attributes = _entity->attributes();
  for (std::size_t i = 0; i < attributes.size(); ++i) {
    if (attributes[i]->attributeType() == NSAttributeType::Boolean) _values[i] = Value(false);
  }
}

bool NSManagedObject::_hasChangedProperties() const {
  if (!_originals.empty()) return true;
  for (auto& state : _relationships) {
    if (state.toOneChanged) return true;
    if (state.toMany && (!state.toMany->added.empty() || !state.toMany->removed.empty())) return true;
  }
  return false;
}

bool NSManagedObject::hasChanges() const { return _state.inserted || _state.deleted || _hasChangedProperties(); }

const NSPropertyDescription& NSManagedObject::_property(const std::string& key) const {
  auto* property = _entity->propertyNamed(key);
  if (!property) throw std::logic_error("the entity " + _entity->name() + " has no property '" + key + "'");
  return *property;
}

std::shared_ptr<NSManagedObject> NSManagedObject::_objectForID(const NSManagedObjectIDPtr& objectID) const {
  if (!objectID) return nullptr;
  auto context = _context.lock();
  return context ? context->objectWithID(objectID) : nullptr;
}

const std::unordered_set<NSManagedObjectIDPtr>& NSManagedObject::_toManyIDs(std::size_t relationship) const {
  _fireFault();
  auto& state = _relationships[relationship];
  if (!state.toMany) state.toMany = std::make_unique<ToManyState>();
  auto& toMany = *state.toMany;
  if (!toMany.loaded) {
    std::vector<NSManagedObjectIDPtr> stored;
    // A relationship that cannot be loaded reads as empty.
    if (auto context = _context.lock())
      (void)context->_impl->_loadRelationship(_objectID, relationship, &stored, nullptr);
    toMany.members.clear();
    toMany.members.insert(stored.begin(), stored.end());
    for (auto& id : toMany.removed) toMany.members.erase(id);
    for (auto& id : toMany.added) toMany.members.insert(id);
    toMany.loaded = true;
  }
  return toMany.members;
}

Value NSManagedObject::valueForKey(const std::string& key) const {
  auto* property = _entity ? _entity->propertyNamed(key) : nullptr;
  if (!property) return NSObject::valueForKey(key);
  return primitiveValueForKey(key);
}

Value NSManagedObject::primitiveValueForKey(const std::string& key) const {
  auto& property = _property(key);
  _fireFault();
  if (!property.isRelationship()) return _values[property.index()];
  auto& relationship = static_cast<const NSRelationshipDescription&>(property);
  if (!relationship.isToMany()) {
    auto object = _objectForID(_relationships[property.index()].target);
    return object ? Value(object) : Value();
  }
  Set members;
  for (auto& id : _toManyIDs(property.index())) {
    if (auto object = _objectForID(id)) members.insert(Value(object));
  }
  return Value(std::move(members));
}

void NSManagedObject::setValueForKey(const Value& value, const std::string& key) {
  auto* property = _entity ? _entity->propertyNamed(key) : nullptr;
  if (!property) {
    NSObject::setValueForKey(value, key);
    return;
  }
  _setProperty(*property, value, true);
}

void NSManagedObject::setPrimitiveValueForKey(const Value& value, const std::string& key) {
  _setProperty(_property(key), value, false);
}

void NSManagedObject::_setProperty(const NSPropertyDescription& property, const Value& value, bool observed) {
  auto accepted = _acceptedValue(property, value);
  if (!accepted) return;
  if (property.isRelationship()) {
    _setRelationship(static_cast<const NSRelationshipDescription&>(property), *accepted, observed);
    return;
  }
  if (observed) willChangeValueForKey(property.name());
  _setAttribute(property.index(), std::move(*accepted));
  if (observed) didChangeValueForKey(property.name());
}

namespace {

bool isObjectOf(const Value& value, const NSRelationshipDescription& relationship) {
  auto object = value.as<NSManagedObject>();
  return object && object->entity() && object->entity()->name() == relationship.destinationEntityName();
}

}  // namespace

std::optional<Value> NSManagedObject::_acceptedValue(const NSPropertyDescription& property, const Value& value) const {
  if (!property.isRelationship()) return static_cast<const NSAttributeDescription&>(property).coercedValue(value);
  auto& relationship = static_cast<const NSRelationshipDescription&>(property);
  if (value.isAbsent() || value.isNull()) return value;
  if (!relationship.isToMany()) return isObjectOf(value, relationship) ? std::optional<Value>(value) : std::nullopt;
  if (!value.isCollection()) return std::nullopt;
  for (const auto& element : value.collectionElements()) {
    if (!isObjectOf(element, relationship)) return std::nullopt;
  }
  return value;
}

bool NSManagedObject::validateValueForKey(const Value& value, const std::string& key, NSErrorPtr* error) const {
  auto& property = _property(key);
  if (_acceptedValue(property, value)) return true;
  auto self =
      std::const_pointer_cast<NSManagedObject>(std::static_pointer_cast<const NSManagedObject>(shared_from_this()));
  return ZBSetError(error, ZBValidationError(NSManagedObjectValidationError, self, key,
                                             "“" + key + "” cannot take the value " + value.description() + "."));
}

bool NSManagedObject::setValuesForKeysWithDictionary(const Dictionary& values, NSErrorPtr* error) {
  for (const auto& entry : values) _property(entry.first);  // an unknown key throws before anything changes
  std::vector<NSErrorPtr> skipped;
  for (const auto& [key, value] : values) {
    NSErrorPtr refusal;
    if (validateValueForKey(value, key, &refusal)) {
      setValueForKey(value, key);
    } else {
      skipped.push_back(std::move(refusal));
    }
  }
  return ZBReportValidationErrors(skipped, error);
}

void NSManagedObject::_setAttribute(std::size_t index, Value value) {
  _fireFault();
  Value& current = _values[index];
  if (current.type() == value.type() && current.isEqual(value)) return;
  auto context = _context.lock();
  if (context) context->_impl->_attributeWillChange(*this, index, current, value);
  if (!_state.inserted) {
    auto original = std::find_if(_originals.begin(), _originals.end(), [&](auto& entry) { return entry.first == index; });
    if (original == _originals.end()) {
      _originals.emplace_back(index, current);
    } else if (original->second.type() == value.type() && original->second.isEqual(value)) {
      _originals.erase(original);  // back to the saved value
    }
  }
  current = std::move(value);
  if (context) context->_impl->_objectDidChange(*this);
}

void NSManagedObject::_setToOneID(std::size_t relationship, NSManagedObjectIDPtr target) {
  _fireFault();
  auto& state = _relationships[relationship];
  if (state.target == target) return;
  if (!_state.inserted) {
    if (!state.toOneChanged) {
      state.originalTarget = state.target;
      state.toOneChanged = true;
    } else if (state.originalTarget == target) {
      state.toOneChanged = false;
      state.originalTarget.reset();
    }
  }
  state.target = std::move(target);
  _noteChanged();
}

void NSManagedObject::_setToOneIDNotifying(std::size_t relationship, NSManagedObjectIDPtr target) {
  const std::string& key = _entity->relationships()[relationship]->name();
  willChangeValueForKey(key);
  _setToOneID(relationship, std::move(target));
  didChangeValueForKey(key);
}

void NSManagedObject::_addToManyID(std::size_t relationship, const NSManagedObjectIDPtr& member) {
  _fireFault();
  auto& state = _relationships[relationship];
  if (!state.toMany) state.toMany = std::make_unique<ToManyState>();
  auto& toMany = *state.toMany;
  if (_state.inserted) {
    // Everything of a new object is an addition: members say it all.
    if (toMany.members.insert(member).second) _noteChanged();
    return;
  }
  if (toMany.loaded && toMany.members.count(member)) return;
  if (!toMany.removed.erase(member)) toMany.added.insert(member);
  if (toMany.loaded) toMany.members.insert(member);
  _noteChanged();
}

void NSManagedObject::_removeToManyID(std::size_t relationship, const NSManagedObjectIDPtr& member) {
  _fireFault();
  auto& state = _relationships[relationship];
  if (!state.toMany) state.toMany = std::make_unique<ToManyState>();
  auto& toMany = *state.toMany;
  if (_state.inserted) {
    if (toMany.members.erase(member)) _noteChanged();
    return;
  }
  if (toMany.loaded && !toMany.members.count(member)) return;
  if (!toMany.added.erase(member)) toMany.removed.insert(member);
  if (toMany.loaded) toMany.members.erase(member);
  _noteChanged();
}

void NSManagedObject::_noteChanged() {
  if (auto context = _context.lock()) context->_impl->_objectDidChange(*this);
}

void NSManagedObject::_changeToManyMember(const NSRelationshipDescription& relationship,
                                          const std::shared_ptr<NSManagedObject>& other, bool add, bool notify) {
  if (notify) willChangeValueForKey(relationship.name());
  if (add) {
    _addToManyID(relationship.index(), other->objectID());
  } else {
    _removeToManyID(relationship.index(), other->objectID());
  }
  if (notify) didChangeValueForKey(relationship.name());
}

void NSManagedObject::_setRelationship(const NSRelationshipDescription& relationship, const Value& value,
                                       bool maintainInverse) {
  _fireFault();
  auto self = std::static_pointer_cast<NSManagedObject>(shared_from_this());
  auto inverse = maintainInverse ? relationship.inverseRelationship() : nullptr;
  const std::size_t index = relationship.index();

  // Sets other's to-one inverse to target, unlinking other from its previous
  // target's to-many or to-one side.
  auto setInverseToOne = [&](const std::shared_ptr<NSManagedObject>& other,
                             const std::shared_ptr<NSManagedObject>& target) {
    auto& previous = other->_relationships[inverse->index()].target;
    if (target && previous == target->objectID()) return;
    if (previous && (!target || previous != target->objectID())) {
      if (auto old = other->_objectForID(previous); old && old.get() != this) {
        if (relationship.isToMany()) {
          old->_changeToManyMember(relationship, other, false, true);
        } else {
          old->_setToOneIDNotifying(index, nullptr);
        }
      }
    }
    other->_setToOneIDNotifying(inverse->index(), target ? target->objectID() : nullptr);
  };

  if (!relationship.isToMany()) {
    auto target = value.as<NSManagedObject>();
    auto& current = _relationships[index].target;
    if ((target ? target->objectID() : nullptr) == current) return;
    auto previous = inverse ? _objectForID(current) : nullptr;
    _setToOneIDNotifying(index, target ? target->objectID() : nullptr);
    if (!inverse) return;
    if (previous) {
      if (inverse->isToMany()) {
        previous->_changeToManyMember(*inverse, self, false, true);
      } else {
        previous->_setToOneIDNotifying(inverse->index(), nullptr);
      }
    }
    if (target) {
      if (inverse->isToMany()) {
        target->_fireFault();
        target->_changeToManyMember(*inverse, self, true, true);
      } else {
        target->_fireFault();
        setInverseToOne(target, self);
      }
    }
    return;
  }

  // To-many: replace the whole set.
  std::vector<std::shared_ptr<NSManagedObject>> wanted;
  for (auto& element : value.collectionElements()) wanted.push_back(element.as<NSManagedObject>());
  std::unordered_set<NSManagedObjectIDPtr> wantedIDs;
  for (auto& object : wanted) wantedIDs.insert(object->objectID());
  const auto& current = _toManyIDs(index);
  std::vector<NSManagedObjectIDPtr> removed;
  for (auto& id : current) {
    if (!wantedIDs.count(id)) removed.push_back(id);
  }
  std::vector<std::shared_ptr<NSManagedObject>> added;
  for (auto& object : wanted) {
    if (!current.count(object->objectID())) added.push_back(object);
  }
  if (removed.empty() && added.empty()) return;
  willChangeValueForKey(relationship.name());
  for (auto& id : removed) _removeToManyID(index, id);
  for (auto& object : added) _addToManyID(index, object->objectID());
  didChangeValueForKey(relationship.name());
  if (!inverse) return;
  for (auto& id : removed) {
    auto other = _objectForID(id);
    if (!other) continue;
    if (inverse->isToMany()) {
      other->_changeToManyMember(*inverse, self, false, true);
    } else if (other->_relationships[inverse->index()].target == _objectID) {
      other->_setToOneIDNotifying(inverse->index(), nullptr);
    }
  }
  for (auto& other : added) {
    other->_fireFault();
    if (inverse->isToMany()) {
      other->_changeToManyMember(*inverse, self, true, true);
    } else {
      setInverseToOne(other, self);
    }
  }
}

void NSManagedObject::addObjectToRelationship(const std::shared_ptr<NSManagedObject>& object, const std::string& key) {
  auto& property = _property(key);
  if (!property.isRelationship() || !static_cast<const NSRelationshipDescription&>(property).isToMany()) {
    throw std::logic_error("'" + key + "' is not a to-many relationship of " + _entity->name());
  }
  auto& relationship = static_cast<const NSRelationshipDescription&>(property);
  if (!isObjectOf(Value(object), relationship)) {
    throw std::logic_error("an object of another entity cannot be put in relationship '" + key + "' to " +
                           relationship.destinationEntityName());
  }
  Set members;
  for (auto& id : _toManyIDs(property.index())) {
    if (id == object->objectID()) return;
  }
  // Adding one member is replacing the set by the set plus it; the replace
  // path keeps inverses and observers right.
  for (auto& id : _toManyIDs(property.index())) {
    if (auto member = _objectForID(id)) members.insert(Value(member));
  }
  members.insert(Value(object));
  _setRelationship(relationship, Value(std::move(members)), true);
}

void NSManagedObject::removeObjectFromRelationship(const std::shared_ptr<NSManagedObject>& object,
                                                   const std::string& key) {
  auto& property = _property(key);
  if (!property.isRelationship() || !static_cast<const NSRelationshipDescription&>(property).isToMany()) {
    throw std::logic_error("'" + key + "' is not a to-many relationship of " + _entity->name());
  }
  auto& relationship = static_cast<const NSRelationshipDescription&>(property);
  if (!_toManyIDs(property.index()).count(object->objectID())) return;
  Set members;
  for (auto& id : _toManyIDs(property.index())) {
    if (id == object->objectID()) continue;
    if (auto member = _objectForID(id)) members.insert(Value(member));
  }
  _setRelationship(relationship, Value(std::move(members)), true);
}

Dictionary NSManagedObject::changedValues() const {
  _fireFault();
  Dictionary changes;
  auto& attributes = _entity->attributes();
  auto& relationships = _entity->relationships();
  if (_state.inserted) {
    for (std::size_t i = 0; i < attributes.size(); ++i) {
      if (_values[i]) changes.set(attributes[i]->name(), _values[i]);
    }
  } else {
    for (auto& [index, original] : _originals) changes.set(attributes[index]->name(), _values[index]);
  }
  for (std::size_t i = 0; i < relationships.size(); ++i) {
    auto& state = _relationships[i];
    bool changed = state.toOneChanged || (state.toMany && (!state.toMany->added.empty() || !state.toMany->removed.empty()));
    if (_state.inserted) changed = relationships[i]->isToMany() ? !_toManyIDs(i).empty() : state.target != nullptr;
    if (changed) changes.set(relationships[i]->name(), primitiveValueForKey(relationships[i]->name()));
  }
  return changes;
}

Dictionary NSManagedObject::committedValuesForKeys(const std::vector<std::string>& keys) const {
  Dictionary committed;
  if (_state.inserted) return committed;
  _fireFault();
  std::vector<std::string> names = keys;
  if (names.empty()) {
    for (auto& attribute : _entity->attributes()) names.push_back(attribute->name());
    for (auto& relationship : _entity->relationships()) names.push_back(relationship->name());
  }
  for (auto& name : names) {
    auto& property = _property(name);
    const std::size_t index = property.index();
    if (!property.isRelationship()) {
      auto original = std::find_if(_originals.begin(), _originals.end(), [&](auto& entry) { return entry.first == index; });
      committed.set(name, original != _originals.end() ? original->second : _values[index]);
      continue;
    }
    auto& state = _relationships[index];
    if (!static_cast<const NSRelationshipDescription&>(property).isToMany()) {
      auto target = state.toOneChanged ? state.originalTarget : state.target;
      auto object = _objectForID(target);
      committed.set(name, object ? Value(object) : Value());
      continue;
    }
    std::unordered_set<NSManagedObjectIDPtr> ids = _toManyIDs(index);
    for (auto& id : state.toMany->added) ids.erase(id);
    for (auto& id : state.toMany->removed) ids.insert(id);
    Set members;
    for (auto& id : ids) {
      if (auto object = _objectForID(id)) members.insert(Value(object));
    }
    committed.set(name, Value(std::move(members)));
  }
  return committed;
}

bool NSManagedObject::validateForInsert(NSErrorPtr* error) {
  _fireFault();
  auto self = std::static_pointer_cast<NSManagedObject>(shared_from_this());
  std::vector<NSErrorPtr> errors;
  auto& attributes = _entity->attributes();
  for (std::size_t i = 0; i < attributes.size(); ++i) {
    if (!attributes[i]->isOptional() && (_values[i].isAbsent() || _values[i].isNull())) {
      errors.push_back(ZBValidationError(NSValidationMissingMandatoryPropertyError, self, attributes[i]->name(),
                                         "“" + attributes[i]->name() + "” is a required value."));
    }
  }
  auto& relationships = _entity->relationships();
  for (std::size_t i = 0; i < relationships.size(); ++i) {
    if (relationships[i]->isOptional()) continue;
    bool missing = relationships[i]->isToMany() ? _toManyIDs(i).empty() : !_relationships[i].target;
    if (missing) {
      errors.push_back(ZBValidationError(relationships[i]->isToMany() ? NSValidationRelationshipLacksMinimumCountError
                                                                      : NSValidationMissingMandatoryPropertyError,
                                         self, relationships[i]->name(),
                                         "“" + relationships[i]->name() + "” is a required value."));
    }
  }
  return ZBReportValidationErrors(errors, error);
}

bool NSManagedObject::validateForUpdate(NSErrorPtr* error) { return NSManagedObject::validateForInsert(error); }

bool NSManagedObject::validateForDelete(NSErrorPtr* error) {
  auto self = std::static_pointer_cast<NSManagedObject>(shared_from_this());
  std::vector<NSErrorPtr> errors;
  auto& relationships = _entity->relationships();
  for (std::size_t i = 0; i < relationships.size(); ++i) {
    if (relationships[i]->deleteRule() != NSDeleteRule::Deny) continue;
    // Destinations deleted in the same save do not hold the object back.
    auto alive = [&](const NSManagedObjectIDPtr& id) {
      auto object = _objectForID(id);
      return object && !object->isDeleted();
    };
    bool hasDestination = false;
    if (relationships[i]->isToMany()) {
      for (auto& id : _toManyIDs(i)) hasDestination = hasDestination || alive(id);
    } else {
      hasDestination = _relationships[i].target && alive(_relationships[i].target);
    }
    if (hasDestination) {
      errors.push_back(ZBValidationError(NSValidationRelationshipDeniedDeleteError, self, relationships[i]->name(),
                                         "“" + relationships[i]->name() + "” still refers to objects."));
    }
  }
  return ZBReportValidationErrors(errors, error);
}

std::string NSManagedObject::description() const {
  return "<" + className() + " " + (_objectID ? _objectID->URIRepresentation() : std::string("(no ID)")) +
         (_state.fault ? " fault" : "") + ">";
}
