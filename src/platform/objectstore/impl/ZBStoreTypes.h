#pragma once
// Plain data that travels between a context and the layer beneath it (the
// coordinator's stores or a parent context): rows read and changes to write.

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "platform/foundation/Value.h"
#include "platform/objectstore/NSManagedObjectID.h"

class NSEntityDescription;

// One object's stored state: every attribute and every to-one relationship.
struct ZBRowSnapshot {
  NSManagedObjectIDPtr objectID;
  std::int64_t version = 0;            // the row version it was read at (Z_OPT)
  std::vector<Value> attributes;       // by attribute index
  std::vector<NSManagedObjectIDPtr> toOne;  // by relationship index; null for nil and for to-many
};

struct ZBToManyDelta {
  std::size_t relationship = 0;  // relationship index in the entity
  std::vector<NSManagedObjectIDPtr> added;
  std::vector<NSManagedObjectIDPtr> removed;
};

// What one save changes about one object.
struct ZBObjectChange {
  enum class Kind : std::uint8_t { Insert, Update, Delete };
  Kind kind = Kind::Update;
  NSManagedObjectIDPtr objectID;
  std::int64_t version = 0;  // the row version the change was made against (updates, deletes)
  // Insert: every attribute, by index, read in place from the object (which
  // outlives the save). Update: the changed attributes.
  const std::vector<Value>* insertedValues = nullptr;
  std::vector<std::pair<std::size_t, Value>> attributes;
  // The committed values of the changed attributes (updates), for merging.
  std::vector<std::pair<std::size_t, Value>> originalAttributes;
  // Insert: every set to-one; update: the changed ones (null target = nil).
  std::vector<std::pair<std::size_t, NSManagedObjectIDPtr>> toOne;
  std::vector<ZBToManyDelta> toMany;
};

// A save found rows that changed (or vanished) since its objects read them.
struct ZBSaveConflict {
  NSManagedObjectIDPtr objectID;
  std::int64_t expectedVersion = 0;
  std::int64_t storedVersion = 0;  // 0 when the row is gone
};
