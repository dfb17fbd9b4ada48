// The names of the notifications the engine posts and the keys of their user-info dictionaries.
// Hosts observe these values through NotificationCenter::defaultCenter(); they never change.
#pragma once

#include <string_view>

namespace sonorell {

// Notification names.
inline constexpr std::string_view QSOAudiobookDownloadStagedNotification =
    "QSOAudiobookDownloadStaged";
inline constexpr std::string_view QSOAudiobookDownloadStartedNotification =
    "QSOAudiobookDownloadStarted";
inline constexpr std::string_view QSOAudiobookDownloadSuccessNotification =
    "QSOAudiobookDownloadSuccess";
inline constexpr std::string_view QSOAudiobookDownloadFailedNotification =
    "QSOAudiobookDownloadFailed";
inline constexpr std::string_view QSOAudiobookDownloadCancelledNotification =
    "QSOAudiobookDownloadCancelled";
inline constexpr std::string_view QSOAudiobookDownloadPausedNotification =
    "QSOAudiobookDownloadPaused";
inline constexpr std::string_view QSOAudiobookDeleteSuccessNotification =
    "QSOAudiobookDeleteSuccess";
inline constexpr std::string_view QSOChapterDownloadStagedNotification = "QSOChapterDownloadStaged";
inline constexpr std::string_view QSOChapterDownloadStartedNotification =
    "QSOChapterDownloadStarted";
inline constexpr std::string_view QSOChapterDownloadSuccessNotification =
    "QSOChapterDownloadSuccess";
inline constexpr std::string_view QSOChapterDownloadFailedNotification = "QSOChapterDownloadFailed";
inline constexpr std::string_view QSOChapterDownloadCancelledNotification =
    "QSOChapterDownloadCancelled";
inline constexpr std::string_view QSOChapterDeleteSuccessNotification = "QSOChapterDeleteSuccess";
inline constexpr std::string_view QSODownloadRequestSuccessNotification =
    "QSODownloadRequestSuccess";
inline constexpr std::string_view QSODownloadRequestFailedNotification = "QSODownloadRequestFailed";
inline constexpr std::string_view QSODownloadRequestCancelledNotification =
    "QSODownloadRequestCancelled";
inline constexpr std::string_view QSODownloadRequestPausedNotification = "QSODownloadRequestPaused";
inline constexpr std::string_view QSODatabaseVerificationCompleteNotification =
    "QSODatabaseVerificationComplete";
inline constexpr std::string_view QSOAuditAudiobookStatusUpdatedNotification =
    "QSOAuditAudiobookStatusUpdated";
inline constexpr std::string_view QSOAuditChapterDeletedNotification = "QSOAuditChapterDeleted";
// Posted when the application goes to the background, with { "background": "YES" } (a string).
inline constexpr std::string_view QLBackgroundedNotification = "QLBackgrounded";
inline constexpr std::string_view QSOPlaybackChapterLoadedNotification = "QSOChapterLoaded";
inline constexpr std::string_view QSOPlaybackChapterStartedNotification =
    "QSOChapterPlaybackStarted";
inline constexpr std::string_view QSOPlaybackChapterPausedNotification = "QSOChapterPlaybackPaused";
inline constexpr std::string_view QSOPlaybackChapterPausedFailedNotification =
    "QSOChapterPlaybackPausedFailed";
inline constexpr std::string_view QSOPlaybackChapterCompleteNotification =
    "QSOChapterPlaybackComplete";
inline constexpr std::string_view QSOPlaybackChapterFailedNotification = "QSOChapterPlaybackFailed";
inline constexpr std::string_view QSOPlaybackChapterOffsetCompletedNotification =
    "QSOChapterOffsetCompleted";
inline constexpr std::string_view QSOPlaybackAudiobookCompleteNotification =
    "QSOAudiobookPlaybackComplete";
inline constexpr std::string_view QSOPlaybackAudiobookUnloadedNotification = "QSOAudiobookUnloaded";
inline constexpr std::string_view QSOPlaybackBufferingStartNotification = "QSOBufferingStart";
inline constexpr std::string_view QSOPlaybackBufferingEndNotification = "QSOBufferingEnd";
inline constexpr std::string_view QSOPlaybackProgressUpdateNotification =
    "QSOPlaybackProgressUpdate";
inline constexpr std::string_view QSOPlaybackRateCompletedNotification = "QSOPlaybackRateCompleted";
inline constexpr std::string_view QSOPlaybackStreamingRequestStartedNotification =
    "QSOStreamingRequestStarted";
inline constexpr std::string_view QSOListenEventFailureNotification = "QSOListenEventFailure";

// User-info keys.
inline constexpr std::string_view QSOAudiobookIDUserInfoKey = "audiobookID";
inline constexpr std::string_view QSOChapterDescriptionUserInfoKey = "ChapterDescription";
inline constexpr std::string_view QSODownloadRequestIDUserInfoKey = "DownloadRequestID";
inline constexpr std::string_view QSOSonorellErrorUserInfoKey = "SonorellError";
inline constexpr std::string_view QSODownloadFailureResolutionCodeKey =
    "QSODownloadFailureResolutionCode";
inline constexpr std::string_view QSOCurrentOffsetUserInfoKey = "CurrentOffset";
inline constexpr std::string_view QSOPlaybackCurrentRateUserInfoKey = "CurrentRate";
inline constexpr std::string_view QSOPlaybackChapterPausedUserInfoKey = "PlaybackChapterPaused";
inline constexpr std::string_view QSOPlaybackStreamingUserInfoKey = "Streaming";
inline constexpr std::string_view QSOPlaybackUnloadedReasonUserInfoKey = "UnloadReason";
inline constexpr std::string_view QSOFailedListenEventUserInfoKey = "FailedListenEvent";

}  // namespace sonorell
