#include "analytics/listen_event_serializer.h"

#include <time.h>

#include <cstdio>

#include "platform/dispatch/clock.h"

namespace sonorell {

namespace {

// The service's fixed table. It does not match the values the playback engine records (3 is
// its Bluetooth), and the service's reports depend on exactly this mapping, so it stays.
std::string pathToEar(uint64_t listeningMethod) {
  switch (listeningMethod) {
    case 0:
      return "Wired";
    case 1:
      return "Speaker";
    case 2:
      return "Bluetooth";
    default:
      return "Other";
  }
}

}  // namespace

std::string QLListenEventSerializer::timestampString(Date date) {
  // Whole seconds, rounded toward the past so that a fraction never advances the printed second.
  auto seconds = std::chrono::floor<std::chrono::seconds>(date.time_since_epoch()).count();
  time_t t = static_cast<time_t>(seconds);
  struct tm utc {};
  if (::gmtime_r(&t, &utc) == nullptr) return "";
  char text[64];
  int n = std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d+0000", utc.tm_year + 1900,
                        utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
  if (n <= 0 || static_cast<size_t>(n) >= sizeof text) return "";
  return std::string(text, static_cast<size_t>(n));
}

Dictionary QLListenEventSerializer::serializeListeningEvent(const QLListenEvent& event) {
  Dictionary object;
  object.emplace("background_state", event.applicationState() == 1 ? "Background" : "Foreground");
  object.emplace("chapter_number", event.chapterNumber());
  object.emplace("end_position", event.finalOffset());
  object.emplace("part_number", event.partNumber());
  object.emplace("path_to_ear", pathToEar(event.listeningMethod()));
  object.emplace("speed_control", static_cast<double>(event.playbackRate()));
  object.emplace("start_position", event.startOffset());
  Date when = event.timestamp().value_or(Clock::current()->wallNow());
  object.emplace("timestamp", timestampString(when));
  uint64_t screen = event.screenState();
  if (screen != 2) object.emplace("screen_state", screen == 0 ? "ON" : "OFF");
  if (auto token = event.playlistToken()) object.emplace("playlist_token", *token);
  return object;
}

}  // namespace sonorell
