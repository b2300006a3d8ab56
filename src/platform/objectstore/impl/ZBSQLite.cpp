#include "platform/objectstore/impl/ZBSQLite.h"

const std::string NSSQLiteErrorDomain = "NSSQLiteErrorDomain";

void ZBSQLiteStatement::bindValue(int index, const Value& value) {
  switch (value.type()) {
    case Value::Type::Bool: bindInt64(index, value.boolValue() ? 1 : 0); break;
    case Value::Type::Integer: bindInt64(index, value.integerValue()); break;
    case Value::Type::Double: bindDouble(index, value.doubleValue()); break;
    case Value::Type::String: bindText(index, value.asString()); break;
    case Value::Type::Date: bindDouble(index, value.asDate().timeIntervalSinceReferenceDate()); break;
    case Value::Type::Data: bindBlob(index, value.asData().data(), value.asData().size()); break;
    default: bindNull(index); break;
  }
}

Data ZBSQLiteStatement::blob(int column) const {
  auto* bytes = static_cast<const std::uint8_t*>(sqlite3_column_blob(handle(), column));
  int size = sqlite3_column_bytes(handle(), column);
  if (!bytes || size <= 0) return Data();
  return Data(bytes, bytes + size);
}

std::unique_ptr<ZBSQLiteDatabase> ZBSQLiteDatabase::open(const std::filesystem::path& path, bool create,
                                                         NSErrorPtr* error) {
  sqlite3* raw = nullptr;
  int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | (create ? SQLITE_OPEN_CREATE : 0);
  int rc = sqlite3_open_v2(path.c_str(), &raw, flags, nullptr);
  auto db = std::make_unique<ZBSQLiteDatabase>();
  db->_db.reset(raw);
  if (rc != SQLITE_OK) {
    ZBSetError(error, db->errorWithCode(NSPersistentStoreOpenError, rc, "cannot open " + path.string()));
    return nullptr;
  }
  sqlite3_extended_result_codes(raw, 1);
  return db;
}

bool ZBSQLiteDatabase::exec(const std::string& sql, NSErrorPtr* error) {
  int rc = sqlite3_exec(handle(), sql.c_str(), nullptr, nullptr, nullptr);
  if (rc == SQLITE_OK) return true;
  return ZBSetError(error, errorWithCode(NSSQLiteError, rc, sql));
}

ZBSQLiteStatement* ZBSQLiteDatabase::cachedStatement(const std::string& sql, NSErrorPtr* error) {
  auto it = _cache.find(sql);
  if (it != _cache.end()) return it->second.get();
  auto statement = prepare(sql, error);
  if (!statement) return nullptr;
  return _cache.emplace(sql, std::move(statement)).first->second.get();
}

std::unique_ptr<ZBSQLiteStatement> ZBSQLiteDatabase::prepare(const std::string& sql, NSErrorPtr* error) {
  sqlite3_stmt* raw = nullptr;
  int rc = sqlite3_prepare_v3(handle(), sql.data(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT, &raw,
                              nullptr);
  if (rc != SQLITE_OK || !raw) {
    if (raw) sqlite3_finalize(raw);
    ZBSetError(error, errorWithCode(NSSQLiteError, rc, sql));
    return nullptr;
  }
  return std::make_unique<ZBSQLiteStatement>(raw);
}

NSErrorPtr ZBSQLiteDatabase::errorWithCode(std::int64_t code, int resultCode, const std::string& what) const {
  std::string message = handle() ? sqlite3_errmsg(handle()) : sqlite3_errstr(resultCode);
  Dictionary info{
      {NSLocalizedDescriptionKey, Value("The operation couldn’t be completed. (" + message + ")")},
      {NSLocalizedFailureReasonErrorKey, Value(message + " (" + what + ")")},
      {NSSQLiteErrorDomain, Value(static_cast<std::int64_t>(resultCode))},
  };
  return NSError::create(NSCocoaErrorDomain, code, std::move(info));
}

NSErrorPtr ZBStoreError(std::int64_t code, const std::string& description, const std::string& reason) {
  Dictionary info{{NSLocalizedDescriptionKey, Value(description)}};
  if (!reason.empty()) info.set(NSLocalizedFailureReasonErrorKey, Value(reason));
  return NSError::create(NSCocoaErrorDomain, code, std::move(info));
}

namespace {
// Runs one statement of a transaction's bracket; false and *error (code
// errorCode) when SQLite refuses it.
bool execBracket(ZBSQLiteDatabase& db, const char* sql, std::int64_t errorCode, NSErrorPtr* error) {
  int rc = sqlite3_exec(db.handle(), sql, nullptr, nullptr, nullptr);
  if (rc != SQLITE_OK) return ZBSetError(error, db.errorWithCode(errorCode, rc, sql));
  return true;
}
}  // namespace

ZBSQLiteTransaction::~ZBSQLiteTransaction() {
  if (_open) sqlite3_exec(_db.handle(), "ROLLBACK", nullptr, nullptr, nullptr);
}

bool ZBSQLiteTransaction::begin(std::int64_t errorCode, NSErrorPtr* error) {
  if (!execBracket(_db, "BEGIN IMMEDIATE", errorCode, error)) return false;
  _open = true;
  return true;
}

bool ZBSQLiteTransaction::commit(std::int64_t errorCode, NSErrorPtr* error) {
  if (!execBracket(_db, "COMMIT", errorCode, error)) return false;
  _open = false;
  return true;
}

std::string ZBSQLQuote(std::string_view identifier) {
  std::string quoted = "\"";
  for (char c : identifier) {
    if (c == '"') quoted += '"';
    quoted += c;
  }
  quoted += '"';
  return quoted;
}
