#include "support/raw_sqlite.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

namespace sonorell::testing {

RawSqlite::RawSqlite(const std::filesystem::path& file) {
  std::filesystem::create_directories(file.parent_path());
  EXPECT_EQ(sqlite3_open(file.c_str(), &db_), SQLITE_OK);
}

RawSqlite::~RawSqlite() { sqlite3_close(db_); }

void RawSqlite::exec(const std::string& sql) {
  char* error = nullptr;
  int rc = sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &error);
  EXPECT_EQ(rc, SQLITE_OK) << sql << ": " << (error ? error : "");
  sqlite3_free(error);
}

std::vector<std::vector<std::string>> RawSqlite::rows(const std::string& sql) {
  std::vector<std::vector<std::string>> out;
  sqlite3_stmt* statement = nullptr;
  EXPECT_EQ(sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr), SQLITE_OK)
      << sql << ": " << sqlite3_errmsg(db_);
  while (statement && sqlite3_step(statement) == SQLITE_ROW) {
    std::vector<std::string> row;
    for (int i = 0; i < sqlite3_column_count(statement); ++i) {
      const unsigned char* text = sqlite3_column_text(statement, i);
      row.emplace_back(text ? reinterpret_cast<const char*>(text) : "NULL");
    }
    out.push_back(std::move(row));
  }
  sqlite3_finalize(statement);
  return out;
}

void RawSqlite::forEachRow(const std::string& sql, const std::function<void(sqlite3_stmt*)>& each) {
  sqlite3_stmt* statement = nullptr;
  EXPECT_EQ(sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr), SQLITE_OK) << sql;
  while (statement && sqlite3_step(statement) == SQLITE_ROW) each(statement);
  sqlite3_finalize(statement);
}

int64_t RawSqlite::integer(const std::string& sql) {
  auto result = rows(sql);
  return result.empty() || result[0].empty() ? -1 : std::stoll(result[0][0]);
}

}  // namespace sonorell::testing
