// The download bookkeeping of one audiobook (status and byte counts), its SQL statements, and
// the process-wide cache in front of the status database. Cached records are the very instances
// callers hold and change, so the fields are atomics; the cache map has its own mutex.
//
// Lock order of the engines: an audiobook's state lock, then the progress manager, then this
// cache's mutex, then the database queue. No notification is posted and no host code is called
// while an audiobook's state lock is held.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "persistence/sql_query.h"
#include "persistence/sql_row.h"
#include "sonorell/download_status.h"

namespace sonorell {

class QSOAudiobookStatus : public std::enable_shared_from_this<QSOAudiobookStatus> {
 public:
  QSOAudiobookStatus(std::string audiobookIdentifier, uint64_t downloadStatus,
                     uint64_t downloadedSize, uint64_t totalSize);

  const std::string& audiobookIdentifier() const { return audiobookIdentifier_; }
  uint64_t downloadStatus() const { return downloadStatus_; }
  uint64_t downloadedSize() const { return downloadedSize_; }
  uint64_t totalSize() const { return totalSize_; }
  void setDownloadStatus(uint64_t status) { downloadStatus_ = status; }
  void setDownloadedSize(uint64_t size) { downloadedSize_ = size; }
  void setTotalSize(uint64_t size) { totalSize_ = size; }
  std::string description() const;

  // Statements of the "audiobookStatus" table.
  static SqlQuery createTableQuery();
  static SqlQuery getAllQuery();
  static SqlQuery getAllIdentifiersQuery();
  static SqlQuery getWithAudiobookIdentifierIdentifierQuery(const std::string& identifier);
  static SqlQuery getWithDownloadStatusAudiobookIdentifierQuery(uint64_t status);
  static SqlQuery insertQuery(const QSOAudiobookStatus& status);
  static SqlQuery updateQueryProperties(const std::vector<SqlQuery>& assignments,
                                        const std::string& identifier);
  static SqlQuery deleteWithAudiobookIdentifierQuery(const std::string& identifier);
  // A row of at least four columns; fewer yields nothing.
  static std::shared_ptr<QSOAudiobookStatus> initWithStatement(const SqlRow& row);

  // Cache first; a record read from the database is cached.
  static std::shared_ptr<QSOAudiobookStatus> fetchAudiobookStatusForAudiobookIdentifier(
      const std::string& identifier);
  static std::vector<std::string> fetchAudiobookIdentifersForStatus(uint64_t status);
  static std::vector<std::shared_ptr<QSOAudiobookStatus>> fetchAllAudiobookStatuses();
  static std::vector<std::string> fetchAllAudiobookIdentifiers();
  static void prepareCache();

  // Inserts this instance (which must be owned by a shared_ptr) and, once the row exists, caches
  // it; a failed insert leaves the cache as it was.
  bool saveToDatabase();
  bool deleteFromDatabase();
  // Writes the named properties ("downloadStatus", "downloadedSize", "totalSize") in one
  // statement; other names are logged and skipped.
  bool writeUpdateForProperties(const std::vector<std::string>& properties);

 private:
  const std::string audiobookIdentifier_;
  std::atomic<uint64_t> downloadStatus_;
  std::atomic<uint64_t> downloadedSize_;
  std::atomic<uint64_t> totalSize_;
};

using QSOAudiobookStatusPtr = std::shared_ptr<QSOAudiobookStatus>;

}  // namespace sonorell
