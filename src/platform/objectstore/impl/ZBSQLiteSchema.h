#pragma once
// How a configuration's entities are laid out in an SQLite file, and the
// creation and lightweight migration of that layout.
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
// A schema owns its layouts (they stay where they are for its lifetime, and
// across moves); it does not own the database it prepares.
// Thread-safety: requires external synchronisation (the coordinator's lock).

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/foundation/NSError.h"
#include "platform/objectstore/NSManagedObjectModel.h"
#include "platform/objectstore/impl/ZBSQLite.h"

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

using ZBEntityLayouts = std::unordered_map<const NSEntityDescription*, ZBEntityLayout>;

// The destination's primary key of a to-one relationship (ForeignKey or
// InverseForeignKey) as an SQL expression over alias t0.
std::string ZBToOneKeySQL(const ZBRelationshipLayout& r);

class ZBSQLiteSchema {
public:
  struct MigrationOptions {
    bool migrate = false;       // lightweight migration to the model allowed
    bool inferMapping = false;  // mapping inferred from the two schemas
  };

  // The layout of the entities of configuration (every entity when it is
  // empty). Nullopt and *error when the configuration has no entities, an
  // attribute takes a reserved column name, or a relationship leads out of
  // the configuration.
  static std::optional<ZBSQLiteSchema> make(const NSManagedObjectModel& model, const std::string& configuration,
                                            NSErrorPtr* error);

  ZBSQLiteSchema(ZBSQLiteSchema&&) = default;
  ZBSQLiteSchema& operator=(ZBSQLiteSchema&&) = default;
  ZBSQLiteSchema(const ZBSQLiteSchema&) = delete;
  ZBSQLiteSchema& operator=(const ZBSQLiteSchema&) = delete;

  // Null when the entity is not in this schema.
  const ZBEntityLayout* layout(const NSEntityDescription* entity) const;
  const ZBEntityLayouts& layouts() const { return _layouts; }

  // Creates the tables and metadata in an empty database, or checks the
  // stored ones and migrates them to this schema as options allow; then
  // creates any missing index. Sets *identifier to the store's UUID. False
  // and *error when the file holds another program's tables or another kind
  // of store, or a schema that cannot be migrated (nothing is changed then).
  bool prepare(ZBSQLiteDatabase& db, const std::filesystem::path& path, const MigrationOptions& options,
               std::string* identifier, NSErrorPtr* error) const;

private:
  ZBSQLiteSchema() = default;
  bool _buildLayouts(NSErrorPtr* error);
  bool _create(ZBSQLiteDatabase& db, NSErrorPtr* error) const;
  std::vector<std::string> _indexSQL() const;
  bool _migrate(ZBSQLiteDatabase& db, const std::string& storedFingerprint, const MigrationOptions& options,
                NSErrorPtr* error) const;

  std::vector<std::shared_ptr<NSEntityDescription>> _entities;
  ZBEntityLayouts _layouts;
  std::string _fingerprint;
};
