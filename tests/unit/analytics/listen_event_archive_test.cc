#include "analytics/listen_event_archive.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "analytics/listen_event_poster.h"
#include "analytics_test_support.h"
#include "sonorell/log_engine.h"
#include "support/recording_listener.h"

namespace sonorell {
namespace {

namespace fs = std::filesystem;
using Entry = ListenEventArchive::Entry;
using testing::AnalyticsTest;
using testing::archivedEvents;
using testing::makeEvent;
using testing::RecordingListener;

std::string readBytes(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void writeBytes(const fs::path& file, const std::string& bytes) {
  std::ofstream(file, std::ios::binary | std::ios::trunc) << bytes;
}

std::vector<uint64_t> chapters(const std::vector<Entry>& entries) {
  std::vector<uint64_t> result;
  for (const auto& entry : entries) result.push_back(entry.event->chapterNumber());
  return result;
}

std::vector<uint64_t> chapters(const std::vector<QLListenEventPtr>& events) {
  std::vector<uint64_t> result;
  for (const auto& event : events) result.push_back(event->chapterNumber());
  return result;
}

class ListenEventArchiveTest : public AnalyticsTest {
 protected:
  void SetUp() override { QSOLogEngine::setListener(log); }
  void TearDown() override { QSOLogEngine::setListener(nullptr); }

  fs::path file() const { return FilesystemHelper::listenEventsArchivePath(); }

  std::shared_ptr<RecordingListener> log = std::make_shared<RecordingListener>();
};

// --- Restarts ---

TEST_F(ListenEventArchiveTest, ARestartReadsTheQueueBackInOrder) {
  {
    auto poster = QLListenEventPoster::create(HttpClient::shared(), 10, 300);
    for (uint64_t chapter = 1; chapter <= 4; ++chapter) {
      poster->submitListenEvent(makeEvent(chapter, 10 * chapter, 10 * chapter + 9));
    }
    ASSERT_TRUE(poster->waitForReadWrite(std::chrono::seconds(10)));
  }
  auto restarted = QLListenEventPoster::create(HttpClient::shared(), 10, 300);
  auto queue = restarted->eventQueueForTesting();
  EXPECT_EQ(chapters(queue), (std::vector<uint64_t>{1, 2, 3, 4}));
  EXPECT_EQ(queue[2]->startOffset(), 30u);
  EXPECT_EQ(queue[2]->finalOffset(), 39u);
  EXPECT_EQ(queue[2]->sessionKey(), "session-1");
}

TEST_F(ListenEventArchiveTest, TheArchiveDirectoryIsMadeOnFirstWrite) {
  EXPECT_FALSE(fs::exists(file().parent_path()));
  auto poster = QLListenEventPoster::create(HttpClient::shared(), 10, 300);
  poster->submitListenEvent(makeEvent(1, 0, 5));
  ASSERT_TRUE(poster->waitForReadWrite(std::chrono::seconds(10)));
  EXPECT_TRUE(fs::is_regular_file(file()));
  EXPECT_EQ(chapters(archivedEvents()), (std::vector<uint64_t>{1}));
}

TEST_F(ListenEventArchiveTest, NothingIsWrittenWithoutTheSupportDirectory) {
  fs::remove_all(FilesystemHelper::supportDirectory());
  auto poster = QLListenEventPoster::create(HttpClient::shared(), 10, 300);
  poster->submitListenEvent(makeEvent(1, 0, 5));
  ASSERT_TRUE(poster->waitForReadWrite(std::chrono::seconds(10)));
  EXPECT_FALSE(fs::exists(FilesystemHelper::supportDirectory()));
  EXPECT_EQ(poster->eventQueueForTesting().size(), 1u);  // still queued in memory
}

TEST_F(ListenEventArchiveTest, AnObjectQueuedTwiceComesBackAsOneObjectWithItsLatestValues) {
  auto event = makeEvent(7, 10, 20);
  {
    auto poster = QLListenEventPoster::create(HttpClient::shared(), 10, 300);
    poster->submitListenEvent(event);
    poster->submitListenEvent(makeEvent(8, 0, 1));
    ASSERT_TRUE(poster->waitForReadWrite(std::chrono::seconds(10)));
    event->setFinalOffset(25);
    poster->submitListenEvent(event);
    ASSERT_TRUE(poster->waitForReadWrite(std::chrono::seconds(10)));
  }
  auto queue = QLListenEventPoster::create(HttpClient::shared(), 10, 300)->eventQueueForTesting();
  ASSERT_EQ(chapters(queue), (std::vector<uint64_t>{7, 8, 7}));
  EXPECT_EQ(queue[0], queue[2]);
  EXPECT_EQ(queue[0]->finalOffset(), 25u);
}

// --- Damaged files ---

TEST_F(ListenEventArchiveTest, AGarbageArchiveGivesAnEmptyQueueAndALogLine) {
  fs::create_directories(file().parent_path());
  writeBytes(file(), std::string("\x00\x13garbage\xff{\"add\":", 17));
  auto poster = QLListenEventPoster::create(HttpClient::shared(), 10, 300);
  EXPECT_TRUE(poster->eventQueueForTesting().empty());
  EXPECT_EQ(log->count("listen event archive"), 1u);
  // The next submit starts a readable archive again.
  poster->submitListenEvent(makeEvent(3, 0, 5));
  ASSERT_TRUE(poster->waitForReadWrite(std::chrono::seconds(10)));
  EXPECT_EQ(chapters(archivedEvents()), (std::vector<uint64_t>{3}));
}

TEST_F(ListenEventArchiveTest, AnArchiveCutInsideItsHeaderGivesAnEmptyQueueAndALogLine) {
  {
    auto poster = QLListenEventPoster::create(HttpClient::shared(), 10, 300);
    poster->submitListenEvent(makeEvent(1, 0, 5));
    ASSERT_TRUE(poster->waitForReadWrite(std::chrono::seconds(10)));
  }
  fs::resize_file(file(), 10);
  EXPECT_TRUE(
      QLListenEventPoster::create(HttpClient::shared(), 10, 300)->eventQueueForTesting().empty());
  EXPECT_EQ(log->count("listen event archive"), 1u);
}

TEST_F(ListenEventArchiveTest, AnArchiveCutInsideARecordKeepsTheWholeRecordsAndLogs) {
  {
    auto poster = QLListenEventPoster::create(HttpClient::shared(), 10, 300);
    for (uint64_t chapter = 1; chapter <= 3; ++chapter) {
      poster->submitListenEvent(makeEvent(chapter, 0, 5));
    }
    ASSERT_TRUE(poster->waitForReadWrite(std::chrono::seconds(10)));
  }
  fs::resize_file(file(), fs::file_size(file()) - 7);
  auto poster = QLListenEventPoster::create(HttpClient::shared(), 10, 300);
  EXPECT_EQ(chapters(poster->eventQueueForTesting()), (std::vector<uint64_t>{1, 2}));
  EXPECT_EQ(log->count("listen event archive"), 1u);
  // The torn tail is gone from the file, so later records do not follow it.
  poster->submitListenEvent(makeEvent(9, 0, 5));
  ASSERT_TRUE(poster->waitForReadWrite(std::chrono::seconds(10)));
  EXPECT_EQ(chapters(archivedEvents()), (std::vector<uint64_t>{1, 2, 9}));
}

TEST_F(ListenEventArchiveTest, AFlippedByteStopsReadingAtThatRecord) {
  ListenEventArchive archive(file());
  std::vector<Entry> queue;
  for (uint64_t i = 1; i <= 3; ++i) {
    queue.push_back(Entry{i, i, makeEvent(i, 0, 5)});
    ASSERT_TRUE(archive.recordAdd(queue.back(), queue));
  }
  std::string bytes = readBytes(file());
  size_t second = bytes.find("\"chapterNumber\":2");
  ASSERT_NE(second, std::string::npos);
  bytes[second + 16] = '5';  // same length, wrong checksum
  writeBytes(file(), bytes);
  std::string problem;
  EXPECT_EQ(chapters(ListenEventArchive::read(file(), &problem)), (std::vector<uint64_t>{1}));
  EXPECT_EQ(problem, "a record is damaged");
}

// --- Kills at any instant ---

TEST_F(ListenEventArchiveTest, AKillDuringAnAppendLeavesTheOldOrTheNewQueue) {
  ListenEventArchive archive(file());
  std::vector<Entry> queue{{1, 1, makeEvent(1, 0, 5)}, {2, 2, makeEvent(2, 0, 5)}};
  ASSERT_TRUE(archive.rewrite(queue));
  std::string before = readBytes(file());
  queue.push_back({3, 3, makeEvent(3, 0, 5)});
  ASSERT_TRUE(archive.recordAdd(queue.back(), queue));
  std::string after = readBytes(file());
  ASSERT_EQ(after.compare(0, before.size(), before), 0) << "an add only appends";

  fs::path copy = file().parent_path() / "cut.archive";
  for (size_t cut = before.size(); cut <= after.size(); ++cut) {
    writeBytes(copy, after.substr(0, cut));
    auto read = chapters(ListenEventArchive::read(copy));
    if (cut == after.size()) {
      EXPECT_EQ(read, (std::vector<uint64_t>{1, 2, 3}));
    } else {
      EXPECT_EQ(read, (std::vector<uint64_t>{1, 2})) << "cut at byte " << cut;
    }
  }
}

TEST_F(ListenEventArchiveTest, AKillDuringARemovalLeavesTheOldOrTheNewQueue) {
  ListenEventArchive archive(file());
  std::vector<Entry> queue{
      {1, 1, makeEvent(1, 0, 5)}, {2, 2, makeEvent(2, 0, 5)}, {3, 3, makeEvent(3, 0, 5)}};
  ASSERT_TRUE(archive.rewrite(queue));
  std::string before = readBytes(file());
  std::vector<Entry> kept{queue[1]};
  ASSERT_TRUE(archive.recordRemove({1, 3}, kept));
  std::string after = readBytes(file());

  fs::path copy = file().parent_path() / "cut.archive";
  for (size_t cut = before.size(); cut <= after.size(); ++cut) {
    writeBytes(copy, after.substr(0, cut));
    auto read = chapters(ListenEventArchive::read(copy));
    auto expected = cut == after.size() ? std::vector<uint64_t>{2} : std::vector<uint64_t>{1, 2, 3};
    EXPECT_EQ(read, expected) << "cut at byte " << cut;
  }
}

TEST_F(ListenEventArchiveTest, AKillDuringACompactionLeavesTheOldFileInPlace) {
  ListenEventArchive archive(file());
  std::vector<Entry> queue{{1, 1, makeEvent(1, 0, 5)}, {2, 2, makeEvent(2, 0, 5)}};
  ASSERT_TRUE(archive.rewrite(queue));
  // A rewrite that died before its rename leaves only a half-written temporary beside the file.
  fs::path temp = file();
  temp += ".tmp";
  writeBytes(temp, "SONORELL-LISTEN-EVENTS 1\n0123");
  EXPECT_EQ(chapters(ListenEventArchive::read(file())), (std::vector<uint64_t>{1, 2}));
  // The next rewrite replaces the leftover.
  ASSERT_TRUE(archive.rewrite({queue[1]}));
  EXPECT_EQ(chapters(ListenEventArchive::read(file())), (std::vector<uint64_t>{2}));
  EXPECT_FALSE(fs::exists(temp));
}

// --- Growth ---

TEST_F(ListenEventArchiveTest, RemovalsCompactTheJournalAndKeepTheQueue) {
  ListenEventArchive archive(file());
  std::vector<Entry> queue;
  uint64_t seq = 1;
  for (int round = 0; round < 50; ++round) {
    // Four events in, the three oldest out, as posts succeed while listening goes on.
    for (int i = 0; i < 4; ++i, ++seq) {
      queue.push_back({seq, seq, makeEvent(seq, 0, 5)});
      ASSERT_TRUE(archive.recordAdd(queue.back(), queue));
    }
    std::vector<uint64_t> removed;
    for (int i = 0; i < 3; ++i) removed.push_back(queue[static_cast<size_t>(i)].seq);
    queue.erase(queue.begin(), queue.begin() + 3);
    ASSERT_TRUE(archive.recordRemove(removed, queue));
  }
  ASSERT_EQ(queue.size(), 50u);
  EXPECT_EQ(chapters(ListenEventArchive::read(file())), chapters(queue));
  // 200 adds and 50 removals were recorded; compaction keeps the file near the live queue.
  ListenEventArchive fresh(file().parent_path() / "fresh.archive");
  ASSERT_TRUE(fresh.rewrite(queue));
  EXPECT_LT(fs::file_size(file()), 4 * fs::file_size(fresh.path()));
}

}  // namespace
}  // namespace sonorell
