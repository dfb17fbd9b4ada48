/// The engine's error domain and the fixed descriptions of its failure codes, exported so that a
/// host can compare what it receives. Constants only.
/// @file
#pragma once

#include <cstdint>
#include <string_view>

namespace sonorell {

/// Codes of download failures, as errors of QSOErrorDomain carry them.
enum class QSODownloadFailureCode : int64_t {
  /// 10000: QSODownloadFailureUnknownDescription.
  Unknown = 10000,
  /// 10001: QSODownloadFailureUnknownServerResponseDescription.
  UnknownServerResponse = 10001,
  /// 11000: QSODownloadFailureInvalidChapterDownloadRequestDescription.
  InvalidChapterDownloadRequest = 11000,
  /// 11001: QSODownloadFailureUnknownDownloadChapterLookupDescription.
  UnknownDownloadChapterLookup = 11001,
  /// 11002: QSODownloadFailureUnknownStreamChapterLookupDescription.
  UnknownStreamChapterLookup = 11002,
  /// 11003: QSODownloadFailureChapterAlreadyInProgressDescription.
  ChapterAlreadyInProgress = 11003,
  /// 11004: QSODownloadFailureInvalidAudiobookDownloadRequestDescription.
  InvalidAudiobookDownloadRequest = 11004,
  /// 11005: QSODownloadFailureMetadataUnavailableDescription.
  MetadataUnavailable = 11005,
  /// 11006: QSODownloadFailureMetadataInvalidSessionDescription.
  MetadataInvalidSession = 11006,
  /// 11007: QSODownloadFailureCouldNotConstructRequestDescription.
  CouldNotConstructRequest = 11007,
  /// 11008: QSODownloadFailureDownloadUnauthorizedDescription.
  DownloadUnauthorized = 11008,
  /// 11009: QSODownloadFailureInternalServerErrorDescription.
  InternalServerError = 11009,
  /// 11010: QSODownloadFailureRequestTimedOutDescription.
  RequestTimedOut = 11010,
  /// 12000: described as 13000, QSODownloadFailureDownloadPlaylistInvalidSessionDescription.
  InvalidSession = 12000,
  /// 12001: QSODownloadFailureInvalidLicenseIDDescription.
  InvalidLicenseID = 12001,
  /// 12002: QSODownloadFailureCheckoutIDExpiredDescription.
  CheckoutIDExpired = 12002,
  /// 12003: QSODownloadFailureSetupFailedDescription.
  SetupFailed = 12003,
  /// 12004: QSODownloadFailureDownloadRequestFailedSaveToDatabaseDescription.
  DownloadRequestFailedSaveToDatabase = 12004,
  /// 12005: QSODownloadFailureAudiobookDownloadStatusFailedSaveToDatabaseDescription.
  AudiobookDownloadStatusFailedSaveToDatabase = 12005,
  /// 12006: QSODownloadFailureChapterDownloadStatusFailedSaveToDatabaseDescription.
  ChapterDownloadStatusFailedSaveToDatabase = 12006,
  /// 13000: QSODownloadFailureDownloadPlaylistInvalidSessionDescription.
  DownloadPlaylistInvalidSession = 13000,
  /// 13001: QSODownloadFailureDownloadPlaylistBadResponseDescription.
  DownloadPlaylistBadResponse = 13001,
  /// 13002: QSODownloadFailureDownloadPlaylistCannotBeLoadedDescription.
  DownloadPlaylistCannotBeLoaded = 13002,
  /// 15000: QSODownloadFailureDownloadAudioBadResponseDescription.
  DownloadAudioBadResponse = 15000,
  /// 15001: QSODownloadFailureDownloadAudioMoveFailureDescription.
  DownloadAudioMoveFailure = 15001,
  /// 15002: QSODownloadFailureFileIncompleteDescription.
  FileIncomplete = 15002,
  /// 16000: QSODownloadFailureDownloadCancelledDescription.
  DownloadCancelled = 16000,
  /// 17000: QSODownloadFailureBadJSONDescription.
  BadJSON = 17000,
  /// 18000: QSODownloadFailureNoSpaceDescription.
  NoSpace = 18000,
  /// 19000: QSODownloadFailureNetworkSecurityErrorDescription.
  NetworkSecurityError = 19000,
};

/// Codes of playback failures, as errors of QSOErrorDomain carry them.
enum class QSOPlaybackFailureCode : int64_t {
  /// 20000: QSOPlaybackFailureFileNotFoundDescription.
  FileNotFound = 20000,
  /// 20001: QSOPlaybackFailureResourceCannotBeLoadedDescription.
  ResourceCannotBeLoaded = 20001,
  /// 20002: QSOPlaybackFailureInvalidAudiobookIDDescription.
  InvalidAudiobookID = 20002,
  /// 20003: QSOPlaybackFailureInvalidChapterDescription.
  InvalidChapter = 20003,
  /// 20004: QSOPlaybackFailurePlaylistCannotBeLoaded.
  PlaylistCannotBeLoaded = 20004,
  /// 20005: QSOPlaybackFailureServerSideErrorDescription.
  ServerSideError = 20005,
  /// 20006: QSOPlaybackFailureInvalidLicenseIDDescription.
  InvalidLicenseID = 20006,
  /// 20007: QSOPlaybackFailureUnknownDescription.
  Unknown = 20007,
  /// 20008: QSOPlaybackFailureUnknownServerResponseDescription.
  UnknownServerResponse = 20008,
  /// 20009: QSOPlaybackFailureMetadataUnavilableDescription.
  MetadataUnavailable = 20009,
  /// 21000: QSOPlaybackFailureUnableToPlaybackDescription.
  UnableToPlayback = 21000,
  /// 21001: QSOPlaybackFailureCellularPohibitedDescription.
  CellularProhibited = 21001,
  /// 22000: QSOPlaybackFailureAVPlayerItemFailedDescription.
  PlayerItemFailed = 22000,
  /// 22001: QSOPlaybackFailurePlaybackExtendedStallDescription.
  PlaybackExtendedStall = 22001,
  /// 22002: QSOPlaybackFailureAVPlayerStatusUnknownErrorDescription.
  PlayerStatusUnknown = 22002,
  /// 22003: QSOPlaybackFailureAVPlayerEarlyFailureDescription.
  PlayerEarlyFailure = 22003,
  /// 22004: QSOPlaybackFailureAVPlayerEarlyEndDescription.
  PlayerEarlyEnd = 22004,
  /// 22005: QSOPlaybackFailureQueueLoadFailureDescription.
  QueueLoadFailure = 22005,
  /// 23000: QSOPlaybackFailurePlaybackUnauthorizedDescription.
  PlaybackUnauthorized = 23000,
  /// 24000: QSOPlaybackFailureStreamingUnavailableDescription.
  StreamingUnavailable = 24000,
  /// 24001: QSOPlaybackFailureStreamingURLErrorDescription.
  StreamingURLError = 24001,
  /// 25000: QSOPlaybackFailureFileOpenFailureDescription.
  FileOpenFailure = 25000,
  /// 25001: QSOPlaybackFailureFileReadFailureDescription.
  FileReadFailure = 25001,
  /// 25002: QSOPlaybackFailureFileNoDataFailureDescription.
  FileNoDataFailure = 25002,
  /// 25003: QSOPlaybackFailureFileSeekFailureDescription.
  FileSeekFailure = 25003,
  /// 26000: QSOPlaybackFailureAVAudioSessionActivationFailureDescription.
  AudioSessionActivationFailure = 26000,
};

/// The domain of every error the engine creates (the library's bundle identifier). Failure
/// notifications carry such an error under QSOSonorellErrorUserInfoKey: its code is a
/// QSODownloadFailureCode or a QSOPlaybackFailureCode and its description the matching text
/// below (QSODownloadEngine::descriptionForErrorCode, QSOPlaybackEngine::descriptionForErrorCode).
inline constexpr std::string_view QSOErrorDomain = "io.sonorell.Sonorell";

/// Descriptions of download failures (codes 10000 to 19000).
/// The description of QSODownloadFailureCode::Unknown (10000).
inline constexpr std::string_view QSODownloadFailureUnknownDescription =
    "The download failed for an unknown reason";
/// The description of QSODownloadFailureCode::UnknownServerResponse (10001).
inline constexpr std::string_view QSODownloadFailureUnknownServerResponseDescription =
    "The download failed for an unknown reason, unknown server response received";
/// The description of QSODownloadFailureCode::InvalidChapterDownloadRequest (11000).
inline constexpr std::string_view QSODownloadFailureInvalidChapterDownloadRequestDescription =
    "The chapter that was requested to be downloaded was not found in the specified audiobook's "
    "metadata, the licenseID was missing, or the request was already used";
/// The description of QSODownloadFailureCode::UnknownDownloadChapterLookup (11001).
inline constexpr std::string_view QSODownloadFailureUnknownDownloadChapterLookupDescription =
    "A chapter download in progress attempted to look up a chapter that was not found in the "
    "specified audiobook";
/// The description of QSODownloadFailureCode::UnknownStreamChapterLookup (11002).
inline constexpr std::string_view QSODownloadFailureUnknownStreamChapterLookupDescription =
    "A chapter stream in progress attempted to look up a chapter that was not found in the "
    "specified audiobook";
/// The description of QSODownloadFailureCode::ChapterAlreadyInProgress (11003).
inline constexpr std::string_view QSODownloadFailureChapterAlreadyInProgressDescription =
    "All of the chapters that were requested to be downloaded had a status that is not equal to "
    "DownloadStatusNotDownloaded";
/// The description of QSODownloadFailureCode::InvalidAudiobookDownloadRequest (11004).
inline constexpr std::string_view QSODownloadFailureInvalidAudiobookDownloadRequestDescription =
    "The audiobookID that was requested was not valid or was not found on the server";
/// The description of QSODownloadFailureCode::MetadataUnavailable (11005).
inline constexpr std::string_view QSODownloadFailureMetadataUnavailableDescription =
    "Could not fetch the requested audiobook's metadata from Sonorell";
/// The description of QSODownloadFailureCode::MetadataInvalidSession (11006).
inline constexpr std::string_view QSODownloadFailureMetadataInvalidSessionDescription =
    "The session key being used for getting metadata before a download is invalid";
/// The description of QSODownloadFailureCode::CouldNotConstructRequest (11007).
inline constexpr std::string_view QSODownloadFailureCouldNotConstructRequestDescription =
    "Could not construct a request";
/// The description of QSODownloadFailureCode::DownloadUnauthorized (11008).
inline constexpr std::string_view QSODownloadFailureDownloadUnauthorizedDescription =
    "The download failed due to being unauthorized";
/// The description of QSODownloadFailureCode::InternalServerError (11009).
inline constexpr std::string_view QSODownloadFailureInternalServerErrorDescription =
    "The download failed, internal server error";
/// The description of QSODownloadFailureCode::RequestTimedOut (11010).
inline constexpr std::string_view QSODownloadFailureRequestTimedOutDescription =
    "The request timed out while trying to retrieve the playlist";
/// The description of QSODownloadFailureCode::InvalidLicenseID (12001).
inline constexpr std::string_view QSODownloadFailureInvalidLicenseIDDescription =
    "The licenseID for this download is invalid";
/// The description of QSODownloadFailureCode::CheckoutIDExpired (12002).
inline constexpr std::string_view QSODownloadFailureCheckoutIDExpiredDescription =
    "The checkout ID for this audiobook has expired";
/// The description of QSODownloadFailureCode::SetupFailed (12003).
inline constexpr std::string_view QSODownloadFailureSetupFailedDescription =
    "Setup for the download has failed";
/// The description of QSODownloadFailureCode::DownloadRequestFailedSaveToDatabase (12004).
inline constexpr std::string_view QSODownloadFailureDownloadRequestFailedSaveToDatabaseDescription =
    "The download request failed to save to the database";
/// The description of QSODownloadFailureCode::AudiobookDownloadStatusFailedSaveToDatabase (12005).
inline constexpr std::string_view
    QSODownloadFailureAudiobookDownloadStatusFailedSaveToDatabaseDescription =
        "The audiobook download status failed to save to the database";
/// The description of QSODownloadFailureCode::ChapterDownloadStatusFailedSaveToDatabase (12006).
inline constexpr std::string_view
    QSODownloadFailureChapterDownloadStatusFailedSaveToDatabaseDescription =
        "A chapter download status failed to save to the database";
/// The description of QSODownloadFailureCode::DownloadPlaylistInvalidSession (13000).
inline constexpr std::string_view QSODownloadFailureDownloadPlaylistInvalidSessionDescription =
    "The session key for this download is invalid";
/// The description of QSODownloadFailureCode::DownloadPlaylistBadResponse (13001).
inline constexpr std::string_view QSODownloadFailureDownloadPlaylistBadResponseDescription =
    "An error occured while getting a playlist to download";
/// The description of QSODownloadFailureCode::DownloadPlaylistCannotBeLoaded (13002).
inline constexpr std::string_view QSODownloadFailureDownloadPlaylistCannotBeLoadedDescription =
    "The playlist cannot be loaded at this time";
/// The description of QSODownloadFailureCode::DownloadAudioBadResponse (15000).
inline constexpr std::string_view QSODownloadFailureDownloadAudioBadResponseDescription =
    "An error occured while trying to download an audio file";
/// The description of QSODownloadFailureCode::DownloadAudioMoveFailure (15001).
inline constexpr std::string_view QSODownloadFailureDownloadAudioMoveFailureDescription =
    "Moving the downloaded file a second time (after deleting) failed";
/// The description of QSODownloadFailureCode::FileIncomplete (15002).
inline constexpr std::string_view QSODownloadFailureFileIncompleteDescription =
    "The downloaded file was not the size that it was reported to be ";
/// The description of QSODownloadFailureCode::DownloadCancelled (16000).
inline constexpr std::string_view QSODownloadFailureDownloadCancelledDescription =
    "The chapter download in progress was cancelled";
/// The description of QSODownloadFailureCode::BadJSON (17000).
inline constexpr std::string_view QSODownloadFailureBadJSONDescription =
    "The JSON from the server failed to serialize";
/// The description of QSODownloadFailureCode::NoSpace (18000).
inline constexpr std::string_view QSODownloadFailureNoSpaceDescription =
    "The system reported that there was no storage space left on the device.";
/// The description of QSODownloadFailureCode::NetworkSecurityError (19000).
inline constexpr std::string_view QSODownloadFailureNetworkSecurityErrorDescription =
    "A network security error occurred.";

/// Descriptions of playback failures (codes 20000 to 26000).
/// The description of QSOPlaybackFailureCode::FileNotFound (20000).
inline constexpr std::string_view QSOPlaybackFailureFileNotFoundDescription =
    "The requested file was not found. The player is configured to halt in this condition";
/// The description of QSOPlaybackFailureCode::ResourceCannotBeLoaded (20001).
inline constexpr std::string_view QSOPlaybackFailureResourceCannotBeLoadedDescription =
    "The file is not on disk, and no streaming URL could be generated.";
/// The description of QSOPlaybackFailureCode::InvalidAudiobookID (20002).
inline constexpr std::string_view QSOPlaybackFailureInvalidAudiobookIDDescription =
    "The audiobookID that was requested was not found in the database for playback";
/// The description of QSOPlaybackFailureCode::InvalidChapter (20003).
inline constexpr std::string_view QSOPlaybackFailureInvalidChapterDescription =
    "The chapter that was requested to be played was not found in the specified audiobook";
/// The description of QSOPlaybackFailureCode::PlaylistCannotBeLoaded (20004).
inline constexpr std::string_view QSOPlaybackFailurePlaylistCannotBeLoaded =
    "The playlist could not be loaded at this time";
/// The description of QSOPlaybackFailureCode::ServerSideError (20005).
inline constexpr std::string_view QSOPlaybackFailureServerSideErrorDescription =
    "The playlist could not be retrieved because of a server side error";
/// The description of QSOPlaybackFailureCode::InvalidLicenseID (20006).
inline constexpr std::string_view QSOPlaybackFailureInvalidLicenseIDDescription =
    "The licenseID is invalid.";
/// The description of QSOPlaybackFailureCode::Unknown (20007).
inline constexpr std::string_view QSOPlaybackFailureUnknownDescription = "An unknown error occured";
/// The description of QSOPlaybackFailureCode::UnknownServerResponse (20008).
inline constexpr std::string_view QSOPlaybackFailureUnknownServerResponseDescription =
    "The playback failed for an unknown reason, unknown server response received";
/// The description of QSOPlaybackFailureCode::MetadataUnavailable (20009).
inline constexpr std::string_view QSOPlaybackFailureMetadataUnavilableDescription =
    "The playback failed because metadata was unavailable to be fetched";
/// The description of QSOPlaybackFailureCode::UnableToPlayback (21000).
inline constexpr std::string_view QSOPlaybackFailureUnableToPlaybackDescription =
    "The playback request timed out while trying to contact the internal webserver. Recovery was "
    "attempted and failed. Network traffic may be restricted";
/// The description of QSOPlaybackFailureCode::CellularProhibited (21001).
inline constexpr std::string_view QSOPlaybackFailureCellularPohibitedDescription =
    "The playback request failed because the file is not on disk, and preferences limit streaming "
    "to WiFi.";
/// The description of QSOPlaybackFailureCode::PlayerItemFailed (22000).
inline constexpr std::string_view QSOPlaybackFailureAVPlayerItemFailedDescription =
    "Something went wrong, the AVPlayerItem status changed to failed.";
/// The description of QSOPlaybackFailureCode::PlaybackExtendedStall (22001).
inline constexpr std::string_view QSOPlaybackFailurePlaybackExtendedStallDescription =
    "The AVPlayer item stalled and did not recover in time.";
/// The description of QSOPlaybackFailureCode::PlayerStatusUnknown (22002).
inline constexpr std::string_view QSOPlaybackFailureAVPlayerStatusUnknownErrorDescription =
    "The AVPlayerItem status was switched to unknown after being started.";
/// The description of QSOPlaybackFailureCode::PlayerEarlyFailure (22003).
inline constexpr std::string_view QSOPlaybackFailureAVPlayerEarlyFailureDescription =
    "Something went wrong, The AVPlayerItem that was loaded into the player had a failed "
    "status.";
/// The description of QSOPlaybackFailureCode::PlayerEarlyEnd (22004).
inline constexpr std::string_view QSOPlaybackFailureAVPlayerEarlyEndDescription =
    "The AVPlayerItem ended before it reached its duration.";
/// The description of QSOPlaybackFailureCode::QueueLoadFailure (22005).
inline constexpr std::string_view QSOPlaybackFailureQueueLoadFailureDescription =
    "The queue failed to be filled because the next chapter could not be found.";
/// The description of QSOPlaybackFailureCode::PlaybackUnauthorized (23000).
inline constexpr std::string_view QSOPlaybackFailurePlaybackUnauthorizedDescription =
    "The AVPlayerItem failed to stream due to unauthorized. The session or audio key may have "
    "expired.";
/// The description of QSOPlaybackFailureCode::StreamingUnavailable (24000).
inline constexpr std::string_view QSOPlaybackFailureStreamingUnavailableDescription =
    "The streaming URLs did not get returned.";
/// The description of QSOPlaybackFailureCode::StreamingURLError (24001).
inline constexpr std::string_view QSOPlaybackFailureStreamingURLErrorDescription =
    "The list of URLS was returned with an error.";
/// The description of QSOPlaybackFailureCode::FileOpenFailure (25000).
inline constexpr std::string_view QSOPlaybackFailureFileOpenFailureDescription =
    "The requested file could not be opened for playback";
/// The description of QSOPlaybackFailureCode::FileReadFailure (25001).
inline constexpr std::string_view QSOPlaybackFailureFileReadFailureDescription =
    "The requested file could not be read for playback";
/// The description of QSOPlaybackFailureCode::FileNoDataFailure (25002).
inline constexpr std::string_view QSOPlaybackFailureFileNoDataFailureDescription =
    "The requested data could not be read from the file";
/// The description of QSOPlaybackFailureCode::FileSeekFailure (25003).
inline constexpr std::string_view QSOPlaybackFailureFileSeekFailureDescription =
    "Could not seek to the required location in the requested file";
/// The description of QSOPlaybackFailureCode::AudioSessionActivationFailure (26000).
inline constexpr std::string_view QSOPlaybackFailureAVAudioSessionActivationFailureDescription =
    "Setting the AVAudioSession to active failed. Playback will not continue without it.";

}  // namespace sonorell
