// One playable resource of a QueuePlayer: its URL, its resource loader, and what the player
// learns about it (status, error, duration, buffer flags), plus its events. Backends write that
// state through PlayerItemControl; observers hear of changes on the queues they name. Guarded by
// the item's own mutex; safe from any thread.
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "platform/media/media_time.h"
#include "platform/dispatch/observation.h"
#include "platform/media/resource_loader.h"
#include "sonorell/error.h"

namespace sonorell {

enum class PlayerItemStatus { Unknown = 0, ReadyToPlay = 1, Failed = 2 };

enum class PlayerItemEvent {
  DidPlayToEndTime,
  FailedToPlayToEndTime,  // comes with an error
  PlaybackStalled,
};

// TimeDomain keeps the pitch of speech at other rates; Varispeed lets pitch follow the rate.
enum class TimePitchAlgorithm { TimeDomain, Spectral, Varispeed };

class PlayerItem : public std::enable_shared_from_this<PlayerItem> {
 public:
  using StatusCallback =
      std::function<void(PlayerItemStatus oldStatus, PlayerItemStatus newStatus)>;
  using EventCallback = std::function<void(PlayerItemEvent event, ErrorPtr error)>;

  // Every byte of the item comes through resourceLoader(); the URL names the resource to it.
  static std::shared_ptr<PlayerItem> create(std::string url);

  const std::string& url() const { return url_; }
  ResourceLoader& resourceLoader() const { return *loader_; }
  std::shared_ptr<ResourceLoader> resourceLoaderPtr() const { return loader_; }

  PlayerItemStatus status() const;
  // Set when the status is Failed.
  ErrorPtr error() const;
  // Indefinite until the player knows it.
  MediaTime duration() const;
  bool isPlaybackLikelyToKeepUp() const;
  bool isPlaybackBufferEmpty() const;
  bool isPlaybackBufferFull() const;

  TimePitchAlgorithm audioTimePitchAlgorithm() const;
  void setAudioTimePitchAlgorithm(TimePitchAlgorithm algorithm);

  // Status changes, with old and new value, on `queue`. A null queue is refused (see
  // observation.h): the token never delivers.
  ObservationToken observeStatus(DispatchQueuePtr queue, StatusCallback callback);
  // Did-play-to-end, failed-to-play-to-end and stalled, on `queue` (required, as above).
  ObservationToken observeEvents(DispatchQueuePtr queue, EventCallback callback);

 private:
  friend class PlayerItemControl;
  explicit PlayerItem(std::string url);

  const std::string url_;
  const std::shared_ptr<ResourceLoader> loader_;
  ObserverList<PlayerItemStatus, PlayerItemStatus> statusObservers_;
  ObserverList<PlayerItemEvent, ErrorPtr> eventObservers_;

  mutable std::mutex mutex_;
  PlayerItemStatus status_ = PlayerItemStatus::Unknown;
  ErrorPtr error_;
  MediaTime duration_ = MediaTime::indefinite();
  bool likelyToKeepUp_ = false;
  bool bufferEmpty_ = true;
  bool bufferFull_ = false;
  TimePitchAlgorithm pitch_ = TimePitchAlgorithm::TimeDomain;
  const void* owner_ = nullptr;  // the player the item was inserted into, if any
};

// The backends' write access to items. Not for engine code.
class PlayerItemControl {
 public:
  // Notifies status observers when the status changes; a Failed status keeps the first error.
  static void setStatus(PlayerItem& item, PlayerItemStatus status, ErrorPtr error = nullptr);
  static void setDuration(PlayerItem& item, MediaTime duration);
  static void setBufferState(PlayerItem& item, bool likelyToKeepUp, bool bufferEmpty,
                             bool bufferFull);
  static void post(PlayerItem& item, PlayerItemEvent event, ErrorPtr error = nullptr);
  // An item belongs to at most one player; false when another player holds it.
  static bool claim(PlayerItem& item, const void* player);
  static void release(PlayerItem& item, const void* player);
  static bool isOwnedBy(const PlayerItem& item, const void* player);
};

}  // namespace sonorell
