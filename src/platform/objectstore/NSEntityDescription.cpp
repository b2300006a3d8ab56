#include "platform/objectstore/NSEntityDescription.h"

#include <stdexcept>

std::shared_ptr<NSEntityDescription> NSEntityDescription::create(std::string name) {
  if (name.empty()) throw std::logic_error("an entity needs a name");
  return std::make_shared<NSEntityDescription>(std::move(name));
}

void NSEntityDescription::_checkMutable() const {
  if (_frozen) throw std::logic_error("entity '" + _name + "' belongs to a model and cannot change");
}

void NSEntityDescription::setManagedObjectClass(std::string className, ObjectFactory factory) {
  _checkMutable();
  _className = std::move(className);
  _factory = std::move(factory);
}

void NSEntityDescription::addProperty(std::shared_ptr<NSPropertyDescription> property) {
  _checkMutable();
  if (!property) throw std::logic_error("null property");
  if (property->name().empty()) throw std::logic_error("a property of '" + _name + "' has no name");
  if (_byName.count(property->name())) {
    throw std::logic_error("entity '" + _name + "' already has a property '" + property->name() + "'");
  }
  if (property->entity()) throw std::logic_error("property '" + property->name() + "' already belongs to an entity");
  property->_entity = std::static_pointer_cast<NSEntityDescription>(shared_from_this());
  if (property->isRelationship()) {
    property->_index = _relationships.size();
    _relationships.push_back(std::static_pointer_cast<NSRelationshipDescription>(property));
  } else {
    property->_index = _attributes.size();
    _attributes.push_back(std::static_pointer_cast<NSAttributeDescription>(property));
  }
  _byName.emplace(property->name(), property.get());
}

std::shared_ptr<NSAttributeDescription> NSEntityDescription::addAttribute(std::string name, NSAttributeType type,
                                                                          NSAttributeOptions options) {
  auto attribute = NSAttributeDescription::create(std::move(name), type, std::move(options));
  addProperty(attribute);
  return attribute;
}

std::shared_ptr<NSRelationshipDescription> NSEntityDescription::addRelationship(std::string name,
                                                                                std::string destinationEntityName,
                                                                                NSRelationshipOptions options) {
  auto relationship = NSRelationshipDescription::create(std::move(name), std::move(destinationEntityName), options);
  addProperty(relationship);
  return relationship;
}

const NSPropertyDescription* NSEntityDescription::propertyNamed(std::string_view name) const {
  auto it = _byName.find(std::string(name));
  return it == _byName.end() ? nullptr : it->second;
}

const NSAttributeDescription* NSEntityDescription::attributeNamed(std::string_view name) const {
  auto* property = propertyNamed(name);
  return property && !property->isRelationship() ? static_cast<const NSAttributeDescription*>(property) : nullptr;
}

const NSRelationshipDescription* NSEntityDescription::relationshipNamed(std::string_view name) const {
  auto* property = propertyNamed(name);
  return property && property->isRelationship() ? static_cast<const NSRelationshipDescription*>(property) : nullptr;
}

void NSEntityDescription::addCompoundIndex(std::vector<std::string> attributeNames) {
  _checkMutable();
  if (attributeNames.empty()) throw std::logic_error("a compound index of '" + _name + "' names no attribute");
  _compoundIndexes.push_back(std::move(attributeNames));
}

void NSEntityDescription::addCoveringIndex(std::vector<std::string> attributeNames) {
  _checkMutable();
  if (attributeNames.empty()) throw std::logic_error("a covering index of '" + _name + "' names no attribute");
  _coveringIndexes.push_back(std::move(attributeNames));
}
