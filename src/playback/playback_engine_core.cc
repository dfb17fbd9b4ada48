// The playback engine's construction, settings, queries, notifications, progress timer and the
// player operations the requests and the observation share.
#include "playback/playback_engine_core.h"

#include <cmath>
#include <limits>

#include "analytics/listen_event_error.h"
#include "analytics/listen_event_handler.h"
#include "core/logging.h"
#include "core/notification_poster.h"
#include "model/playlist_manager.h"
#include "playback/resource_loader_delegate.h"
#include "playback/streaming_url_manager.h"
#include "sonorell/notifications.h"
#include "sonorell/utils.h"

namespace sonorell {
namespace {

// Case-insensitive "starts with".
bool beginsWith(const std::string& text, std::string_view prefix) {
  if (text.size() < prefix.size()) return false;
  for (size_t i = 0; i < prefix.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(text[i])) !=
        std::tolower(static_cast<unsigned char>(prefix[i]))) {
      return false;
    }
  }
  return true;
}

}  // namespace

std::shared_ptr<PlaybackEngineCore> PlaybackEngineCore::create(ServicesPtr services) {
  std::shared_ptr<PlaybackEngineCore> core(new PlaybackEngineCore(std::move(services)));
  core->observeAudioSession();
  return core;
}

PlaybackEngineCore::PlaybackEngineCore(ServicesPtr services)
    : services_(std::move(services)),
      inputQueue_(DispatchQueue::create("io.sonorell.playbackengine.input")),
      observerQueue_(DispatchQueue::create("io.sonorell.playbackengine.observer")),
      resourceLoaderQueue_(DispatchQueue::create("io.sonorell.playbackengine.resourceloader")),
      playlistManager_(QSOPlaylistManager::sharedManager()) {}

PlaybackEngineCore::~PlaybackEngineCore() {
  if (audioSessionToken_) audioSessionToken_->invalidate();
  std::shared_ptr<DispatchTimer> timer;
  std::shared_ptr<QueuePlayer> player;
  {
    std::lock_guard lock(mutex_);
    timer = std::move(offsetUpdateTimer_);
    player = std::move(streamingPlayer_);
  }
  if (timer) timer->cancel();
  if (player) player->pause();
}

void PlaybackEngineCore::observeAudioSession() {
  if (!services_->audioSession) return;
  std::weak_ptr<PlaybackEngineCore> weak = weak_from_this();
  audioSessionToken_ =
      services_->audioSession->observe(observerQueue_, [weak](const AudioSessionEvent& event) {
        if (auto self = weak.lock()) self->audioSessionEvent(event);
      });
}

// ---- settings

bool PlaybackEngineCore::wifiOnly() const {
  std::lock_guard lock(mutex_);
  return wifiOnly_;
}
void PlaybackEngineCore::setWifiOnly(bool wifiOnly) {
  std::lock_guard lock(mutex_);
  wifiOnly_ = wifiOnly;
}
bool PlaybackEngineCore::shouldAutoplay() const {
  std::lock_guard lock(mutex_);
  return shouldAutoplay_;
}
void PlaybackEngineCore::setShouldAutoplay(bool shouldAutoplay) {
  std::lock_guard lock(mutex_);
  shouldAutoplay_ = shouldAutoplay;
}
uint64_t PlaybackEngineCore::maxStallTime() const {
  std::lock_guard lock(mutex_);
  return maxStallTime_;
}
void PlaybackEngineCore::setMaxStallTime(uint64_t seconds) {
  std::lock_guard lock(mutex_);
  maxStallTime_ = seconds;
}
uint64_t PlaybackEngineCore::stallRecoveryPlan() const {
  std::lock_guard lock(mutex_);
  return stallRecoveryPlan_;
}
void PlaybackEngineCore::setStallRecoveryPlan(uint64_t plan) {
  std::lock_guard lock(mutex_);
  stallRecoveryPlan_ = plan;
}
void PlaybackEngineCore::setHostBundleIdentifier(const std::string& identifier) {
  std::lock_guard lock(mutex_);
  hostBundleIdentifier_ = identifier;
}
void PlaybackEngineCore::setUnrecordedHostBundleIdentifier(const std::string& identifier) {
  std::lock_guard lock(mutex_);
  unrecordedHostBundleIdentifier_ = identifier;
}
void PlaybackEngineCore::setListenEventHandler(std::shared_ptr<QLListenEventHandler> handler) {
  std::lock_guard lock(mutex_);
  listenEventHandler_ = std::move(handler);
}

// ---- queries

uint64_t PlaybackEngineCore::currentOffset() const {
  auto player = streamingPlayer();
  if (!player) return 0;
  const MediaTime time = player->currentTime();
  switch (time.kind) {
    case MediaTime::Kind::Invalid:
      LogEngineWarning("[PlaybackEngine] player time invalid");
      return 0;
    case MediaTime::Kind::Indefinite:
      LogEngineWarning("[PlaybackEngine] player time indefinite");
      return 0;
    case MediaTime::Kind::PositiveInfinity:
      LogEngineWarning("[PlaybackEngine] player time +infinite");
      return 0;
    case MediaTime::Kind::NegativeInfinity:
      LogEngineWarning("[PlaybackEngine] player time -infinite");
      return 0;
    case MediaTime::Kind::Numeric:
      break;
  }
  const double seconds = time.seconds();
  return seconds > 0 ? static_cast<uint64_t>(seconds) : 0;
}

uint64_t PlaybackEngineCore::currentDuration() const {
  return durationSeconds(playerCurrentItem());
}

uint64_t PlaybackEngineCore::durationSeconds(const ItemPtr& item) {
  const MediaTime duration = item ? item->duration() : MediaTime::invalid();
  if (!duration.isNumeric() || duration.value < 0) return 0;
  return static_cast<uint64_t>(duration.value / duration.timescale);
}

bool PlaybackEngineCore::isStreaming() const {
  std::lock_guard lock(mutex_);
  return streamingPlaybackActive_;
}

std::optional<QSOChapterDescription> PlaybackEngineCore::currentLoadedChapter() const {
  std::lock_guard lock(mutex_);
  if (playerStatus_ == QSOPlayerStatusUnloaded) return std::nullopt;
  return QSOChapterDescription(currentAudiobookID_, currentPartNumber_, currentChapterNumber_);
}

QSOChapterDescription PlaybackEngineCore::currentChapter() const {
  std::lock_guard lock(mutex_);
  return QSOChapterDescription(currentAudiobookID_, currentPartNumber_, currentChapterNumber_);
}

QSOPlayerStatus PlaybackEngineCore::playerStatus() const {
  std::lock_guard lock(mutex_);
  return playerStatus_;
}

float PlaybackEngineCore::currentRate() const {
  std::lock_guard lock(mutex_);
  return currentRate_;
}

std::shared_ptr<QueuePlayer> PlaybackEngineCore::streamingPlayer() const {
  std::lock_guard lock(mutex_);
  return streamingPlayer_;
}

void PlaybackEngineCore::setStatus(QSOPlayerStatus status) {
  std::lock_guard lock(mutex_);
  playerStatus_ = status;
}

std::string PlaybackEngineCore::licenseID() const {
  std::lock_guard lock(mutex_);
  return currentLicenseID_;
}

std::optional<std::string> PlaybackEngineCore::requestIdentifier() const {
  std::lock_guard lock(mutex_);
  return currentRequestIdentifier_;
}

bool PlaybackEngineCore::isCurrentRequest(const std::string& requestIdentifier) const {
  std::lock_guard lock(mutex_);
  return currentRequestIdentifier_ == requestIdentifier;
}

std::shared_ptr<QSOStreamingURLManager> PlaybackEngineCore::streamingURLs() const {
  return QSOStreamingURLManager::sharedManager();
}

// ---- notifications

void PlaybackEngineCore::post(std::string_view name, Dictionary userInfo) {
  QSONotificationPoster::sharedPoster()->postNotificationWithName(name, std::move(userInfo));
}

void PlaybackEngineCore::sendChapterEvent(std::string_view name, Dictionary context,
                                          std::optional<QSOChapterDescription> chapter) {
  Dictionary info = QSONotificationPoster::prepareDictionaryWithChapterDescription(
      chapter ? chapter : currentChapter(), std::nullopt, kNoPlaybackError, nullptr);
  for (auto& [key, value] : context) info.insert_or_assign(key, std::move(value));
  post(name, std::move(info));
}

void PlaybackEngineCore::sendAudiobookEvent(std::string_view name, Dictionary context) {
  std::string audiobookID;
  {
    std::lock_guard lock(mutex_);
    audiobookID = currentAudiobookID_;
  }
  Dictionary info = QSONotificationPoster::prepareDictionaryWithAudiobookIdentifier(
      audiobookID, std::nullopt, kNoPlaybackError, nullptr);
  for (auto& [key, value] : context) info.insert_or_assign(key, std::move(value));
  post(name, std::move(info));
}

void PlaybackEngineCore::sendFailure(int64_t code, const ErrorPtr& error,
                                     std::optional<QSOChapterDescription> chapter) {
  if (!chapter) chapter = currentChapter();
  post(QSOPlaybackChapterFailedNotification,
       QSONotificationPoster::transformPlaybackDictErrorWithChapterDescription(
           chapter, std::string(QSOPlaybackEngine::descriptionForErrorCode(code)), code, error));
  // Every failure ends the playback; the host has to ask again.
  onInput([code](PlaybackEngineCore& self) {
    if (code == 24001) {
      LogEngineError(
          "[PlaybackEngine] Unloading because the error occuring was the player item loaded was "
          "unknown.");
    }
    self.unloadWithReason(QSOPlaybackUnloadedReasonFailure);
  });
}

void PlaybackEngineCore::postBufferingStartIfNeeded() {
  {
    std::lock_guard lock(mutex_);
    if (buffering_) return;
    buffering_ = true;
  }
  sendChapterEvent(QSOPlaybackBufferingStartNotification);
}

void PlaybackEngineCore::postBufferingEndIfNeeded() {
  {
    std::lock_guard lock(mutex_);
    if (!buffering_) return;
    buffering_ = false;
  }
  sendChapterEvent(QSOPlaybackBufferingEndNotification);
}

// ---- queues

void PlaybackEngineCore::onInput(std::function<void(PlaybackEngineCore&)> block) {
  std::weak_ptr<PlaybackEngineCore> weak = weak_from_this();
  inputQueue_->async([weak, block = std::move(block)] {
    if (auto self = weak.lock()) block(*self);
  });
}

void PlaybackEngineCore::onObserver(std::function<void(PlaybackEngineCore&)> block) {
  std::weak_ptr<PlaybackEngineCore> weak = weak_from_this();
  observerQueue_->async([weak, block = std::move(block)] {
    if (auto self = weak.lock()) block(*self);
  });
}

void PlaybackEngineCore::onObserverSync(const std::function<void()>& block) {
  if (observerQueue_->isCurrent()) {
    block();
  } else {
    observerQueue_->sync(block);
  }
}

// ---- progress and listening

void PlaybackEngineCore::startTimer(float rate) {
  stopTimer();
  // One tick per second of content, whatever the rate.
  const double interval = 1.0 / (rate > 0 ? rate : 1.0f);
  std::weak_ptr<PlaybackEngineCore> weak = weak_from_this();
  auto tick = [weak] {
    if (auto self = weak.lock())
      self->onObserver([](PlaybackEngineCore& s) { s.monitorPlayback(); });
  };
  auto timer = DispatchTimer::create(
      DispatchQueue::main(),
      std::chrono::duration_cast<Duration>(std::chrono::duration<double>(interval)),
      std::chrono::milliseconds(0), tick);
  {
    std::lock_guard lock(mutex_);
    offsetUpdateTimer_ = timer;
  }
  DispatchQueue::main()->async([tick, timer] {
    if (timer->isCancelled()) return;
    tick();
    timer->resume();
  });
}

void PlaybackEngineCore::stopTimer() {
  std::shared_ptr<DispatchTimer> timer;
  {
    std::lock_guard lock(mutex_);
    timer = std::move(offsetUpdateTimer_);
  }
  if (timer) timer->cancel();
}

void PlaybackEngineCore::monitorPlayback() {
  const uint64_t offset = currentOffset();
  if (playerStatus() == QSOPlayerStatusPlaying) {
    recordListening(offset);
    Dictionary context;
    context.emplace(std::string(QSOCurrentOffsetUserInfoKey), offset);
    sendChapterEvent(QSOPlaybackProgressUpdateNotification, std::move(context));
  }
  bool stalled;
  uint64_t plan;
  {
    std::lock_guard lock(mutex_);
    stalled = stalled_;
    plan = stallRecoveryPlan_;
  }
  if (!stalled) return;
  auto item = playerCurrentItem();
  if (!item) return;
  if ((plan == 1 && item->isPlaybackLikelyToKeepUp()) ||
      (plan == 2 && !item->isPlaybackBufferEmpty())) {
    LogEngineInfo("[PlaybackEngine] Recovered from stall");
    endStall();
    internalResume();
  }
}

void PlaybackEngineCore::recordListening(uint64_t offset) {
  std::shared_ptr<QLListenEventHandler> handler;
  uint64_t part, chapter;
  std::string sessionKey, token, audiobookID;
  float rate;
  {
    std::lock_guard lock(mutex_);
    if (!unrecordedHostBundleIdentifier_.empty() &&
        hostBundleIdentifier_ == unrecordedHostBundleIdentifier_) {
      return;
    }
    if (!listenEventHandler_) listenEventHandler_ = QLListenEventHandler::sharedHandler();
    handler = listenEventHandler_;
    audiobookID = currentAudiobookID_;
    part = currentPartNumber_;
    chapter = currentChapterNumber_;
    sessionKey = currentSessionKey_;
    token = currentPlaylistToken_;
    rate = currentRate_;
  }
  const QSOListeningMethod method = listeningMethod();
  try {
    handler->updateListenEvent(chapter, part, sessionKey, token, offset, rate, method);
  } catch (const QLInvalidListenEventArgument&) {
    Dictionary info;
    info.emplace(std::string(QSOFailedListenEventUserInfoKey),
                 stringWithFormat(
                     "File: %@ Session: %@ Token: %@ Offset: %lu Rate: %f Listening Method: %lu",
                     QSOChapterDescription(audiobookID, part, chapter).toString(), sessionKey,
                     token, offset, rate, static_cast<uint64_t>(method)));
    post(QSOListenEventFailureNotification, std::move(info));
    LogEngineError(
        "[PlaybackEngine] Attempted to log an invalid listen event update with the "
        "ListenEventHandler");
  }
}

QSOListeningMethod PlaybackEngineCore::listeningMethodForPortType(const std::string& portType) {
  if (portType == QSOAudioPortBuiltInSpeaker) return QSOListeningMethodSpeaker;
  if (portType == QSOAudioPortHeadphones) return QSOListeningMethodHeadphones;
  // Only a type that begins with "Bluetooth" counts as Bluetooth.
  if (beginsWith(portType, "Bluetooth")) return QSOListeningMethodBluetooth;
  return QSOListeningMethodOther;
}

QSOListeningMethod PlaybackEngineCore::listeningMethod() const {
  if (!services_->audioSession) return QSOListeningMethodOther;
  const AudioSessionRoute route = services_->audioSession->currentRoute();
  const std::string portType = route.outputs.empty() ? "" : route.outputs.front().portType;
  return listeningMethodForPortType(portType);
}

// ---- player operations

void PlaybackEngineCore::playerSetRate(float rate, bool notify) {
  auto player = streamingPlayer();
  std::weak_ptr<PlaybackEngineCore> weak = weak_from_this();
  DispatchQueue::main()->async([weak, player, rate, notify] {
    if (player) player->setRate(rate);
    if (!notify) return;
    if (auto self = weak.lock()) {
      Dictionary info;
      info.emplace(std::string(QSOPlaybackCurrentRateUserInfoKey), static_cast<double>(rate));
      self->post(QSOPlaybackRateCompletedNotification, std::move(info));
    }
  });
}

void PlaybackEngineCore::playerSeekToTime(uint64_t seconds, bool shouldStart) {
  auto player = streamingPlayer();
  if (!player) return;
  std::weak_ptr<PlaybackEngineCore> weak = weak_from_this();
  DispatchQueue::main()->async([weak, player, seconds, shouldStart] {
    player->setRate(0);
    if (!player->currentItem()) {
      LogEngineWarning("[PlaybackEngine] Cannnot seek if player item is not ready to play");
      return;
    }
    // The completion runs here, on the main queue.
    player->seekToTime(MediaTime::make(static_cast<int64_t>(seconds), 1),
                       [weak, player, shouldStart](bool) {
                         auto self = weak.lock();
                         if (!self) return;
                         float rate;
                         bool start;
                         {
                           std::lock_guard lock(self->mutex_);
                           rate = self->currentRate_;
                           start = self->playerStatus_ != QSOPlayerStatusPaused && shouldStart;
                           if (!start) self->playerStatus_ = QSOPlayerStatusPaused;
                         }
                         if (start) player->setRate(rate);
                         self->sendChapterEvent(QSOPlaybackChapterOffsetCompletedNotification);
                       });
  });
}

void PlaybackEngineCore::playerSeekToTimeTolerance(uint64_t seconds) {
  auto player = streamingPlayer();
  if (!player) return;
  DispatchQueue::main()->async([player, seconds] {
    player->seekToTime(MediaTime::make(static_cast<int64_t>(seconds), 1), MediaTime::make(1, 2),
                       MediaTime::make(1, 2), nullptr);
  });
}

void PlaybackEngineCore::internalResume() {
  LogEngineInfo("[PlaybackEngine] Play audio");
  auto player = streamingPlayer();
  if (!player || player->items().empty()) {
    LogEngineInfo("[PlaybackEngine] Internal Resume, nothing to play");
    return;
  }
  if (!activateAudioSessionOrFail()) return;
  playerSetRate(currentRate(), false);
}

ErrorPtr PlaybackEngineCore::activateAudioSession() {
  auto session = services_->audioSession;
  if (!session) return nullptr;
  if (auto error =
          session->setCategory(kAudioSessionCategoryPlayback, kAudioSessionModeSpokenAudio, 0)) {
    return error;
  }
  return session->setActive(true);
}

bool PlaybackEngineCore::activateAudioSessionOrFail() {
  if (auto error = activateAudioSession()) {
    sendFailure(26000, error);
    return false;
  }
  return true;
}

std::vector<PlaybackEngineCore::ItemPtr> PlaybackEngineCore::playerItems() const {
  auto player = streamingPlayer();
  return player ? player->items() : std::vector<ItemPtr>{};
}

PlaybackEngineCore::ItemPtr PlaybackEngineCore::playerCurrentItem() const {
  auto player = streamingPlayer();
  return player ? player->currentItem() : nullptr;
}

}  // namespace sonorell
