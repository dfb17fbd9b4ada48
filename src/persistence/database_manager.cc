#include "persistence/database_manager.h"

#include <sqlite3.h>

#include <filesystem>
#include <mutex>

#include "core/logging.h"
#include "persistence/download_request_store.h"
#include "persistence/filesystem_helper.h"
#include "platform/foundation/format.h"
#include "platform/foundation/kept_aside.h"

namespace sonorell {

namespace {
constexpr uint64_t kCurrentVersion = 1;

// Binds the query's values to a prepared statement.
void bind(sqlite3_stmt* statement, const SqlQuery& query) {
  for (size_t i = 0; i < query.params.size(); ++i) {
    int index = static_cast<int>(i) + 1;
    const SqlValue& value = query.params[i];
    if (auto* n = std::get_if<int64_t>(&value)) {
      sqlite3_bind_int64(statement, index, *n);
    } else if (auto* d = std::get_if<double>(&value)) {
      sqlite3_bind_double(statement, index, *d);
    } else if (auto* s = std::get_if<std::string>(&value)) {
      sqlite3_bind_text(statement, index, s->data(), static_cast<int>(s->size()), SQLITE_TRANSIENT);
    } else {
      sqlite3_bind_null(statement, index);
    }
  }
}
}  // namespace

std::shared_ptr<QSODatabaseManager> QSODatabaseManager::sharedManager() {
  static std::once_flag once;
  // Never destroyed: queued work may still reach it while the process exits.
  static std::shared_ptr<QSODatabaseManager>& manager = *new std::shared_ptr<QSODatabaseManager>();
  std::call_once(once, [] { manager = std::make_shared<QSODatabaseManager>(); });
  return manager;
}

std::string QSODatabaseManager::databasePath() {
  std::string path = FilesystemHelper::metadataDatabasePath().string();
  LogEngineInfo("[QSODatabaseManager] Database Path: %@", path);
  return path;
}

std::string QSODatabaseManager::getVersionQuery() { return "PRAGMA user_version"; }

std::string QSODatabaseManager::setVersionQuery() {
  return stringWithFormat("PRAGMA user_version = %lu", kCurrentVersion);
}

QSODatabaseManager::QSODatabaseManager()
    : databaseQueue_(DispatchQueue::create("io.sonorell.database")) {
  openDatabaseConnection();
}

QSODatabaseManager::~QSODatabaseManager() {
  for (auto& [sql, statement] : statements_) sqlite3_finalize(statement);
  sqlite3_close(database_);
}

sqlite3_stmt* QSODatabaseManager::acquire(const SqlQuery& query) {
  // Values are bound, so a statement's text is the same for every row it writes: keeping the
  // prepared statement saves a parse per call (a whole book is written row by row).
  if (statements_.size() >= 64 && !statements_.count(query.sql)) {
    // Only the "IN (...)" updates vary in text; keep the cache from growing without bound.
    for (auto& [sql, cached] : statements_) sqlite3_finalize(cached);
    statements_.clear();
  }
  sqlite3_stmt*& statement = statements_[query.sql];
  if (!statement) {
    if (sqlite3_prepare_v3(database_, query.sql.c_str(), -1, SQLITE_PREPARE_PERSISTENT, &statement,
                           nullptr) != SQLITE_OK) {
      sqlite3_finalize(statement);
      statements_.erase(query.sql);
      return nullptr;
    }
  }
  bind(statement, query);
  return statement;
}

void QSODatabaseManager::release(sqlite3_stmt* statement) {
  if (!statement) return;
  sqlite3_reset(statement);
  sqlite3_clear_bindings(statement);
}

std::string QSODatabaseManager::errorMessage() const {
  return database_ ? sqlite3_errmsg(database_) : "out of memory";
}

void QSODatabaseManager::openDatabaseConnection() {
  FilesystemHelper::createSupportDirectory();
  const std::string path = databasePath();
  std::error_code absent;
  const bool created = !std::filesystem::exists(path, absent) && !absent;
  if (sqlite3_open(path.c_str(), &database_) != SQLITE_OK) {
    LogEngineError("[QSODatabaseManager] Error opening database: %@", errorMessage());
  }
  // Reading the whole schema finds a file that is not a database and one cut short or damaged
  // where its tables are described; either would fail every statement from now on.
  const int probe = database_ ? sqlite3_exec(database_, "SELECT count(*) FROM sqlite_master",
                                             nullptr, nullptr, nullptr)
                              : SQLITE_OK;
  if (probe == SQLITE_NOTADB || probe == SQLITE_CORRUPT) {
    // Something else is in its place. It may hold data a person wants back, so it is kept
    // beside the new database rather than overwritten.
    sqlite3_close(database_);
    database_ = nullptr;
    const KeptAside kept = keepUnreadableFileAside(path);
    LogEngineError("[QSODatabaseManager] Cannot read %@: %@", path,
                   std::string(sqlite3_errstr(probe)));
    LogEngineError("[QSODatabaseManager] %@ is not a database; kept as %@, starting a new one",
                   path, kept.description());
    if (sqlite3_open(path.c_str(), &database_) != SQLITE_OK) {
      LogEngineError("[QSODatabaseManager] Error opening database: %@", errorMessage());
    }
  }
  if (database_) {
    // Readers and the one writer do not block each other; a crash mid-write loses nothing.
    // Commits are not synced one by one (each chapter makes several): a process killed at any
    // point loses none of them, and what a power cut takes back, start-up verification puts
    // right from the files on disk.
    // A file made just now holds nothing yet: turning it to WAL need not sync it, its directory
    // and a rollback journal (a file cut short by a power cut is kept aside at the next start).
    if (created) sqlite3_exec(database_, "PRAGMA synchronous=OFF", nullptr, nullptr, nullptr);
    sqlite3_exec(database_, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL", nullptr, nullptr,
                 nullptr);
    sqlite3_busy_timeout(database_, 5000);
  }
  usable_ = database_ && versionMigrationAndSetup();
  if (!usable_) {
    LogEngineError("[QSODatabaseManager] Error setting up database: %@", errorMessage());
  }
  // Every chapter query selects one audiobook; without this each one scans the whole table.
  // On the identifier alone, so rows still come back in the order they were stored (rowid).
  // Best effort: a table of another shape simply gets no index.
  sqlite3_exec(database_,
               "CREATE INDEX IF NOT EXISTS chapterStatusByAudiobook ON chapterStatus (audiobookID)",
               nullptr, nullptr, nullptr);
}

bool QSODatabaseManager::vouchesForFiles() const {
  if (!usable_) return false;
  const std::filesystem::path path = databasePath();
  const std::string aside = path.filename().string() + ".unreadable-";
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(path.parent_path(), ec)) {
    if (entry.path().filename().string().starts_with(aside)) return false;
  }
  return !ec;
}

uint64_t QSODatabaseManager::getDatabaseVersion() {
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v2(database_, getVersionQuery().c_str(), -1, &statement, nullptr);
  uint64_t version = 0;
  if (statement && sqlite3_step(statement) == SQLITE_ROW) {
    version = static_cast<uint64_t>(sqlite3_column_int64(statement, 0));
  } else {
    LogEngineError("[QSODatabaseManager] Error getting version: %@", errorMessage());
  }
  sqlite3_finalize(statement);
  return version;
}

bool QSODatabaseManager::setDatabaseVersion() {
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v2(database_, setVersionQuery().c_str(), -1, &statement, nullptr);
  bool done = statement && sqlite3_step(statement) == SQLITE_DONE;
  if (!done) LogEngineError("[QSODatabaseManager] Error setting version: %@", errorMessage());
  sqlite3_finalize(statement);
  return done;
}

bool QSODatabaseManager::versionMigrationAndSetup() {
  uint64_t version = getDatabaseVersion();
  if (version == kCurrentVersion) {
    LogEngineVerbose("[QSODatabaseManager] Database version %lu is current version, no migration",
                     kCurrentVersion);
    return true;
  }
  if (version == 0) {
    LogEngineVerbose("[QSODatabaseManager] Database version %lu. New database, no migration",
                     uint64_t{0});
    if (!createTables()) {
      LogEngineError("[QSODatabaseManager] Error creating database tables: %@", errorMessage());
      return false;
    }
    return true;
  }
  // One schema only: any other number is simply re-stamped.
  LogEngineVerbose("[QSODatabaseManager] Database migration from %lu to %lu", version,
                   kCurrentVersion);
  setDatabaseVersion();
  return true;
}

bool QSODatabaseManager::createTables() {
  bool ok = true;
  for (const SqlQuery& query :
       {QSODownloadRequestDatabaseHelper::createTableQuery(),
        QSOAudiobookStatus::createTableQuery(), QSOChapterStatus::createTableQuery()}) {
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(database_, query.sql.c_str(), -1, &statement, nullptr);
    if (!statement || sqlite3_step(statement) != SQLITE_DONE) {
      LogEngineError("[QSODatabaseManager] Error creating table: %@", errorMessage());
      ok = false;
    }
    sqlite3_finalize(statement);
  }
  bool stamped = setDatabaseVersion();
  return ok && stamped;
}

bool QSODatabaseManager::write(const SqlQuery& query, std::string_view logFormat,
                               std::string_view errorFormat) {
  LogEngineVerbose(logFormat, query.text);
  sqlite3_stmt* statement = acquire(query);
  bool done = statement && sqlite3_step(statement) == SQLITE_DONE;
  if (!done) LogEngineError(errorFormat, errorMessage());
  release(statement);
  return done;
}

bool QSODatabaseManager::queuedWrite(const SqlQuery& query, std::string_view logFormat,
                                     std::string_view errorFormat) {
  bool done = false;
  databaseQueue_->sync([&] { done = write(query, logFormat, errorFormat); });
  return done;
}

template <class T, class Reader>
std::vector<T> QSODatabaseManager::read(const SqlQuery& query, Reader reader) {
  std::vector<T> rows;
  databaseQueue_->sync([&] {
    LogEngineVerbose("Get query: %@", query.text);
    sqlite3_stmt* statement = acquire(query);
    if (statement) {
      for (int step = sqlite3_step(statement); step == SQLITE_ROW; step = sqlite3_step(statement)) {
        auto row = reader(SqlRow(statement));
        if (!row) continue;  // a row the record class cannot read is skipped
        if constexpr (std::is_same_v<decltype(row), T>) {
          rows.push_back(std::move(row));
        } else {
          rows.push_back(std::move(*row));
        }
      }
    }
    release(statement);
  });
  return rows;
}

namespace {
// Describes fetched rows for the log only when the line is formatted (nobody may be listening).
template <class T>
struct Fetched {
  const std::vector<T>& rows;
  std::string description() const {
    std::string out = "(\n";
    for (size_t i = 0; i < rows.size(); ++i) {
      if constexpr (std::is_same_v<T, std::string>) {
        out += "    " + rows[i];
      } else if constexpr (requires { rows[i]->description(); }) {
        out += "    " + rows[i]->description();
      } else {
        out += "    " + rows[i].description();
      }
      out += i + 1 < rows.size() ? ",\n" : "\n";
    }
    return out + ")";
  }
};
template <class T>
Fetched(const std::vector<T>&) -> Fetched<T>;

std::optional<std::string> firstColumnText(const SqlRow& row) { return row.text(0); }
}  // namespace

bool QSODatabaseManager::insertRequest(const QSODownloadRequest& request) {
  return queuedWrite(QSODownloadRequestDatabaseHelper::insertQuery(request), "Insert query: %@",
                     "[QSODatabaseManager] Error inserting request: %@");
}

std::vector<QSODownloadRequest> QSODatabaseManager::getRequests() {
  auto rows = read<QSODownloadRequest>(QSODownloadRequestDatabaseHelper::getAllQuery(),
                                       QSODownloadRequestDatabaseHelper::initWithStatement);
  LogEngineVerbose("Fetched a thing: %@", Fetched{rows});
  return rows;
}

std::optional<QSODownloadRequest> QSODatabaseManager::getRequestForIdentifier(
    const std::string& identifier) {
  auto rows =
      read<QSODownloadRequest>(QSODownloadRequestDatabaseHelper::getWithIdentifierQuery(identifier),
                               QSODownloadRequestDatabaseHelper::initWithStatement);
  std::optional<QSODownloadRequest> first;
  if (!rows.empty()) first = rows.front();
  LogEngineVerbose("Fetched a thing: %@", first);
  return first;
}

bool QSODatabaseManager::deleteRequestForIdentifier(const std::string& identifier) {
  return queuedWrite(QSODownloadRequestDatabaseHelper::deleteWithIdentifierQuery(identifier),
                     "delete query: %@", "[QSODatabaseManager] Error deleting request: %@");
}

bool QSODatabaseManager::insertAudiobookStatus(const QSOAudiobookStatus& status) {
  return queuedWrite(QSOAudiobookStatus::insertQuery(status), "Insert query: %@",
                     "[QSODatabaseManager] Error inserting audiobook status: %@");
}

std::vector<std::string> QSODatabaseManager::getAllAudiobookIdentifiers() {
  auto rows = read<std::string>(QSOAudiobookStatus::getAllIdentifiersQuery(), firstColumnText);
  LogEngineVerbose("Fetched a thing: %@", Fetched{rows});
  return rows;
}

std::vector<QSOAudiobookStatusPtr> QSODatabaseManager::getAllAudiobookStatuses() {
  auto rows = read<QSOAudiobookStatusPtr>(QSOAudiobookStatus::getAllQuery(),
                                          QSOAudiobookStatus::initWithStatement);
  LogEngineVerbose("Fetched a thing: %@", Fetched{rows});
  return rows;
}

std::vector<std::string> QSODatabaseManager::getAudiobookIdentifiersForDownloadStatus(
    uint64_t status) {
  auto rows = read<std::string>(
      QSOAudiobookStatus::getWithDownloadStatusAudiobookIdentifierQuery(status), firstColumnText);
  LogEngineVerbose("Fetched a thing: %@", Fetched{rows});
  return rows;
}

QSOAudiobookStatusPtr QSODatabaseManager::getAudiobookStatusForIdentifier(
    const std::string& identifier) {
  auto rows = read<QSOAudiobookStatusPtr>(
      QSOAudiobookStatus::getWithAudiobookIdentifierIdentifierQuery(identifier),
      QSOAudiobookStatus::initWithStatement);
  QSOAudiobookStatusPtr first = rows.empty() ? nullptr : rows.front();
  LogEngineVerbose("Fetched a thing: %@", first);
  return first;
}

bool QSODatabaseManager::deleteAudiobookStatusForIdentifier(const std::string& identifier) {
  return queuedWrite(QSOAudiobookStatus::deleteWithAudiobookIdentifierQuery(identifier),
                     "delete query: %@",
                     "[QSODatabaseManager] Error deleting audiobook status: %@");
}

bool QSODatabaseManager::performUpdates(const std::vector<SqlQuery>& assignments,
                                        const std::string& audiobookIdentifier) {
  return queuedWrite(QSOAudiobookStatus::updateQueryProperties(assignments, audiobookIdentifier),
                     "update query: %@",
                     "[QSODatabaseManager] Error updating audiobook status: %@");
}

bool QSODatabaseManager::insertChapterStatuses(const std::vector<QSOChapterStatusPtr>& statuses) {
  bool result = true;
  databaseQueue_->sync([&] {
    char* error = nullptr;
    LogEngineVerbose("Transaction query: %@", "BEGIN TRANSACTION");
    if (sqlite3_exec(database_, "BEGIN TRANSACTION", nullptr, nullptr, &error) != SQLITE_OK) {
      LogEngineError("Error beginning insert transaction: %@", error);
      sqlite3_free(error);
      result = false;
      return;
    }
    // A failed row does not stop the others: the good rows are committed (no rollback).
    for (const auto& status : statuses) {
      if (!status || !insertChapterStatus(*status)) result = false;
    }
    LogEngineVerbose("Transaction query: %@", "COMMIT TRANSACTION");
    if (sqlite3_exec(database_, "COMMIT TRANSACTION", nullptr, nullptr, &error) != SQLITE_OK) {
      LogEngineError("Error committing insert transaction: %@", error);
      sqlite3_free(error);
      result = false;
    }
  });
  return result;
}

bool QSODatabaseManager::insertChapterStatus(const QSOChapterStatus& status) {
  return write(QSOChapterStatus::insertQuery(status), "Insert query: %@",
               "[QSODatabaseManager] Error inserting chapter status: %@");
}

std::vector<QSOChapterStatusPtr> QSODatabaseManager::getAllChapterStatusesForAudiobookIdentifier(
    const std::string& identifier) {
  auto rows =
      read<QSOChapterStatusPtr>(QSOChapterStatus::getAllForAudiobookIdentifierQuery(identifier),
                                QSOChapterStatus::initWithStatement);
  LogEngineVerbose("Fetched a thing: %@", Fetched{rows});
  return rows;
}

QSOChapterStatusPtr QSODatabaseManager::getChapterStatusForChapterDescription(
    const QSOChapterDescription& chapter) {
  auto rows =
      read<QSOChapterStatusPtr>(QSOChapterStatus::getForChapterChapterDescriptionQuery(chapter),
                                QSOChapterStatus::initWithStatement);
  QSOChapterStatusPtr first = rows.empty() ? nullptr : rows.front();
  LogEngineVerbose("Fetched a thing: %@", first);
  return first;
}

bool QSODatabaseManager::deleteChapterStatusesForAudiobookIdentifier(
    const std::string& identifier) {
  return queuedWrite(QSOChapterStatus::deleteAllForAudiobookIdentifierQuery(identifier),
                     "delete query: %@", "[QSODatabaseManager] Error deleting chapter status: %@");
}

bool QSODatabaseManager::performUpdates(const std::vector<SqlQuery>& assignments,
                                        const QSOChapterDescription& chapter) {
  return queuedWrite(QSOChapterStatus::updateQueryProperties(assignments, chapter),
                     "update query: %@", "[QSODatabaseManager] Error updating chapter status: %@");
}

bool QSODatabaseManager::performChapterUpdates(const std::vector<SqlQuery>& assignments,
                                               const std::string& audiobookIdentifier) {
  return queuedWrite(QSOChapterStatus::updateQueryProperties(assignments, audiobookIdentifier),
                     "update query: %@", "[QSODatabaseManager] Error updating chapter status: %@");
}

bool QSODatabaseManager::performChapterUpdates(const std::vector<SqlQuery>& assignments,
                                               const std::vector<uint64_t>& chapterIdentifiers) {
  return queuedWrite(QSOChapterStatus::updateQueryProperties(assignments, chapterIdentifiers),
                     "update query: %@", "[QSODatabaseManager] Error updating chapter status: %@");
}

bool QSODatabaseManager::deleteAll() {
  bool ok = true;
  databaseQueue_->sync([&] {
    for (std::string_view table : {"downloadRequests", "audiobookStatus", "chapterStatus"}) {
      if (!write(sqlFormat("DELETE FROM %@", SqlName{table}), "delete query: %@",
                 "[QSODatabaseManager] Error delete table contents: %@")) {
        ok = false;
      }
    }
  });
  return ok;
}

}  // namespace sonorell
