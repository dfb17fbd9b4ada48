// How transfers end when they do not succeed: a cancel, a connection that drops, a body cut
// short or promising more than it sends, no room on disk, and the transport failures (DNS,
// connect, time-out, TLS) with their platform codes. None of them is ever reported as finished.
#include <gtest/gtest.h>

#include <atomic>

#include "transfer_test_support.h"

namespace sonorell::testing {
namespace {

using content::Fault;
using content::Route;
using content::Trigger;

class TransferFailures : public TransferTest {
 protected:
  // Runs one transfer in a session of its own to its end and returns what its delegate heard.
  std::shared_ptr<RecordingDelegate> run(TransferRequest request, std::string caBundle = "") {
    auto delegate = std::make_shared<RecordingDelegate>();
    auto config = configuration("QLSO_" + std::to_string(++sessions_));
    if (!caBundle.empty()) config.caBundle = caBundle;
    auto session = service->sessionWithConfiguration(config, delegate);
    session->downloadTask(std::move(request))->resume();
    EXPECT_TRUE(delegate->waitForCompletions(1));
    return delegate;
  }
  // The same for a transfer that must fail: its completion error.
  ErrorPtr runFailing(TransferRequest request, std::string caBundle = "") {
    auto delegate = run(std::move(request), std::move(caBundle));
    EXPECT_TRUE(delegate->events(Kind::kFinish).empty()) << "a failure was reported as finished";
    EXPECT_TRUE(transferFiles(temporaryDirectory()).empty()) << "a failed transfer left a file";
    lastWrites = delegate->events(Kind::kWrite);
    auto completions = delegate->events(Kind::kComplete);
    EXPECT_EQ(completions.size(), 1u);
    return completions.empty() ? nullptr : completions[0].error;
  }
  TransferRequest audio() { return get(server.audioURL(content::kThreeChapterBookID, 0, 3)); }

  std::vector<TransferEvent> lastWrites;
  int sessions_ = 0;
  std::atomic<uint64_t> freeSpace{uint64_t{1} << 40};
};

TEST_F(TransferFailures, CancelEndsARunningOrUnstartedTaskWithMinus999AndLeavesNoFile) {
  startService();
  server.faults().add(Route::kAudio, Fault::bandwidth(20'000), Trigger::always());
  auto delegate = std::make_shared<RecordingDelegate>();
  auto session = service->sessionWithConfiguration(configuration(), delegate);
  auto task = session->downloadTask(audio());
  task->resume();
  ASSERT_TRUE(delegate->waitFor(Kind::kWrite));
  EXPECT_FALSE(transferFiles(temporaryDirectory()).empty());
  task->cancel();
  ASSERT_TRUE(delegate->waitForCompletions(1));
  expectURLError(delegate->events(Kind::kComplete)[0].error, kURLErrorCancelled);
  EXPECT_TRUE(delegate->events(Kind::kFinish).empty());
  EXPECT_TRUE(transferFiles(temporaryDirectory()).empty());
  EXPECT_TRUE(tasksOf(session).empty());

  // A task that never ran completes at once, without a request.
  auto unstarted = session->downloadTask(audio());
  unstarted->cancel();
  ASSERT_TRUE(delegate->waitForCompletions(2));
  expectURLError(unstarted->error(), kURLErrorCancelled);
  EXPECT_EQ(server.requestCount(Route::kAudio), 1u);
}

TEST_F(TransferFailures, EveryBrokenTransferCompletesWithItsErrorAndIsNeverFinished) {
  TransferServiceOptions options;
  options.freeSpace = [this](const std::filesystem::path&) {
    return std::optional<uint64_t>(freeSpace.load());
  };
  startService(std::move(options));
  const int64_t size = static_cast<int64_t>(chapter(content::kThreeChapterBookID, 0, 3).size);

  server.faults().add(Route::kAudio, Fault::droppedConnection());
  expectURLError(runFailing(audio()), kURLErrorNetworkConnectionLost);

  server.faults().add(Route::kAudio, Fault::cutShort(10'000));
  expectURLError(runFailing(audio()), kURLErrorNetworkConnectionLost);
  // The partial bytes were reported as progress, never as a finished file.
  ASSERT_FALSE(lastWrites.empty());
  EXPECT_LE(lastWrites.back().total, 10'000);

  server.faults().add(Route::kAudio, Fault::wrongContentLength(size + 5'000));
  expectURLError(runFailing(audio()), kURLErrorNetworkConnectionLost);

  freeSpace = 1'000;
  auto noRoom = runFailing(audio());
  ASSERT_TRUE(noRoom);
  EXPECT_EQ(noRoom->domain, kPOSIXErrorDomain);
  EXPECT_EQ(noRoom->code, 28);
  EXPECT_TRUE(lastWrites.empty()) << "bytes were written without room for them";
  freeSpace = uint64_t{1} << 40;

  auto unknownHost = runFailing(get("https://no-such-host.invalid/audio"));
  expectURLError(unknownHost, kURLErrorCannotFindHost);
  // libcurl's own words stay in the description.
  ASSERT_TRUE(unknownHost->underlyingError());
  EXPECT_EQ(unknownHost->localizedDescription(),
            unknownHost->underlyingError()->localizedDescription());
  EXPECT_FALSE(unknownHost->localizedDescription().empty());

  expectURLError(runFailing(get(closedPortURL())), kURLErrorCannotConnectToHost);
  expectURLError(runFailing(audio(), kPublicRoots), kURLErrorServerCertificateUntrusted);

  server.faults().add(Route::kAudio, Fault::delayed(std::chrono::seconds(20)));
  auto silent = audio();
  silent.timeout = std::chrono::seconds(1);
  expectURLError(runFailing(silent), kURLErrorTimedOut);
}

TEST_F(TransferFailures, ErrorStatusIsDeliveredAsAFinishedBodyWithItsStatus) {
  startService();
  server.faults().add(Route::kAudio, Fault::statusCode(503));
  auto delegate = run(audio());
  EXPECT_EQ(delegate->finished().status, 503);
  EXPECT_EQ(delegate->events(Kind::kComplete)[0].error, nullptr);
}

}  // namespace
}  // namespace sonorell::testing
