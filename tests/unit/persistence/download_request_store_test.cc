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
using Store = QSODownloadRequestDatabaseHelper;

class DownloadRequestStore : public ::testing::Test {
 protected:
  testing::TempLibrary library;
};

TEST_F(DownloadRequestStore, AWholeBookRequestReadsBackWithAllBitsSetAsDoEarlierVersionsRows) {
  QSODownloadRequest request("12345", DownloadTypeFullAudiobook, "session", "license", true);
  ASSERT_TRUE(Store::saveToDatabase(request));
  auto back = Store::fetchRequestForRequestIdentifier(request.requestIdentifier());
  ASSERT_TRUE(back.has_value());
  EXPECT_EQ(back->partNumber(), 18446744073709551615ull);
  EXPECT_EQ(back->chapterNumber(), 18446744073709551615ull);
  EXPECT_EQ(back->description(), request.description());
  EXPECT_TRUE(back->restrictToWiFi());

  // Earlier versions wrote the defaults as floating-point numbers.
  RawSqlite(FilesystemHelper::metadataDatabasePath())
      .exec(
          "INSERT INTO downloadRequests VALUES (\"OLD\", \"1\", 18446744073709551615, "
          "18446744073709551615, 0, \"k\", \"l\", 0)");
  back = Store::fetchRequestForRequestIdentifier("OLD");
  ASSERT_TRUE(back.has_value());
  EXPECT_EQ(back->partNumber(), QSODownloadRequestDefaultPart);
  EXPECT_EQ(back->chapterNumber(), QSODownloadRequestDefaultChapter);
}

TEST_F(DownloadRequestStore, ADuplicateIdentifierIsRefusedAndDeletingRemovesOnlyThatRequest) {
  QSODownloadRequest first("RID", "1", 0, 3, DownloadTypeToEnd, "k1", "l1", false);
  QSODownloadRequest second("RID", "2", 0, 4, DownloadTypeSingleChapter, "k2", "l2", true);
  QSODownloadRequest other("2", 0, "k", "l", false);
  EXPECT_TRUE(Store::saveToDatabase(first));
  EXPECT_FALSE(Store::saveToDatabase(second));
  EXPECT_TRUE(Store::saveToDatabase(other));
  EXPECT_EQ(Store::fetchAllRequests().size(), 2u);
  EXPECT_EQ(Store::fetchRequestForRequestIdentifier("RID")->description(), first.description());

  EXPECT_TRUE(Store::deleteFromDatabase(first));
  auto all = Store::fetchAllRequests();
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0].requestIdentifier(), other.requestIdentifier());
  EXPECT_FALSE(Store::fetchRequestForRequestIdentifier("RID"));
}

}  // namespace
}  // namespace sonorell
