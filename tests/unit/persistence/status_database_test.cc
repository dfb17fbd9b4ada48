// The status database file: schema and versioning as other versions expect them, the batch
// insert's keep-the-good-rows rule, and clearing.
#include <gtest/gtest.h>

#include "persistence/database_manager.h"
#include "persistence/download_request_store.h"
#include "persistence/filesystem_helper.h"
#include "sonorell/log_engine.h"
#include "support/raw_sqlite.h"
#include "support/recording_listener.h"
#include "support/temp_library.h"

namespace sonorell {
namespace {

using testing::RawSqlite;
using testing::RecordingListener;
using testing::TempLibrary;
using Rows = std::vector<std::vector<std::string>>;

class StatusDatabase : public ::testing::Test {
 protected:
  void SetUp() override { QSOLogEngine::setListener(listener); }
  void TearDown() override { QSOLogEngine::setListener(nullptr); }
  std::filesystem::path file() const { return FilesystemHelper::metadataDatabasePath(); }
  // Every column as "name TYPE", with " notnull" and " pk" where they apply.
  static std::string columns(RawSqlite& raw, const std::string& table) {
    std::string out;
    for (auto& row : raw.rows("PRAGMA table_info(" + table + ")")) {
      out += (out.empty() ? "" : ", ") + row[1] + " " + row[2] + (row[3] == "1" ? " notnull" : "") +
             (row[5] == "1" ? " pk" : "");
    }
    return out;
  }
  TempLibrary library;
  std::shared_ptr<RecordingListener> listener = std::make_shared<RecordingListener>();
};

TEST_F(StatusDatabase, AFreshFileGetsTheThreeTablesColumnForColumnAndVersion1Once) {
  { QSODatabaseManager first; }
  QSODatabaseManager second;
  RawSqlite raw(file());
  EXPECT_EQ(raw.integer("PRAGMA user_version"), 1);
  EXPECT_EQ(columns(raw, "downloadRequests"),
            "id TEXT notnull pk, audiobookID TEXT, partNumber INTEGER, chapterNumber INTEGER, "
            "downloadType INTEGER, sessionKey TEXT, licenseID TEXT, restrictToWiFi INTEGER");
  EXPECT_EQ(columns(raw, "audiobookStatus"),
            "audiobookIdentifier TEXT notnull pk, downloadStatus INTEGER, downloadedSize INTEGER, "
            "totalSize INTEGER");
  EXPECT_EQ(
      columns(raw, "chapterStatus"),
      "id INTEGER pk, audiobookID TEXT, partNumber INTEGER, chapterNumber INTEGER, "
      "downloadStatus INTEGER, downloadedSize INTEGER, totalSize INTEGER, playlistToken TEXT");
  EXPECT_EQ(listener->count("[QSODatabaseManager] Database version 0. New database, no migration"),
            1u);
  EXPECT_EQ(listener->count("[QSODatabaseManager] Database Path: " + file().string()), 2u);
  EXPECT_EQ(listener->count("[QSODatabaseManager] Database version 1 is current version, no "
                            "migration"),
            1u);
}

TEST_F(StatusDatabase, AnotherVersionIsRestampedWithItsTablesUntouched) {
  {
    RawSqlite raw(file());
    raw.exec(
        "CREATE TABLE audiobookStatus (legacy TEXT); INSERT INTO audiobookStatus VALUES "
        "('kept'); PRAGMA user_version = 2;");
  }
  QSODatabaseManager manager;
  RawSqlite raw(file());
  EXPECT_EQ(raw.integer("PRAGMA user_version"), 1);
  EXPECT_EQ(raw.rows("SELECT * FROM audiobookStatus"), (Rows{{"kept"}}));
  EXPECT_EQ(raw.rows("SELECT name FROM sqlite_master WHERE name='chapterStatus'"), Rows{});
  EXPECT_EQ(listener->count("[QSODatabaseManager] Database migration from 2 to 1"), 1u);
}

TEST_F(StatusDatabase, ATableThatCannotBeCreatedStillLeavesVersion1AndFailsTheSetUp) {
  {
    // An index holding the table's name makes its creation fail.
    RawSqlite raw(file());
    raw.exec("CREATE TABLE other (x); CREATE INDEX audiobookStatus ON other (x);");
  }
  QSODatabaseManager manager;
  RawSqlite raw(file());
  EXPECT_EQ(raw.integer("PRAGMA user_version"), 1);
  EXPECT_EQ(listener->count("[QSODatabaseManager] Error creating table: "), 1u);
  EXPECT_EQ(listener->count("[QSODatabaseManager] Error creating database tables: "), 1u);
  EXPECT_EQ(listener->count("[QSODatabaseManager] Error setting up database: "), 1u);
  EXPECT_EQ(raw.rows("SELECT type FROM sqlite_master WHERE name='chapterStatus'"),
            (Rows{{"table"}}));
}

TEST_F(StatusDatabase, ABatchWithOneFailingRowKeepsTheOthersAndDeleteAllEmptiesTheTables) {
  auto& manager = *QSODatabaseManager::sharedManager();
  EXPECT_TRUE(manager.getRequests().empty());
  EXPECT_EQ(manager.getAudiobookStatusForIdentifier("none"), nullptr);
  // Make the third insert fail: a trigger refuses one audiobook.
  RawSqlite raw(file());
  raw.exec(
      "CREATE TRIGGER refuse BEFORE INSERT ON chapterStatus WHEN NEW.audiobookID='bad' "
      "BEGIN SELECT RAISE(ABORT, 'refused'); END;");
  std::vector<QSOChapterStatusPtr> batch;
  for (auto id : {"good", "good", "bad", "good"}) {
    batch.push_back(std::make_shared<QSOChapterStatus>(QSOChapterDescription(id, 0, batch.size()),
                                                       0, 0, 100, "token"));
  }
  EXPECT_FALSE(manager.insertChapterStatuses(batch));
  auto stored = manager.getAllChapterStatusesForAudiobookIdentifier("good");
  ASSERT_EQ(stored.size(), 3u);
  EXPECT_EQ(stored[2]->chapterDescription().chapterNumber(), 3u);
  EXPECT_EQ(listener->count("[QSODatabaseManager] Error inserting chapter status: refused"), 1u);
  EXPECT_EQ(listener->count("Transaction query: COMMIT TRANSACTION"), 1u);

  ASSERT_TRUE(manager.insertRequest(QSODownloadRequest("1", 0, "k", "l", false)));
  ASSERT_TRUE(manager.insertAudiobookStatus(QSOAudiobookStatus("1", 0, 0, 10)));
  EXPECT_TRUE(manager.deleteAll());
  for (auto table : {"downloadRequests", "audiobookStatus", "chapterStatus"}) {
    EXPECT_EQ(raw.integer(std::string("SELECT COUNT(*) FROM ") + table), 0) << table;
  }
}

}  // namespace
}  // namespace sonorell
