#include "persistence/audiobook_status.h"

#include <mutex>
#include <unordered_map>

#include "core/logging.h"
#include "persistence/database_manager.h"
#include "platform/foundation/format.h"

namespace sonorell {

namespace {
constexpr SqlName kTable{"audiobookStatus"};
constexpr SqlName kIdentifier{"audiobookIdentifier"};
constexpr SqlName kStatus{"downloadStatus"};
constexpr SqlName kDownloaded{"downloadedSize"};
constexpr SqlName kTotal{"totalSize"};

struct Cache {
  std::mutex mutex;
  std::unordered_map<std::string, QSOAudiobookStatusPtr> byIdentifier;
};

Cache& cache() {
  static Cache* c = new Cache();  // process-wide, never destroyed (used from any thread)
  return *c;
}

}  // namespace

QSOAudiobookStatus::QSOAudiobookStatus(std::string audiobookIdentifier, uint64_t downloadStatus,
                                       uint64_t downloadedSize, uint64_t totalSize)
    : audiobookIdentifier_(std::move(audiobookIdentifier)),
      downloadStatus_(downloadStatus),
      downloadedSize_(downloadedSize),
      totalSize_(totalSize) {}

std::string QSOAudiobookStatus::description() const {
  return stringWithFormat(
      "(QSOAudiobookStatus) audiobookIdentifier: %@, downloadStatus: %lu, downloadedSize: %lu, "
      "totalSize: %lu",
      audiobookIdentifier_, downloadStatus(), downloadedSize(), totalSize());
}

SqlQuery QSOAudiobookStatus::createTableQuery() {
  return sqlFormat(
      "CREATE TABLE IF NOT EXISTS %@ (%@ TEXT NOT NULL PRIMARY KEY, %@ INTEGER, %@ INTEGER, %@ "
      "INTEGER)",
      kTable, kIdentifier, kStatus, kDownloaded, kTotal);
}

SqlQuery QSOAudiobookStatus::getAllQuery() { return sqlFormat("SELECT * FROM %@", kTable); }

SqlQuery QSOAudiobookStatus::getAllIdentifiersQuery() {
  return sqlFormat("SELECT %@ FROM %@", kIdentifier, kTable);
}

SqlQuery QSOAudiobookStatus::getWithAudiobookIdentifierIdentifierQuery(
    const std::string& identifier) {
  return sqlFormat("SELECT * FROM %@ WHERE %@=\"%@\"", kTable, kIdentifier, identifier);
}

SqlQuery QSOAudiobookStatus::getWithDownloadStatusAudiobookIdentifierQuery(uint64_t status) {
  return sqlFormat("SELECT %@ FROM %@ WHERE %@=\"%lu\"", kIdentifier, kTable, kStatus, status);
}

SqlQuery QSOAudiobookStatus::insertQuery(const QSOAudiobookStatus& status) {
  return sqlFormat("INSERT INTO %@ (%@, %@, %@, %@) VALUES (\"%@\",%lu, %lu, %lu)", kTable,
                   kIdentifier, kStatus, kDownloaded, kTotal, status.audiobookIdentifier(),
                   status.downloadStatus(), status.downloadedSize(), status.totalSize());
}

SqlQuery QSOAudiobookStatus::updateQueryProperties(const std::vector<SqlQuery>& assignments,
                                                   const std::string& identifier) {
  return sqlFormat("UPDATE %@ SET %@ WHERE %@=\"%@\"", kTable, sqlJoin(assignments, ","),
                   kIdentifier, identifier);
}

SqlQuery QSOAudiobookStatus::deleteWithAudiobookIdentifierQuery(const std::string& identifier) {
  return sqlFormat("DELETE FROM %@ WHERE %@=\"%@\"", kTable, kIdentifier, identifier);
}

QSOAudiobookStatusPtr QSOAudiobookStatus::initWithStatement(const SqlRow& row) {
  if (row.columnCount() < 4) return nullptr;
  return std::make_shared<QSOAudiobookStatus>(row.text(0).value_or(""), row.uint64(1),
                                              row.uint64(2), row.uint64(3));
}

void QSOAudiobookStatus::prepareCache() { cache(); }

QSOAudiobookStatusPtr QSOAudiobookStatus::fetchAudiobookStatusForAudiobookIdentifier(
    const std::string& identifier) {
  {
    std::lock_guard lock(cache().mutex);
    auto it = cache().byIdentifier.find(identifier);
    if (it != cache().byIdentifier.end()) {
      QSOAudiobookStatusPtr hit = it->second;
      LogEngineVerbose("Cache hit: %@", hit);
      return hit;
    }
  }
  auto status = QSODatabaseManager::sharedManager()->getAudiobookStatusForIdentifier(identifier);
  if (!status) return status;
  // A caller that filled the cache first wins, so every caller shares one record.
  std::lock_guard lock(cache().mutex);
  return cache().byIdentifier.try_emplace(identifier, std::move(status)).first->second;
}

std::vector<std::string> QSOAudiobookStatus::fetchAudiobookIdentifersForStatus(uint64_t status) {
  return QSODatabaseManager::sharedManager()->getAudiobookIdentifiersForDownloadStatus(status);
}

std::vector<QSOAudiobookStatusPtr> QSOAudiobookStatus::fetchAllAudiobookStatuses() {
  return QSODatabaseManager::sharedManager()->getAllAudiobookStatuses();
}

std::vector<std::string> QSOAudiobookStatus::fetchAllAudiobookIdentifiers() {
  return QSODatabaseManager::sharedManager()->getAllAudiobookIdentifiers();
}

bool QSOAudiobookStatus::saveToDatabase() {
  // Cached only once the row exists: a failed insert (the book is recorded already, or the
  // database refuses) must not put a record in front of callers that the database does not
  // hold. The cache stays locked across the insert so that no reader caches the row it reads
  // back in between (cache, then database queue: the engines' lock order).
  std::lock_guard lock(cache().mutex);
  if (!QSODatabaseManager::sharedManager()->insertAudiobookStatus(*this)) return false;
  cache().byIdentifier.insert_or_assign(audiobookIdentifier_, shared_from_this());
  return true;
}

bool QSOAudiobookStatus::deleteFromDatabase() {
  bool deleted =
      QSODatabaseManager::sharedManager()->deleteAudiobookStatusForIdentifier(audiobookIdentifier_);
  std::lock_guard lock(cache().mutex);
  cache().byIdentifier.erase(audiobookIdentifier_);
  return deleted;
}

bool QSOAudiobookStatus::writeUpdateForProperties(const std::vector<std::string>& properties) {
  std::vector<SqlQuery> assignments;
  for (const auto& name : properties) {
    if (name == kStatus.name) {
      assignments.push_back(sqlFormat("%@=%lu", kStatus, downloadStatus()));
    } else if (name == kDownloaded.name) {
      assignments.push_back(sqlFormat("%@=%lu", kDownloaded, downloadedSize()));
    } else if (name == kTotal.name) {
      assignments.push_back(sqlFormat("%@=%lu", kTotal, totalSize()));
    } else {
      LogEngineError("[QSOAudiobookStatus] Invalid property update: %@", name);
    }
  }
  return QSODatabaseManager::sharedManager()->performUpdates(assignments, audiobookIdentifier_);
}

}  // namespace sonorell
