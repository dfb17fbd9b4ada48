// When transfers may run and how often they speak: a Wi-Fi-only session waits while the link is
// cellular and goes on when it changes; progress comes about ten times a second (of the
// engine's clock) plus the last bytes.
#include <gtest/gtest.h>

#include "platform/dispatch/clock.h"
#include "transfer_test_support.h"

namespace sonorell::testing {
namespace {

using Kind = TransferEvent::Kind;
using content::Route;

class TransferScheduling : public TransferTest {};

TEST_F(TransferScheduling, WiFiOnlySessionMakesNoRequestUntilTheLinkIsWiFi) {
  link->set(ConnectionType::Cellular);
  reachability->refresh();
  startService();
  const auto& waiting = chapter(content::kThreeChapterBookID, 0, 1);
  const auto& other = chapter(content::kThreeChapterBookID, 0, 2);
  auto wifiDelegate = std::make_shared<RecordingDelegate>();
  auto config = configuration("QLSO_wifi");
  config.allowsCellularAccess = false;
  auto wifiOnly = service->sessionWithConfiguration(config, wifiDelegate);
  auto task = wifiOnly->downloadTask(get(server.baseURL() + waiting.audioPath));
  task->resume();

  // A session that may use cellular runs a whole transfer meanwhile on the same driver.
  auto anyDelegate = std::make_shared<RecordingDelegate>();
  auto any = service->sessionWithConfiguration(configuration("QLSO_any"), anyDelegate);
  any->downloadTask(get(server.baseURL() + other.audioPath))->resume();
  ASSERT_TRUE(anyDelegate->waitForCompletions(1));
  drain(wifiOnly);
  EXPECT_TRUE(wifiDelegate->events().empty());
  EXPECT_EQ(task->state(), TransferTaskState::kRunning);
  EXPECT_EQ(task->countOfBytesReceived(), 0);
  auto requests = server.requests(Route::kAudio);
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].path, other.audioPath);

  link->set(ConnectionType::WiFi);
  ASSERT_TRUE(wifiDelegate->waitForCompletions(1));
  ASSERT_EQ(wifiDelegate->events(Kind::kFinish).size(), 1u);
  EXPECT_EQ(wifiDelegate->events(Kind::kFinish)[0].sha256, waiting.sha256);
  EXPECT_EQ(server.requestCount(Route::kAudio), 2u);
}

TEST_F(TransferScheduling, CellularLinkStopsAWiFiOnlyTransferAndWiFiResumesIt) {
  startService();
  const auto& c = chapter(content::kLargeBookID, 1, 8);
  server.faults().add(Route::kAudio, content::Fault::bandwidth(40'000), content::Trigger::next(1));
  auto delegate = std::make_shared<RecordingDelegate>();
  auto config = configuration("QLSO_wifi");
  config.allowsCellularAccess = false;
  auto session = service->sessionWithConfiguration(config, delegate);
  auto task = session->downloadTask(get(server.baseURL() + c.audioPath));
  task->resume();
  ASSERT_TRUE(delegate->waitUntil([&] { return task->countOfBytesReceived() >= 20'000; },
                                  std::chrono::seconds(30)));
  link->set(ConnectionType::Cellular);
  link->set(ConnectionType::WiFi);
  ASSERT_TRUE(delegate->waitForCompletions(1));
  ASSERT_EQ(delegate->events(Kind::kFinish).size(), 1u);
  EXPECT_EQ(delegate->events(Kind::kFinish)[0].sha256, c.sha256);
  auto requests = server.requests(Route::kAudio);
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_TRUE(requests[1].header("Range"));
}

TEST_F(TransferScheduling, ProgressIsThrottledByTheClockAndEndsWithTheLastBytes) {
  ScopedVirtualClock clock;  // stands still: only the first and the last bytes are told
  startService();
  const uint64_t size = 4 << 20;
  auto delegate = std::make_shared<RecordingDelegate>();
  auto session = service->sessionWithConfiguration(configuration(), delegate);
  session->downloadTask(get(server.blobURL(size)))->resume();
  ASSERT_TRUE(delegate->waitForCompletions(1));
  auto writes = delegate->events(Kind::kWrite);
  ASSERT_EQ(writes.size(), 2u);
  EXPECT_EQ(writes[1].total, static_cast<int64_t>(size));
  EXPECT_EQ(writes[0].written + writes[1].written, static_cast<int64_t>(size));
  EXPECT_EQ(writes[1].expected, static_cast<int64_t>(size));
}

TEST_F(TransferScheduling, ProgressComesAgainOnceATenthOfASecondHasPassed) {
  ScopedVirtualClock clock;
  startService();
  const uint64_t size = 4 << 20;
  auto delegate = std::make_shared<RecordingDelegate>();
  // Each event moves time on by 100 ms, so the next chunk is told again; by 99 ms it is not.
  std::atomic<int> step{100};
  delegate->onWrite = [&](const TransferEvent&) {
    clock->advance(std::chrono::milliseconds(step.load()));
  };
  server.faults().add(Route::kBlob, content::Fault::bandwidth(8 << 20), content::Trigger::next(1));
  auto session = service->sessionWithConfiguration(configuration(), delegate);
  session->downloadTask(get(server.blobURL(size)))->resume();
  ASSERT_TRUE(delegate->waitForCompletions(1));
  auto writes = delegate->events(Kind::kWrite);
  EXPECT_GT(writes.size(), 4u);
  int64_t sum = 0;
  for (const auto& w : writes) sum += w.written;
  EXPECT_EQ(sum, static_cast<int64_t>(size));
  EXPECT_EQ(writes.back().total, static_cast<int64_t>(size));
}

}  // namespace
}  // namespace sonorell::testing
