// Fetching and counting: the store's rows, overlaid level by level with the
// unsaved changes of every context between the store and the requester.
//
// Each level asks the level beneath it for rows, passing down the pending
// changes of the levels above (the exclusion chain): a row of an object that
// some level above has changed or deleted is dropped, and that level adds
// the object's current state itself if it still matches.

#include <algorithm>
#include <unordered_set>

#include "platform/objectstore/NSManagedObjectContext.h"
#include "platform/objectstore/impl/ZBPendingChanges.h"
#include "platform/objectstore/impl/ZBSQLiteStore.h"

namespace {

// SQLite's default limit on bound parameters is far above this.
constexpr std::size_t kKeyBatch = 500;

bool excludedByChain(const ZBExclusionChain& chain, const NSManagedObjectID* objectID) {
  for (auto* pending : chain) {
    if (pending->containsID(objectID)) return true;
  }
  return false;
}

std::unordered_set<std::int64_t> storedKeysOf(const ZBExclusionChain& chain, const NSEntityDescription* entity) {
  std::unordered_set<std::int64_t> keys;
  for (auto* pending : chain) {
    if (auto* group = pending->forEntity(entity)) keys.insert(group->storedKeys.begin(), group->storedKeys.end());
  }
  return keys;
}

Value projected(const NSManagedObject& object, const NSPropertyDescription& property) {
  if (!property.isRelationship()) return object._attributeValues()[property.index()];
  auto& target = object._relationshipStates()[property.index()].target;
  return target ? Value(target) : Value();
}

}  // namespace

bool NSManagedObjectContext::_planFetch(const NSFetchRequest& request, ZBFetchSpec* spec, NSErrorPtr* error) {
  auto entity = _entityNamed(request.entityName(), error);
  if (!entity) return false;
  auto coordinator = persistentStoreCoordinator();
  return coordinator->_withStore(entity.get(), error, [&](ZBSQLiteStore& store) {
    ZBPlanFetch(request, entity, store, spec);
    return true;
  });
}

bool NSManagedObjectContext::_pendingRows(const ZBFetchSpec& spec, const ZBExclusionChain& chain,
                                          std::vector<ZBRowSnapshot>* rows, std::vector<Value>* values) {
  auto* group = _pending->forEntity(spec.entity.get());
  if (!group) return false;
  std::vector<NSManagedObject*> candidates;
  if (spec.equality) {
    candidates = _pending->lookup(spec.entity.get(), spec.equality->first, spec.equality->second);
  } else {
    candidates.assign(group->objects.begin(), group->objects.end());
  }
  for (auto* object : candidates) {
    if (object->isDeleted() || excludedByChain(chain, object->objectID().get())) continue;
    object->_fireFault();
    if (spec.predicate &&
        !spec.predicate->evaluateWithObject(Value(std::static_pointer_cast<NSManagedObject>(object->shared_from_this())))) {
      continue;
    }
    if (spec.propertiesMode) {
      for (auto* property : spec.properties) values->push_back(projected(*object, *property));
    } else {
      rows->push_back(object->_snapshot());
    }
  }
  return true;
}

bool NSManagedObjectContext::_collectRows(const ZBFetchSpec& spec, ZBExclusionChain& chain,
                                          std::vector<ZBRowSnapshot>* rows, std::vector<Value>* values, bool* overlaid,
                                          NSErrorPtr* error) {
  bool own = _pending->forEntity(spec.entity.get()) != nullptr && spec.requesterWithoutPending != this;
  if (own) {
    *overlaid = true;
    chain.push_back(_pending.get());
  }
  bool ok = true;
  if (_parent) {
    _parent->performBlockAndWait([&] { ok = _parent->_collectRows(spec, chain, rows, values, overlaid, error); });
  } else if (!_coordinator) {
    ok = ZBSetError(error, NSError::create(NSCocoaErrorDomain, NSPersistentStoreOperationError,
                                           "The context has no persistent store coordinator."));
  } else {
    ok = _coordinator->_withStore(spec.entity.get(), error, [&](ZBSQLiteStore& store) {
      auto keys = storedKeysOf(chain, spec.entity.get());
      ZBStoreQuery query = spec.query;
      if (spec.predicateInSQL && spec.sortInSQL && spec.limit > 0) {
        query.limit = static_cast<std::int64_t>(spec.limit + keys.size());
      }
      if (spec.propertiesMode) {
        std::vector<std::int64_t> found;
        std::size_t first = values->size();
        if (!store.fetchProperties(query, spec.properties, &found, values, error)) return false;
        if (keys.empty()) return true;
        // Drop the rows that a level above stands in for.
        const std::size_t width = spec.properties.size();
        std::size_t kept = first;
        for (std::size_t row = 0; row < found.size(); ++row) {
          if (keys.count(found[row])) continue;
          std::size_t from = first + row * width;
          if (from != kept) {
            for (std::size_t c = 0; c < width; ++c) (*values)[kept + c] = std::move((*values)[from + c]);
          }
          kept += width;
        }
        values->resize(kept);
        return true;
      }
      std::size_t first = rows->size();
      if (!store.fetchRows(query, rows, error)) return false;
      if (!chain.empty()) {
        auto end = std::remove_if(rows->begin() + static_cast<std::ptrdiff_t>(first), rows->end(),
                                  [&](const ZBRowSnapshot& row) { return excludedByChain(chain, row.objectID.get()); });
        rows->erase(end, rows->end());
      }
      return true;
    });
  }
  if (own) chain.pop_back();
  if (!ok) return false;
  if (own) _pendingRows(spec, chain, rows, values);
  return true;
}

std::optional<std::int64_t> NSManagedObjectContext::_countRows(const ZBFetchSpec& spec, ZBExclusionChain& chain,
                                                               NSErrorPtr* error) {
  auto* group = spec.requesterWithoutPending == this ? nullptr : _pending->forEntity(spec.entity.get());
  if (group) chain.push_back(_pending.get());
  std::optional<std::int64_t> below;
  if (_parent) {
    _parent->performBlockAndWait([&] { below = _parent->_countRows(spec, chain, error); });
  } else if (!_coordinator) {
    ZBSetError(error, NSError::create(NSCocoaErrorDomain, NSPersistentStoreOperationError,
                                      "The context has no persistent store coordinator."));
  } else {
    _coordinator->_withStore(spec.entity.get(), error, [&](ZBSQLiteStore& store) {
      ZBStoreQuery query = spec.query;
      query.limit = 0;
      auto total = store.count(query, error);
      if (!total) return false;
      auto keys = storedKeysOf(chain, spec.entity.get());
      if (keys.empty()) {
        below = total;
        return true;
      }
      // Rows that a level above stands in for are counted there instead.
      std::int64_t shadowed = 0;
      if (keys.size() <= kKeyBatch) {
        ZBStoreQuery among = query;
        std::string list;
        for (auto key : keys) {
          list += list.empty() ? "?" : ", ?";
          among.parameters.push_back(Value(key));
        }
        among.where = (query.where.empty() ? std::string() : "(" + query.where + ") AND ") + "t0.\"Z_PK\" IN (" + list + ")";
        auto count = store.count(among, error);
        if (!count) return false;
        shadowed = *count;
      } else {
        std::vector<std::int64_t> matching;
        if (!store.fetchPrimaryKeys(query, &matching, error)) return false;
        for (auto key : matching) shadowed += keys.count(key) ? 1 : 0;
      }
      below = *total - shadowed;
      return true;
    });
  }
  if (group) chain.pop_back();
  if (!below || !group) return below;
  std::vector<NSManagedObject*> candidates;
  if (spec.equality) {
    candidates = _pending->lookup(spec.entity.get(), spec.equality->first, spec.equality->second);
  } else {
    candidates.assign(group->objects.begin(), group->objects.end());
  }
  std::int64_t mine = 0;
  for (auto* object : candidates) {
    if (object->isDeleted() || excludedByChain(chain, object->objectID().get())) continue;
    object->_fireFault();
    if (!spec.predicate ||
        spec.predicate->evaluateWithObject(Value(std::static_pointer_cast<NSManagedObject>(object->shared_from_this())))) {
      ++mine;
    }
  }
  return *below + mine;
}

std::optional<Array> NSManagedObjectContext::_fetchObjects(const ZBFetchSpec& spec, NSErrorPtr* error) {
  std::vector<ZBRowSnapshot> rows;
  bool overlaid = false;
  ZBExclusionChain chain;
  ZBFetchSpec objectsSpec = spec;
  objectsSpec.propertiesMode = false;
  objectsSpec.properties.clear();
  if (!_collectRows(objectsSpec, chain, &rows, nullptr, &overlaid, error)) return std::nullopt;
  Array objects;
  objects.reserve(rows.size());
  for (auto& row : rows) {
    auto object = _materialize(row);
    if (!spec.predicateInSQL && spec.predicate && !spec.predicate->evaluateWithObject(Value(object))) continue;
    objects.push_back(Value(std::move(object)));
  }
  if ((overlaid || !spec.sortInSQL) && !spec.sortDescriptors.empty()) ZBSortValues(objects, spec.sortDescriptors);
  if (spec.limit > 0 && objects.size() > spec.limit) objects.resize(spec.limit);
  return objects;
}

std::optional<Array> NSManagedObjectContext::executeFetchRequest(const NSFetchRequest& request, NSErrorPtr* error) {
  ZBContextQueueAccess access(*_queue);
  if (request.resultType() == NSCountResultType) {
    std::int64_t count = countForFetchRequest(request, error);
    if (count == NSNotFound) return std::nullopt;
    return Array{Value(count)};
  }
  ZBFetchSpec spec;
  if (!_planFetch(request, &spec, error)) return std::nullopt;
  if (!request.includesPendingChanges()) spec.requesterWithoutPending = this;

  if (request.resultType() != NSDictionaryResultType) {
    auto objects = _fetchObjects(spec, error);
    if (!objects || request.resultType() == NSManagedObjectResultType) return objects;
    Array ids;
    ids.reserve(objects->size());
    for (auto& object : *objects) ids.push_back(Value(object.as<NSManagedObject>()->objectID()));
    return ids;
  }

  // Dictionaries: the requested properties (every attribute when none).
  std::vector<const NSPropertyDescription*> properties;
  if (request.propertiesToFetch().empty()) {
    for (auto& attribute : spec.entity->attributes()) properties.push_back(attribute.get());
  } else {
    for (auto& name : request.propertiesToFetch()) {
      auto* property = spec.entity->propertyNamed(name);
      if (!property || (property->isRelationship() && static_cast<const NSRelationshipDescription*>(property)->isToMany())) {
        ZBSetError(error, NSError::create(NSCocoaErrorDomain, NSCoreDataError,
                                          "“" + name + "” cannot be fetched as a property of " + spec.entity->name() + "."));
        return std::nullopt;
      }
      properties.push_back(property);
    }
  }
  // Entries go in key order, so each dictionary is built by appending.
  std::vector<std::size_t> byName(properties.size());
  for (std::size_t i = 0; i < byName.size(); ++i) byName[i] = i;
  std::sort(byName.begin(), byName.end(), [&](auto a, auto b) { return properties[a]->name() < properties[b]->name(); });
  auto dictionaryOf = [&](Value* row) {
    Dictionary dictionary;
    dictionary.reserve(properties.size());
    for (auto i : byName) {
      if (row[i].isAbsent() || row[i].isNull()) continue;
      dictionary.set(properties[i]->name(), std::move(row[i]));
    }
    return Value(std::move(dictionary));
  };

  if (!spec.predicateInSQL || !spec.sortInSQL) {
    auto objects = _fetchObjects(spec, error);
    if (!objects) return std::nullopt;
    Array result;
    result.reserve(objects->size());
    std::vector<Value> values(properties.size());
    for (auto& value : *objects) {
      auto object = value.as<NSManagedObject>();
      for (std::size_t i = 0; i < properties.size(); ++i) values[i] = projected(*object, *properties[i]);
      result.push_back(dictionaryOf(values.data()));
    }
    return result;
  }

  // Sort keys ride along so that rows overlaid from memory can be re-sorted.
  spec.propertiesMode = true;
  spec.properties = properties;
  std::vector<std::size_t> sortColumns;
  for (auto& descriptor : spec.sortDescriptors) {
    auto* property = spec.entity->propertyNamed(descriptor.key());
    auto it = std::find(spec.properties.begin(), spec.properties.end(), property);
    if (it == spec.properties.end()) {
      spec.properties.push_back(property);
      it = spec.properties.end() - 1;
    }
    sortColumns.push_back(static_cast<std::size_t>(it - spec.properties.begin()));
  }
  const std::size_t width = spec.properties.size();
  std::vector<Value> values;
  bool overlaid = false;
  ZBExclusionChain chain;
  if (!_collectRows(spec, chain, nullptr, &values, &overlaid, error)) return std::nullopt;
  std::size_t count = width ? values.size() / width : 0;
  std::vector<std::size_t> order(count);
  for (std::size_t i = 0; i < count; ++i) order[i] = i;
  if (overlaid && !spec.sortDescriptors.empty()) {
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
      for (std::size_t d = 0; d < spec.sortDescriptors.size(); ++d) {
        int c = spec.sortDescriptors[d].compareValues(values[a * width + sortColumns[d]], values[b * width + sortColumns[d]]);
        if (c != 0) return c < 0;
      }
      return false;
    });
  }
  if (spec.limit > 0 && order.size() > spec.limit) order.resize(spec.limit);
  Array result;
  result.reserve(order.size());
  for (auto row : order) result.push_back(dictionaryOf(&values[row * width]));
  return result;
}

std::int64_t NSManagedObjectContext::countForFetchRequest(const NSFetchRequest& request, NSErrorPtr* error) {
  ZBContextQueueAccess access(*_queue);
  ZBFetchSpec spec;
  if (!_planFetch(request, &spec, error)) return NSNotFound;
  if (!request.includesPendingChanges()) spec.requesterWithoutPending = this;
  std::int64_t count;
  if (!spec.predicateInSQL) {
    spec.sortDescriptors.clear();
    spec.limit = 0;
    auto objects = _fetchObjects(spec, error);
    if (!objects) return NSNotFound;
    count = static_cast<std::int64_t>(objects->size());
  } else {
    ZBExclusionChain chain;
    auto counted = _countRows(spec, chain, error);
    if (!counted) return NSNotFound;
    count = *counted;
  }
  if (request.fetchLimit() > 0) count = std::min<std::int64_t>(count, static_cast<std::int64_t>(request.fetchLimit()));
  return count;
}
