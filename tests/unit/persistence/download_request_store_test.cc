// Download requests outliving the process: what is stored, how it reads back, and duplicates.
#include <gtest/gtest.h>

#include "persistence/database_manager.h"
#include "persistence/download_request_store.h"
#include "persistence/filesystem_helper.h"
#include "support/raw_sqlite.h"
#include "support/temp_library.h"

namespace sonorell {
namespace {

using testing::RawSqlite;

TEST(DownloadRequestStore, AWholeBookRequestReadsBackWithAllBitsSet) {
  testing::TempLibrary library;
  QSODownloadRequest request("12345", DownloadTypeFullAudiobook, "session", "license", true);
  ASSERT_TRUE(QSODownloadRequestDatabaseHelper::saveToDatabase(request));
  auto back = QSODownloadRequestDatabaseHelper::fetchRequestForRequestIdentifier(
      request.requestIdentifier());
  ASSERT_TRUE(back.has_value());
  EXPECT_EQ(back->partNumber(), 18446744073709551615ull);
  EXPECT_EQ(back->chapterNumber(), 18446744073709551615ull);
  EXPECT_EQ(back->description(), request.description());
  EXPECT_TRUE(back->restrictToWiFi());
}

TEST(DownloadRequestStore, RowsWrittenAsFloatingDefaultsByEarlierVersionsReadBackAsDefaults) {
  testing::TempLibrary library;
  QSODatabaseManager::sharedManager();
  {
    RawSqlite raw(FilesystemHelper::metadataDatabasePath());
    raw.exec(
        "INSERT INTO downloadRequests VALUES (\"OLD\", \"1\", 18446744073709551615, "
        "18446744073709551615, 0, \"k\", \"l\", 0)");
  }
  auto back = QSODownloadRequestDatabaseHelper::fetchRequestForRequestIdentifier("OLD");
  ASSERT_TRUE(back.has_value());
  EXPECT_EQ(back->partNumber(), QSODownloadRequestDefaultPart);
  EXPECT_EQ(back->chapterNumber(), QSODownloadRequestDefaultChapter);
}

TEST(DownloadRequestStore, ASecondInsertOfTheSameIdentifierFailsAndKeepsTheFirst) {
  testing::TempLibrary library;
  QSODownloadRequest first("RID", "1", 0, 3, DownloadTypeToEnd, "k1", "l1", false);
  QSODownloadRequest second("RID", "2", 0, 4, DownloadTypeSingleChapter, "k2", "l2", true);
  EXPECT_TRUE(QSODownloadRequestDatabaseHelper::saveToDatabase(first));
  EXPECT_FALSE(QSODownloadRequestDatabaseHelper::saveToDatabase(second));
  auto all = QSODownloadRequestDatabaseHelper::fetchAllRequests();
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0].description(), first.description());
}

TEST(DownloadRequestStore, DeletingRemovesOnlyThatRequest) {
  testing::TempLibrary library;
  QSODownloadRequest a("1", 0, "k", "l", false), b("2", 0, "k", "l", false);
  QSODownloadRequestDatabaseHelper::saveToDatabase(a);
  QSODownloadRequestDatabaseHelper::saveToDatabase(b);
  EXPECT_TRUE(QSODownloadRequestDatabaseHelper::deleteFromDatabase(a));
  auto all = QSODownloadRequestDatabaseHelper::fetchAllRequests();
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0].requestIdentifier(), b.requestIdentifier());
  EXPECT_FALSE(
      QSODownloadRequestDatabaseHelper::fetchRequestForRequestIdentifier(a.requestIdentifier()));
}

}  // namespace
}  // namespace sonorell
