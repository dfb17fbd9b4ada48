// The transfer journal: one SQLite file (WAL) that records every session and task of the
// transfer service, so that a new process adopts them. Each write is its own transaction and is
// committed before the call returns. One connection and its prepared statements, guarded by the
// journal's mutex; safe from any thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/foundation/free_space.h"
#include "platform/net/transfer_types.h"
#include "sonorell/error.h"

struct sqlite3;
struct sqlite3_stmt;

namespace sonorell {

// Where a task's bytes stand.
enum class TransferPhase : int {
  kPending = 0,     // no usable bytes yet (or a restart from zero)
  kPartial = 1,     // the file holds a prefix of the resource named by `validator`
  kDownloaded = 2,  // the file is complete; its finish has not been handled yet
  kFailed = 3,      // ended with `error`; not yet delivered
};

struct JournalTask {
  std::string session;
  uint64_t taskId = 0;
  std::string description;
  TransferRequest request;
  TransferTaskState state = TransferTaskState::kSuspended;
  TransferPhase phase = TransferPhase::kPending;
  std::filesystem::path file;
  std::string validator;  // ETag, else Last-Modified, of the bytes in `file`
  int64_t expected = -1;  // length of the whole resource
  TransferResponse response;
  int64_t received = 0;
  ErrorPtr error;  // domain, code and description survive; userInfo beyond that does not
};

class TransferJournal {
 public:
  // Opens (creating) the file. Null, with `error` set, when it cannot be opened; `notADatabase`
  // then says whether that was the file's content (not a database, or damaged where its tables
  // are described) rather than the file system refusing it. `freeSpace` (statvfs when null)
  // tells how much room the file's disk has left, which decides how long the log may grow.
  static std::unique_ptr<TransferJournal> open(const std::filesystem::path& file,
                                               ErrorPtr* error = nullptr,
                                               bool* notADatabase = nullptr,
                                               FreeSpaceProbe freeSpace = nullptr);
  ~TransferJournal();
  TransferJournal(const TransferJournal&) = delete;
  TransferJournal& operator=(const TransferJournal&) = delete;

  // Records the session (or updates its configuration) and returns its tasks by id.
  std::vector<JournalTask> adoptSession(const TransferSessionConfiguration& configuration);
  void removeSession(const std::string& identifier);
  uint64_t nextTaskId(const std::string& session);

  bool insertTask(const JournalTask& task);
  void setDescription(const std::string& session, uint64_t taskId, const std::string& text);
  void setState(const std::string& session, uint64_t taskId, TransferTaskState state);
  // The validator and full length of the bytes now being written to the task's file.
  void setPartial(const std::string& session, uint64_t taskId, const std::string& validator,
                  int64_t expected);
  void restartFromZero(const std::string& session, uint64_t taskId);
  void setDownloaded(const JournalTask& task);
  void setFailed(const std::string& session, uint64_t taskId, const ErrorPtr& error);
  void removeTask(const std::string& session, uint64_t taskId);

  // Every temporary file any task still refers to.
  std::vector<std::filesystem::path> referencedFiles();
  // The files of one session's tasks.
  std::vector<std::filesystem::path> referencedFiles(const std::string& session);
  std::vector<std::string> sessionIdentifiers();

 private:
  TransferJournal(sqlite3* db, std::filesystem::path directory, FreeSpaceProbe freeSpace)
      : db_(db), directory_(std::move(directory)), freeSpace_(std::move(freeSpace)) {}
  bool exec(const char* sql);
  // SQLite's commit hook, with mutex_ held: checkpoints the log once it is long enough.
  static int logGrew(void* journal, sqlite3* db, const char* name, int pages);
  // The prepared statement for the text, made on first use; with mutex_ held.
  sqlite3_stmt* prepared(const char* sql);

  std::mutex mutex_;
  sqlite3* db_;                                                // guarded by mutex_
  std::unordered_map<std::string, sqlite3_stmt*> statements_;  // guarded by mutex_
  const std::filesystem::path directory_;
  const FreeSpaceProbe freeSpace_;
  int64_t pageSize_ = 4096;  // set in open(), before the first write
};

}  // namespace sonorell
