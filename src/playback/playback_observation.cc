// The playback engine's reactions to its player, the player's items and the audio session:
// chapter loaded, started, ended and failed, stalls waited out for a bounded time, retirement of
// finished items, unloading, interruptions, route changes and a reset of the media services.
#include <algorithm>
#include <utility>

#include "core/logging.h"
#include "core/notification_poster.h"
#include "model/playlist_manager.h"
#include "persistence/chapter_status.h"
#include "persistence/filesystem_helper.h"
#include "playback/playback_engine_core.h"
#include "playback/resource_loader_delegate.h"
#include "sonorell/notifications.h"
#include "sonorell/utils.h"

namespace sonorell {
namespace {

const char* yesNo(bool value) { return value ? "YES" : "NO"; }

Dictionary withContext(std::string_view key, uint64_t value) {
  Dictionary context;
  context.emplace(std::string(key), value);
  return context;
}

}  // namespace

std::string PlaybackEngineCore::describeItem(const ItemPtr& item) {
  return item ? "<PlayerItem " + item->url() + ">" : "(null)";
}

std::string PlaybackEngineCore::describeItems(const std::vector<ItemPtr>& items) {
  std::string text = "(";
  for (const auto& item : items) {
    if (text.size() > 1) text += ", ";
    text += describeItem(item);
  }
  return text + ")";
}

std::optional<QSOChapterDescription> PlaybackEngineCore::chapterDescriptionFromPlayerItem(
    const ItemPtr& item) {
  if (!item) return std::nullopt;
  std::string_view name = item->url();
  const auto scheme = QSOResourceLoaderDelegate::kURLScheme;
  if (name.starts_with(scheme)) name.remove_prefix(scheme.size());
  name = name.substr(0, name.find("///"));
  return FilesystemHelper::chapterDescription(name);
}

std::shared_ptr<QSOResourceLoaderDelegate> PlaybackEngineCore::delegateOf(const ItemPtr& item) {
  if (!item) return nullptr;
  return std::dynamic_pointer_cast<QSOResourceLoaderDelegate>(item->resourceLoader().delegate());
}

// ---- observers

void PlaybackEngineCore::addPlayerObservers(const std::shared_ptr<QueuePlayer>& player) {
  removePlayerObservers();
  std::weak_ptr<PlaybackEngineCore> weak = weak_from_this();
  auto token = player->observeCurrentItem(observerQueue_, [weak](ItemPtr oldItem, ItemPtr newItem) {
    if (auto self = weak.lock()) self->currentItemChanged(oldItem, newItem);
  });
  std::lock_guard lock(mutex_);
  currentItemObserver_ = std::move(token);
}

void PlaybackEngineCore::removePlayerObservers() {
  ObservationToken token;
  {
    std::lock_guard lock(mutex_);
    token = std::move(currentItemObserver_);
  }
  if (token) token->invalidate();
}

void PlaybackEngineCore::addItemObservers(const ItemPtr& item) {
  if (!item) return;
  {
    // Observed from its insertion on: re-registering would drop an event sent in between.
    std::lock_guard lock(mutex_);
    if (itemObservers_.count(item) != 0) return;
  }
  std::weak_ptr<PlaybackEngineCore> weak = weak_from_this();
  std::weak_ptr<PlayerItem> weakItem = item;
  std::vector<ObservationToken> tokens;
  tokens.push_back(item->observeStatus(
      observerQueue_, [weak, weakItem](PlayerItemStatus oldStatus, PlayerItemStatus newStatus) {
        auto self = weak.lock();
        auto observed = weakItem.lock();
        if (self && observed) self->itemStatusChanged(observed, oldStatus, newStatus);
      }));
  tokens.push_back(
      item->observeEvents(observerQueue_, [weak, weakItem](PlayerItemEvent event, ErrorPtr error) {
        auto self = weak.lock();
        auto observed = weakItem.lock();
        if (!self || !observed) return;
        switch (event) {
          case PlayerItemEvent::DidPlayToEndTime:
            self->handleEnd(observed);
            break;
          case PlayerItemEvent::FailedToPlayToEndTime:
            self->didNotReachEnd(observed, error);
            break;
          case PlayerItemEvent::PlaybackStalled:
            self->playbackStalled(observed);
            break;
        }
      }));
  std::lock_guard lock(mutex_);
  itemObservers_[item] = std::move(tokens);
}

void PlaybackEngineCore::removeItemObservers(const ItemPtr& item) {
  if (!item) return;
  std::vector<ObservationToken> tokens;
  {
    std::lock_guard lock(mutex_);
    auto it = itemObservers_.find(item);
    if (it == itemObservers_.end()) return;
    tokens = std::move(it->second);
    itemObservers_.erase(it);
  }
  for (auto& token : tokens) token->invalidate();
}

void PlaybackEngineCore::removeStartPlayingObserver(const std::shared_ptr<QueuePlayer>& player) {
  std::vector<ObservationToken> tokens;
  {
    std::lock_guard lock(mutex_);
    auto& records = playerObserversArray_;
    for (auto it = records.begin(); it != records.end();) {
      auto blockPlayer = it->blockPlayer.lock();
      if (blockPlayer == player || !blockPlayer) {
        tokens.push_back(std::move(it->startPlayingObserver));
        it = records.erase(it);
      } else {
        ++it;
      }
    }
  }
  for (auto& token : tokens) {
    if (token) token->invalidate();
  }
}

// ---- the current item

void PlaybackEngineCore::updateCurrentPlaying(const ItemPtr& item) {
  LogEngineInfo("[PlaybackEngine] -(void)updateCurrentPlaying: %@", describeItem(item));
  auto chapter = chapterDescriptionFromPlayerItem(item);
  if (!chapter) return;
  std::lock_guard lock(mutex_);
  currentAudiobookID_ = chapter->audiobookID();
  currentPartNumber_ = chapter->partNumber();
  currentChapterNumber_ = chapter->chapterNumber();
}

void PlaybackEngineCore::currentItemChanged(const ItemPtr& oldItem, const ItemPtr& newItem) {
  LogEngineInfo("[PlaybackEngine] current item changed from %@ to %@", describeItem(oldItem),
                describeItem(newItem));
  if (oldItem) QSORunOnMainThreadSync([&] { retireItem(oldItem); });
  if (!newItem) return;
  if (newItem->status() == PlayerItemStatus::Failed) {
    LogEngineError("[PlaybackEngine] loaded a chapter with a failed status and error: %@",
                   newItem->error());
    playerItemFailed(newItem);
    return;
  }
  std::optional<std::string> requestIdentifier;
  bool halted;
  uint64_t startOffset;
  bool autoplay;
  {
    std::lock_guard lock(mutex_);
    requestIdentifier = currentRequestIdentifier_;
    halted = haltCurrentPlayingUpdates_;
    startOffset = startOffset_;
    autoplay = shouldAutoplay_;
  }
  if (!requestIdentifier) {
    LogEngineInfo("[PlaybackEngine] No current request identifier");
    return;
  }
  if (halted) {
    LogEngineInfo("[PlaybackEngine] current playing updates are halted");
    return;
  }
  updateCurrentPlaying(newItem);
  sendChapterEvent(QSOPlaybackChapterLoadedNotification);
  playerSeekToTime(startOffset, autoplay);
  postBufferingStartIfNeeded();
  {
    std::lock_guard lock(mutex_);
    playbackStartedFlag_ = false;
    overrideAutoplay_ = false;
  }
  addItemObservers(newItem);

  auto player = streamingPlayer();
  if (!player) return;
  QSORunOnMainThreadSync([&] {
    removeStartPlayingObserver(player);
    if (playerStatus() == QSOPlayerStatusPaused) return;
    LogEngineInfo("PlaybackEngine] Register time observer for %@", describeItem(newItem));
    std::weak_ptr<PlaybackEngineCore> weak = weak_from_this();
    std::weak_ptr<QueuePlayer> weakPlayer = player;
    auto token = player->addPeriodicTimeObserver(
        MediaTime::make(1, 2), observerQueue_, [weak, weakPlayer](MediaTime time) {
          auto self = weak.lock();
          if (self && weakPlayer.lock() == self->streamingPlayer()) self->startPlayingTick(time);
        });
    std::lock_guard lock(mutex_);
    playerObserversArray_.push_back({player, token});
  });
  if (newItem->status() == PlayerItemStatus::ReadyToPlay) readyToPlay();
  // The player stops on the last chapter instead of emptying itself.
  const QSOChapterDescription current = currentChapter();
  const bool last =
      chapterAfter(current.partNumber(), current.chapterNumber()).kind == Neighbour::Kind::AtEnd;
  QSORunOnMainThreadSync(
      [&] { player->setActionAtItemEnd(last ? ActionAtItemEnd::None : ActionAtItemEnd::Advance); });
  onInput([requestIdentifier](PlaybackEngineCore& self) {
    self.refillAfterLastItem(*requestIdentifier);
  });
}

void PlaybackEngineCore::itemStatusChanged(const ItemPtr& item, PlayerItemStatus oldStatus,
                                           PlayerItemStatus newStatus) {
  LogEngineInfo("[PlaybackEngine] AudioItem Status Change Received: <%d -> %d>", oldStatus,
                newStatus);
  if (item != playerCurrentItem()) return;
  switch (newStatus) {
    case PlayerItemStatus::ReadyToPlay: {
      bool stalled;
      {
        std::lock_guard lock(mutex_);
        stalled = stalled_;
      }
      if (oldStatus != newStatus || stalled) readyToPlay();
      break;
    }
    case PlayerItemStatus::Failed:
      playerItemFailed(item);
      break;
    case PlayerItemStatus::Unknown: {
      {
        std::lock_guard lock(mutex_);
        haltCurrentPlayingUpdates_ = true;
      }
      removeItemObservers(item);
      sendFailure(22002, item->error());
      break;
    }
  }
}

void PlaybackEngineCore::readyToPlay() {
  updateCurrentPlaying(playerCurrentItem());
  bool stalled, started, autoplay;
  QSOPlayerStatus status;
  {
    std::lock_guard lock(mutex_);
    stalled = stalled_;
    started = playbackStartedFlag_;
    autoplay = shouldAutoplay_;
    status = playerStatus_;
  }
  if (stalled) {
    LogEngineInfo("[PlaybackEngine] Recovered from stall");
    endStall();
    internalResume();
    return;
  }
  if (started) return;
  if (status != QSOPlayerStatusPaused && autoplay) {
    internalResume();
  } else if (status == QSOPlayerStatusPaused) {
    LogEngineInfo("[PlaybackEngine] Not resuming on new chapter, player is currently paused");
    postBufferingEndIfNeeded();
    playerSetRate(0, false);
  }
}

void PlaybackEngineCore::startPlayingTick(MediaTime time) {
  std::optional<std::string> requestIdentifier;
  bool begin = false;
  bool mayStart;
  const double seconds = time.isNumeric() ? time.seconds() : 0;
  {
    std::lock_guard lock(mutex_);
    requestIdentifier = currentRequestIdentifier_;
    mayStart = shouldAutoplay_ || overrideAutoplay_;
    // While stalled the time stands still: only time past the stall shows playback again.
    const bool moving = !stalled_ || seconds > stallPosition_;
    if (seconds > static_cast<double>(startOffset_) && !playbackStartedFlag_ &&
        playerStatus_ != QSOPlayerStatusPaused && mayStart && moving) {
      playbackStartedFlag_ = true;
      begin = true;
    }
  }
  if (!requestIdentifier) {
    LogEngineInfo("PlaybackEngine] No current request identifier");
    onInput([](PlaybackEngineCore& self) { self.unloadWithReason(QSOPlaybackUnloadedReasonUser); });
    return;
  }
  if (begin) {
    LogEngineInfo("PlaybackEngine] Observer playback start");
    playbackStarted();
    endStall();
    startTimer(currentRate());
  } else if (seconds > static_cast<double>(startOffset()) && !mayStart) {
    postBufferingEndIfNeeded();
  }
}

uint64_t PlaybackEngineCore::startOffset() const {
  std::lock_guard lock(mutex_);
  return startOffset_;
}

void PlaybackEngineCore::playbackStarted() {
  auto delegate = delegateOf(playerCurrentItem());
  const bool streaming = delegate && delegate->isStreaming();
  const QSOChapterDescription chapter = currentChapter();
  const std::string license = licenseID();
  std::string token;
  if (streaming) {
    if (auto playlist = playlistManager_->getPlaylistForIdentifier(license, true)) {
      token = playlist->playlistToken();
    }
  } else if (auto record = QSOChapterStatus::fetchForChapterDescription(chapter)) {
    token = record->playlistToken();
  }
  {
    std::lock_guard lock(mutex_);
    streamingPlaybackActive_ = streaming;
    currentPlaylistToken_ = token;
  }
  if (streaming) {
    LogEngineInfo("[PlaybackEngine] Playback started streaming for (%lu, %lu). Recording token %@",
                  chapter.partNumber(), chapter.chapterNumber(), token);
  } else {
    LogEngineInfo("[PlaybackEngine] Playback started off disk for (%lu, %lu). Recording token %@",
                  chapter.partNumber(), chapter.chapterNumber(), token);
  }
  postBufferingEndIfNeeded();
  setStatus(QSOPlayerStatusPlaying);
  Dictionary context;
  context.emplace(std::string(QSOPlaybackStreamingUserInfoKey), streaming);
  sendChapterEvent(QSOPlaybackChapterStartedNotification, std::move(context));
  bool interrupted;
  {
    std::lock_guard lock(mutex_);
    interrupted = std::exchange(interruptionWhileLoading_, false);
  }
  if (interrupted) pauseForInterruption();
}

// ---- the end of a chapter

void PlaybackEngineCore::handleEnd(const ItemPtr& item) {
  setStatus(QSOPlayerStatusLoading);
  // The ended item's chapter: the player may already have moved on to the next one.
  const QSOChapterDescription ended =
      chapterDescriptionFromPlayerItem(item).value_or(currentChapter());
  const uint64_t seconds = durationSeconds(item);
  // A player that has moved on to the next item no longer knows where this one stopped.
  const uint64_t offset = playerCurrentItem() == item ? currentOffset() : seconds;
  LogEngineInfo("[PlaybackEngine] Chapter ended %@ (%ld/%ld)", ended.toString(), offset, seconds);
  if (offset < seconds) {
    // An item that reports its end is complete wherever it stopped.
    LogEngineVerbose(
        "[PlaybackEngine] Failed to reach end of chapter currentOffset: %d currentDuration: %d",
        offset, seconds);
  }
  std::optional<std::string> requestIdentifier;
  std::string sessionKey;
  {
    std::lock_guard lock(mutex_);
    startOffset_ = 0;
    interruptionOffset_ = 0;
    interruptionPause_ = false;
    requestIdentifier = currentRequestIdentifier_;
    sessionKey = currentSessionKey_;
  }
  sendChapterEvent(QSOPlaybackChapterCompleteNotification, {}, ended);
  const Neighbour next = chapterAfter(ended.partNumber(), ended.chapterNumber());
  if (next.kind == Neighbour::Kind::AtEnd) {
    sendAudiobookEvent(QSOPlaybackAudiobookCompleteNotification);
    unloadWithReason(QSOPlaybackUnloadedReasonAudiobookComplete);
    return;
  }
  // A chapter missing from the list is not the end of the book: go on without knowing the next.
  if (!requestIdentifier) return;
  onInput([item, next, requestIdentifier, sessionKey, ended](PlaybackEngineCore& self) {
    if (!self.isCurrentRequest(*requestIdentifier)) return;
    if (self.refillAfterLastItem(*requestIdentifier)) return;
    LogEngineWarning(
        "[PlaybackEngine] tried to append to the queue. There was nothing in it, even though "
        "something just went in.");
    if (!next.chapter) {
      self.sendFailure(22005, nullptr);
      return;
    }
    self.haltPlayer();
    LogEngineInfo("Emergency queue restart with chapter ending %@. requesting %@", ended.toString(),
                  next.chapter->toString());
    self.startRequest(next.chapter->audiobookID(), next.chapter->partNumber(),
                      next.chapter->chapterNumber(), 0, sessionKey, *requestIdentifier);
  });
}

// ---- failures

void PlaybackEngineCore::playerItemFailed(const ItemPtr& item) {
  {
    std::lock_guard lock(mutex_);
    haltCurrentPlayingUpdates_ = true;
  }
  ErrorPtr error = item->error();
  LogEngineError("[PlaybackEngine] Player item %@ failed with error: %@", describeItem(item),
                 error);
  removeItemObservers(item);
  int64_t code = 22003;
  if (error && error->code == kURLErrorUserAuthenticationRequired) {
    code = 23000;
  } else if (error && error->code == kURLErrorTimedOut) {
    code = 20007;
  } else if (auto delegate = delegateOf(item); delegate && delegate->loaderError()) {
    error = delegate->loaderError();
    code = error->code;
  }
  sendFailure(code, error, chapterDescriptionFromPlayerItem(item));
}

void PlaybackEngineCore::didNotReachEnd(const ItemPtr& item, const ErrorPtr& error) {
  LogEngineError("[PlaybackEngine] Player Item failed to play to the end (%ld/%ld): %@",
                 currentOffset(), currentDuration(), error);
  {
    std::lock_guard lock(mutex_);
    haltCurrentPlayingUpdates_ = true;
  }
  removeItemObservers(item);
  sendFailure(22004, error);
}

void PlaybackEngineCore::playbackStalled(const ItemPtr& item) {
  const std::string stallIdentifier = QSOUtils::generateUUID();
  auto player = streamingPlayer();
  const double position = player ? player->currentTime().seconds() : 0;
  uint64_t wait;
  {
    std::lock_guard lock(mutex_);
    currentStallIdentifier_ = stallIdentifier;
    stalled_ = true;
    stallPosition_ = position;
    wait = maxStallTime_;
    playerStatus_ = QSOPlayerStatusLoading;
    playbackStartedFlag_ = false;
  }
  LogEngineError(
      "[PlaybackEngine] current item stalled: keepup:%@ full:%@ empty:%@. Waiting %d seconds "
      "before failure",
      yesNo(item->isPlaybackLikelyToKeepUp()), yesNo(item->isPlaybackBufferFull()),
      yesNo(item->isPlaybackBufferEmpty()), wait);
  postBufferingStartIfNeeded();
  std::weak_ptr<PlaybackEngineCore> weak = weak_from_this();
  observerQueue_->after(std::chrono::seconds(wait), [weak, stallIdentifier] {
    if (auto self = weak.lock()) self->judgeStall(stallIdentifier);
  });
}

void PlaybackEngineCore::judgeStall(const std::string& stallIdentifier) {
  {
    std::lock_guard lock(mutex_);
    // A later stall, or the end of this one, made this judgement outdated.
    if (!stalled_ || currentStallIdentifier_ != stallIdentifier) return;
    haltCurrentPlayingUpdates_ = true;
    currentStallIdentifier_.reset();
  }
  sendFailure(22001, nullptr);
}

void PlaybackEngineCore::endStall() {
  std::lock_guard lock(mutex_);
  stalled_ = false;
  currentStallIdentifier_.reset();
}

// ---- retiring, halting, unloading

void PlaybackEngineCore::retireItem(const ItemPtr& item) {
  removeItemObservers(item);
  std::vector<ItemPtr> before, retired;
  std::vector<std::shared_ptr<QSOResourceLoaderDelegate>> delegatesBefore, released;
  std::optional<size_t> index;
  {
    std::lock_guard lock(mutex_);
    before = playerItemList_;
    delegatesBefore = delegateHolder_;
    auto at = std::find(playerItemList_.begin(), playerItemList_.end(), item);
    if (at != playerItemList_.end()) {
      index = static_cast<size_t>(at - playerItemList_.begin());
      // The item and every older one are done with.
      retired.assign(playerItemList_.begin(), at + 1);
      playerItemList_.erase(playerItemList_.begin(), at + 1);
      for (const auto& done : retired) {
        auto delegate = delegateOf(done);
        auto held = std::find(delegateHolder_.begin(), delegateHolder_.end(), delegate);
        if (delegate && held != delegateHolder_.end()) {
          released.push_back(delegate);
          delegateHolder_.erase(held);
        }
      }
    }
  }
  LogEngineVerbose("[PlaybackEngine] pre retirement item list %@", describeItems(before));
  LogEngineVerbose("[PlaybackEngine] pre retirement delegates %@", delegatesBefore.size());
  if (index) {
    LogEngineVerbose("Done with %@, removing from list at index %d (removes %d)",
                     describeItem(item), *index, *index + 1);
    for (const auto& done : retired) {
      LogEngineVerbose("removing item: %@", describeItem(done));
      removeItemObservers(done);
      auto delegate = delegateOf(done);
      if (std::find(released.begin(), released.end(), delegate) != released.end()) {
        LogEngineVerbose("[PlaybackEngine] removing old resource loader %@",
                         delegate->description());
      }
    }
  }
  LogEngineVerbose("[PlaybackEngine] post retirement delegates %@",
                   delegatesBefore.size() - released.size());
  LogEngineVerbose("[PlaybackEngine] post retirement player items %@",
                   before.size() - retired.size());
}

void PlaybackEngineCore::haltPlayer() {
  auto player = streamingPlayer();
  if (player) {
    QSORunOnMainThreadSync([&] {
      player->pause();
      removePlayerObservers();
      player->removeAllItems();
      removeStartPlayingObserver(player);
    });
  }
  std::map<ItemPtr, std::vector<ObservationToken>> itemObservers;
  std::vector<ItemPtr> items;
  std::vector<std::shared_ptr<QSOResourceLoaderDelegate>> delegates;
  {
    std::lock_guard lock(mutex_);
    if (streamingPlayer_ == player) streamingPlayer_.reset();
    // The items left the player with it; nothing will retire them.
    itemObservers.swap(itemObservers_);
    items.swap(playerItemList_);
    delegates.swap(delegateHolder_);
  }
  for (auto& [item, tokens] : itemObservers) {
    for (auto& token : tokens) token->invalidate();
  }
  stopTimer();
}

void PlaybackEngineCore::unloadWithReason(QSOPlaybackUnloadedReason reason) {
  {
    std::lock_guard lock(mutex_);
    interruptionOffset_ = 0;
    interruptionWhileLoading_ = false;
    streamingPlaybackActive_ = false;
    stalled_ = false;
    currentStallIdentifier_.reset();
    playerStatus_ = QSOPlayerStatusUnloaded;
    buffering_ = false;
  }
  onObserverSync([this] { haltPlayer(); });
  std::string audiobookID;
  {
    std::lock_guard lock(mutex_);
    audiobookID = std::exchange(currentAudiobookID_, "");
    currentPartNumber_ = 0;
    currentChapterNumber_ = 0;
    currentRequestIdentifier_.reset();
  }
  // The notification names the book that was unloaded.
  Dictionary info = QSONotificationPoster::prepareDictionaryWithAudiobookIdentifier(
      audiobookID, std::nullopt, kNoPlaybackError, nullptr);
  info.insert_or_assign(std::string(QSOPlaybackUnloadedReasonUserInfoKey),
                        static_cast<uint64_t>(reason));
  post(QSOPlaybackAudiobookUnloadedNotification, std::move(info));
}

// ---- the audio session

void PlaybackEngineCore::audioSessionEvent(const AudioSessionEvent& event) {
  switch (event.kind) {
    case AudioSessionEvent::Kind::Interruption:
      interruption(event);
      break;
    case AudioSessionEvent::Kind::RouteChange:
      routeChange(event);
      break;
    case AudioSessionEvent::Kind::MediaServicesReset:
      mediaServicesReset();
      break;
  }
}

void PlaybackEngineCore::interruption(const AudioSessionEvent& event) {
  const bool began = event.interruptionType == AudioSessionInterruptionType::Began;
  const bool suspended = event.wasSuspended.value_or(false);
  LogEngineInfo("[PlaybackEngine] Audio interrupt notification received (%@) (%@)",
                began ? "Begin" : "End", suspended ? "Yes" : "No");
  if (began) {
    if (suspended) return;
    {
      // A call that starts as a chapter loads would have it play unheard.
      std::lock_guard lock(mutex_);
      if (playerStatus_ == QSOPlayerStatusLoading) {
        interruptionWhileLoading_ = true;
        return;
      }
    }
    if (playerStatus() == QSOPlayerStatusPlaying) pauseForInterruption();
    return;
  }
  uint64_t offset;
  {
    std::lock_guard lock(mutex_);
    interruptionWhileLoading_ = false;
    // Only a pause made by the interruption is undone by its end.
    if (!interruptionPause_) return;
    offset = interruptionOffset_;
    interruptionPause_ = false;
    interruptionOffset_ = 0;
  }
  playerSeekToTimeTolerance(offset);
  if (activateAudioSessionOrFail()) {
    onInput([](PlaybackEngineCore& self) { self.doResume(); });
  }
}

void PlaybackEngineCore::pauseForInterruption() {
  const uint64_t offset = currentOffset();
  {
    std::lock_guard lock(mutex_);
    interruptionPause_ = true;
    interruptionOffset_ = offset;
    playerStatus_ = QSOPlayerStatusPaused;
  }
  sendChapterEvent(
      QSOPlaybackChapterPausedNotification,
      withContext(QSOPlaybackChapterPausedUserInfoKey, QSOPlaybackPausedContextInterruption));
  playerSetRate(0, false);
}

void PlaybackEngineCore::routeChange(const AudioSessionEvent& event) {
  LogEngineInfo("[PlaybackEngine] Audio Route Changed: %@ Reason: %d",
                "AVAudioSessionRouteChangeNotification", event.routeChangeReason);
  if (event.routeChangeReason != AudioSessionRouteChangeReason::OldDeviceUnavailable ||
      playerStatus() != QSOPlayerStatusPlaying) {
    return;
  }
  setStatus(QSOPlayerStatusPaused);
  sendChapterEvent(
      QSOPlaybackChapterPausedNotification,
      withContext(QSOPlaybackChapterPausedUserInfoKey, QSOPlaybackPausedContextRouteChange));
  // Our players do not stop by themselves when their device goes away.
  playerSetRate(0, false);
}

void PlaybackEngineCore::mediaServicesReset() {
  LogEngineWarning("[PlaybackEngine] The system reset the audio service (%@). Reallocating player",
                   "AVAudioSessionMediaServicesWereResetNotification");
  const uint64_t offset = currentOffset();
  std::string audiobookID, sessionKey, license;
  uint64_t part, chapter;
  {
    std::lock_guard lock(mutex_);
    audiobookID = currentAudiobookID_;
    part = currentPartNumber_;
    chapter = currentChapterNumber_;
    sessionKey = currentSessionKey_;
    license = currentLicenseID_;
  }
  playForAudiobookID(audiobookID, part, chapter, offset, sessionKey, license);
}

}  // namespace sonorell
