// Fetches the URLs given on the command line through the transfer service (one session, four
// transfers at once) into a directory, the way the download engine would, and prints the bytes
// and seconds. bench/transfer_vs_curl.sh runs it beside curl and compares. Single-threaded
// driver: the main thread waits on a condition variable the delegate signals.
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "platform/net/transfer_service.h"

namespace {

class Collector : public sonorell::TransferSessionDelegate {
 public:
  explicit Collector(std::filesystem::path out) : out_(std::move(out)) {}

  void didFinishDownloadingToURL(const sonorell::TransferSessionPtr&,
                                 const sonorell::TransferTaskPtr& task,
                                 const std::filesystem::path& location) override {
    std::error_code ec;
    std::filesystem::rename(location, out_ / task->taskDescription(), ec);
    std::lock_guard lock(mutex_);
    bytes_ += task->countOfBytesReceived();
    if (ec) ++failures_;
  }
  void didCompleteWithError(const sonorell::TransferSessionPtr&,
                            const sonorell::TransferTaskPtr& task,
                            sonorell::ErrorPtr error) override {
    if (error) {
      std::fprintf(stderr, "%s: %s\n", task->originalRequest().url.c_str(),
                   error->description().c_str());
    }
    std::lock_guard lock(mutex_);
    ++completed_;
    if (error) ++failures_;
    done_.notify_all();
  }
  void wait(size_t count) {
    std::unique_lock lock(mutex_);
    done_.wait(lock, [&] { return completed_ >= count; });
  }
  int64_t bytes() {
    std::lock_guard lock(mutex_);
    return bytes_;
  }
  size_t failures() {
    std::lock_guard lock(mutex_);
    return failures_;
  }

 private:
  const std::filesystem::path out_;
  std::mutex mutex_;
  std::condition_variable done_;
  size_t completed_ = 0;  // guarded by mutex_
  size_t failures_ = 0;   // guarded by mutex_
  int64_t bytes_ = 0;     // guarded by mutex_
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "usage: %s CA-FILE OUT-DIR URL...\n", argv[0]);
    return 2;
  }
  const std::string ca = argv[1];
  const std::filesystem::path out = argv[2];
  std::vector<std::string> urls(argv + 3, argv + argc);

  auto service = sonorell::TransferService::shared();  // under $SONORELL_LIBRARY_DIR
  auto collector = std::make_shared<Collector>(out);
  sonorell::TransferSessionConfiguration config;
  config.identifier = "QLSO_bench";
  config.caBundle = ca;
  const auto start = std::chrono::steady_clock::now();
  auto session = service->sessionWithConfiguration(config, collector);
  for (size_t i = 0; i < urls.size(); ++i) {
    sonorell::TransferRequest request;
    request.url = urls[i];
    auto task = session->downloadTask(request);
    task->setTaskDescription("f" + std::to_string(i));
    task->resume();
  }
  collector->wait(urls.size());
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("%lld %.3f\n", static_cast<long long>(collector->bytes()), seconds);
  return collector->failures() == 0 ? 0 : 1;
}
