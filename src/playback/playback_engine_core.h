// The playback engine itself, behind QSOPlaybackEngine: requests, the player's queue of chapters,
// progress and listening, and the reactions to the player, its items and the audio session.
//
// Threads: commands and request continuations run on the serial input queue
// ("io.sonorell.playbackengine.input"); reactions to the player, the monitor tick and stall
// judgements on the observer queue ("...observer"); resource loader delegates on
// "...resourceloader"; changes of the player's items, its action at item end and the progress
// timer on the main queue. A block may wait (sync) only in that order: input → observer → main;
// main never waits for the engine's queues. Every field below is guarded by mutex_, which is never
// held while waiting for a queue, calling the player, or posting; blocks hold the core weakly.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/dispatch/dispatch_group.h"
#include "platform/dispatch/dispatch_queue.h"
#include "platform/media/audio_session.h"
#include "platform/media/queue_player.h"
#include "platform/services.h"
#include "sonorell/chapter_description.h"
#include "sonorell/error.h"
#include "sonorell/playback_engine.h"
#include "sonorell/value.h"

namespace sonorell {

class QLListenEventHandler;
class QSOPlaylistManager;
class QSOResourceLoaderDelegate;
class QSOStreamingURLManager;

// The error-code slot of success and progress notifications: no error.
inline constexpr int64_t kNoPlaybackError = INT64_MAX;

class PlaybackEngineCore : public std::enable_shared_from_this<PlaybackEngineCore> {
 public:
  using ItemPtr = std::shared_ptr<PlayerItem>;

  static std::shared_ptr<PlaybackEngineCore> create(ServicesPtr services);
  ~PlaybackEngineCore();

  // Commands (QSOPlaybackEngine's): each logs its line, then runs on the input queue.
  void playForAudiobookID(const std::string& audiobookID, uint64_t part, uint64_t chapter,
                          uint64_t offset, const std::string& sessionKey,
                          const std::string& licenseID);
  void resume();
  void pause();
  void nextChapter();
  void previousChapter();
  void unload();
  void setCurrentOffset(uint64_t offset);
  void setCurrentRate(float rate);

  // Queries, on the caller's thread.
  uint64_t currentOffset() const;
  uint64_t currentDuration() const;
  bool isStreaming() const;
  std::optional<QSOChapterDescription> currentLoadedChapter() const;
  std::vector<QSOChapterDescription> audiobookChapterDescriptions() const;
  std::optional<QSOChapterDescription> chapterAfterPartNumber(uint64_t part,
                                                              uint64_t chapter) const;
  std::optional<QSOChapterDescription> chapterBeforePartNumber(uint64_t part,
                                                               uint64_t chapter) const;
  QSOPlayerStatus playerStatus() const;
  float currentRate() const;
  // The player of the loaded chapter; null when none is loaded.
  std::shared_ptr<QueuePlayer> streamingPlayer() const;

  // Host settings.
  bool wifiOnly() const;
  void setWifiOnly(bool wifiOnly);
  bool shouldAutoplay() const;
  void setShouldAutoplay(bool shouldAutoplay);
  uint64_t maxStallTime() const;
  void setMaxStallTime(uint64_t seconds);
  uint64_t stallRecoveryPlan() const;
  void setStallRecoveryPlan(uint64_t plan);
  void setHostBundleIdentifier(const std::string& identifier);
  void setUnrecordedHostBundleIdentifier(const std::string& identifier);
  // The handler that receives listening progress (the process's shared one unless replaced).
  void setListenEventHandler(std::shared_ptr<QLListenEventHandler> handler);

  // The listening method of an output port type.
  static QSOListeningMethod listeningMethodForPortType(const std::string& portType);

 private:
  // Where a neighbour search ended: found, at the end of the list, or the chapter is not in it.
  struct Neighbour {
    enum class Kind { Found, AtEnd, NotInList } kind;
    std::optional<QSOChapterDescription> chapter;
  };
  // A periodic start-of-playback observer and the player it is registered on.
  struct ObserverRecord {
    std::weak_ptr<QueuePlayer> blockPlayer;
    ObservationToken startPlayingObserver;
  };

  explicit PlaybackEngineCore(ServicesPtr services);
  void observeAudioSession();

  // Requests and the queue (playback_requests.cc), on the input queue unless said otherwise.
  void startRequest(const std::string& audiobookID, uint64_t part, uint64_t chapter,
                    uint64_t offset, const std::string& sessionKey,
                    const std::string& requestIdentifier);
  void loadChapter(const QSOChapterDescription& chapter, uint64_t offset,
                   const std::string& requestIdentifier);
  // A player item for a "qlso://" URL with a new resource loader delegate kept in
  // delegateHolder_.
  ItemPtr buildPlayerItem(const std::string& url);
  // Appends the item to the player's queue and to playerItemList_ (main queue, synchronously);
  // false when the player cannot take it.
  bool appendToPlayer(const std::shared_ptr<QueuePlayer>& player, const ItemPtr& item);
  std::optional<std::string> cachedPlaylistURL(uint64_t part, uint64_t chapter) const;
  void queueRestAfter(const QSOChapterDescription& chapter, const std::string& requestIdentifier);
  // Refills after the chapter of the player's last item; false when the player holds none.
  bool refillAfterLastItem(const std::string& requestIdentifier);
  Neighbour chapterAfter(uint64_t part, uint64_t chapter) const;
  Neighbour chapterBefore(uint64_t part, uint64_t chapter) const;
  void doResume();
  void doPause();
  void doNextChapter();
  void doPreviousChapter();
  void doSetCurrentOffset(uint64_t offset);

  // Progress and listening (playback_engine_core.cc).
  void startTimer(float rate);
  void stopTimer();
  void monitorPlayback();  // observer queue
  void recordListening(uint64_t offset);
  QSOListeningMethod listeningMethod() const;

  // Player operations (playback_engine_core.cc).
  void playerSetRate(float rate, bool notify);
  void playerSeekToTime(uint64_t seconds, bool shouldStart);
  void playerSeekToTimeTolerance(uint64_t seconds);
  void internalResume();
  ErrorPtr activateAudioSession();
  bool activateAudioSessionOrFail();
  std::vector<ItemPtr> playerItems() const;
  ItemPtr playerCurrentItem() const;

  // Observation and recovery (playback_observation.cc), on the observer queue unless said.
  void addPlayerObservers(const std::shared_ptr<QueuePlayer>& player);
  void removePlayerObservers();
  void addItemObservers(const ItemPtr& item);
  void removeItemObservers(const ItemPtr& item);
  void currentItemChanged(const ItemPtr& oldItem, const ItemPtr& newItem);
  void itemStatusChanged(const ItemPtr& item, PlayerItemStatus oldStatus,
                         PlayerItemStatus newStatus);
  void readyToPlay();
  void startPlayingTick(MediaTime time);
  void playbackStarted();
  void handleEnd(const ItemPtr& item);
  void playerItemFailed(const ItemPtr& item);
  void didNotReachEnd(const ItemPtr& item, const ErrorPtr& error);
  void playbackStalled(const ItemPtr& item);
  void judgeStall(const std::string& stallIdentifier);
  void endStall();
  void retireItem(const ItemPtr& item);  // main queue
  void removeStartPlayingObserver(const std::shared_ptr<QueuePlayer>& player);
  void haltPlayer();
  // Input or observer queue.
  void unloadWithReason(QSOPlaybackUnloadedReason reason);
  void audioSessionEvent(const AudioSessionEvent& event);
  void interruption(const AudioSessionEvent& event);
  void pauseForInterruption();
  void routeChange(const AudioSessionEvent& event);
  void mediaServicesReset();
  void updateCurrentPlaying(const ItemPtr& item);
  static std::optional<QSOChapterDescription> chapterDescriptionFromPlayerItem(const ItemPtr& item);
  static std::shared_ptr<QSOResourceLoaderDelegate> delegateOf(const ItemPtr& item);
  static std::string describeItem(const ItemPtr& item);
  // The item's duration in whole seconds; 0 when unknown.
  static uint64_t durationSeconds(const ItemPtr& item);
  static std::string describeItems(const std::vector<ItemPtr>& items);

  // Notifications (playback_engine_core.cc); never called with mutex_ held.
  void post(std::string_view name, Dictionary userInfo);
  // About the current chapter unless another is given.
  void sendChapterEvent(std::string_view name, Dictionary context = {},
                        std::optional<QSOChapterDescription> chapter = std::nullopt);
  void sendAudiobookEvent(std::string_view name, Dictionary context = {});
  // Posts the failure and then unloads with reason 2 on the input queue.
  void sendFailure(int64_t code, const ErrorPtr& error,
                   std::optional<QSOChapterDescription> chapter = std::nullopt);
  void postBufferingStartIfNeeded();
  void postBufferingEndIfNeeded();

  // Runs `block` on the queue with the core, if it still exists.
  void onInput(std::function<void(PlaybackEngineCore&)> block);
  void onObserver(std::function<void(PlaybackEngineCore&)> block);
  void onObserverSync(const std::function<void()>& block);
  std::shared_ptr<QSOStreamingURLManager> streamingURLs() const;
  // The current audiobook, part and chapter, loaded or not.
  QSOChapterDescription currentChapter() const;
  void setStatus(QSOPlayerStatus status);
  uint64_t startOffset() const;
  std::string licenseID() const;
  std::optional<std::string> requestIdentifier() const;
  bool isCurrentRequest(const std::string& requestIdentifier) const;

  const ServicesPtr services_;
  const DispatchQueuePtr inputQueue_;
  const DispatchQueuePtr observerQueue_;
  const DispatchQueuePtr resourceLoaderQueue_;
  const std::shared_ptr<QSOPlaylistManager> playlistManager_;
  ObservationToken audioSessionToken_;

  mutable std::mutex mutex_;
  bool wifiOnly_ = false;
  bool stalled_ = false;
  bool buffering_ = false;
  bool shouldAutoplay_ = true;
  bool overrideAutoplay_ = false;
  bool resumeFromUserRequestedLoad_ = false;
  bool playbackStartedFlag_ = false;
  bool streamingPlaybackActive_ = false;
  bool interruptionPause_ = false;
  // An interruption began while the chapter was loading: it pauses as soon as playback starts.
  bool interruptionWhileLoading_ = false;
  bool haltCurrentPlayingUpdates_ = false;
  float currentRate_ = 1.0f;
  QSOPlayerStatus playerStatus_ = QSOPlayerStatusUnloaded;
  uint64_t maxStallTime_ = 10;
  uint64_t startOffset_ = 0;
  std::string currentAudiobookID_;
  uint64_t currentPartNumber_ = 0;
  uint64_t currentChapterNumber_ = 0;
  std::optional<std::string> currentRequestIdentifier_;
  std::optional<std::string> currentStallIdentifier_;
  double stallPosition_ = 0;  // the player's time when the current stall began, in seconds
  uint64_t stallRecoveryPlan_ = 1;
  std::string currentSessionKey_;
  std::string currentLicenseID_;
  std::string currentPlaylistToken_;
  uint64_t interruptionOffset_ = 0;
  std::string hostBundleIdentifier_;
  std::string unrecordedHostBundleIdentifier_;
  std::shared_ptr<QLListenEventHandler> listenEventHandler_;
  std::shared_ptr<DispatchTimer> offsetUpdateTimer_;
  std::shared_ptr<QueuePlayer> streamingPlayer_;
  std::vector<std::shared_ptr<QSOResourceLoaderDelegate>> delegateHolder_;
  std::vector<ItemPtr> playerItemList_;
  std::vector<ObserverRecord> playerObserversArray_;
  ObservationToken currentItemObserver_;
  std::map<ItemPtr, std::vector<ObservationToken>> itemObservers_;
};

}  // namespace sonorell
