// Audiobook and chapter status records through their caches and the real status database:
// shared instances, what is (not) cached, property updates, and hostile identifiers.
#include <gtest/gtest.h>

#include <barrier>
#include <thread>

#include "persistence/audiobook_status.h"
#include "persistence/chapter_status.h"
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

class StatusRecords : public ::testing::Test {
 protected:
  void SetUp() override { QSOLogEngine::setListener(listener); }
  void TearDown() override { QSOLogEngine::setListener(nullptr); }

  static void saveBook(const std::string& id, int chapters) {
    std::vector<QSOChapterStatusPtr> rows;
    for (int i = chapters; i >= 1; --i) {  // stored out of order on purpose
      rows.push_back(std::make_shared<QSOChapterStatus>(
          QSOChapterDescription(id, static_cast<uint64_t>(i % 2), static_cast<uint64_t>(i)), 0, 0,
          100, "tok"));
    }
    ASSERT_TRUE(QSOChapterStatus::saveToDatabase(rows));
  }

  TempLibrary library;
  std::shared_ptr<RecordingListener> listener = std::make_shared<RecordingListener>();
};

TEST_F(StatusRecords, FetchedRecordsAreTheCachedInstancesCallersChangeSortedByPartThenChapter) {
  auto book = std::make_shared<QSOAudiobookStatus>("42", 0, 0, 1000);
  ASSERT_TRUE(book->saveToDatabase());
  EXPECT_EQ(QSOAudiobookStatus::fetchAudiobookStatusForAudiobookIdentifier("42"), book);

  EXPECT_TRUE(QSOChapterStatus::fetchAllForAudiobookIdentifier("42").empty());
  saveBook("42", 3);  // rows arrive after the first (empty) read, which must not be cached
  auto chapter = QSOChapterStatus::fetchForChapterDescription(QSOChapterDescription("42", 0, 2));
  ASSERT_NE(chapter, nullptr);
  chapter->setDownloadStatus(DownloadStatusDownloading);
  EXPECT_EQ(QSOChapterStatus::fetchForChapterDescription(QSOChapterDescription("42", 0, 2))
                ->downloadStatus(),
            DownloadStatusDownloading);
  auto list = QSOChapterStatus::fetchAllForAudiobookIdentifier("42");
  EXPECT_NE(std::find(list.begin(), list.end(), chapter), list.end());
  EXPECT_GE(listener->count("Cache hit: 42 3 chapters"), 1u);

  std::vector<std::pair<uint64_t, uint64_t>> order;
  for (const auto& s : QSOChapterStatus::fetchAllSortedForAudiobookIdentifier("42")) {
    order.emplace_back(s->chapterDescription().partNumber(),
                       s->chapterDescription().chapterNumber());
  }
  EXPECT_EQ(order, (std::vector<std::pair<uint64_t, uint64_t>>{{0, 2}, {1, 1}, {1, 3}}));
}

TEST_F(StatusRecords, CallersRacingToFillTheCachesShareOneInstance) {
  saveBook("9", 4);
  // Stored behind the cache's back, so that every thread below finds the cache empty.
  ASSERT_TRUE(QSODatabaseManager::sharedManager()->insertAudiobookStatus(
      QSOAudiobookStatus("9", 0, 0, 10)));
  constexpr int kThreads = 8;
  std::barrier start(kThreads);
  std::vector<QSOChapterStatusPtr> chapters(kThreads);
  std::vector<QSOAudiobookStatusPtr> books(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      start.arrive_and_wait();
      chapters[i] = QSOChapterStatus::fetchForChapterDescription(QSOChapterDescription("9", 1, 3));
      books[i] = QSOAudiobookStatus::fetchAudiobookStatusForAudiobookIdentifier("9");
    });
  }
  for (auto& t : threads) t.join();
  ASSERT_NE(chapters[0], nullptr);
  ASSERT_NE(books[0], nullptr);
  for (int i = 1; i < kThreads; ++i) {
    EXPECT_EQ(chapters[i], chapters[0]);
    EXPECT_EQ(books[i], books[0]);
  }
  auto list = QSOChapterStatus::fetchAllForAudiobookIdentifier("9");
  EXPECT_NE(std::find(list.begin(), list.end(), chapters[0]), list.end());
}

TEST_F(StatusRecords, DeletingOneBookDropsEveryChapterKeyedEntryOfEveryBook) {
  saveBook("a", 2);
  saveBook("b", 2);
  auto a1 = QSOChapterStatus::fetchForChapterDescription(QSOChapterDescription("a", 1, 1));
  auto b1 = QSOChapterStatus::fetchForChapterDescription(QSOChapterDescription("b", 1, 1));
  ASSERT_TRUE(a1 && b1);
  EXPECT_TRUE(QSOChapterStatus::deleteAllForAudiobookID("a"));

  EXPECT_EQ(QSOChapterStatus::fetchForChapterDescription(QSOChapterDescription("a", 1, 1)),
            nullptr);
  // b's chapter entry was dropped too, so the next look-up is a new instance from b's list.
  auto b1Again = QSOChapterStatus::fetchForChapterDescription(QSOChapterDescription("b", 1, 1));
  ASSERT_NE(b1Again, nullptr);
  auto bList = QSOChapterStatus::fetchAllForAudiobookIdentifier("b");
  EXPECT_NE(std::find(bList.begin(), bList.end(), b1Again), bList.end());
}

TEST_F(StatusRecords, UpdatesWriteOnlyNamedKnownPropertiesAndLeaveCachedInstancesAlone) {
  saveBook("9", 1);
  auto chapter = QSOChapterStatus::fetchForChapterDescription(QSOChapterDescription("9", 1, 1));
  chapter->setDownloadStatus(DownloadStatusDownloaded);
  chapter->setDownloadedSize(55);  // changed but not named: must not be written
  EXPECT_TRUE(chapter->writeUpdateForProperties({"downloadStatus", "colour"}));
  EXPECT_EQ(listener->count("[QSOChapterStatus] Invalid property update: colour"), 1u);
  RawSqlite raw(FilesystemHelper::metadataDatabasePath());
  EXPECT_EQ(raw.rows("SELECT downloadStatus, downloadedSize FROM chapterStatus"),
            (std::vector<std::vector<std::string>>{{"3", "0"}}));

  auto book = std::make_shared<QSOAudiobookStatus>("9", 0, 0, 10);
  book->saveToDatabase();
  book->setTotalSize(20);
  book->setDownloadStatus(2);
  EXPECT_TRUE(book->writeUpdateForProperties({"totalSize", "nope"}));
  EXPECT_EQ(listener->count("[QSOAudiobookStatus] Invalid property update: nope"), 1u);
  EXPECT_EQ(raw.rows("SELECT downloadStatus, totalSize FROM audiobookStatus"),
            (std::vector<std::vector<std::string>>{{"0", "20"}}));

  // Batch updates by book and by row id leave cached instances alone.
  saveBook("5", 3);
  auto cached = QSOChapterStatus::fetchAllSortedForAudiobookIdentifier("5");
  ASSERT_EQ(cached.size(), 3u);
  EXPECT_TRUE(QSOChapterStatus::writeUpdateForProperties(
      {"downloadStatus", "playlistToken"}, {Value(4), Value("new")}, std::string("5")));
  EXPECT_TRUE(QSOChapterStatus::writeUpdateForProperties(
      {"downloadedSize"}, {Value(77)},
      std::vector<uint64_t>{cached[0]->chapterIdentifier(), cached[2]->chapterIdentifier()}));
  EXPECT_EQ(cached[0]->downloadStatus(), 0u);
  auto fresh =
      QSODatabaseManager::sharedManager()->getAllChapterStatusesForAudiobookIdentifier("5");
  uint64_t withSize = 0;
  for (const auto& s : fresh) {
    EXPECT_EQ(s->downloadStatus(), 4u);
    EXPECT_EQ(s->playlistToken(), "new");
    withSize += s->downloadedSize() == 77;
  }
  EXPECT_EQ(withSize, 2u);
}

TEST_F(StatusRecords, RowReadersNeedSevenChapterColumnsFourBookColumnsEightRequestColumns) {
  RawSqlite raw(library.path() / "rows.sqlite");
  raw.exec(
      "CREATE TABLE t (id, a, p, c, s, d, t, k); INSERT INTO t VALUES "
      "(5, 'x', 1, 2, 3, 4, 9, 'tok');");
  std::vector<QSOChapterStatusPtr> read;
  for (const char* sql : {"SELECT id, a, p, c, s, d, t FROM t", "SELECT id, a, p, c, s, d FROM t",
                          "SELECT * FROM t"}) {
    raw.forEachRow(sql, [&](sqlite3_stmt* s) {
      read.push_back(QSOChapterStatus::initWithStatement(SqlRow(s)));
    });
  }
  ASSERT_EQ(read.size(), 3u);
  ASSERT_NE(read[0], nullptr);
  EXPECT_EQ(read[0]->chapterIdentifier(), 5u);
  EXPECT_EQ(read[0]->chapterDescription(), QSOChapterDescription("x", 1, 2));
  EXPECT_EQ(read[0]->totalSize(), 9u);
  EXPECT_EQ(read[0]->playlistToken(), "");
  EXPECT_EQ(read[1], nullptr);
  ASSERT_NE(read[2], nullptr);
  EXPECT_EQ(read[2]->playlistToken(), "tok");

  int books = 0, requests = 0;
  raw.forEachRow("SELECT a, s, d FROM t", [&](sqlite3_stmt* s) {
    books += QSOAudiobookStatus::initWithStatement(SqlRow(s)) != nullptr;
  });
  raw.forEachRow("SELECT a, s, d, t FROM t", [&](sqlite3_stmt* s) {
    books += QSOAudiobookStatus::initWithStatement(SqlRow(s)) != nullptr;
  });
  raw.forEachRow("SELECT id, a, p, c, s, d, t FROM t", [&](sqlite3_stmt* s) {
    requests += QSODownloadRequestDatabaseHelper::initWithStatement(SqlRow(s)).has_value();
  });
  EXPECT_EQ(books, 1);
  EXPECT_EQ(requests, 0);
}

// Identifiers a host might hand us that are SQL syntax or our own column names.
const std::vector<std::string> kHostile = {"a\"b",           "it's",
                                           "x -- y",         "1; DROP TABLE chapterStatus",
                                           "downloadStatus", "audiobookIdentifier",
                                           "Ünïcødé 書",     "\" OR 1=1 --"};

TEST_F(StatusRecords, HostileIdentifiersRoundTripThroughEveryTableAndTouchNoOtherRow) {
  auto bystander = std::make_shared<QSOAudiobookStatus>("bystander", 3, 10, 10);
  ASSERT_TRUE(bystander->saveToDatabase());
  saveBook("bystander", 2);
  QSODownloadRequest otherRequest("bystander", 0, "k", "l", false);
  ASSERT_TRUE(QSODownloadRequestDatabaseHelper::saveToDatabase(otherRequest));
  auto& manager = *QSODatabaseManager::sharedManager();

  for (const auto& id : kHostile) {
    SCOPED_TRACE(id);
    auto book = std::make_shared<QSOAudiobookStatus>(id, 0, 1, 2);
    ASSERT_TRUE(book->saveToDatabase());
    auto read = manager.getAudiobookStatusForIdentifier(id);
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(read->audiobookIdentifier(), id);
    book->setDownloadStatus(4);
    EXPECT_TRUE(book->writeUpdateForProperties({"downloadStatus"}));

    ASSERT_TRUE(QSOChapterStatus::saveToDatabase(
        {std::make_shared<QSOChapterStatus>(QSOChapterDescription(id, 0, 1), 0, 0, 5, id)}));
    auto chapters = manager.getAllChapterStatusesForAudiobookIdentifier(id);
    ASSERT_EQ(chapters.size(), 1u);
    EXPECT_EQ(chapters[0]->chapterDescription().audiobookID(), id);
    EXPECT_EQ(chapters[0]->playlistToken(), id);
    EXPECT_TRUE(
        QSOChapterStatus::writeUpdateForProperties({"playlistToken"}, {Value(id + "!")}, id));

    QSODownloadRequest request(id, 0, id, id, true);
    ASSERT_TRUE(QSODownloadRequestDatabaseHelper::saveToDatabase(request));
    auto back = QSODownloadRequestDatabaseHelper::fetchRequestForRequestIdentifier(
        request.requestIdentifier());
    ASSERT_TRUE(back.has_value());
    EXPECT_EQ(back->audiobookID(), id);
    EXPECT_EQ(back->sessionKey(), id);
    EXPECT_EQ(back->licenseID(), id);

    EXPECT_TRUE(QSODownloadRequestDatabaseHelper::deleteFromDatabase(request));
    EXPECT_TRUE(QSOChapterStatus::deleteAllForAudiobookID(id));
    EXPECT_TRUE(book->deleteFromDatabase());
    EXPECT_EQ(manager.getAudiobookStatusForIdentifier(id), nullptr);
  }

  auto stillThere = manager.getAudiobookStatusForIdentifier("bystander");
  ASSERT_NE(stillThere, nullptr);
  EXPECT_EQ(stillThere->downloadStatus(), 3u);
  auto bystanderChapters = manager.getAllChapterStatusesForAudiobookIdentifier("bystander");
  ASSERT_EQ(bystanderChapters.size(), 2u);
  EXPECT_EQ(bystanderChapters[0]->playlistToken(), "tok");
  EXPECT_EQ(QSODownloadRequestDatabaseHelper::fetchAllRequests().size(), 1u);
  // The log shows the statements as written, values in place.
  EXPECT_GE(listener->count("DELETE FROM audiobookStatus WHERE audiobookIdentifier=\"it's\""), 1u);
}

}  // namespace
}  // namespace sonorell
