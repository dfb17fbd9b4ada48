// Shared by the media tests: MP3 files made with GStreamer in a temp directory, a resource loader
// delegate that serves a file (and can stall, fail, end early or redirect), and a recorder of
// player events. The delegate runs on its own serial queue; the recorder guards its lists with
// its own mutex and lets real-time tests wait on a condition, never a sleep.
#pragma once

#include <gst/gst.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/media/player_item.h"
#include "platform/media/queue_player.h"
#include "platform/media/resource_loader.h"

namespace sonorell::testing {

// A CBR MP3 of `seconds` of a sine tone, made by a real encoder pipeline.
inline std::filesystem::path makeMp3(const std::filesystem::path& dir, const std::string& name,
                                     double seconds, int frequency = 440, int kbps = 64) {
  static std::once_flag once;
  std::call_once(once, [] { gst_init(nullptr, nullptr); });
  std::filesystem::create_directories(dir);
  auto path = dir / name;
  int buffers = static_cast<int>(seconds * 100);  // 441 samples = 10 ms at 44.1 kHz
  std::string description =
      "audiotestsrc wave=sine freq=" + std::to_string(frequency) +
      " samplesperbuffer=441 num-buffers=" + std::to_string(buffers) +
      " ! audio/x-raw,rate=44100,channels=1 ! audioconvert ! lamemp3enc target=bitrate cbr=true "
      "bitrate=" +
      std::to_string(kbps) + " ! filesink location=" + path.string();
  GError* error = nullptr;
  GstElement* pipeline = gst_parse_launch(description.c_str(), &error);
  EXPECT_NE(pipeline, nullptr) << (error ? error->message : "");
  if (!pipeline) return path;
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  GstBus* bus = gst_element_get_bus(pipeline);
  GstMessage* message = gst_bus_timed_pop_filtered(
      bus, 30 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
  EXPECT_TRUE(message && GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS);
  if (message) gst_message_unref(message);
  gst_object_unref(bus);
  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(pipeline);
  return path;
}

inline std::vector<uint8_t> readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Serves a file to loading requests in 10 KiB pieces, or misbehaves as told.
class FileLoaderDelegate : public ResourceLoaderDelegate {
 public:
  struct Behaviour {
    int64_t statedLength = -1;  // content length to report; -1: the file's
    int64_t stallAt = -1;       // never serves bytes at or past this offset
    int64_t failAt = -1;        // a data request reaching this offset fails with failError
    ErrorPtr failError;
    std::optional<HttpRedirect> redirect;  // every request is redirected
  };

  explicit FileLoaderDelegate(const std::filesystem::path& path)
      : FileLoaderDelegate(path, Behaviour()) {}
  FileLoaderDelegate(const std::filesystem::path& path, Behaviour behaviour)
      : bytes_(readFile(path)), behaviour_(std::move(behaviour)) {}

  // From now on requests are taken and never answered.
  void stopAnswering() { stopped_ = true; }

  bool shouldWaitForLoadingOfRequestedResource(
      ResourceLoader&, const std::shared_ptr<LoadingRequest>& request) override {
    ++requests_;
    if (stopped_) {
      std::lock_guard lock(mutex_);
      held_.push_back(request);
      return true;
    }
    if (behaviour_.redirect) {
      request->setRedirect(*behaviour_.redirect);
      request->setResponseStatusCode(302);
      request->finishLoading();
      return true;
    }
    int64_t size = static_cast<int64_t>(bytes_.size());
    if (auto* info = request->contentInformationRequest()) {
      info->setContentLength(behaviour_.statedLength >= 0 ? behaviour_.statedLength : size);
      info->setContentType("public.mp3");
      info->setByteRangeAccessSupported(true);
    }
    DataRequest* data = request->dataRequest();
    if (!data) {
      request->finishLoading();
      return true;
    }
    int64_t end = std::min(data->requestedOffset() + data->requestedLength(), size);
    for (int64_t at = data->requestedOffset(); at < end;) {
      if (behaviour_.failAt >= 0 && at >= behaviour_.failAt) {
        request->finishLoading(behaviour_.failError);
        return true;
      }
      if (behaviour_.stallAt >= 0 && at >= behaviour_.stallAt) {
        std::lock_guard lock(mutex_);
        held_.push_back(request);  // never answered
        return true;
      }
      int64_t piece = std::min<int64_t>(10240, end - at);
      if (behaviour_.stallAt >= 0) piece = std::min(piece, behaviour_.stallAt - at);
      if (behaviour_.failAt >= 0)
        piece = std::min(piece, std::max<int64_t>(1, behaviour_.failAt - at));
      data->respondWithData(bytes_.data() + at, static_cast<size_t>(piece));
      at += piece;
    }
    request->finishLoading();
    return true;
  }

  void didCancelLoadingRequest(ResourceLoader&, const std::shared_ptr<LoadingRequest>&) override {
    ++cancels_;
  }

  int requests() const { return requests_; }
  int cancels() const { return cancels_; }
  size_t size() const { return bytes_.size(); }

 private:
  const std::vector<uint8_t> bytes_;
  const Behaviour behaviour_;
  std::atomic<int> requests_{0};
  std::atomic<int> cancels_{0};
  std::atomic<bool> stopped_{false};
  std::mutex mutex_;
  std::vector<std::shared_ptr<LoadingRequest>> held_;
};

// Records what a player and its items report.
class PlayerRecorder {
 public:
  struct Event {
    std::string kind;  // "current", "end", "failedToEnd", "stalled", "status"
    std::shared_ptr<PlayerItem> item;
    std::shared_ptr<PlayerItem> oldItem;
    ErrorPtr error;
    PlayerItemStatus status = PlayerItemStatus::Unknown;
  };

  explicit PlayerRecorder(QueuePlayer& player)
      : queue_(DispatchQueue::create("io.sonorell.test.observer")) {
    tokens_.push_back(player.observeCurrentItem(
        queue_, [this](std::shared_ptr<PlayerItem> oldItem, std::shared_ptr<PlayerItem> newItem) {
          add({"current", newItem, oldItem, nullptr, PlayerItemStatus::Unknown});
        }));
  }

  void watch(const std::shared_ptr<PlayerItem>& item) {
    std::weak_ptr<PlayerItem> weak = item;
    tokens_.push_back(item->observeEvents(queue_, [this, weak](PlayerItemEvent event, ErrorPtr e) {
      const char* kind = event == PlayerItemEvent::DidPlayToEndTime        ? "end"
                         : event == PlayerItemEvent::FailedToPlayToEndTime ? "failedToEnd"
                                                                           : "stalled";
      add({kind, weak.lock(), nullptr, e, PlayerItemStatus::Unknown});
    }));
    tokens_.push_back(
        item->observeStatus(queue_, [this, weak](PlayerItemStatus, PlayerItemStatus s) {
          add({"status", weak.lock(), nullptr, nullptr, s});
        }));
  }

  std::vector<Event> events() const {
    std::lock_guard lock(mutex_);
    return events_;
  }
  size_t count(const std::string& kind) const {
    std::lock_guard lock(mutex_);
    return static_cast<size_t>(std::count_if(events_.begin(), events_.end(),
                                             [&](const Event& e) { return e.kind == kind; }));
  }
  // Real-time wait for GStreamer tests: until `count` events of `kind` arrived.
  bool waitFor(const std::string& kind, size_t n,
               std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, limit, [&] {
      return static_cast<size_t>(std::count_if(events_.begin(), events_.end(), [&](const Event& e) {
               return e.kind == kind;
             })) >= n;
    });
  }

 private:
  void add(Event event) {
    std::lock_guard lock(mutex_);
    events_.push_back(std::move(event));
    cv_.notify_all();
  }

  DispatchQueuePtr queue_;
  std::vector<ObservationToken> tokens_;
  mutable std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<Event> events_;
};

// An item whose bytes come from `delegate`, answered on its own queue.
inline std::shared_ptr<PlayerItem> makeItem(const std::string& url,
                                            const std::shared_ptr<ResourceLoaderDelegate>& delegate,
                                            const DispatchQueuePtr& queue) {
  auto item = PlayerItem::create(url);
  item->resourceLoader().setDelegate(delegate, queue);
  return item;
}

// A temp directory removed with the test.
class TempDir {
 public:
  TempDir() {
    path_ = std::filesystem::temp_directory_path() /
            ("sonorell-media-" + std::to_string(::getpid()) + "-" + std::to_string(counter()++));
    std::filesystem::create_directories(path_);
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  const std::filesystem::path& path() const { return path_; }

 private:
  static int& counter() {
    static int n = 0;
    return n;
  }
  std::filesystem::path path_;
};

}  // namespace sonorell::testing
