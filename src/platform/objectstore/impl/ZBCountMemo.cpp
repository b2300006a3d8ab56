#include "platform/objectstore/impl/ZBCountMemo.h"

#include <algorithm>
#include <set>

#include "platform/objectstore/NSEntityDescription.h"
#include "platform/objectstore/NSManagedObjectContext.h"
#include "platform/objectstore/impl/ZBSQLiteStore.h"

namespace {

constexpr std::size_t kCapacity = 32;
// A save writing more rows than this forgets the counts it touches: they
// are cheaper to count again when next asked for.
constexpr std::size_t kMostRowsRecounted = 512;

std::string countSQL(const ZBCountMemo::Entry& entry, const std::string& extra) {
  std::string sql = "SELECT COUNT(*) FROM " + entry.layout->table + " t0";
  if (!entry.where.empty()) sql += " WHERE (" + entry.where + ")" + (extra.empty() ? "" : " AND " + extra);
  else if (!extra.empty()) sql += " WHERE " + extra;
  return sql;
}

// Binds parameters and reads the single COUNT(*) result.
std::optional<std::int64_t> stepCount(ZBSQLiteDatabase& db, ZBSQLiteStatement& statement,
                                      const std::vector<Value>& parameters, NSErrorPtr* error) {
  int index = 1;
  for (auto& value : parameters) statement.bindValue(index++, value);
  int rc = statement.step();
  if (rc != SQLITE_ROW) {
    ZBSetError(error, db.errorWithCode(NSSQLiteError, rc, "count"));
    return std::nullopt;
  }
  return statement.int64(0);
}

bool sameParameters(const std::vector<Value>& a, const std::vector<Value>& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (a[i].type() != b[i].type() || !a[i].isEqual(b[i])) return false;
  }
  return true;
}

}  // namespace

ZBCountMemo::ZBCountMemo(ZBSQLiteDatabase& db, const Layouts& layouts) : _db(db), _layouts(layouts) {}

bool ZBCountMemo::_checkDataVersion(NSErrorPtr* error) {
  ZBStatementScope statement(_db.cachedStatement("PRAGMA data_version", error));
  if (!statement) return false;
  int rc = statement->step();
  if (rc != SQLITE_ROW) return ZBSetError(error, _db.errorWithCode(NSSQLiteError, rc, "data version"));
  // The version changes when any other connection commits, never for this
  // connection's own writes.
  std::int64_t version = statement->int64(0);
  if (version != _dataVersion) _entries.clear();
  _dataVersion = version;
  return true;
}

std::optional<std::int64_t> ZBCountMemo::count(const ZBEntityLayout& layout, const ZBStoreQuery& query,
                                               NSErrorPtr* error) {
  if (!_checkDataVersion(error)) return std::nullopt;
  for (auto& entry : _entries) {
    if (entry.layout == &layout && entry.where == query.where && sameParameters(entry.parameters, query.parameters)) {
      entry.lastUse = ++_clock;
      return entry.count;
    }
  }
  Entry entry;
  entry.layout = &layout;
  entry.where = query.where;
  entry.parameters = query.parameters;
  ZBStatementScope statement(_db.cachedStatement(countSQL(entry, ""), error));
  auto counted = statement ? stepCount(_db, *statement.operator->(), entry.parameters, error) : std::nullopt;
  if (!counted) return std::nullopt;
  entry.count = *counted;

  if (_tableNames.empty()) {
    for (auto& [entity, each] : _layouts) {
      _tableNames.push_back(each.table);
      for (auto& r : each.relationships) {
        if (!r.joinTable.empty()) _tableNames.push_back(r.joinTable);
      }
    }
  }
  // Every table is named quoted, so a table the query reads appears in it
  // as its quoted name; a column named like a table only adds a table, which
  // errs on the side of forgetting.
  entry.tables.push_back(layout.table);
  for (auto& name : _tableNames) {
    if (entry.where.find(name) != std::string::npos &&
        std::find(entry.tables.begin(), entry.tables.end(), name) == entry.tables.end()) {
      entry.tables.push_back(name);
    }
  }
  entry.lastUse = ++_clock;
  if (_entries.size() >= kCapacity) {
    auto oldest = std::min_element(_entries.begin(), _entries.end(),
                                   [](const Entry& a, const Entry& b) { return a.lastUse < b.lastUse; });
    _entries.erase(oldest);
  }
  _entries.push_back(std::move(entry));
  return _entries.back().count;
}

std::optional<std::int64_t> ZBCountMemo::_countAmong(const Entry& entry, const std::vector<std::int64_t>& keys,
                                                     NSErrorPtr* error) {
  if (keys.empty()) return 0;
  std::string list;
  for (auto key : keys) list += (list.empty() ? "" : ",") + std::to_string(key);
  auto statement = _db.prepare(countSQL(entry, "t0.\"Z_PK\" IN (" + list + ")"), error);
  if (!statement) return std::nullopt;
  return stepCount(_db, *statement, entry.parameters, error);
}

bool ZBCountMemo::willWrite(const std::vector<ZBObjectChange>& changes, SaveUpdate* update, NSErrorPtr* error) {
  if (_entries.empty()) return true;
  if (!_checkDataVersion(error)) return false;
  for (std::size_t index = 0; index < _entries.size(); ++index) {
    const Entry& entry = _entries[index];
    const NSEntityDescription* counted = entry.layout->entity.get();
    auto reads = [&](const std::string& table) {
      return std::find(entry.tables.begin(), entry.tables.end(), table) != entry.tables.end();
    };
    std::set<std::int64_t> keys;
    std::vector<NSManagedObjectIDPtr> inserted;
    bool traceable = true;
    // Rows of the counted entity written through join table rows: the side
    // of a row that belongs to the counted entity names it.
    auto joinRow = [&](const ZBRelationshipLayout& r, const NSEntityDescription* owner, const NSManagedObjectIDPtr& self,
                       const NSManagedObjectIDPtr& other) {
      if (!reads(r.joinTable)) return;
      bool traced = false;
      if (owner == counted) {
        if (self->primaryKey()) keys.insert(self->primaryKey());
        traced = true;  // a new object is counted as inserted
      }
      if (r.destination.get() == counted) {
        if (other->primaryKey()) keys.insert(other->primaryKey());
        traced = true;
      }
      if (!traced) traceable = false;
    };
    for (auto& change : changes) {
      if (!traceable) break;
      auto& entity = change.objectID->entity();
      auto found = _layouts.find(entity.get());
      if (found == _layouts.end()) continue;  // the save fails on it
      const ZBEntityLayout& layout = found->second;
      const bool own = entity.get() == counted;
      if (!own && reads(layout.table)) {
        // A new row of another entity is reached only through the links
        // this save writes: join rows (traced below) and its foreign keys,
        // which are traced when they point at the counted entity.
        if (change.kind != ZBObjectChange::Kind::Insert) {
          traceable = false;
          break;
        }
        for (auto& [relationship, target] : change.toOne) {
          if (!target) continue;
          if (target->entity().get() != counted) {
            traceable = false;
          } else if (target->primaryKey()) {
            keys.insert(target->primaryKey());
          }
        }
      }
      switch (change.kind) {
        case ZBObjectChange::Kind::Insert:
          if (own) inserted.push_back(change.objectID);
          break;
        case ZBObjectChange::Kind::Update:
          if (own) keys.insert(change.objectID->primaryKey());
          break;
        case ZBObjectChange::Kind::Delete:
          if (!change.objectID->primaryKey()) break;
          if (own) keys.insert(change.objectID->primaryKey());
          // Clean-up removes join rows and clears foreign keys pointing at
          // the deleted row: rows found by value, not traced here.
          for (auto& r : layout.relationships) {
            if (r.kind == ZBRelationshipLayout::Kind::JoinTable && reads(r.joinTable) &&
                (!own || r.destination.get() == counted)) {
              traceable = false;
            }
            if (r.kind == ZBRelationshipLayout::Kind::InverseForeignKey && reads(r.destinationTable)) traceable = false;
          }
          break;
      }
      if (change.kind == ZBObjectChange::Kind::Delete) continue;
      for (auto& delta : change.toMany) {
        auto& r = layout.relationships[delta.relationship];
        if (r.kind != ZBRelationshipLayout::Kind::JoinTable || !r.writesJoinRows) continue;
        for (auto& other : delta.added) joinRow(r, entity.get(), change.objectID, other);
        for (auto& other : delta.removed) joinRow(r, entity.get(), change.objectID, other);
      }
    }
    if (traceable && keys.size() + inserted.size() > kMostRowsRecounted) traceable = false;
    if (!traceable) {
      update->forgotten.push_back(index);
      continue;
    }
    if (keys.empty() && inserted.empty()) continue;
    SaveUpdate::Adjustment adjustment;
    adjustment.entry = index;
    adjustment.keys.assign(keys.begin(), keys.end());
    adjustment.inserted = std::move(inserted);
    auto before = _countAmong(entry, adjustment.keys, error);
    if (!before) return false;
    adjustment.before = *before;
    update->adjustments.push_back(std::move(adjustment));
  }
  return true;
}

bool ZBCountMemo::didWrite(SaveUpdate& update, const KeyOf& keyOf, NSErrorPtr* error) {
  for (auto& adjustment : update.adjustments) {
    auto keys = adjustment.keys;
    for (auto& objectID : adjustment.inserted) {
      if (auto key = keyOf(objectID); key > 0) keys.push_back(key);
    }
    auto after = _countAmong(_entries[adjustment.entry], keys, error);
    if (!after) return false;
    adjustment.after = *after;
  }
  return true;
}

void ZBCountMemo::didCommit(SaveUpdate& update) {
  for (auto& adjustment : update.adjustments) {
    _entries[adjustment.entry].count += adjustment.after - adjustment.before;
  }
  std::sort(update.forgotten.rbegin(), update.forgotten.rend());
  for (auto index : update.forgotten) _entries.erase(_entries.begin() + static_cast<std::ptrdiff_t>(index));
  update = {};
}
