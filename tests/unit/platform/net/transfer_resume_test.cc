// Transfers that outlive their process or pause: a child killed mid-transfer is resumed by the
// next process with Range/If-Range; a finished file nobody handled is delivered once more; a
// suspended transfer asks only for the rest, and starts over when the file changed on the
// server or the server ignored the range.
#include <gtest/gtest.h>

#include "child_process.h"
#include "transfer_test_support.h"

namespace sonorell::testing {
namespace {

using Kind = TransferEvent::Kind;
using content::Fault;
using content::Route;
using content::Trigger;

class TransferResumption : public TransferTest {
 protected:
  std::unique_ptr<ChildProcess> startChild(const content::Chapter& c, const std::string& session,
                                           bool blockInFinish) {
    return ChildProcess::start({
        {"SONORELL_LIBRARY_DIR", library.path().string()},
        {kChildURL, server.baseURL() + c.audioPath},
        {kChildCA, server.caCertificatePath().string()},
        {kChildSession, session},
        {kChildDescription, "2001_1_8"},
        {kChildBlockInFinish, blockInFinish ? "1" : "0"},
    });
  }

  // Suspends the task once it has `bytes`, and waits until its transfer has stopped.
  void suspendAfter(const TransferTaskPtr& task, int64_t bytes) {
    ASSERT_TRUE(delegate->waitUntil([&] { return task->countOfBytesReceived() >= bytes; },
                                    std::chrono::seconds(30)));
    task->suspend();
    EXPECT_EQ(task->state(), TransferTaskState::kSuspended);
  }

  std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
};

TEST_F(TransferResumption, KilledMidTransferResumesFromItsBytesInTheNextProcess) {
  const auto& c = chapter(content::kLargeBookID, 1, 8);
  server.faults().add(Route::kAudio, Fault::bandwidth(40'000), Trigger::next(1));
  auto child = startChild(c, "QLSO_killed", false);
  ASSERT_TRUE(child);
  int64_t reported = 0;
  while (reported < 30'000) {
    auto line = child->readLine();
    ASSERT_TRUE(line) << "the child stopped reporting";
    if (line->starts_with("bytes ")) reported = std::stoll(line->substr(6));
  }
  ASSERT_TRUE(child->kill());
  auto files = transferFiles(temporaryDirectory());
  ASSERT_EQ(files.size(), 1u);
  const auto partial = static_cast<int64_t>(std::filesystem::file_size(files[0]));
  ASSERT_GE(partial, reported);
  ASSERT_LT(partial, static_cast<int64_t>(c.size));

  // The next process.
  startService();
  auto session = service->sessionWithConfiguration(configuration("QLSO_killed"), delegate);
  auto tasks = tasksOf(session);
  ASSERT_EQ(tasks.size(), 1u);
  EXPECT_EQ(tasks[0]->taskDescription(), "2001_1_8");
  EXPECT_EQ(tasks[0]->state(), TransferTaskState::kRunning);
  ASSERT_TRUE(delegate->waitForCompletions(1));

  auto finishes = delegate->events(Kind::kFinish);
  ASSERT_EQ(finishes.size(), 1u);
  EXPECT_EQ(finishes[0].sha256, c.sha256);
  EXPECT_EQ(finishes[0].received, static_cast<int64_t>(c.size));
  EXPECT_EQ(finishes[0].status, 200);
  EXPECT_EQ(delegate->events(Kind::kComplete)[0].error, nullptr);
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
  const auto& c = chapter(content::kLargeBookID, 1, 8);
  auto child = startChild(c, "QLSO_unhandled", true);
  ASSERT_TRUE(child);
  for (;;) {
    auto line = child->readLine();
    ASSERT_TRUE(line) << "the child never finished";
    if (line->starts_with("finished ")) break;
  }
  ASSERT_TRUE(child->kill());

  startService();
  auto session = service->sessionWithConfiguration(configuration("QLSO_unhandled"), delegate);
  auto tasks = tasksOf(session);
  ASSERT_EQ(tasks.size(), 1u);
  EXPECT_EQ(tasks[0]->taskDescription(), "2001_1_8");
  EXPECT_EQ(tasks[0]->state(), TransferTaskState::kCompleted);
  ASSERT_TRUE(delegate->waitForCompletions(1));
  ASSERT_TRUE(delegate->waitUntil([&] { return !delegate->events(Kind::kAllDelivered).empty(); },
                                  std::chrono::seconds(10)));
  auto finishes = delegate->events(Kind::kFinish);
  ASSERT_EQ(finishes.size(), 1u);
  EXPECT_EQ(finishes[0].sha256, c.sha256);
  EXPECT_EQ(finishes[0].status, 200);
  EXPECT_EQ(finishes[0].received, static_cast<int64_t>(c.size));
  EXPECT_EQ(delegate->events(Kind::kComplete)[0].error, nullptr);
  EXPECT_EQ(server.requestCount(Route::kAudio), 1u) << "the finished file was fetched again";
  EXPECT_TRUE(transferFiles(temporaryDirectory()).empty());

  // A third process: nothing is left to deliver.
  session->finishTasksAndInvalidate();
  service.reset();
  startService();
  auto again = std::make_shared<RecordingDelegate>();
  auto third = service->sessionWithConfiguration(configuration("QLSO_unhandled"), again);
  drain(third);
  EXPECT_TRUE(tasksOf(third).empty());
  EXPECT_TRUE(again->events().empty());
}

TEST_F(TransferResumption, FileMovedByTheDelegateIsKept) {
  startService();
  const auto kept = library.path() / "kept.mp3";
  delegate->onFinish = [&](const std::filesystem::path& location) {
    std::filesystem::rename(location, kept);
  };
  const auto& c = chapter(content::kThreeChapterBookID, 0, 1);
  auto session = service->sessionWithConfiguration(configuration(), delegate);
  session->downloadTask(get(server.baseURL() + c.audioPath))->resume();
  ASSERT_TRUE(delegate->waitForCompletions(1));
  EXPECT_EQ(content::sha256Hex(readFile(kept)), c.sha256);
}

TEST_F(TransferResumption, SuspendedTransferAsksOnlyForTheRest) {
  startService();
  const auto& c = chapter(content::kLargeBookID, 1, 8);
  server.faults().add(Route::kAudio, Fault::bandwidth(40'000), Trigger::next(1));
  auto session = service->sessionWithConfiguration(configuration(), delegate);
  auto task = session->downloadTask(get(server.baseURL() + c.audioPath));
  task->resume();
  suspendAfter(task, 20'000);
  task->resume();
  ASSERT_TRUE(delegate->waitForCompletions(1));
  ASSERT_EQ(delegate->events(Kind::kFinish).size(), 1u);
  EXPECT_EQ(delegate->events(Kind::kFinish)[0].sha256, c.sha256);
  auto requests = server.requests(Route::kAudio);
  ASSERT_EQ(requests.size(), 2u);
  ASSERT_TRUE(requests[1].header("Range"));
  EXPECT_NE(requests[1].header("Range"), "bytes=0-");
}

TEST_F(TransferResumption, ChangedETagRestartsFromZero) {
  startService();
  const auto& c = chapter(content::kLargeBookID, 1, 8);
  server.faults().add(Route::kAudio, Fault::bandwidth(40'000), Trigger::next(1));
  auto session = service->sessionWithConfiguration(configuration(), delegate);
  auto task = session->downloadTask(get(server.baseURL() + c.audioPath));
  task->resume();
  suspendAfter(task, 20'000);
  const std::string oldETag = server.currentETag(c.audioPath);
  server.changeFile(c.audioPath);
  const std::string newBytes = server.currentBytes(c.audioPath);
  ASSERT_NE(content::sha256Hex(newBytes), c.sha256);
  task->resume();
  ASSERT_TRUE(delegate->waitForCompletions(1));

  auto finishes = delegate->events(Kind::kFinish);
  ASSERT_EQ(finishes.size(), 1u);
  EXPECT_EQ(finishes[0].sha256, content::sha256Hex(newBytes));
  EXPECT_EQ(finishes[0].received, static_cast<int64_t>(newBytes.size()));
  auto requests = server.requests(Route::kAudio);
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_TRUE(requests[1].header("Range"));
  EXPECT_EQ(requests[1].header("If-Range"), oldETag);
  // Progress went back to the start.
  bool wentBack = false;
  int64_t highest = 0;
  for (const auto& w : delegate->events(Kind::kWrite)) {
    wentBack |= w.total < highest;
    highest = std::max(highest, w.total);
  }
  EXPECT_TRUE(wentBack);
}

TEST_F(TransferResumption, IgnoredRangeRestartsFromZero) {
  startService();
  const auto& c = chapter(content::kLargeBookID, 1, 8);
  server.faults().add(Route::kAudio, Fault::bandwidth(40'000), Trigger::next(1));
  auto session = service->sessionWithConfiguration(configuration(), delegate);
  auto task = session->downloadTask(get(server.baseURL() + c.audioPath));
  task->resume();
  suspendAfter(task, 20'000);
  server.faults().add(Route::kAudio, Fault::rangeIgnored(), Trigger::next(1));
  task->resume();
  ASSERT_TRUE(delegate->waitForCompletions(1));
  auto finishes = delegate->events(Kind::kFinish);
  ASSERT_EQ(finishes.size(), 1u);
  EXPECT_EQ(finishes[0].sha256, c.sha256);
  EXPECT_EQ(finishes[0].fileSize, static_cast<int64_t>(c.size));
  ASSERT_EQ(server.requests(Route::kAudio).size(), 2u);
  EXPECT_TRUE(server.requests(Route::kAudio)[1].header("Range"));
}

}  // namespace
}  // namespace sonorell::testing
