#pragma once
// Remembered counts of a store's queries, kept exact across the
// connection's own saves: a save counts, for each remembered query, only the
// rows it writes (before and after writing) and adjusts the total, so live
// counts over a large table cost a few row lookups per save instead of a
// scan each. A count is forgotten when another connection writes the file,
// when a save writes more rows than are worth recounting, or when it writes
// rows of a table the query reads that cannot be traced back to rows of the
// counted entity (another entity's rows, clean-up after deletes).
//
// Thread-safety: as its store (the coordinator's lock).

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/foundation/NSError.h"
#include "platform/objectstore/impl/ZBSQLite.h"
#include "platform/objectstore/impl/ZBStoreTypes.h"

struct ZBEntityLayout;
struct ZBStoreQuery;
class NSEntityDescription;

class ZBCountMemo {
public:
  using Layouts = std::unordered_map<const NSEntityDescription*, ZBEntityLayout>;
  using KeyOf = std::function<std::int64_t(const NSManagedObjectIDPtr&)>;

  // layouts must outlive the memo and hold every table of the store.
  ZBCountMemo(ZBSQLiteDatabase& db, const Layouts& layouts);

  // The number of rows matching query (its limit and order are ignored):
  // remembered, or counted and remembered. Nullopt and *error on failure.
  std::optional<std::int64_t> count(const ZBEntityLayout& layout, const ZBStoreQuery& query, NSErrorPtr* error);

  // One save, inside its write transaction: willWrite before the first
  // write, didWrite after the last (keyOf gives the primary keys of objects
  // the save inserted), didCommit once the transaction committed. A save
  // that fails in between leaves the remembered counts as they were.
  struct SaveUpdate;
  [[nodiscard]] bool willWrite(const std::vector<ZBObjectChange>& changes, SaveUpdate* update, NSErrorPtr* error);
  [[nodiscard]] bool didWrite(SaveUpdate& update, const KeyOf& keyOf, NSErrorPtr* error);
  void didCommit(SaveUpdate& update);

  std::size_t size() const { return _entries.size(); }
  void clear() { _entries.clear(); }

  struct Entry {
    const ZBEntityLayout* layout = nullptr;
    std::string where;
    std::vector<Value> parameters;
    std::int64_t count = 0;
    std::vector<std::string> tables;  // quoted names of the tables the query reads
    std::uint64_t lastUse = 0;
  };
  struct SaveUpdate {
    struct Adjustment {
      std::size_t entry = 0;
      std::vector<std::int64_t> keys;               // stored rows the save writes
      std::vector<NSManagedObjectIDPtr> inserted;   // rows it adds
      std::int64_t before = 0;
      std::int64_t after = 0;
    };
    std::vector<Adjustment> adjustments;
    std::vector<std::size_t> forgotten;
  };

private:
  [[nodiscard]] bool _checkDataVersion(NSErrorPtr* error);
  std::optional<std::int64_t> _countAmong(const Entry& entry, const std::vector<std::int64_t>& keys, NSErrorPtr* error);

  ZBSQLiteDatabase& _db;
  const Layouts& _layouts;
  std::vector<std::string> _tableNames;
  std::vector<Entry> _entries;
  std::int64_t _dataVersion = -1;
  std::uint64_t _clock = 0;
};
