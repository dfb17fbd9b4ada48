// The deterministic backend: a QueuePlayer whose time runs on Clock::current() (a VirtualClock
// in tests). Items' bytes are still pulled through their loaders; an item is ready once its
// content length and first frame header are known, and its duration follows from them. Playback
// stalls where the received bytes end, fails where the loader fails, and reports an early end
// where the loader finished short. State is guarded by mutex_; updates run on queue_.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/dispatch/clock.h"
#include "platform/media/queue_player_base.h"
#include "platform/media/virtual/item_feed.h"

namespace sonorell {

class VirtualQueuePlayer : public QueuePlayerBase {
 public:
  // Supplies the delegate that serves a redirected item's bytes (there is no network here).
  // Without a resolver, or when it returns null, a redirected item fails.
  using RedirectResolver =
      std::function<std::shared_ptr<ResourceLoaderDelegate>(const HttpRedirect& redirect)>;

  static std::shared_ptr<VirtualQueuePlayer> create();
  ~VirtualQueuePlayer() override;

  void setRedirectResolver(RedirectResolver resolver);

  float rate() const override;
  void setRate(float rate) override;
  void seekToTime(MediaTime time, SeekCompletion completion) override;
  void seekToTime(MediaTime time, MediaTime toleranceBefore, MediaTime toleranceAfter,
                  SeekCompletion completion) override;
  MediaTime currentTime() const override;

 protected:
  void queueDidChange() override;

 private:
  struct Track {
    std::shared_ptr<VirtualItemFeed> feed;
    std::shared_ptr<ResourceLoaderDelegate> redirectDelegate;  // kept while the item is queued
    std::shared_ptr<ResourceLoader> redirectLoader;
  };
  struct PendingSeek {
    double seconds;
    SeekCompletion completion;
    DispatchQueuePtr replyQueue;  // where the completion runs: the caller's queue
  };

  VirtualQueuePlayer();
  std::shared_ptr<VirtualQueuePlayer> self();
  void scheduleUpdate();
  void update();
  void syncTracks(const std::vector<ItemPtr>& items);
  double mediaNowLocked(MonoTime now) const;
  void armTimerLocked(MonoTime deadline);
  void cancelTimerLocked();
  static void complete(PendingSeek seek, bool finished);

  const DispatchQueuePtr queue_;
  const std::shared_ptr<Clock> clock_;

  mutable std::mutex mutex_;
  RedirectResolver resolver_;
  std::map<ItemPtr, Track> tracks_;
  ItemPtr playing_;  // the item whose time the anchor describes
  float rate_ = 0.0f;
  double anchorMedia_ = 0;  // media seconds at anchorClock_
  MonoTime anchorClock_{};
  double limit_ = 0;  // media time cannot pass this until the next update
  bool stalled_ = false;
  bool ended_ = false;
  std::optional<PendingSeek> pendingSeek_;
  std::optional<Clock::TimerId> timer_;
};

}  // namespace sonorell
