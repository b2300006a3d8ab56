#include "platform/objectstore/impl/ZBPendingChanges.h"

#include <algorithm>

namespace {
void eraseFromIndex(std::unordered_multimap<Value, NSManagedObject*, ValueHash>& index, const Value& value,
                    NSManagedObject* object) {
  auto [begin, end] = index.equal_range(value);
  for (auto it = begin; it != end; ++it) {
    if (it->second == object) {
      index.erase(it);
      return;
    }
  }
}
}  // namespace

void ZBPendingChanges::add(const std::shared_ptr<NSManagedObject>& object) {
  auto [it, inserted] = _objects.try_emplace(object.get(), Entry{object, _nextSequence});
  if (!inserted) return;
  ++_nextSequence;
  auto& group = _byEntity[object->entity().get()];
  group.objects.insert(object.get());
  group.ids.insert(object->objectID().get());
  if (auto pk = object->objectID()->primaryKey()) group.storedKeys.insert(pk);
  for (auto& [attribute, index] : group.indexes) index.emplace(object->_attributeValues()[attribute], object.get());
}

void ZBPendingChanges::remove(NSManagedObject& object) {
  auto it = _objects.find(&object);
  if (it == _objects.end()) return;
  auto group = _byEntity.find(object.entity().get());
  if (group != _byEntity.end()) {
    group->second.objects.erase(&object);
    group->second.ids.erase(object.objectID().get());
    if (auto pk = object.objectID()->primaryKey()) group->second.storedKeys.erase(pk);
    for (auto& [attribute, index] : group->second.indexes) {
      eraseFromIndex(index, object._attributeValues()[attribute], &object);
    }
  }
  _objects.erase(it);
}

void ZBPendingChanges::clear() {
  _objects.clear();
  _byEntity.clear();
}

std::vector<std::shared_ptr<NSManagedObject>> ZBPendingChanges::objects() const {
  std::vector<const Entry*> entries;
  entries.reserve(_objects.size());
  for (auto& [raw, entry] : _objects) entries.push_back(&entry);
  std::sort(entries.begin(), entries.end(), [](auto* a, auto* b) { return a->sequence < b->sequence; });
  std::vector<std::shared_ptr<NSManagedObject>> result;
  result.reserve(entries.size());
  for (auto* entry : entries) result.push_back(entry->object);
  return result;
}

bool ZBPendingChanges::containsID(const NSManagedObjectID* objectID) const {
  auto group = _byEntity.find(objectID->entity().get());
  return group != _byEntity.end() && group->second.ids.count(objectID) != 0;
}

bool ZBPendingChanges::anyChanged() const {
  for (auto& [raw, entry] : _objects) {
    if (raw->hasChanges()) return true;
  }
  return false;
}

const ZBPendingChanges::EntityChanges* ZBPendingChanges::forEntity(const NSEntityDescription* entity) const {
  auto it = _byEntity.find(entity);
  return it == _byEntity.end() || it->second.objects.empty() ? nullptr : &it->second;
}

std::vector<NSManagedObject*> ZBPendingChanges::lookup(const NSEntityDescription* entity, std::size_t attribute,
                                                       const Value& value) {
  std::vector<NSManagedObject*> result;
  auto group = _byEntity.find(entity);
  if (group == _byEntity.end()) return result;
  auto indexIt = group->second.indexes.find(attribute);
  if (indexIt == group->second.indexes.end()) {
    auto& index = group->second.indexes[attribute];
    index.reserve(group->second.objects.size());
    for (auto* object : group->second.objects) {
      object->_fireFault();
      index.emplace(object->_attributeValues()[attribute], object);
    }
    indexIt = group->second.indexes.find(attribute);
  }
  auto [begin, end] = indexIt->second.equal_range(value);
  for (auto it = begin; it != end; ++it) result.push_back(it->second);
  return result;
}

void ZBPendingChanges::attributeWillChange(NSManagedObject& object, std::size_t attribute, const Value& oldValue,
                                           const Value& newValue) {
  if (!_objects.count(&object)) return;
  auto group = _byEntity.find(object.entity().get());
  if (group == _byEntity.end()) return;
  auto indexIt = group->second.indexes.find(attribute);
  if (indexIt == group->second.indexes.end()) return;
  eraseFromIndex(indexIt->second, oldValue, &object);
  indexIt->second.emplace(newValue, &object);
}
