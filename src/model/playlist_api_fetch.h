// Fetches an audiobook's playlist (POST .../{id}/playlists with the license) and decodes it.
// Stateless; the completion runs on the HTTP client's queue.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "model/playlist.h"
#include "platform/net/http_client.h"
#include "sonorell/error.h"

namespace sonorell {

class QSOPlaylistAPIFetch {
 public:
  // Exactly one of playlist and error is set. Errors are the playlist fetch's low codes
  // (10 bad gateway, 15 gateway time-out, 20 not found, 25 undecodable, 30 other, 35 bad
  // request, 40 unauthorized), an API error document's own error, or the transport error as is.
  using Completion = std::function<void(std::optional<QSOPlaylist>, ErrorPtr)>;

  static void fetchPlaylist(HttpClient& http, const std::string& audiobookID,
                            const std::string& licenseID, const std::string& sessionKey,
                            Completion completion);
};

}  // namespace sonorell
