// When transfers may run and how often they speak: a Wi-Fi-only session waits while the link is
// cellular (a running transfer stops, keeping its bytes) and goes on when it changes; progress
// comes about ten times a second (of the engine's clock) plus the last bytes.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "platform/dispatch/clock.h"
#include "transfer_test_support.h"

namespace sonorell::testing {
namespace {

using content::Route;

class TransferScheduling : public TransferTest {};

// Waits until `file` has kept its size for `still`, and returns that size (or -1 after 10 s).
// Only stat(): a test that opened descriptors here could take the number of a socket the
// server (uninstrumented, under TSan) just closed, which TSan reports as a race.
int64_t settledSize(const std::filesystem::path& file, std::chrono::milliseconds still) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  std::error_code ec;
  auto size = static_cast<int64_t>(std::filesystem::file_size(file, ec));
  auto since = std::chrono::steady_clock::now();
  while (std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const auto now = static_cast<int64_t>(std::filesystem::file_size(file, ec));
    if (ec) return -1;
    if (now != size) {
      size = now;
      since = std::chrono::steady_clock::now();
    } else if (std::chrono::steady_clock::now() - since >= still) {
      return size;
    }
  }
  return -1;
}

TEST_F(TransferScheduling, AWiFiOnlyTransferRunsOnlyWhileTheLinkIsWiFi) {
  link->set(ConnectionType::Cellular);
  reachability->refresh();
  startService();
  const auto& waiting = longChapter();
  const auto& other = chapter(content::kThreeChapterBookID, 0, 2);
  auto wifiDelegate = std::make_shared<RecordingDelegate>();
  auto config = configuration("QLSO_wifi");
  config.allowsCellularAccess = false;
  auto wifiOnly = service->sessionWithConfiguration(config, wifiDelegate);
  auto task = wifiOnly->downloadTask(getChapter(waiting));
  task->resume();

  // A session that may use cellular runs a whole transfer meanwhile on the same driver.
  auto anyDelegate = std::make_shared<RecordingDelegate>();
  auto any = service->sessionWithConfiguration(configuration("QLSO_any"), anyDelegate);
  any->downloadTask(getChapter(other))->resume();
  ASSERT_TRUE(anyDelegate->waitForCompletions(1));
  wifiOnly->delegateQueue()->sync([] {});  // what it was handed so far has been told
  EXPECT_TRUE(wifiDelegate->events().empty());
  EXPECT_EQ(task->state(), TransferTaskState::kRunning);
  EXPECT_EQ(task->countOfBytesReceived(), 0);
  auto requests = server.requests(Route::kAudio);
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].path, other.audioPath);

  // On Wi-Fi it starts.
  slowAudio();
  link->set(ConnectionType::WiFi);
  ASSERT_TRUE(wifiDelegate->waitUntil([&] { return task->countOfBytesReceived() >= 20'000; },
                                      std::chrono::seconds(30)));
  const auto files = transferFiles(temporaryDirectory());
  ASSERT_EQ(files.size(), 1u) << "the running transfer's file";
  const std::filesystem::path file = files[0];

  // The link turns cellular mid-transfer: the job stops and keeps its bytes, and while the
  // link stays cellular nothing more arrives and the server is asked for nothing. (Throttled
  // to 40 KB/s the server sends 2,000 bytes every 50 ms: a running transfer grows.)
  link->set(ConnectionType::Cellular);
  const int64_t kept = settledSize(file, std::chrono::milliseconds(300));
  ASSERT_GT(kept, 0) << "the transfer's file went away: it went on to its end";
  ASSERT_LT(kept, static_cast<int64_t>(waiting.size));
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  std::error_code ec;
  EXPECT_EQ(static_cast<int64_t>(std::filesystem::file_size(file, ec)), kept);
  EXPECT_EQ(server.requests(Route::kAudio).size(), 2u);
  EXPECT_EQ(task->state(), TransferTaskState::kRunning);  // parked, not suspended
  wifiOnly->delegateQueue()->sync([] {});
  EXPECT_TRUE(wifiDelegate->events(Kind::kComplete).empty());
  for (const auto& write : wifiDelegate->events(Kind::kWrite)) EXPECT_LE(write.total, kept);

  // Back on Wi-Fi it resumes from the bytes it kept.
  link->set(ConnectionType::WiFi);
  ASSERT_TRUE(wifiDelegate->waitForCompletions(1));
  EXPECT_EQ(wifiDelegate->finished().sha256, waiting.sha256);
  requests = server.requests(Route::kAudio);
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_FALSE(requests[1].header("Range"));
  EXPECT_EQ(requests[2].header("Range").value_or(""), "bytes=" + std::to_string(kept) + "-");
  EXPECT_TRUE(requests[2].header("If-Range"));
}

TEST_F(TransferScheduling, ProgressIsThrottledByTheClockAndEndsWithTheLastBytes) {
  ScopedVirtualClock clock;
  startService();
  const uint64_t size = 4 << 20;
  // Each event moves time on by `step`; at 100 ms the next chunk is told again.
  std::atomic<int> step{0};
  auto run = [&] {
    auto delegate = std::make_shared<RecordingDelegate>();
    delegate->onWrite = [&](const TransferEvent&) {
      clock->advance(std::chrono::milliseconds(step.load()));
    };
    server.faults().add(Route::kBlob, content::Fault::bandwidth(8 << 20));
    auto session = service->sessionWithConfiguration(
        configuration("QLSO_step" + std::to_string(step.load())), delegate);
    session->downloadTask(get(server.blobURL(size)))->resume();
    EXPECT_TRUE(delegate->waitForCompletions(1));
    auto writes = delegate->events(Kind::kWrite);
    if (writes.empty()) return size_t{0};
    int64_t sum = 0;
    for (const auto& w : writes) sum += w.written;
    EXPECT_EQ(sum, static_cast<int64_t>(size));
    EXPECT_EQ(writes.back().total, static_cast<int64_t>(size));
    EXPECT_EQ(writes.back().expected, static_cast<int64_t>(size));
    return writes.size();
  };
  EXPECT_EQ(run(), 2u) << "with the clock standing still, only the first and last bytes are told";
  step = 100;
  EXPECT_GT(run(), 4u);
}

}  // namespace
}  // namespace sonorell::testing
