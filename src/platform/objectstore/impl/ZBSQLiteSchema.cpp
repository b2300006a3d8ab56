#include "platform/objectstore/impl/ZBSQLiteSchema.h"

#include <cstdio>
#include <map>
#include <set>
#include <sstream>
#include <utility>

#include "platform/foundation/NSUUID.h"

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

// The column definition of an attribute, as in CREATE TABLE and ADD COLUMN.
std::string attributeColumnSQL(const ZBEntityLayout& layout, const NSAttributeDescription& attribute) {
  return layout.attributeColumns[attribute.index()] + " " + sqlType(attribute.attributeType()) +
         defaultClause(attribute);
}

std::string joinTableSQL(const ZBRelationshipLayout& r) {
  return "CREATE TABLE IF NOT EXISTS " + r.joinTable + " (" + r.selfColumn + " INTEGER NOT NULL, " + r.otherColumn +
         " INTEGER NOT NULL, PRIMARY KEY (" + r.selfColumn + ", " + r.otherColumn + ")) WITHOUT ROWID";
}

// The entity's table and the join tables it writes, as one script.
std::string createTableSQL(const ZBEntityLayout& layout) {
  std::string sql = "CREATE TABLE IF NOT EXISTS " + layout.table +
                    " (\"Z_PK\" INTEGER PRIMARY KEY AUTOINCREMENT, \"Z_OPT\" INTEGER NOT NULL DEFAULT 1";
  for (auto& attribute : layout.entity->attributes()) sql += ", " + attributeColumnSQL(layout, *attribute);
  for (auto& r : layout.relationships) {
    if (r.kind == ZBRelationshipLayout::Kind::ForeignKey) sql += ", " + r.column + " INTEGER";
  }
  sql += ");";
  for (auto& r : layout.relationships) {
    if (r.kind == ZBRelationshipLayout::Kind::JoinTable && r.writesJoinRows) sql += joinTableSQL(r) + ";";
  }
  return sql;
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

// Where a relationship of entity is stored: its kind, table and columns.
ZBRelationshipLayout relationshipLayout(const NSEntityDescription& entity,
                                        const std::shared_ptr<NSRelationshipDescription>& relationship) {
  ZBRelationshipLayout r;
  r.relationship = relationship.get();
  r.destination = relationship->destinationEntity();
  r.destinationTable = ZBSQLQuote(r.destination->name());
  auto inverse = relationship->inverseRelationship();
  if (!relationship->isToMany()) {
    if (inverse && !inverse->isToMany() && !isOwnerSide(*relationship)) {
      r.kind = ZBRelationshipLayout::Kind::InverseForeignKey;
      r.column = ZBSQLQuote(inverse->name());
    } else {
      r.kind = ZBRelationshipLayout::Kind::ForeignKey;
      r.column = ZBSQLQuote(relationship->name());
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
      r.selfColumn = ZBSQLQuote(entity.name());
      r.otherColumn = ZBSQLQuote(r.destination->name() == entity.name() ? relationship->name() : r.destination->name());
    } else if (r.destination.get() != &entity) {
      r.selfColumn = ZBSQLQuote(entity.name());
      r.otherColumn = ZBSQLQuote(r.destination->name());
    } else {
      // Both sides are this entity: name the columns after the
      // relationships. A row (a, b) has b in a's relationship.
      r.selfColumn = ZBSQLQuote(inverse->name());
      r.otherColumn = ZBSQLQuote(relationship->name());
    }
  }
  return r;
}

// Whether Z_METADATA exists, and whether any other table does.
bool findMetadataTable(ZBSQLiteDatabase& db, bool* exists, bool* otherTables, NSErrorPtr* error) {
  auto statement = db.prepare(
      "SELECT COUNT(*), SUM(name = 'Z_METADATA') FROM sqlite_master WHERE type = 'table' AND name NOT LIKE "
      "'sqlite\\_%' ESCAPE '\\'",
      error);
  if (!statement) return false;
  if (statement->step() != SQLITE_ROW) return ZBSetError(error, db.errorWithCode(NSSQLiteError, SQLITE_ERROR, "schema"));
  *exists = statement->int64(1) > 0;
  *otherTables = statement->int64(0) > (*exists ? 1 : 0);
  return true;
}

// The value stored under key; empty when there is none.
bool readMetadata(ZBSQLiteDatabase& db, const std::string& key, std::string* value, NSErrorPtr* error) {
  auto statement = db.prepare("SELECT \"Z_VALUE\" FROM \"Z_METADATA\" WHERE \"Z_KEY\" = ?", error);
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
  return ZBSetError(error, db.errorWithCode(NSSQLiteError, rc, "reading store metadata"));
}

// A model fingerprint read back: one line per entity ("E"), attribute ("A",
// with its type) and relationship ("R").
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

// What the store keeps: the current model, plus the remains of removed
// properties and entities (their data stays; a later model that brings
// them back with another shape is told apart).
std::string keptFingerprint(const ParsedSchema& stored, const ParsedSchema& current) {
  std::set<std::string> kept = current.lines;
  for (auto& line : stored.lines) {
    std::istringstream fields(line);
    std::string kind, entity, name;
    fields >> kind >> entity >> name;
    bool shadowed = kind == "E" ? current.entities.count(entity) != 0
                                : current.attributes.count({entity, name}) || current.relationships.count({entity, name});
    if (!shadowed) kept.insert(line);
  }
  std::string text;
  for (auto& line : kept) text += line + "\n";
  return text;
}

// The statements that bring the stored schema to the model, and the first
// reason (if any) why no statement can.
struct MigrationPlan {
  std::vector<std::string> ddl;
  std::string incompatible;
  void note(const std::string& reason) {
    if (incompatible.empty()) incompatible = reason;
  }
};

bool planEntityMigration(ZBSQLiteDatabase& db, const ZBEntityLayout& layout, const ParsedSchema& stored,
                         const ParsedSchema& current, MigrationPlan* plan, NSErrorPtr* error) {
  auto& entity = *layout.entity;
  const std::string& e = entity.name();
  if (!stored.entities.count(e)) {
    plan->ddl.push_back(createTableSQL(layout));
    return true;
  }
  bool tableHasRows = false;
  bool rowsChecked = false;
  for (auto& attribute : entity.attributes()) {
    std::pair<std::string, std::string> key{e, attribute->name()};
    auto it = stored.attributes.find(key);
    if (it != stored.attributes.end()) {
      if (it->second != NSAttributeTypeName(attribute->attributeType())) {
        plan->note("The attribute “" + e + "." + attribute->name() + "” changed its type from " + it->second + " to " +
                   NSAttributeTypeName(attribute->attributeType()) + ".");
      }
      continue;
    }
    if (stored.relationships.count(key)) {
      plan->note("“" + e + "." + attribute->name() + "” changed from a relationship to an attribute.");
      continue;
    }
    if (!attribute->isOptional() && !attribute->defaultValue() &&
        attribute->attributeType() != NSAttributeType::Boolean) {
      if (!rowsChecked) {
        auto statement = db.prepare("SELECT EXISTS (SELECT 1 FROM " + layout.table + ")", error);
        if (!statement || statement->step() != SQLITE_ROW) return false;
        tableHasRows = statement->int64(0) != 0;
        rowsChecked = true;
      }
      if (tableHasRows) {
        plan->note("The new required attribute “" + e + "." + attribute->name() + "” has no default value.");
        continue;
      }
    }
    plan->ddl.push_back("ALTER TABLE " + layout.table + " ADD COLUMN " + attributeColumnSQL(layout, *attribute));
  }
  for (auto& relationship : entity.relationships()) {
    std::pair<std::string, std::string> key{e, relationship->name()};
    auto it = stored.relationships.find(key);
    if (it != stored.relationships.end()) {
      if (!current.lines.count(it->second)) {
        plan->note("The relationship “" + e + "." + relationship->name() + "” changed its destination or kind.");
      }
      continue;
    }
    if (stored.attributes.count(key)) {
      plan->note("“" + e + "." + relationship->name() + "” changed from an attribute to a relationship.");
      continue;
    }
    auto& r = layout.relationships[relationship->index()];
    if (r.kind == ZBRelationshipLayout::Kind::ForeignKey) {
      plan->ddl.push_back("ALTER TABLE " + layout.table + " ADD COLUMN " + r.column + " INTEGER");
    } else if (r.kind == ZBRelationshipLayout::Kind::JoinTable && r.writesJoinRows) {
      plan->ddl.push_back(joinTableSQL(r));
    }
  }
  return true;
}

// Runs the statements and records the new fingerprint, in one transaction.
bool applyMigration(ZBSQLiteDatabase& db, const std::vector<std::string>& ddl, const std::string& fingerprint,
                    NSErrorPtr* error) {
  ZBSQLiteTransaction transaction(db);
  if (!transaction.begin(NSMigrationError, error)) return false;
  for (auto& sql : ddl) {
    if (!db.exec(sql, error)) return false;
  }
  auto update = db.prepare("UPDATE \"Z_METADATA\" SET \"Z_VALUE\" = ? WHERE \"Z_KEY\" = 'ZBSchema'", error);
  if (!update) return false;
  update->bindText(1, fingerprint);
  if (update->step() != SQLITE_DONE) {
    return ZBSetError(error, db.errorWithCode(NSMigrationError, SQLITE_ERROR, "writing metadata"));
  }
  if (!transaction.commit(NSMigrationError, error)) return false;
  db.clearStatementCache();
  return true;
}

}  // namespace

std::string ZBToOneKeySQL(const ZBRelationshipLayout& r) {
  if (r.kind == ZBRelationshipLayout::Kind::ForeignKey) return "t0." + r.column;
  return "(SELECT x.\"Z_PK\" FROM " + r.destinationTable + " x WHERE x." + r.column + " = t0.\"Z_PK\" LIMIT 1)";
}

std::optional<ZBSQLiteSchema> ZBSQLiteSchema::make(const NSManagedObjectModel& model, const std::string& configuration,
                                                   NSErrorPtr* error) {
  ZBSQLiteSchema schema;
  schema._entities = model.entitiesForConfiguration(configuration);
  schema._fingerprint = model.schemaFingerprint(configuration);
  if (!configuration.empty() && schema._entities.empty()) {
    ZBSetError(error, ZBStoreError(NSPersistentStoreOperationError,
                                   "The configuration “" + configuration + "” has no entities.", ""));
    return std::nullopt;
  }
  if (!schema._buildLayouts(error)) return std::nullopt;
  return schema;
}

const ZBEntityLayout* ZBSQLiteSchema::layout(const NSEntityDescription* entity) const {
  auto it = _layouts.find(entity);
  return it == _layouts.end() ? nullptr : &it->second;
}

bool ZBSQLiteSchema::_buildLayouts(NSErrorPtr* error) {
  std::set<const NSEntityDescription*> held;
  for (auto& entity : _entities) held.insert(entity.get());
  for (auto& entity : _entities) {
    ZBEntityLayout layout;
    layout.entity = entity;
    layout.table = ZBSQLQuote(entity->name());
    layout.selectList = "t0.\"Z_PK\", t0.\"Z_OPT\"";
    for (auto& attribute : entity->attributes()) {
      if (attribute->name() == "Z_PK" || attribute->name() == "Z_OPT") {
        return ZBSetError(error, ZBStoreError(NSPersistentStoreOperationError,
                                              "The attribute name “" + attribute->name() + "” is reserved.", ""));
      }
      layout.attributeColumns.push_back(ZBSQLQuote(attribute->name()));
      layout.selectList += ", t0." + layout.attributeColumns.back();
    }
    for (auto& relationship : entity->relationships()) {
      if (!held.count(relationship->destinationEntity().get())) {
        return ZBSetError(error, ZBStoreError(NSPersistentStoreOperationError,
                                              "The relationship “" + entity->name() + "." + relationship->name() +
                                                  "” leads out of its store.",
                                              "Relationships must stay within one configuration."));
      }
      ZBRelationshipLayout r = relationshipLayout(*entity, relationship);
      if (!relationship->isToMany()) {
        layout.toOneRelationships.push_back(relationship->index());
        layout.selectList += ", " + ZBToOneKeySQL(r);
      }
      layout.relationships.push_back(std::move(r));
    }
    _layouts.emplace(entity.get(), std::move(layout));
  }
  return true;
}

std::vector<std::string> ZBSQLiteSchema::_indexSQL() const {
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

bool ZBSQLiteSchema::prepare(ZBSQLiteDatabase& db, const std::filesystem::path& path, const MigrationOptions& options,
                             std::string* identifier, NSErrorPtr* error) const {
  bool exists = false, otherTables = false;
  if (!findMetadataTable(db, &exists, &otherTables, error)) return false;
  if (!exists) {
    if (otherTables) {
      return ZBSetError(error, ZBStoreError(NSPersistentStoreIncompatibleSchemaError,
                                            "The file “" + path.filename().string() + "” is not an object store.",
                                            "The database holds tables of another program."));
    }
    if (!_create(db, error)) return false;
  }

  std::string type, storedFingerprint;
  if (!readMetadata(db, "NSStoreType", &type, error) || !readMetadata(db, "NSStoreUUID", identifier, error) ||
      !readMetadata(db, "ZBSchema", &storedFingerprint, error)) {
    return false;
  }
  if (type != kStoreType || identifier->empty()) {
    return ZBSetError(error,
                      ZBStoreError(NSPersistentStoreInvalidTypeError,
                                   "The file “" + path.filename().string() + "” is not an SQLite object store.", ""));
  }
  if (storedFingerprint != _fingerprint && !_migrate(db, storedFingerprint, options, error)) return false;
  for (auto& sql : _indexSQL()) {
    if (!db.exec(sql, error)) return false;
  }
  return true;
}

bool ZBSQLiteSchema::_create(ZBSQLiteDatabase& db, NSErrorPtr* error) const {
  ZBSQLiteTransaction transaction(db);
  if (!transaction.begin(NSPersistentStoreOpenError, error)) return false;
  // Another process may have created the store while we waited for the lock.
  bool exists = false, otherTables = false;
  if (!findMetadataTable(db, &exists, &otherTables, error)) return false;
  if (!exists) {
    std::string sql = "CREATE TABLE \"Z_METADATA\" (\"Z_KEY\" TEXT PRIMARY KEY, \"Z_VALUE\");";
    for (auto& entity : _entities) sql += createTableSQL(_layouts.at(entity.get()));
    if (!db.exec(sql, error)) return false;
    auto insert = db.prepare("INSERT INTO \"Z_METADATA\" (\"Z_KEY\", \"Z_VALUE\") VALUES (?, ?)", error);
    if (!insert) return false;
    std::string uuid = NSUUID().UUIDString();
    for (auto& [key, value] : std::vector<std::pair<std::string, std::string>>{
             {"NSStoreUUID", uuid}, {"NSStoreType", kStoreType}, {"ZBSchema", _fingerprint}}) {
      insert->bindText(1, key);
      insert->bindText(2, value);
      if (insert->step() != SQLITE_DONE) {
        return ZBSetError(error, db.errorWithCode(NSPersistentStoreOpenError, SQLITE_ERROR, "writing metadata"));
      }
      insert->reset();
    }
  }
  return transaction.commit(NSPersistentStoreOpenError, error);
}

bool ZBSQLiteSchema::_migrate(ZBSQLiteDatabase& db, const std::string& storedFingerprint,
                              const MigrationOptions& options, NSErrorPtr* error) const {
  ParsedSchema stored = parseSchema(storedFingerprint);
  ParsedSchema current = parseSchema(_fingerprint);
  MigrationPlan plan;
  for (auto& entity : _entities) {
    if (!planEntityMigration(db, _layouts.at(entity.get()), stored, current, &plan, error)) return false;
  }
  std::string kept = keptFingerprint(stored, current);

  const std::string description = "The model used to open the store is incompatible with the one used to create the store.";
  if (!plan.incompatible.empty()) {
    return ZBSetError(error, ZBStoreError(options.migrate ? NSInferredMappingModelError
                                                          : NSPersistentStoreIncompatibleVersionHashError,
                                          description, plan.incompatible));
  }
  if (plan.ddl.empty() && kept == storedFingerprint) return true;
  if (!plan.ddl.empty() && !(options.migrate && options.inferMapping)) {
    return ZBSetError(error, ZBStoreError(options.migrate ? NSMigrationMissingMappingModelError
                                                          : NSPersistentStoreIncompatibleVersionHashError,
                                          description, "The store needs a migration to open with this model."));
  }
  return applyMigration(db, plan.ddl, kept, error);
}
