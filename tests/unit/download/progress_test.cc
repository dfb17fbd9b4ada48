// Download progress trees built from real status records: how chapters are weighted against the
// audiobook, what the root reports as chapters fill, the registry's keys, and chapters of one
// audiobook updated from many threads at once.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <tuple>
#include <vector>

#include "download/progress.h"
#include "download/progress_manager.h"
#include "persistence/audiobook_status.h"
#include "persistence/chapter_status.h"
#include "platform/dispatch/dispatch_queue.h"
#include "sonorell/log_engine.h"
#include "support/recording_listener.h"
#include "support/temp_library.h"

namespace sonorell {
namespace {

using testing::RecordingListener;
using testing::TempLibrary;

struct ChapterRow {
  uint64_t part;
  uint64_t chapter;
  uint64_t downloaded;
  uint64_t total;
};

class DownloadProgress : public ::testing::Test {
 protected:
  void SetUp() override { QSOLogEngine::setListener(listener); }
  void TearDown() override { QSOLogEngine::setListener(nullptr); }

  // Stores the audiobook's status record and its chapter records in the given order.
  static void saveBook(const std::string& id, uint64_t total, const std::vector<ChapterRow>& rows) {
    ASSERT_TRUE(std::make_shared<QSOAudiobookStatus>(id, 0, 0, total)->saveToDatabase());
    if (rows.empty()) return;
    std::vector<QSOChapterStatusPtr> chapters;
    for (const auto& row : rows) {
      chapters.push_back(std::make_shared<QSOChapterStatus>(
          QSOChapterDescription(id, row.part, row.chapter), 0, row.downloaded, row.total, "tok"));
    }
    ASSERT_TRUE(QSOChapterStatus::saveToDatabase(chapters));
  }

  static QSOProgressPtr chapterNode(const std::string& id, uint64_t part, uint64_t chapter) {
    auto node = manager()->progressForAudiobookID(id, part, chapter);
    EXPECT_NE(node, nullptr) << id << "_" << part << "_" << chapter;
    return node;
  }

  static std::shared_ptr<QSOProgressManager> manager() {
    return QSOProgressManager::sharedManager();
  }

  TempLibrary library;
  std::shared_ptr<RecordingListener> listener = std::make_shared<RecordingListener>();
};

// --- Weighting chapters against the audiobook -------------------------------------------------

TEST_F(DownloadProgress, TheLastStoredRecordTakesTheShortfallSoACompleteBookReachesExactlyOne) {
  // The chapters hold 768 of the audiobook's 1024 bytes. Stored as chapter 3, 1, 2: chapter 2,
  // the last record whatever its number, is weighted 256 + 256.
  saveBook("short", 1024, {{0, 3, 0, 256}, {0, 1, 0, 256}, {0, 2, 0, 256}});
  auto root = manager()->createProgressForAudiobookID("short");
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(root->work(), QSOProgress::Work(0, 1024));
  EXPECT_EQ(chapterNode("short", 0, 1)->workRatio(), QSOProgress::WorkRatio(256, 1024));
  EXPECT_EQ(chapterNode("short", 0, 2)->workRatio(), QSOProgress::WorkRatio(512, 1024));
  ASSERT_EQ(root->children().size(), 3u);
  EXPECT_EQ(root->children()[2], chapterNode("short", 0, 2));
  EXPECT_EQ(root->fractionCompleted(), 0.0);

  chapterNode("short", 0, 1)->setCompletedUnitCount(256);
  EXPECT_EQ(root->fractionCompleted(), 0.25);
  chapterNode("short", 0, 2)->setCompletedUnitCount(128);  // half of the heavy chapter
  EXPECT_EQ(root->fractionCompleted(), 0.5);
  chapterNode("short", 0, 3)->setCompletedUnitCount(256);
  chapterNode("short", 0, 2)->setCompletedUnitCount(256);
  EXPECT_EQ(root->fractionCompleted(), 1.0);
}

TEST_F(DownloadProgress, TheLastChapterGivesBackAnExcessButNeverGoesBelowNoWeight) {
  // 1280 bytes of chapters for a 1024-byte book: the last one is weighted 512 - 256.
  saveBook("long", 1024, {{0, 1, 0, 512}, {0, 2, 0, 256}, {0, 3, 0, 512}});
  auto root = manager()->createProgressForAudiobookID("long");
  EXPECT_EQ(chapterNode("long", 0, 3)->workRatio(), QSOProgress::WorkRatio(256, 1024));
  chapterNode("long", 0, 3)->setCompletedUnitCount(512);
  EXPECT_EQ(root->fractionCompleted(), 0.25);
  chapterNode("long", 0, 1)->setCompletedUnitCount(512);
  chapterNode("long", 0, 2)->setCompletedUnitCount(256);
  EXPECT_EQ(root->fractionCompleted(), 1.0);

  // The first chapter alone is twice the book: the last one gets no weight, not a huge one.
  saveBook("over", 1024, {{0, 1, 0, 2048}, {0, 2, 0, 512}});
  root = manager()->createProgressForAudiobookID("over");
  EXPECT_EQ(chapterNode("over", 0, 2)->workRatio(), QSOProgress::WorkRatio(0, 1024));
  chapterNode("over", 0, 2)->setCompletedUnitCount(512);
  EXPECT_EQ(root->fractionCompleted(), 0.0);
  chapterNode("over", 0, 1)->setCompletedUnitCount(1024);
  EXPECT_EQ(root->fractionCompleted(), 1.0);
}

TEST_F(DownloadProgress, RecordedBytesCountFromTheStartAndAnOverrunGoesAboveOne) {
  saveBook("resume", 2048, {{1, 1, 1024, 1024}, {1, 2, 512, 1024}});
  auto root = manager()->createProgressForAudiobookID("resume");
  auto second = chapterNode("resume", 1, 2);
  EXPECT_EQ(second->work(), QSOProgress::Work(512, 1024));
  EXPECT_EQ(root->fractionCompleted(), 0.75);
  second->setCompletedUnitCount(1536);
  EXPECT_DOUBLE_EQ(second->fractionCompleted(), 1.5);
  EXPECT_DOUBLE_EQ(root->fractionCompleted(), 1.25);
  // The transfer reports its real size: total = completed brings it back to a whole chapter.
  second->setTotalUnitCount(1536);
  EXPECT_DOUBLE_EQ(root->fractionCompleted(), 1.0);
}

TEST_F(DownloadProgress, AChapterWithTotalZeroContributesNothing) {
  saveBook("empty-chapter", 1024, {{0, 1, 0, 512}, {0, 2, 0, 0}, {0, 3, 0, 512}});
  auto root = manager()->createProgressForAudiobookID("empty-chapter");
  auto empty = chapterNode("empty-chapter", 0, 2);
  empty->setCompletedUnitCount(300);
  EXPECT_EQ(empty->fractionCompleted(), 0.0);
  EXPECT_EQ(root->fractionCompleted(), 0.0);

  chapterNode("empty-chapter", 0, 1)->setCompletedUnitCount(256);
  EXPECT_EQ(root->fractionCompleted(), 0.25);
  // Once its size is known it counts by the weight it was given at creation (0 bytes).
  empty->setTotalUnitCount(300);
  EXPECT_EQ(empty->fractionCompleted(), 1.0);
  EXPECT_EQ(root->fractionCompleted(), 0.25);
}

TEST_F(DownloadProgress, WithoutChaptersOrWithoutABookRecordOnlyTheRootsOwnWorkCounts) {
  saveBook("bare", 1000, {});
  auto root = manager()->createProgressForAudiobookID("bare");
  ASSERT_NE(root, nullptr);
  EXPECT_TRUE(root->children().empty());
  EXPECT_EQ(root->workRatio(), std::nullopt);
  EXPECT_EQ(root->fractionCompleted(), 0.0);
  EXPECT_EQ(listener->count("Create progress for bare with 0 children, (QSOProgress)"), 1u);
  root->setCompletedUnitCount(250);
  EXPECT_EQ(root->fractionCompleted(), 0.25);

  ASSERT_TRUE(QSOChapterStatus::saveToDatabase({std::make_shared<QSOChapterStatus>(
      QSOChapterDescription("unknown", 0, 1), 0, 100, 100, "tok")}));
  root = manager()->createProgressForAudiobookID("unknown");
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(root->work(), QSOProgress::Work(0, 0));
  EXPECT_EQ(chapterNode("unknown", 0, 1)->workRatio(), QSOProgress::WorkRatio(0, 0));
  EXPECT_EQ(root->fractionCompleted(), 0.0);
}

// --- Nodes on their own ---------------------------------------------------------------------

TEST_F(DownloadProgress, AChildKeepsTheParentsTotalFromAssignmentAndMayOutliveIt) {
  auto root = std::make_shared<QSOProgress>(0, 100);
  auto child = std::make_shared<QSOProgress>(10, 10);
  root->assignChild(child, 50);
  EXPECT_EQ(child->parent(), root);
  EXPECT_EQ(root->fractionCompleted(), 0.5);
  root->setTotalUnitCount(200);  // the root's own share is 0 either way
  EXPECT_EQ(child->workRatio(), QSOProgress::WorkRatio(50, 100));
  EXPECT_EQ(root->fractionCompleted(), 0.5);
  root->setCompletedUnitCount(100);
  EXPECT_EQ(root->fractionCompleted(), 1.0);  // own 100/200 plus the child's 0.5

  root.reset();
  EXPECT_EQ(child->parent(), nullptr);
  child->setCompletedUnitCount(5);
  EXPECT_EQ(child->fractionCompleted(), 0.5);
}

// --- The registry ---------------------------------------------------------------------------

TEST_F(DownloadProgress, ATreeIsFoundOnlyOnceCreatedAndCreatedOnceWithALineForEveryNode) {
  saveBook("later", 1000, {{2, 7, 0, 400}, {2, 8, 0, 600}});
  EXPECT_EQ(manager()->progressForAudiobookID("later"), nullptr);
  EXPECT_EQ(manager()->progressForAudiobookID("later", 2, 7), nullptr);

  auto root = manager()->createProgressForAudiobookID("later");
  EXPECT_EQ(manager()->progressForAudiobookID("later"), root);
  auto chapter = manager()->progressForAudiobookID("later", 2, 7);
  ASSERT_NE(chapter, nullptr);
  EXPECT_EQ(chapter->parent(), root);
  EXPECT_EQ(manager()->progressForAudiobookID("later", 7, 2), nullptr);
  EXPECT_EQ(listener->count("Create progress for later with 2 children, (QSOProgress)"), 1u);
  EXPECT_EQ(listener->count("Create progress for later_2_7 (QSOProgress)"), 1u);
  EXPECT_EQ(listener->count("Create progress for later_2_8 (QSOProgress)"), 1u);

  chapter->setCompletedUnitCount(200);
  EXPECT_EQ(manager()->createProgressForAudiobookID("later"), root);
  EXPECT_DOUBLE_EQ(root->fractionCompleted(), 0.2) << "creating again keeps the first tree";
  EXPECT_EQ(listener->count("Create progress for later with"), 1u);
}

TEST_F(DownloadProgress, RemovingDropsTheRootAndEveryChapterKey) {
  saveBook("gone", 1000, {{0, 1, 0, 500}, {0, 2, 0, 500}});
  saveBook("kept", 1000, {{0, 1, 0, 1000}});
  manager()->createProgressForAudiobookID("gone");
  manager()->createProgressForAudiobookID("kept");

  manager()->removeProgressForAudiobookID("gone");
  EXPECT_EQ(manager()->progressForAudiobookID("gone"), nullptr);
  EXPECT_EQ(manager()->progressForAudiobookID("gone", 0, 1), nullptr);
  EXPECT_EQ(manager()->progressForAudiobookID("gone", 0, 2), nullptr);
  EXPECT_NE(manager()->progressForAudiobookID("kept"), nullptr);
  EXPECT_NE(manager()->progressForAudiobookID("kept", 0, 1), nullptr);

  // A new tree starts from the records again.
  auto fresh = manager()->createProgressForAudiobookID("gone");
  EXPECT_EQ(manager()->progressForAudiobookID("gone", 0, 2)->parent(), fresh);
}

TEST_F(DownloadProgress, DisableDispatchRunsOperationsOnTheCallersThreadWithoutTheQueue) {
  saveBook("queued", 1000, {{0, 1, 0, 1000}});
  saveBook("direct", 1000, {{0, 1, 0, 1000}});
  // The root's log line is written while the map is being changed: it shows where that runs.
  std::string queueAtCreation = "(none)";
  struct QueueProbe : RecordingListener {
    std::string* seen;
    explicit QueueProbe(std::string* s) : seen(s) {}
    void logInfo(const std::string& line) override {
      if (line.find("Create progress for") != std::string::npos) {
        DispatchQueue* queue = DispatchQueue::current();
        *seen = queue ? queue->label() : "(none)";
      }
    }
  };
  QSOLogEngine::setListener(std::make_shared<QueueProbe>(&queueAtCreation));

  manager()->createProgressForAudiobookID("queued");
  EXPECT_EQ(queueAtCreation, "io.sonorell.progress");

  manager()->disableDispatch();
  auto root = manager()->createProgressForAudiobookID("direct");
  EXPECT_EQ(queueAtCreation, "(none)");
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(manager()->progressForAudiobookID("direct"), root);
  manager()->removeProgressForAudiobookID("direct");
  EXPECT_EQ(manager()->progressForAudiobookID("direct", 0, 1), nullptr);
}

// --- Many threads -------------------------------------------------------------------------------

TEST_F(DownloadProgress, ChaptersUpdatedFromManyThreadsEndAtTheRightFraction) {
  constexpr uint64_t kChapters = 16;
  constexpr uint64_t kChapterBytes = 1000;
  constexpr uint64_t kStep = 10;
  std::vector<ChapterRow> rows;
  for (uint64_t c = 1; c <= kChapters; ++c) rows.push_back({0, c, 0, kChapterBytes});
  saveBook("busy", kChapters * kChapterBytes, rows);
  auto root = manager()->createProgressForAudiobookID("busy");
  std::vector<QSOProgressPtr> nodes;
  for (uint64_t c = 1; c <= kChapters; ++c) nodes.push_back(chapterNode("busy", 0, c));

  // Byte counts only grow, and root recomputations are serialised, so the root never goes back.
  std::atomic<bool> done{false};
  std::atomic<bool> wentBack{false};
  std::thread reader([&] {
    double last = 0.0;
    while (!done.load()) {
      double now = root->fractionCompleted();
      if (now < last) wentBack = true;
      last = now;
    }
  });
  // Two threads per chapter, neighbours sharing chapters, so every pair of sibling updates and
  // every pair of updates of one chapter race somewhere.
  std::vector<std::thread> writers;
  for (uint64_t t = 0; t < kChapters; ++t) {
    writers.emplace_back([&, t] {
      auto mine = nodes[t];
      auto next = nodes[(t + 1) % kChapters];
      for (uint64_t bytes = kStep; bytes <= kChapterBytes; bytes += kStep) {
        mine->setCompletedUnitCount(bytes);
        next->setTotalUnitCount(kChapterBytes);
        EXPECT_NE(manager()->progressForAudiobookID("busy", 0, t + 1), nullptr);
      }
    });
  }
  for (auto& writer : writers) writer.join();
  done = true;
  reader.join();

  EXPECT_FALSE(wentBack);
  for (const auto& node : nodes) EXPECT_EQ(node->fractionCompleted(), 1.0);
  EXPECT_EQ(root->fractionCompleted(), 1.0);
}

TEST_F(DownloadProgress, ManyThreadsCreatingOneTreeGetTheSameRoot) {
  saveBook("race", 1000, {{0, 1, 0, 500}, {0, 2, 0, 500}});
  constexpr int kThreads = 8;
  std::vector<QSOProgressPtr> roots(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] { roots[i] = manager()->createProgressForAudiobookID("race"); });
  }
  for (auto& thread : threads) thread.join();
  for (const auto& root : roots) EXPECT_EQ(root, roots[0]);
  EXPECT_EQ(roots[0]->children().size(), 2u);
  EXPECT_EQ(listener->count("Create progress for race with"), 1u);
}

}  // namespace
}  // namespace sonorell
