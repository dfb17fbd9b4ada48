/// The names of the notifications the engine posts and the keys of their user-info dictionaries.
/// Hosts observe these values through NotificationCenter::defaultCenter(); they never change.
/// @file
///
/// Every notification is posted on the engine's serial notifications queue, in posting order,
/// off the main thread; Notification::userInfo holds the keys listed with each name. Chapter
/// notifications carry a QSOChapterDescription under QSOChapterDescriptionUserInfoKey,
/// audiobook notifications the audiobook's identifier under QSOAudiobookIDUserInfoKey, request
/// notifications the request's identifier under QSODownloadRequestIDUserInfoKey (and its
/// audiobook under QSOAudiobookIDUserInfoKey). Failures and cancellations add an Error of
/// QSOErrorDomain under QSOSonorellErrorUserInfoKey.
#pragma once

#include <string_view>

namespace sonorell {

/// @name Download notifications
/// Posted by QSODownloadEngine and by start-up verification.
///@{

/// A request's audiobook has transfers scheduled and none started (request keys).
inline constexpr std::string_view QSOAudiobookDownloadStagedNotification =
    "QSOAudiobookDownloadStaged";
/// The audiobook's first transfer of a request has started (request keys).
inline constexpr std::string_view QSOAudiobookDownloadStartedNotification =
    "QSOAudiobookDownloadStarted";
/// Every chapter of the audiobook is on disk (request keys).
inline constexpr std::string_view QSOAudiobookDownloadSuccessNotification =
    "QSOAudiobookDownloadSuccess";
/// A request for the audiobook failed (request keys and the error).
inline constexpr std::string_view QSOAudiobookDownloadFailedNotification =
    "QSOAudiobookDownloadFailed";
/// The audiobook's transfers were stopped by a pause, cancel or delete (audiobook key and
/// error 16000).
inline constexpr std::string_view QSOAudiobookDownloadCancelledNotification =
    "QSOAudiobookDownloadCancelled";
/// QSODownloadEngine::pauseForAudiobookID() has stopped the audiobook (audiobook key).
inline constexpr std::string_view QSOAudiobookDownloadPausedNotification =
    "QSOAudiobookDownloadPaused";
/// The audiobook's files were removed (audiobook key).
inline constexpr std::string_view QSOAudiobookDeleteSuccessNotification =
    "QSOAudiobookDeleteSuccess";
/// A chapter's transfer is scheduled (chapter and request keys).
inline constexpr std::string_view QSOChapterDownloadStagedNotification = "QSOChapterDownloadStaged";
/// A chapter's transfer has started (chapter and request keys).
inline constexpr std::string_view QSOChapterDownloadStartedNotification =
    "QSOChapterDownloadStarted";
/// A chapter's file is in place and of the right size (chapter and request keys).
inline constexpr std::string_view QSOChapterDownloadSuccessNotification =
    "QSOChapterDownloadSuccess";
/// A chapter's transfer failed (chapter and request keys and the error; the error's user info
/// may hold QSODownloadFailureResolutionCodeKey).
inline constexpr std::string_view QSOChapterDownloadFailedNotification = "QSOChapterDownloadFailed";
/// A single chapter's download was cancelled (chapter key and error 16000).
inline constexpr std::string_view QSOChapterDownloadCancelledNotification =
    "QSOChapterDownloadCancelled";
/// A chapter's file was removed (chapter key); posted even when there was no file.
inline constexpr std::string_view QSOChapterDeleteSuccessNotification = "QSOChapterDeleteSuccess";
/// Every chapter of the request is on disk; the request is finished (request keys).
inline constexpr std::string_view QSODownloadRequestSuccessNotification =
    "QSODownloadRequestSuccess";
/// The request failed and is finished (request keys and the error).
inline constexpr std::string_view QSODownloadRequestFailedNotification = "QSODownloadRequestFailed";
/// The request's transfers were stopped (request keys and error 16000); a pause follows with
/// QSODownloadRequestPausedNotification.
inline constexpr std::string_view QSODownloadRequestCancelledNotification =
    "QSODownloadRequestCancelled";
/// The request was paused and forgotten (request keys).
inline constexpr std::string_view QSODownloadRequestPausedNotification = "QSODownloadRequestPaused";
/// Start-up verification (QSOSonorell::didFinishLaunching) is over: the status database agrees
/// with the disk and stored requests have been taken up. No user info.
inline constexpr std::string_view QSODatabaseVerificationCompleteNotification =
    "QSODatabaseVerificationComplete";
/// Verification corrected an audiobook's status (audiobook key).
inline constexpr std::string_view QSOAuditAudiobookStatusUpdatedNotification =
    "QSOAuditAudiobookStatusUpdated";
/// Verification deleted a chapter file nobody wanted or reset a chapter whose file was missing
/// (chapter key).
inline constexpr std::string_view QSOAuditChapterDeletedNotification = "QSOAuditChapterDeleted";
///@}

/// Posted when the application goes to the background, with { "background": "YES" } (a string).
inline constexpr std::string_view QLBackgroundedNotification = "QLBackgrounded";

/// @name Playback notifications
/// Posted by QSOPlaybackEngine. Chapter notifications name the chapter they are about.
///@{

/// A chapter became the player's current item (chapter key).
inline constexpr std::string_view QSOPlaybackChapterLoadedNotification = "QSOChapterLoaded";
/// The chapter started playing (chapter key; QSOPlaybackStreamingUserInfoKey).
inline constexpr std::string_view QSOPlaybackChapterStartedNotification =
    "QSOChapterPlaybackStarted";
/// Playback paused (chapter key; QSOPlaybackChapterPausedUserInfoKey says who paused).
inline constexpr std::string_view QSOPlaybackChapterPausedNotification = "QSOChapterPlaybackPaused";
/// QSOPlaybackEngine::pause() found nothing loaded to pause.
inline constexpr std::string_view QSOPlaybackChapterPausedFailedNotification =
    "QSOChapterPlaybackPausedFailed";
/// The chapter played to its end (chapter key); the next one follows, if any.
inline constexpr std::string_view QSOPlaybackChapterCompleteNotification =
    "QSOChapterPlaybackComplete";
/// Playback of the chapter failed (chapter key and the error, a QSOPlaybackFailureCode); the
/// audiobook is unloaded next (reason QSOPlaybackUnloadedReasonFailure).
inline constexpr std::string_view QSOPlaybackChapterFailedNotification = "QSOChapterPlaybackFailed";
/// A seek (QSOPlaybackEngine::setCurrentOffset, or the start offset) has completed (chapter key).
inline constexpr std::string_view QSOPlaybackChapterOffsetCompletedNotification =
    "QSOChapterOffsetCompleted";
/// The last chapter played to its end (audiobook key); the audiobook is unloaded next (reason
/// QSOPlaybackUnloadedReasonAudiobookComplete).
inline constexpr std::string_view QSOPlaybackAudiobookCompleteNotification =
    "QSOAudiobookPlaybackComplete";
/// Nothing is loaded any more (audiobook key; QSOPlaybackUnloadedReasonUserInfoKey).
inline constexpr std::string_view QSOPlaybackAudiobookUnloadedNotification = "QSOAudiobookUnloaded";
/// Playback stalled waiting for bytes (chapter key).
inline constexpr std::string_view QSOPlaybackBufferingStartNotification = "QSOBufferingStart";
/// Playback goes on after a stall (chapter key).
inline constexpr std::string_view QSOPlaybackBufferingEndNotification = "QSOBufferingEnd";
/// Once per second of content while playing (chapter key; QSOCurrentOffsetUserInfoKey).
inline constexpr std::string_view QSOPlaybackProgressUpdateNotification =
    "QSOPlaybackProgressUpdate";
/// QSOPlaybackEngine::setCurrentRate() took effect (QSOPlaybackCurrentRateUserInfoKey).
inline constexpr std::string_view QSOPlaybackRateCompletedNotification = "QSOPlaybackRateCompleted";
/// Exported for hosts that used it; the engine does not post it.
inline constexpr std::string_view QSOPlaybackStreamingRequestStartedNotification =
    "QSOStreamingRequestStarted";
/// A listening update was refused (QSOFailedListenEventUserInfoKey); playback goes on.
inline constexpr std::string_view QSOListenEventFailureNotification = "QSOListenEventFailure";
///@}

/// @name User-info keys
///@{
/// The audiobook's identifier (a string).
inline constexpr std::string_view QSOAudiobookIDUserInfoKey = "audiobookID";
/// The chapter (a QSOChapterDescription, read with Value::getIf<QSOChapterDescription>()).
inline constexpr std::string_view QSOChapterDescriptionUserInfoKey = "ChapterDescription";
/// The download request's QSODownloadRequest::requestIdentifier() (a string).
inline constexpr std::string_view QSODownloadRequestIDUserInfoKey = "DownloadRequestID";
/// The failure (an ErrorPtr of QSOErrorDomain; Value::asError()).
inline constexpr std::string_view QSOSonorellErrorUserInfoKey = "SonorellError";
/// In a download failure's error user info: how the failure may be resolved (a number).
inline constexpr std::string_view QSODownloadFailureResolutionCodeKey =
    "QSODownloadFailureResolutionCode";
/// The playback offset in whole seconds (an unsigned number).
inline constexpr std::string_view QSOCurrentOffsetUserInfoKey = "CurrentOffset";
/// The playback rate (a number).
inline constexpr std::string_view QSOPlaybackCurrentRateUserInfoKey = "CurrentRate";
/// Who paused: a QSOPlaybackPausedContext value (an unsigned number).
inline constexpr std::string_view QSOPlaybackChapterPausedUserInfoKey = "PlaybackChapterPaused";
/// Whether the chapter plays from a stream rather than from disk (a boolean).
inline constexpr std::string_view QSOPlaybackStreamingUserInfoKey = "Streaming";
/// Why the audiobook was unloaded: a QSOPlaybackUnloadedReason value (an unsigned number).
inline constexpr std::string_view QSOPlaybackUnloadedReasonUserInfoKey = "UnloadReason";
/// What the refused listen event held (a string).
inline constexpr std::string_view QSOFailedListenEventUserInfoKey = "FailedListenEvent";
///@}

}  // namespace sonorell
