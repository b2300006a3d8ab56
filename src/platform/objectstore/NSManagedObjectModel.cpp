#include "platform/objectstore/NSManagedObjectModel.h"

#include <algorithm>
#include <set>
#include <stdexcept>

std::shared_ptr<NSManagedObjectModel> NSManagedObjectModel::create(
    std::vector<std::shared_ptr<NSEntityDescription>> entities) {
  auto model = std::make_shared<NSManagedObjectModel>();
  for (auto& entity : entities) {
    if (!entity) throw std::logic_error("null entity");
    if (entity->_model.lock()) throw std::logic_error("entity '" + entity->name() + "' already belongs to a model");
    if (!model->_byName.emplace(entity->name(), entity).second) {
      throw std::logic_error("two entities named '" + entity->name() + "'");
    }
  }
  for (auto& entity : entities) {
    for (auto* indexes : {&entity->compoundIndexes(), &entity->coveringIndexes()}) {
      for (auto& index : *indexes) {
        for (auto& name : index) {
          if (!entity->attributeNamed(name)) {
            throw std::logic_error("an index of '" + entity->name() + "' names unknown attribute '" + name + "'");
          }
        }
      }
    }
    for (auto& relationship : entity->relationships()) {
      auto destination = model->entityNamed(relationship->destinationEntityName());
      if (!destination) {
        throw std::logic_error("relationship '" + entity->name() + "." + relationship->name() +
                               "' names an unknown entity '" + relationship->destinationEntityName() + "'");
      }
      relationship->_destination = destination;
      if (relationship->inverseName().empty()) continue;
      auto* inverse = destination->relationshipNamed(relationship->inverseName());
      if (!inverse || inverse->destinationEntityName() != entity->name() ||
          (!inverse->inverseName().empty() && inverse->inverseName() != relationship->name())) {
        throw std::logic_error("relationship '" + entity->name() + "." + relationship->name() +
                               "' has no matching inverse '" + destination->name() + "." +
                               relationship->inverseName() + "'");
      }
      if (inverse == relationship.get() && relationship->isToMany()) {
        throw std::logic_error("a to-many relationship cannot be its own inverse: '" + relationship->name() + "'");
      }
      relationship->_inverse = destination->relationships()[inverse->index()];
    }
  }
  // An inverse named on one side only is completed on the other, so both
  // sides are kept in step.
  for (auto& entity : entities) {
    for (auto& relationship : entity->relationships()) {
      auto inverse = relationship->inverseRelationship();
      if (inverse && !inverse->inverseRelationship()) {
        inverse->_inverseName = relationship->name();
        inverse->_inverse = relationship;
      }
    }
  }
  for (auto& entity : entities) {
    entity->_model = model;
    entity->_frozen = true;
    for (auto& attribute : entity->attributes()) attribute->_frozen = true;
    for (auto& relationship : entity->relationships()) relationship->_frozen = true;
  }
  model->_entities = std::move(entities);
  return model;
}

std::shared_ptr<NSEntityDescription> NSManagedObjectModel::entityNamed(std::string_view name) const {
  auto it = _byName.find(name);
  return it == _byName.end() ? nullptr : it->second;
}

void NSManagedObjectModel::setEntitiesForConfiguration(const std::vector<std::string>& entityNames,
                                                       const std::string& configuration) {
  if (_inUse) throw std::logic_error("the model is in use; its configurations cannot change");
  if (configuration.empty()) throw std::logic_error("a configuration needs a name");
  for (auto& name : entityNames) {
    if (!entityNamed(name)) throw std::logic_error("configuration '" + configuration + "' names unknown entity '" + name + "'");
  }
  _configurations[configuration] = entityNames;
}

std::vector<std::shared_ptr<NSEntityDescription>> NSManagedObjectModel::entitiesForConfiguration(
    const std::string& configuration) const {
  if (configuration.empty()) return _entities;
  std::vector<std::shared_ptr<NSEntityDescription>> result;
  auto it = _configurations.find(configuration);
  if (it == _configurations.end()) return result;
  for (auto& name : it->second) result.push_back(entityNamed(name));
  return result;
}

std::vector<std::string> NSManagedObjectModel::configurations() const {
  std::vector<std::string> names;
  for (auto& [name, entities] : _configurations) names.push_back(name);
  return names;
}

std::string NSManagedObjectModel::schemaFingerprint(const std::string& configuration) const {
  std::set<std::string> lines;
  for (auto& entity : entitiesForConfiguration(configuration)) {
    lines.insert("E " + entity->name());
    for (auto& attribute : entity->attributes()) {
      lines.insert("A " + entity->name() + " " + attribute->name() + " " + NSAttributeTypeName(attribute->attributeType()));
    }
    for (auto& relationship : entity->relationships()) {
      lines.insert("R " + entity->name() + " " + relationship->name() + " " + relationship->destinationEntityName() +
                   (relationship->isToMany() ? " many " : " one ") + relationship->inverseName());
    }
  }
  std::string text;
  for (auto& line : lines) {
    text += line;
    text += '\n';
  }
  return text;
}
