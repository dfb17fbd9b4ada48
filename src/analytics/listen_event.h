// QLListenEvent: one stretch of continuous listening. Events have identity (the handler keeps
// changing an event the poster already queued), so they live in shared_ptr; every field is
// guarded by the event's own mutex because the handler and the poster's queues touch it at once.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "sonorell/value.h"

namespace sonorell {

class QLListenEvent {
 public:
  QLListenEvent() = default;

  float playbackRate() const;
  void setPlaybackRate(float rate);
  uint64_t chapterNumber() const;
  void setChapterNumber(uint64_t chapter);
  uint64_t partNumber() const;
  void setPartNumber(uint64_t part);
  std::optional<std::string> sessionKey() const;
  void setSessionKey(std::optional<std::string> key);
  std::optional<std::string> playlistToken() const;
  void setPlaylistToken(std::optional<std::string> token);
  std::optional<Date> timestamp() const;
  void setTimestamp(std::optional<Date> date);
  uint64_t startOffset() const;
  void setStartOffset(uint64_t offset);
  uint64_t currentSecondOffset() const;
  void setCurrentSecondOffset(uint64_t offset);
  uint64_t finalOffset() const;
  void setFinalOffset(uint64_t offset);
  uint64_t screenState() const;
  void setScreenState(uint64_t state);
  uint64_t applicationState() const;
  void setApplicationState(uint64_t state);
  uint64_t listeningMethod() const;
  void setListeningMethod(uint64_t method);

  // The keyed form kept in the archive. The speed is stored as a whole number, truncated toward
  // zero, so an archived 1.25 comes back as 1: that is the format's long-standing behaviour.
  nlohmann::json encodeWithCoder() const;
  // Null when `coded` is not an object or a key holds a value of the wrong kind.
  static std::shared_ptr<QLListenEvent> initWithCoder(const nlohmann::json& coded);

  // "QSOListenEvent " followed by the serializer's dictionary.
  std::string description() const;

 private:
  struct Fields {
    float playbackRate = 0;
    uint64_t chapterNumber = 0;
    uint64_t partNumber = 0;
    std::optional<std::string> sessionKey;
    std::optional<std::string> playlistToken;
    std::optional<Date> timestamp;
    uint64_t startOffset = 0;
    uint64_t currentSecondOffset = 0;
    uint64_t finalOffset = 0;
    uint64_t screenState = 0;
    uint64_t applicationState = 0;
    uint64_t listeningMethod = 0;
  };

  mutable std::mutex mutex_;
  Fields fields_;  // guarded by mutex_
};

using QLListenEventPtr = std::shared_ptr<QLListenEvent>;

}  // namespace sonorell
