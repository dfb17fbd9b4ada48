// Maps the low codes of the content-API clients (10 to 70) into the download (10000s) and
// playback (20000s) failure layers. Codes not in a table pass unchanged. Stateless.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace sonorell {

class QSOErrorTransformer {
 public:
  static std::shared_ptr<QSOErrorTransformer> sharedTransformer();

  int64_t transformPlaylistErrorToDownloadEngineError(int64_t code) const;
  int64_t transformAPIFetchErrorToDownloadEngineError(int64_t code) const;
  // Playlist mapping, then API-fetch mapping.
  int64_t transformErrorToDownloadFailure(int64_t code) const;

  int64_t transformPlaylistErrorToPlaybackEngineError(int64_t code) const;
  int64_t transformAPIFetchErrorToPlaybackEngineError(int64_t code) const;
  int64_t transformErrorToPlaybackFailure(int64_t code) const;

  // An error document of the content API becomes a download failure: unauthorized (11008) for
  // error numbers 4011 and 4012, an unknown server response (10001) otherwise, described as
  // "Error: <description of the code> code: <document code> Message: <document message>".
  static int64_t codeForAPIErrorNumber(int64_t errorNumber);
  static std::string descriptionForAPIError(int64_t code, std::string_view documentCode,
                                            std::string_view message);
};

}  // namespace sonorell
