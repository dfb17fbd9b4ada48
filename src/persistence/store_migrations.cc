#include "persistence/store_migrations.h"

#include <functional>
#include <vector>

#include "core/logging.h"
#include "platform/foundation/format.h"

namespace sonorell {

namespace {

constexpr std::string_view kVersion4Schema = R"sql(
CREATE TABLE QSOAudiobook (
  pk INTEGER PRIMARY KEY,
  audiobookID TEXT, abridgement TEXT, actualSize INTEGER, audiobookDescription TEXT,
  authors BLOB, awards BLOB, chapterized INTEGER, copyright TEXT, coverURL TEXT,
  gradeLevel TEXT, isbnLibrary TEXT, isbnRetail TEXT, language TEXT, metadataSig TEXT,
  modifiedDate INTEGER, narrators BLOB, publisher TEXT, runtime TEXT, sampleURL TEXT,
  series BLOB, streetDate INTEGER, subTitle TEXT, title BLOB, bisacCodes BLOB);
CREATE TABLE QSOChapter (
  pk INTEGER PRIMARY KEY,
  audiobook INTEGER REFERENCES QSOAudiobook(pk) ON DELETE CASCADE,
  chapterNumber INTEGER, duration INTEGER, partNumber INTEGER);
)sql";

using Step = std::function<bool(StoreConnection&, std::string*)>;

// Titles were stored as they came; from version 5 on a leading article moves to the end so that
// titles sort under their first significant word.
bool titlesToSortForm(StoreConnection& connection, std::string* error) {
  std::vector<std::pair<int64_t, std::string>> changed;
  {
    StoreStatement select = connection.prepare("SELECT pk, title FROM QSOAudiobook");
    while (select.step()) {
      StoredValue stored = select.column(1);
      std::string title;
      if (const auto* bytes = std::get_if<StoredBytes>(&stored)) {
        title.assign(bytes->begin(), bytes->end());
      } else if (const auto* text = std::get_if<std::string>(&stored)) {
        title = *text;
      } else {
        continue;
      }
      std::string sortForm = StoreMigrations::transformTitle(title);
      if (sortForm != title) changed.emplace_back(select.int64(0), std::move(sortForm));
    }
    if (!select.ok()) {
      *error = select.error();
      return false;
    }
  }
  for (const auto& [pk, title] : changed) {
    StoreStatement update = connection.cached("UPDATE QSOAudiobook SET title = ? WHERE pk = ?");
    update.bind({StoredBytes(title.begin(), title.end()), pk});
    update.step();
    if (!update.ok()) {
      *error = update.error();
      return false;
    }
  }
  return true;
}

bool addIndexes(StoreConnection& connection, std::string* error) {
  return connection.exec(
      "CREATE INDEX QSOAudiobook_audiobookID ON QSOAudiobook (audiobookID);"
      "CREATE INDEX QSOAudiobook_title ON QSOAudiobook (title);"
      "CREATE INDEX QSOChapter_audiobook ON QSOChapter (audiobook);",
      error);
}

// steps[i] takes a store from version kOldestVersion + i to the next.
const std::vector<Step>& steps() {
  static const std::vector<Step> kSteps = {titlesToSortForm, addIndexes};
  return kSteps;
}

int64_t integerOf(StoreConnection& connection, const std::string& sql) {
  StoreStatement statement = connection.prepare(sql);
  return statement.step() ? statement.int64(0) : -1;
}

}  // namespace

std::string_view StoreMigrations::version4Schema() { return kVersion4Schema; }

std::string StoreMigrations::transformTitle(const std::string& title) {
  if (title.starts_with("The ")) return stringWithFormat("%@, The", title.substr(4));
  if (title.starts_with("A ")) return stringWithFormat("%@, A", title.substr(2));
  return title;
}

StoreMigrationResult StoreMigrations::migrate(StoreConnection& connection) {
  static_assert(kCurrentVersion - kOldestVersion == 2, "one step per version");
  int64_t version = integerOf(connection, "PRAGMA user_version");
  if (version == kCurrentVersion) return {};
  if (version > kCurrentVersion) {
    return {false, kStoreIncompatibleVersionError,
            stringWithFormat("The model used to open the store (version %lld) is incompatible "
                             "with the one that created the store (version %lld).",
                             kCurrentVersion, version)};
  }
  bool fresh = version == 0 && integerOf(connection,
                                         "SELECT COUNT(*) FROM sqlite_master WHERE name IN "
                                         "('QSOAudiobook', 'QSOChapter')") == 0;
  if (!fresh && version < kOldestVersion) {
    return {false, kStoreMissingSourceModelError,
            stringWithFormat("Can't find model for source store (version %lld).", version)};
  }

  std::string error;
  if (!connection.exec("BEGIN IMMEDIATE", &error)) return {false, 0, error};
  bool ok = true;
  if (fresh) {
    ok = connection.exec(kVersion4Schema, &error);
    version = kOldestVersion;
  }
  for (; ok && version < kCurrentVersion; ++version) {
    if (!fresh) {
      LogEngineInfo("[QSOPersistenceEngine] Migrating store from model version %lld to %lld",
                    version, version + 1);
    }
    ok = steps()[static_cast<size_t>(version - kOldestVersion)](connection, &error);
  }
  ok = ok &&
       connection.exec(stringWithFormat("PRAGMA user_version = %lld", kCurrentVersion), &error);
  ok = ok && connection.exec("COMMIT", &error);
  if (!ok) {
    connection.exec("ROLLBACK");
    return {false, 0, error};
  }
  return {};
}

}  // namespace sonorell
