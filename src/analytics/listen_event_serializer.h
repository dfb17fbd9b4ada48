// QLListenEventSerializer: one listen event as the JSON object the analytics service takes.
// Stateless; safe from any thread (the event guards its own fields).
#pragma once

#include <string>

#include "analytics/listen_event.h"
#include "sonorell/value.h"

namespace sonorell {

class QLListenEventSerializer {
 public:
  // The event's JSON object: positions, part and chapter, "path_to_ear", speed, UTC timestamp
  // (now when the event has none), and "screen_state" / "playlist_token" only when known. The
  // session key never appears here: it travels once per request, as a header.
  static Dictionary serializeListeningEvent(const QLListenEvent& event);
  static Dictionary serializeListeningEvent(const QLListenEventPtr& event) {
    return serializeListeningEvent(*event);
  }

  // "yyyy-MM-dd'T'HH:mm:ssZ" in UTC, e.g. "2024-03-01T17:05:09+0000"; "" if it cannot be
  // formatted.
  static std::string timestampString(Date date);
};

}  // namespace sonorell
