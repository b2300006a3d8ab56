#pragma once
// NSFetchRequest: what to fetch from a context — an entity, an optional
// predicate, an order, a limit, and the form of the results.
//
// Ownership: shared; a request may be reused for several fetches.
// Thread-safety: configure on one thread, then it may be read from any.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/foundation/NSObject.h"
#include "platform/objectstore/NSSortDescriptor.h"
#include "platform/predicate/NSPredicate.h"

enum class NSFetchRequestResultType {
  NSManagedObjectResultType,    // the objects, registered in the context
  NSManagedObjectIDResultType,  // their IDs (values of NSManagedObjectID)
  NSDictionaryResultType,       // a Dictionary per object: propertiesToFetch (all attributes when empty)
  NSCountResultType,            // one number: the count
};
using enum NSFetchRequestResultType;

class NSFetchRequest final : public NSObject {
public:
  static std::shared_ptr<NSFetchRequest> fetchRequestWithEntityName(std::string entityName);

  const std::string& entityName() const { return _entityName; }
  void setEntityName(std::string name) { _entityName = std::move(name); }
  // Null: every object of the entity.
  const NSPredicatePtr& predicate() const { return _predicate; }
  void setPredicate(NSPredicatePtr predicate) { _predicate = std::move(predicate); }
  const std::vector<NSSortDescriptor>& sortDescriptors() const { return _sortDescriptors; }
  void setSortDescriptors(std::vector<NSSortDescriptor> descriptors) { _sortDescriptors = std::move(descriptors); }
  // 0: no limit.
  std::uint64_t fetchLimit() const { return _fetchLimit; }
  void setFetchLimit(std::uint64_t limit) { _fetchLimit = limit; }
  NSFetchRequestResultType resultType() const { return _resultType; }
  void setResultType(NSFetchRequestResultType type) { _resultType = type; }
  // Attribute or to-one relationship names, for dictionary results.
  const std::vector<std::string>& propertiesToFetch() const { return _propertiesToFetch; }
  void setPropertiesToFetch(std::vector<std::string> names) { _propertiesToFetch = std::move(names); }
  // Whether unsaved changes of the context (and its ancestors) take part.
  // Default true.
  bool includesPendingChanges() const { return _includesPendingChanges; }
  void setIncludesPendingChanges(bool include) { _includesPendingChanges = include; }

  std::string className() const override { return "NSFetchRequest"; }
  std::string description() const override;

  explicit NSFetchRequest(std::string entityName) : _entityName(std::move(entityName)) {}

private:
  std::string _entityName;
  NSPredicatePtr _predicate;
  std::vector<NSSortDescriptor> _sortDescriptors;
  std::uint64_t _fetchLimit = 0;
  NSFetchRequestResultType _resultType = NSManagedObjectResultType;
  std::vector<std::string> _propertiesToFetch;
  bool _includesPendingChanges = true;
};

using NSFetchRequestPtr = std::shared_ptr<NSFetchRequest>;
