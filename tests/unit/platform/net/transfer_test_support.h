// Shared by the net tests: a fixture with a fresh Library directory, the reference content server
// on 127.0.0.1 over HTTPS and a transfer service whose link type the test sets, plus a delegate
// that records every event. The delegate's list is guarded by its mutex; waits are on events
// (with a generous upper bound so a hang fails instead of blocking).
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "content_server.h"
#include "platform/dispatch/dispatch_queue.h"
#include "platform/net/curl_loop.h"
#include "platform/net/reachability.h"
#include "platform/net/transfer_service.h"
#include "sha256.h"
#include "support/temp_library.h"

namespace sonorell::testing {

inline std::string readFile(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::stringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

inline std::vector<std::filesystem::path> transferFiles(const std::filesystem::path& directory) {
  std::vector<std::filesystem::path> files;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(directory, ec)) {
    files.push_back(entry.path());
  }
  return files;
}

// An HTTPS URL on a loopback port that was free a moment ago: nobody listens there.
inline std::string closedPortURL() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  socklen_t length = sizeof address;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  ::close(fd);
  return "https://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/v4/audiobooks/1";
}

inline void expectURLError(const ErrorPtr& error, int64_t code) {
  ASSERT_TRUE(error) << "expected URL error " << code;
  EXPECT_EQ(error->domain, kURLLoadingErrorDomain);
  EXPECT_EQ(error->code, code) << error->description();
}

// Public roots only, none of which signed the test certificate.
inline constexpr const char* kPublicRoots = "/etc/ssl/certs/ca-certificates.crt";

// For tests that change the process-wide CA bundle: restores the previous one when the scope
// ends, even after a failed assertion.
class DefaultCABundleGuard {
 public:
  DefaultCABundleGuard() : saved_(defaultCABundle()) {}
  ~DefaultCABundleGuard() { setDefaultCABundle(saved_); }
  DefaultCABundleGuard(const DefaultCABundleGuard&) = delete;
  DefaultCABundleGuard& operator=(const DefaultCABundleGuard&) = delete;

 private:
  const std::string saved_;
};

struct TransferEvent {
  enum class Kind { kWrite, kFinish, kComplete, kAllDelivered };
  TransferEvent() = default;
  TransferEvent(Kind k, const TransferTaskPtr& t)
      : kind(k), task(t ? t->taskIdentifier() : 0), description(t ? t->taskDescription() : "") {}
  Kind kind = Kind::kWrite;
  uint64_t task = 0;
  std::string description;
  int64_t written = 0, total = 0, expected = 0;  // kWrite
  std::string sha256;                            // kFinish: of the file at the callback
  int64_t fileSize = -1;                         // kFinish
  long status = 0;                               // kFinish
  int64_t received = 0;                          // kFinish: the task's count
  ErrorPtr error;                                // kComplete
  const TransferSession* session = nullptr;      // kComplete: the session that told it
};

class RecordingDelegate : public TransferSessionDelegate {
 public:
  using Kind = TransferEvent::Kind;
  // Runs inside didFinishDownloadingToURL, after the file was recorded.
  std::function<void(const std::filesystem::path&)> onFinish;
  // Runs inside didWriteData, after the event was recorded.
  std::function<void(const TransferEvent&)> onWrite;

  void didWriteData(const TransferSessionPtr&, const TransferTaskPtr& task, int64_t written,
                    int64_t total, int64_t expected) override {
    TransferEvent e(Kind::kWrite, task);
    e.written = written;
    e.total = total;
    e.expected = expected;
    add(e);
    if (onWrite) onWrite(e);
  }
  void didFinishDownloadingToURL(const TransferSessionPtr&, const TransferTaskPtr& task,
                                 const std::filesystem::path& location) override {
    TransferEvent e(Kind::kFinish, task);
    e.sha256 = content::sha256Hex(readFile(location));
    std::error_code ec;
    e.fileSize = static_cast<int64_t>(std::filesystem::file_size(location, ec));
    e.status = task->response() ? task->response()->statusCode : 0;
    e.received = task->countOfBytesReceived();
    add(e);
    if (onFinish) onFinish(location);
  }
  void didCompleteWithError(const TransferSessionPtr& session, const TransferTaskPtr& task,
                            ErrorPtr error) override {
    TransferEvent e(Kind::kComplete, task);
    e.error = std::move(error);
    e.session = session.get();
    add(e);
  }
  void didFinishEventsForBackgroundURLSession(const TransferSessionPtr&) override {
    add(TransferEvent(Kind::kAllDelivered, nullptr));
  }

  std::vector<TransferEvent> events() const {
    std::lock_guard lock(mutex_);
    return events_;
  }
  std::vector<TransferEvent> events(Kind kind) const {
    std::vector<TransferEvent> picked;
    for (auto& e : events()) {
      if (e.kind == kind) picked.push_back(e);
    }
    return picked;
  }
  // The one file delivered as finished; fails the test when there was not exactly one.
  TransferEvent finished() const {
    auto finishes = events(Kind::kFinish);
    EXPECT_EQ(finishes.size(), 1u);
    return finishes.empty() ? TransferEvent{} : finishes[0];
  }
  // Waits until `count` events of `kind` have arrived; false after the limit.
  bool waitFor(Kind kind, size_t count = 1, std::chrono::seconds limit = std::chrono::seconds(60)) {
    return waitUntil([&] { return events(kind).size() >= count; }, limit);
  }
  bool waitForCompletions(size_t count) { return waitFor(Kind::kComplete, count); }
  bool waitUntil(const std::function<bool()>& done, std::chrono::seconds limit) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, done);
  }

 private:
  void add(TransferEvent e) {
    {
      std::lock_guard lock(mutex_);
      events_.push_back(std::move(e));
    }
    changed_.notify_all();
  }

  // Recursive: waitUntil's predicate reads the events while the wait holds the lock.
  mutable std::recursive_mutex mutex_;
  std::condition_variable_any changed_;
  std::vector<TransferEvent> events_;  // guarded by mutex_
};

class TransferTest : public ::testing::Test {
 protected:
  using Kind = TransferEvent::Kind;

  void SetUp() override { server.start(); }
  void TearDown() override {
    service.reset();
    // A session may be let go last by one of its queued deliveries; wait for those, so that the
    // session and the loop's thread are gone before the process exits.
    EXPECT_TRUE(DispatchQueue::waitUntilAllIdle(std::chrono::seconds(30)));
    server.stop();
  }

  // The service under test, with the test's link unless the options name another.
  TransferService& startService(TransferServiceOptions options = {}) {
    if (!options.reachability) options.reachability = reachability;
    ErrorPtr error;
    service = TransferService::create(std::move(options), &error);
    EXPECT_TRUE(service) << (error ? error->description() : "");
    return *service;
  }

  TransferSessionConfiguration configuration(std::string identifier = "QLSO_TEST") const {
    TransferSessionConfiguration c;
    c.identifier = std::move(identifier);
    c.caBundle = server.caCertificatePath().string();
    return c;
  }

  static TransferRequest get(std::string url) {
    TransferRequest r;
    r.url = std::move(url);
    r.headers.emplace_back("X-Request-Id", "test");
    r.timeout = std::chrono::seconds(30);
    return r;
  }

  const content::Chapter& chapter(std::string_view book, uint64_t part, uint64_t number) const {
    const content::Chapter* c = server.catalogue().book(book)->chapter(part, number);
    EXPECT_NE(c, nullptr);
    return *c;
  }
  // Large enough (about 100 KB) to be caught mid-transfer when slowed down.
  const content::Chapter& longChapter() const { return chapter(content::kLargeBookID, 1, 8); }
  TransferRequest getChapter(const content::Chapter& c) const {
    return get(server.baseURL() + c.audioPath);
  }
  // Sends the next `requests` audio bodies at 40 KB a second.
  void slowAudio(uint64_t requests = 1) {
    server.faults().add(content::Route::kAudio, content::Fault::bandwidth(40'000),
                        content::Trigger::next(requests));
  }

  std::filesystem::path temporaryDirectory() const {
    return library.path() / "SonorellSupport" / "TransferTemporaryFiles";
  }

  static std::vector<TransferTaskPtr> tasksOf(const TransferSessionPtr& session) {
    std::promise<std::vector<TransferTaskPtr>> answer;
    auto future = answer.get_future();
    session->getTasks([&answer](std::vector<TransferTaskPtr> tasks) { answer.set_value(tasks); });
    if (future.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
      ADD_FAILURE() << "getTasks never answered";
      return {};
    }
    return future.get();
  }

  TempLibrary library;
  content::ContentServer server;
  std::shared_ptr<ManualReachabilitySource> link =
      std::make_shared<ManualReachabilitySource>(ConnectionType::WiFi);
  std::shared_ptr<Reachability> reachability = Reachability::create(link);
  std::shared_ptr<TransferService> service;
};

}  // namespace sonorell::testing
