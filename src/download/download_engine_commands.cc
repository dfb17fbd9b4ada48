// The engine's pause, cancel and delete commands and the resets they share. Every command logs
// its own line, then runs on the input queue; changes to an audiobook's records and files are
// made under its state lock, and notifications are posted after it is released.
#include <limits>

#include "core/logging.h"
#include "core/notification_poster.h"
#include "download/audio_download_task.h"
#include "download/download_engine_core.h"
#include "download/integrity_manager.h"
#include "download/progress_manager.h"
#include "persistence/audiobook_status.h"
#include "persistence/download_request_store.h"
#include "persistence/filesystem_helper.h"
#include "sonorell/errors.h"
#include "sonorell/notifications.h"

namespace sonorell {

namespace {

constexpr int64_t kNoError = std::numeric_limits<int64_t>::max();
constexpr int64_t kCancelled = 16000;

void post(std::string_view name, Dictionary info) {
  QSONotificationPoster::sharedPoster()->postNotificationWithName(name, std::move(info));
}

// An empty identifier: the command's refusal line, and nothing done.
bool refused(const std::string& identifier, const char* line) {
  if (!identifier.empty()) return false;
  LogEngineInfo(line);
  return true;
}

std::optional<std::string> cancelledText() {
  return std::string(QSODownloadFailureDownloadCancelledDescription);
}

}  // namespace

void DownloadEngineCore::otherRequestsLookAgain(const QSODownloadRequest& request) {
  for (const auto& operation : operationsMatching([&](const QSODownloadRequest& other) {
         return other.audiobookID() == request.audiobookID() &&
                other.requestIdentifier() != request.requestIdentifier();
       })) {
    static_cast<QSOAudioDownloadTask&>(*operation).lookAgain();
  }
}

std::vector<OperationPtr> DownloadEngineCore::operationsMatching(
    const std::function<bool(const QSODownloadRequest&)>& predicate) const {
  std::vector<OperationPtr> matching;
  for (auto& operation : downloadTaskQueue_->operations()) {
    auto* task = dynamic_cast<QSOAudioDownloadTask*>(operation.get());
    if (task && predicate(task->request())) matching.push_back(operation);
  }
  return matching;
}

// --- pause -------------------------------------------------------------------------------------

void DownloadEngineCore::pauseRequest(const QSODownloadRequest& request) {
  cancelTaskForRequestIdentifier(request.requestIdentifier());
  {
    std::lock_guard stateLock(*stateLockForAudiobookID(request.audiobookID()));
    post(QSODownloadRequestPausedNotification,
         QSONotificationPoster::prepareDictionaryWithDownloadRequest(&request, std::nullopt,
                                                                     kNoError, nullptr));
  }
  QSODownloadRequestDatabaseHelper::deleteFromDatabase(request);
}

void DownloadEngineCore::pauseDownloadForRequestIdentifier(const std::string& requestIdentifier) {
  LogEngineInfo("[DownloadEngine] -(void)pauseDownloadForRequestIdentifier: [%@]",
                requestIdentifier);
  runOnInputQueue([requestIdentifier](DownloadEngineCore& self) {
    if (refused(
            requestIdentifier,
            "[Download Engine] No valid audiobokID. Exiting pauseDownloadForRequestIdentifier:"))
      return;
    if (auto request =
            QSODownloadRequestDatabaseHelper::fetchRequestForRequestIdentifier(requestIdentifier)) {
      self.pauseRequest(*request);
    }
  });
}

void DownloadEngineCore::pauseAll() {
  LogEngineInfo("[DownloadEngine] -(void)pauseAll");
  runOnInputQueue([](DownloadEngineCore& self) {
    for (const auto& request : QSODownloadRequestDatabaseHelper::fetchAllRequests()) {
      self.pauseRequest(request);
    }
  });
}

void DownloadEngineCore::pauseForAudiobookID(const std::string& audiobookID) {
  LogEngineInfo("[DownloadEngine] -(void)pauseForAudiobookID: [%@]", audiobookID);
  runOnInputQueue([audiobookID](DownloadEngineCore& self) {
    if (refused(audiobookID, "[Download Engine] No valid audiobokID. Exiting pauseForAudiobookID"))
      return;
    self.cancelTasksForAudiobookID(audiobookID);
    {
      std::lock_guard stateLock(*self.stateLockForAudiobookID(audiobookID));
      if (auto audiobook =
              QSOAudiobookStatus::fetchAudiobookStatusForAudiobookIdentifier(audiobookID);
          audiobook && audiobook->downloadStatus() != DownloadStatusDownloaded) {
        audiobook->setDownloadStatus(DownloadStatusPartiallyDownloaded);
        audiobook->writeUpdateForProperties({"downloadStatus"});
      }
    }
    post(QSOAudiobookDownloadPausedNotification,
         QSONotificationPoster::prepareDictionaryWithAudiobookIdentifier(audiobookID, std::nullopt,
                                                                         kNoError, nullptr));
  });
}

// --- cancel ------------------------------------------------------------------------------------

void DownloadEngineCore::cancelRequest(const QSODownloadRequest& request) {
  cancelTaskForRequestIdentifier(request.requestIdentifier());
  {
    std::lock_guard stateLock(*stateLockForAudiobookID(request.audiobookID()));
    resetAndDeleteForRequestIdentifier(request.requestIdentifier());
  }
  QSODownloadRequestDatabaseHelper::deleteFromDatabase(request);
}

void DownloadEngineCore::cancelDownloadForRequestIdentifier(const std::string& requestIdentifier) {
  LogEngineInfo("[DownloadEngine]-(void)cancelForRequestIdentifier:[%@]", requestIdentifier);
  runOnInputQueue([requestIdentifier](DownloadEngineCore& self) {
    auto request =
        requestIdentifier.empty()
            ? std::nullopt
            : QSODownloadRequestDatabaseHelper::fetchRequestForRequestIdentifier(requestIdentifier);
    if (!request) {
      LogEngineInfo("[Download Engine] No valid requestID. Exiting cancelForAudiobookID");
      return;
    }
    self.cancelRequest(*request);
  });
}

void DownloadEngineCore::cancelAll() {
  LogEngineInfo("[DownloadEngine] -(void)cancelAll");
  runOnInputQueue([](DownloadEngineCore& self) {
    for (const auto& request : QSODownloadRequestDatabaseHelper::fetchAllRequests()) {
      self.cancelRequest(request);
    }
  });
}

void DownloadEngineCore::cancelForAudiobookID(const std::string& audiobookID) {
  LogEngineInfo("[DownloadEngine]-(void)cancelForAudiobookID:[%@]", audiobookID);
  runOnInputQueue([audiobookID](DownloadEngineCore& self) {
    if (refused(audiobookID, "[Download Engine] No valid audiobokID. Exiting cancelForAudiobookID"))
      return;
    self.cancelTasksForAudiobookID(audiobookID);
    std::lock_guard stateLock(*self.stateLockForAudiobookID(audiobookID));
    self.resetAndDeleteForAudiobookID(audiobookID);
  });
}

void DownloadEngineCore::cancelForAudiobookID(const std::string& audiobookID, uint64_t part,
                                              uint64_t chapter) {
  LogEngineInfo(
      "[DownloadEngine] -(void)cancelForAudiobookID:[%@] partNumber:[%d] chapterNumber:[%d]",
      audiobookID, part, chapter);
  runOnInputQueue([audiobookID, part, chapter](DownloadEngineCore& self) {
    if (refused(audiobookID,
                "[Download Engine] No valid audiobokID. Exiting cancelForAudiobookID: partNumber: "
                "chapterNumber:"))
      return;
    self.cancelTasksForAudiobookID(audiobookID, part, chapter);
    std::lock_guard stateLock(*self.stateLockForAudiobookID(audiobookID));
    self.resetAndDeleteForAudiobookID(audiobookID, part, chapter);
  });
}

void DownloadEngineCore::cancelTaskForRequestIdentifier(const std::string& requestIdentifier) {
  std::optional<QSODownloadRequest> request;
  auto running = operationsMatching(
      [&](const QSODownloadRequest& r) { return r.requestIdentifier() == requestIdentifier; });
  if (!running.empty()) {
    request = static_cast<QSOAudioDownloadTask&>(*running.front()).request();
    running.front()->cancel();
  } else {
    request = QSODownloadRequestDatabaseHelper::fetchRequestForRequestIdentifier(requestIdentifier);
  }
  if (!request) return;
  LogEngineInfo(
      "[DownloadEngine] -(void)cancelTaskForRequestIdentifier: %@ audiobookID: %@ partNum: %d "
      "chapterNum: %d",
      requestIdentifier, request->audiobookID(), request->partNumber(), request->chapterNumber());
  auto chapters = QSODownloadRequestUtilities::getChaptersInRequest(*request);
  std::erase_if(chapters,
                [](const auto& c) { return c->downloadStatus() == DownloadStatusDownloaded; });
  {
    std::lock_guard stateLock(*stateLockForAudiobookID(request->audiobookID()));
    clearInProgressStateForChapters(chapters, request->audiobookID());
  }
  otherRequestsLookAgain(*request);
  post(QSODownloadRequestCancelledNotification,
       QSONotificationPoster::prepareDictionaryWithDownloadRequest(&*request, cancelledText(),
                                                                   kCancelled, nullptr));
}

void DownloadEngineCore::cancelTasksForAudiobookID(const std::string& audiobookID) {
  for (const auto& operation : operationsMatching(
           [&](const QSODownloadRequest& r) { return r.audiobookID() == audiobookID; })) {
    const auto request = static_cast<QSOAudioDownloadTask&>(*operation).request();
    cancelTaskForRequestIdentifier(request.requestIdentifier());
    QSODownloadRequestDatabaseHelper::deleteFromDatabase(request);
  }
  post(QSOAudiobookDownloadCancelledNotification,
       QSONotificationPoster::prepareDictionaryWithAudiobookIdentifier(audiobookID, cancelledText(),
                                                                       kCancelled, nullptr));
}

void DownloadEngineCore::cancelTasksForAudiobookID(const std::string& audiobookID, uint64_t part,
                                                   uint64_t chapter) {
  // Only a single-chapter request for this very chapter: a request covering more keeps running.
  for (const auto& operation : operationsMatching([&](const QSODownloadRequest& r) {
         return r.audiobookID() == audiobookID && r.partNumber() == part &&
                r.chapterNumber() == chapter && r.downloadType() == DownloadTypeSingleChapter;
       })) {
    const auto request = static_cast<QSOAudioDownloadTask&>(*operation).request();
    cancelTaskForRequestIdentifier(request.requestIdentifier());
    QSODownloadRequestDatabaseHelper::deleteFromDatabase(request);
  }
  post(
      QSOChapterDownloadCancelledNotification,
      QSONotificationPoster::prepareDictionaryWithChapterDescription(
          QSOChapterDescription(audiobookID, part, chapter), cancelledText(), kCancelled, nullptr));
}

// --- delete ------------------------------------------------------------------------------------

void DownloadEngineCore::deleteAudiobookNow(const std::string& audiobookID) {
  cancelTasksForAudiobookID(audiobookID);
  std::lock_guard stateLock(*stateLockForAudiobookID(audiobookID));
  resetAndDeleteForAudiobookID(audiobookID);
  QSOProgressManager::sharedManager()->removeProgressForAudiobookID(audiobookID);
  if (auto audiobook =
          QSOAudiobookStatus::fetchAudiobookStatusForAudiobookIdentifier(audiobookID)) {
    audiobook->deleteFromDatabase();
  }
  QSOChapterStatus::deleteAllForAudiobookID(audiobookID);
  for (const auto& request : validator_.currentRequests()) {
    if (request.audiobookID() == audiobookID) {
      playlistManager_->removePlaylistForIdentifier(request.licenseID());
    }
  }
}

void DownloadEngineCore::deleteForAudiobookID(const std::string& audiobookID) {
  LogEngineInfo("[DownloadEngine] -(void)deleteForAudiobookID:[%@]", audiobookID);
  runOnInputQueue([audiobookID](DownloadEngineCore& self) {
    if (refused(audiobookID, "[Download Engine] No valid audiobokID. Exiting deleteForAudiobookID"))
      return;
    self.deleteAudiobookNow(audiobookID);
  });
}

void DownloadEngineCore::deleteForAudiobookID(const std::string& audiobookID, uint64_t part,
                                              uint64_t chapter) {
  LogEngineInfo(
      "[DownloadEngine] -(void)deleteForAudiobookID:[%@] partNumber:[%d] chapterNumber:[%d]",
      audiobookID, part, chapter);
  runOnInputQueue([audiobookID, part, chapter](DownloadEngineCore& self) {
    if (refused(audiobookID,
                "[Download Engine] No valid audiobokID. Exiting deleteForAudiobookID: partNumber: "
                "chapterNumber:"))
      return;
    self.cancelTasksForAudiobookID(audiobookID, part, chapter);
    std::lock_guard stateLock(*self.stateLockForAudiobookID(audiobookID));
    self.resetAndDeleteForAudiobookID(audiobookID, part, chapter);
  });
}

void DownloadEngineCore::deleteAll() {
  LogEngineInfo("[DownloadEngine] -(void)deleteAll");
  runOnInputQueue([](DownloadEngineCore& self) {
    for (const auto& audiobookID : QSOAudiobookStatus::fetchAllAudiobookIdentifiers()) {
      self.deleteAudiobookNow(audiobookID);
    }
  });
}

// --- resets, with the audiobook's state lock held ------------------------------------------------

void DownloadEngineCore::clearInProgressStateForChapters(
    const std::vector<QSOChapterStatusPtr>& chapters, const std::string& audiobookID) {
  std::vector<uint64_t> identifiers;
  for (const auto& chapter : chapters) {
    chapter->setDownloadStatus(DownloadStatusNotDownloaded);
    chapter->setDownloadedSize(0);
    const auto& d = chapter->chapterDescription();
    if (auto progress = QSOProgressManager::sharedManager()->progressForAudiobookID(
            audiobookID, d.partNumber(), d.chapterNumber())) {
      progress->setCompletedUnitCount(0);
    }
    identifiers.push_back(chapter->chapterIdentifier());
  }
  if (!identifiers.empty()) {
    QSOChapterStatus::writeUpdateForProperties(
        {"downloadStatus", "downloadedSize"},
        {Value(uint64_t{DownloadStatusNotDownloaded}), Value(uint64_t{0})}, identifiers);
  }
  if (auto audiobook =
          QSOAudiobookStatus::fetchAudiobookStatusForAudiobookIdentifier(audiobookID)) {
    QSOIntegrityManager::getNewStatusForAudiobookInProgressPossible(*audiobook, false);
    QSOIntegrityManager::getNewDownloadedSizeForAudiobook(*audiobook);
  }
}

void DownloadEngineCore::resetAndDeleteForRequestIdentifier(const std::string& requestIdentifier) {
  auto request =
      QSODownloadRequestDatabaseHelper::fetchRequestForRequestIdentifier(requestIdentifier);
  if (!request) return;
  auto chapters = QSODownloadRequestUtilities::getChaptersInRequest(*request);
  clearInProgressStateForChapters(chapters, request->audiobookID());
  for (const auto& chapter : chapters)
    FilesystemHelper::deleteFile(chapter->chapterDescription(), true);
}

void DownloadEngineCore::resetAndDeleteForAudiobookID(const std::string& audiobookID) {
  clearInProgressStateForChapters(QSOChapterStatus::fetchAllForAudiobookIdentifier(audiobookID),
                                  audiobookID);
  FilesystemHelper::deleteAllFiles(audiobookID);
}

void DownloadEngineCore::resetAndDeleteForAudiobookID(const std::string& audiobookID, uint64_t part,
                                                      uint64_t chapter) {
  const QSOChapterDescription description(audiobookID, part, chapter);
  if (auto record = QSOChapterStatus::fetchForChapterDescription(description)) {
    clearInProgressStateForChapters({record}, audiobookID);
  }
  FilesystemHelper::deleteFile(description, true);
}

}  // namespace sonorell
