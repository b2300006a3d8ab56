#include "platform/objectstore/NSPersistentStore.h"

#include "platform/objectstore/impl/ZBSQLiteStore.h"

const std::string NSSQLiteStoreType = "SQLite";
const std::string NSMigratePersistentStoresAutomaticallyOption = "NSMigratePersistentStoresAutomaticallyOption";
const std::string NSInferMappingModelAutomaticallyOption = "NSInferMappingModelAutomaticallyOption";
const std::string NSPersistentStoreTimeoutOption = "NSPersistentStoreTimeoutOption";
const std::string NSStoreUUIDKey = "NSStoreUUID";
const std::string NSStoreTypeKey = "NSStoreType";

NSPersistentStore::NSPersistentStore(std::string type, std::string configuration, NSURL url, Dictionary options)
    : _type(std::move(type)), _configuration(std::move(configuration)), _url(std::move(url)), _options(std::move(options)) {}

NSPersistentStore::~NSPersistentStore() = default;

Dictionary NSPersistentStore::metadata() const {
  return Dictionary{{NSStoreUUIDKey, Value(_identifier)}, {NSStoreTypeKey, Value(_type)}};
}
