// The "downloadRequests" table: statements, the row reader and the convenience operations that
// let requests outlive the process. Stateless; statements run on the database queue.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "persistence/sql_query.h"
#include "persistence/sql_row.h"
#include "sonorell/download_request.h"

namespace sonorell {

class QSODownloadRequestDatabaseHelper {
 public:
  static SqlQuery createTableQuery();
  static SqlQuery getAllQuery();
  static SqlQuery getWithIdentifierQuery(const std::string& identifier);
  static SqlQuery insertQuery(const QSODownloadRequest& request);
  static SqlQuery deleteWithIdentifierQuery(const std::string& identifier);
  // A row of at least eight columns; fewer (a table of another schema) yields nothing.
  static std::optional<QSODownloadRequest> initWithStatement(const SqlRow& row);

  static std::optional<QSODownloadRequest> fetchRequestForRequestIdentifier(
      const std::string& identifier);
  static std::vector<QSODownloadRequest> fetchAllRequests();
  static bool saveToDatabase(const QSODownloadRequest& request);
  static bool deleteFromDatabase(const QSODownloadRequest& request);
};

}  // namespace sonorell
