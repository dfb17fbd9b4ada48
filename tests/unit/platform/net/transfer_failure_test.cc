// How transfers end when they do not succeed: a cancel, a connection that drops, a body cut
// short or promising more than it sends, no room on disk, and the transport failures (DNS,
// connect, time-out, TLS) with their platform codes. None of them is ever reported as finished.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "transfer_test_support.h"

namespace sonorell::testing {
namespace {

using Kind = TransferEvent::Kind;
using content::Fault;
using content::Route;
using content::Trigger;

class TransferFailures : public TransferTest {
 protected:
  // Runs one transfer to its end and returns its completion error.
  ErrorPtr runOne(TransferRequest request, TransferSessionConfiguration config) {
    auto session = service->sessionWithConfiguration(config, delegate);
    auto task = session->downloadTask(std::move(request));
    task->setTaskDescription("one");
    task->resume();
    EXPECT_TRUE(delegate->waitForCompletions(1));
    auto completions = delegate->events(Kind::kComplete);
    EXPECT_EQ(completions.size(), 1u);
    EXPECT_TRUE(delegate->events(Kind::kFinish).empty()) << "a failure was reported as finished";
    EXPECT_TRUE(transferFiles(temporaryDirectory()).empty()) << "a failed transfer left a file";
    return completions.empty() ? nullptr : completions[0].error;
  }
  ErrorPtr runChapter() {
    return runOne(get(server.audioURL(content::kThreeChapterBookID, 0, 3)), configuration());
  }

  std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
};

void expectURLError(const ErrorPtr& error, int64_t code) {
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain, kURLLoadingErrorDomain);
  EXPECT_EQ(error->code, code) << error->description();
}

TEST_F(TransferFailures, CancelGivesMinus999AndLeavesNoFile) {
  startService();
  server.faults().add(Route::kAudio, Fault::bandwidth(20'000), Trigger::always());
  auto session = service->sessionWithConfiguration(configuration(), delegate);
  auto task = session->downloadTask(get(server.audioURL(content::kThreeChapterBookID, 0, 3)));
  task->resume();
  ASSERT_TRUE(delegate->waitForWrites(1));
  EXPECT_FALSE(transferFiles(temporaryDirectory()).empty());
  task->cancel();
  ASSERT_TRUE(delegate->waitForCompletions(1));
  expectURLError(delegate->events(Kind::kComplete)[0].error, kURLErrorCancelled);
  EXPECT_TRUE(delegate->events(Kind::kFinish).empty());
  EXPECT_TRUE(transferFiles(temporaryDirectory()).empty());
  EXPECT_TRUE(tasksOf(session).empty());
}

TEST_F(TransferFailures, CancelOfATaskThatNeverRanCompletesAtOnce) {
  startService();
  auto session = service->sessionWithConfiguration(configuration(), delegate);
  auto task = session->downloadTask(get(server.audioURL(content::kThreeChapterBookID, 0, 1)));
  task->cancel();
  ASSERT_TRUE(delegate->waitForCompletions(1));
  expectURLError(task->error(), kURLErrorCancelled);
  EXPECT_EQ(server.requestCount(Route::kAudio), 0u);
}

TEST_F(TransferFailures, DroppedConnectionCompletesWithAnError) {
  startService();
  server.faults().add(Route::kAudio, Fault::droppedConnection());
  expectURLError(runChapter(), kURLErrorNetworkConnectionLost);
}

TEST_F(TransferFailures, BodyCutShortIsNeverFinished) {
  startService();
  server.faults().add(Route::kAudio, Fault::cutShort(10'000));
  auto error = runChapter();
  expectURLError(error, kURLErrorNetworkConnectionLost);
  // The partial bytes were reported as progress, never as a finished file.
  auto writes = delegate->events(Kind::kWrite);
  ASSERT_FALSE(writes.empty());
  EXPECT_LE(writes.back().total, 10'000);
}

TEST_F(TransferFailures, BodyShorterThanItsDeclaredLengthIsNeverFinished) {
  startService();
  const auto& c = chapter(content::kThreeChapterBookID, 0, 3);
  server.faults().add(Route::kAudio, Fault::wrongContentLength(c.size + 5'000));
  expectURLError(runChapter(), kURLErrorNetworkConnectionLost);
}

TEST_F(TransferFailures, NoRoomOnDiskGivesPOSIX28BeforeAnyByteIsWritten) {
  startService([](const std::filesystem::path&) { return std::optional<uint64_t>(1'000); });
  auto error = runChapter();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain, kPOSIXErrorDomain);
  EXPECT_EQ(error->code, 28);
  EXPECT_TRUE(delegate->events(Kind::kWrite).empty());
}

TEST_F(TransferFailures, ErrorStatusIsDeliveredAsAFinishedBodyWithItsStatus) {
  startService();
  server.faults().add(Route::kAudio, Fault::statusCode(503));
  auto session = service->sessionWithConfiguration(configuration(), delegate);
  auto task = session->downloadTask(get(server.audioURL(content::kThreeChapterBookID, 0, 1)));
  task->resume();
  ASSERT_TRUE(delegate->waitForCompletions(1));
  auto finishes = delegate->events(Kind::kFinish);
  ASSERT_EQ(finishes.size(), 1u);
  EXPECT_EQ(finishes[0].status, 503);
  EXPECT_EQ(delegate->events(Kind::kComplete)[0].error, nullptr);
}

TEST_F(TransferFailures, UnknownHostIsCannotFindHost) {
  startService();
  auto error = runOne(get("https://no-such-host.invalid/audio"), configuration());
  expectURLError(error, kURLErrorCannotFindHost);
  // libcurl's own words stay in the description.
  ASSERT_TRUE(error->underlyingError());
  EXPECT_EQ(error->localizedDescription(), error->underlyingError()->localizedDescription());
  EXPECT_FALSE(error->localizedDescription().empty());
}

TEST_F(TransferFailures, RefusedConnectionIsCannotConnectToHost) {
  startService();
  // A port that was just free: nobody listens there.
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  socklen_t length = sizeof address;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  ::close(fd);
  const std::string url = "https://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/x";
  expectURLError(runOne(get(url), configuration()), kURLErrorCannotConnectToHost);
}

TEST_F(TransferFailures, SilentServerTimesOut) {
  startService();
  server.faults().add(Route::kAudio, Fault::delayed(std::chrono::seconds(20)));
  auto request = get(server.audioURL(content::kThreeChapterBookID, 0, 1));
  request.timeout = std::chrono::seconds(1);
  expectURLError(runOne(request, configuration()), kURLErrorTimedOut);
}

TEST_F(TransferFailures, UntrustedCertificateIsATLSFailure) {
  startService();
  auto config = configuration();
  // A bundle of public roots, none of which signed the test certificate.
  config.caBundle = "/etc/ssl/certs/ca-certificates.crt";
  auto error = runOne(get(server.audioURL(content::kThreeChapterBookID, 0, 1)), config);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain, kURLLoadingErrorDomain);
  EXPECT_EQ(error->code, kURLErrorServerCertificateUntrusted) << error->description();
}

}  // namespace
}  // namespace sonorell::testing
