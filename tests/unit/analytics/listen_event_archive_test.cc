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
using testing::Chapters;
using testing::chapters;
using testing::makeEvent;
using testing::newPoster;

std::string readBytes(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void writeBytes(const fs::path& file, const std::string& bytes) {
  std::ofstream(file, std::ios::binary | std::ios::trunc) << bytes;
}

Chapters chapters(const std::vector<Entry>& entries) {
  Chapters result;
  for (const auto& entry : entries) result.push_back(entry.event->chapterNumber());
  return result;
}

std::vector<Entry> entries(std::initializer_list<uint64_t> seqs) {
  std::vector<Entry> queue;
  for (uint64_t seq : seqs) queue.push_back(Entry{seq, seq, makeEvent(seq, 0, 5)});
  return queue;
}

class ListenEventArchiveTest : public AnalyticsTest {
 protected:
  void SetUp() override { QSOLogEngine::setListener(log); }
  void TearDown() override { QSOLogEngine::setListener(nullptr); }

  fs::path file() const { return FilesystemHelper::listenEventsArchivePath(); }
  // Submits one event per chapter and waits until the archive has them.
  static void submit(QLListenEventPoster& poster, uint64_t first, uint64_t last) {
    for (uint64_t chapter = first; chapter <= last; ++chapter) {
      poster.submitListenEvent(makeEvent(chapter, 0, 5));
    }
    ASSERT_TRUE(poster.waitForReadWrite(std::chrono::seconds(10)));
  }
  // Every prefix of `after` longer than `before` must read as the old queue, all of it as the new.
  void expectEveryCutReadsOldOrNew(const std::string& before, const std::string& after,
                                   const Chapters& oldQueue, const Chapters& newQueue) {
    fs::path copy = file().parent_path() / "cut.archive";
    for (size_t cut = before.size(); cut <= after.size(); ++cut) {
      writeBytes(copy, after.substr(0, cut));
      EXPECT_EQ(chapters(ListenEventArchive::read(copy)), cut == after.size() ? newQueue : oldQueue)
          << "cut at byte " << cut;
    }
  }

  std::shared_ptr<testing::RecordingListener> log = std::make_shared<testing::RecordingListener>();
};

// --- Where it is written ---

TEST_F(ListenEventArchiveTest, NothingIsWrittenWithoutTheSupportDirectory) {
  fs::remove_all(FilesystemHelper::supportDirectory());
  auto poster = newPoster();
  submit(*poster, 1, 1);
  EXPECT_FALSE(fs::exists(FilesystemHelper::supportDirectory()));
  EXPECT_EQ(poster->eventQueueForTesting().size(), 1u);  // still queued in memory
}

// --- Damaged files ---

TEST_F(ListenEventArchiveTest, ADamagedArchiveKeepsItsWholeRecordsLogsAndIsReadableAgain) {
  submit(*newPoster(), 1, 3);
  fs::resize_file(file(), fs::file_size(file()) - 7);  // cut inside the last record
  auto poster = newPoster();
  EXPECT_EQ(chapters(poster->eventQueueForTesting()), (Chapters{1, 2}));
  EXPECT_EQ(log->count("listen event archive"), 1u);
  // The torn tail is gone from the file, so later records do not follow it.
  submit(*poster, 9, 9);
  EXPECT_EQ(chapters(archivedEvents()), (Chapters{1, 2, 9}));

  poster.reset();
  fs::resize_file(file(), 10);  // cut inside the header
  EXPECT_TRUE(newPoster()->eventQueueForTesting().empty());
  EXPECT_EQ(log->count("listen event archive"), 2u);

  writeBytes(file(), std::string("\x00\x13garbage\xff{\"add\":", 17));
  poster = newPoster();
  EXPECT_TRUE(poster->eventQueueForTesting().empty());
  EXPECT_EQ(log->count("listen event archive"), 3u);
  submit(*poster, 3, 3);  // starts a readable archive again
  EXPECT_EQ(chapters(archivedEvents()), (Chapters{3}));
}

TEST_F(ListenEventArchiveTest, AFlippedByteStopsReadingAtThatRecord) {
  ListenEventArchive archive(file());
  std::vector<Entry> queue;
  for (const auto& entry : entries({1, 2, 3})) {
    queue.push_back(entry);
    ASSERT_TRUE(archive.recordAdd(entry, queue));
  }
  std::string bytes = readBytes(file());
  size_t second = bytes.find("\"chapterNumber\":2");
  ASSERT_NE(second, std::string::npos);
  bytes[second + 16] = '5';  // same length, wrong checksum
  writeBytes(file(), bytes);
  std::string problem;
  EXPECT_EQ(chapters(ListenEventArchive::read(file(), &problem)), (Chapters{1}));
  EXPECT_EQ(problem, "a record is damaged");
}

// --- Kills at any instant ---

TEST_F(ListenEventArchiveTest, AKillDuringAnAppendOrARemovalLeavesTheOldOrTheNewQueue) {
  ListenEventArchive archive(file());
  auto queue = entries({1, 2});
  ASSERT_TRUE(archive.rewrite(queue));
  std::string before = readBytes(file());
  queue.push_back(entries({3})[0]);
  ASSERT_TRUE(archive.recordAdd(queue.back(), queue));
  std::string after = readBytes(file());
  ASSERT_EQ(after.compare(0, before.size(), before), 0) << "an add only appends";
  expectEveryCutReadsOldOrNew(before, after, {1, 2}, {1, 2, 3});

  before = after;
  ASSERT_TRUE(archive.recordRemove({1, 3}, {queue[1]}));
  expectEveryCutReadsOldOrNew(before, readBytes(file()), {1, 2, 3}, {2});
}

TEST_F(ListenEventArchiveTest, AKillDuringACompactionLeavesTheOldFileInPlace) {
  ListenEventArchive archive(file());
  auto queue = entries({1, 2});
  ASSERT_TRUE(archive.rewrite(queue));
  // A rewrite that died before its rename leaves only a half-written temporary beside the file.
  fs::path temp = file();
  temp += ".tmp";
  writeBytes(temp, "SONORELL-LISTEN-EVENTS 1\n0123");
  EXPECT_EQ(chapters(ListenEventArchive::read(file())), (Chapters{1, 2}));
  // The next rewrite replaces the leftover.
  ASSERT_TRUE(archive.rewrite({queue[1]}));
  EXPECT_EQ(chapters(ListenEventArchive::read(file())), (Chapters{2}));
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
    std::vector<uint64_t> removed{queue[0].seq, queue[1].seq, queue[2].seq};
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
