#pragma once
// Turns a fetch request into what each level beneath a context needs: the
// SQL for the store (predicate and order translated where possible, values
// always bound), and the in-memory parts for pending changes and for
// whatever SQL cannot express.

#include <cstdint>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "platform/objectstore/NSFetchRequest.h"
#include "platform/objectstore/impl/ZBSQLiteStore.h"

class ZBPendingChanges;

struct ZBFetchPlan {
  std::shared_ptr<NSEntityDescription> entity;
  NSPredicatePtr predicate;
  // The store's WHERE is the whole predicate. When false the store returns
  // every row (or a superset) and the requesting context filters in memory.
  bool predicateInSQL = true;
  bool sortInSQL = true;
  std::vector<NSSortDescriptor> sortDescriptors;
  ZBStoreQuery query;
  std::uint64_t limit = 0;
  // An "attribute == constant" conjunct of the predicate, for looking up
  // pending objects through their hash index.
  std::optional<std::pair<std::size_t, Value>> equality;
  // Dictionary results: the properties to read (rows then hold only these,
  // in this order). Empty: whole rows.
  std::vector<const NSPropertyDescription*> properties;
  bool propertiesMode = false;
  // The requesting context's own unsaved changes are left out (the
  // request's includesPendingChanges is false).
  const void* requesterWithoutPending = nullptr;
};

// The pending changes of the contexts between the requesting one and the
// level being asked: their objects stand in for the rows beneath.
using ZBExclusionChain = std::vector<const ZBPendingChanges*>;

// Fills plan from request: translates the predicate and the sort descriptors
// for store's layout. Untranslatable parts are left to memory (the flags).
void ZBPlanFetch(const NSFetchRequest& request, const std::shared_ptr<NSEntityDescription>& entity,
                 const ZBSQLiteStore& store, ZBFetchPlan* plan);

// Translates predicate over layout's table (alias t0) into SQL, appending
// bound values to parameters. False when any part cannot be expressed.
bool ZBTranslatePredicate(const NSPredicate& predicate, const ZBSQLiteStore& store, const ZBEntityLayout& layout,
                          std::string* sql, std::vector<Value>* parameters);

// Whether the store of entity can evaluate predicate in SQL (else fetches
// filter in memory).
class NSPersistentStoreCoordinator;
bool ZBCanTranslatePredicate(NSPersistentStoreCoordinator& coordinator, const NSEntityDescription& entity,
                             const NSPredicate& predicate);

// The "attribute == constant" conjunct of predicate, if any.
std::optional<std::pair<std::size_t, Value>> ZBEqualityConjunct(const NSPredicate& predicate,
                                                                 const NSEntityDescription& entity);

// Registers the SQL functions and collations the translation uses.
void ZBRegisterSQLFunctions(sqlite3* db);
