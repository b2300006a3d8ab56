#pragma once
// The SQLite side of a persistent store: schema creation and lightweight
// migration, and the reads and writes the coordinator asks for.
//
// Schema: a table per entity named after it, with "Z_PK" (primary key, never
// reused), "Z_OPT" (row version, bumped by every write, for optimistic
// locking), a column per attribute and a column per to-one relationship
// (holding the destination's Z_PK), all named after their properties. A
// many-to-many relationship gets a join table "<Entity>_<relationship>" whose
// two columns are named after the two entities. Indexed attributes and every
// relationship column are indexed. The table "Z_METADATA" holds the store's
// UUID, its type and the model fingerprint it was last written with.
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
#include "platform/objectstore/impl/ZBStoreTypes.h"

struct ZBRelationshipLayout {
  enum class Kind : std::uint8_t {
    ForeignKey,         // a column of this entity's table holds the destination
    InverseForeignKey,  // a column of the destination's table points back here
    JoinTable,          // a join table (many-to-many, or to-many without inverse)
  };
  Kind kind = Kind::ForeignKey;
  std::string column;          // ForeignKey: own column; InverseForeignKey: the destination's column
  std::string joinTable;       // JoinTable: table and the columns holding this side and the other side
  std::string selfColumn;
  std::string otherColumn;
  bool writesJoinRows = false;  // the one side of a join table that writes its rows
  const NSRelationshipDescription* relationship = nullptr;
  std::shared_ptr<NSEntityDescription> destination;
  std::string destinationTable;
};

struct ZBEntityLayout {
  std::shared_ptr<NSEntityDescription> entity;
  std::string table;                           // quoted
  std::vector<std::string> attributeColumns;  // quoted, by attribute index
  std::vector<ZBRelationshipLayout> relationships;  // by relationship index
  // SELECT list over alias t0: Z_PK, Z_OPT, every attribute, then every
  // to-one relationship (in relationship order).
  std::string selectList;
  std::vector<std::size_t> toOneRelationships;
};

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
  struct OpenOptions {
    bool migrate = false;        // lightweight migration to the model allowed
    bool inferMapping = false;   // mapping inferred from the two schemas
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
  const ZBEntityLayout* layout(const NSEntityDescription* entity) const;
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
  bool _configure(const OpenOptions& options, NSErrorPtr* error);
  bool _prepareSchema(const OpenOptions& options, NSErrorPtr* error);
  bool _buildLayouts(NSErrorPtr* error);
  std::string _createTableSQL(const ZBEntityLayout& layout) const;
  std::vector<std::string> _indexSQL() const;
  bool _migrate(const std::string& storedFingerprint, const OpenOptions& options, NSErrorPtr* error);
  bool _readRow(ZBSQLiteStatement& statement, const ZBEntityLayout& layout, ZBRowSnapshot* row);
  bool _bindAttribute(ZBSQLiteStatement& statement, int index, const NSAttributeDescription& attribute,
                      const Value& value, std::vector<Data>& keepAlive, NSErrorPtr* error);

  std::unique_ptr<ZBSQLiteDatabase> _db;
  std::filesystem::path _path;
  std::string _identifier;
  std::string _configuration;
  std::string _fingerprint;
  std::vector<std::shared_ptr<NSEntityDescription>> _entities;
  std::unordered_map<const NSEntityDescription*, ZBEntityLayout> _layouts;
  IDMaker _makeID;
  std::unique_ptr<ZBCountMemo> _counts;
};

// Keyed-archive coding of transformable attribute values.
std::optional<Data> ZBEncodeTransformableValue(const Value& value);
Value ZBDecodeTransformableValue(const Data& data);
