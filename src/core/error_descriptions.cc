// The description tables of the two failure layers.
#include "core/error_descriptions.h"

#include <algorithm>
#include <array>
#include <utility>

#include "sonorell/errors.h"

namespace sonorell {

namespace {

using Entry = std::pair<int64_t, std::string_view>;

constexpr std::array<Entry, 30> kDownloadDescriptions = {{
    {10000, QSODownloadFailureUnknownDescription},
    {10001, QSODownloadFailureUnknownServerResponseDescription},
    {11000, QSODownloadFailureInvalidChapterDownloadRequestDescription},
    {11001, QSODownloadFailureUnknownDownloadChapterLookupDescription},
    {11002, QSODownloadFailureUnknownStreamChapterLookupDescription},
    {11003, QSODownloadFailureChapterAlreadyInProgressDescription},
    {11004, QSODownloadFailureInvalidAudiobookDownloadRequestDescription},
    {11005, QSODownloadFailureMetadataUnavailableDescription},
    {11006, QSODownloadFailureMetadataInvalidSessionDescription},
    {11007, QSODownloadFailureCouldNotConstructRequestDescription},
    {11008, QSODownloadFailureDownloadUnauthorizedDescription},
    {11009, QSODownloadFailureInternalServerErrorDescription},
    {11010, QSODownloadFailureRequestTimedOutDescription},
    {12000, QSODownloadFailureDownloadPlaylistInvalidSessionDescription},
    {12001, QSODownloadFailureInvalidLicenseIDDescription},
    {12002, QSODownloadFailureCheckoutIDExpiredDescription},
    {12003, QSODownloadFailureSetupFailedDescription},
    {12004, QSODownloadFailureDownloadRequestFailedSaveToDatabaseDescription},
    {12005, QSODownloadFailureAudiobookDownloadStatusFailedSaveToDatabaseDescription},
    {12006, QSODownloadFailureChapterDownloadStatusFailedSaveToDatabaseDescription},
    {13000, QSODownloadFailureDownloadPlaylistInvalidSessionDescription},
    {13001, QSODownloadFailureDownloadPlaylistBadResponseDescription},
    {13002, QSODownloadFailureDownloadPlaylistCannotBeLoadedDescription},
    {15000, QSODownloadFailureDownloadAudioBadResponseDescription},
    {15001, QSODownloadFailureDownloadAudioMoveFailureDescription},
    {15002, QSODownloadFailureFileIncompleteDescription},
    {16000, QSODownloadFailureDownloadCancelledDescription},
    {17000, QSODownloadFailureBadJSONDescription},
    {18000, QSODownloadFailureNoSpaceDescription},
    {19000, QSODownloadFailureNetworkSecurityErrorDescription},
}};

constexpr std::array<Entry, 26> kPlaybackDescriptions = {{
    {20000, QSOPlaybackFailureFileNotFoundDescription},
    {20001, QSOPlaybackFailureResourceCannotBeLoadedDescription},
    {20002, QSOPlaybackFailureInvalidAudiobookIDDescription},
    {20003, QSOPlaybackFailureInvalidChapterDescription},
    {20004, QSOPlaybackFailurePlaylistCannotBeLoaded},
    {20005, QSOPlaybackFailureServerSideErrorDescription},
    {20006, QSOPlaybackFailureInvalidLicenseIDDescription},
    {20007, QSOPlaybackFailureUnknownDescription},
    {20008, QSOPlaybackFailureUnknownServerResponseDescription},
    {20009, QSOPlaybackFailureMetadataUnavilableDescription},
    {21000, QSOPlaybackFailureUnableToPlaybackDescription},
    {21001, QSOPlaybackFailureCellularPohibitedDescription},
    {22000, QSOPlaybackFailureAVPlayerItemFailedDescription},
    {22001, QSOPlaybackFailurePlaybackExtendedStallDescription},
    {22002, QSOPlaybackFailureAVPlayerStatusUnknownErrorDescription},
    {22003, QSOPlaybackFailureAVPlayerEarlyFailureDescription},
    {22004, QSOPlaybackFailureAVPlayerEarlyEndDescription},
    {22005, QSOPlaybackFailureQueueLoadFailureDescription},
    {23000, QSOPlaybackFailurePlaybackUnauthorizedDescription},
    {24000, QSOPlaybackFailureStreamingUnavailableDescription},
    {24001, QSOPlaybackFailureStreamingURLErrorDescription},
    {25000, QSOPlaybackFailureFileOpenFailureDescription},
    {25001, QSOPlaybackFailureFileReadFailureDescription},
    {25002, QSOPlaybackFailureFileNoDataFailureDescription},
    {25003, QSOPlaybackFailureFileSeekFailureDescription},
    {26000, QSOPlaybackFailureAVAudioSessionActivationFailureDescription},
}};

template <size_t N>
std::string_view lookup(const std::array<Entry, N>& table, int64_t code, std::string_view unknown) {
  auto it =
      std::find_if(table.begin(), table.end(), [code](const Entry& e) { return e.first == code; });
  return it == table.end() ? unknown : it->second;
}

}  // namespace

std::string_view downloadDescriptionForErrorCode(int64_t code) {
  return lookup(kDownloadDescriptions, code, QSODownloadFailureUnknownDescription);
}

std::string_view playbackDescriptionForErrorCode(int64_t code) {
  return lookup(kPlaybackDescriptions, code, QSOPlaybackFailureUnknownDescription);
}

}  // namespace sonorell
