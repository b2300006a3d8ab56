#pragma once
// Thin RAII layer over the sqlite3 C API: a connection with a cache of
// prepared statements, statements that reset themselves after use, and
// write transactions that roll back unless committed.
//
// Thread-safety: a ZBSQLiteDatabase and its statements require external
// synchronisation (the coordinator's lock).

#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/foundation/NSError.h"
#include "platform/foundation/Value.h"

// Key under which errors made from SQLite failures carry the SQLite result code.
extern const std::string NSSQLiteErrorDomain;

class ZBSQLiteStatement {
public:
  explicit ZBSQLiteStatement(sqlite3_stmt* statement) : _statement(statement) {}
  sqlite3_stmt* handle() const { return _statement.get(); }

  // Parameters are 1-based. Strings and data are copied by SQLite only when
  // asked; these bind them as static, so the values must outlive step().
  void bindNull(int index) { sqlite3_bind_null(handle(), index); }
  void bindInt64(int index, std::int64_t value) { sqlite3_bind_int64(handle(), index, value); }
  void bindDouble(int index, double value) { sqlite3_bind_double(handle(), index, value); }
  void bindText(int index, std::string_view text) {
    sqlite3_bind_text(handle(), index, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
  }
  void bindBlob(int index, const void* bytes, std::size_t size) {
    sqlite3_bind_blob(handle(), index, size ? bytes : "", static_cast<int>(size), SQLITE_STATIC);
  }
  // Numbers, strings, dates (seconds since the reference date), data; absent
  // and the null marker bind NULL. Other values (containers, objects) bind NULL.
  void bindValue(int index, const Value& value);

  // SQLITE_ROW, SQLITE_DONE or an error code.
  int step() { return sqlite3_step(handle()); }
  void reset() {
    sqlite3_reset(handle());
    sqlite3_clear_bindings(handle());
  }

  bool isNull(int column) const { return sqlite3_column_type(handle(), column) == SQLITE_NULL; }
  std::int64_t int64(int column) const { return sqlite3_column_int64(handle(), column); }
  double doubleValue(int column) const { return sqlite3_column_double(handle(), column); }
  std::string_view text(int column) const {
    auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(handle(), column));
    return bytes ? std::string_view(bytes, static_cast<std::size_t>(sqlite3_column_bytes(handle(), column)))
                 : std::string_view();
  }
  Data blob(int column) const;

private:
  struct Finalizer {
    void operator()(sqlite3_stmt* s) const { sqlite3_finalize(s); }
  };
  std::unique_ptr<sqlite3_stmt, Finalizer> _statement;
};

// Resets a cached statement (and clears its bindings) when leaving scope.
class ZBStatementScope {
public:
  explicit ZBStatementScope(ZBSQLiteStatement* statement) : _statement(statement) {}
  ~ZBStatementScope() {
    if (_statement) _statement->reset();
  }
  ZBStatementScope(const ZBStatementScope&) = delete;
  ZBStatementScope& operator=(const ZBStatementScope&) = delete;
  ZBSQLiteStatement* operator->() const { return _statement; }
  explicit operator bool() const { return _statement != nullptr; }

private:
  ZBSQLiteStatement* _statement;
};

class ZBSQLiteDatabase {
public:
  // Opens (creating if asked) the database file. Null and *error on failure.
  static std::unique_ptr<ZBSQLiteDatabase> open(const std::filesystem::path& path, bool create, NSErrorPtr* error);

  sqlite3* handle() const { return _db.get(); }

  // Runs one or more statements without results.
  bool exec(const std::string& sql, NSErrorPtr* error);
  // A prepared statement kept for reuse; null and *error when it does not
  // compile. Use it through a ZBStatementScope.
  ZBSQLiteStatement* cachedStatement(const std::string& sql, NSErrorPtr* error);
  // A statement used once.
  std::unique_ptr<ZBSQLiteStatement> prepare(const std::string& sql, NSErrorPtr* error);
  // Forgets every cached statement (after schema changes).
  void clearStatementCache() { _cache.clear(); }

  // An error in NSCocoaErrorDomain with the given code, describing the last
  // failure of this connection (SQLite's message and result code).
  NSErrorPtr errorWithCode(std::int64_t code, int resultCode, const std::string& what) const;

  std::int64_t lastInsertRowID() const { return sqlite3_last_insert_rowid(handle()); }
  int changes() const { return sqlite3_changes(handle()); }

private:
  struct Closer {
    void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
  };
  std::unique_ptr<sqlite3, Closer> _db;
  std::unordered_map<std::string, std::unique_ptr<ZBSQLiteStatement>> _cache;
};

// BEGIN IMMEDIATE on construction (waiting out other writers up to the busy
// time-out); ROLLBACK on destruction unless commit() succeeded.
class ZBSQLiteTransaction {
public:
  explicit ZBSQLiteTransaction(ZBSQLiteDatabase& db) : _db(db) {}
  ~ZBSQLiteTransaction();
  ZBSQLiteTransaction(const ZBSQLiteTransaction&) = delete;
  ZBSQLiteTransaction& operator=(const ZBSQLiteTransaction&) = delete;

  bool begin(std::int64_t errorCode, NSErrorPtr* error);
  bool commit(std::int64_t errorCode, NSErrorPtr* error);

private:
  ZBSQLiteDatabase& _db;
  bool _open = false;
};

// A store failure that is not SQLite's own, in NSCocoaErrorDomain: code, the
// description for users and, when not empty, the failure reason.
NSErrorPtr ZBStoreError(std::int64_t code, const std::string& description, const std::string& reason);

// "name" with inner quotes doubled: identifiers are always quoted.
std::string ZBSQLQuote(std::string_view identifier);
