#include "analytics/listen_event.h"

#include <cmath>
#include <limits>

#include "analytics/listen_event_serializer.h"
#include "platform/foundation/format.h"

namespace sonorell {

namespace {

using Lock = std::lock_guard<std::mutex>;
using json = nlohmann::json;

// Archive keys. They are the on-disk names: a later version reads old archives only if they stay.
constexpr const char* kPartNumberKey = "partNumber";
constexpr const char* kChapterNumberKey = "chapterNumber";
constexpr const char* kStartOffsetKey = "startOffset";
constexpr const char* kFinishOffsetKey = "finishOffset";
constexpr const char* kCurrentSecondOffsetKey = "currentSecondOffset";
constexpr const char* kCompletedDateKey = "completedDate";
constexpr const char* kListeningMethodKey = "listeningMethod";
constexpr const char* kBackgroundStateKey = "backgroundState";
constexpr const char* kScreenStateKey = "screenState";
constexpr const char* kSpeedControlKey = "speedControl";
constexpr const char* kSessionKeyKey = "sessionKey";
constexpr const char* kPlaylistTokenKey = "playlistToken";

// A missing key reads as 0, as keyed decoding always did; a present key of another kind (or a
// negative number) makes the whole record unreadable.
bool readUnsigned(const json& coded, const char* key, uint64_t& out) {
  auto it = coded.find(key);
  if (it == coded.end() || it->is_null()) return true;
  if (!it->is_number_unsigned()) return false;
  out = it->get<uint64_t>();
  return true;
}

bool readString(const json& coded, const char* key, std::optional<std::string>& out) {
  auto it = coded.find(key);
  if (it == coded.end() || it->is_null()) return true;
  if (!it->is_string()) return false;
  out = it->get<std::string>();
  return true;
}

}  // namespace

#define SONORELL_FIELD(Type, getter, setter) \
  Type QLListenEvent::getter() const {       \
    Lock lock(mutex_);                       \
    return fields_.getter;                   \
  }                                          \
  void QLListenEvent::setter(Type value) {   \
    Lock lock(mutex_);                       \
    fields_.getter = std::move(value);       \
  }

SONORELL_FIELD(float, playbackRate, setPlaybackRate)
SONORELL_FIELD(uint64_t, chapterNumber, setChapterNumber)
SONORELL_FIELD(uint64_t, partNumber, setPartNumber)
SONORELL_FIELD(std::optional<std::string>, sessionKey, setSessionKey)
SONORELL_FIELD(std::optional<std::string>, playlistToken, setPlaylistToken)
SONORELL_FIELD(std::optional<Date>, timestamp, setTimestamp)
SONORELL_FIELD(uint64_t, startOffset, setStartOffset)
SONORELL_FIELD(uint64_t, currentSecondOffset, setCurrentSecondOffset)
SONORELL_FIELD(uint64_t, finalOffset, setFinalOffset)
SONORELL_FIELD(uint64_t, screenState, setScreenState)
SONORELL_FIELD(uint64_t, applicationState, setApplicationState)
SONORELL_FIELD(uint64_t, listeningMethod, setListeningMethod)

#undef SONORELL_FIELD

json QLListenEvent::encodeWithCoder() const {
  Fields f;
  {
    Lock lock(mutex_);
    f = fields_;
  }
  json coded = json::object();
  coded[kPartNumberKey] = f.partNumber;
  coded[kChapterNumberKey] = f.chapterNumber;
  coded[kStartOffsetKey] = f.startOffset;
  coded[kFinishOffsetKey] = f.finalOffset;
  coded[kCurrentSecondOffsetKey] = f.currentSecondOffset;
  if (f.timestamp) {
    coded[kCompletedDateKey] =
        std::chrono::duration_cast<std::chrono::nanoseconds>(f.timestamp->time_since_epoch())
            .count();
  }
  coded[kListeningMethodKey] = f.listeningMethod;
  coded[kBackgroundStateKey] = f.applicationState;
  coded[kScreenStateKey] = f.screenState;
  // Whole numbers only, truncated toward zero; a rate outside int64 (or NaN) is stored as 0.
  double rate = std::trunc(static_cast<double>(f.playbackRate));
  bool representable = std::isfinite(rate) && rate > -9.2e18 && rate < 9.2e18;
  coded[kSpeedControlKey] = representable ? static_cast<int64_t>(rate) : int64_t{0};
  if (f.sessionKey) coded[kSessionKeyKey] = *f.sessionKey;
  if (f.playlistToken) coded[kPlaylistTokenKey] = *f.playlistToken;
  return coded;
}

std::shared_ptr<QLListenEvent> QLListenEvent::initWithCoder(const json& coded) {
  if (!coded.is_object()) return nullptr;
  Fields f;
  uint64_t backgroundState = 0;
  bool ok = readUnsigned(coded, kPartNumberKey, f.partNumber) &&
            readUnsigned(coded, kChapterNumberKey, f.chapterNumber) &&
            readUnsigned(coded, kStartOffsetKey, f.startOffset) &&
            readUnsigned(coded, kFinishOffsetKey, f.finalOffset) &&
            readUnsigned(coded, kCurrentSecondOffsetKey, f.currentSecondOffset) &&
            readUnsigned(coded, kListeningMethodKey, f.listeningMethod) &&
            readUnsigned(coded, kBackgroundStateKey, backgroundState) &&
            readUnsigned(coded, kScreenStateKey, f.screenState) &&
            readString(coded, kSessionKeyKey, f.sessionKey) &&
            readString(coded, kPlaylistTokenKey, f.playlistToken);
  if (!ok) return nullptr;
  f.applicationState = backgroundState;

  auto speed = coded.find(kSpeedControlKey);
  if (speed != coded.end() && !speed->is_null()) {
    if (!speed->is_number_integer()) return nullptr;
    f.playbackRate = static_cast<float>(speed->get<int64_t>());
  }
  auto date = coded.find(kCompletedDateKey);
  if (date != coded.end() && !date->is_null()) {
    if (!date->is_number_integer()) return nullptr;
    f.timestamp = Date(
        std::chrono::duration_cast<Date::duration>(std::chrono::nanoseconds(date->get<int64_t>())));
  }

  auto event = std::make_shared<QLListenEvent>();
  event->fields_ = std::move(f);
  return event;
}

std::string QLListenEvent::description() const {
  return stringWithFormat("QSOListenEvent %@",
                          describe(QLListenEventSerializer::serializeListeningEvent(*this)));
}

}  // namespace sonorell
