// The playback engine: the host's entry point for playing chapters, one audiobook at a time.
// Owned by QSOSonorell (reach it through QSOSonorell::sharedEngine()->playbackEngine()). Commands
// return at once and run in call order on the engine's input queue; queries and properties answer
// on the caller's thread. What happens is reported through the notifications of
// sonorell/notifications.h, posted on the engine's notifications queue. Safe from any thread.
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

// The engine's state, as playerStatus() answers it.
enum QSOPlayerStatus : uint64_t {
  QSOPlayerStatusPlaying = 0,
  QSOPlayerStatusPaused = 1,
  QSOPlayerStatusUnloaded = 2,
  QSOPlayerStatusLoading = 3,
};

// How the user listens, as each listen event reports it.
enum QSOListeningMethod : uint64_t {
  QSOListeningMethodHeadphones = 0,
  QSOListeningMethodSpeaker = 1,
  QSOListeningMethodOther = 2,
  QSOListeningMethodBluetooth = 3,
};

// The value of QSOPlaybackUnloadedReasonUserInfoKey.
enum QSOPlaybackUnloadedReason : uint64_t {
  QSOPlaybackUnloadedReasonNewRequest = 0,
  QSOPlaybackUnloadedReasonAudiobookComplete = 1,
  QSOPlaybackUnloadedReasonFailure = 2,
  QSOPlaybackUnloadedReasonUser = 3,
};

// The value of QSOPlaybackChapterPausedUserInfoKey: who paused.
enum QSOPlaybackPausedContext : uint64_t {
  QSOPlaybackPausedContextUser = 0,
  QSOPlaybackPausedContextInterruption = 2,
  QSOPlaybackPausedContextRouteChange = 3,
};

// Keys of the engine's records of start-of-playback observers: the player an observer watches
// and the observer's token.
inline constexpr std::string_view BlockPlayer = "block_player";
inline constexpr std::string_view StartPlayingObserver = "start_playing_observer";

class SONORELL_EXPORT QSOPlaybackEngine {
 public:
  // Made by QSOSonorell on the engine's services.
  explicit QSOPlaybackEngine(std::shared_ptr<const Services> services);
  ~QSOPlaybackEngine();
  QSOPlaybackEngine(const QSOPlaybackEngine&) = delete;
  QSOPlaybackEngine& operator=(const QSOPlaybackEngine&) = delete;

  // Plays the chapter from `offset` seconds: at once from disk when it is downloaded, otherwise
  // streamed once its URL is known. An empty session key or audiobook ID is logged and ignored.
  // A newer request always wins over what is left of an older one.
  void playForAudiobookID(const std::string& audiobookID, uint64_t partNumber,
                          uint64_t chapterNumber, uint64_t offset, const std::string& sessionKey,
                          const std::string& licenseID);
  // Resumes a paused chapter; does nothing in any other state.
  void resume();
  // Posts paused (context 0), or paused-failed when nothing is loaded.
  void pause();
  // The next chapter from its start, from the queue when it is there.
  void nextChapter();
  // The previous chapter from its start; nothing on the first chapter.
  void previousChapter();
  // Forgets the book's cached playlist and unloads (reason 3).
  void unload();
  // Seeks to `offset` seconds; a paused chapter stays paused.
  void setCurrentOffset(uint64_t offset);
  // Plays at `rate` (speech keeps its pitch); progress keeps one tick per second of content.
  void setCurrentRate(float rate);

  // Whole seconds into the current chapter; 0 when unknown.
  uint64_t currentOffset() const;
  // The current chapter's length in whole seconds; 0 when unknown.
  uint64_t currentDuration() const;
  bool isStreaming() const;
  // Null when nothing is loaded.
  std::optional<QSOChapterDescription> currentLoadedChapter() const;
  // The current audiobook's chapters in play order: from the status records, else from the
  // cached playlist; empty when neither is known.
  std::vector<QSOChapterDescription> audiobookChapterDescriptions() const;
  // The neighbours of a chapter of the current audiobook; null at either end or when the chapter
  // is not in the list.
  std::optional<QSOChapterDescription> chapterAfterPartNumber(uint64_t partNumber,
                                                              uint64_t chapterNumber) const;
  std::optional<QSOChapterDescription> chapterBeforePartNumber(uint64_t partNumber,
                                                               uint64_t chapterNumber) const;
  QSOPlayerStatus playerStatus() const;
  float currentRate() const;

  // Streaming only on Wi-Fi (default no); applies to chapters loaded afterwards.
  bool wifiOnly() const;
  void setWifiOnly(bool wifiOnly);
  // Start as soon as a chapter is ready (default yes).
  bool shouldAutoplay() const;
  void setShouldAutoplay(bool shouldAutoplay);
  // Seconds a stall may last before the chapter fails with 22001 (default 10).
  uint64_t maxStallTime() const;
  void setMaxStallTime(uint64_t seconds);
  // When a stall is over: 1 once the chapter is likely to keep up (default), 2 once its buffer
  // is no longer empty; any other value waits for the chapter to become ready again.
  uint64_t stallRecoveryPlan() const;
  void setStallRecoveryPlan(uint64_t plan);
  // The host application's identifier, and one host identifier whose listening is not recorded
  // (both empty by default; an empty exclusion excludes nobody).
  void setHostBundleIdentifier(const std::string& identifier);
  void setUnrecordedHostBundleIdentifier(const std::string& identifier);

  // The fixed description of a playback failure code (20000 to 26000); never empty.
  static std::string_view descriptionForErrorCode(int64_t code);

  // The engine's internals, for the parts of the engine that work with it.
  const std::shared_ptr<PlaybackEngineCore>& core() const { return core_; }

 private:
  const std::shared_ptr<PlaybackEngineCore> core_;
};

}  // namespace sonorell
