#pragma once
// The unsaved changes of a context: its inserted, updated and deleted
// objects (held strongly), grouped by entity, in the order they first
// changed, with hash indexes by attribute value so that a fetch by equality
// does not scan every pending object.
// Thread-safety: used on its context's queue only.

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/foundation/Value.h"
#include "platform/objectstore/NSManagedObject.h"

class ZBPendingChanges {
public:
  struct EntityChanges {
    std::unordered_set<NSManagedObject*> objects;
    std::unordered_set<const NSManagedObjectID*> ids;
    // Primary keys of the pending objects already stored (updated, deleted).
    std::unordered_set<std::int64_t> storedKeys;
    // attribute index → value → objects; built on first lookup, then kept.
    std::unordered_map<std::size_t, std::unordered_multimap<Value, NSManagedObject*, ValueHash>> indexes;
  };

  // Adds the object (no effect when present).
  void add(const std::shared_ptr<NSManagedObject>& object);
  void remove(NSManagedObject& object);
  bool contains(const NSManagedObject& object) const { return _objects.count(const_cast<NSManagedObject*>(&object)) != 0; }
  // Whether a pending object has this ID.
  bool containsID(const NSManagedObjectID* objectID) const;
  bool empty() const { return _objects.empty(); }
  std::size_t size() const { return _objects.size(); }
  void clear();

  // In the order they were added.
  std::vector<std::shared_ptr<NSManagedObject>> objects() const;
  // Whether any pending object still has changes (one may have been changed
  // back to its saved state).
  bool anyChanged() const;
  const EntityChanges* forEntity(const NSEntityDescription* entity) const;
  // Pending objects of the entity whose attribute equals value.
  std::vector<NSManagedObject*> lookup(const NSEntityDescription* entity, std::size_t attribute, const Value& value);

  void attributeWillChange(NSManagedObject& object, std::size_t attribute, const Value& oldValue, const Value& newValue);

private:
  struct Entry {
    std::shared_ptr<NSManagedObject> object;
    std::uint64_t sequence;
  };
  std::unordered_map<NSManagedObject*, Entry> _objects;
  std::unordered_map<const NSEntityDescription*, EntityChanges> _byEntity;
  std::uint64_t _nextSequence = 0;
};
