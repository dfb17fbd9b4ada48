// The object store's model versions and the ordered steps between them. The version lives in the
// file's "PRAGMA user_version". A new file is laid out at the oldest version we can read and
// brought forward by the same steps as an old one, so every step runs on every store. Used on
// the persistence engine's connection under its mutex.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "persistence/store_connection.h"

namespace sonorell {

// Failures that mean "this file's model cannot become ours": the engine deletes such a file and
// starts again. The codes are those of the platform's object stores, kept for the logs.
inline constexpr int64_t kStoreIncompatibleVersionError = 134100;  // written by a newer model
inline constexpr int64_t kStoreMissingSourceModelError = 134130;   // no step from its version

struct StoreMigrationResult {
  bool ok = true;
  int64_t code = 0;  // one of the two above, or 0 for other failures (SQLite errors)
  std::string description;
};

class StoreMigrations {
 public:
  // 4: the layout of the tables. 5: titles in sort form ("Hobbit, The"). 6: indexes for
  // look-ups by identifier, paging by title and loading a book's chapters.
  static constexpr int64_t kOldestVersion = 4;
  static constexpr int64_t kCurrentVersion = 6;

  // The tables as model version 4 had them (without setting the version).
  static std::string_view version4Schema();
  // The version 4 to 5 step on one title: "The Hobbit" -> "Hobbit, The", "A Tale" -> "Tale, A";
  // others unchanged.
  static std::string transformTitle(const std::string& title);

  // Brings the store to kCurrentVersion in one transaction (all steps or none).
  static StoreMigrationResult migrate(StoreConnection& connection);
};

}  // namespace sonorell
