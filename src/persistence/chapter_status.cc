#include "persistence/chapter_status.h"

#include <algorithm>
#include <unordered_map>

#include "core/logging.h"
#include "persistence/database_manager.h"
#include "platform/foundation/format.h"

namespace sonorell {

namespace {
constexpr SqlName kTable{"chapterStatus"};
constexpr SqlName kId{"id"};
constexpr SqlName kAudiobookID{"audiobookID"};
constexpr SqlName kPart{"partNumber"};
constexpr SqlName kChapter{"chapterNumber"};
constexpr SqlName kStatus{"downloadStatus"};
constexpr SqlName kDownloaded{"downloadedSize"};
constexpr SqlName kTotal{"totalSize"};
constexpr SqlName kToken{"playlistToken"};

struct Caches {
  std::mutex mutex;  // one lock for both maps
  std::unordered_map<std::string, std::vector<QSOChapterStatusPtr>> listByAudiobook;
  std::unordered_map<std::string, QSOChapterStatusPtr> byChapterKey;
};

Caches& caches() {
  static Caches* c = new Caches();  // process-wide, never destroyed (used from any thread)
  return *c;
}

// One "name=value" assignment for a property name, or nothing (logged) for an unknown name.
std::optional<SqlQuery> assignment(const std::string& name, const Value& value) {
  if (name == kStatus.name) return sqlFormat("%@=%lu", kStatus, value.asUInt().value_or(0));
  if (name == kDownloaded.name) return sqlFormat("%@=%lu", kDownloaded, value.asUInt().value_or(0));
  if (name == kTotal.name) return sqlFormat("%@=%lu", kTotal, value.asUInt().value_or(0));
  if (name == kToken.name) return sqlFormat("%@=\"%@\"", kToken, value.description());
  LogEngineError("[QSOChapterStatus] Invalid property update: %@", name);
  return std::nullopt;
}

std::vector<SqlQuery> assignments(const std::vector<std::string>& names,
                                  const std::vector<Value>& values) {
  std::vector<SqlQuery> out;
  for (size_t i = 0; i < names.size(); ++i) {
    if (auto a = assignment(names[i], i < values.size() ? values[i] : Value())) {
      out.push_back(std::move(*a));
    }
  }
  return out;
}
}  // namespace

QSOChapterStatus::QSOChapterStatus(QSOChapterDescription chapterDescription,
                                   uint64_t downloadStatus, uint64_t downloadedSize,
                                   uint64_t totalSize, std::string playlistToken)
    : chapterDescription_(std::move(chapterDescription)),
      downloadStatus_(downloadStatus),
      downloadedSize_(downloadedSize),
      totalSize_(totalSize),
      playlistToken_(std::move(playlistToken)) {}

std::string QSOChapterStatus::playlistToken() const {
  std::lock_guard lock(tokenMutex_);
  return playlistToken_;
}

void QSOChapterStatus::setPlaylistToken(std::string token) {
  std::lock_guard lock(tokenMutex_);
  playlistToken_ = std::move(token);
}

std::string QSOChapterStatus::description() const {
  return stringWithFormat(
      "(QSOChapterStatus) chapterDescription: %@, downloadStatus: %lu, downloadedSize: %lu, "
      "totalSize: %lu, playlistToken: %@",
      chapterDescription_, downloadStatus(), downloadedSize(), totalSize(), playlistToken());
}

SqlQuery QSOChapterStatus::createTableQuery() {
  return sqlFormat(
      "CREATE TABLE IF NOT EXISTS %@ (%@ INTEGER PRIMARY KEY, %@ TEXT, %@ INTEGER, %@ INTEGER, "
      "%@ INTEGER, %@ INTEGER, %@ INTEGER, %@ TEXT)",
      kTable, kId, kAudiobookID, kPart, kChapter, kStatus, kDownloaded, kTotal, kToken);
}

SqlQuery QSOChapterStatus::getAllForAudiobookIdentifierQuery(const std::string& identifier) {
  return sqlFormat("SELECT * FROM %@ WHERE %@=\"%@\"", kTable, kAudiobookID, identifier);
}

SqlQuery QSOChapterStatus::getForChapterChapterDescriptionQuery(
    const QSOChapterDescription& chapter) {
  return sqlFormat("SELECT * FROM %@ WHERE %@=\"%@\" AND %@=%lu AND %@=%lu", kTable, kAudiobookID,
                   chapter.audiobookID(), kPart, chapter.partNumber(), kChapter,
                   chapter.chapterNumber());
}

SqlQuery QSOChapterStatus::insertQuery(const QSOChapterStatus& status) {
  const auto& chapter = status.chapterDescription();
  return sqlFormat(
      "INSERT INTO %@ (%@, %@, %@, %@, %@, %@, %@) VALUES (\"%@\", %lu, %lu, %lu, %lu, %lu, "
      "\"%@\")",
      kTable, kAudiobookID, kPart, kChapter, kStatus, kDownloaded, kTotal, kToken,
      chapter.audiobookID(), chapter.partNumber(), chapter.chapterNumber(), status.downloadStatus(),
      status.downloadedSize(), status.totalSize(), status.playlistToken());
}

SqlQuery QSOChapterStatus::updateQueryProperties(const std::vector<SqlQuery>& assignments,
                                                 const QSOChapterDescription& chapter) {
  return sqlFormat("UPDATE %@ SET %@ WHERE %@=\"%@\" AND %@=%lu AND %@=%lu", kTable,
                   sqlJoin(assignments, ","), kAudiobookID, chapter.audiobookID(), kPart,
                   chapter.partNumber(), kChapter, chapter.chapterNumber());
}

SqlQuery QSOChapterStatus::updateQueryProperties(const std::vector<SqlQuery>& assignments,
                                                 const std::string& audiobookIdentifier) {
  return sqlFormat("UPDATE %@ SET %@ WHERE %@=\"%@\"", kTable, sqlJoin(assignments, ","),
                   kAudiobookID, audiobookIdentifier);
}

SqlQuery QSOChapterStatus::updateQueryProperties(const std::vector<SqlQuery>& assignments,
                                                 const std::vector<uint64_t>& chapterIdentifiers) {
  std::vector<SqlQuery> ids;
  ids.reserve(chapterIdentifiers.size());
  for (uint64_t id : chapterIdentifiers) ids.push_back(sqlFormat("%lu", id));
  return sqlFormat("UPDATE %@ SET %@ WHERE %@ IN (%@)", kTable, sqlJoin(assignments, ","), kId,
                   sqlJoin(ids, ", "));
}

SqlQuery QSOChapterStatus::deleteAllForAudiobookIdentifierQuery(const std::string& identifier) {
  return sqlFormat("DELETE FROM %@ WHERE %@=\"%@\"", kTable, kAudiobookID, identifier);
}

QSOChapterStatusPtr QSOChapterStatus::initWithStatement(const SqlRow& row) {
  // Seven columns suffice although the token is the eighth; a missing token reads as "".
  if (row.columnCount() < 7) return nullptr;
  auto status = std::make_shared<QSOChapterStatus>(
      QSOChapterDescription(row.text(1).value_or(""), row.uint64(2), row.uint64(3)), row.uint64(4),
      row.uint64(5), row.uint64(6), row.columnCount() > 7 ? row.text(7).value_or("") : "");
  status->setChapterIdentifier(row.uint64(0));
  return status;
}

void QSOChapterStatus::prepareCache() { caches(); }

std::vector<QSOChapterStatusPtr> QSOChapterStatus::fetchAllForAudiobookIdentifier(
    const std::string& identifier) {
  {
    std::lock_guard lock(caches().mutex);
    auto it = caches().listByAudiobook.find(identifier);
    if (it != caches().listByAudiobook.end()) {
      LogEngineVerbose("Cache hit: %@ %u chapters", identifier, it->second.size());
      return it->second;
    }
  }
  auto list =
      QSODatabaseManager::sharedManager()->getAllChapterStatusesForAudiobookIdentifier(identifier);
  if (!identifier.empty() && !list.empty()) {  // empty books are read again next time
    // A caller that filled the cache first wins, so every caller shares one set of records.
    std::lock_guard lock(caches().mutex);
    return caches().listByAudiobook.try_emplace(identifier, std::move(list)).first->second;
  }
  return list;
}

std::vector<QSOChapterStatusPtr> QSOChapterStatus::fetchAllSortedForAudiobookIdentifier(
    const std::string& identifier) {
  auto list = fetchAllForAudiobookIdentifier(identifier);
  std::stable_sort(list.begin(), list.end(), [](const auto& a, const auto& b) {
    return a->chapterDescription().chapterNumber() < b->chapterDescription().chapterNumber();
  });
  std::stable_sort(list.begin(), list.end(), [](const auto& a, const auto& b) {
    return a->chapterDescription().partNumber() < b->chapterDescription().partNumber();
  });
  return list;
}

QSOChapterStatusPtr QSOChapterStatus::fetchForChapterDescription(
    const QSOChapterDescription& chapter) {
  const std::string key = chapter.toString();
  {
    std::lock_guard lock(caches().mutex);
    auto it = caches().byChapterKey.find(key);
    if (it != caches().byChapterKey.end()) return it->second;
  }
  QSOChapterStatusPtr found;
  for (const auto& status : fetchAllForAudiobookIdentifier(chapter.audiobookID())) {
    if (status->chapterDescription().partNumber() == chapter.partNumber() &&
        status->chapterDescription().chapterNumber() == chapter.chapterNumber()) {
      found = status;
      break;
    }
  }
  if (found) {
    std::lock_guard lock(caches().mutex);
    return caches().byChapterKey.try_emplace(key, std::move(found)).first->second;
  }
  return found;
}

bool QSOChapterStatus::deleteAllForAudiobookID(const std::string& identifier) {
  bool deleted =
      QSODatabaseManager::sharedManager()->deleteChapterStatusesForAudiobookIdentifier(identifier);
  std::lock_guard lock(caches().mutex);
  caches().listByAudiobook.erase(identifier);
  caches().byChapterKey.clear();
  return deleted;
}

bool QSOChapterStatus::saveToDatabase(const std::vector<QSOChapterStatusPtr>& statuses) {
  return QSODatabaseManager::sharedManager()->insertChapterStatuses(statuses);
}

bool QSOChapterStatus::writeUpdateForProperties(const std::vector<std::string>& properties) {
  std::vector<Value> values;
  values.reserve(properties.size());
  for (const auto& name : properties) {
    if (name == kStatus.name) {
      values.emplace_back(downloadStatus());
    } else if (name == kDownloaded.name) {
      values.emplace_back(downloadedSize());
    } else if (name == kTotal.name) {
      values.emplace_back(totalSize());
    } else if (name == kToken.name) {
      values.emplace_back(playlistToken());
    } else {
      values.emplace_back();
    }
  }
  return QSODatabaseManager::sharedManager()->performUpdates(assignments(properties, values),
                                                             chapterDescription_);
}

bool QSOChapterStatus::writeUpdateForProperties(const std::vector<std::string>& properties,
                                                const std::vector<Value>& values,
                                                const std::string& audiobookIdentifier) {
  return QSODatabaseManager::sharedManager()->performChapterUpdates(assignments(properties, values),
                                                                    audiobookIdentifier);
}

bool QSOChapterStatus::writeUpdateForProperties(const std::vector<std::string>& properties,
                                                const std::vector<Value>& values,
                                                const std::vector<uint64_t>& chapterIdentifiers) {
  return QSODatabaseManager::sharedManager()->performChapterUpdates(assignments(properties, values),
                                                                    chapterIdentifiers);
}

}  // namespace sonorell
