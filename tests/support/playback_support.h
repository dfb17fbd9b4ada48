// Pieces the playback tests share: a download engine against the reference server with a
// streaming URL manager on its core and a reachability the test sets, a loading-request client
// that records what it receives, a wait for what a loading request or the server does, and a
// playback engine on the virtual player and test clock (or on GStreamer) whose streamed chapters
// come from a file delegate that can hold its bytes back.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <optional>

#include "platform/dispatch/clock.h"
#include "platform/media/loading_request.h"
#include "platform/media/virtual/virtual_queue_player.h"
#include "playback/playback_engine_core.h"
#include "playback/resource_loader_delegate.h"
#include "playback/streaming_url_manager.h"
#include "sonorell/playback_engine.h"
#include "support/download_engine_support.h"
#include "unit/platform/media/media_test_support.h"

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

// A playback engine on this fixture's services, with its own audio session. The virtual flavour
// installs the test clock when it is made, so that downloads made before ran in real time.
class PlaybackEngineTest : public PlaybackTest {
 protected:
  void SetUp() override {
    PlaybackTest::SetUp();
    QSOStreamingURLManager::setSharedManager(urls);
    services->audioSession = session;
  }
  void TearDown() override {
    // A failed test shows what the engine did.
    if (HasFailure()) {
      for (const auto& [level, line] : listener->lines()) {
        if (line.find("[PlaybackEngine]") != line.npos || line.find("Posted") != line.npos) {
          std::cerr << line << "\n";
        }
      }
    }
    playback.reset();
    DispatchQueue::waitUntilAllIdle(std::chrono::seconds(20));
    QSOStreamingURLManager::setSharedManager(nullptr);
    PlaybackTest::TearDown();
  }

  QSOPlaybackEngine& virtualEngine() {
    clock.emplace();
    services->clock = clock->get();
    services->players = [this] {
      auto player = VirtualQueuePlayer::create();
      player->setRedirectResolver([this](const HttpRedirect& redirect) {
        return std::shared_ptr<ResourceLoaderDelegate>(streamFor(redirect.url));
      });
      std::lock_guard lock(playersMutex_);
      players_.push_back(player);
      return player;
    };
    playback = std::make_shared<QSOPlaybackEngine>(services);
    return *playback;
  }
  QSOPlaybackEngine& gstEngine() {
    services->players = [] { return QueuePlayer::create(); };
    playback = std::make_shared<QSOPlaybackEngine>(services);
    return *playback;
  }

  // The delegate that serves the server's bytes for a redirect to `url` (the virtual player has
  // no network), holding from `holdStreamsAt` if set.
  std::shared_ptr<FileLoaderDelegate> streamFor(const std::string& url) {
    const auto bytes = server.currentBytes(url.substr(url.find('/', url.find("://") + 3)));
    FileLoaderDelegate::Behaviour behaviour;
    std::lock_guard lock(playersMutex_);
    if (holdStreamsAt) behaviour.stallAt = *holdStreamsAt;
    auto stream = std::make_shared<FileLoaderDelegate>(
        std::vector<uint8_t>(bytes.begin(), bytes.end()), behaviour);
    streams_.push_back(stream);
    return stream;
  }
  std::vector<std::shared_ptr<FileLoaderDelegate>> streams() {
    std::lock_guard lock(playersMutex_);
    return streams_;
  }
  // Every player the engine made, in order.
  std::vector<std::shared_ptr<VirtualQueuePlayer>> players() {
    std::lock_guard lock(playersMutex_);
    return players_;
  }
  std::shared_ptr<QueuePlayer> player() { return playback->core()->streamingPlayer(); }
  // The chapters in the player's queue, current first, as "<id>_<part>_<chapter>".
  std::vector<std::string> queued() {
    std::vector<std::string> chapters;
    if (auto p = player()) {
      for (const auto& item : p->items()) {
        auto name = item->url().substr(QSOResourceLoaderDelegate::kURLScheme.size());
        chapters.push_back(FilesystemHelper::chapterDescription(name)->toString());
      }
    }
    return chapters;
  }
  // True once the current item is ready and the player runs: from then on the clock moves it.
  bool playing() {
    return eventually([&] {
      auto p = player();
      auto item = p ? p->currentItem() : nullptr;
      return item && item->status() == PlayerItemStatus::ReadyToPlay && p->rate() > 0;
    });
  }
  // Moves the test clock in small steps, running what each step queues.
  void advance(double seconds, double step = 0.05) {
    for (double done = 0; done + 1e-9 < seconds; done += step) {
      clock->get()->advance(std::chrono::duration_cast<Duration>(
          std::chrono::duration<double>(std::min(step, seconds - done))));
      clock->get()->runUntilIdle();
    }
  }
  // Advances in small steps until `condition` holds, for at most `limit` seconds.
  bool advanceUntil(const std::function<bool()>& condition, double limit = 30) {
    for (double done = 0; done < limit; done += 0.05) {
      if (condition()) return true;
      advance(0.05);
    }
    return condition();
  }
  // The milestones of a playback in order: loaded, started, paused, complete, failed, unloaded
  // (progress, buffering, seek and rate reports left out).
  std::vector<std::string> milestones() {
    static const std::vector<std::string_view> kMilestones = {
        QSOPlaybackChapterLoadedNotification,     QSOPlaybackChapterStartedNotification,
        QSOPlaybackChapterPausedNotification,     QSOPlaybackChapterPausedFailedNotification,
        QSOPlaybackChapterCompleteNotification,   QSOPlaybackChapterFailedNotification,
        QSOPlaybackAudiobookCompleteNotification, QSOPlaybackAudiobookUnloadedNotification};
    std::vector<std::string> names;
    for (const auto& p : posted()) {
      if (std::find(kMilestones.begin(), kMilestones.end(), p.name) != kMilestones.end()) {
        names.push_back(p.name);
      }
    }
    return names;
  }
  std::vector<Posted> postedNamed(std::string_view name) {
    std::vector<Posted> found;
    for (const auto& p : posted()) {
      if (p.name == name) found.push_back(p);
    }
    return found;
  }

  size_t count(std::string_view name) { return postedNamed(name).size(); }

  std::shared_ptr<AudioSession> session = std::make_shared<AudioSession>();
  std::optional<ScopedVirtualClock> clock;
  std::shared_ptr<QSOPlaybackEngine> playback;
  std::optional<int64_t> holdStreamsAt;  // guarded by playersMutex_ once the engine runs

 private:
  std::mutex playersMutex_;
  std::vector<std::shared_ptr<VirtualQueuePlayer>> players_;
  std::vector<std::shared_ptr<FileLoaderDelegate>> streams_;
};

}  // namespace sonorell::testing
