#include "platform/media/virtual/virtual_queue_player.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "platform/media/media_errors.h"

namespace sonorell {
namespace {

constexpr double kEpsilon = 1e-6;
// Buffered media ahead of the playhead from which playback is likely to keep up.
constexpr double kKeepUpSeconds = 2.0;

double toSeconds(Duration d) { return std::chrono::duration<double>(d).count(); }

}  // namespace

std::shared_ptr<VirtualQueuePlayer> VirtualQueuePlayer::create() {
  return std::shared_ptr<VirtualQueuePlayer>(new VirtualQueuePlayer());
}

VirtualQueuePlayer::VirtualQueuePlayer()
    : queue_(DispatchQueue::create("io.sonorell.media.virtual")), clock_(Clock::current()) {
  anchorClock_ = clock_->now();
}

VirtualQueuePlayer::~VirtualQueuePlayer() {
  std::lock_guard lock(mutex_);
  cancelTimerLocked();
  for (auto& [item, track] : tracks_) track.feed->stop();
}

std::shared_ptr<VirtualQueuePlayer> VirtualQueuePlayer::self() {
  return std::static_pointer_cast<VirtualQueuePlayer>(shared_from_this());
}

void VirtualQueuePlayer::setRedirectResolver(RedirectResolver resolver) {
  std::lock_guard lock(mutex_);
  resolver_ = std::move(resolver);
}

void VirtualQueuePlayer::complete(PendingSeek seek, bool finished) {
  completeSeek(seek.replyQueue, std::move(seek.completion), finished);
}

void VirtualQueuePlayer::scheduleUpdate() {
  std::weak_ptr<QueuePlayerBase> weak = weak_from_this();
  queue_->async([weak] {
    if (auto strong = weak.lock()) static_cast<VirtualQueuePlayer*>(strong.get())->update();
  });
}

void VirtualQueuePlayer::queueDidChange() { scheduleUpdate(); }

float VirtualQueuePlayer::rate() const {
  std::lock_guard lock(mutex_);
  return rate_;
}

void VirtualQueuePlayer::setRate(float rate) {
  {
    std::lock_guard lock(mutex_);
    MonoTime now = clock_->now();
    anchorMedia_ = mediaNowLocked(now);
    anchorClock_ = now;
    rate_ = std::max(0.0f, rate);
    if (rate_ > 0) stalled_ = false;
  }
  scheduleUpdate();
}

void VirtualQueuePlayer::seekToTime(MediaTime time, SeekCompletion completion) {
  seekToTime(time, MediaTime::zero(), MediaTime::zero(), std::move(completion));
}

void VirtualQueuePlayer::seekToTime(MediaTime time, MediaTime, MediaTime,
                                    SeekCompletion completion) {
  PendingSeek seek{time.isNumeric() ? std::max(0.0, time.seconds()) : 0.0, std::move(completion),
                   seekCompletionQueue()};
  std::optional<PendingSeek> superseded;
  {
    std::lock_guard lock(mutex_);
    superseded = std::exchange(pendingSeek_, std::move(seek));
  }
  if (superseded) complete(std::move(*superseded), false);
  scheduleUpdate();
}

double VirtualQueuePlayer::mediaNowLocked(MonoTime now) const {
  if (!playing_ || rate_ <= 0 || stalled_ || ended_) return anchorMedia_;
  double media = anchorMedia_ + toSeconds(now - anchorClock_) * rate_;
  return std::min(media, limit_);
}

MediaTime VirtualQueuePlayer::currentTime() const {
  std::lock_guard lock(mutex_);
  if (!playing_) return MediaTime::zero();
  return MediaTime::fromSeconds(mediaNowLocked(clock_->now()));
}

void VirtualQueuePlayer::armTimerLocked(MonoTime deadline) {
  cancelTimerLocked();
  std::weak_ptr<QueuePlayerBase> weak = weak_from_this();
  timer_ = clock_->schedule(deadline, [weak] {
    if (auto strong = weak.lock()) static_cast<VirtualQueuePlayer*>(strong.get())->scheduleUpdate();
  });
}

void VirtualQueuePlayer::cancelTimerLocked() {
  if (timer_) clock_->cancel(*timer_);
  timer_.reset();
}

void VirtualQueuePlayer::syncTracks(const std::vector<ItemPtr>& items) {
  std::vector<std::shared_ptr<VirtualItemFeed>> toStart;
  std::vector<std::shared_ptr<VirtualItemFeed>> toStop;
  {
    std::lock_guard lock(mutex_);
    for (auto it = tracks_.begin(); it != tracks_.end();) {
      if (std::find(items.begin(), items.end(), it->first) == items.end()) {
        toStop.push_back(it->second.feed);
        it = tracks_.erase(it);
      } else {
        ++it;
      }
    }
    std::weak_ptr<QueuePlayerBase> weak = weak_from_this();
    for (const auto& item : items) {
      if (tracks_.count(item)) continue;
      auto feed = VirtualItemFeed::create(item->url(), item->resourceLoaderPtr(), [weak] {
        if (auto strong = weak.lock()) {
          static_cast<VirtualQueuePlayer*>(strong.get())->scheduleUpdate();
        }
      });
      tracks_[item].feed = feed;
      toStart.push_back(feed);
    }
  }
  for (const auto& feed : toStop) feed->stop();
  for (const auto& feed : toStart) feed->start(0);
}

void VirtualQueuePlayer::update() {
  std::vector<ItemPtr> items = this->items();
  syncTracks(items);
  ItemPtr current = items.empty() ? nullptr : items.front();
  const ActionAtItemEnd action = actionAtItemEnd();

  std::optional<PendingSeek> finishedSeek;
  std::optional<PendingSeek> droppedSeek;
  std::optional<PlayerItemEvent> event;
  ErrorPtr eventError;
  bool advance = false;
  std::shared_ptr<VirtualItemFeed> refeed;
  int64_t refeedOffset = 0;
  std::optional<HttpRedirect> redirect;
  RedirectResolver resolver;
  {
    std::lock_guard lock(mutex_);
    MonoTime now = clock_->now();
    if (current != playing_) {
      // A new current item starts at its beginning; a seek made for the old one is void.
      playing_ = current;
      anchorMedia_ = 0;
      anchorClock_ = now;
      limit_ = 0;
      stalled_ = ended_ = false;
      if (pendingSeek_ && !current) droppedSeek = std::move(pendingSeek_), pendingSeek_.reset();
    }
    // Queued items load ahead, as the current one does: their status and duration are known
    // before they play.
    for (auto& [queued, queuedTrack] : tracks_) {
      if (queued == current) continue;
      VirtualItemFeed::Snapshot s = queuedTrack.feed->snapshot();
      if (s.error) {
        PlayerItemControl::setStatus(*queued, PlayerItemStatus::Failed, s.error);
      } else if (s.info && s.audio && s.audio->bitrate > 0) {
        if (s.info->contentLength >= 0) {
          PlayerItemControl::setDuration(
              *queued, MediaTime::fromSeconds((s.info->contentLength - s.audio->dataOffset) * 8.0 /
                                              s.audio->bitrate));
        }
        PlayerItemControl::setStatus(*queued, PlayerItemStatus::ReadyToPlay);
      }
    }
    if (!current) {
      cancelTimerLocked();
    } else {
      Track& track = tracks_[current];
      VirtualItemFeed::Snapshot snap = track.feed->snapshot();
      if (snap.redirect) {
        redirect = snap.redirect;
        resolver = resolver_;
      }
      bool known = snap.info && snap.audio && snap.audio->bitrate > 0;
      double bytesPerSecond = known ? snap.audio->bitrate / 8.0 : 0;
      double duration = NAN;
      if (known && snap.info->contentLength >= 0) {
        duration = (snap.info->contentLength - snap.audio->dataOffset) / bytesPerSecond;
        PlayerItemControl::setDuration(*current, MediaTime::fromSeconds(duration));
      }
      auto timeAt = [&](int64_t byte) {
        return std::max(0.0, (byte - snap.audio->dataOffset) / bytesPerSecond);
      };
      if (snap.error) {
        PlayerItemControl::setStatus(*current, PlayerItemStatus::Failed, snap.error);
        cancelTimerLocked();
        anchorMedia_ = mediaNowLocked(now);
        anchorClock_ = now;
        ended_ = true;
      } else if (known) {
        PlayerItemControl::setStatus(*current, PlayerItemStatus::ReadyToPlay);
        double media = mediaNowLocked(now);
        if (pendingSeek_) {
          media = std::isnan(duration) ? pendingSeek_->seconds
                                       : std::min(pendingSeek_->seconds, duration);
          int64_t byte = snap.audio->dataOffset + static_cast<int64_t>(media * bytesPerSecond);
          if (byte < snap.rangeStart || byte > snap.rangeEnd) {
            refeed = track.feed;
            refeedOffset = byte;
            snap.rangeStart = snap.rangeEnd = byte;
            snap.complete = snap.endedEarly = false;
          }
          stalled_ = ended_ = false;
          finishedSeek = std::move(pendingSeek_);
          pendingSeek_.reset();
        }
        anchorMedia_ = media;
        anchorClock_ = now;
        double available =
            snap.complete && !std::isnan(duration) ? duration : timeAt(snap.rangeEnd);
        limit_ = std::isnan(duration) ? available : std::min(available, duration);
        bool complete = snap.complete;
        double ahead = available - media;
        PlayerItemControl::setBufferState(*current, complete || ahead > kKeepUpSeconds + kEpsilon,
                                          !complete && ahead <= kEpsilon, complete);
        cancelTimerLocked();
        if (rate_ > 0 && !ended_ && !stalled_) {
          if (media + kEpsilon >= limit_) {
            if (complete) {
              event = PlayerItemEvent::DidPlayToEndTime;
              if (action == ActionAtItemEnd::Advance) {
                advance = true;
              } else {
                ended_ = true;
                if (action == ActionAtItemEnd::Pause) rate_ = 0;
              }
            } else if (snap.endedEarly) {
              event = PlayerItemEvent::FailedToPlayToEndTime;
              eventError = Error::make(std::string(kMediaErrorDomain), kMediaErrorContentEndedEarly,
                                       "The content ended before its stated length", nullptr);
              ended_ = true;
              rate_ = 0;
            } else {
              // The playhead reached the end of the received bytes: the player stops and waits.
              event = PlayerItemEvent::PlaybackStalled;
              stalled_ = true;
              rate_ = 0;
            }
          } else {
            // Wake at the end of what is there, or earlier where keep-up turns false.
            double until = limit_ - media;
            if (!complete && ahead > kKeepUpSeconds + kEpsilon) {
              until = std::min(until, ahead - kKeepUpSeconds);
            }
            auto wait =
                std::chrono::duration_cast<Duration>(std::chrono::duration<double>(until / rate_));
            armTimerLocked(now + wait);
          }
        }
      }
    }
  }
  if (droppedSeek) complete(std::move(*droppedSeek), false);
  if (finishedSeek) complete(std::move(*finishedSeek), true);
  if (refeed) refeed->start(refeedOffset);
  if (redirect) {
    auto delegate = resolver ? resolver(*redirect) : nullptr;
    if (delegate) {
      auto loader = ResourceLoader::create();
      loader->setDelegate(delegate, current->resourceLoader().delegateQueue());
      std::shared_ptr<VirtualItemFeed> feed;
      {
        std::lock_guard lock(mutex_);
        Track& track = tracks_[current];
        track.redirectDelegate = delegate;
        track.redirectLoader = loader;
        feed = track.feed;
      }
      feed->switchLoader(loader);
    } else {
      PlayerItemControl::setStatus(
          *current, PlayerItemStatus::Failed,
          Error::make(std::string(kMediaErrorDomain), kMediaErrorNetworkReadFailed,
                      "No network source for the redirect to " + redirect->url, nullptr));
    }
  }
  if (event) PlayerItemControl::post(*current, *event, eventError);
  if (advance) {
    // Gapless: the next item starts where this one ended, at the same rate.
    dropEndedItem(current);
    scheduleUpdate();
  }
}

}  // namespace sonorell
