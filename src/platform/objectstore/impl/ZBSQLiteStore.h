#pragma once
// The reads and writes of a persistent store over one SQLite file, laid out
// by its ZBSQLiteSchema (which also creates and migrates the file on open).
//
// Thread-safety: requires external synchronisation (the coordinator's lock).

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/foundation/NSError.h"
#include "platform/objectstore/NSManagedObjectModel.h"
#include "platform/objectstore/impl/ZBCountMemo.h"
#include "platform/objectstore/impl/ZBSQLite.h"
#include "platform/objectstore/impl/ZBSQLiteSchema.h"
#include "platform/objectstore/impl/ZBStoreTypes.h"

// Parts of a query over one entity's table, aliased t0. Values are bound.
struct ZBStoreQuery {
  const NSEntityDescription* entity = nullptr;
  std::string where;                // empty: every row
  std::vector<Value> parameters;    // bound to the ?s of where, in order
  std::string orderBy;              // SQL without values, empty for none
  std::int64_t limit = 0;           // 0: no limit
};

class ZBSQLiteStore {
public:
  // The migration options (migrate, inferMapping), with the connection's own.
  struct OpenOptions : ZBSQLiteSchema::MigrationOptions {
    double busyTimeoutSeconds = 240;  // how long a writer waits for another connection's lock
  };
  using IDMaker = std::function<NSManagedObjectIDPtr(const std::shared_ptr<NSEntityDescription>&, std::int64_t)>;

  // Opens or creates the store file for the entities of configuration.
  // Null and *error when the file is not a database, belongs to another kind
  // of store, or holds a schema that cannot be migrated (nothing is changed
  // then).
  static std::unique_ptr<ZBSQLiteStore> open(const std::filesystem::path& path, const NSManagedObjectModel& model,
                                             const std::string& configuration, const OpenOptions& options,
                                             NSErrorPtr* error);

  const std::string& identifier() const { return _identifier; }
  const ZBEntityLayout* layout(const NSEntityDescription* entity) const { return _schema.layout(entity); }
  ZBSQLiteDatabase& database() { return *_db; }
  void setIDMaker(IDMaker maker) { _makeID = std::move(maker); }

  bool fetchRows(const ZBStoreQuery& query, std::vector<ZBRowSnapshot>* rows, NSErrorPtr* error);
  bool fetchPrimaryKeys(const ZBStoreQuery& query, std::vector<std::int64_t>* keys, NSErrorPtr* error);
  // Values of the given properties (attributes, or to-one relationships as
  // object IDs) for each matching row, appended row after row to values,
  // with each row's primary key appended to keys.
  bool fetchProperties(const ZBStoreQuery& query, const std::vector<const NSPropertyDescription*>& properties,
                       std::vector<std::int64_t>* keys, std::vector<Value>* values, NSErrorPtr* error);
  // remember: keep the count for the next identical query, exact across
  // this store's own saves (see ZBCountMemo); for the queries asked again
  // and again, such as live counts.
  std::optional<std::int64_t> count(const ZBStoreQuery& query, NSErrorPtr* error, bool remember = false);
  // found is false when the row does not exist.
  bool rowForPrimaryKey(const NSEntityDescription* entity, std::int64_t pk, ZBRowSnapshot* row, bool* found,
                        NSErrorPtr* error);
  bool relatedPrimaryKeys(const NSEntityDescription* entity, std::int64_t pk, std::size_t relationship,
                          std::vector<std::int64_t>* keys, NSErrorPtr* error);

  // Writes the changes in one transaction. Inserted rows get primary keys
  // (assigned, in the order of inserts). When a row to update or delete no
  // longer has the version the change was made against, nothing is written
  // and the stale rows are listed in conflicts (the result is false, with
  // *error left alone). Other failures: false and *error.
  bool save(const std::vector<ZBObjectChange>& changes, std::vector<std::int64_t>* assigned,
            std::vector<ZBSaveConflict>* conflicts, NSErrorPtr* error);

  // Reads a value of an attribute from a result column.
  static Value readColumn(const ZBSQLiteStatement& statement, int column, const NSAttributeDescription& attribute);

private:
  struct SaveBatch;

  explicit ZBSQLiteStore(ZBSQLiteSchema schema) : _schema(std::move(schema)) {}
  bool _configure(const OpenOptions& options, NSErrorPtr* error);
  const ZBEntityLayout* _layoutOrError(const NSEntityDescription* entity, NSErrorPtr* error) const;
  bool _readRow(ZBSQLiteStatement& statement, const ZBEntityLayout& layout, ZBRowSnapshot* row);
  bool _bindAttribute(ZBSQLiteStatement& statement, int index, const NSAttributeDescription& attribute,
                      const Value& value, std::vector<Data>& keepAlive, NSErrorPtr* error);

  // The steps of save, in order, inside its transaction.
  bool _insertRows(SaveBatch& batch);
  bool _writeDeferredKeys(SaveBatch& batch);
  bool _updateRows(SaveBatch& batch);
  bool _writeJoinRows(SaveBatch& batch);
  bool _deleteRows(SaveBatch& batch);
  bool _clearReferences(const ZBEntityLayout& layout, std::int64_t pk, SaveBatch& batch);
  bool _recordConflict(const ZBEntityLayout& layout, const ZBObjectChange& change, SaveBatch& batch);
  bool _saveFailure(int resultCode, const std::string& what, NSErrorPtr* error) const;

  ZBSQLiteSchema _schema;
  std::unique_ptr<ZBSQLiteDatabase> _db;
  std::filesystem::path _path;
  std::string _identifier;
  IDMaker _makeID;
  std::unique_ptr<ZBCountMemo> _counts;
};

// Keyed-archive coding of transformable attribute values.
std::optional<Data> ZBEncodeTransformableValue(const Value& value);
Value ZBDecodeTransformableValue(const Data& data);
