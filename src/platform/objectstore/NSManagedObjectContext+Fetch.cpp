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
#include "platform/objectstore/impl/ZBManagedObjectContextImpl.h"
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

// The stored rows that levels above stand in for, read in place: copying
// them for every fetch would make a run of fetches under a context with many
// changes quadratic.
class StoredKeys {
public:
  StoredKeys(const ZBExclusionChain& chain, const NSEntityDescription* entity) {
    for (auto* pending : chain) {
      if (auto* group = pending->forEntity(entity); group && !group->storedKeys.empty()) {
        _sets.push_back(&group->storedKeys);
        _total += group->storedKeys.size();
      }
    }
  }
  bool empty() const { return _total == 0; }
  // An upper bound (a key may be held at two levels).
  std::size_t size() const { return _total; }
  bool contains(std::int64_t key) const {
    return std::any_of(_sets.begin(), _sets.end(), [&](auto* set) { return set->count(key) != 0; });
  }
  std::unordered_set<std::int64_t> distinct() const {
    std::unordered_set<std::int64_t> keys;
    for (auto* set : _sets) keys.insert(set->begin(), set->end());
    return keys;
  }

private:
  std::vector<const std::unordered_set<std::int64_t>*> _sets;
  std::size_t _total = 0;
};

// The pending objects of group that the plan matches, except deleted ones
// and those a level above stands in for.
std::vector<NSManagedObject*> pendingMatches(ZBPendingChanges& pending, const ZBPendingChanges::EntityChanges& group,
                                             const ZBFetchPlan& plan, const ZBExclusionChain& chain) {
  std::vector<NSManagedObject*> candidates;
  if (plan.equality) {
    candidates = pending.lookup(plan.entity.get(), plan.equality->first, plan.equality->second);
  } else {
    candidates.assign(group.objects.begin(), group.objects.end());
  }
  std::erase_if(candidates, [&](NSManagedObject* object) {
    if (object->isDeleted() || excludedByChain(chain, object->objectID().get())) return true;
    object->_fireFault();
    return plan.predicate && !plan.predicate->evaluateWithObject(
                                 Value(std::static_pointer_cast<NSManagedObject>(object->shared_from_this())));
  });
  return candidates;
}

Value projected(const NSManagedObject& object, const NSPropertyDescription& property) {
  if (!property.isRelationship()) return object._attributeValues()[property.index()];
  auto& target = object._relationshipStates()[property.index()].target;
  return target ? Value(target) : Value();
}

}  // namespace

bool NSManagedObjectContext::Impl::_planFetch(const NSFetchRequest& request, ZBFetchPlan* plan, NSErrorPtr* error) {
  auto entity = _entityNamed(request.entityName(), error);
  if (!entity) return false;
  auto coordinator = persistentStoreCoordinator();
  return coordinator->_withStore(entity.get(), error, [&](ZBSQLiteStore& store) {
    ZBPlanFetch(request, entity, store, plan);
    return true;
  });
}

bool NSManagedObjectContext::Impl::_pendingRows(const ZBFetchPlan& plan, const ZBExclusionChain& chain,
                                                std::vector<ZBRowSnapshot>* rows, std::vector<Value>* values) {
  auto* group = _pending->forEntity(plan.entity.get());
  if (!group) return false;
  for (auto* object : pendingMatches(*_pending, *group, plan, chain)) {
    if (plan.propertiesMode) {
      for (auto* property : plan.properties) values->push_back(projected(*object, *property));
    } else {
      rows->push_back(object->_snapshot());
    }
  }
  return true;
}

bool NSManagedObjectContext::Impl::_collectRows(const ZBFetchPlan& plan, ZBExclusionChain& chain,
                                                std::vector<ZBRowSnapshot>* rows, std::vector<Value>* values,
                                                bool* overlaid, NSErrorPtr* error) {
  bool own = _pending->forEntity(plan.entity.get()) != nullptr && plan.requesterWithoutPending != this;
  if (own) {
    *overlaid = true;
    chain.push_back(_pending.get());
  }
  bool ok = true;
  if (_parent) {
    _parent->performBlockAndWait(
        [&] { ok = _parent->_impl->_collectRows(plan, chain, rows, values, overlaid, error); });
  } else if (!_coordinator) {
    ok = ZBSetError(error, NSError::create(NSCocoaErrorDomain, NSPersistentStoreOperationError,
                                           "The context has no persistent store coordinator."));
  } else {
    ok = _coordinator->_withStore(plan.entity.get(), error, [&](ZBSQLiteStore& store) {
      StoredKeys keys(chain, plan.entity.get());
      ZBStoreQuery query = plan.query;
      if (plan.predicateInSQL && plan.sortInSQL && plan.limit > 0) {
        query.limit = static_cast<std::int64_t>(plan.limit + keys.size());
      }
      if (plan.propertiesMode) {
        std::vector<std::int64_t> found;
        std::size_t first = values->size();
        if (!store.fetchProperties(query, plan.properties, &found, values, error)) return false;
        if (keys.empty()) return true;
        // Drop the rows that a level above stands in for.
        const std::size_t width = plan.properties.size();
        std::size_t kept = first;
        for (std::size_t row = 0; row < found.size(); ++row) {
          if (keys.contains(found[row])) continue;
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
  if (own) _pendingRows(plan, chain, rows, values);
  return true;
}

std::optional<std::int64_t> NSManagedObjectContext::Impl::_countRows(const ZBFetchPlan& plan, ZBExclusionChain& chain,
                                                                     NSErrorPtr* error) {
  auto* group = plan.requesterWithoutPending == this ? nullptr : _pending->forEntity(plan.entity.get());
  if (group) chain.push_back(_pending.get());
  std::optional<std::int64_t> below;
  if (_parent) {
    _parent->performBlockAndWait([&] { below = _parent->_impl->_countRows(plan, chain, error); });
  } else if (!_coordinator) {
    ZBSetError(error, NSError::create(NSCocoaErrorDomain, NSPersistentStoreOperationError,
                                      "The context has no persistent store coordinator."));
  } else {
    // On failure below stays empty, and *error says why.
    (void)_coordinator->_withStore(plan.entity.get(), error, [&](ZBSQLiteStore& store) {
      ZBStoreQuery query = plan.query;
      query.limit = 0;
      auto total = store.count(query, error, true);
      if (!total) return false;
      StoredKeys keys(chain, plan.entity.get());
      if (keys.empty()) {
        below = total;
        return true;
      }
      // Rows that a level above stands in for are counted there instead.
      std::int64_t shadowed = 0;
      if (keys.size() <= kKeyBatch) {
        ZBStoreQuery among = query;
        std::string list;
        for (auto key : keys.distinct()) {
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
        for (auto key : matching) shadowed += keys.contains(key) ? 1 : 0;
      }
      below = *total - shadowed;
      return true;
    });
  }
  if (group) chain.pop_back();
  if (!below || !group) return below;
  return *below + static_cast<std::int64_t>(pendingMatches(*_pending, *group, plan, chain).size());
}

std::optional<Array> NSManagedObjectContext::Impl::_fetchObjects(const ZBFetchPlan& plan, NSErrorPtr* error) {
  std::vector<ZBRowSnapshot> rows;
  bool overlaid = false;
  ZBExclusionChain chain;
  ZBFetchPlan objectsPlan = plan;
  objectsPlan.propertiesMode = false;
  objectsPlan.properties.clear();
  if (!_collectRows(objectsPlan, chain, &rows, nullptr, &overlaid, error)) return std::nullopt;
  Array objects;
  objects.reserve(rows.size());
  for (auto& row : rows) {
    auto object = _materialize(row);
    if (!plan.predicateInSQL && plan.predicate && !plan.predicate->evaluateWithObject(Value(object))) continue;
    objects.push_back(Value(std::move(object)));
  }
  if ((overlaid || !plan.sortInSQL) && !plan.sortDescriptors.empty()) ZBSortValues(objects, plan.sortDescriptors);
  if (plan.limit > 0 && objects.size() > plan.limit) objects.resize(plan.limit);
  return objects;
}

std::optional<Array> NSManagedObjectContext::Impl::executeFetchRequest(const NSFetchRequest& request,
                                                                       NSErrorPtr* error) {
  ZBContextQueueAccess access(*_queue);
  if (request.resultType() == NSCountResultType) {
    std::int64_t count = countForFetchRequest(request, error);
    if (count == NSNotFound) return std::nullopt;
    return Array{Value(count)};
  }
  ZBFetchPlan plan;
  if (!_planFetch(request, &plan, error)) return std::nullopt;
  if (!request.includesPendingChanges()) plan.requesterWithoutPending = this;

  if (request.resultType() != NSDictionaryResultType) {
    auto objects = _fetchObjects(plan, error);
    if (!objects || request.resultType() == NSManagedObjectResultType) return objects;
    Array ids;
    ids.reserve(objects->size());
    for (auto& object : *objects) ids.push_back(Value(object.as<NSManagedObject>()->objectID()));
    return ids;
  }

  // Dictionaries: the requested properties (every attribute when none).
  std::vector<const NSPropertyDescription*> properties;
  if (request.propertiesToFetch().empty()) {
    for (auto& attribute : plan.entity->attributes()) properties.push_back(attribute.get());
  } else {
    for (auto& name : request.propertiesToFetch()) {
      auto* property = plan.entity->propertyNamed(name);
      if (!property || (property->isRelationship() && static_cast<const NSRelationshipDescription*>(property)->isToMany())) {
        ZBSetError(error, NSError::create(NSCocoaErrorDomain, NSCoreDataError,
                                          "“" + name + "” cannot be fetched as a property of " + plan.entity->name() + "."));
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

  if (!plan.predicateInSQL || !plan.sortInSQL) {
    auto objects = _fetchObjects(plan, error);
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
  plan.propertiesMode = true;
  plan.properties = properties;
  std::vector<std::size_t> sortColumns;
  for (auto& descriptor : plan.sortDescriptors) {
    auto* property = plan.entity->propertyNamed(descriptor.key());
    auto it = std::find(plan.properties.begin(), plan.properties.end(), property);
    if (it == plan.properties.end()) {
      plan.properties.push_back(property);
      it = plan.properties.end() - 1;
    }
    sortColumns.push_back(static_cast<std::size_t>(it - plan.properties.begin()));
  }
  const std::size_t width = plan.properties.size();
  std::vector<Value> values;
  bool overlaid = false;
  ZBExclusionChain chain;
  if (!_collectRows(plan, chain, nullptr, &values, &overlaid, error)) return std::nullopt;
  std::size_t count = width ? values.size() / width : 0;
  std::vector<std::size_t> order(count);
  for (std::size_t i = 0; i < count; ++i) order[i] = i;
  if (overlaid && !plan.sortDescriptors.empty()) {
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
      for (std::size_t d = 0; d < plan.sortDescriptors.size(); ++d) {
        int c = plan.sortDescriptors[d].compareValues(values[a * width + sortColumns[d]], values[b * width + sortColumns[d]]);
        if (c != 0) return c < 0;
      }
      return false;
    });
  }
  if (plan.limit > 0 && order.size() > plan.limit) order.resize(plan.limit);
  Array result;
  result.reserve(order.size());
  for (auto row : order) result.push_back(dictionaryOf(&values[row * width]));
  return result;
}

std::int64_t NSManagedObjectContext::Impl::countForFetchRequest(const NSFetchRequest& request, NSErrorPtr* error) {
  ZBContextQueueAccess access(*_queue);
  ZBFetchPlan plan;
  if (!_planFetch(request, &plan, error)) return NSNotFound;
  if (!request.includesPendingChanges()) plan.requesterWithoutPending = this;
  std::int64_t count;
  if (!plan.predicateInSQL) {
    plan.sortDescriptors.clear();
    plan.limit = 0;
    auto objects = _fetchObjects(plan, error);
    if (!objects) return NSNotFound;
    count = static_cast<std::int64_t>(objects->size());
  } else {
    ZBExclusionChain chain;
    auto counted = _countRows(plan, chain, error);
    if (!counted) return NSNotFound;
    count = *counted;
  }
  if (request.fetchLimit() > 0) count = std::min<std::int64_t>(count, static_cast<std::int64_t>(request.fetchLimit()));
  return count;
}
