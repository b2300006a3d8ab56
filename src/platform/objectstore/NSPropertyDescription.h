#pragma once
// Property descriptions of an entity: NSPropertyDescription is the common base
// of NSAttributeDescription (a typed stored value) and
// NSRelationshipDescription (a reference to objects of another entity).
//
// Ownership: an entity owns its properties (shared_ptr); a property refers
// back to its entity weakly. Descriptions are built in code, then frozen when
// their model is created (NSManagedObjectModel::create); a setter called on a
// frozen description throws std::logic_error (a programming error).
// Thread-safety: read-only after freezing, so safe to read from any thread.

#include <cstdint>
#include <memory>
#include <string>

#include "platform/foundation/NSObject.h"
#include "platform/foundation/Value.h"

class NSEntityDescription;
class NSRelationshipDescription;

class NSPropertyDescription : public NSObject {
public:
  const std::string& name() const { return _name; }
  // The entity that holds this property; null before it is added to one.
  std::shared_ptr<NSEntityDescription> entity() const { return _entity.lock(); }

  // An optional property may be absent when its object is saved.
  bool isOptional() const { return _optional; }
  void setOptional(bool optional);
  // Indexed properties get an SQL index, so lookups by them do not scan.
  bool isIndexed() const { return _indexed; }
  void setIndexed(bool indexed);

  virtual bool isRelationship() const = 0;
  // Position among the entity's attributes or relationships (set when the
  // property is added to an entity): the slot of its value in an object.
  std::size_t index() const { return _index; }

protected:
  NSPropertyDescription(std::string name) : _name(std::move(name)) {}
  void _checkMutable() const;

private:
  friend class NSEntityDescription;
  friend class NSManagedObjectModel;
  std::string _name;
  std::weak_ptr<NSEntityDescription> _entity;
  bool _optional = true;
  bool _indexed = false;
  bool _frozen = false;
  std::size_t _index = 0;
};

enum class NSAttributeType : std::uint8_t {
  Integer16,
  Integer32,
  Integer64,
  Double,
  String,
  Boolean,
  Date,
  Binary,
  // Any value that the keyed archiver can encode (predicates, arrays, …),
  // stored as the archive's bytes.
  Transformable,
};

const char* NSAttributeTypeName(NSAttributeType type);

struct NSAttributeOptions {
  bool optional = true;
  bool indexed = false;
  // Given to new objects; absent means none. Boolean attributes without a
  // default start as NO, so a flag never set reads as NO.
  Value defaultValue;
};

class NSAttributeDescription final : public NSPropertyDescription {
public:
  static std::shared_ptr<NSAttributeDescription> create(std::string name, NSAttributeType type,
                                                        NSAttributeOptions options = {});

  NSAttributeType attributeType() const { return _type; }
  const Value& defaultValue() const { return _defaultValue; }
  void setDefaultValue(Value value);
  bool isRelationship() const override { return false; }

  // The value as this attribute stores it: numbers converted to the type
  // (integers truncated to their width, booleans to NO/YES), the null marker
  // to absent. nullopt when the value cannot be stored here (a string for a
  // number, a date for a string, …).
  std::optional<Value> coercedValue(const Value& value) const;

  std::string className() const override { return "NSAttributeDescription"; }
  std::string description() const override;

  NSAttributeDescription(std::string name, NSAttributeType type) : NSPropertyDescription(std::move(name)), _type(type) {}

private:
  NSAttributeType _type;
  Value _defaultValue;
};

enum class NSDeleteRule : std::uint8_t {
  NoAction,  // leave the other side as it is
  Nullify,   // remove the deleted object from the inverse
  Cascade,   // delete the destination objects too
  Deny,      // refuse the save while destination objects exist
};

struct NSRelationshipOptions {
  bool toMany = false;
  // The name of the relationship on the destination that points back;
  // empty for none. Inverses are kept in step automatically.
  std::string inverseName;
  NSDeleteRule deleteRule = NSDeleteRule::Nullify;
  bool optional = true;
};

class NSRelationshipDescription final : public NSPropertyDescription {
public:
  static std::shared_ptr<NSRelationshipDescription> create(std::string name, std::string destinationEntityName,
                                                           NSRelationshipOptions options = {});

  bool isToMany() const { return _toMany; }
  NSDeleteRule deleteRule() const { return _deleteRule; }
  void setDeleteRule(NSDeleteRule rule);
  const std::string& destinationEntityName() const { return _destinationName; }
  const std::string& inverseName() const { return _inverseName; }
  // Resolved when the model is created; null before.
  std::shared_ptr<NSEntityDescription> destinationEntity() const { return _destination.lock(); }
  std::shared_ptr<NSRelationshipDescription> inverseRelationship() const { return _inverse.lock(); }
  // Both this relationship and its inverse are to-many (a join table holds it).
  bool isManyToMany() const;
  bool isRelationship() const override { return true; }

  std::string className() const override { return "NSRelationshipDescription"; }
  std::string description() const override;

  NSRelationshipDescription(std::string name, std::string destination, const NSRelationshipOptions& options);

private:
  friend class NSManagedObjectModel;
  std::string _destinationName;
  std::string _inverseName;
  bool _toMany;
  NSDeleteRule _deleteRule;
  std::weak_ptr<NSEntityDescription> _destination;
  std::weak_ptr<NSRelationshipDescription> _inverse;
};
