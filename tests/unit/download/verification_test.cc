// Start-up verification against a real status database and real files: what it repairs, what
// it deletes, what it leaves alone, and the restart of stored requests that ends it.
#include <gtest/gtest.h>

#include <fstream>

#include "download/integrity_manager.h"
#include "support/download_engine_support.h"
#include "persistence/audiobook_status.h"
#include "persistence/database_manager.h"
#include "persistence/download_request_store.h"

namespace sonorell {
namespace {

using content::Route;
using testing::DownloadEngineTest;

class Verification : public DownloadEngineTest {
 protected:
  // A book record and chapters 1..n of part 0 with the given statuses.
  static std::vector<QSOChapterStatusPtr> book(const std::string& id,
                                               const std::vector<uint64_t>& statuses,
                                               bool withBookRecord = true) {
    if (withBookRecord) {
      EXPECT_TRUE(std::make_shared<QSOAudiobookStatus>(id, 0, 0, 300)->saveToDatabase());
    }
    std::vector<QSOChapterStatusPtr> rows;
    for (size_t i = 0; i < statuses.size(); ++i) {
      rows.push_back(std::make_shared<QSOChapterStatus>(QSOChapterDescription(id, 0, i + 1),
                                                        statuses[i], 0, 100, "token"));
    }
    EXPECT_TRUE(QSOChapterStatus::saveToDatabase(rows));
    return QSOChapterStatus::fetchAllSortedForAudiobookIdentifier(id);
  }
  static void writeFile(const QSOChapterDescription& chapter, size_t bytes) {
    ErrorPtr error;
    ASSERT_TRUE(FilesystemHelper::createAudiobookDirectory(chapter.audiobookID(), &error));
    std::ofstream(FilesystemHelper::filePath(chapter), std::ios::binary) << std::string(bytes, 'x');
  }
  size_t auditsFor(const QSOChapterDescription& chapter) {
    return namesFor(chapter, std::string(QSOAuditChapterDeletedNotification)).size();
  }
};

TEST_F(Verification, RecordsFollowTheDiskAndTheStoredRequests) {
  // Chapter 1 claims a missing file; 2 has an empty file; 3 is staged without a request; 4 is
  // downloaded with its file; 5 has a file but says not downloaded.
  auto chapters = book("A", {3, 3, 4, 3, 0});
  writeFile(chapters[1]->chapterDescription(), 0);
  writeFile(chapters[3]->chapterDescription(), 100);
  writeFile(chapters[4]->chapterDescription(), 100);
  // Book B: staged chapters under a stored request stay staged, even without files.
  auto covered = book("B", {4, 1});
  QSODownloadRequest request("B", DownloadTypeFullAudiobook, "s", "l", false);
  ASSERT_TRUE(QSODownloadRequestDatabaseHelper::saveToDatabase(request));

  QSOIntegrityManager::verifyDatabaseNow(nullptr);
  DispatchQueue::waitUntilAllIdle(std::chrono::seconds(10));

  const std::vector<uint64_t> expected = {0, 0, 0, 3, 0};
  // Files deleted by the repairs are visited again from the list taken before them.
  const std::vector<size_t> audits = {1, 2, 1, 0, 2};
  for (size_t i = 0; i < chapters.size(); ++i) {
    SCOPED_TRACE(i + 1);
    EXPECT_EQ(chapters[i]->downloadStatus(), expected[i]);
    EXPECT_EQ(auditsFor(chapters[i]->chapterDescription()), audits[i]);
  }
  EXPECT_FALSE(FilesystemHelper::fileExists(chapters[1]->chapterDescription()));
  EXPECT_FALSE(FilesystemHelper::fileExists(chapters[4]->chapterDescription()));
  EXPECT_TRUE(FilesystemHelper::fileExists(chapters[3]->chapterDescription()));
  EXPECT_EQ(covered[0]->downloadStatus(), DownloadStatusStaged);
  EXPECT_EQ(covered[1]->downloadStatus(), DownloadStatusDownloading);
  // One of five downloaded and no request: partly downloaded, announced; its size recomputed.
  auto a = QSOAudiobookStatus::fetchAudiobookStatusForAudiobookIdentifier("A");
  EXPECT_EQ(a->downloadStatus(), DownloadStatusPartiallyDownloaded);
  EXPECT_EQ(a->downloadedSize(), 0u) << "chapter 4's recorded size was 0";
  EXPECT_EQ(namesFor(std::nullopt, std::string(QSOAuditAudiobookStatusUpdatedNotification)).size(),
            1u);
  EXPECT_EQ(posted().back().name, QSODatabaseVerificationCompleteNotification);
}

TEST_F(Verification, OrphanedFilesGoUnlessTheirChapterIsWanted) {
  // Chapter records without a book record are not verified one by one; only their files are.
  auto kept = book("C", {2, 0}, /*withBookRecord=*/false);
  writeFile(kept[0]->chapterDescription(), 10);
  writeFile(kept[1]->chapterDescription(), 10);
  const QSOChapterDescription stray("D", 0, 1);
  writeFile(stray, 10);

  QSOIntegrityManager::verifyDatabaseNow(nullptr);
  DispatchQueue::waitUntilAllIdle(std::chrono::seconds(10));
  EXPECT_TRUE(FilesystemHelper::fileExists(kept[0]->chapterDescription()));
  EXPECT_FALSE(FilesystemHelper::fileExists(kept[1]->chapterDescription()));
  EXPECT_FALSE(FilesystemHelper::fileExists(stray));
  EXPECT_EQ(auditsFor(stray), 1u);
  EXPECT_EQ(auditsFor(kept[1]->chapterDescription()), 1u);
  EXPECT_EQ(auditsFor(kept[0]->chapterDescription()), 0u);
}

TEST_F(Verification, LaunchRestartsAStoredRequestAfterTheRepairsAndANeedlessOneStaysStored) {
  const auto* done = server.catalogue().book(content::kThreeChapterBookID);
  ASSERT_EQ(download(QSODownloadRequest(done->id, DownloadTypeFullAudiobook, "s", "l", false)),
            QSODownloadRequestSuccessNotification);
  // As an earlier run would have left them: a request of a book already downloaded, and one
  // never begun.
  QSODownloadRequest needless(done->id, DownloadTypeFullAudiobook, "s", "l", false);
  const auto* fresh = server.catalogue().book(content::kFourChapterBookID);
  QSODownloadRequest pending(fresh->id, DownloadTypeFullAudiobook, "s", "l2", false);
  ASSERT_TRUE(QSODownloadRequestDatabaseHelper::saveToDatabase(needless));
  ASSERT_TRUE(QSODownloadRequestDatabaseHelper::saveToDatabase(pending));

  QSOIntegrityManager::verifyDatabase(engine->core());
  ASSERT_EQ(waitForEnd(pending.requestIdentifier()), QSODownloadRequestSuccessNotification);
  ASSERT_TRUE(waitFor(QSODatabaseVerificationCompleteNotification));
  for (const auto& chapter : fresh->chapters) EXPECT_TRUE(identicalToServer(*fresh, chapter));
  auto stored = engine->currentDownloadRequests();
  ASSERT_EQ(stored.size(), 1u);
  EXPECT_EQ(stored[0].requestIdentifier(), needless.requestIdentifier());
}

TEST_F(Verification, ADatabaseThatIsNotOneIsKeptAsideAndTheEngineStarts) {
  FilesystemHelper::createSupportDirectory();
  const auto path = FilesystemHelper::metadataDatabasePath();
  std::ofstream(path) << "these are somebody's notes, not a database";
  ASSERT_TRUE(std::make_shared<QSOAudiobookStatus>("E", 0, 0, 1)->saveToDatabase());
  EXPECT_EQ(QSOAudiobookStatus::fetchAllAudiobookIdentifiers(), std::vector<std::string>{"E"});
  bool keptAside = false;
  for (const auto& entry : std::filesystem::directory_iterator(path.parent_path())) {
    const auto name = entry.path().filename().string();
    if (name.starts_with(path.filename().string() + ".unreadable-")) {
      std::ifstream in(entry.path());
      std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      keptAside = text == "these are somebody's notes, not a database";
    }
  }
  EXPECT_TRUE(keptAside);
  EXPECT_EQ(listener->count("is not a database; kept as"), 1u);
}

}  // namespace
}  // namespace sonorell
