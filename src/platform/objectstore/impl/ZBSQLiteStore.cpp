#include "platform/objectstore/impl/ZBSQLiteStore.h"

#include "platform/archive/NSKeyedArchiver.h"
#include "platform/archive/NSKeyedUnarchiver.h"
#include "platform/objectstore/impl/ZBFetchPlanner.h"
#include "platform/predicate/NSPredicate.h"

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
  auto schema = ZBSQLiteSchema::make(model, configuration, error);
  if (!schema) return nullptr;
  auto store = std::unique_ptr<ZBSQLiteStore>(new ZBSQLiteStore(std::move(*schema)));
  store->_path = path;
  store->_db = ZBSQLiteDatabase::open(path, true, error);
  if (!store->_db) return nullptr;
  store->_counts = std::make_unique<ZBCountMemo>(*store->_db, store->_schema.layouts());
  if (!store->_configure(options, error)) return nullptr;
  if (!store->_schema.prepare(*store->_db, path, options, &store->_identifier, error)) return nullptr;
  return store;
}

const ZBEntityLayout* ZBSQLiteStore::_layoutOrError(const NSEntityDescription* entity, NSErrorPtr* error) const {
  auto* entityLayout = layout(entity);
  if (!entityLayout) ZBSetError(error, ZBStoreError(NSCoreDataError, "The entity is not in this store.", ""));
  return entityLayout;
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
      return ZBSetError(error, ZBStoreError(NSFileReadCorruptFileError,
                                            "The file “" + _path.filename().string() +
                                                "” couldn’t be opened because it isn’t in the correct format.",
                                            sqliteError->localizedFailureReason().value_or("")));
    }
    return ZBSetError(error, sqliteError);
  }
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
  auto* entityLayout = _layoutOrError(query.entity, error);
  if (!entityLayout) return false;
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
  auto* entityLayout = _layoutOrError(query.entity, error);
  if (!entityLayout) return false;
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
  auto* entityLayout = _layoutOrError(query.entity, error);
  if (!entityLayout) return false;
  std::string columns = "t0.\"Z_PK\"";
  for (auto* property : properties) {
    if (!property->isRelationship()) {
      columns += ", t0." + entityLayout->attributeColumns[property->index()];
      continue;
    }
    auto& r = entityLayout->relationships[property->index()];
    if (r.kind == ZBRelationshipLayout::Kind::ForeignKey ||
        (r.kind == ZBRelationshipLayout::Kind::InverseForeignKey && !r.relationship->isToMany())) {
      columns += ", " + ZBToOneKeySQL(r);
    } else {
      return ZBSetError(error, ZBStoreError(NSCoreDataError, "A to-many relationship cannot be fetched as a property.",
                                            r.relationship->name()));
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
  auto* entityLayout = _layoutOrError(query.entity, error);
  if (!entityLayout) return std::nullopt;
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
  auto* entityLayout = _layoutOrError(entity, error);
  if (!entityLayout) return false;
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
  auto* entityLayout = _layoutOrError(entity, error);
  if (!entityLayout) return false;
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
    return ZBSetError(error, ZBStoreError(NSPersistentStoreSaveError,
                                          "The value of “" + attribute.name() + "” cannot be archived.",
                                          value.description()));
  }
  keepAlive.push_back(std::move(*data));
  statement.bindBlob(index, keepAlive.back().data(), keepAlive.back().size());
  return true;
}

namespace {

// The INSERT of a whole row: every attribute, then every to-one column.
std::string insertSQL(const ZBEntityLayout& layout) {
  std::string sql = "INSERT INTO " + layout.table + " (\"Z_OPT\"";
  std::string placeholders = "1";
  for (auto& column : layout.attributeColumns) {
    sql += ", " + column;
    placeholders += ", ?";
  }
  for (auto& r : layout.relationships) {
    if (r.kind != ZBRelationshipLayout::Kind::ForeignKey) continue;
    sql += ", " + r.column;
    placeholders += ", ?";
  }
  return sql + ") VALUES (" + placeholders + ")";
}

// The UPDATE of the changed attributes and to-one columns, against the row
// version the change was made at; it bumps the version.
std::string updateSQL(const ZBEntityLayout& layout, const ZBObjectChange& change) {
  std::string sql = "UPDATE " + layout.table + " SET \"Z_OPT\" = \"Z_OPT\" + 1";
  for (auto& [index, value] : change.attributes) sql += ", " + layout.attributeColumns[index] + " = ?";
  for (auto& [index, target] : change.toOne) {
    auto& r = layout.relationships[index];
    if (r.kind == ZBRelationshipLayout::Kind::ForeignKey) sql += ", " + r.column + " = ?";
  }
  return sql + " WHERE \"Z_PK\" = ? AND \"Z_OPT\" = ?";
}

bool danglingReference(const ZBObjectChange& change, const NSRelationshipDescription& relationship, NSErrorPtr* error) {
  return ZBSetError(error, ZBStoreError(NSPersistentStoreSaveError,
                                        "“" + change.objectID->entity()->name() + "." + relationship.name() +
                                            "” refers to an object that is not saved in this store.",
                                        ""));
}

}  // namespace

// What the steps of one save share.
struct ZBSQLiteStore::SaveBatch {
  SaveBatch(const std::vector<ZBObjectChange>& changes, std::vector<std::int64_t>* assigned,
            std::vector<ZBSaveConflict>* conflicts, NSErrorPtr* error)
      : changes(changes), assigned(assigned), conflicts(conflicts), error(error) {
    newKeys.reserve(changes.size());
  }

  // The row's primary key: 0 for nil, -1 for an object without a row yet.
  std::int64_t keyOf(const NSManagedObjectIDPtr& objectID) const {
    if (!objectID) return 0;
    if (auto pk = objectID->primaryKey()) return pk;
    auto it = newKeys.find(objectID.get());
    return it == newKeys.end() ? -1 : it->second;
  }

  // A to-one reference from an inserted row to an object inserted after it.
  struct DeferredKey {
    const ZBEntityLayout* layout;
    std::size_t relationship;
    std::int64_t pk;
    const ZBObjectChange* change;
    NSManagedObjectIDPtr target;
  };

  const std::vector<ZBObjectChange>& changes;
  std::vector<std::int64_t>* assigned;
  std::vector<ZBSaveConflict>* conflicts;
  NSErrorPtr* error;
  std::unordered_map<const NSManagedObjectID*, std::int64_t> newKeys;  // of the rows this save inserted
  std::vector<DeferredKey> deferred;
  std::vector<Data> keepAlive;  // archives bound to the statement being stepped
  std::size_t conflictCount = 0;
};

bool ZBSQLiteStore::save(const std::vector<ZBObjectChange>& changes, std::vector<std::int64_t>* assigned,
                         std::vector<ZBSaveConflict>* conflicts, NSErrorPtr* error) {
  ZBSQLiteTransaction transaction(*_db);
  if (!transaction.begin(NSPersistentStoreSaveError, error)) return false;
  ZBCountMemo::SaveUpdate counts;
  if (!_counts->willWrite(changes, &counts, error)) return false;
  SaveBatch batch(changes, assigned, conflicts, error);
  // Inserts first, so that every other write can refer to the new keys.
  if (!_insertRows(batch)) return false;
  if (!_writeDeferredKeys(batch)) return false;
  if (!_updateRows(batch)) return false;
  if (!_writeJoinRows(batch)) return false;
  if (!_deleteRows(batch)) return false;
  // A stale row does not stop the steps, so that every conflict is listed;
  // then nothing is committed.
  if (batch.conflictCount > 0) return false;
  auto keyOf = [&batch](const NSManagedObjectIDPtr& objectID) { return batch.keyOf(objectID); };
  if (!_counts->didWrite(counts, keyOf, error)) return false;
  if (!transaction.commit(NSPersistentStoreSaveError, error)) return false;
  _counts->didCommit(counts);
  return true;
}

bool ZBSQLiteStore::_saveFailure(int resultCode, const std::string& what, NSErrorPtr* error) const {
  return ZBSetError(error, _db->errorWithCode(NSPersistentStoreSaveError, resultCode, what));
}

// Inserts the new rows in the order of the changes, recording their keys. A
// to-one reference to an object inserted later is left NULL and deferred.
bool ZBSQLiteStore::_insertRows(SaveBatch& batch) {
  std::vector<Value> values;
  for (auto& change : batch.changes) {
    if (change.kind != ZBObjectChange::Kind::Insert) continue;
    auto* entityLayout = layout(change.objectID->entity().get());
    if (!entityLayout) {
      return ZBSetError(batch.error, ZBStoreError(NSPersistentStoreSaveError, "The entity is not in this store.", ""));
    }
    auto& entity = *entityLayout->entity;
    ZBStatementScope statement(_db->cachedStatement(insertSQL(*entityLayout), batch.error));
    if (!statement) return false;
    const std::vector<Value>* source = change.insertedValues;
    if (!source) {
      values.assign(entity.attributes().size(), Value());
      for (auto& [index, value] : change.attributes) values[index] = value;
      source = &values;
    }
    batch.keepAlive.clear();
    int parameter = 1;
    static const Value absent;
    for (std::size_t i = 0; i < entity.attributes().size(); ++i) {
      const Value& value = i < source->size() ? (*source)[i] : absent;
      if (!_bindAttribute(*statement.operator->(), parameter++, *entity.attributes()[i], value, batch.keepAlive,
                          batch.error)) {
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
      std::int64_t key = batch.keyOf(target);
      if (key > 0) {
        statement->bindInt64(parameter, key);
      } else if (key < 0) {
        laterKeys.emplace_back(r.relationship->index(), target);
      }
      ++parameter;
    }
    int rc = statement->step();
    if (rc != SQLITE_DONE) return _saveFailure(rc, "insert into " + entity.name(), batch.error);
    std::int64_t pk = _db->lastInsertRowID();
    batch.newKeys.emplace(change.objectID.get(), pk);
    if (batch.assigned) batch.assigned->push_back(pk);
    for (auto& [index, target] : laterKeys) batch.deferred.push_back({entityLayout, index, pk, &change, target});
  }
  return true;
}

// Fills in the to-one references the inserts deferred; a target that got no
// row in this save is not in the store.
bool ZBSQLiteStore::_writeDeferredKeys(SaveBatch& batch) {
  for (auto& item : batch.deferred) {
    auto& r = item.layout->relationships[item.relationship];
    std::int64_t key = batch.keyOf(item.target);
    if (key < 0) return danglingReference(*item.change, *r.relationship, batch.error);
    ZBStatementScope statement(_db->cachedStatement(
        "UPDATE " + item.layout->table + " SET " + r.column + " = ? WHERE \"Z_PK\" = ?", batch.error));
    if (!statement) return false;
    statement->bindInt64(1, key);
    statement->bindInt64(2, item.pk);
    int rc = statement->step();
    if (rc != SQLITE_DONE) return _saveFailure(rc, "update of a relationship", batch.error);
  }
  return true;
}

// Writes the changed columns of updated rows; a row whose version moved on
// is left alone and recorded as a conflict.
bool ZBSQLiteStore::_updateRows(SaveBatch& batch) {
  for (auto& change : batch.changes) {
    if (change.kind != ZBObjectChange::Kind::Update) continue;
    auto* entityLayout = layout(change.objectID->entity().get());
    if (!entityLayout || change.objectID->isTemporaryID()) {
      return ZBSetError(batch.error,
                        ZBStoreError(NSPersistentStoreSaveError, "An updated object is not in this store.", ""));
    }
    auto& entity = *entityLayout->entity;
    ZBStatementScope statement(_db->cachedStatement(updateSQL(*entityLayout, change), batch.error));
    if (!statement) return false;
    batch.keepAlive.clear();
    int parameter = 1;
    for (auto& [index, value] : change.attributes) {
      if (!_bindAttribute(*statement.operator->(), parameter++, *entity.attributes()[index], value, batch.keepAlive,
                          batch.error)) {
        return false;
      }
    }
    for (auto& [index, target] : change.toOne) {
      auto& r = entityLayout->relationships[index];
      if (r.kind != ZBRelationshipLayout::Kind::ForeignKey) continue;
      std::int64_t key = batch.keyOf(target);
      if (key < 0) return danglingReference(change, *r.relationship, batch.error);
      if (key > 0) statement->bindInt64(parameter, key);
      ++parameter;
    }
    statement->bindInt64(parameter++, change.objectID->primaryKey());
    statement->bindInt64(parameter++, change.version);
    int rc = statement->step();
    if (rc != SQLITE_DONE) return _saveFailure(rc, "update of " + entity.name(), batch.error);
    if (_db->changes() == 0 && !_recordConflict(*entityLayout, change, batch)) return false;
  }
  return true;
}

// Adds and removes join rows, written by one side of each pair of inverse
// relationships.
bool ZBSQLiteStore::_writeJoinRows(SaveBatch& batch) {
  for (auto& change : batch.changes) {
    if (change.kind == ZBObjectChange::Kind::Delete || change.toMany.empty()) continue;
    auto* entityLayout = layout(change.objectID->entity().get());
    std::int64_t self = batch.keyOf(change.objectID);
    for (auto& delta : change.toMany) {
      auto& r = entityLayout->relationships[delta.relationship];
      if (r.kind != ZBRelationshipLayout::Kind::JoinTable || !r.writesJoinRows) continue;
      if (!delta.added.empty()) {
        ZBStatementScope insert(_db->cachedStatement("INSERT OR IGNORE INTO " + r.joinTable + " (" + r.selfColumn +
                                                         ", " + r.otherColumn + ") VALUES (?, ?)",
                                                     batch.error));
        if (!insert) return false;
        for (auto& other : delta.added) {
          std::int64_t key = batch.keyOf(other);
          if (key <= 0) return danglingReference(change, *r.relationship, batch.error);
          insert->bindInt64(1, self);
          insert->bindInt64(2, key);
          int rc = insert->step();
          insert->reset();
          if (rc != SQLITE_DONE) return _saveFailure(rc, "insert into " + r.joinTable, batch.error);
        }
      }
      if (!delta.removed.empty()) {
        ZBStatementScope remove(_db->cachedStatement(
            "DELETE FROM " + r.joinTable + " WHERE " + r.selfColumn + " = ? AND " + r.otherColumn + " = ?",
            batch.error));
        if (!remove) return false;
        for (auto& other : delta.removed) {
          std::int64_t key = batch.keyOf(other);
          if (key <= 0) continue;  // never stored, so never joined
          remove->bindInt64(1, self);
          remove->bindInt64(2, key);
          int rc = remove->step();
          remove->reset();
          if (rc != SQLITE_DONE) return _saveFailure(rc, "delete from " + r.joinTable, batch.error);
        }
      }
    }
  }
  return true;
}

// Deletes rows at the version the change was made at (a row whose version
// moved on is a conflict), then every reference to each deleted row.
bool ZBSQLiteStore::_deleteRows(SaveBatch& batch) {
  for (auto& change : batch.changes) {
    if (change.kind != ZBObjectChange::Kind::Delete) continue;
    auto* entityLayout = layout(change.objectID->entity().get());
    std::int64_t pk = change.objectID->primaryKey();
    if (!entityLayout || pk == 0) continue;  // never stored
    {
      ZBStatementScope statement(_db->cachedStatement(
          "DELETE FROM " + entityLayout->table + " WHERE \"Z_PK\" = ? AND \"Z_OPT\" = ?", batch.error));
      if (!statement) return false;
      statement->bindInt64(1, pk);
      statement->bindInt64(2, change.version);
      int rc = statement->step();
      if (rc != SQLITE_DONE) return _saveFailure(rc, "delete from " + entityLayout->entity->name(), batch.error);
      if (_db->changes() == 0) {
        if (!_recordConflict(*entityLayout, change, batch)) return false;
        continue;
      }
    }
    if (!_clearReferences(*entityLayout, pk, batch)) return false;
  }
  return true;
}

// No row may keep pointing at a deleted one: its join rows go, and foreign
// keys held by other tables are set to NULL.
bool ZBSQLiteStore::_clearReferences(const ZBEntityLayout& layout, std::int64_t pk, SaveBatch& batch) {
  for (auto& r : layout.relationships) {
    std::string sql;
    if (r.kind == ZBRelationshipLayout::Kind::JoinTable) {
      sql = "DELETE FROM " + r.joinTable + " WHERE " + r.selfColumn + " = ?";
    } else if (r.kind == ZBRelationshipLayout::Kind::InverseForeignKey) {
      sql = "UPDATE " + r.destinationTable + " SET " + r.column + " = NULL WHERE " + r.column + " = ?";
    } else {
      continue;
    }
    ZBStatementScope statement(_db->cachedStatement(sql, batch.error));
    if (!statement) return false;
    statement->bindInt64(1, pk);
    int rc = statement->step();
    if (rc != SQLITE_DONE) return _saveFailure(rc, "clean-up after delete", batch.error);
  }
  return true;
}

// Counts a stale row and lists it with the version now stored (0: gone).
bool ZBSQLiteStore::_recordConflict(const ZBEntityLayout& layout, const ZBObjectChange& change, SaveBatch& batch) {
  ++batch.conflictCount;
  ZBStatementScope statement(
      _db->cachedStatement("SELECT \"Z_OPT\" FROM " + layout.table + " WHERE \"Z_PK\" = ?", batch.error));
  if (!statement) return false;
  statement->bindInt64(1, change.objectID->primaryKey());
  int rc = statement->step();
  std::int64_t stored = rc == SQLITE_ROW ? statement->int64(0) : 0;
  if (rc != SQLITE_ROW && rc != SQLITE_DONE) return _saveFailure(rc, "version check", batch.error);
  if (batch.conflicts) batch.conflicts->push_back({change.objectID, change.version, stored});
  return true;
}
