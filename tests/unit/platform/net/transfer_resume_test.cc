// Transfers that outlive their process or pause: a child killed mid-transfer is resumed by the
// next process with Range/If-Range; a finished file nobody handled is delivered once more; a
// suspended transfer asks only for the rest, and starts over when the file changed on the
// server or the server ignored the range. A journal that is no longer a database is kept aside
// and a new one keeps transfers from then on. The journal's log stays short on a nearly full
// disk.
#include <gtest/gtest.h>

#include <algorithm>
#include <future>

#include "platform/log/platform_log.h"
#include "platform/net/transfer_journal.h"
#include "support/child_process.h"
#include "support/damaged_files.h"
#include "support/platform_log_lines.h"
#include "support/raw_sqlite.h"
#include "support/temp_library.h"
#include "transfer_test_support.h"

namespace sonorell::testing {
namespace {

using content::Fault;
using content::Route;
using content::Trigger;

class TransferResumption : public TransferTest {
 protected:
  void TearDown() override {
    session.reset();
    TransferTest::TearDown();
  }

  // Starts a child transferring the long chapter in session `identifier` and kills it at its first
  // line starting with `until` once it has reported at least `bytes`.
  // `finish`: "0" handles nothing, "1" dies inside didFinishDownloadingToURL, "2" dies there
  // after moving the file away.
  std::unique_ptr<ChildProcess> startChild(const std::string& identifier, const std::string& finish,
                                           const std::string& until, int64_t bytes = 0) {
    // transfer_child's arguments: Library directory, URL, CA bundle, session identifier, task
    // description, and what to do in didFinishDownloadingToURL.
    auto child =
        ChildProcess::start(SONORELL_TRANSFER_CHILD,
                            {library.path().string(), server.baseURL() + longChapter().audioPath,
                             server.caCertificatePath().string(), identifier, "2001_1_8", finish});
    if (!child) return nullptr;
    while (auto line = child->readLine()) {
      if (line->starts_with("bytes ")) reported = std::stoll(line->substr(6));
      if (line->starts_with(until) && reported >= bytes) {
        EXPECT_TRUE(child->kill());
        return child;
      }
    }
    ADD_FAILURE() << "the child stopped before reporting " << until;
    return nullptr;
  }

  // In the next process: the one task the journal lists, with its state.
  TransferSessionPtr adopt(const std::string& identifier, TransferTaskState state) {
    startService();
    auto adopted = service->sessionWithConfiguration(configuration(identifier), delegate);
    auto tasks = tasksOf(adopted);
    EXPECT_EQ(tasks.size(), 1u);
    if (!tasks.empty()) {
      EXPECT_EQ(tasks[0]->taskDescription(), "2001_1_8");
      EXPECT_EQ(tasks[0]->state(), state);
    }
    return adopted;
  }

  // Expects the long chapter (or `sha256`) delivered whole as the only, successful completion.
  void expectDelivered(const std::string& sha256 = "") {
    ASSERT_TRUE(delegate->waitForCompletions(1));
    auto finished = delegate->finished();
    EXPECT_EQ(finished.sha256, sha256.empty() ? longChapter().sha256 : sha256);
    EXPECT_EQ(finished.status, 200);
    EXPECT_EQ(finished.received, finished.fileSize);
    EXPECT_EQ(delegate->events(Kind::kComplete)[0].error, nullptr);
  }

  // Starts the long chapter slowly in a session of its own and suspends it once it has 20 KB.
  TransferTaskPtr startSuspended() {
    slowAudio();
    session = service->sessionWithConfiguration(configuration("QLSO_" + std::to_string(++sessions)),
                                                delegate);
    auto task = session->downloadTask(getChapter(longChapter()));
    task->resume();
    EXPECT_TRUE(delegate->waitUntil([&] { return task->countOfBytesReceived() >= 20'000; },
                                    std::chrono::seconds(30)));
    task->suspend();
    EXPECT_EQ(task->state(), TransferTaskState::kSuspended);
    return task;
  }

  std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
  TransferSessionPtr session;
  int64_t reported = 0;  // the child's last byte count
  int sessions = 0;
};

TEST_F(TransferResumption, KilledMidTransferResumesFromItsBytesInTheNextProcess) {
  const auto& c = longChapter();
  slowAudio(2);  // the resumed request too, so that the next process finds it still running
  ASSERT_TRUE(startChild("QLSO_killed", "0", "bytes ", 30'000));
  auto files = transferFiles(temporaryDirectory());
  ASSERT_EQ(files.size(), 1u);
  const auto partial = static_cast<int64_t>(std::filesystem::file_size(files[0]));
  ASSERT_GE(partial, reported);
  ASSERT_LT(partial, static_cast<int64_t>(c.size));

  session = adopt("QLSO_killed", TransferTaskState::kRunning);
  expectDelivered();
  auto requests = server.requests(Route::kAudio);
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_FALSE(requests[0].header("Range"));
  EXPECT_EQ(requests[1].header("Range"), "bytes=" + std::to_string(partial) + "-");
  EXPECT_EQ(requests[1].header("If-Range"), server.currentETag(c.audioPath));
  // Progress counts the whole chapter, starting from what the first process had.
  auto writes = delegate->events(Kind::kWrite);
  ASSERT_FALSE(writes.empty());
  EXPECT_EQ(writes.front().total - writes.front().written, partial);
  EXPECT_EQ(writes.back().total, static_cast<int64_t>(c.size));
  EXPECT_TRUE(transferFiles(temporaryDirectory()).empty());
}

TEST_F(TransferResumption, FinishedButUnhandledIsDeliveredOnceInTheNextProcess) {
  ASSERT_TRUE(startChild("QLSO_unhandled", "1", "finished "));
  // Delivery waits until the task has been listed: a delivered task leaves the list.
  std::promise<void> listed;
  std::shared_future<void> gate = listed.get_future().share();
  delegate->onFinish = [gate](const std::filesystem::path&) { gate.wait(); };
  session = adopt("QLSO_unhandled", TransferTaskState::kCompleted);
  listed.set_value();
  expectDelivered();
  ASSERT_TRUE(delegate->waitFor(Kind::kAllDelivered, 1, std::chrono::seconds(10)));
  EXPECT_EQ(server.requestCount(Route::kAudio), 1u) << "the finished file was fetched again";
  EXPECT_TRUE(transferFiles(temporaryDirectory()).empty());

  // A third process: nothing is left to deliver.
  session->finishTasksAndInvalidate();
  service.reset();
  startService();
  auto again = std::make_shared<RecordingDelegate>();
  auto third = service->sessionWithConfiguration(configuration("QLSO_unhandled"), again);
  third->delegateQueue()->sync([] {});  // what it was handed so far has been told
  EXPECT_TRUE(tasksOf(third).empty());
  EXPECT_TRUE(again->events().empty());
}

TEST_F(TransferResumption, AFileMovedAwayByADelegateThatThenDiedIsDeliveredAgainWhole) {
  // The delegate's move went through but the process died before it recorded anything: the
  // bytes must not be lost with the file's old name.
  ASSERT_TRUE(startChild("QLSO_moved", "2", "finished "));
  std::promise<void> listed;  // as above: delivered only once listed
  std::shared_future<void> gate = listed.get_future().share();
  delegate->onFinish = [gate](const std::filesystem::path&) { gate.wait(); };
  session = adopt("QLSO_moved", TransferTaskState::kCompleted);
  listed.set_value();
  expectDelivered();
  EXPECT_EQ(server.requestCount(Route::kAudio), 1u) << "the finished file was fetched again";
  ASSERT_TRUE(delegate->waitFor(Kind::kAllDelivered, 1, std::chrono::seconds(10)));
  EXPECT_TRUE(transferFiles(temporaryDirectory()).empty());
}

TEST_F(TransferResumption, ASessionNobodyMakesAgainIsDiscardedWithItsFilesButALiveOneIsNot) {
  slowAudio(2);  // still running when the child is killed
  ASSERT_TRUE(startChild("QLSO_abandoned", "0", "bytes ", 30'000));
  ASSERT_EQ(transferFiles(temporaryDirectory()).size(), 1u);
  startService();
  session = service->sessionWithConfiguration(configuration("QLSO_live"), delegate);
  auto identifiers = service->journaledSessionIdentifiers();
  std::sort(identifiers.begin(), identifiers.end());
  EXPECT_EQ(identifiers, (std::vector<std::string>{"QLSO_abandoned", "QLSO_live"}));

  EXPECT_FALSE(service->discardSession("QLSO_live"));
  EXPECT_TRUE(service->discardSession("QLSO_abandoned"));
  EXPECT_TRUE(transferFiles(temporaryDirectory()).empty());
  EXPECT_EQ(service->journaledSessionIdentifiers(), std::vector<std::string>{"QLSO_live"});
  // Made again, it has nothing to adopt and asks the server for nothing.
  auto again = service->sessionWithConfiguration(configuration("QLSO_abandoned"), delegate);
  EXPECT_TRUE(tasksOf(again).empty());
  EXPECT_EQ(server.requestCount(Route::kAudio), 1u);
  EXPECT_TRUE(delegate->events().empty());
}

TEST_F(TransferResumption, ASuspendedTransferAsksOnlyForTheRestAndItsFileMayBeKept) {
  startService();
  const auto kept = library.path() / "kept.mp3";
  delegate->onFinish = [&](const std::filesystem::path& location) {
    std::filesystem::rename(location, kept);
  };
  startSuspended()->resume();
  expectDelivered();
  EXPECT_EQ(content::sha256Hex(readFile(kept)), longChapter().sha256);
  auto requests = server.requests(Route::kAudio);
  ASSERT_EQ(requests.size(), 2u);
  ASSERT_TRUE(requests[1].header("Range"));
  EXPECT_NE(requests[1].header("Range"), "bytes=0-");
}

TEST_F(TransferResumption, AResumeTheServerCannotHonourRestartsFromZero) {
  startService();
  const auto& c = longChapter();
  // The server ignores the range: the whole file comes again.
  auto task = startSuspended();
  server.faults().add(Route::kAudio, Fault::rangeIgnored(), Trigger::next(1));
  task->resume();
  expectDelivered();
  auto requests = server.requests(Route::kAudio);
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_TRUE(requests[1].header("Range"));

  // The file changed on the server: its old validator no longer matches.
  delegate = std::make_shared<RecordingDelegate>();
  task = startSuspended();
  const std::string oldETag = server.currentETag(c.audioPath);
  server.changeFile(c.audioPath);
  const std::string newBytes = server.currentBytes(c.audioPath);
  ASSERT_NE(content::sha256Hex(newBytes), c.sha256);
  task->resume();
  expectDelivered(content::sha256Hex(newBytes));
  requests = server.requests(Route::kAudio);
  ASSERT_EQ(requests.size(), 4u);
  EXPECT_TRUE(requests[3].header("Range"));
  EXPECT_EQ(requests[3].header("If-Range"), oldETag);
  // Progress went back to the start.
  bool wentBack = false;
  int64_t highest = 0;
  for (const auto& w : delegate->events(Kind::kWrite)) {
    wentBack |= w.total < highest;
    highest = std::max(highest, w.total);
  }
  EXPECT_TRUE(wentBack);
}

// --- A damaged journal ---

class DamagedJournals : public TransferResumption,
                        public ::testing::WithParamInterface<DamageCase> {
 protected:
  std::filesystem::path journal() const {
    return library.path() / "SonorellSupport" / "TransferJournal.sqlite";
  }

  // Damages the journal file and returns the bytes it then holds (none for a directory).
  std::string damage(Damage how) {
    std::filesystem::create_directories(journal().parent_path());
    switch (how) {
      case Damage::kGarbage:
        return fillWithGarbage(journal(), 11);
      case Damage::kTruncated: {
        // A journal an earlier run wrote, all of it in the main file, cut in half.
        startService();
        auto earlier = service->sessionWithConfiguration(configuration("QLSO_earlier"), delegate);
        for (int i = 0; i < 20; ++i) earlier->downloadTask(getChapter(longChapter()));
        earlier.reset();
        service.reset();
        EXPECT_TRUE(DispatchQueue::waitUntilAllIdle(std::chrono::seconds(30)));
        return truncateInHalf(journal());
      }
      case Damage::kDirectory:
        std::filesystem::create_directory(journal());
        return {};
    }
    return {};
  }
};

TEST_P(DamagedJournals, AreKeptAsideAndTheNewJournalResumesTransfersUnlessItCannotBeOpened) {
  const std::string damaged = damage(GetParam().damage);
  testing::PlatformLogLines log;
  if (GetParam().damage == Damage::kDirectory) {
    // Moving it would not help: what stops the journal is the file system, not the bytes.
    TransferServiceOptions options;
    options.reachability = reachability;
    ErrorPtr error;
    EXPECT_EQ(TransferService::create(std::move(options), &error), nullptr);
    EXPECT_TRUE(error);
    EXPECT_TRUE(std::filesystem::is_directory(journal()));
    EXPECT_TRUE(keptAside(journal()).empty());
    EXPECT_EQ(log.count("is not a database"), 0u);
    return;
  }
  startService();
  ASSERT_TRUE(service);
  EXPECT_EQ(log.count("[TransferService] " + journal().string() + " is not a database; kept as " +
                      journal().string() + ".unreadable-"),
            1u);
  const auto kept = keptAside(journal());
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_TRUE(readFile(kept[0]) == damaged) << "the damaged bytes were not kept as they were";
  EXPECT_TRUE(service->journaledSessionIdentifiers().empty());

  // A transfer journaled in the new file is taken up by the next service from its bytes.
  auto task = startSuspended();
  task->setTaskDescription("2001_1_8");
  const std::string identifier = session->identifier();
  session.reset();
  service.reset();
  session = adopt(identifier, TransferTaskState::kSuspended);
  auto tasks = tasksOf(session);
  ASSERT_EQ(tasks.size(), 1u);
  tasks[0]->resume();
  expectDelivered();
  auto requests = server.requests(Route::kAudio);
  ASSERT_EQ(requests.size(), 2u);
  ASSERT_TRUE(requests[1].header("Range"));
  EXPECT_NE(requests[1].header("Range"), "bytes=0-");
}

// The longest the journal's log gets while a book's worth of transfers is journaled, each task
// written as a transfer writes it, on a disk with `free` bytes left.
uintmax_t longestLog(uint64_t free) {
  TempLibrary library;
  const auto file = library.path() / "TransferJournal.sqlite";
  auto journal = TransferJournal::open(
      file, nullptr, nullptr, [free](const auto&) { return std::optional<uint64_t>(free); });
  if (!journal) return 0;
  std::filesystem::path wal = file;
  wal += "-wal";
  uintmax_t longest = 0;
  for (uint64_t id = 1; id <= 600; ++id) {
    JournalTask task;
    task.session = "QLSO_log";
    task.taskId = id;
    task.request.url = "https://127.0.0.1/audio/2001/1/" + std::to_string(id) + ".mp3";
    task.file = library.path() / ("transfer-" + std::to_string(id) + ".tmp");
    journal->insertTask(task);
    journal->setState(task.session, id, TransferTaskState::kRunning);
    journal->setPartial(task.session, id, "\"etag\"", 100000);
    task.received = task.expected = 100000;
    journal->setDownloaded(task);
    journal->removeTask(task.session, id);
    std::error_code ec;
    longest = std::max(longest, std::filesystem::file_size(wal, ec));
  }
  return longest;
}

TEST(TransferJournalLog, StaysNear256kBOnANearlyFullDiskAndUnder4MBElsewhere) {
  constexpr uintmax_t kOneCommit = 32 << 10;  // the frames a write adds past the limit
  const uintmax_t nearlyFull = longestLog(8 << 20);
  EXPECT_GT(nearlyFull, 0u);
  EXPECT_LE(nearlyFull, (256u << 10) + kOneCommit);
  // Elsewhere it grows longer between checkpoints (each one syncs twice while writers wait),
  // but not without bound.
  const uintmax_t roomy = longestLog(uint64_t{10} << 30);
  EXPECT_GT(roomy, 1u << 20);
  EXPECT_LE(roomy, (4u << 20) + kOneCommit);
}

INSTANTIATE_TEST_SUITE_P(Journal, DamagedJournals, ::testing::ValuesIn(damageCases()),
                         damageCaseName<::testing::TestParamInfo<DamageCase>>);

}  // namespace
}  // namespace sonorell::testing
