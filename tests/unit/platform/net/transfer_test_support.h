// Shared by the transfer service tests: a fixture with a fresh Library directory, the reference
// content server on 127.0.0.1 over HTTPS and a service whose link type the test sets, plus a
// delegate that records every event. The delegate's list is guarded by its mutex; waits are on
// events (with a generous upper bound so a hang fails instead of blocking).
#pragma once

#include <gtest/gtest.h>

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
#include "platform/media/reachability.h"
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

struct TransferEvent {
  enum class Kind { kWrite, kFinish, kComplete, kAllDelivered };
  static TransferEvent of(Kind kind, const TransferTaskPtr& task) {
    TransferEvent e;
    e.kind = kind;
    if (task) {
      e.task = task->taskIdentifier();
      e.description = task->taskDescription();
    }
    return e;
  }
  Kind kind = Kind::kWrite;
  uint64_t task = 0;
  std::string description;
  int64_t written = 0, total = 0, expected = 0;  // kWrite
  std::string sha256;                            // kFinish: of the file at the callback
  int64_t fileSize = -1;                         // kFinish
  long status = 0;                               // kFinish
  int64_t received = 0;                          // kFinish: the task's count
  ErrorPtr error;                                // kComplete
};

class RecordingDelegate : public TransferSessionDelegate {
 public:
  // Runs inside didFinishDownloadingToURL, after the file was recorded.
  std::function<void(const std::filesystem::path&)> onFinish;
  // Runs inside didWriteData, after the event was recorded.
  std::function<void(const TransferEvent&)> onWrite;

  void didWriteData(const TransferSessionPtr&, const TransferTaskPtr& task, int64_t written,
                    int64_t total, int64_t expected) override {
    auto e = TransferEvent::of(TransferEvent::Kind::kWrite, task);
    e.written = written;
    e.total = total;
    e.expected = expected;
    add(e);
    if (onWrite) onWrite(e);
  }
  void didFinishDownloadingToURL(const TransferSessionPtr&, const TransferTaskPtr& task,
                                 const std::filesystem::path& location) override {
    auto e = TransferEvent::of(TransferEvent::Kind::kFinish, task);
    const std::string bytes = readFile(location);
    e.sha256 = content::sha256Hex(bytes);
    std::error_code ec;
    e.fileSize = static_cast<int64_t>(std::filesystem::file_size(location, ec));
    e.status = task->response() ? task->response()->statusCode : 0;
    e.received = task->countOfBytesReceived();
    add(e);
    if (onFinish) onFinish(location);
  }
  void didCompleteWithError(const TransferSessionPtr&, const TransferTaskPtr& task,
                            ErrorPtr error) override {
    auto e = TransferEvent::of(TransferEvent::Kind::kComplete, task);
    e.error = std::move(error);
    add(e);
  }
  void didFinishEventsForBackgroundURLSession(const TransferSessionPtr&) override {
    add(TransferEvent::of(TransferEvent::Kind::kAllDelivered, nullptr));
  }

  std::vector<TransferEvent> events() const {
    std::lock_guard lock(mutex_);
    return events_;
  }
  std::vector<TransferEvent> events(TransferEvent::Kind kind) const {
    std::vector<TransferEvent> picked;
    for (auto& e : events()) {
      if (e.kind == kind) picked.push_back(e);
    }
    return picked;
  }
  // Waits until `count` tasks have completed; false after the limit.
  bool waitForCompletions(size_t count, std::chrono::seconds limit = std::chrono::seconds(60)) {
    return waitUntil([&] { return countLocked(TransferEvent::Kind::kComplete) >= count; }, limit);
  }
  bool waitForWrites(size_t count, std::chrono::seconds limit = std::chrono::seconds(60)) {
    return waitUntil([&] { return countLocked(TransferEvent::Kind::kWrite) >= count; }, limit);
  }
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
  size_t countLocked(TransferEvent::Kind kind) const {
    size_t n = 0;
    for (const auto& e : events_) n += e.kind == kind;
    return n;
  }

  // Recursive: waitUntil's predicate reads the events while the wait holds the lock.
  mutable std::recursive_mutex mutex_;
  std::condition_variable_any changed_;
  std::vector<TransferEvent> events_;  // guarded by mutex_
};

class TransferTest : public ::testing::Test {
 protected:
  void SetUp() override { server.start(); }
  void TearDown() override {
    service.reset();
    // A session may be let go last by one of its queued deliveries; wait for those, so that the
    // session and the loop's thread are gone before the process exits.
    EXPECT_TRUE(DispatchQueue::waitUntilAllIdle(std::chrono::seconds(30)));
    server.stop();
  }

  // The service under test; `freeSpace` replaces the file system's answer when set.
  TransferService& startService(FreeSpaceProbe freeSpace = nullptr) {
    TransferServiceOptions options;
    options.freeSpace = std::move(freeSpace);
    return startService(std::move(options));
  }
  // The same with options of the test's choosing; the test's link when they name none.
  TransferService& startService(TransferServiceOptions options) {
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

  std::filesystem::path temporaryDirectory() const {
    return library.path() / "SonorellSupport" / "TransferTemporaryFiles";
  }

  // Everything handed to the session's queues before this call has run.
  static void drain(const TransferSessionPtr& session) {
    session->delegateQueue()->sync([] {});
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
