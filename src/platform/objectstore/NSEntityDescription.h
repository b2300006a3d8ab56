#pragma once
// NSEntityDescription: one kind of stored object — its name, its attributes
// and relationships, and the class that represents its objects.
//
// Ownership: a model owns its entities (shared_ptr); an entity refers back to
// its model weakly. Built in code, frozen by NSManagedObjectModel::create;
// mutators called afterwards throw std::logic_error.
// Thread-safety: read-only after freezing, so safe to read from any thread.

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/foundation/NSObject.h"
#include "platform/objectstore/NSPropertyDescription.h"

class NSManagedObject;
class NSManagedObjectModel;

class NSEntityDescription final : public NSObject {
public:
  using ObjectFactory = std::function<std::shared_ptr<NSManagedObject>()>;

  static std::shared_ptr<NSEntityDescription> create(std::string name);

  const std::string& name() const { return _name; }
  std::shared_ptr<NSManagedObjectModel> managedObjectModel() const { return _model.lock(); }

  // The class of this entity's objects. Without one, objects are plain
  // NSManagedObject instances.
  const std::string& managedObjectClassName() const { return _className; }
  void setManagedObjectClass(std::string className, ObjectFactory factory);
  template <class T>
  void setManagedObjectClass(std::string className) {
    setManagedObjectClass(std::move(className), [] { return std::make_shared<T>(); });
  }
  // A new, uninitialised object of the entity's class.
  std::shared_ptr<NSManagedObject> makeObject() const;

  // Adding a property whose name is already used throws std::logic_error.
  void addProperty(std::shared_ptr<NSPropertyDescription> property);
  std::shared_ptr<NSAttributeDescription> addAttribute(std::string name, NSAttributeType type,
                                                       NSAttributeOptions options = {});
  std::shared_ptr<NSRelationshipDescription> addRelationship(std::string name, std::string destinationEntityName,
                                                             NSRelationshipOptions options = {});

  // An SQL index over several attributes, in this order, for queries that
  // test them together ("deleting == NO AND shared == YES"). Naming an
  // unknown attribute throws std::logic_error (when the model is created).
  void addCompoundIndex(std::vector<std::string> attributeNames);
  const std::vector<std::vector<std::string>>& compoundIndexes() const { return _compoundIndexes; }
  // A narrow copy of the attributes for scans that read nothing else
  // (counting rows by flags reads a fraction of the table's pages). It is
  // led by the row version, which no query tests, so SQLite never takes it
  // for a search key in place of a selective index such as a date range.
  void addCoveringIndex(std::vector<std::string> attributeNames);
  const std::vector<std::vector<std::string>>& coveringIndexes() const { return _coveringIndexes; }

  // In the order they were added.
  const std::vector<std::shared_ptr<NSAttributeDescription>>& attributes() const { return _attributes; }
  const std::vector<std::shared_ptr<NSRelationshipDescription>>& relationships() const { return _relationships; }
  // Null when the entity has no property of that name.
  const NSPropertyDescription* propertyNamed(std::string_view name) const;
  const NSAttributeDescription* attributeNamed(std::string_view name) const;
  const NSRelationshipDescription* relationshipNamed(std::string_view name) const;

  std::string className() const override { return "NSEntityDescription"; }
  std::string description() const override { return "<NSEntityDescription " + _name + ">"; }

  explicit NSEntityDescription(std::string name) : _name(std::move(name)) {}

private:
  friend class NSManagedObjectModel;
  void _checkMutable() const;

  std::string _name;
  std::string _className = "NSManagedObject";
  ObjectFactory _factory;
  std::weak_ptr<NSManagedObjectModel> _model;
  std::vector<std::shared_ptr<NSAttributeDescription>> _attributes;
  std::vector<std::shared_ptr<NSRelationshipDescription>> _relationships;
  std::unordered_map<std::string, NSPropertyDescription*> _byName;
  std::vector<std::vector<std::string>> _compoundIndexes;
  std::vector<std::vector<std::string>> _coveringIndexes;
  bool _frozen = false;
};
