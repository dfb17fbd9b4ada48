// Many chapters in one session: each arrives byte-identical, at most the session's limit run at
// once and the rest start in creation order, and the session reports its tasks and the end of
// its events.
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "transfer_test_support.h"

namespace sonorell::testing {
namespace {

class ParallelTransfers : public TransferTest {
 protected:
  std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
};

TEST_F(ParallelTransfers, TenChaptersArriveByteIdenticalWithAtMostTheLimitRunningInOrder) {
  startService();
  auto config = configuration("QLSO_ten");
  config.maximumConnections = 3;
  auto session = service->sessionWithConfiguration(config, delegate);
  // Slow bodies keep the first ones busy while the others wait.
  server.faults().add(content::Route::kAudio, content::Fault::bandwidth(400'000),
                      content::Trigger::always());
  std::map<std::string, std::string> expected;  // description -> sha256
  for (uint64_t n = 1; n <= 10; ++n) {
    const std::string key = "2001_1_" + std::to_string(n);
    expected[key] = chapter(content::kLargeBookID, 1, n).sha256;
    auto task = session->downloadTask(get(server.audioURL(content::kLargeBookID, 1, n)));
    ASSERT_TRUE(task);
    task->setTaskDescription(key);
    task->resume();
  }
  ASSERT_TRUE(delegate->waitForCompletions(10));
  auto finishes = delegate->events(Kind::kFinish);
  ASSERT_EQ(finishes.size(), 10u);
  for (const auto& f : finishes) {
    EXPECT_EQ(f.sha256, expected.at(f.description)) << f.description;
    EXPECT_EQ(f.status, 200);
    EXPECT_EQ(f.received, f.fileSize);
  }
  for (const auto& c : delegate->events(Kind::kComplete)) EXPECT_EQ(c.error, nullptr);

  // Walk the events in delivery order: a task is in flight from its first bytes to its
  // completion. Task k (ids count from 1 in creation order) may only start once k - limit
  // tasks have completed; which of two started tasks sends bytes first is the network's choice.
  std::set<uint64_t> started, inFlight;
  size_t completed = 0, most = 0;
  for (const auto& e : delegate->events()) {
    if (e.kind == Kind::kWrite && started.insert(e.task).second) {
      inFlight.insert(e.task);
      EXPECT_GE(completed + 3, e.task) << "task " << e.task << " started before its turn";
    } else if (e.kind == Kind::kComplete) {
      inFlight.erase(e.task);
      ++completed;
    }
    most = std::max(most, inFlight.size());
  }
  EXPECT_EQ(started.size(), 10u);
  EXPECT_EQ(most, 3u);

  ASSERT_TRUE(delegate->waitFor(Kind::kAllDelivered, 1, std::chrono::seconds(10)));
  // Files are gone once their delegate call returned, and nothing is left to adopt.
  EXPECT_TRUE(transferFiles(temporaryDirectory()).empty());
  EXPECT_TRUE(tasksOf(session).empty());
}

TEST_F(ParallelTransfers, GetTasksListsStatesAndDescriptions) {
  startService();
  auto session = service->sessionWithConfiguration(configuration("QLSO_list"), delegate);
  server.faults().add(content::Route::kAudio, content::Fault::bandwidth(20'000),
                      content::Trigger::always());
  auto running = session->downloadTask(get(server.audioURL(content::kThreeChapterBookID, 0, 1)));
  running->setTaskDescription("1001_0_1");
  auto suspended = session->downloadTask(get(server.audioURL(content::kThreeChapterBookID, 0, 2)));
  suspended->setTaskDescription("1001_0_2");
  running->resume();
  ASSERT_TRUE(delegate->waitFor(Kind::kWrite));

  auto tasks = tasksOf(session);
  ASSERT_EQ(tasks.size(), 2u);
  EXPECT_EQ(tasks[0]->taskDescription(), "1001_0_1");
  EXPECT_EQ(tasks[0]->state(), TransferTaskState::kRunning);
  EXPECT_EQ(tasks[1]->taskDescription(), "1001_0_2");
  EXPECT_EQ(tasks[1]->state(), TransferTaskState::kSuspended);
  EXPECT_LT(tasks[0]->taskIdentifier(), tasks[1]->taskIdentifier());

  running->cancel();
  // The loop may have finished the cancel already; it is never running again.
  const TransferTaskState afterCancel = running->state();
  EXPECT_TRUE(afterCancel == TransferTaskState::kCancelling ||
              afterCancel == TransferTaskState::kCompleted)
      << static_cast<int>(afterCancel);
  ASSERT_TRUE(delegate->waitForCompletions(1));
  EXPECT_EQ(running->state(), TransferTaskState::kCompleted);
  tasks = tasksOf(session);
  ASSERT_EQ(tasks.size(), 1u);
  EXPECT_EQ(tasks[0], suspended);
}

}  // namespace
}  // namespace sonorell::testing
