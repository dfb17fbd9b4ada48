// Pieces the playback tests share: a download engine against the reference server with a
// streaming URL manager on its core and a reachability the test sets, a loading-request client
// that records what it receives, and a wait for what a loading request or the server does.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/media/loading_request.h"
#include "playback/resource_loader_delegate.h"
#include "playback/streaming_url_manager.h"
#include "support/download_engine_support.h"

namespace sonorell::testing {

// Polls a condition that real I/O makes true, for at most `limit`.
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds limit = std::chrono::seconds(20)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

class RecordingClient : public LoadingRequestClient {
 public:
  void loadingRequestDidReceiveData(LoadingRequest& request, const uint8_t* data,
                                    size_t size) override {
    std::function<void(LoadingRequest&)> hook;
    {
      std::lock_guard lock(mutex_);
      bytes_.append(reinterpret_cast<const char*>(data), size);
      pieces_.push_back(size);
      hook = onData;
    }
    if (hook) hook(request);
  }
  void loadingRequestDidFinish(LoadingRequest& request) override {
    std::lock_guard lock(mutex_);
    ++finishes_;
    error_ = request.error();
    changed_.notify_all();
  }
  bool waitForFinish(std::chrono::seconds limit = std::chrono::seconds(20)) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return finishes_ > 0; });
  }
  std::string bytes() {
    std::lock_guard lock(mutex_);
    return bytes_;
  }
  std::vector<size_t> pieces() {
    std::lock_guard lock(mutex_);
    return pieces_;
  }
  int finishes() {
    std::lock_guard lock(mutex_);
    return finishes_;
  }
  // What the request was finished with.
  ErrorPtr error() {
    std::lock_guard lock(mutex_);
    return error_;
  }

  std::function<void(LoadingRequest&)> onData;  // set before the request is loaded

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::string bytes_;
  std::vector<size_t> pieces_;
  int finishes_ = 0;
  ErrorPtr error_;
};

class PlaybackTest : public DownloadEngineTest {
 protected:
  void SetUp() override {
    DownloadEngineTest::SetUp();
    link = std::make_shared<ManualReachabilitySource>(ConnectionType::WiFi);
    services->reachability = Reachability::create(link);
    makeEngine();
    urls = QSOStreamingURLManager::create(engine->core());
  }

  std::shared_ptr<QSOResourceLoaderDelegate> makeDelegate(bool wifiOnly = false,
                                                          std::string license = "license-1001") {
    return std::make_shared<QSOResourceLoaderDelegate>("session", std::move(license), wifiOnly,
                                                       urls, services->reachability);
  }
  void setLink(ConnectionType type) {
    link->set(type);
    services->reachability->refresh();
  }
  // Downloads the whole book and answers whether it arrived.
  bool downloadBook(std::string_view id) {
    return download(QSODownloadRequest(std::string(id), DownloadTypeFullAudiobook, "session",
                                       "license-" + std::string(id), false)) ==
           QSODownloadRequestSuccessNotification;
  }
  static std::string chapterURL(std::string_view id, int part, int chapter) {
    return "qlso://" +
           FilesystemHelper::filename(QSOChapterDescription(
               std::string(id), static_cast<uint64_t>(part), static_cast<uint64_t>(chapter)));
  }

  std::shared_ptr<ManualReachabilitySource> link;
  std::shared_ptr<QSOStreamingURLManager> urls;
};

}  // namespace sonorell::testing
