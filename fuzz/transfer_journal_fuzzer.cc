// The transfer journal as a new process finds it: the input is written as the journal file, which
// is then opened and every session in it adopted, as the transfer service does at start-up, and
// its tasks taken further (state changes, a finish, a failure, removal) as the service would.
#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "platform/net/transfer_journal.h"

namespace {

using namespace sonorell;

// The sessions a file names, read the way a later process would know them (the engine keeps
// their identifiers elsewhere). A second connection, opened read-only.
std::vector<std::string> sessionIdentifiers(const std::filesystem::path& file) {
  std::vector<std::string> identifiers;
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
    sqlite3_stmt* select = nullptr;
    if (sqlite3_prepare_v2(db, "SELECT identifier FROM sessions LIMIT 8", -1, &select, nullptr) ==
        SQLITE_OK) {
      while (sqlite3_step(select) == SQLITE_ROW) {
        const auto* text = sqlite3_column_text(select, 0);
        if (text) identifiers.emplace_back(reinterpret_cast<const char*>(text));
      }
    }
    sqlite3_finalize(select);
  }
  sqlite3_close(db);
  return identifiers;
}

void removeJournal(const std::filesystem::path& file) {
  std::error_code ignored;
  for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
    std::filesystem::remove(file.string() + suffix, ignored);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  sonorell::fuzz::setUpProcess();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto file = sonorell::fuzz::scratchDirectory() / "TransferJournal.sqlite";
  removeJournal(file);
  sonorell::fuzz::writeFile(file, std::string_view(reinterpret_cast<const char*>(data), size));

  ErrorPtr error;
  std::unique_ptr<TransferJournal> journal = TransferJournal::open(file, &error);
  if (!journal) {
    if (!error) __builtin_trap();  // a refusal always says why
    removeJournal(file);
    return 0;
  }
  (void)journal->referencedFiles();
  std::vector<std::string> identifiers = sessionIdentifiers(file);
  identifiers.push_back("QLSO_fuzz");
  for (const std::string& identifier : identifiers) {
    TransferSessionConfiguration configuration;
    configuration.identifier = identifier;
    std::vector<JournalTask> tasks = journal->adoptSession(configuration);
    (void)journal->nextTaskId(identifier);
    for (JournalTask& task : tasks) {
      (void)headerValue(task.request.headers, "Range");
      (void)task.response.header("ETag");
      if (task.error) (void)task.error->description();
      journal->setState(identifier, task.taskId, TransferTaskState::kRunning);
      journal->setPartial(identifier, task.taskId, task.validator, task.expected);
      switch (task.phase) {
        case TransferPhase::kDownloaded:
          journal->setDownloaded(task);
          break;
        case TransferPhase::kFailed:
          journal->setFailed(identifier, task.taskId, task.error);
          break;
        default:
          journal->restartFromZero(identifier, task.taskId);
          break;
      }
      journal->removeTask(identifier, task.taskId);
    }
    journal->removeSession(identifier);
  }
  journal.reset();
  removeJournal(file);
  return 0;
}
