// The engine's error domain and the fixed descriptions of its failure codes, exported so that a
// host can compare what it receives. Constants only.
#pragma once

#include <cstdint>
#include <string_view>

namespace sonorell {

// Codes of download failures, as errors of QSOErrorDomain carry them.
enum class QSODownloadFailureCode : int64_t {
  Unknown = 10000,
  UnknownServerResponse = 10001,
  InvalidChapterDownloadRequest = 11000,
  UnknownDownloadChapterLookup = 11001,
  UnknownStreamChapterLookup = 11002,
  ChapterAlreadyInProgress = 11003,
  InvalidAudiobookDownloadRequest = 11004,
  MetadataUnavailable = 11005,
  MetadataInvalidSession = 11006,
  CouldNotConstructRequest = 11007,
  DownloadUnauthorized = 11008,
  InternalServerError = 11009,
  RequestTimedOut = 11010,
  InvalidSession = 12000,
  InvalidLicenseID = 12001,
  CheckoutIDExpired = 12002,
  SetupFailed = 12003,
  DownloadRequestFailedSaveToDatabase = 12004,
  AudiobookDownloadStatusFailedSaveToDatabase = 12005,
  ChapterDownloadStatusFailedSaveToDatabase = 12006,
  DownloadPlaylistInvalidSession = 13000,
  DownloadPlaylistBadResponse = 13001,
  DownloadPlaylistCannotBeLoaded = 13002,
  DownloadAudioBadResponse = 15000,
  DownloadAudioMoveFailure = 15001,
  FileIncomplete = 15002,
  DownloadCancelled = 16000,
  BadJSON = 17000,
  NoSpace = 18000,
  NetworkSecurityError = 19000,
};

// Codes of playback failures, as errors of QSOErrorDomain carry them.
enum class QSOPlaybackFailureCode : int64_t {
  FileNotFound = 20000,
  ResourceCannotBeLoaded = 20001,
  InvalidAudiobookID = 20002,
  InvalidChapter = 20003,
  PlaylistCannotBeLoaded = 20004,
  ServerSideError = 20005,
  InvalidLicenseID = 20006,
  Unknown = 20007,
  UnknownServerResponse = 20008,
  MetadataUnavailable = 20009,
  UnableToPlayback = 21000,
  CellularProhibited = 21001,
  PlayerItemFailed = 22000,
  PlaybackExtendedStall = 22001,
  PlayerStatusUnknown = 22002,
  PlayerEarlyFailure = 22003,
  PlayerEarlyEnd = 22004,
  QueueLoadFailure = 22005,
  PlaybackUnauthorized = 23000,
  StreamingUnavailable = 24000,
  StreamingURLError = 24001,
  FileOpenFailure = 25000,
  FileReadFailure = 25001,
  FileNoDataFailure = 25002,
  FileSeekFailure = 25003,
  AudioSessionActivationFailure = 26000,
};

// The domain of every error the engine creates (the library's bundle identifier).
inline constexpr std::string_view QSOErrorDomain = "io.sonorell.Sonorell";

// Descriptions of download failures (codes 10000 to 19000).
inline constexpr std::string_view QSODownloadFailureUnknownDescription =
    "The download failed for an unknown reason";  // 10000
inline constexpr std::string_view QSODownloadFailureUnknownServerResponseDescription =
    "The download failed for an unknown reason, unknown server response received";  // 10001
inline constexpr std::string_view QSODownloadFailureInvalidChapterDownloadRequestDescription =
    "The chapter that was requested to be downloaded was not found in the specified audiobook's "
    "metadata, the licenseID was missing, or the request was already used";  // 11000
inline constexpr std::string_view QSODownloadFailureUnknownDownloadChapterLookupDescription =
    "A chapter download in progress attempted to look up a chapter that was not found in the "
    "specified audiobook";  // 11001
inline constexpr std::string_view QSODownloadFailureUnknownStreamChapterLookupDescription =
    "A chapter stream in progress attempted to look up a chapter that was not found in the "
    "specified audiobook";  // 11002
inline constexpr std::string_view QSODownloadFailureChapterAlreadyInProgressDescription =
    "All of the chapters that were requested to be downloaded had a status that is not equal to "
    "DownloadStatusNotDownloaded";  // 11003
inline constexpr std::string_view QSODownloadFailureInvalidAudiobookDownloadRequestDescription =
    "The audiobookID that was requested was not valid or was not found on the server";  // 11004
inline constexpr std::string_view QSODownloadFailureMetadataUnavailableDescription =
    "Could not fetch the requested audiobook's metadata from Sonorell";  // 11005
inline constexpr std::string_view QSODownloadFailureMetadataInvalidSessionDescription =
    "The session key being used for getting metadata before a download is invalid";  // 11006
inline constexpr std::string_view QSODownloadFailureCouldNotConstructRequestDescription =
    "Could not construct a request";  // 11007
inline constexpr std::string_view QSODownloadFailureDownloadUnauthorizedDescription =
    "The download failed due to being unauthorized";  // 11008
inline constexpr std::string_view QSODownloadFailureInternalServerErrorDescription =
    "The download failed, internal server error";  // 11009
inline constexpr std::string_view QSODownloadFailureRequestTimedOutDescription =
    "The request timed out while trying to retrieve the playlist";  // 11010
inline constexpr std::string_view QSODownloadFailureInvalidLicenseIDDescription =
    "The licenseID for this download is invalid";  // 12001
inline constexpr std::string_view QSODownloadFailureCheckoutIDExpiredDescription =
    "The checkout ID for this audiobook has expired";  // 12002
inline constexpr std::string_view QSODownloadFailureSetupFailedDescription =
    "Setup for the download has failed";  // 12003
inline constexpr std::string_view QSODownloadFailureDownloadRequestFailedSaveToDatabaseDescription =
    "The download request failed to save to the database";  // 12004
inline constexpr std::string_view
    QSODownloadFailureAudiobookDownloadStatusFailedSaveToDatabaseDescription =
        "The audiobook download status failed to save to the database";  // 12005
inline constexpr std::string_view
    QSODownloadFailureChapterDownloadStatusFailedSaveToDatabaseDescription =
        "A chapter download status failed to save to the database";  // 12006
inline constexpr std::string_view QSODownloadFailureDownloadPlaylistInvalidSessionDescription =
    "The session key for this download is invalid";  // 13000
inline constexpr std::string_view QSODownloadFailureDownloadPlaylistBadResponseDescription =
    "An error occured while getting a playlist to download";  // 13001
inline constexpr std::string_view QSODownloadFailureDownloadPlaylistCannotBeLoadedDescription =
    "The playlist cannot be loaded at this time";  // 13002
inline constexpr std::string_view QSODownloadFailureDownloadAudioBadResponseDescription =
    "An error occured while trying to download an audio file";  // 15000
inline constexpr std::string_view QSODownloadFailureDownloadAudioMoveFailureDescription =
    "Moving the downloaded file a second time (after deleting) failed";  // 15001
inline constexpr std::string_view QSODownloadFailureFileIncompleteDescription =
    "The downloaded file was not the size that it was reported to be ";  // 15002
inline constexpr std::string_view QSODownloadFailureDownloadCancelledDescription =
    "The chapter download in progress was cancelled";  // 16000
inline constexpr std::string_view QSODownloadFailureBadJSONDescription =
    "The JSON from the server failed to serialize";  // 17000
inline constexpr std::string_view QSODownloadFailureNoSpaceDescription =
    "The system reported that there was no storage space left on the device.";  // 18000
inline constexpr std::string_view QSODownloadFailureNetworkSecurityErrorDescription =
    "A network security error occurred.";  // 19000

// Descriptions of playback failures (codes 20000 to 26000).
inline constexpr std::string_view QSOPlaybackFailureFileNotFoundDescription =
    "The requested file was not found. The player is configured to halt in this condition";  // 20000
inline constexpr std::string_view QSOPlaybackFailureResourceCannotBeLoadedDescription =
    "The file is not on disk, and no streaming URL could be generated.";  // 20001
inline constexpr std::string_view QSOPlaybackFailureInvalidAudiobookIDDescription =
    "The audiobookID that was requested was not found in the database for playback";  // 20002
inline constexpr std::string_view QSOPlaybackFailureInvalidChapterDescription =
    "The chapter that was requested to be played was not found in the specified audiobook";  // 20003
inline constexpr std::string_view QSOPlaybackFailurePlaylistCannotBeLoaded =
    "The playlist could not be loaded at this time";  // 20004
inline constexpr std::string_view QSOPlaybackFailureServerSideErrorDescription =
    "The playlist could not be retrieved because of a server side error";  // 20005
inline constexpr std::string_view QSOPlaybackFailureInvalidLicenseIDDescription =
    "The licenseID is invalid.";  // 20006
inline constexpr std::string_view QSOPlaybackFailureUnknownDescription =
    "An unknown error occured";  // 20007
inline constexpr std::string_view QSOPlaybackFailureUnknownServerResponseDescription =
    "The playback failed for an unknown reason, unknown server response received";  // 20008
inline constexpr std::string_view QSOPlaybackFailureMetadataUnavilableDescription =
    "The playback failed because metadata was unavailable to be fetched";  // 20009
inline constexpr std::string_view QSOPlaybackFailureUnableToPlaybackDescription =
    "The playback request timed out while trying to contact the internal webserver. Recovery was "
    "attempted and failed. Network traffic may be restricted";  // 21000
inline constexpr std::string_view QSOPlaybackFailureCellularPohibitedDescription =
    "The playback request failed because the file is not on disk, and preferences limit streaming "
    "to WiFi.";  // 21001
inline constexpr std::string_view QSOPlaybackFailureAVPlayerItemFailedDescription =
    "Something went wrong, the AVPlayerItem status changed to failed.";  // 22000
inline constexpr std::string_view QSOPlaybackFailurePlaybackExtendedStallDescription =
    "The AVPlayer item stalled and did not recover in time.";  // 22001
inline constexpr std::string_view QSOPlaybackFailureAVPlayerStatusUnknownErrorDescription =
    "The AVPlayerItem status was switched to unknown after being started.";  // 22002
inline constexpr std::string_view QSOPlaybackFailureAVPlayerEarlyFailureDescription =
    "Something went wrong, The AVPlayerItem that was loaded into the player had a failed "
    "status.";  // 22003
inline constexpr std::string_view QSOPlaybackFailureAVPlayerEarlyEndDescription =
    "The AVPlayerItem ended before it reached its duration.";  // 22004
inline constexpr std::string_view QSOPlaybackFailureQueueLoadFailureDescription =
    "The queue failed to be filled because the next chapter could not be found.";  // 22005
inline constexpr std::string_view QSOPlaybackFailurePlaybackUnauthorizedDescription =
    "The AVPlayerItem failed to stream due to unauthorized. The session or audio key may have "
    "expired.";  // 23000
inline constexpr std::string_view QSOPlaybackFailureStreamingUnavailableDescription =
    "The streaming URLs did not get returned.";  // 24000
inline constexpr std::string_view QSOPlaybackFailureStreamingURLErrorDescription =
    "The list of URLS was returned with an error.";  // 24001
inline constexpr std::string_view QSOPlaybackFailureFileOpenFailureDescription =
    "The requested file could not be opened for playback";  // 25000
inline constexpr std::string_view QSOPlaybackFailureFileReadFailureDescription =
    "The requested file could not be read for playback";  // 25001
inline constexpr std::string_view QSOPlaybackFailureFileNoDataFailureDescription =
    "The requested data could not be read from the file";  // 25002
inline constexpr std::string_view QSOPlaybackFailureFileSeekFailureDescription =
    "Could not seek to the required location in the requested file";  // 25003
inline constexpr std::string_view QSOPlaybackFailureAVAudioSessionActivationFailureDescription =
    "Setting the AVAudioSession to active failed. Playback will not continue without it.";  // 26000

}  // namespace sonorell
