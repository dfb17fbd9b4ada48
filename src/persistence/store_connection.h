// One SQLite connection to the object store file, with a cache of prepared statements for the
// fixed statements. Not synchronised: the persistence engine uses it under its own mutex only.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <variant>
#include <vector>

#include "model/value_transformers.h"

struct sqlite3;
struct sqlite3_stmt;

namespace sonorell {

// What a column holds: NULL, an integer, text or bytes.
using StoredValue = std::variant<std::monostate, int64_t, std::string, StoredBytes>;

// A prepared statement in use. Reset (and, if not cached, finalised) when it goes away, so a
// cached statement is always ready for its next use.
class StoreStatement {
 public:
  StoreStatement(sqlite3* db, sqlite3_stmt* statement, bool owned);
  StoreStatement(StoreStatement&& other) noexcept;
  StoreStatement& operator=(StoreStatement&&) = delete;
  ~StoreStatement();

  bool valid() const { return statement_ != nullptr; }
  // Binds values to the parameters 1, 2, ... in order.
  void bind(const std::vector<StoredValue>& values);
  void bind(int index, const StoredValue& value);
  // True on a row; false when done or on error (then ok() is false and error() says why).
  bool step();
  bool ok() const { return ok_; }
  std::string error() const;

  StoredValue column(int index) const;
  int64_t int64(int index) const;

 private:
  sqlite3* db_;
  sqlite3_stmt* statement_;
  bool owned_;
  bool ok_ = true;
};

class StoreConnection {
 public:
  // Opens (creating) the file with WAL, foreign keys on and synchronous=NORMAL. Null on failure,
  // with SQLite's message in `error`; `notADatabase` then says whether the failure was the
  // file's content (not a database, or damaged where its tables are described) rather than the
  // file system refusing it.
  static std::unique_ptr<StoreConnection> open(const std::filesystem::path& path,
                                               std::string* error, bool* notADatabase = nullptr);
  ~StoreConnection();
  StoreConnection(const StoreConnection&) = delete;
  StoreConnection& operator=(const StoreConnection&) = delete;

  // Runs one or more statements without results; false with the message in `error`.
  bool exec(std::string_view sql, std::string* error = nullptr);
  // A cached statement for fixed SQL texts.
  StoreStatement cached(const std::string& sql);
  // A statement finalised after use, for texts that vary (compiled predicates).
  StoreStatement prepare(const std::string& sql);
  int64_t lastInsertRowID() const;
  std::string errorMessage() const;
  // SQLite's result code of the last failed call.
  int errorCode() const;

 private:
  explicit StoreConnection(sqlite3* db) : db_(db) {}
  sqlite3* db_;
  std::unordered_map<std::string, sqlite3_stmt*> statements_;
};

}  // namespace sonorell
