/// The playback engine: the host's entry point for playing chapters, one audiobook at a time.
/// Owned by QSOSonorell (reach it through QSOSonorell::sharedEngine()->playbackEngine()). Commands
/// return at once and run in call order on the engine's input queue; queries and properties answer
/// on the caller's thread. What happens is reported through the notifications of
/// sonorell/notifications.h, posted on the engine's notifications queue. Safe from any thread.
/// @file
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sonorell/chapter_description.h"
#include "sonorell/export.h"

namespace sonorell {

struct Services;
class PlaybackEngineCore;

/// The engine's state, as playerStatus() answers it.
enum QSOPlayerStatus : uint64_t {
  QSOPlayerStatusPlaying = 0,   ///< a chapter is playing
  QSOPlayerStatusPaused = 1,    ///< a chapter is loaded and paused
  QSOPlayerStatusUnloaded = 2,  ///< nothing is loaded
  QSOPlayerStatusLoading = 3,   ///< a chapter is being loaded
};

/// How the user listens, as each listen event reports it.
enum QSOListeningMethod : uint64_t {
  QSOListeningMethodHeadphones = 0,  ///< wired headphones
  QSOListeningMethodSpeaker = 1,     ///< the device's speaker
  QSOListeningMethodOther = 2,       ///< any other output
  QSOListeningMethodBluetooth = 3,   ///< a Bluetooth device
};

/// The value of QSOPlaybackUnloadedReasonUserInfoKey.
enum QSOPlaybackUnloadedReason : uint64_t {
  QSOPlaybackUnloadedReasonNewRequest = 0,         ///< a new play request replaces it
  QSOPlaybackUnloadedReasonAudiobookComplete = 1,  ///< the last chapter ended
  QSOPlaybackUnloadedReasonFailure = 2,            ///< playback failed
  QSOPlaybackUnloadedReasonUser = 3,               ///< QSOPlaybackEngine::unload()
};

/// The value of QSOPlaybackChapterPausedUserInfoKey: who paused.
enum QSOPlaybackPausedContext : uint64_t {
  QSOPlaybackPausedContextUser = 0,          ///< QSOPlaybackEngine::pause()
  QSOPlaybackPausedContextInterruption = 2,  ///< an audio interruption began
  QSOPlaybackPausedContextRouteChange = 3,   ///< the output device went away
};

/// @name Keys of the engine's records of start-of-playback observers
///@{
/// The player an observer watches.
inline constexpr std::string_view BlockPlayer = "block_player";
/// The observer's token.
inline constexpr std::string_view StartPlayingObserver = "start_playing_observer";
///@}

/// Plays an audiobook's chapters: from disk when downloaded, otherwise streamed from the content
/// service, the current chapter and the two after it queued in the player.
///
/// Threads: commands (play, pause, resume, seek, rate, next, previous, unload) are queued and
/// return at once; they run in call order on the engine's input queue. Queries and properties
/// answer on the caller's thread. What happens arrives as the playback notifications of
/// sonorell/notifications.h on the engine's notifications queue: for a play,
/// QSOPlaybackChapterLoadedNotification, QSOPlaybackChapterStartedNotification, then
/// QSOPlaybackProgressUpdateNotification once per second of content and
/// QSOPlaybackChapterCompleteNotification at the chapter's end; a failure brings
/// QSOPlaybackChapterFailedNotification and QSOPlaybackAudiobookUnloadedNotification.
///
/// Audio goes to the GStreamer sink named by $SONORELL_AUDIO_SINK (default autoaudiosink).
///
/// Ownership: QSOSonorell makes the one engine and keeps it for the life of the process; hosts
/// hold it through std::shared_ptr and never construct one.
class SONORELL_EXPORT QSOPlaybackEngine {
 public:
  /// Made by QSOSonorell on the engine's services.
  explicit QSOPlaybackEngine(std::shared_ptr<const Services> services);
  /// Destroyed with the facade that made it; hosts never delete one.
  ~QSOPlaybackEngine();
  QSOPlaybackEngine(const QSOPlaybackEngine&) = delete;
  QSOPlaybackEngine& operator=(const QSOPlaybackEngine&) = delete;

  /// Plays the chapter from `offset` seconds: at once from disk when it is downloaded, otherwise
  /// streamed once its URL is known. An empty session key or audiobook ID is logged and ignored.
  /// A newer request always wins over what is left of an older one.
  void playForAudiobookID(const std::string& audiobookID, uint64_t partNumber,
                          uint64_t chapterNumber, uint64_t offset, const std::string& sessionKey,
                          const std::string& licenseID);
  /// Resumes a paused chapter; does nothing in any other state.
  void resume();
  /// Posts paused (context 0), or paused-failed when nothing is loaded.
  void pause();
  /// The next chapter from its start, from the queue when it is there.
  void nextChapter();
  /// The previous chapter from its start; nothing on the first chapter.
  void previousChapter();
  /// Forgets the book's cached playlist and unloads (reason 3).
  void unload();
  /// Seeks to `offset` seconds; a paused chapter stays paused.
  void setCurrentOffset(uint64_t offset);
  /// Plays at `rate` (speech keeps its pitch); progress keeps one tick per second of content.
  void setCurrentRate(float rate);

  /// Whole seconds into the current chapter; 0 when unknown.
  uint64_t currentOffset() const;
  /// The current chapter's length in whole seconds; 0 when unknown.
  uint64_t currentDuration() const;
  /// Whether the current chapter plays from a stream rather than from disk.
  bool isStreaming() const;
  /// Null when nothing is loaded.
  std::optional<QSOChapterDescription> currentLoadedChapter() const;
  /// The current audiobook's chapters in play order: from the status records, else from the
  /// cached playlist; empty when neither is known.
  std::vector<QSOChapterDescription> audiobookChapterDescriptions() const;
  /// The neighbours of a chapter of the current audiobook; null at either end or when the chapter
  /// is not in the list.
  std::optional<QSOChapterDescription> chapterAfterPartNumber(uint64_t partNumber,
                                                              uint64_t chapterNumber) const;
  /// The chapter before that one, or null.
  std::optional<QSOChapterDescription> chapterBeforePartNumber(uint64_t partNumber,
                                                               uint64_t chapterNumber) const;
  /// Playing, paused, loading or unloaded.
  QSOPlayerStatus playerStatus() const;
  /// The rate chapters play at (1 by default).
  float currentRate() const;

  /// Streaming only on Wi-Fi (default no); applies to chapters loaded afterwards.
  bool wifiOnly() const;
  /// Sets wifiOnly().
  void setWifiOnly(bool wifiOnly);
  /// Start as soon as a chapter is ready (default yes).
  bool shouldAutoplay() const;
  /// Sets shouldAutoplay().
  void setShouldAutoplay(bool shouldAutoplay);
  /// Seconds a stall may last before the chapter fails with 22001 (default 10).
  uint64_t maxStallTime() const;
  /// Sets maxStallTime().
  void setMaxStallTime(uint64_t seconds);
  /// When a stall is over: 1 once the chapter is likely to keep up (default), 2 once its buffer
  /// is no longer empty; any other value waits for the chapter to become ready again.
  uint64_t stallRecoveryPlan() const;
  /// Sets stallRecoveryPlan().
  void setStallRecoveryPlan(uint64_t plan);
  /// The host application's identifier, and one host identifier whose listening is not recorded
  /// (both empty by default; an empty exclusion excludes nobody).
  void setHostBundleIdentifier(const std::string& identifier);
  /// The host identifier whose listening is not recorded; see setHostBundleIdentifier().
  void setUnrecordedHostBundleIdentifier(const std::string& identifier);

  /// The fixed description of a playback failure code (20000 to 26000); never empty.
  static std::string_view descriptionForErrorCode(int64_t code);

  /// The engine's internals, for the parts of the engine that work with it.
  const std::shared_ptr<PlaybackEngineCore>& core() const { return core_; }

 private:
  const std::shared_ptr<PlaybackEngineCore> core_;
};

}  // namespace sonorell
