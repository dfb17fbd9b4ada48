// Direct SQLite access to a database file for tests: to prepare files as another version left
// them and to look at what the engine wrote, independently of the engine's own code.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace sonorell::testing {

class RawSqlite {
 public:
  explicit RawSqlite(const std::filesystem::path& file);
  ~RawSqlite();
  RawSqlite(const RawSqlite&) = delete;
  RawSqlite& operator=(const RawSqlite&) = delete;

  // Runs statements; fails the test on error.
  void exec(const std::string& sql);
  // Every row of a query, each column as text ("NULL" for null).
  std::vector<std::vector<std::string>> rows(const std::string& sql);
  int64_t integer(const std::string& sql);
  // Calls `each` with the statement positioned on each result row.
  void forEachRow(const std::string& sql, const std::function<void(sqlite3_stmt*)>& each);

 private:
  sqlite3* db_ = nullptr;
};

}  // namespace sonorell::testing
