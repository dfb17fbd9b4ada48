// Read access to the current result row of a stepped SQLite statement, so that record classes
// can read rows without including SQLite. Valid only while the statement is on that row.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

struct sqlite3_stmt;

namespace sonorell {

class SqlRow {
 public:
  explicit SqlRow(sqlite3_stmt* statement) : statement_(statement) {}
  int columnCount() const;
  int32_t int32(int column) const;
  int64_t int64(int column) const;
  // The 64 bits of an integer column as unsigned. Older files hold the all-bits-set default
  // part and chapter as a floating value; those read back as all bits set.
  uint64_t uint64(int column) const;
  // Empty for NULL.
  std::optional<std::string> text(int column) const;

 private:
  sqlite3_stmt* statement_;
};

}  // namespace sonorell
