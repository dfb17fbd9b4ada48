// The playback engine's requests: play, the decision disk / cached playlist / streaming URL, the
// player's queue of the current chapter and the two after it, the chapter list and its
// neighbours, and the host's commands (resume, pause, next, previous, seek, rate, unload).
#include <algorithm>

#include "core/logging.h"
#include "model/playlist_manager.h"
#include "persistence/chapter_status.h"
#include "persistence/filesystem_helper.h"
#include "playback/playback_engine_core.h"
#include "playback/resource_loader_delegate.h"
#include "playback/streaming_url_manager.h"
#include "sonorell/download_status.h"
#include "sonorell/notifications.h"
#include "sonorell/utils.h"

namespace sonorell {
namespace {

bool valid(const std::string& text) { return QSOUtils::validateStringParam(&text); }

std::string chapterURL(const QSOChapterDescription& chapter) {
  return std::string(QSOResourceLoaderDelegate::kURLScheme) + FilesystemHelper::filename(chapter);
}

std::string describeList(const std::vector<QSOChapterDescription>& list) {
  std::string text = "(";
  for (const auto& chapter : list) {
    if (text.size() > 1) text += ", ";
    text += chapter.toString();
  }
  return text + ")";
}

}  // namespace

// ---- commands

void PlaybackEngineCore::playForAudiobookID(const std::string& audiobookID, uint64_t part,
                                            uint64_t chapter, uint64_t offset,
                                            const std::string& sessionKey,
                                            const std::string& licenseID) {
  LogEngineInfo(
      "[PlaybackEngine] -(void)playForAudiobookID:[%@] partNumber:[%d] chapterNumber:[%d] "
      "offset:[%ld] sessionKey:[%@] licenseID:[%@]",
      audiobookID, part, chapter, offset, sessionKey, licenseID);
  // The session key is checked first: without one nothing can be played, not even from disk.
  if (!valid(sessionKey)) {
    LogEngineError(
        "[PlaybackEngine] Failure Playing - AudiobookID %@ - Part %d Chapter %d due to invalid "
        "sessionKey:[%@]",
        audiobookID, part, chapter, sessionKey);
    return;
  }
  if (!valid(audiobookID)) {
    LogEngineError("[PlaybackEngine] Failure Playing - AudiobookID is invalid nil or empty");
    return;
  }
  onInput([=](PlaybackEngineCore& self) {
    self.unloadWithReason(QSOPlaybackUnloadedReasonNewRequest);
    const std::string requestIdentifier = QSOUtils::generateUUID();
    {
      std::lock_guard lock(self.mutex_);
      self.currentRequestIdentifier_ = requestIdentifier;
      self.haltCurrentPlayingUpdates_ = false;
      self.currentLicenseID_ = licenseID;
    }
    self.startRequest(audiobookID, part, chapter, offset, sessionKey, requestIdentifier);
  });
}

void PlaybackEngineCore::resume() {
  LogEngineInfo("[PlaybackEngine] -(void)resume");
  onInput([](PlaybackEngineCore& self) { self.doResume(); });
}

void PlaybackEngineCore::pause() {
  LogEngineInfo("[PlaybackEngine] -(void)pause");
  onInput([](PlaybackEngineCore& self) { self.doPause(); });
}

void PlaybackEngineCore::nextChapter() {
  LogEngineInfo("[PlaybackEngine] -(void)nextChapter");
  onInput([](PlaybackEngineCore& self) { self.doNextChapter(); });
}

void PlaybackEngineCore::previousChapter() {
  LogEngineInfo("[PlaybackEngine] -(void)previousChapter");
  onInput([](PlaybackEngineCore& self) { self.doPreviousChapter(); });
}

void PlaybackEngineCore::unload() {
  LogEngineInfo("[PlaybackEngine] -(void)unload");
  onInput([](PlaybackEngineCore& self) {
    self.playlistManager_->removePlaylistForIdentifier(self.licenseID());
    self.unloadWithReason(QSOPlaybackUnloadedReasonUser);
  });
}

void PlaybackEngineCore::setCurrentOffset(uint64_t offset) {
  LogEngineInfo("[PlaybackEngine] -(void)setCurrentOffset:[%ld]", offset);
  onInput([offset](PlaybackEngineCore& self) { self.doSetCurrentOffset(offset); });
}

void PlaybackEngineCore::setCurrentRate(float rate) {
  LogEngineInfo("[PlaybackEngine] -(void)setCurrentRate:[%f]", rate);
  onInput([rate](PlaybackEngineCore& self) {
    bool timerRunning;
    QSOPlayerStatus status;
    {
      std::lock_guard lock(self.mutex_);
      self.currentRate_ = rate;
      timerRunning = self.offsetUpdateTimer_ != nullptr;
      status = self.playerStatus_;
    }
    // Without a loaded chapter there is nothing to tick for; the next load starts the timer.
    if (timerRunning) self.startTimer(rate);
    if (status == QSOPlayerStatusPlaying) self.playerSetRate(rate, true);
  });
}

// ---- a request

void PlaybackEngineCore::startRequest(const std::string& audiobookID, uint64_t part,
                                      uint64_t chapter, uint64_t offset,
                                      const std::string& sessionKey,
                                      const std::string& requestIdentifier) {
  std::string license;
  {
    std::lock_guard lock(mutex_);
    currentSessionKey_ = sessionKey;
    currentAudiobookID_ = audiobookID;
    currentPartNumber_ = part;
    currentChapterNumber_ = chapter;
    interruptionOffset_ = 0;
    playerStatus_ = QSOPlayerStatusLoading;
    license = currentLicenseID_;
  }
  LogEngineInfo("[PlaybackEngine] Attempting Playback");
  const QSOChapterDescription description(audiobookID, part, chapter);
  const auto record = QSOChapterStatus::fetchForChapterDescription(description);
  const uint64_t downloadStatus = record ? record->downloadStatus() : DownloadStatusNotDownloaded;
  const bool keyValid = valid(sessionKey);
  if (!keyValid) {
    LogEngineWarning(
        "[PlaybackEngine] Invalid Session Key parameter was provided to -startRequestForAudiobook: "
        "Streaming will Fail");
  }
  LogEngineInfo("[PlaybackEngine] Deciding how to play. Download Status is %d", downloadStatus);
  const std::string filename = FilesystemHelper::filename(description);
  auto urls = streamingURLs();

  if (downloadStatus == DownloadStatusDownloaded) {
    if (!isCurrentRequest(requestIdentifier)) {
      LogEngineVerbose("[PlaybackEngine] No current request identifier");
      return;
    }
    loadChapter(description, offset, requestIdentifier);
    // A stream at hand in case the file turns out to be unreadable.
    if (urls) urls->requestStreamingURLForFilename(filename, sessionKey, license, nullptr);
    return;
  }
  if (!record && !keyValid) {
    LogEngineError(
        "[PlaybackEngine] Cannot play the selected book because no info was found and no session "
        "key set.");
    setStatus(QSOPlayerStatusUnloaded);
    return;
  }
  if (cachedPlaylistURL(part, chapter)) {
    if (isCurrentRequest(requestIdentifier)) loadChapter(description, offset, requestIdentifier);
    return;
  }
  if (!urls) {
    sendFailure(24001, nullptr, description);
    return;
  }
  std::weak_ptr<PlaybackEngineCore> weak = weak_from_this();
  urls->requestStreamingURLForFilename(
      filename, sessionKey, license,
      [weak, description, offset, requestIdentifier](ErrorPtr error, std::optional<std::string>) {
        auto strong = weak.lock();
        if (!strong) return;
        strong->onInput([=](PlaybackEngineCore& self) {
          const auto current = self.requestIdentifier();
          if (current && *current != requestIdentifier) return;
          if (error) {
            if (current) self.sendFailure(24001, error, description);
            return;
          }
          LogEngineInfo("[PlaybackEngine] Streaming Key Call successful");
          if (!current) {
            LogEngineInfo("[PlaybackEngine] No current request identifier start request");
            return;
          }
          self.loadChapter(description, offset, requestIdentifier);
        });
      });
}

void PlaybackEngineCore::loadChapter(const QSOChapterDescription& chapter, uint64_t offset,
                                     const std::string& requestIdentifier) {
  auto player = streamingPlayer();
  if (!player) {
    player = services_->players ? services_->players() : QueuePlayer::create();
    player->setAutomaticallyWaitsToMinimizeStalling(false);
    player->setAllowsExternalPlayback(false);
    {
      std::lock_guard lock(mutex_);
      streamingPlayer_ = player;
    }
    addPlayerObservers(player);
  }
  startTimer(currentRate());
  {
    std::lock_guard lock(mutex_);
    startOffset_ = offset;
  }
  auto item = buildPlayerItem(chapterURL(chapter));
  if (!appendToPlayer(player, item)) {
    LogEngineWarning("[PlaybackEngine] Unable to insert player item: %@", describeItem(item));
  }
  QSORunOnMainThreadSync([player] { player->setActionAtItemEnd(ActionAtItemEnd::Advance); });
  queueRestAfter(chapter, requestIdentifier);
}

PlaybackEngineCore::ItemPtr PlaybackEngineCore::buildPlayerItem(const std::string& url) {
  auto item = PlayerItem::create(url);
  std::string sessionKey, license;
  bool wifiOnly;
  {
    std::lock_guard lock(mutex_);
    sessionKey = currentSessionKey_;
    license = currentLicenseID_;
    wifiOnly = wifiOnly_;
  }
  auto delegate = std::make_shared<QSOResourceLoaderDelegate>(
      sessionKey, license, wifiOnly, streamingURLs(), services_->reachability);
  {
    std::lock_guard lock(mutex_);
    // The loader holds its delegate weakly: this keeps it alive while the item exists.
    delegateHolder_.push_back(delegate);
  }
  item->resourceLoader().setDelegate(delegate, resourceLoaderQueue_);
  // Speech keeps its pitch at other rates.
  item->setAudioTimePitchAlgorithm(TimePitchAlgorithm::TimeDomain);
  return item;
}

bool PlaybackEngineCore::appendToPlayer(const std::shared_ptr<QueuePlayer>& player,
                                        const ItemPtr& item) {
  bool inserted = false;
  // On the main queue, so that the player's queue and playerItemList_ agree when we go on.
  QSORunOnMainThreadSync([&] {
    if (!player->canInsertItem(item, nullptr)) return;
    {
      std::lock_guard lock(mutex_);
      playerItemList_.push_back(item);
    }
    // Before the item can play: a short chapter may end before it is reported current.
    addItemObservers(item);
    inserted = player->insertItem(item, nullptr);
  });
  if (!inserted) removeItemObservers(item);
  return inserted;
}

std::optional<std::string> PlaybackEngineCore::cachedPlaylistURL(uint64_t part,
                                                                 uint64_t chapter) const {
  auto playlist = playlistManager_->getPlaylistForIdentifier(licenseID(), false);
  if (!playlist) return std::nullopt;
  std::optional<std::string> url;
  for (const auto& item : playlist->playlist()) {
    if (item.part() == part && item.chapter() == chapter) url = item.url();
  }
  return url;
}

// ---- the queue

void PlaybackEngineCore::queueRestAfter(const QSOChapterDescription& chapter,
                                        const std::string& requestIdentifier) {
  LogEngineVerbose("[PlaybackEngine] queueRestAfter current chapter (%@,%lu,%lu)",
                   chapter.audiobookID(), chapter.partNumber(), chapter.chapterNumber());
  const auto list = audiobookChapterDescriptions();
  const auto at = std::find(list.begin(), list.end(), chapter);
  if (at == list.end()) {
    LogEngineInfo("[PlaybackEngine] queueRestAfter. Current chapter (%lu,%lu) not found.",
                  chapter.partNumber(), chapter.chapterNumber());
    return;
  }
  auto player = streamingPlayer();
  if (!player) return;
  const auto items = player->items();
  LogEngineVerbose("[PlaybackEngine] Current queue: %@", describeItems(items));
  // The player holds the current chapter and at most two after it.
  std::vector<std::string> urls;
  for (auto next = at + 1; next != list.end() && items.size() + urls.size() < 3; ++next) {
    urls.push_back(chapterURL(*next));
  }
  LogEngineInfo(
      "[PlaybackEngine] Current queue count is %lu. Going to insert %lu item(s) into the queue",
      items.size(), urls.size());
  for (const auto& url : urls) {
    if (!isCurrentRequest(requestIdentifier)) break;
    auto item = buildPlayerItem(url);
    if (!appendToPlayer(player, item)) {
      LogEngineWarning("[PlaybackEngine] Unable to insert player item: %@", describeItem(item));
    }
  }
  LogEngineVerbose(
      "[PlaybackEngine] New items inserted. currentPart: %lu currentChapter: %lu New queue: %@",
      chapter.partNumber(), chapter.chapterNumber(), describeItems(player->items()));
}

bool PlaybackEngineCore::refillAfterLastItem(const std::string& requestIdentifier) {
  const auto items = playerItems();
  if (items.empty()) return false;
  // After the last item, not the current one: what is queued already stays as it is.
  if (auto last = chapterDescriptionFromPlayerItem(items.back())) {
    queueRestAfter(*last, requestIdentifier);
  }
  return true;
}

// ---- the chapter list

std::vector<QSOChapterDescription> PlaybackEngineCore::audiobookChapterDescriptions() const {
  std::string audiobookID, license;
  {
    std::lock_guard lock(mutex_);
    audiobookID = currentAudiobookID_;
    license = currentLicenseID_;
  }
  std::vector<QSOChapterDescription> list;
  const auto records = QSOChapterStatus::fetchAllSortedForAudiobookIdentifier(audiobookID);
  if (!records.empty()) {
    for (const auto& record : records) list.push_back(record->chapterDescription());
  } else if (auto playlist = playlistManager_->getPlaylistForIdentifier(license, true)) {
    for (const auto& item : playlist->playlist()) list.push_back(item.chapterDescription());
  }
  LogEngineInfo("[PlaybackEngine] -([%lu])audiobookChapterDescriptions", list.size());
  return list;
}

PlaybackEngineCore::Neighbour PlaybackEngineCore::chapterAfter(uint64_t part,
                                                               uint64_t chapter) const {
  LogEngineInfo("[PlaybackEngine] -(void)chapterAfterPartNumber:%lu chapterNumber:%lu", part,
                chapter);
  const auto list = audiobookChapterDescriptions();
  const QSOChapterDescription current(currentChapter().audiobookID(), part, chapter);
  const auto at = std::find(list.begin(), list.end(), current);
  if (at == list.end()) {
    LogEngineInfo(
        "[PlaybackEngine] Finding Next. No next chapter could be found. Current chapter (%lu,%lu) "
        "not found in array: %@.",
        part, chapter, describeList(list));
    return {Neighbour::Kind::NotInList, std::nullopt};
  }
  if (at + 1 == list.end()) {
    LogEngineInfo(
        "[PlaybackEngine] Finding Next. No next chapter found. Already on the last chapter (Index "
        "%lu/%lu).",
        static_cast<uint64_t>(at - list.begin()), list.size());
    return {Neighbour::Kind::AtEnd, std::nullopt};
  }
  return {Neighbour::Kind::Found, *(at + 1)};
}

PlaybackEngineCore::Neighbour PlaybackEngineCore::chapterBefore(uint64_t part,
                                                                uint64_t chapter) const {
  LogEngineInfo("[PlaybackEngine] -(void)chapterBeforePartNumberPartNumber:chapterNumber:");
  const auto list = audiobookChapterDescriptions();
  const QSOChapterDescription current(currentChapter().audiobookID(), part, chapter);
  const auto at = std::find(list.begin(), list.end(), current);
  if (at == list.end()) {
    LogEngineInfo(
        "[PlaybackEngine] Finding Next. No previous chapter could be found. Current chapter (%lu, "
        "%lu) not found.",
        part, chapter);
    return {Neighbour::Kind::NotInList, std::nullopt};
  }
  if (at == list.begin()) {
    LogEngineInfo(
        "[PlaybackEngine] Finding previous. No previous chapter found. Already on the first "
        "chapter.");
    return {Neighbour::Kind::AtEnd, std::nullopt};
  }
  return {Neighbour::Kind::Found, *(at - 1)};
}

std::optional<QSOChapterDescription> PlaybackEngineCore::chapterAfterPartNumber(
    uint64_t part, uint64_t chapter) const {
  return chapterAfter(part, chapter).chapter;
}

std::optional<QSOChapterDescription> PlaybackEngineCore::chapterBeforePartNumber(
    uint64_t part, uint64_t chapter) const {
  return chapterBefore(part, chapter).chapter;
}

// ---- the host's commands, on the input queue

void PlaybackEngineCore::doResume() {
  if (!streamingPlayer() || playerStatus() != QSOPlayerStatusPaused) return;
  if (!activateAudioSessionOrFail()) return;
  float rate;
  {
    std::lock_guard lock(mutex_);
    resumeFromUserRequestedLoad_ = true;
    playerStatus_ = QSOPlayerStatusLoading;
    overrideAutoplay_ = true;
    playbackStartedFlag_ = false;
    rate = currentRate_;
  }
  playerSetRate(rate, true);
}

void PlaybackEngineCore::doPause() {
  auto player = streamingPlayer();
  if (!player || playerStatus() == QSOPlayerStatusUnloaded) {
    sendChapterEvent(QSOPlaybackChapterPausedFailedNotification);
    return;
  }
  playerSetRate(0, false);
  {
    std::lock_guard lock(mutex_);
    resumeFromUserRequestedLoad_ = false;
    playerStatus_ = QSOPlayerStatusPaused;
    // The user's pause wins over an interruption under way: its end must not resume.
    interruptionPause_ = interruptionWhileLoading_ = false;
    interruptionOffset_ = 0;
  }
  Dictionary context;
  context.emplace(std::string(QSOPlaybackChapterPausedUserInfoKey),
                  static_cast<uint64_t>(QSOPlaybackPausedContextUser));
  sendChapterEvent(QSOPlaybackChapterPausedNotification, std::move(context));
}

void PlaybackEngineCore::doNextChapter() {
  QSOChapterDescription current = currentChapter();
  std::string sessionKey;
  std::optional<std::string> requestIdentifier;
  {
    std::lock_guard lock(mutex_);
    requestIdentifier = currentRequestIdentifier_;
    sessionKey = currentSessionKey_;
  }
  LogEngineInfo("[PlaybackEngine] next chapter after request queue %@", requestIdentifier);
  if (!valid(current.audiobookID())) {
    LogEngineWarning("[PlaybackEngine] No AudiobookID currently in the player. Exiting");
    return;
  }
  {
    std::lock_guard lock(mutex_);
    startOffset_ = 0;
    interruptionOffset_ = 0;
  }
  const Neighbour next = chapterAfter(current.partNumber(), current.chapterNumber());
  if (next.kind != Neighbour::Kind::Found) {
    LogEngineInfo("[PlaybackEngine] Next Chapter not found. Nothing to do.");
    return;
  }
  auto player = streamingPlayer();
  removeItemObservers(playerCurrentItem());
  {
    std::lock_guard lock(mutex_);
    resumeFromUserRequestedLoad_ = true;
    playerStatus_ = QSOPlayerStatusLoading;
  }
  if (player) QSORunOnMainThreadSync([player] { player->pause(); });
  if (!player || player->items().size() < 2) {
    LogEngineInfo("[PlaybackEngine] Next is not in queue, performing partial reload");
    haltPlayer();
    const std::string reloadIdentifier = QSOUtils::generateUUID();
    {
      std::lock_guard lock(mutex_);
      currentRequestIdentifier_ = reloadIdentifier;
    }
    startRequest(next.chapter->audiobookID(), next.chapter->partNumber(),
                 next.chapter->chapterNumber(), 0, sessionKey, reloadIdentifier);
    return;
  }
  LogEngineInfo("[PlaybackEngine] Next is in queue, advancing");
  QSORunOnMainThreadSync([player] { player->advanceToNextItem(); });
}

void PlaybackEngineCore::doPreviousChapter() {
  const QSOChapterDescription current = currentChapter();
  if (current.audiobookID().empty()) {
    LogEngineWarning("[PlaybackEngine] No AudiobookID currently in the player. Exiting");
    return;
  }
  {
    std::lock_guard lock(mutex_);
    startOffset_ = 0;
    interruptionOffset_ = 0;
  }
  const Neighbour previous = chapterBefore(current.partNumber(), current.chapterNumber());
  if (previous.kind != Neighbour::Kind::Found) return;
  {
    std::lock_guard lock(mutex_);
    resumeFromUserRequestedLoad_ = true;
    playerStatus_ = QSOPlayerStatusLoading;
  }
  auto player = streamingPlayer();
  if (player) QSORunOnMainThreadSync([player] { player->pause(); });
  if (!player || player->items().empty()) {
    LogEngineInfo("[PlaybackEngine] Attempt Previous. No items queued. Not doing anything");
    return;
  }
  auto item = buildPlayerItem(chapterURL(*previous.chapter));
  ItemPtr oldItem;
  QSORunOnMainThreadSync([&] {
    oldItem = player->currentItem();
    {
      std::lock_guard lock(mutex_);
      playerItemList_.push_back(item);
    }
    addItemObservers(item);
    player->insertItem(item, nullptr);
    // The player's own report of this change is not wanted: the engine reports it below.
    removePlayerObservers();
    for (const auto& other : player->items()) {
      if (other == item) continue;
      removeItemObservers(other);
      player->removeItem(other);
    }
  });
  onObserver([oldItem, item](PlaybackEngineCore& self) { self.currentItemChanged(oldItem, item); });
  addPlayerObservers(player);
  LogEngineInfo(
      "[PlaybackEngine] previous chapter queue after removal currentPart:%d currentChapter:%d "
      "currentItem:%@ items:%@",
      previous.chapter->partNumber(), previous.chapter->chapterNumber(),
      describeItem(player->currentItem()), describeItems(player->items()));
  const auto request = requestIdentifier();
  if (!request) return;
  onInput([chapter = *previous.chapter, request](PlaybackEngineCore& self) {
    self.queueRestAfter(chapter, *request);
  });
}

void PlaybackEngineCore::doSetCurrentOffset(uint64_t offset) {
  if (!streamingPlayer()) {
    LogEngineInfo("[PlaybackEngine] Nothing loaded to seek in");
    return;
  }
  bool start;
  {
    std::lock_guard lock(mutex_);
    interruptionOffset_ = 0;
    startOffset_ = offset;
    if (playerStatus_ == QSOPlayerStatusPlaying) resumeFromUserRequestedLoad_ = true;
    playerStatus_ = QSOPlayerStatusLoading;
    playbackStartedFlag_ = false;
    start = resumeFromUserRequestedLoad_;
  }
  playerSetRate(0, false);
  postBufferingStartIfNeeded();
  // A seek while paused therefore stays paused.
  playerSeekToTime(offset, start);
}

}  // namespace sonorell
