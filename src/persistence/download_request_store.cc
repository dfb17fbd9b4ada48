#include "persistence/download_request_store.h"

#include "persistence/database_manager.h"

namespace sonorell {

namespace {
constexpr SqlName kTable{"downloadRequests"};
constexpr SqlName kId{"id"};
constexpr SqlName kAudiobookID{"audiobookID"};
constexpr SqlName kPart{"partNumber"};
constexpr SqlName kChapter{"chapterNumber"};
constexpr SqlName kType{"downloadType"};
constexpr SqlName kSessionKey{"sessionKey"};
constexpr SqlName kLicenseID{"licenseID"};
constexpr SqlName kWiFi{"restrictToWiFi"};
}  // namespace

SqlQuery QSODownloadRequestDatabaseHelper::createTableQuery() {
  return sqlFormat(
      "CREATE TABLE IF NOT EXISTS %@ (%@ TEXT NOT NULL PRIMARY KEY, %@ TEXT, %@ INTEGER, %@ "
      "INTEGER, %@ INTEGER, %@ TEXT, %@ TEXT, %@ INTEGER)",
      kTable, kId, kAudiobookID, kPart, kChapter, kType, kSessionKey, kLicenseID, kWiFi);
}

SqlQuery QSODownloadRequestDatabaseHelper::getAllQuery() {
  return sqlFormat("SELECT * FROM %@", kTable);
}

SqlQuery QSODownloadRequestDatabaseHelper::getWithIdentifierQuery(const std::string& identifier) {
  return sqlFormat("SELECT * FROM %@ WHERE %@=\"%@\"", kTable, kId, identifier);
}

SqlQuery QSODownloadRequestDatabaseHelper::insertQuery(const QSODownloadRequest& r) {
  return sqlFormat(
      "INSERT INTO %@ (%@, %@, %@, %@, %@, %@, %@, %@) VALUES (\"%@\", \"%@\", %lu, %lu, %lu, "
      "\"%@\", \"%@\", %d)",
      kTable, kId, kAudiobookID, kPart, kChapter, kType, kSessionKey, kLicenseID, kWiFi,
      r.requestIdentifier(), r.audiobookID(), r.partNumber(), r.chapterNumber(), r.downloadType(),
      r.sessionKey(), r.licenseID(), int{r.restrictToWiFi()});
}

SqlQuery QSODownloadRequestDatabaseHelper::deleteWithIdentifierQuery(
    const std::string& identifier) {
  return sqlFormat("DELETE FROM %@ WHERE %@=\"%@\"", kTable, kId, identifier);
}

std::optional<QSODownloadRequest> QSODownloadRequestDatabaseHelper::initWithStatement(
    const SqlRow& row) {
  if (row.columnCount() < 8) return std::nullopt;
  return QSODownloadRequest(row.text(0).value_or(""), row.text(1).value_or(""), row.uint64(2),
                            row.uint64(3), row.uint64(4), row.text(5).value_or(""),
                            row.text(6).value_or(""), row.int64(7) != 0);
}

std::optional<QSODownloadRequest>
QSODownloadRequestDatabaseHelper::fetchRequestForRequestIdentifier(const std::string& identifier) {
  return QSODatabaseManager::sharedManager()->getRequestForIdentifier(identifier);
}

std::vector<QSODownloadRequest> QSODownloadRequestDatabaseHelper::fetchAllRequests() {
  return QSODatabaseManager::sharedManager()->getRequests();
}

bool QSODownloadRequestDatabaseHelper::saveToDatabase(const QSODownloadRequest& request) {
  return QSODatabaseManager::sharedManager()->insertRequest(request);
}

bool QSODownloadRequestDatabaseHelper::deleteFromDatabase(const QSODownloadRequest& request) {
  return QSODatabaseManager::sharedManager()->deleteRequestForIdentifier(
      request.requestIdentifier());
}

}  // namespace sonorell
