// The engine's life, scheduling, what tasks and delegates report, and the queries. The pause,
// cancel and delete family is in download_engine_commands.cc.
#include "download/download_engine_core.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <set>

#include "core/error_descriptions.h"
#include "core/error_transformer.h"
#include "core/logging.h"
#include "core/notification_poster.h"
#include "download/audio_download_resume_task.h"
#include "download/audio_download_task.h"
#include "download/integrity_manager.h"
#include "download/metadata_status_recorder.h"
#include "download/progress_manager.h"
#include "persistence/audiobook_status.h"
#include "persistence/download_request_store.h"
#include "persistence/filesystem_helper.h"
#include "sonorell/errors.h"
#include "sonorell/notifications.h"

namespace sonorell {

namespace {

// What success and progress notifications carry as their error code: no error.
constexpr int64_t kNoError = std::numeric_limits<int64_t>::max();

void post(std::string_view name, Dictionary info) {
  QSONotificationPoster::sharedPoster()->postNotificationWithName(name, std::move(info));
}

Dictionary byRequest(const QSODownloadRequest& request, int64_t code = kNoError,
                     std::optional<std::string> description = std::nullopt) {
  return QSONotificationPoster::prepareDictionaryWithDownloadRequest(&request, description, code,
                                                                     nullptr);
}

Dictionary byChapter(const QSOChapterDescription& chapter, const QSODownloadRequest& request) {
  return QSONotificationPoster::prepareDictionaryWithChapterDescription(
      chapter, &request, std::nullopt, kNoError, nullptr);
}

}  // namespace

DownloadEngineCore::DownloadEngineCore(ServicesPtr services)
    : services_(std::move(services)),
      playlistManager_(QSOPlaylistManager::sharedManager()),
      synchronizer_(std::make_shared<TaskSynchronizer>(
          services_->http, std::make_shared<QSOMetadataStatusRecorder>())),
      downloadTaskQueue_(OperationQueue::create("io.sonorell.downloadengine.tasks")),
      lockQueue_(DispatchQueue::create("io.sonorell.downloadengine.concurrency")),
      userInputQueue_(DispatchQueue::create("io.sonorell.downloadengine.input")) {}

void DownloadEngineCore::runOnInputQueue(std::function<void(DownloadEngineCore&)> command) {
  std::weak_ptr<DownloadEngineCore> weak = weak_from_this();
  QSONotificationPoster::runOnQueue(userInputQueue_.load(), [weak, command = std::move(command)] {
    if (auto self = weak.lock()) command(*self);
  });
}

void DownloadEngineCore::disableDispatch() { userInputQueue_.store(nullptr); }

void DownloadEngineCore::waitForInputQueue() {
  if (auto queue = userInputQueue_.load()) queue->sync([] {});
}

std::shared_ptr<QSOStateLock> DownloadEngineCore::stateLockForAudiobookID(
    const std::string& audiobookID) {
  std::shared_ptr<QSOStateLock> lock;
  lockQueue_->sync([&] {
    auto& slot = sizeLocks_[audiobookID];
    if (!slot) slot = std::make_shared<QSOStateLock>(audiobookID + " state Lock");
    lock = slot;
  });
  return lock;
}

// --- starting a request ------------------------------------------------------------------------

void DownloadEngineCore::startDownloadWithRequest(const QSODownloadRequest& request) {
  LogEngineInfo("[DownloadEngine] -(void)startWithRequest: %@", request);
  runOnInputQueue([request](DownloadEngineCore& self) {
    if (!self.validator_.validateRequest(request)) {
      const std::string text(downloadDescriptionForErrorCode(11000));
      post(QSODownloadRequestFailedNotification, byRequest(request, 11000, text));
      post(QSOAudiobookDownloadFailedNotification, byRequest(request, 11000, text));
      return;
    }
    LogEngineVerbose("[DownloadEngine] request valid, scheduling");
    self.scheduleRequest(request);
  });
}

void DownloadEngineCore::scheduleRequest(const QSODownloadRequest& request) {
  if (!QSODownloadRequestDatabaseHelper::saveToDatabase(request)) {
    LogEngineError(
        "[QSODownloadEngine] Something went wrong with saving the downloadRequest to the database");
    post(QSODownloadRequestFailedNotification,
         byRequest(request, 12004, std::string(downloadDescriptionForErrorCode(12004))));
    return;
  }
  beginDownloadOperation(request);
}

void DownloadEngineCore::beginDownloadOperation(const QSODownloadRequest& request) {
  std::weak_ptr<DownloadEngineCore> weak = weak_from_this();
  auto task = QSOAudioDownloadTask::create(
      request,
      [weak, request](ErrorPtr error, std::optional<QSOChapterDescription> chapter) {
        auto self = weak.lock();
        if (!self) return;
        if (error) {
          self->taskFailedForRequest(request, chapter, error->localizedDescription(), error->code,
                                     error->underlyingError());
          QSODownloadRequestDatabaseHelper::deleteFromDatabase(request);
        } else {
          QSODownloadRequestDatabaseHelper::deleteFromDatabase(request);
          self->downloadCompleteForRequest(request);
        }
      },
      weak);
  if (!task->isFinished()) downloadTaskQueue_->addOperation(task);
}

// --- what tasks and delegates report -----------------------------------------------------------

void DownloadEngineCore::fetchAudiobookMetadataForID(const std::string& audiobookID,
                                                     const std::string& sessionKey,
                                                     MetadataCompletion completion) {
  synchronizer_->fetchAudiobookMetadata(audiobookID, sessionKey, std::move(completion));
}

void DownloadEngineCore::fetchPlaylistForAudiobookID(const std::string& audiobookID,
                                                     const std::string& licenseID,
                                                     const std::string& sessionKey,
                                                     PlaylistCompletion completion) {
  synchronizer_->fetchPlaylistMetadata(
      audiobookID, licenseID, sessionKey,
      [completion = std::move(completion)](std::optional<QSOPlaylist> playlist, ErrorPtr error) {
        if (error && error->domain == QSOErrorDomain) {
          auto transformer = QSOErrorTransformer::sharedTransformer();
          int64_t code = transformer->transformPlaylistErrorToDownloadEngineError(error->code);
          code = transformer->transformAPIFetchErrorToDownloadEngineError(code);
          if (code != error->code) {
            error = Error::make(std::string(QSOErrorDomain), code,
                                std::string(downloadDescriptionForErrorCode(code)),
                                error->underlyingError());
          }
        }
        completion(std::move(playlist), std::move(error));
      });
}

void DownloadEngineCore::triggerStagedForAudiobookIdentifier(const std::string& /*audiobookID*/,
                                                             const QSODownloadRequest& request) {
  post(QSOAudiobookDownloadStagedNotification, byRequest(request));
}

void DownloadEngineCore::triggerStagedForChapterDescription(const QSOChapterDescription& chapter,
                                                            const QSODownloadRequest& request) {
  post(QSOChapterDownloadStagedNotification, byChapter(chapter, request));
}

void DownloadEngineCore::triggerStartForChapterDescription(const QSOChapterDescription& chapter,
                                                           const QSODownloadRequest& request) {
  bool audiobookStarted = false;
  bool chapterStarted = false;
  {
    std::lock_guard stateLock(*stateLockForAudiobookID(chapter.audiobookID()));
    if (auto audiobook =
            QSOAudiobookStatus::fetchAudiobookStatusForAudiobookIdentifier(chapter.audiobookID())) {
      const auto status = audiobook->downloadStatus();
      if (status == DownloadStatusNotDownloaded || status == DownloadStatusPartiallyDownloaded ||
          status == DownloadStatusStaged) {
        audiobook->setDownloadStatus(DownloadStatusDownloading);
        audiobook->writeUpdateForProperties({"downloadStatus"});
        audiobookStarted = true;
      }
    }
    if (auto record = QSOChapterStatus::fetchForChapterDescription(chapter)) {
      const auto status = record->downloadStatus();
      if (status == DownloadStatusNotDownloaded || status == DownloadStatusStaged) {
        record->setDownloadStatus(DownloadStatusDownloading);
        record->writeUpdateForProperties({"downloadStatus"});
        chapterStarted = true;
      }
    }
  }
  if (audiobookStarted) post(QSOAudiobookDownloadStartedNotification, byRequest(request));
  if (chapterStarted) post(QSOChapterDownloadStartedNotification, byChapter(chapter, request));
}

void DownloadEngineCore::markChapterDownloadComplete(const QSOChapterDescription& chapter,
                                                     const QSODownloadRequest& request) {
  if (auto record = QSOChapterStatus::fetchForChapterDescription(chapter)) {
    record->setDownloadStatus(DownloadStatusDownloaded);
    record->writeUpdateForProperties({"downloadStatus"});
  }
  post(QSOChapterDownloadSuccessNotification, byChapter(chapter, request));
  otherRequestsLookAgain(request);
  auto audiobook =
      QSOAudiobookStatus::fetchAudiobookStatusForAudiobookIdentifier(chapter.audiobookID());
  if (!audiobook) return;
  QSOIntegrityManager::getNewStatusForAudiobook(*audiobook);
  if (audiobook->downloadStatus() == DownloadStatusDownloaded) {
    post(QSOAudiobookDownloadSuccessNotification, byRequest(request));
  }
}

void DownloadEngineCore::downloadCompleteForRequest(const QSODownloadRequest& request) {
  if (auto audiobook =
          QSOAudiobookStatus::fetchAudiobookStatusForAudiobookIdentifier(request.audiobookID())) {
    QSOIntegrityManager::getNewStatusForAudiobook(*audiobook);
  }
  post(QSODownloadRequestSuccessNotification, byRequest(request));
}

void DownloadEngineCore::taskFailedForRequest(const QSODownloadRequest& request,
                                              const std::optional<QSOChapterDescription>& chapter,
                                              const std::string& errorDescription,
                                              int64_t errorCode, const ErrorPtr& error) {
  LogEngineError(
      "[DownloadEngine] taskFailedForRequest:%@ onChapter:%@ errorDescription:%@ errorCode:%lu "
      "underlyingError:%@",
      request, chapter, errorDescription, errorCode, error);
  if (chapter) handleChapterFailure(*chapter, request, errorDescription, errorCode, error);
  cancelTaskForRequestIdentifier(request.requestIdentifier());
  auto dict = QSONotificationPoster::transformDownloadDictErrorWithChapterDescription(
      std::nullopt, &request, errorDescription, errorCode, error);
  post(QSODownloadRequestFailedNotification, dict);
  post(QSOAudiobookDownloadFailedNotification, std::move(dict));
  QSODownloadRequestDatabaseHelper::deleteFromDatabase(request);
}

void DownloadEngineCore::handleChapterFailure(const QSOChapterDescription& chapter,
                                              const QSODownloadRequest& request,
                                              const std::string& errorDescription,
                                              int64_t errorCode, const ErrorPtr& error) {
  if (auto record = QSOChapterStatus::fetchForChapterDescription(chapter)) {
    record->setDownloadStatus(DownloadStatusNotDownloaded);
    record->writeUpdateForProperties({"downloadStatus"});
  }
  FilesystemHelper::deleteFile(chapter, true);
  post(QSOChapterDownloadFailedNotification,
       QSONotificationPoster::transformDownloadDictErrorWithChapterDescription(
           chapter, &request, errorDescription, errorCode, error));
}

// --- completion handlers and old requests ------------------------------------------------------

void DownloadEngineCore::addCompletionHandler(std::function<void()> handler,
                                              const std::string& sessionIdentifier) {
  LogEngineInfo("[DownloadEngine] Add completion handler for identifier: %@", sessionIdentifier);
  std::lock_guard lock(handlersMutex_);
  if (completionHandlers_.count(sessionIdentifier)) {
    LogEngineError(
        "Error: Got multiple handlers for a single session identifier. This should not happen.");
  }
  completionHandlers_.insert_or_assign(sessionIdentifier, std::move(handler));
}

void DownloadEngineCore::callCompletionHandlerForSession(const std::string& sessionIdentifier) {
  LogEngineInfo("[DownloadEngine] Call completion handler for identifier: %@", sessionIdentifier);
  std::function<void()> handler;
  {
    std::lock_guard lock(handlersMutex_);
    if (auto it = completionHandlers_.find(sessionIdentifier); it != completionHandlers_.end()) {
      handler = std::move(it->second);
      completionHandlers_.erase(it);
    }
  }
  if (!handler) {
    LogEngineInfo("[DownloadEngine] There was no saved completion handler to be called for: %@",
                  sessionIdentifier);
    return;
  }
  LogEngineInfo("[DownloadEngine] Calling completion handler for identifier: %@",
                sessionIdentifier);
  DispatchQueue::main()->async(std::move(handler));
}

void DownloadEngineCore::restartOldRequests() {
  std::weak_ptr<DownloadEngineCore> weak = weak_from_this();
  const auto requests = QSODownloadRequestDatabaseHelper::fetchAllRequests();
  discardSessionsWithoutRequest(requests);
  for (const auto& request : requests) {
    auto task = QSOAudioDownloadResumeTask::create(
        request,
        [weak, request](ErrorPtr error, std::optional<QSOChapterDescription> chapter) {
          auto self = weak.lock();
          if (!self) return;
          if (!error) {
            QSODownloadRequestDatabaseHelper::deleteFromDatabase(request);
            self->downloadCompleteForRequest(request);
            return;
          }
          // Nothing left to fetch: the request stays stored, as it always has.
          if (error->code == 11003) return;
          LogEngineVerbose(
              "[DownloadEngine] restartOldRequests failed for audiobookID: %@ partNum: %d "
              "chapterNum: %d sessionKey: %@ licenseID: %@",
              request.audiobookID(), request.partNumber(), request.chapterNumber(),
              request.sessionKey(), request.licenseID());
          self->taskFailedForRequest(request, chapter, error->localizedDescription(), error->code,
                                     error->underlyingError());
          QSODownloadRequestDatabaseHelper::deleteFromDatabase(request);
        },
        weak);
    if (!task->isFinished()) downloadTaskQueue_->addOperation(task);
  }
}

void DownloadEngineCore::discardSessionsWithoutRequest(
    const std::vector<QSODownloadRequest>& requests) {
  // A process that ended just after its request failed or was paused may leave that request's
  // transfers in the journal; no request will make their session again, so their files would
  // stay for good.
  std::set<std::string> owned;
  for (const auto& request : requests) owned.insert("QLSO_" + request.requestIdentifier());
  const auto& transfers = services()->transfers;
  for (const auto& identifier : transfers->journaledSessionIdentifiers()) {
    if (identifier.starts_with("QLSO_") && !owned.count(identifier)) {
      transfers->discardSession(identifier);
    }
  }
}

// --- queries -----------------------------------------------------------------------------------

uint64_t DownloadEngineCore::statusForAudiobookID(const std::string& audiobookID, uint64_t part,
                                                  uint64_t chapter) {
  LogEngineInfo(
      "[DownloadEngine] -(DownloadStatus)statusForAudiobookID:[%@] partNumber:[%d] "
      "chapterNumber:[%d]",
      audiobookID, part, chapter);
  auto record = QSOChapterStatus::fetchForChapterDescription(
      QSOChapterDescription(audiobookID, part, chapter));
  if (!record) {
    LogEngineVerbose(
        "[DownloadEngine] No info for audiobookID: %@ partNumber:[%d] chapterNumber:[%d]",
        audiobookID, part, chapter);
    return DownloadStatusNotDownloaded;
  }
  LogEngineVerbose(
      "[DownloadEngine] -(%d)statusForAudiobookID:[%@] partNumber:[%d] chapterNumber:[%d]",
      record->downloadStatus(), audiobookID, part, chapter);
  return record->downloadStatus();
}

uint64_t DownloadEngineCore::statusForAudiobookID(const std::string& audiobookID) {
  LogEngineInfo("[DownloadEngine] -(DownloadStatus)statusForAudiobookID:[%@]", audiobookID);
  auto record = QSOAudiobookStatus::fetchAudiobookStatusForAudiobookIdentifier(audiobookID);
  if (!record) {
    LogEngineVerbose("[DownloadEngine] No info for audiobookID: %@", audiobookID);
    return DownloadStatusNotDownloaded;
  }
  LogEngineVerbose("[DownloadEngine] -(%lu)statusForAudiobookID:[%@]", record->downloadStatus(),
                   audiobookID);
  return record->downloadStatus();
}

float DownloadEngineCore::percentageForAudiobookID(const std::string& audiobookID, uint64_t part,
                                                   uint64_t chapter) {
  LogEngineInfo(
      "[DownloadEngine] -(float)percentageForAudiobookID:[%@] partNumber:[%d] chapterNumber:[%d]",
      audiobookID, part, chapter);
  float value = -1;
  if (auto progress =
          QSOProgressManager::sharedManager()->progressForAudiobookID(audiobookID, part, chapter)) {
    value = static_cast<float>(progress->fractionCompleted() * 100.0);
  } else if (auto record = QSOChapterStatus::fetchForChapterDescription(
                 QSOChapterDescription(audiobookID, part, chapter));
             record && record->totalSize() != 0) {
    value = static_cast<float>(record->downloadedSize()) / static_cast<float>(record->totalSize()) *
            100.0f;
  }
  if (value >= 0) {
    value = std::min(value, 100.0f);
    LogEngineVerbose(
        "[DownloadEngine] -(%f)percentageForAudiobookID:[%@] partNumber:[%d] chapterNumber:[%d]",
        value, audiobookID, part, chapter);
    return value;
  }
  LogEngineVerbose(
      "[DownloadEngine] -(0)percentageForAudiobookID:[%@] partNumber:[%d] chapterNumber:[%d]",
      audiobookID, part, chapter);
  return 0;
}

float DownloadEngineCore::percentageForAudiobookID(const std::string& audiobookID) {
  LogEngineInfo("[DownloadEngine] -(float)percentageForAudiobookID:[%@]", audiobookID);
  float value = 0;
  if (auto progress = QSOProgressManager::sharedManager()->progressForAudiobookID(audiobookID)) {
    LogEngineVerbose("[DownloadEngine] Progress coming from progress manager %@", progress);
    value = static_cast<float>(progress->fractionCompleted() * 100.0);
  } else if (auto record =
                 QSOAudiobookStatus::fetchAudiobookStatusForAudiobookIdentifier(audiobookID)) {
    value = static_cast<float>(record->downloadedSize()) / static_cast<float>(record->totalSize()) *
            100.0f;
    LogEngineVerbose("[DownloadEngine] Progress coming from disk %lu / %lu",
                     record->downloadedSize(), record->totalSize());
  } else {
    LogEngineWarning("[DownloadEngine] No info for audiobookID: %@", audiobookID);
  }
  LogEngineVerbose("[DownloadEngine] Progress undoctored %f", value);
  value = (std::isnan(value) || value < 0) ? 0.0f : std::min(value, 100.0f);
  LogEngineVerbose("[DownloadEngine] -(%f)percentageForAudiobookID:[%@]", value, audiobookID);
  return value;
}

std::vector<std::string> DownloadEngineCore::localAudiobookIDs() {
  LogEngineInfo("[DownloadEngine] -(NSArray*)localAudiobookIDs");
  auto ids = QSOAudiobookStatus::fetchAllAudiobookIdentifiers();
  LogEngineVerbose("[DownloadEngine] -(%@)localAudiobookIDs", Value(Array(ids.begin(), ids.end())));
  return ids;
}

}  // namespace sonorell
