#include "platform/objectstore/impl/ZBSQLiteStore.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <map>
#include <set>
#include <sstream>

#include "platform/archive/NSKeyedArchiver.h"
#include "platform/archive/NSKeyedUnarchiver.h"
#include "platform/foundation/NSUUID.h"
#include "platform/objectstore/impl/ZBFetchPlanner.h"
#include "platform/predicate/NSPredicate.h"

namespace {

const char* kStoreType = "SQLite";

const char* sqlType(NSAttributeType type) {
  switch (type) {
    case NSAttributeType::Integer16:
    case NSAttributeType::Integer32:
    case NSAttributeType::Integer64:
    case NSAttributeType::Boolean: return "INTEGER";
    case NSAttributeType::Double:
    case NSAttributeType::Date: return "REAL";
    case NSAttributeType::String: return "TEXT";
    case NSAttributeType::Binary:
    case NSAttributeType::Transformable: return "BLOB";
  }
  return "BLOB";
}

// A model default as an SQL literal for DEFAULT clauses (DDL cannot bind).
// The value comes from the model built in code, never from stored data.
std::string sqlLiteral(const Value& value) {
  switch (value.type()) {
    case Value::Type::Bool: return value.boolValue() ? "1" : "0";
    case Value::Type::Integer: return std::to_string(value.integerValue());
    case Value::Type::Double: {
      char buffer[64];
      std::snprintf(buffer, sizeof buffer, "%.17g", value.doubleValue());
      return buffer;
    }
    case Value::Type::Date: {
      char buffer[64];
      std::snprintf(buffer, sizeof buffer, "%.17g", value.asDate().timeIntervalSinceReferenceDate());
      return buffer;
    }
    case Value::Type::String: {
      std::string quoted = "'";
      for (char c : value.asString()) {
        if (c == '\'') quoted += '\'';
        quoted += c;
      }
      return quoted + "'";
    }
    case Value::Type::Data: {
      static const char* hex = "0123456789ABCDEF";
      std::string literal = "X'";
      for (auto byte : value.asData()) {
        literal += hex[byte >> 4];
        literal += hex[byte & 15];
      }
      return literal + "'";
    }
    default: return "NULL";
  }
}

std::string defaultClause(const NSAttributeDescription& attribute) {
  if (attribute.defaultValue()) {
    if (attribute.attributeType() == NSAttributeType::Transformable) return "";
    return " DEFAULT " + sqlLiteral(attribute.defaultValue());
  }
  if (attribute.attributeType() == NSAttributeType::Boolean) return " DEFAULT 0";
  return "";
}

NSErrorPtr storeError(std::int64_t code, const std::string& description, const std::string& reason) {
  Dictionary info{{NSLocalizedDescriptionKey, Value(description)}};
  if (!reason.empty()) info.set(NSLocalizedFailureReasonErrorKey, Value(reason));
  return NSError::create(NSCocoaErrorDomain, code, std::move(info));
}

// The owner of a pair of inverse relationships: the side whose
// (entity name, relationship name) sorts first.
bool isOwnerSide(const NSRelationshipDescription& relationship) {
  auto inverse = relationship.inverseRelationship();
  if (!inverse) return true;
  auto mine = std::make_pair(relationship.entity()->name(), relationship.name());
  auto theirs = std::make_pair(inverse->entity()->name(), inverse->name());
  return mine <= theirs;
}

struct ParsedSchema {
  std::set<std::string> entities;
  std::map<std::pair<std::string, std::string>, std::string> attributes;     // type
  std::map<std::pair<std::string, std::string>, std::string> relationships;  // the whole line
  std::set<std::string> lines;
};

ParsedSchema parseSchema(const std::string& text) {
  ParsedSchema schema;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty()) continue;
    schema.lines.insert(line);
    std::istringstream fields(line);
    std::string kind, entity, name, type;
    fields >> kind >> entity;
    if (kind == "E") {
      schema.entities.insert(entity);
    } else if (kind == "A") {
      fields >> name >> type;
      schema.attributes[{entity, name}] = type;
    } else if (kind == "R") {
      fields >> name;
      schema.relationships[{entity, name}] = line;
    }
  }
  return schema;
}

}  // namespace

// Transformable values are stored as keyed archives, so any archivable value
// (predicates included) survives a save; an archive that no longer decodes
// reads as absent rather than failing the whole fetch.
std::optional<Data> ZBEncodeTransformableValue(const Value& value) {
  Data data = NSKeyedArchiver::archivedDataWithRootObject(value);
  if (data.empty()) return std::nullopt;
  return data;
}

Value ZBDecodeTransformableValue(const Data& data) {
  if (data.empty()) return Value();
  // Stored predicates decode in a process that has not built one yet.
  ZBPredicateRegisterArchivableClasses();
  return NSKeyedUnarchiver::unarchivedObjectOfClasses({"NSObject"}, data);
}

std::unique_ptr<ZBSQLiteStore> ZBSQLiteStore::open(const std::filesystem::path& path, const NSManagedObjectModel& model,
                                                   const std::string& configuration, const OpenOptions& options,
                                                   NSErrorPtr* error) {
  auto store = std::unique_ptr<ZBSQLiteStore>(new ZBSQLiteStore());
  store->_path = path;
  store->_configuration = configuration;
  store->_entities = model.entitiesForConfiguration(configuration);
  store->_fingerprint = model.schemaFingerprint(configuration);
  if (!configuration.empty() && store->_entities.empty()) {
    ZBSetError(error, storeError(NSPersistentStoreOperationError, "The configuration “" + configuration +
                                                                      "” has no entities.", ""));
    return nullptr;
  }
  if (!store->_buildLayouts(error)) return nullptr;
  store->_db = ZBSQLiteDatabase::open(path, true, error);
  if (!store->_db) return nullptr;
  store->_counts = std::make_unique<ZBCountMemo>(*store->_db, store->_layouts);
  if (!store->_configure(options, error)) return nullptr;
  if (!store->_prepareSchema(options, error)) return nullptr;
  return store;
}


const ZBEntityLayout* ZBSQLiteStore::layout(const NSEntityDescription* entity) const {
  auto it = _layouts.find(entity);
  return it == _layouts.end() ? nullptr : &it->second;
}

bool ZBSQLiteStore::_buildLayouts(NSErrorPtr* error) {
  std::set<const NSEntityDescription*> held;
  for (auto& entity : _entities) held.insert(entity.get());
  for (auto& entity : _entities) {
    ZBEntityLayout layout;
    layout.entity = entity;
    layout.table = ZBSQLQuote(entity->name());
    layout.selectList = "t0.\"Z_PK\", t0.\"Z_OPT\"";
    for (auto& attribute : entity->attributes()) {
      if (attribute->name() == "Z_PK" || attribute->name() == "Z_OPT") {
        return ZBSetError(error, storeError(NSPersistentStoreOperationError,
                                            "The attribute name “" + attribute->name() + "” is reserved.", ""));
      }
      layout.attributeColumns.push_back(ZBSQLQuote(attribute->name()));
      layout.selectList += ", t0." + layout.attributeColumns.back();
    }
    for (auto& relationship : entity->relationships()) {
      ZBRelationshipLayout r;
      r.relationship = relationship.get();
      r.destination = relationship->destinationEntity();
      r.destinationTable = ZBSQLQuote(r.destination->name());
      if (!held.count(r.destination.get())) {
        return ZBSetError(error, storeError(NSPersistentStoreOperationError,
                                            "The relationship “" + entity->name() + "." + relationship->name() +
                                                "” leads out of its store.",
                                            "Relationships must stay within one configuration."));
      }
      auto inverse = relationship->inverseRelationship();
      if (!relationship->isToMany()) {
        if (inverse && !inverse->isToMany() && !isOwnerSide(*relationship)) {
          r.kind = ZBRelationshipLayout::Kind::InverseForeignKey;
          r.column = ZBSQLQuote(inverse->name());
        } else {
          r.kind = ZBRelationshipLayout::Kind::ForeignKey;
          r.column = ZBSQLQuote(relationship->name());
        }
        layout.toOneRelationships.push_back(relationship->index());
        if (r.kind == ZBRelationshipLayout::Kind::ForeignKey) {
          layout.selectList += ", t0." + r.column;
        } else {
          layout.selectList += ", (SELECT x.\"Z_PK\" FROM " + r.destinationTable + " x WHERE x." + r.column +
                               " = t0.\"Z_PK\" LIMIT 1)";
        }
      } else if (inverse && !inverse->isToMany()) {
        r.kind = ZBRelationshipLayout::Kind::InverseForeignKey;
        r.column = ZBSQLQuote(inverse->name());
      } else {
        r.kind = ZBRelationshipLayout::Kind::JoinTable;
        bool owner = isOwnerSide(*relationship);
        const NSRelationshipDescription& ownerSide = owner ? *relationship : *inverse;
        r.joinTable = ZBSQLQuote(ownerSide.entity()->name() + "_" + ownerSide.name());
        r.writesJoinRows = owner;
        if (!inverse) {
          r.selfColumn = ZBSQLQuote(entity->name());
          r.otherColumn = ZBSQLQuote(r.destination->name() == entity->name() ? relationship->name()
                                                                             : r.destination->name());
        } else if (r.destination.get() != entity.get()) {
          r.selfColumn = ZBSQLQuote(entity->name());
          r.otherColumn = ZBSQLQuote(r.destination->name());
        } else {
          // Both sides are this entity: name the columns after the
          // relationships. A row (a, b) has b in a's relationship.
          r.selfColumn = ZBSQLQuote(inverse->name());
          r.otherColumn = ZBSQLQuote(relationship->name());
        }
      }
      layout.relationships.push_back(std::move(r));
    }
    _layouts.emplace(entity.get(), std::move(layout));
  }
  return true;
}

bool ZBSQLiteStore::_configure(const OpenOptions& options, NSErrorPtr* error) {
  double timeout = options.busyTimeoutSeconds;
  int ms = timeout <= 0 ? 0 : timeout > 2e6 ? 2000000000 : static_cast<int>(timeout * 1000);
  sqlite3_busy_timeout(_db->handle(), ms);
  ZBRegisterSQLFunctions(_db->handle());
  NSErrorPtr sqliteError;
  // A page cache big enough for a hundred thousand bookmarks (allocated as
  // used), so repeated counts and fetches do not go back to the file.
  if (!_db->exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL; PRAGMA cache_size=-32768;", &sqliteError)) {
    int rc = static_cast<int>(sqliteError->userInfo()[NSSQLiteErrorDomain].integerValue());
    if ((rc & 0xff) == SQLITE_NOTADB || (rc & 0xff) == SQLITE_CORRUPT) {
      return ZBSetError(error, storeError(NSFileReadCorruptFileError,
                                          "The file “" + _path.filename().string() +
                                              "” couldn’t be opened because it isn’t in the correct format.",
                                          sqliteError->localizedFailureReason().value_or("")));
    }
    return ZBSetError(error, sqliteError);
  }
  return true;
}

std::string ZBSQLiteStore::_createTableSQL(const ZBEntityLayout& layout) const {
  std::string sql = "CREATE TABLE IF NOT EXISTS " + layout.table +
                    " (\"Z_PK\" INTEGER PRIMARY KEY AUTOINCREMENT, \"Z_OPT\" INTEGER NOT NULL DEFAULT 1";
  auto& attributes = layout.entity->attributes();
  for (std::size_t i = 0; i < attributes.size(); ++i) {
    sql += ", " + layout.attributeColumns[i] + " " + sqlType(attributes[i]->attributeType()) +
           defaultClause(*attributes[i]);
  }
  for (auto& r : layout.relationships) {
    if (r.kind == ZBRelationshipLayout::Kind::ForeignKey) sql += ", " + r.column + " INTEGER";
  }
  sql += ");";
  for (auto& r : layout.relationships) {
    if (r.kind == ZBRelationshipLayout::Kind::JoinTable && r.writesJoinRows) {
      sql += "CREATE TABLE IF NOT EXISTS " + r.joinTable + " (" + r.selfColumn + " INTEGER NOT NULL, " +
             r.otherColumn + " INTEGER NOT NULL, PRIMARY KEY (" + r.selfColumn + ", " + r.otherColumn +
             ")) WITHOUT ROWID;";
    }
  }
  return sql;
}

std::vector<std::string> ZBSQLiteStore::_indexSQL() const {
  std::vector<std::string> statements;
  auto indexName = [](const std::string& table, const std::string& column) {
    return ZBSQLQuote("Z_" + table + "_" + column);
  };
  for (auto& entity : _entities) {
    auto& layout = _layouts.at(entity.get());
    for (auto& attribute : entity->attributes()) {
      if (!attribute->isIndexed()) continue;
      statements.push_back("CREATE INDEX IF NOT EXISTS " + indexName(entity->name(), attribute->name()) + " ON " +
                           layout.table + " (" + layout.attributeColumns[attribute->index()] + ")");
    }
    for (auto* indexes : {&entity->compoundIndexes(), &entity->coveringIndexes()}) {
      const bool covering = indexes == &entity->coveringIndexes();
      for (auto& names : *indexes) {
        std::string name = entity->name() + (covering ? "_covering" : "");
        std::string columns = covering ? "\"Z_OPT\"" : "";
        for (auto& attribute : names) {
          name += "_" + attribute;
          columns += (columns.empty() ? "" : ", ") + layout.attributeColumns[entity->attributeNamed(attribute)->index()];
        }
        statements.push_back("CREATE INDEX IF NOT EXISTS " + ZBSQLQuote("Z_" + name) + " ON " + layout.table + " (" +
                             columns + ")");
      }
    }
    for (auto& r : layout.relationships) {
      if (r.kind == ZBRelationshipLayout::Kind::ForeignKey) {
        statements.push_back("CREATE INDEX IF NOT EXISTS " + indexName(entity->name(), r.relationship->name()) +
                             " ON " + layout.table + " (" + r.column + ")");
      } else if (r.kind == ZBRelationshipLayout::Kind::JoinTable && r.writesJoinRows) {
        std::string joinName = r.joinTable.substr(1, r.joinTable.size() - 2);
        std::string other = r.otherColumn.substr(1, r.otherColumn.size() - 2);
        statements.push_back("CREATE INDEX IF NOT EXISTS " + indexName(joinName, other) + " ON " + r.joinTable +
                             " (" + r.otherColumn + ", " + r.selfColumn + ")");
      }
    }
  }
  return statements;
}

bool ZBSQLiteStore::_prepareSchema(const OpenOptions& options, NSErrorPtr* error) {
  auto readMetadata = [&](const std::string& key, std::string* value, NSErrorPtr* e) -> bool {
    auto statement = _db->prepare("SELECT \"Z_VALUE\" FROM \"Z_METADATA\" WHERE \"Z_KEY\" = ?", e);
    if (!statement) return false;
    statement->bindText(1, key);
    int rc = statement->step();
    if (rc == SQLITE_ROW) {
      *value = std::string(statement->text(0));
      return true;
    }
    if (rc == SQLITE_DONE) {
      value->clear();
      return true;
    }
    return ZBSetError(e, _db->errorWithCode(NSSQLiteError, rc, "reading store metadata"));
  };
  auto hasMetadataTable = [&](bool* exists, bool* otherTables, NSErrorPtr* e) -> bool {
    auto statement = _db->prepare(
        "SELECT COUNT(*), SUM(name = 'Z_METADATA') FROM sqlite_master WHERE type = 'table' AND name NOT LIKE "
        "'sqlite\\_%' ESCAPE '\\'",
        e);
    if (!statement) return false;
    if (statement->step() != SQLITE_ROW) return ZBSetError(e, _db->errorWithCode(NSSQLiteError, SQLITE_ERROR, "schema"));
    *exists = statement->int64(1) > 0;
    *otherTables = statement->int64(0) > (*exists ? 1 : 0);
    return true;
  };

  bool exists = false, otherTables = false;
  if (!hasMetadataTable(&exists, &otherTables, error)) return false;
  if (!exists) {
    if (otherTables) {
      return ZBSetError(error, storeError(NSPersistentStoreIncompatibleSchemaError,
                                          "The file “" + _path.filename().string() + "” is not an object store.",
                                          "The database holds tables of another program."));
    }
    ZBSQLiteTransaction transaction(*_db);
    if (!transaction.begin(NSPersistentStoreOpenError, error)) return false;
    // Another process may have created the store while we waited for the lock.
    if (!hasMetadataTable(&exists, &otherTables, error)) return false;
    if (!exists) {
      std::string sql = "CREATE TABLE \"Z_METADATA\" (\"Z_KEY\" TEXT PRIMARY KEY, \"Z_VALUE\");";
      for (auto& entity : _entities) sql += _createTableSQL(_layouts.at(entity.get()));
      if (!_db->exec(sql, error)) return false;
      auto insert = _db->prepare("INSERT INTO \"Z_METADATA\" (\"Z_KEY\", \"Z_VALUE\") VALUES (?, ?)", error);
      if (!insert) return false;
      std::string uuid = NSUUID().UUIDString();
      for (auto& [key, value] : std::vector<std::pair<std::string, std::string>>{
               {"NSStoreUUID", uuid}, {"NSStoreType", kStoreType}, {"ZBSchema", _fingerprint}}) {
        insert->bindText(1, key);
        insert->bindText(2, value);
        if (insert->step() != SQLITE_DONE) {
          return ZBSetError(error, _db->errorWithCode(NSPersistentStoreOpenError, SQLITE_ERROR, "writing metadata"));
        }
        insert->reset();
      }
    }
    if (!transaction.commit(NSPersistentStoreOpenError, error)) return false;
  }

  std::string type, storedFingerprint;
  if (!readMetadata("NSStoreType", &type, error) || !readMetadata("NSStoreUUID", &_identifier, error) ||
      !readMetadata("ZBSchema", &storedFingerprint, error)) {
    return false;
  }
  if (type != kStoreType || _identifier.empty()) {
    return ZBSetError(error, storeError(NSPersistentStoreInvalidTypeError,
                                        "The file “" + _path.filename().string() + "” is not an SQLite object store.",
                                        ""));
  }
  if (storedFingerprint != _fingerprint && !_migrate(storedFingerprint, options, error)) return false;
  for (auto& sql : _indexSQL()) {
    if (!_db->exec(sql, error)) return false;
  }
  return true;
}

bool ZBSQLiteStore::_migrate(const std::string& storedFingerprint, const OpenOptions& options, NSErrorPtr* error) {
  ParsedSchema stored = parseSchema(storedFingerprint);
  ParsedSchema current = parseSchema(_fingerprint);
  std::vector<std::string> ddl;
  std::string incompatible;
  auto note = [&](const std::string& reason) {
    if (incompatible.empty()) incompatible = reason;
  };

  for (auto& entity : _entities) {
    auto& layout = _layouts.at(entity.get());
    const std::string& e = entity->name();
    if (!stored.entities.count(e)) {
      ddl.push_back(_createTableSQL(layout));
      continue;
    }
    bool tableHasRows = false;
    bool rowsChecked = false;
    for (auto& attribute : entity->attributes()) {
      std::pair<std::string, std::string> key{e, attribute->name()};
      auto it = stored.attributes.find(key);
      if (it != stored.attributes.end()) {
        if (it->second != NSAttributeTypeName(attribute->attributeType())) {
          note("The attribute “" + e + "." + attribute->name() + "” changed its type from " + it->second + " to " +
               NSAttributeTypeName(attribute->attributeType()) + ".");
        }
        continue;
      }
      if (stored.relationships.count(key)) {
        note("“" + e + "." + attribute->name() + "” changed from a relationship to an attribute.");
        continue;
      }
      if (!attribute->isOptional() && !attribute->defaultValue() &&
          attribute->attributeType() != NSAttributeType::Boolean) {
        if (!rowsChecked) {
          auto statement = _db->prepare("SELECT EXISTS (SELECT 1 FROM " + layout.table + ")", error);
          if (!statement || statement->step() != SQLITE_ROW) return false;
          tableHasRows = statement->int64(0) != 0;
          rowsChecked = true;
        }
        if (tableHasRows) {
          note("The new required attribute “" + e + "." + attribute->name() + "” has no default value.");
          continue;
        }
      }
      ddl.push_back("ALTER TABLE " + layout.table + " ADD COLUMN " + layout.attributeColumns[attribute->index()] + " " +
                    sqlType(attribute->attributeType()) + defaultClause(*attribute));
    }
    for (auto& relationship : entity->relationships()) {
      std::pair<std::string, std::string> key{e, relationship->name()};
      auto it = stored.relationships.find(key);
      if (it != stored.relationships.end()) {
        if (!current.lines.count(it->second)) {
          note("The relationship “" + e + "." + relationship->name() + "” changed its destination or kind.");
        }
        continue;
      }
      if (stored.attributes.count(key)) {
        note("“" + e + "." + relationship->name() + "” changed from an attribute to a relationship.");
        continue;
      }
      auto& r = layout.relationships[relationship->index()];
      if (r.kind == ZBRelationshipLayout::Kind::ForeignKey) {
        ddl.push_back("ALTER TABLE " + layout.table + " ADD COLUMN " + r.column + " INTEGER");
      } else if (r.kind == ZBRelationshipLayout::Kind::JoinTable && r.writesJoinRows) {
        ddl.push_back("CREATE TABLE IF NOT EXISTS " + r.joinTable + " (" + r.selfColumn + " INTEGER NOT NULL, " +
                      r.otherColumn + " INTEGER NOT NULL, PRIMARY KEY (" + r.selfColumn + ", " + r.otherColumn +
                      ")) WITHOUT ROWID");
      }
    }
  }

  // What the store keeps: the current model, plus the remains of removed
  // properties and entities (their data stays; a later model that brings
  // them back with another shape is told apart).
  std::set<std::string> kept = current.lines;
  for (auto& line : stored.lines) {
    std::istringstream fields(line);
    std::string kind, entity, name;
    fields >> kind >> entity >> name;
    bool shadowed = kind == "E" ? current.entities.count(entity) != 0
                                : current.attributes.count({entity, name}) || current.relationships.count({entity, name});
    if (!shadowed) kept.insert(line);
  }
  std::string keptText;
  for (auto& line : kept) keptText += line + "\n";

  const std::string description = "The model used to open the store is incompatible with the one used to create the store.";
  if (!incompatible.empty()) {
    return ZBSetError(error, storeError(options.migrate ? NSInferredMappingModelError
                                                        : NSPersistentStoreIncompatibleVersionHashError,
                                        description, incompatible));
  }
  if (ddl.empty() && keptText == storedFingerprint) return true;
  if (!ddl.empty() && !(options.migrate && options.inferMapping)) {
    return ZBSetError(error, storeError(options.migrate ? NSMigrationMissingMappingModelError
                                                        : NSPersistentStoreIncompatibleVersionHashError,
                                        description, "The store needs a migration to open with this model."));
  }
  ZBSQLiteTransaction transaction(*_db);
  if (!transaction.begin(NSMigrationError, error)) return false;
  for (auto& sql : ddl) {
    if (!_db->exec(sql, error)) return false;
  }
  auto update = _db->prepare("UPDATE \"Z_METADATA\" SET \"Z_VALUE\" = ? WHERE \"Z_KEY\" = 'ZBSchema'", error);
  if (!update) return false;
  update->bindText(1, keptText);
  if (update->step() != SQLITE_DONE) {
    return ZBSetError(error, _db->errorWithCode(NSMigrationError, SQLITE_ERROR, "writing metadata"));
  }
  if (!transaction.commit(NSMigrationError, error)) return false;
  _db->clearStatementCache();
  return true;
}

Value ZBSQLiteStore::readColumn(const ZBSQLiteStatement& statement, int column, const NSAttributeDescription& attribute) {
  if (statement.isNull(column)) {
    // Flags never set read as NO.
    return attribute.attributeType() == NSAttributeType::Boolean ? Value(false) : Value();
  }
  switch (attribute.attributeType()) {
    case NSAttributeType::Integer16:
    case NSAttributeType::Integer32:
    case NSAttributeType::Integer64: return Value(statement.int64(column));
    case NSAttributeType::Boolean: return Value(statement.int64(column) != 0);
    case NSAttributeType::Double: return Value(statement.doubleValue(column));
    case NSAttributeType::Date: return Value(NSDate(statement.doubleValue(column)));
    case NSAttributeType::String: return Value(statement.text(column));
    case NSAttributeType::Binary: return Value(statement.blob(column));
    case NSAttributeType::Transformable: return ZBDecodeTransformableValue(statement.blob(column));
  }
  return Value();
}

bool ZBSQLiteStore::_readRow(ZBSQLiteStatement& statement, const ZBEntityLayout& layout, ZBRowSnapshot* row) {
  auto& entity = layout.entity;
  std::int64_t pk = statement.int64(0);
  row->objectID = _makeID(entity, pk);
  row->version = statement.int64(1);
  auto& attributes = entity->attributes();
  row->attributes.resize(attributes.size());
  int column = 2;
  for (std::size_t i = 0; i < attributes.size(); ++i) row->attributes[i] = readColumn(statement, column++, *attributes[i]);
  row->toOne.assign(entity->relationships().size(), nullptr);
  for (auto index : layout.toOneRelationships) {
    if (!statement.isNull(column)) {
      row->toOne[index] = _makeID(layout.relationships[index].destination, statement.int64(column));
    }
    ++column;
  }
  return true;
}

namespace {
std::string selectSQL(const ZBEntityLayout& layout, const std::string& columns, const ZBStoreQuery& query) {
  std::string sql = "SELECT " + columns + " FROM " + layout.table + " t0";
  if (!query.where.empty()) sql += " WHERE " + query.where;
  if (!query.orderBy.empty()) sql += " ORDER BY " + query.orderBy;
  if (query.limit > 0) sql += " LIMIT " + std::to_string(query.limit);
  return sql;
}

bool bindParameters(ZBSQLiteStatement& statement, const std::vector<Value>& parameters) {
  int index = 1;
  for (auto& value : parameters) statement.bindValue(index++, value);
  return true;
}
}  // namespace

bool ZBSQLiteStore::fetchRows(const ZBStoreQuery& query, std::vector<ZBRowSnapshot>* rows, NSErrorPtr* error) {
  auto* entityLayout = layout(query.entity);
  if (!entityLayout) return ZBSetError(error, storeError(NSCoreDataError, "The entity is not in this store.", ""));
  ZBStatementScope statement(_db->cachedStatement(selectSQL(*entityLayout, entityLayout->selectList, query), error));
  if (!statement) return false;
  bindParameters(*statement.operator->(), query.parameters);
  int rc;
  while ((rc = statement->step()) == SQLITE_ROW) {
    rows->emplace_back();
    _readRow(*statement.operator->(), *entityLayout, &rows->back());
  }
  if (rc != SQLITE_DONE) return ZBSetError(error, _db->errorWithCode(NSSQLiteError, rc, "fetch"));
  return true;
}

bool ZBSQLiteStore::fetchPrimaryKeys(const ZBStoreQuery& query, std::vector<std::int64_t>* keys, NSErrorPtr* error) {
  auto* entityLayout = layout(query.entity);
  if (!entityLayout) return ZBSetError(error, storeError(NSCoreDataError, "The entity is not in this store.", ""));
  ZBStatementScope statement(_db->cachedStatement(selectSQL(*entityLayout, "t0.\"Z_PK\"", query), error));
  if (!statement) return false;
  bindParameters(*statement.operator->(), query.parameters);
  int rc;
  while ((rc = statement->step()) == SQLITE_ROW) keys->push_back(statement->int64(0));
  if (rc != SQLITE_DONE) return ZBSetError(error, _db->errorWithCode(NSSQLiteError, rc, "fetch"));
  return true;
}

bool ZBSQLiteStore::fetchProperties(const ZBStoreQuery& query,
                                    const std::vector<const NSPropertyDescription*>& properties,
                                    std::vector<std::int64_t>* keys, std::vector<Value>* values, NSErrorPtr* error) {
  auto* entityLayout = layout(query.entity);
  if (!entityLayout) return ZBSetError(error, storeError(NSCoreDataError, "The entity is not in this store.", ""));
  std::string columns = "t0.\"Z_PK\"";
  for (auto* property : properties) {
    if (!property->isRelationship()) {
      columns += ", t0." + entityLayout->attributeColumns[property->index()];
      continue;
    }
    auto& r = entityLayout->relationships[property->index()];
    if (r.kind == ZBRelationshipLayout::Kind::ForeignKey) {
      columns += ", t0." + r.column;
    } else if (r.kind == ZBRelationshipLayout::Kind::InverseForeignKey && !r.relationship->isToMany()) {
      columns += ", (SELECT x.\"Z_PK\" FROM " + r.destinationTable + " x WHERE x." + r.column +
                 " = t0.\"Z_PK\" LIMIT 1)";
    } else {
      return ZBSetError(error, storeError(NSCoreDataError,
                                          "A to-many relationship cannot be fetched as a property.", r.relationship->name()));
    }
  }
  ZBStatementScope statement(_db->cachedStatement(selectSQL(*entityLayout, columns, query), error));
  if (!statement) return false;
  bindParameters(*statement.operator->(), query.parameters);
  int rc;
  while ((rc = statement->step()) == SQLITE_ROW) {
    keys->push_back(statement->int64(0));
    int column = 1;
    for (auto* property : properties) {
      if (!property->isRelationship()) {
        values->push_back(readColumn(*statement.operator->(), column, static_cast<const NSAttributeDescription&>(*property)));
      } else if (statement->isNull(column)) {
        values->emplace_back();
      } else {
        values->emplace_back(_makeID(entityLayout->relationships[property->index()].destination, statement->int64(column)));
      }
      ++column;
    }
  }
  if (rc != SQLITE_DONE) return ZBSetError(error, _db->errorWithCode(NSSQLiteError, rc, "fetch"));
  return true;
}

std::optional<std::int64_t> ZBSQLiteStore::count(const ZBStoreQuery& query, NSErrorPtr* error, bool remember) {
  auto* entityLayout = layout(query.entity);
  if (!entityLayout) {
    ZBSetError(error, storeError(NSCoreDataError, "The entity is not in this store.", ""));
    return std::nullopt;
  }
  if (remember && query.limit <= 0) return _counts->count(*entityLayout, query, error);
  ZBStoreQuery plain = query;
  plain.orderBy.clear();
  std::string sql = selectSQL(*entityLayout, "COUNT(*)", plain);
  if (query.limit > 0) sql = "SELECT COUNT(*) FROM (" + selectSQL(*entityLayout, "1", plain) + ")";
  ZBStatementScope statement(_db->cachedStatement(sql, error));
  if (!statement) return std::nullopt;
  bindParameters(*statement.operator->(), query.parameters);
  int rc = statement->step();
  if (rc != SQLITE_ROW) {
    ZBSetError(error, _db->errorWithCode(NSSQLiteError, rc, "count"));
    return std::nullopt;
  }
  return statement->int64(0);
}

bool ZBSQLiteStore::rowForPrimaryKey(const NSEntityDescription* entity, std::int64_t pk, ZBRowSnapshot* row,
                                     bool* found, NSErrorPtr* error) {
  auto* entityLayout = layout(entity);
  if (!entityLayout) return ZBSetError(error, storeError(NSCoreDataError, "The entity is not in this store.", ""));
  ZBStatementScope statement(_db->cachedStatement(
      "SELECT " + entityLayout->selectList + " FROM " + entityLayout->table + " t0 WHERE t0.\"Z_PK\" = ?", error));
  if (!statement) return false;
  statement->bindInt64(1, pk);
  int rc = statement->step();
  if (rc == SQLITE_DONE) {
    *found = false;
    return true;
  }
  if (rc != SQLITE_ROW) return ZBSetError(error, _db->errorWithCode(NSSQLiteError, rc, "fetch"));
  *found = true;
  return _readRow(*statement.operator->(), *entityLayout, row);
}

bool ZBSQLiteStore::relatedPrimaryKeys(const NSEntityDescription* entity, std::int64_t pk, std::size_t relationship,
                                       std::vector<std::int64_t>* keys, NSErrorPtr* error) {
  auto* entityLayout = layout(entity);
  if (!entityLayout) return ZBSetError(error, storeError(NSCoreDataError, "The entity is not in this store.", ""));
  auto& r = entityLayout->relationships.at(relationship);
  std::string sql;
  switch (r.kind) {
    case ZBRelationshipLayout::Kind::ForeignKey:
      sql = "SELECT " + r.column + " FROM " + entityLayout->table + " WHERE \"Z_PK\" = ? AND " + r.column + " IS NOT NULL";
      break;
    case ZBRelationshipLayout::Kind::InverseForeignKey:
      sql = "SELECT \"Z_PK\" FROM " + r.destinationTable + " WHERE " + r.column + " = ?";
      break;
    case ZBRelationshipLayout::Kind::JoinTable:
      sql = "SELECT " + r.otherColumn + " FROM " + r.joinTable + " WHERE " + r.selfColumn + " = ?";
      break;
  }
  ZBStatementScope statement(_db->cachedStatement(sql, error));
  if (!statement) return false;
  statement->bindInt64(1, pk);
  int rc;
  while ((rc = statement->step()) == SQLITE_ROW) keys->push_back(statement->int64(0));
  if (rc != SQLITE_DONE) return ZBSetError(error, _db->errorWithCode(NSSQLiteError, rc, "fetch"));
  return true;
}

bool ZBSQLiteStore::_bindAttribute(ZBSQLiteStatement& statement, int index, const NSAttributeDescription& attribute,
                                   const Value& value, std::vector<Data>& keepAlive, NSErrorPtr* error) {
  if (attribute.attributeType() != NSAttributeType::Transformable || value.isAbsent() || value.isNull()) {
    statement.bindValue(index, value);
    return true;
  }
  auto data = ZBEncodeTransformableValue(value);
  if (!data) {
    return ZBSetError(error, storeError(NSPersistentStoreSaveError,
                                        "The value of “" + attribute.name() + "” cannot be archived.",
                                        value.description()));
  }
  keepAlive.push_back(std::move(*data));
  statement.bindBlob(index, keepAlive.back().data(), keepAlive.back().size());
  return true;
}

bool ZBSQLiteStore::save(const std::vector<ZBObjectChange>& changes, std::vector<std::int64_t>* assigned,
                         std::vector<ZBSaveConflict>* conflicts, NSErrorPtr* error) {
  ZBSQLiteTransaction transaction(*_db);
  if (!transaction.begin(NSPersistentStoreSaveError, error)) return false;
  ZBCountMemo::SaveUpdate counts;
  if (!_counts->willWrite(changes, &counts, error)) return false;
  std::unordered_map<const NSManagedObjectID*, std::int64_t> newKeys;
  newKeys.reserve(changes.size());
  auto keyOf = [&](const NSManagedObjectIDPtr& objectID) -> std::int64_t {
    if (!objectID) return 0;
    if (auto pk = objectID->primaryKey()) return pk;
    auto it = newKeys.find(objectID.get());
    return it == newKeys.end() ? -1 : it->second;
  };
  auto fail = [&](int rc, const std::string& what) {
    return ZBSetError(error, _db->errorWithCode(NSPersistentStoreSaveError, rc, what));
  };
  auto danglingReference = [&](const ZBObjectChange& change, const NSRelationshipDescription& relationship) {
    return ZBSetError(error, storeError(NSPersistentStoreSaveError,
                                        "“" + change.objectID->entity()->name() + "." + relationship.name() +
                                            "” refers to an object that is not saved in this store.",
                                        ""));
  };
  std::vector<Data> keepAlive;
  struct DeferredKey {
    const ZBEntityLayout* layout;
    std::size_t relationship;
    std::int64_t pk;
    const ZBObjectChange* change;
    NSManagedObjectIDPtr target;
  };
  std::vector<DeferredKey> deferred;

  // Inserts first, so that every other write can refer to the new keys.
  std::vector<Value> values;
  for (auto& change : changes) {
    if (change.kind != ZBObjectChange::Kind::Insert) continue;
    auto* entityLayout = layout(change.objectID->entity().get());
    if (!entityLayout) return ZBSetError(error, storeError(NSPersistentStoreSaveError, "The entity is not in this store.", ""));
    auto& entity = *entityLayout->entity;
    std::string sql = "INSERT INTO " + entityLayout->table + " (\"Z_OPT\"";
    std::string placeholders = "1";
    for (auto& column : entityLayout->attributeColumns) {
      sql += ", " + column;
      placeholders += ", ?";
    }
    for (auto& r : entityLayout->relationships) {
      if (r.kind != ZBRelationshipLayout::Kind::ForeignKey) continue;
      sql += ", " + r.column;
      placeholders += ", ?";
    }
    sql += ") VALUES (" + placeholders + ")";
    ZBStatementScope statement(_db->cachedStatement(sql, error));
    if (!statement) return false;
    const std::vector<Value>* source = change.insertedValues;
    if (!source) {
      values.assign(entity.attributes().size(), Value());
      for (auto& [index, value] : change.attributes) values[index] = value;
      source = &values;
    }
    keepAlive.clear();
    int parameter = 1;
    static const Value absent;
    for (std::size_t i = 0; i < entity.attributes().size(); ++i) {
      const Value& value = i < source->size() ? (*source)[i] : absent;
      if (!_bindAttribute(*statement.operator->(), parameter++, *entity.attributes()[i], value, keepAlive, error)) {
        return false;
      }
    }
    std::vector<std::pair<std::size_t, NSManagedObjectIDPtr>> laterKeys;
    for (auto& r : entityLayout->relationships) {
      if (r.kind != ZBRelationshipLayout::Kind::ForeignKey) continue;
      NSManagedObjectIDPtr target;
      for (auto& [index, id] : change.toOne) {
        if (index == r.relationship->index()) target = id;
      }
      std::int64_t key = keyOf(target);
      if (key > 0) {
        statement->bindInt64(parameter, key);
      } else if (key < 0) {
        laterKeys.emplace_back(r.relationship->index(), target);
      }
      ++parameter;
    }
    int rc = statement->step();
    if (rc != SQLITE_DONE) return fail(rc, "insert into " + entity.name());
    std::int64_t pk = _db->lastInsertRowID();
    newKeys.emplace(change.objectID.get(), pk);
    if (assigned) assigned->push_back(pk);
    for (auto& [index, target] : laterKeys) deferred.push_back({entityLayout, index, pk, &change, target});
  }
  for (auto& item : deferred) {
    std::int64_t key = keyOf(item.target);
    if (key < 0) return danglingReference(*item.change, *item.layout->relationships[item.relationship].relationship);
    ZBStatementScope statement(_db->cachedStatement("UPDATE " + item.layout->table + " SET " +
                                                        item.layout->relationships[item.relationship].column +
                                                        " = ? WHERE \"Z_PK\" = ?",
                                                    error));
    if (!statement) return false;
    statement->bindInt64(1, key);
    statement->bindInt64(2, item.pk);
    int rc = statement->step();
    if (rc != SQLITE_DONE) return fail(rc, "update of a relationship");
  }

  auto recordConflict = [&](const ZBEntityLayout& entityLayout, const ZBObjectChange& change) -> bool {
    ZBStatementScope statement(
        _db->cachedStatement("SELECT \"Z_OPT\" FROM " + entityLayout.table + " WHERE \"Z_PK\" = ?", error));
    if (!statement) return false;
    statement->bindInt64(1, change.objectID->primaryKey());
    int rc = statement->step();
    std::int64_t stored = rc == SQLITE_ROW ? statement->int64(0) : 0;
    if (rc != SQLITE_ROW && rc != SQLITE_DONE) return fail(rc, "version check");
    if (conflicts) conflicts->push_back({change.objectID, change.version, stored});
    return true;
  };

  std::size_t conflictCount = 0;
  for (auto& change : changes) {
    if (change.kind != ZBObjectChange::Kind::Update) continue;
    auto* entityLayout = layout(change.objectID->entity().get());
    if (!entityLayout || change.objectID->isTemporaryID()) {
      return ZBSetError(error, storeError(NSPersistentStoreSaveError, "An updated object is not in this store.", ""));
    }
    auto& entity = *entityLayout->entity;
    std::string sql = "UPDATE " + entityLayout->table + " SET \"Z_OPT\" = \"Z_OPT\" + 1";
    for (auto& [index, value] : change.attributes) sql += ", " + entityLayout->attributeColumns[index] + " = ?";
    for (auto& [index, target] : change.toOne) {
      auto& r = entityLayout->relationships[index];
      if (r.kind == ZBRelationshipLayout::Kind::ForeignKey) sql += ", " + r.column + " = ?";
    }
    sql += " WHERE \"Z_PK\" = ? AND \"Z_OPT\" = ?";
    ZBStatementScope statement(_db->cachedStatement(sql, error));
    if (!statement) return false;
    keepAlive.clear();
    int parameter = 1;
    for (auto& [index, value] : change.attributes) {
      if (!_bindAttribute(*statement.operator->(), parameter++, *entity.attributes()[index], value, keepAlive, error)) {
        return false;
      }
    }
    for (auto& [index, target] : change.toOne) {
      auto& r = entityLayout->relationships[index];
      if (r.kind != ZBRelationshipLayout::Kind::ForeignKey) continue;
      std::int64_t key = keyOf(target);
      if (key < 0) return danglingReference(change, *r.relationship);
      if (key > 0) statement->bindInt64(parameter, key);
      ++parameter;
    }
    statement->bindInt64(parameter++, change.objectID->primaryKey());
    statement->bindInt64(parameter++, change.version);
    int rc = statement->step();
    if (rc != SQLITE_DONE) return fail(rc, "update of " + entity.name());
    if (_db->changes() == 0) {
      ++conflictCount;
      if (!recordConflict(*entityLayout, change)) return false;
    }
  }

  // Join rows, written by one side of each pair of inverse relationships.
  for (auto& change : changes) {
    if (change.kind == ZBObjectChange::Kind::Delete || change.toMany.empty()) continue;
    auto* entityLayout = layout(change.objectID->entity().get());
    std::int64_t self = keyOf(change.objectID);
    for (auto& delta : change.toMany) {
      auto& r = entityLayout->relationships[delta.relationship];
      if (r.kind != ZBRelationshipLayout::Kind::JoinTable || !r.writesJoinRows) continue;
      if (!delta.added.empty()) {
        ZBStatementScope insert(_db->cachedStatement("INSERT OR IGNORE INTO " + r.joinTable + " (" + r.selfColumn +
                                                         ", " + r.otherColumn + ") VALUES (?, ?)",
                                                     error));
        if (!insert) return false;
        for (auto& other : delta.added) {
          std::int64_t key = keyOf(other);
          if (key <= 0) return danglingReference(change, *r.relationship);
          insert->bindInt64(1, self);
          insert->bindInt64(2, key);
          int rc = insert->step();
          insert->reset();
          if (rc != SQLITE_DONE) return fail(rc, "insert into " + r.joinTable);
        }
      }
      if (!delta.removed.empty()) {
        ZBStatementScope remove(_db->cachedStatement(
            "DELETE FROM " + r.joinTable + " WHERE " + r.selfColumn + " = ? AND " + r.otherColumn + " = ?", error));
        if (!remove) return false;
        for (auto& other : delta.removed) {
          std::int64_t key = keyOf(other);
          if (key <= 0) continue;  // never stored, so never joined
          remove->bindInt64(1, self);
          remove->bindInt64(2, key);
          int rc = remove->step();
          remove->reset();
          if (rc != SQLITE_DONE) return fail(rc, "delete from " + r.joinTable);
        }
      }
    }
  }

  for (auto& change : changes) {
    if (change.kind != ZBObjectChange::Kind::Delete) continue;
    auto* entityLayout = layout(change.objectID->entity().get());
    std::int64_t pk = change.objectID->primaryKey();
    if (!entityLayout || pk == 0) continue;  // never stored
    {
      ZBStatementScope statement(_db->cachedStatement(
          "DELETE FROM " + entityLayout->table + " WHERE \"Z_PK\" = ? AND \"Z_OPT\" = ?", error));
      if (!statement) return false;
      statement->bindInt64(1, pk);
      statement->bindInt64(2, change.version);
      int rc = statement->step();
      if (rc != SQLITE_DONE) return fail(rc, "delete from " + entityLayout->entity->name());
      if (_db->changes() == 0) {
        ++conflictCount;
        if (!recordConflict(*entityLayout, change)) return false;
        continue;
      }
    }
    // No row may keep pointing at the deleted one.
    for (auto& r : entityLayout->relationships) {
      std::string sql;
      if (r.kind == ZBRelationshipLayout::Kind::JoinTable) {
        sql = "DELETE FROM " + r.joinTable + " WHERE " + r.selfColumn + " = ?";
      } else if (r.kind == ZBRelationshipLayout::Kind::InverseForeignKey) {
        sql = "UPDATE " + r.destinationTable + " SET " + r.column + " = NULL WHERE " + r.column + " = ?";
      } else {
        continue;
      }
      ZBStatementScope statement(_db->cachedStatement(sql, error));
      if (!statement) return false;
      statement->bindInt64(1, pk);
      int rc = statement->step();
      if (rc != SQLITE_DONE) return fail(rc, "clean-up after delete");
    }
  }

  if (conflictCount > 0) return false;
  if (!_counts->didWrite(counts, keyOf, error)) return false;
  if (!transaction.commit(NSPersistentStoreSaveError, error)) return false;
  _counts->didCommit(counts);
  return true;
}
