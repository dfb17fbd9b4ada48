// The status database (SDKMetadata.sqlite): opens the file once, keeps its schema at version 1,
// and runs every table statement on the serial queue "io.sonorell.database" with synchronous
// dispatch, so statements never overlap. The connection is touched only on that queue (and in
// the constructor, before the queue is used). Record classes supply the statements.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "persistence/audiobook_status.h"
#include "persistence/chapter_status.h"
#include "persistence/sql_query.h"
#include "platform/dispatch/dispatch_queue.h"
#include "sonorell/download_request.h"

struct sqlite3;
struct sqlite3_stmt;

namespace sonorell {

class QSODatabaseManager {
 public:
  static std::shared_ptr<QSODatabaseManager> sharedManager();
  static std::string databasePath();
  static std::string getVersionQuery();
  static std::string setVersionQuery();

  // Creates the queue, opens the file and brings the schema to the current version.
  QSODatabaseManager();
  ~QSODatabaseManager();
  QSODatabaseManager(const QSODatabaseManager&) = delete;
  QSODatabaseManager& operator=(const QSODatabaseManager&) = delete;

  void openDatabaseConnection();
  uint64_t getDatabaseVersion();
  bool setDatabaseVersion();
  bool versionMigrationAndSetup();
  bool createTables();

  bool insertRequest(const QSODownloadRequest& request);
  std::vector<QSODownloadRequest> getRequests();
  std::optional<QSODownloadRequest> getRequestForIdentifier(const std::string& identifier);
  bool deleteRequestForIdentifier(const std::string& identifier);

  bool insertAudiobookStatus(const QSOAudiobookStatus& status);
  std::vector<std::string> getAllAudiobookIdentifiers();
  std::vector<QSOAudiobookStatusPtr> getAllAudiobookStatuses();
  std::vector<std::string> getAudiobookIdentifiersForDownloadStatus(uint64_t status);
  QSOAudiobookStatusPtr getAudiobookStatusForIdentifier(const std::string& identifier);
  bool deleteAudiobookStatusForIdentifier(const std::string& identifier);
  bool performUpdates(const std::vector<SqlQuery>& assignments,
                      const std::string& audiobookIdentifier);

  // One transaction; a failing row makes the result false but the others are kept (no rollback).
  bool insertChapterStatuses(const std::vector<QSOChapterStatusPtr>& statuses);
  // Not queued: only for use inside the transaction above.
  bool insertChapterStatus(const QSOChapterStatus& status);
  std::vector<QSOChapterStatusPtr> getAllChapterStatusesForAudiobookIdentifier(
      const std::string& identifier);
  QSOChapterStatusPtr getChapterStatusForChapterDescription(const QSOChapterDescription& chapter);
  bool deleteChapterStatusesForAudiobookIdentifier(const std::string& identifier);
  bool performUpdates(const std::vector<SqlQuery>& assignments,
                      const QSOChapterDescription& chapter);
  bool performChapterUpdates(const std::vector<SqlQuery>& assignments,
                             const std::string& audiobookIdentifier);
  bool performChapterUpdates(const std::vector<SqlQuery>& assignments,
                             const std::vector<uint64_t>& chapterIdentifiers);

  // Empties the three tables, keeping them.
  bool deleteAll();

  // Whether the records can say which audio files are wanted: false when the database could not
  // be opened or set up this run (every read then comes back empty), or while a database that
  // could not be read is kept aside beside it (its records may be recovered by a person).
  bool vouchesForFiles() const;

 private:
  bool write(const SqlQuery& query, std::string_view logFormat, std::string_view errorFormat);
  bool queuedWrite(const SqlQuery& query, std::string_view logFormat, std::string_view errorFormat);
  template <class T, class Reader>
  std::vector<T> read(const SqlQuery& query, Reader reader);
  std::string errorMessage() const;
  // A prepared statement for the query with its values bound; release() makes it reusable.
  sqlite3_stmt* acquire(const SqlQuery& query);
  void release(sqlite3_stmt* statement);

  sqlite3* database_ = nullptr;
  // Set while the constructor opens the file, read-only afterwards.
  bool usable_ = false;
  // Prepared statements by SQL text; touched only on the database queue.
  std::unordered_map<std::string, sqlite3_stmt*> statements_;
  DispatchQueuePtr databaseQueue_;
};

}  // namespace sonorell
