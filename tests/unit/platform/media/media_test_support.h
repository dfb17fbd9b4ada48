// Shared by the media tests: MP3 files made with GStreamer in a temp directory, a resource loader
// delegate that serves a file (and can stall, fail, end early or redirect), a recorder of player
// events, a capture of the platform log, and rounds of observers torn down while a player runs.
// The delegate runs on its own serial queue; the recorder guards its lists with its own mutex and
// lets real-time tests wait on a condition, never a sleep.
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
#include <string_view>
#include <utility>
#include <vector>

#include "platform/dispatch/dispatch_group.h"
#include "platform/log/platform_log.h"
#include "platform/media/player_item.h"
#include "platform/media/queue_player.h"
#include "platform/media/resource_loader.h"
#include "support/platform_log_lines.h"

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

// Serves a file's (or given) bytes to loading requests in 10 KiB pieces, or misbehaves as told.
// A stall holds the requests that reach it until release() answers them.
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
      : FileLoaderDelegate(readFile(path), std::move(behaviour)) {}
  FileLoaderDelegate(std::vector<uint8_t> bytes, Behaviour behaviour)
      : bytes_(std::move(bytes)), behaviour_(std::move(behaviour)), stallAt_(behaviour_.stallAt) {}

  // Answers the held requests on `queue` (the delegate's), serving up to `nextStallAt` (-1: to
  // the end) from now on.
  void release(const DispatchQueuePtr& queue, int64_t nextStallAt = -1) {
    queue->async([this, nextStallAt] {
      std::vector<std::shared_ptr<LoadingRequest>> held;
      {
        std::lock_guard lock(mutex_);
        stallAt_ = nextStallAt;
        held.swap(held_);
      }
      for (auto& request : held) serve(request);
    });
  }

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
    serve(request);
    return true;
  }

  void didCancelLoadingRequest(ResourceLoader&, const std::shared_ptr<LoadingRequest>&) override {
    ++cancels_;
  }

  // Answers from where the request got to (a released one resumes there).
  void serve(const std::shared_ptr<LoadingRequest>& request) {
    DataRequest* data = request->dataRequest();
    if (!data) {
      request->finishLoading();
      return;
    }
    const int64_t size = static_cast<int64_t>(bytes_.size());
    int64_t stallAt;
    {
      std::lock_guard lock(mutex_);
      stallAt = stallAt_;
    }
    int64_t end = std::min(data->requestedOffset() + data->requestedLength(), size);
    for (int64_t at = std::max(data->requestedOffset(), data->currentOffset()); at < end;) {
      if (behaviour_.failAt >= 0 && at >= behaviour_.failAt) {
        request->finishLoading(behaviour_.failError);
        return;
      }
      if (stallAt >= 0 && at >= stallAt) {
        std::lock_guard lock(mutex_);
        held_.push_back(request);  // answered by release(), if ever
        return;
      }
      int64_t piece = std::min<int64_t>(10240, end - at);
      if (stallAt >= 0) piece = std::min(piece, stallAt - at);
      if (behaviour_.failAt >= 0)
        piece = std::min(piece, std::max<int64_t>(1, behaviour_.failAt - at));
      data->respondWithData(bytes_.data() + at, static_cast<size_t>(piece));
      at += piece;
    }
    request->finishLoading();
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
  int64_t stallAt_;  // guarded by mutex_
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

  // The tokens go on their delivery queue, so no callback runs into a destroyed recorder.
  ~PlayerRecorder() {
    queue_->sync([this] { tokens_.clear(); });
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

// Rounds of an owner that watches a running player, then goes away. Each round a new owner
// observes the player's time every millisecond and its current item (beside a crowd of other
// observers of the current item) on a new queue, waits until it has heard both, and then, in
// one block on that queue, invalidates (even rounds) or drops (odd rounds) its tokens and
// deletes itself. A callback after that block would write into freed memory (AddressSanitizer
// reports it); it first checks a flag that outlives the owner and counts itself as late.
struct OwnerTeardownTally {
  std::atomic<int> late{0};
  std::atomic<long> ticks{0};
  std::atomic<long> changes{0};
  int roundsHeard = 0;
};

// `produce` runs once a round's observers are in place and again while their removal is under
// way (a test that changes the current item itself does it there, so that a notification races
// with the removal). Producers must stop before the tally is read.
inline std::shared_ptr<OwnerTeardownTally> runOwnerTeardownRounds(
    QueuePlayer& player, int rounds, const std::function<void()>& produce) {
  using ItemPtr = std::shared_ptr<PlayerItem>;
  // The state the callbacks write. Plain pointers on purpose: they are what a callback that runs
  // too late would reach.
  struct Owner {
    std::vector<double> times;
    std::vector<ItemPtr> items;
  };
  // Outlives the owner, so that a late callback can tell.
  struct RoundFlags {
    std::atomic<bool> ownerGone{false};
    bool ticked = false;  // on the round's queue
    bool changed = false;
    Semaphore heardBoth;
  };
  struct Tokens {
    ObservationToken time;
    ObservationToken current;
    std::vector<ObservationToken> crowd;
  };
  constexpr int kCrowd = 64;

  auto tally = std::make_shared<OwnerTeardownTally>();
  std::vector<std::shared_ptr<Tokens>> invalidatedTokens;  // kept alive: they must stay silent
  for (int i = 0; i < rounds; ++i) {
    auto queue = DispatchQueue::create("io.sonorell.test.owner");
    auto flags = std::make_shared<RoundFlags>();
    auto tokens = std::make_shared<Tokens>();
    auto* owner = new Owner();
    tokens->time = player.addPeriodicTimeObserver(
        MediaTime::make(1, 1000), queue, [flags, tally, owner](MediaTime time) {
          if (flags->ownerGone) {
            ++tally->late;
            return;
          }
          owner->times.push_back(time.seconds());
          ++tally->ticks;
          if (!std::exchange(flags->ticked, true) && flags->changed) flags->heardBoth.signal();
        });
    tokens->current =
        player.observeCurrentItem(queue, [flags, tally, owner](ItemPtr, ItemPtr newItem) {
          if (flags->ownerGone) {
            ++tally->late;
            return;
          }
          owner->items.push_back(std::move(newItem));
          ++tally->changes;
          if (!std::exchange(flags->changed, true) && flags->ticked) flags->heardBoth.signal();
        });
    // Observers added after the owner's keep notify() busy after queueing the owner's delivery,
    // which is when a token dropped on the queue could otherwise be outrun by that delivery.
    for (int k = 0; k < kCrowd; ++k) {
      tokens->crowd.push_back(player.observeCurrentItem(queue, [flags, tally](ItemPtr, ItemPtr) {
        if (flags->ownerGone) ++tally->late;
      }));
    }
    produce();
    if (!flags->heardBoth.wait(std::chrono::seconds(20))) {
      ADD_FAILURE() << "round " << i << " heard no tick and current-item change";
      queue->sync([&] {
        tokens.reset();
        delete owner;
      });
      break;
    }
    ++tally->roundsHeard;
    bool drop = i % 2 == 1;
    if (!drop) invalidatedTokens.push_back(tokens);
    Semaphore gone;
    queue->async([flags, tokens = std::move(tokens), owner, drop, &gone]() mutable {
      if (drop) {
        tokens.reset();
      } else {
        tokens->time->invalidate();
        tokens->current->invalidate();
        for (auto& token : tokens->crowd) token->invalidate();
      }
      flags->ownerGone = true;
      delete owner;
      gone.signal();
    });
    produce();
    gone.wait();
  }
  return tally;
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
