#include "core/error_transformer.h"

#include "core/error_descriptions.h"
#include "platform/foundation/format.h"

namespace sonorell {

namespace {
struct Mapping {
  int64_t low;
  int64_t download;
  int64_t playback;
};

// Playlist fetch codes. Some choices differ from what the names suggest (a playlist 404 is an
// invalid chapter request for downloads but an invalid license for playback); hosts rely on them.
constexpr Mapping kPlaylist[] = {
    {10, 11009, 20005}, {15, 11010, 20007}, {20, 11000, 20006}, {25, 13002, 20004},
    {30, 10001, 20008}, {35, 12001, 20006}, {40, 11008, 23000},
};
// Metadata fetch codes.
constexpr Mapping kAPIFetch[] = {
    {45, 11008, 23000}, {50, 11009, 20005}, {55, 11010, 20007},
    {60, 11004, 20002}, {65, 10001, 20008}, {70, 11005, 20009},
};

template <size_t N>
int64_t map(const Mapping (&table)[N], int64_t code, bool download) {
  for (const auto& m : table) {
    if (m.low == code) return download ? m.download : m.playback;
  }
  return code;
}
}  // namespace

std::shared_ptr<QSOErrorTransformer> QSOErrorTransformer::sharedTransformer() {
  static const auto transformer = std::make_shared<QSOErrorTransformer>();
  return transformer;
}

int64_t QSOErrorTransformer::transformPlaylistErrorToDownloadEngineError(int64_t code) const {
  return map(kPlaylist, code, true);
}
int64_t QSOErrorTransformer::transformAPIFetchErrorToDownloadEngineError(int64_t code) const {
  return map(kAPIFetch, code, true);
}
int64_t QSOErrorTransformer::transformErrorToDownloadFailure(int64_t code) const {
  return transformAPIFetchErrorToDownloadEngineError(
      transformPlaylistErrorToDownloadEngineError(code));
}
int64_t QSOErrorTransformer::transformPlaylistErrorToPlaybackEngineError(int64_t code) const {
  return map(kPlaylist, code, false);
}
int64_t QSOErrorTransformer::transformAPIFetchErrorToPlaybackEngineError(int64_t code) const {
  return map(kAPIFetch, code, false);
}
int64_t QSOErrorTransformer::transformErrorToPlaybackFailure(int64_t code) const {
  return transformAPIFetchErrorToPlaybackEngineError(
      transformPlaylistErrorToPlaybackEngineError(code));
}

int64_t QSOErrorTransformer::codeForAPIErrorNumber(int64_t errorNumber) {
  return errorNumber == 4011 || errorNumber == 4012 ? 11008 : 10001;
}

std::string QSOErrorTransformer::descriptionForAPIError(int64_t code, std::string_view documentCode,
                                                        std::string_view message) {
  return stringWithFormat("Error: %@ code: %@ Message: %@", downloadDescriptionForErrorCode(code),
                          documentCode, message);
}

}  // namespace sonorell
