#pragma once
// NSManagedObjectModel: the entities of an object store and their grouping
// into configurations (each configuration lives in its own persistent store).
//
// Built in code: create the entities, then NSManagedObjectModel::create,
// which resolves relationship destinations and inverses and freezes the
// entities. A model that names an unknown entity or inverse is a programming
// error: create throws std::logic_error.
// Thread-safety: configurations may be assigned until the model is first used
// by a coordinator; from then on it is read-only and safe from any thread.

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/NSObject.h"
#include "platform/objectstore/NSEntityDescription.h"

class NSManagedObjectModel final : public NSObject {
public:
  static std::shared_ptr<NSManagedObjectModel> create(std::vector<std::shared_ptr<NSEntityDescription>> entities);

  const std::vector<std::shared_ptr<NSEntityDescription>>& entities() const { return _entities; }
  // Null for an unknown name.
  std::shared_ptr<NSEntityDescription> entityNamed(std::string_view name) const;

  // Assigns entities (by name) to a named configuration. An entity may be in
  // several configurations; the coordinator stores it in the first store
  // added whose configuration holds it.
  void setEntitiesForConfiguration(const std::vector<std::string>& entityNames, const std::string& configuration);
  // The entities of a configuration; an empty name means all entities.
  std::vector<std::shared_ptr<NSEntityDescription>> entitiesForConfiguration(const std::string& configuration) const;
  std::vector<std::string> configurations() const;

  // A stable text describing everything that shapes the stored schema:
  // entity names, attribute names and types, relationship names, kinds and
  // destinations, one per line, sorted ("E Post", "A Post url string",
  // "R Post tags Tag many posts"). Optionality and indexes are not part of
  // it: they do not change how rows are stored. Two models with equal
  // fingerprints store their data the same way.
  // An empty configuration covers all entities.
  std::string schemaFingerprint(const std::string& configuration = {}) const;

  // Freezes configurations too; the coordinator calls this.
  void markInUse() { _inUse = true; }

  std::string className() const override { return "NSManagedObjectModel"; }

  NSManagedObjectModel() = default;

private:
  std::vector<std::shared_ptr<NSEntityDescription>> _entities;
  std::map<std::string, std::shared_ptr<NSEntityDescription>, std::less<>> _byName;
  std::map<std::string, std::vector<std::string>> _configurations;
  std::atomic<bool> _inUse = false;
};
