#include "platform/net/transfer_journal.h"

#include <sqlite3.h>

#include <nlohmann/json.hpp>
#include <utility>

#include "platform/net/transfer_log.h"

namespace sonorell {
namespace {

constexpr const char* kSchema = R"sql(
CREATE TABLE IF NOT EXISTS sessions(
  identifier TEXT PRIMARY KEY,
  allows_cellular INTEGER NOT NULL,
  maximum_connections INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS tasks(
  session TEXT NOT NULL,
  task_id INTEGER NOT NULL,
  description TEXT NOT NULL DEFAULT '',
  url TEXT NOT NULL,
  request_headers TEXT NOT NULL,
  timeout_ms INTEGER NOT NULL,
  state INTEGER NOT NULL,
  phase INTEGER NOT NULL DEFAULT 0,
  file TEXT NOT NULL,
  validator TEXT NOT NULL DEFAULT '',
  expected INTEGER NOT NULL DEFAULT -1,
  status INTEGER NOT NULL DEFAULT 0,
  response_headers TEXT NOT NULL DEFAULT '[]',
  received INTEGER NOT NULL DEFAULT 0,
  error_domain TEXT NOT NULL DEFAULT '',
  error_code INTEGER NOT NULL DEFAULT 0,
  error_text TEXT NOT NULL DEFAULT '',
  PRIMARY KEY(session, task_id));
)sql";

std::string headersToJSON(const HttpHeaders& headers) {
  nlohmann::json array = nlohmann::json::array();
  for (const auto& [name, value] : headers) array.push_back({name, value});
  return array.dump();
}

HttpHeaders headersFromJSON(const std::string& text) {
  HttpHeaders headers;
  auto array = nlohmann::json::parse(text, nullptr, false);
  if (!array.is_array()) return headers;
  for (const auto& pair : array) {
    if (pair.is_array() && pair.size() == 2 && pair[0].is_string() && pair[1].is_string()) {
      headers.emplace_back(pair[0].get<std::string>(), pair[1].get<std::string>());
    }
  }
  return headers;
}

std::string text(sqlite3_stmt* statement, int column) {
  const auto* bytes = sqlite3_column_text(statement, column);
  return bytes ? std::string(reinterpret_cast<const char*>(bytes),
                             static_cast<size_t>(sqlite3_column_bytes(statement, column)))
               : std::string();
}

// One of the journal's prepared statements with values bound for one use; reset (and kept for
// the next use) when it goes out of scope. Used with the journal's mutex held.
class Statement {
 public:
  Statement(sqlite3* db, sqlite3_stmt* statement) : db_(db), statement_(statement) {}
  ~Statement() {
    if (statement_) {
      sqlite3_reset(statement_);
      sqlite3_clear_bindings(statement_);
    }
  }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  Statement& bind(const std::string& value) {
    if (statement_) {
      sqlite3_bind_text(statement_, ++index_, value.data(), static_cast<int>(value.size()),
                        SQLITE_TRANSIENT);
    }
    return *this;
  }
  Statement& bind(int64_t value) {
    if (statement_) sqlite3_bind_int64(statement_, ++index_, value);
    return *this;
  }
  // Steps once; true for a row.
  bool row() { return statement_ && sqlite3_step(statement_) == SQLITE_ROW; }
  bool run() {
    if (!statement_) return false;
    int rc = sqlite3_step(statement_);
    if (rc != SQLITE_DONE && rc != SQLITE_ROW) {
      transfer_log::error("[TransferJournal] write failed: %s", sqlite3_errmsg(db_));
      return false;
    }
    return true;
  }
  sqlite3_stmt* get() const { return statement_; }

 private:
  sqlite3* db_;
  sqlite3_stmt* statement_;
  int index_ = 0;
};

}  // namespace

std::unique_ptr<TransferJournal> TransferJournal::open(const std::filesystem::path& file,
                                                       ErrorPtr* error, bool* notADatabase,
                                                       FreeSpaceProbe freeSpace) {
  if (notADatabase) *notADatabase = false;
  std::error_code ec;
  const bool created = !std::filesystem::exists(file, ec) && !ec;
  sqlite3* db = nullptr;
  int rc =
      sqlite3_open_v2(file.c_str(), &db,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX, nullptr);
  if (rc != SQLITE_OK) {
    if (error) {
      *error =
          Error::make(std::string(kPOSIXErrorDomain), EIO,
                      std::string("cannot open transfer journal: ") + sqlite3_errstr(rc), nullptr);
    }
    sqlite3_close(db);
    return nullptr;
  }
  sqlite3_busy_timeout(db, 5000);
  std::unique_ptr<TransferJournal> journal(new TransferJournal(
      db, file.parent_path(), freeSpace ? std::move(freeSpace) : freeSpaceOnFileSystem));
  // WAL with NORMAL sync: a commit survives the process being killed at any instant. logGrew
  // decides when the log is checkpointed, and the file is cut back to 256 kB after each
  // checkpoint. The pragmas are the first read of the file and the schema reads all of its
  // description, so a file that is not a database, or is damaged there, fails here.
  // A file made just now holds nothing yet: turning it to WAL need not sync it, its directory
  // and a rollback journal (a file cut short by a power cut is kept aside like any damaged one).
  if ((created && !journal->exec("PRAGMA synchronous=OFF")) ||
      !journal->exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; "
                     "PRAGMA journal_size_limit=262144;") ||
      !journal->exec(kSchema)) {
    const int code = sqlite3_errcode(db) & 0xff;
    if (notADatabase) *notADatabase = code == SQLITE_NOTADB || code == SQLITE_CORRUPT;
    if (error) {
      *error = Error::make(std::string(kPOSIXErrorDomain), EIO,
                           std::string("cannot set up transfer journal: ") + sqlite3_errmsg(db),
                           nullptr);
    }
    return nullptr;
  }
  if (sqlite3_stmt* pageSize = nullptr;
      sqlite3_prepare_v2(db, "PRAGMA page_size", -1, &pageSize, nullptr) == SQLITE_OK) {
    if (sqlite3_step(pageSize) == SQLITE_ROW)
      journal->pageSize_ = sqlite3_column_int64(pageSize, 0);
    sqlite3_finalize(pageSize);
  }
  sqlite3_wal_hook(db, &TransferJournal::logGrew, journal.get());
  return journal;
}

int TransferJournal::logGrew(void* context, sqlite3* db, const char*, int pages) {
  // A checkpoint syncs the log and the file while every writer waits, the transfer loop among
  // them: at every 256 kB that was a dozen checkpoints and about 10 ms for a 60-chapter book.
  // So the log may grow to SQLite's usual 4 MB, except on a disk so nearly full that those
  // megabytes are room a chapter needs.
  constexpr int64_t kShortLog = 256 << 10;
  constexpr int64_t kLongLog = 4 << 20;
  constexpr uint64_t kNearlyFull = 64 << 20;
  const auto* journal = static_cast<const TransferJournal*>(context);
  const int64_t bytes = int64_t{pages} * journal->pageSize_;
  if (bytes < kShortLog) return SQLITE_OK;
  if (bytes < kLongLog) {
    const auto free = journal->freeSpace_(journal->directory_);
    if (free && *free >= kNearlyFull) return SQLITE_OK;
  }
  // Passive, as SQLite's own automatic checkpoint: readers are not waited for.
  sqlite3_wal_checkpoint_v2(db, nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
  return SQLITE_OK;
}

TransferJournal::~TransferJournal() {
  for (auto& [sql, statement] : statements_) sqlite3_finalize(statement);
  sqlite3_close(db_);
}

sqlite3_stmt* TransferJournal::prepared(const char* sql) {
  // Every statement's text is fixed and its values bound, so one preparation serves every use:
  // a chapter's transfer writes the journal half a dozen times.
  if (auto it = statements_.find(sql); it != statements_.end()) return it->second;
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) !=
      SQLITE_OK) {
    transfer_log::error("[TransferJournal] prepare failed: %s", sqlite3_errmsg(db_));
    sqlite3_finalize(statement);
    return nullptr;
  }
  statements_.emplace(sql, statement);
  return statement;
}

bool TransferJournal::exec(const char* sql) {
  char* message = nullptr;
  if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) != SQLITE_OK) {
    transfer_log::error("[TransferJournal] %s", message ? message : "exec failed");
    sqlite3_free(message);
    return false;
  }
  return true;
}

std::vector<JournalTask> TransferJournal::adoptSession(
    const TransferSessionConfiguration& configuration) {
  std::lock_guard lock(mutex_);
  Statement(db_, prepared("INSERT INTO sessions(identifier, allows_cellular, maximum_connections) "
                          "VALUES(?, ?, ?) ON CONFLICT(identifier) DO UPDATE SET "
                          "allows_cellular = excluded.allows_cellular, "
                          "maximum_connections = excluded.maximum_connections"))
      .bind(configuration.identifier)
      .bind(int64_t{configuration.allowsCellularAccess})
      .bind(int64_t{configuration.maximumConnections})
      .run();
  std::vector<JournalTask> tasks;
  Statement select(db_,
                   prepared("SELECT task_id, description, url, request_headers, timeout_ms, state, "
                            "phase, file, validator, expected, status, response_headers, received, "
                            "error_domain, error_code, error_text FROM tasks WHERE session = ? "
                            "ORDER BY task_id"));
  select.bind(configuration.identifier);
  while (select.row()) {
    sqlite3_stmt* s = select.get();
    JournalTask task;
    task.session = configuration.identifier;
    task.taskId = static_cast<uint64_t>(sqlite3_column_int64(s, 0));
    task.description = text(s, 1);
    task.request.url = text(s, 2);
    task.request.headers = headersFromJSON(text(s, 3));
    task.request.timeout = std::chrono::milliseconds(sqlite3_column_int64(s, 4));
    task.state = static_cast<TransferTaskState>(sqlite3_column_int(s, 5));
    task.phase = static_cast<TransferPhase>(sqlite3_column_int(s, 6));
    task.file = text(s, 7);
    task.validator = text(s, 8);
    task.expected = sqlite3_column_int64(s, 9);
    task.response.statusCode = static_cast<long>(sqlite3_column_int64(s, 10));
    task.response.headers = headersFromJSON(text(s, 11));
    task.response.expectedContentLength = task.expected;
    task.received = sqlite3_column_int64(s, 12);
    if (std::string domain = text(s, 13); !domain.empty()) {
      task.error = Error::make(domain, sqlite3_column_int64(s, 14), text(s, 15), nullptr);
    }
    tasks.push_back(std::move(task));
  }
  return tasks;
}

void TransferJournal::removeSession(const std::string& identifier) {
  std::lock_guard lock(mutex_);
  Statement(db_, prepared("DELETE FROM tasks WHERE session = ?")).bind(identifier).run();
  Statement(db_, prepared("DELETE FROM sessions WHERE identifier = ?")).bind(identifier).run();
}

uint64_t TransferJournal::nextTaskId(const std::string& session) {
  std::lock_guard lock(mutex_);
  Statement select(db_,
                   prepared("SELECT COALESCE(MAX(task_id), 0) + 1 FROM tasks WHERE session = ?"));
  select.bind(session);
  return select.row() ? static_cast<uint64_t>(sqlite3_column_int64(select.get(), 0)) : 1;
}

bool TransferJournal::insertTask(const JournalTask& task) {
  std::lock_guard lock(mutex_);
  return Statement(db_, prepared("INSERT OR REPLACE INTO tasks(session, task_id, description, url, "
                                 "request_headers, timeout_ms, state, phase, file) "
                                 "VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?)"))
      .bind(task.session)
      .bind(static_cast<int64_t>(task.taskId))
      .bind(task.description)
      .bind(task.request.url)
      .bind(headersToJSON(task.request.headers))
      .bind(static_cast<int64_t>(task.request.timeout.count()))
      .bind(static_cast<int64_t>(task.state))
      .bind(static_cast<int64_t>(task.phase))
      .bind(task.file.string())
      .run();
}

void TransferJournal::setDescription(const std::string& session, uint64_t taskId,
                                     const std::string& description) {
  std::lock_guard lock(mutex_);
  Statement(db_, prepared("UPDATE tasks SET description = ? WHERE session = ? AND task_id = ?"))
      .bind(description)
      .bind(session)
      .bind(static_cast<int64_t>(taskId))
      .run();
}

void TransferJournal::setState(const std::string& session, uint64_t taskId,
                               TransferTaskState state) {
  std::lock_guard lock(mutex_);
  Statement(db_, prepared("UPDATE tasks SET state = ? WHERE session = ? AND task_id = ?"))
      .bind(static_cast<int64_t>(state))
      .bind(session)
      .bind(static_cast<int64_t>(taskId))
      .run();
}

void TransferJournal::setPartial(const std::string& session, uint64_t taskId,
                                 const std::string& validator, int64_t expected) {
  std::lock_guard lock(mutex_);
  Statement(db_, prepared("UPDATE tasks SET phase = ?, validator = ?, expected = ? "
                          "WHERE session = ? AND task_id = ?"))
      .bind(static_cast<int64_t>(validator.empty() ? TransferPhase::kPending
                                                   : TransferPhase::kPartial))
      .bind(validator)
      .bind(expected)
      .bind(session)
      .bind(static_cast<int64_t>(taskId))
      .run();
}

void TransferJournal::restartFromZero(const std::string& session, uint64_t taskId) {
  setPartial(session, taskId, "", -1);
}

void TransferJournal::setDownloaded(const JournalTask& task) {
  std::lock_guard lock(mutex_);
  Statement(db_,
            prepared("UPDATE tasks SET state = ?, phase = ?, status = ?, response_headers = ?, "
                     "received = ?, expected = ? WHERE session = ? AND task_id = ?"))
      .bind(static_cast<int64_t>(TransferTaskState::kCompleted))
      .bind(static_cast<int64_t>(TransferPhase::kDownloaded))
      .bind(static_cast<int64_t>(task.response.statusCode))
      .bind(headersToJSON(task.response.headers))
      .bind(task.received)
      .bind(task.expected)
      .bind(task.session)
      .bind(static_cast<int64_t>(task.taskId))
      .run();
}

void TransferJournal::setFailed(const std::string& session, uint64_t taskId,
                                const ErrorPtr& error) {
  std::lock_guard lock(mutex_);
  Statement(db_,
            prepared("UPDATE tasks SET state = ?, phase = ?, error_domain = ?, error_code = ?, "
                     "error_text = ? WHERE session = ? AND task_id = ?"))
      .bind(static_cast<int64_t>(TransferTaskState::kCompleted))
      .bind(static_cast<int64_t>(TransferPhase::kFailed))
      .bind(error ? error->domain : std::string(kURLLoadingErrorDomain))
      .bind(error ? error->code : int64_t{kURLErrorUnknown})
      .bind(error ? error->localizedDescription() : std::string())
      .bind(session)
      .bind(static_cast<int64_t>(taskId))
      .run();
}

void TransferJournal::removeTask(const std::string& session, uint64_t taskId) {
  std::lock_guard lock(mutex_);
  Statement(db_, prepared("DELETE FROM tasks WHERE session = ? AND task_id = ?"))
      .bind(session)
      .bind(static_cast<int64_t>(taskId))
      .run();
}

std::vector<std::filesystem::path> TransferJournal::referencedFiles() {
  std::lock_guard lock(mutex_);
  std::vector<std::filesystem::path> files;
  Statement select(db_, prepared("SELECT file FROM tasks"));
  while (select.row()) files.emplace_back(text(select.get(), 0));
  return files;
}

std::vector<std::filesystem::path> TransferJournal::referencedFiles(const std::string& session) {
  std::lock_guard lock(mutex_);
  std::vector<std::filesystem::path> files;
  Statement select(db_, prepared("SELECT file FROM tasks WHERE session = ?"));
  select.bind(session);
  while (select.row()) files.emplace_back(text(select.get(), 0));
  return files;
}

std::vector<std::string> TransferJournal::sessionIdentifiers() {
  std::lock_guard lock(mutex_);
  std::vector<std::string> identifiers;
  Statement select(db_,
                   prepared("SELECT identifier FROM sessions UNION SELECT session FROM tasks"));
  while (select.row()) identifiers.push_back(text(select.get(), 0));
  return identifiers;
}

}  // namespace sonorell
