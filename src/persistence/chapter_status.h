// The download bookkeeping of one chapter, its SQL statements, and the two process-wide caches
// (chapter list per audiobook, record per chapter key) in front of the status database. Cached
// records are the instances callers hold and change: numeric fields are atomics, the token has
// its own mutex, and both cache maps share one mutex.
//
// Lock order of the engines: an audiobook's state lock, then the progress manager, then this
// cache's mutex, then the database queue. No notification is posted and no host code is called
// while an audiobook's state lock is held.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "persistence/sql_query.h"
#include "persistence/sql_row.h"
#include "sonorell/chapter_description.h"
#include "sonorell/download_status.h"
#include "sonorell/value.h"

namespace sonorell {

class QSOChapterStatus : public std::enable_shared_from_this<QSOChapterStatus> {
 public:
  QSOChapterStatus(QSOChapterDescription chapterDescription, uint64_t downloadStatus,
                   uint64_t downloadedSize, uint64_t totalSize, std::string playlistToken);

  // The row id; 0 until the record was read back from the database.
  uint64_t chapterIdentifier() const { return chapterIdentifier_; }
  void setChapterIdentifier(uint64_t id) { chapterIdentifier_ = id; }
  const QSOChapterDescription& chapterDescription() const { return chapterDescription_; }
  uint64_t downloadStatus() const { return downloadStatus_; }
  uint64_t downloadedSize() const { return downloadedSize_; }
  uint64_t totalSize() const { return totalSize_; }
  std::string playlistToken() const;
  void setDownloadStatus(uint64_t status) { downloadStatus_ = status; }
  void setDownloadedSize(uint64_t size) { downloadedSize_ = size; }
  void setTotalSize(uint64_t size) { totalSize_ = size; }
  void setPlaylistToken(std::string token);
  std::string description() const;

  // Records are equal when their row ids are.
  bool operator==(const QSOChapterStatus& other) const {
    return chapterIdentifier() == other.chapterIdentifier();
  }
  size_t hash() const { return std::hash<uint64_t>{}(chapterIdentifier()); }

  // Statements of the "chapterStatus" table.
  static SqlQuery createTableQuery();
  static SqlQuery getAllForAudiobookIdentifierQuery(const std::string& identifier);
  static SqlQuery getForChapterChapterDescriptionQuery(const QSOChapterDescription& chapter);
  static SqlQuery insertQuery(const QSOChapterStatus& status);
  static SqlQuery updateQueryProperties(const std::vector<SqlQuery>& assignments,
                                        const QSOChapterDescription& chapter);
  static SqlQuery updateQueryProperties(const std::vector<SqlQuery>& assignments,
                                        const std::string& audiobookIdentifier);
  static SqlQuery updateQueryProperties(const std::vector<SqlQuery>& assignments,
                                        const std::vector<uint64_t>& chapterIdentifiers);
  static SqlQuery deleteAllForAudiobookIdentifierQuery(const std::string& identifier);
  // A row of at least seven columns (the token, column 7, may be missing); fewer yields nothing.
  static std::shared_ptr<QSOChapterStatus> initWithStatement(const SqlRow& row);

  // The audiobook's records as stored (cached only when there are some).
  static std::vector<std::shared_ptr<QSOChapterStatus>> fetchAllForAudiobookIdentifier(
      const std::string& identifier);
  // The same, ordered by part, then chapter.
  static std::vector<std::shared_ptr<QSOChapterStatus>> fetchAllSortedForAudiobookIdentifier(
      const std::string& identifier);
  static std::shared_ptr<QSOChapterStatus> fetchForChapterDescription(
      const QSOChapterDescription& chapter);
  // Deletes the audiobook's rows; drops its list and every chapter-keyed entry of every book.
  static bool deleteAllForAudiobookID(const std::string& identifier);
  // One transaction; the caches are not touched.
  static bool saveToDatabase(const std::vector<std::shared_ptr<QSOChapterStatus>>& statuses);
  static void prepareCache();

  // Writes the named properties of this record ("downloadStatus", "downloadedSize",
  // "totalSize", "playlistToken"); other names are logged and skipped.
  bool writeUpdateForProperties(const std::vector<std::string>& properties);
  // Batch updates with index-matched values (numbers as unsigned, the token as text). They do
  // not touch the caches.
  static bool writeUpdateForProperties(const std::vector<std::string>& properties,
                                       const std::vector<Value>& values,
                                       const std::string& audiobookIdentifier);
  static bool writeUpdateForProperties(const std::vector<std::string>& properties,
                                       const std::vector<Value>& values,
                                       const std::vector<uint64_t>& chapterIdentifiers);

 private:
  std::atomic<uint64_t> chapterIdentifier_{0};
  const QSOChapterDescription chapterDescription_;
  std::atomic<uint64_t> downloadStatus_;
  std::atomic<uint64_t> downloadedSize_;
  std::atomic<uint64_t> totalSize_;
  mutable std::mutex tokenMutex_;
  std::string playlistToken_;
};

using QSOChapterStatusPtr = std::shared_ptr<QSOChapterStatus>;

}  // namespace sonorell
