#include "persistence/store_connection.h"

#include <sqlite3.h>

#include <utility>

namespace sonorell {

StoreStatement::StoreStatement(sqlite3* db, sqlite3_stmt* statement, bool owned)
    : db_(db), statement_(statement), owned_(owned), ok_(statement != nullptr) {}

StoreStatement::StoreStatement(StoreStatement&& other) noexcept
    : db_(other.db_), statement_(other.statement_), owned_(other.owned_), ok_(other.ok_) {
  other.statement_ = nullptr;
}

StoreStatement::~StoreStatement() {
  if (statement_ == nullptr) return;
  if (owned_) {
    sqlite3_finalize(statement_);
  } else {
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
  }
}

void StoreStatement::bind(const std::vector<StoredValue>& values) {
  for (size_t i = 0; i < values.size(); ++i) bind(static_cast<int>(i + 1), values[i]);
}

void StoreStatement::bind(int index, const StoredValue& value) {
  if (statement_ == nullptr) return;
  int rc = SQLITE_OK;
  if (const auto* n = std::get_if<int64_t>(&value)) {
    rc = sqlite3_bind_int64(statement_, index, *n);
  } else if (const auto* s = std::get_if<std::string>(&value)) {
    rc = sqlite3_bind_text(statement_, index, s->data(), static_cast<int>(s->size()),
                           SQLITE_TRANSIENT);
  } else if (const auto* b = std::get_if<StoredBytes>(&value)) {
    // A zero-length blob, not NULL: an empty list is stored, just empty.
    static const uint8_t kNothing = 0;
    rc = sqlite3_bind_blob(statement_, index, b->empty() ? &kNothing : b->data(),
                           static_cast<int>(b->size()), SQLITE_TRANSIENT);
  } else {
    rc = sqlite3_bind_null(statement_, index);
  }
  if (rc != SQLITE_OK) ok_ = false;
}

bool StoreStatement::step() {
  if (statement_ == nullptr || !ok_) return false;
  int rc = sqlite3_step(statement_);
  if (rc == SQLITE_ROW) return true;
  if (rc != SQLITE_DONE) ok_ = false;
  return false;
}

std::string StoreStatement::error() const { return db_ ? sqlite3_errmsg(db_) : "no connection"; }

StoredValue StoreStatement::column(int index) const {
  switch (sqlite3_column_type(statement_, index)) {
    case SQLITE_INTEGER:
      return sqlite3_column_int64(statement_, index);
    case SQLITE_FLOAT:
      return static_cast<int64_t>(sqlite3_column_double(statement_, index));
    case SQLITE_TEXT: {
      const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement_, index));
      return std::string(text, static_cast<size_t>(sqlite3_column_bytes(statement_, index)));
    }
    case SQLITE_BLOB: {
      const auto* bytes = static_cast<const uint8_t*>(sqlite3_column_blob(statement_, index));
      int size = sqlite3_column_bytes(statement_, index);
      return bytes ? StoredBytes(bytes, bytes + size) : StoredBytes{};
    }
    default:
      return std::monostate{};
  }
}

int64_t StoreStatement::int64(int index) const { return sqlite3_column_int64(statement_, index); }

std::unique_ptr<StoreConnection> StoreConnection::open(const std::filesystem::path& path,
                                                       std::string* error, bool* notADatabase) {
  if (notADatabase) *notADatabase = false;
  sqlite3* db = nullptr;
  int rc = sqlite3_open_v2(
      path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  if (rc != SQLITE_OK) {
    if (error) *error = db ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
    sqlite3_close(db);
    return nullptr;
  }
  std::unique_ptr<StoreConnection> connection(new StoreConnection(db));
  // WAL lets readers of other processes (and the next launch after a kill) see a consistent file;
  // NORMAL is WAL's safe level (a commit can be lost on power failure, the file never corrupts).
  // The journal pragma is also the first read of the file, so a file that is not a database
  // fails here; reading the whole schema finds one cut short or damaged where its tables are
  // described.
  if (!connection->exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; "
                        "PRAGMA foreign_keys=ON; SELECT count(*) FROM sqlite_master;",
                        error)) {
    const int code = connection->errorCode() & 0xff;
    if (notADatabase) *notADatabase = code == SQLITE_NOTADB || code == SQLITE_CORRUPT;
    return nullptr;
  }
  sqlite3_busy_timeout(db, 5000);
  return connection;
}

StoreConnection::~StoreConnection() {
  for (auto& [sql, statement] : statements_) sqlite3_finalize(statement);
  sqlite3_close(db_);
}

bool StoreConnection::exec(std::string_view sql, std::string* error) {
  char* message = nullptr;
  std::string text(sql);
  int rc = sqlite3_exec(db_, text.c_str(), nullptr, nullptr, &message);
  if (rc != SQLITE_OK) {
    if (error) *error = message ? message : sqlite3_errstr(rc);
    sqlite3_free(message);
    return false;
  }
  return true;
}

StoreStatement StoreConnection::cached(const std::string& sql) {
  auto it = statements_.find(sql);
  if (it != statements_.end()) return StoreStatement(db_, it->second, false);
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
    return StoreStatement(db_, nullptr, false);
  }
  statements_.emplace(sql, statement);
  return StoreStatement(db_, statement, false);
}

StoreStatement StoreConnection::prepare(const std::string& sql) {
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
    sqlite3_finalize(statement);
    return StoreStatement(db_, nullptr, true);
  }
  return StoreStatement(db_, statement, true);
}

int64_t StoreConnection::lastInsertRowID() const { return sqlite3_last_insert_rowid(db_); }

std::string StoreConnection::errorMessage() const { return sqlite3_errmsg(db_); }

int StoreConnection::errorCode() const { return sqlite3_errcode(db_); }

}  // namespace sonorell
