#pragma once
// NSPersistentStore: one store file added to a coordinator, holding the
// entities of one configuration. Created by
// NSPersistentStoreCoordinator::addPersistentStoreWithType; it stays usable
// until removed from its coordinator.
// Thread-safety: the accessors are thread-safe (the values never change).

#include <cstdint>
#include <memory>
#include <string>

#include "platform/foundation/NSObject.h"
#include "platform/foundation/NSURL.h"
#include "platform/foundation/Value.h"

class NSPersistentStoreCoordinator;
class ZBSQLiteStore;

// Store type and option keys, with their platform values.
extern const std::string NSSQLiteStoreType;
// YES: open a store written with an older model, migrating its schema.
extern const std::string NSMigratePersistentStoresAutomaticallyOption;
// YES: infer how to migrate from the two schemas.
extern const std::string NSInferMappingModelAutomaticallyOption;
// Seconds a writer waits for another connection (another process) to
// release its lock before the save fails.
extern const std::string NSPersistentStoreTimeoutOption;
// Metadata keys.
extern const std::string NSStoreUUIDKey;
extern const std::string NSStoreTypeKey;

class NSPersistentStore final : public NSObject {
public:
  ~NSPersistentStore() override;

  const std::string& type() const { return _type; }
  // Empty for the default configuration (all entities).
  const std::string& configurationName() const { return _configuration; }
  const NSURL& URL() const { return _url; }
  const Dictionary& options() const { return _options; }
  // The store's UUID, kept in the file: the same across opens.
  const std::string& identifier() const { return _identifier; }
  // NSStoreUUIDKey and NSStoreTypeKey.
  Dictionary metadata() const;
  std::shared_ptr<NSPersistentStoreCoordinator> persistentStoreCoordinator() const { return _coordinator.lock(); }

  std::string className() const override { return "NSPersistentStore"; }

  NSPersistentStore(std::string type, std::string configuration, NSURL url, Dictionary options);

private:
  friend class NSPersistentStoreCoordinator;
  std::string _type;
  std::string _configuration;
  NSURL _url;
  Dictionary _options;
  std::string _identifier;
  std::uint64_t _serial = 0;
  std::weak_ptr<NSPersistentStoreCoordinator> _coordinator;
  std::unique_ptr<ZBSQLiteStore> _sqlite;  // guarded by the coordinator's lock
};
