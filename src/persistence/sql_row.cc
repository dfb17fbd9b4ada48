#include "persistence/sql_row.h"

#include <sqlite3.h>

namespace sonorell {

int SqlRow::columnCount() const { return sqlite3_column_count(statement_); }

int32_t SqlRow::int32(int column) const { return sqlite3_column_int(statement_, column); }

int64_t SqlRow::int64(int column) const { return sqlite3_column_int64(statement_, column); }

uint64_t SqlRow::uint64(int column) const {
  if (sqlite3_column_type(statement_, column) == SQLITE_FLOAT) {
    double d = sqlite3_column_double(statement_, column);
    if (d >= 18446744073709551615.0) return UINT64_MAX;
    if (d <= -1.0) return static_cast<uint64_t>(static_cast<int64_t>(d));
    return d > 0 ? static_cast<uint64_t>(d) : 0;
  }
  return static_cast<uint64_t>(sqlite3_column_int64(statement_, column));
}

std::optional<std::string> SqlRow::text(int column) const {
  const unsigned char* text = sqlite3_column_text(statement_, column);
  if (!text) return std::nullopt;
  return std::string(reinterpret_cast<const char*>(text),
                     static_cast<size_t>(sqlite3_column_bytes(statement_, column)));
}

}  // namespace sonorell
