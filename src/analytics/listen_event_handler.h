// QLListenEventHandler turns the playback engine's once-a-tick position reports into listen
// events of continuous listening and hands completed events to its poster. The open event is
// guarded by the handler's mutex (reports come from the playback monitor, flushes and
// termination from the host's threads); the poster runs on its own queues.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "analytics/listen_event.h"
#include "analytics/listen_event_error.h"
#include "analytics/listen_event_poster.h"

namespace sonorell {

class QLListenEventHandler {
 public:
  // The process-wide handler, created on first use with a poster of 10 events / 300 seconds.
  static std::shared_ptr<QLListenEventHandler> sharedHandler();
  // The application is about to end: runs willTerminate() on the handler if one was created.
  static void applicationWillTerminate();

  explicit QLListenEventHandler(std::shared_ptr<QLListenEventPoster> poster);

  // The periodic report: extends the open event while ticks stay on consecutive seconds of one
  // chapter of one playlist for under a minute, otherwise completes it and opens a new one.
  // Throws QLInvalidListenEventArgument (session key checked first) and then changes nothing.
  void updateListenEvent(uint64_t chapterNumber, uint64_t partNumber,
                         const std::optional<std::string>& sessionKey,
                         const std::optional<std::string>& playlistToken, uint64_t currentOffset,
                         float currentRate, uint64_t listeningMethod);
  // A complete event built at once, stamped with the present state and time, and submitted.
  void recordListenEvent(uint64_t chapterNumber, uint64_t partNumber,
                         const std::optional<std::string>& sessionKey,
                         const std::optional<std::string>& playlistToken, uint64_t startingOffset,
                         uint64_t finalOffset, float rate, uint64_t listeningMethod);
  // Submits a caller-made event, keeping its own timestamp if it has one.
  void recordListenEvent(const QLListenEventPtr& event);

  // Completes the open event (which stays open) and asks the poster to flush.
  void flushListenEventQueue();
  // Completes the open event, then waits up to 2 seconds for the archive write.
  void willTerminate();

  QLListenEventPtr currentListenEvent() const;
  uint64_t currentScreenState() const;
  const std::shared_ptr<QLListenEventPoster>& eventPoster() const { return eventPoster_; }

 private:
  static void validate(const std::optional<std::string>& sessionKey,
                       const std::optional<std::string>& playlistToken);
  // Stamps completion and submits; nothing for a null event. Caller holds mutex_ or owns it.
  void finalizeListenEvent(const QLListenEventPtr& event);
  void stampState(QLListenEvent& event) const;

  mutable std::mutex mutex_;
  QLListenEventPtr currentListenEvent_;  // guarded by mutex_
  // Nothing in the engine learns the screen state, so events carry "unknown".
  const uint64_t currentScreenState_ = 2;
  const std::shared_ptr<QLListenEventPoster> eventPoster_;
};

}  // namespace sonorell
