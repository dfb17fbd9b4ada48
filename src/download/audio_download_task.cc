#include "download/audio_download_task.h"

#include <chrono>

#include "core/error_descriptions.h"
#include "core/logging.h"
#include "core/notification_poster.h"
#include "download/download_engine_core.h"
#include "download/download_request_utilities.h"
#include "download/progress_manager.h"
#include "persistence/audiobook_status.h"
#include "platform/foundation/process_activity.h"
#include "sonorell/errors.h"
#include "sonorell/notifications.h"
#include "sonorell/utils.h"

namespace sonorell {

namespace {

ErrorPtr describedError(int64_t code, std::string description) {
  return Error::make(std::string(QSOErrorDomain), code, std::move(description), nullptr);
}

std::string describeChapters(const std::vector<QSOChapterStatusPtr>& chapters) {
  std::string text = "(";
  for (const auto& chapter : chapters) text += "\n    " + chapter->chapterDescription().toString();
  return text + "\n)";
}

}  // namespace

std::shared_ptr<QSOAudioDownloadTask> QSOAudioDownloadTask::create(
    const QSODownloadRequest& request, Completion completion,
    std::weak_ptr<DownloadEngineCore> engine) {
  std::shared_ptr<QSOAudioDownloadTask> task(
      new QSOAudioDownloadTask(request, std::move(completion), std::move(engine)));
  connect(task);
  return task;
}

void QSOAudioDownloadTask::connect(const std::shared_ptr<QSOAudioDownloadTask>& task) {
  std::weak_ptr<QSOAudioDownloadTask> weak = task;
  task->router_ = std::make_shared<QSOAudioDownloadSessionDelegateRouter>(
      task->request_,
      [weak](ErrorPtr error, const QSOChapterDescription& chapter) {
        if (auto self = weak.lock()) self->chapterFinished(std::move(error), chapter);
      },
      task->engine_);
  task->audioDownloadSession();
}

QSOAudioDownloadTask::QSOAudioDownloadTask(const QSODownloadRequest& request, Completion completion,
                                           std::weak_ptr<DownloadEngineCore> engine)
    : QSOAAudioTask(request.audiobookID(), request.licenseID(), request.sessionKey(),
                    std::move(completion), std::move(engine)),
      request_(request),
      urlSessionStartQueue_(DispatchQueue::create("io.sonorell.download.scheduler")) {}

const TransferSessionPtr& QSOAudioDownloadTask::audioDownloadSession() {
  if (session_) return session_;
  auto engine = engine_.lock();
  if (!engine) return session_;
  TransferSessionConfiguration configuration;
  configuration.identifier = "QLSO_" + request_.requestIdentifier();
  configuration.allowsCellularAccess = !request_.restrictToWiFi();
  session_ = engine->services()->transfers->sessionWithConfiguration(configuration, router_);
  return session_;
}

void QSOAudioDownloadTask::invalidateSession() {
  if (session_) session_->finishTasksAndInvalidate();
}

void QSOAudioDownloadTask::stopTransfers() {
  // The task's lock before the state lock, the order scheduling takes them in.
  std::lock_guard lock(taskMutex_);
  if (auto engine = engine_.lock()) {
    std::lock_guard stateLock(*engine->stateLockForAudiobookID(audiobookID_));
    router_->setCancelled(true);
    for (const auto& [key, transfer] : downloadTasks_) transfer->cancel();
    for (const auto& transfer : adopted_) transfer->cancel();
  }
}

void QSOAudioDownloadTask::cancel() {
  stopTransfers();
  QSOAAudioTask::cancel();
}

void QSOAudioDownloadTask::complete() {
  QSOAAudioTask::complete();
  invalidateSession();
}

void QSOAudioDownloadTask::failedWithError(ErrorPtr error,
                                           std::optional<QSOChapterDescription> chapter) {
  QSOAAudioTask::failedWithError(std::move(error), std::move(chapter));
  // The engine cancels a failed task it finds on its queue; one that fails before it is queued
  // (a restarted request whose adopted transfers failed while it was being made) must stop its
  // transfers itself, or their late events would reset chapters another request now fetches.
  stopTransfers();
  invalidateSession();
}

std::optional<std::vector<QSOChapterStatusPtr>> QSOAudioDownloadTask::requestedChaptersWithStatus(
    uint64_t status, std::unique_lock<QSOStateLock>& stateLock) {
  auto chapters = QSODownloadRequestUtilities::getChaptersInRequest(request_);
  if (chapters.empty()) {
    if (stateLock.owns_lock()) stateLock.unlock();
    failedWithError(describedError(11003, std::string(downloadDescriptionForErrorCode(11003))),
                    std::nullopt);
    return std::nullopt;
  }
  std::erase_if(chapters, [status](const auto& c) { return c->downloadStatus() != status; });
  return chapters;
}

bool QSOAudioDownloadTask::checkForAudio() {
  LogEngineVerbose("[AudioDownloadTask] Checking download status for %@", audiobookID_);
  auto engine = engine_.lock();
  if (!engine) return false;
  size_t remaining = 0;
  {
    std::unique_lock stateLock(*engine->stateLockForAudiobookID(audiobookID_));
    for (uint64_t status : {uint64_t{DownloadStatusNotDownloaded}, uint64_t{DownloadStatusStaged},
                            uint64_t{DownloadStatusDownloading}}) {
      auto chapters = requestedChaptersWithStatus(status, stateLock);
      if (!chapters) return false;
      remaining += chapters->size();
    }
  }
  const bool done = remaining == 0;
  LogEngineVerbose("[AudioDownloadTask] -(%@)checkForAudio", done ? "YES" : "NO");
  std::lock_guard lock(taskMutex_);
  if (done && !hasScheduledDownload_) requestIsNeedless();
  if (!done && hasScheduledDownload_ && downloadTasks_.empty()) hasScheduledDownload_ = false;
  return done;
}

void QSOAudioDownloadTask::fetchAudio() {
  LogEngineVerbose("[AudioDownloadTask] -(void)fetchAudio");
  if (isCancelled()) return;
  {
    std::lock_guard lock(taskMutex_);
    reachedAudioStep_ = true;
    const bool idle = downloadTasks_.empty();
    if (idle && checkForAudio()) {
      complete();
      return;
    }
    if (hasScheduledDownload_ || isFinished()) return;
  }
  auto engine = engine_.lock();
  if (!engine) return;
  auto playlist = playlistManager_->getPlaylistForIdentifier(licenseID_, false);
  if (!playlist || playlist->playlistToken().empty()) {
    const std::string text =
        stringWithFormat("Playlist or playlist token null for %@", audiobookID_);
    LogEngineError(text);
    failedWithError(describedError(13002, text), std::nullopt);
    return;
  }

  std::lock_guard lock(taskMutex_);
  QSOProgressManager::sharedManager()->createProgressForAudiobookID(audiobookID_);
  std::unique_lock stateLock(*engine->stateLockForAudiobookID(audiobookID_));
  auto toDownload = getChaptersToDownload(stateLock);
  if (!toDownload) return;
  if (toDownload->empty()) {
    // What is left is being fetched by another request for this book (one restarted at launch,
    // say); the engine has this task look again whenever that request's chapters change, and
    // their arrival is then this request's success, not a needless request.
    hasScheduledDownload_ = true;
    LogEngineVerbose("[AudioDownloadTask] Waiting for chapters fetched by another request of %@",
                     audiobookID_);
    return;
  }
  LogEngineVerbose("[AudioDownloadTask] Chapters to download: %@", describeChapters(*toDownload));

  const auto activity = ProcessActivity::begin("Start Request: " + request_.requestIdentifier());
  LogEngineVerbose("[AudioDownloadTask] Started background task for request: %@",
                   request_.requestIdentifier());

  if (auto audiobook = QSOAudiobookStatus::fetchAudiobookStatusForAudiobookIdentifier(audiobookID_);
      audiobook && (audiobook->downloadStatus() == DownloadStatusNotDownloaded ||
                    audiobook->downloadStatus() == DownloadStatusPartiallyDownloaded)) {
    audiobook->setDownloadStatus(DownloadStatusStaged);
    audiobook->writeUpdateForProperties({"downloadStatus"});
    engine->triggerStagedForAudiobookIdentifier(audiobookID_, request_);
  }

  std::vector<uint64_t> identifiers;
  for (const auto& chapter : *toDownload) identifiers.push_back(chapter->chapterIdentifier());
  QSOChapterStatus::writeUpdateForProperties({"playlistToken"}, {Value(playlist->playlistToken())},
                                             identifiers);

  std::vector<uint64_t> staged;
  for (const auto& chapter : *toDownload) {
    auto transfer = scheduleDownloadForChapter(*chapter, *playlist, stateLock);
    if (!transfer) {
      LogEngineError("Task returned nil, abort");
      continue;
    }
    if (isCancelled() || isFinished()) return;  // the activity stays open, as it always has
    urlSessionStartQueue_->async([transfer] { transfer->resume(); });
    chapter->setDownloadStatus(DownloadStatusStaged);
    staged.push_back(chapter->chapterIdentifier());
  }
  // Only chapters that got a transfer are staged: after a failure part-way, the others were
  // reset by the engine and must stay so.
  if (!staged.empty()) {
    QSOChapterStatus::writeUpdateForProperties({"downloadStatus"},
                                               {Value(uint64_t{DownloadStatusStaged})}, staged);
  }
  if (stateLock.owns_lock()) stateLock.unlock();
  LogEngineVerbose("[AudioDownloadTask] Finished background task for request: %@",
                   request_.requestIdentifier());
  ProcessActivity::end(activity);
}

void QSOAudioDownloadTask::requestIsNeedless() {
  QSONotificationPoster::sharedPoster()->postNotificationWithName(
      QSODownloadRequestFailedNotification,
      QSONotificationPoster::prepareDictionaryWithDownloadRequest(
          &request_, std::string(downloadDescriptionForErrorCode(11003)), 11003, nullptr));
  complete();
}

void QSOAudioDownloadTask::adoptTransfer(TransferTaskPtr transfer) {
  std::lock_guard lock(taskMutex_);
  // The task may have failed on a transfer adopted before this one.
  if (router_->isCancelled()) transfer->cancel();
  adopted_.push_back(std::move(transfer));
  hasScheduledDownload_ = true;
}

std::optional<std::vector<QSOChapterStatusPtr>> QSOAudioDownloadTask::getChaptersToDownload(
    std::unique_lock<QSOStateLock>& stateLock) {
  return requestedChaptersWithStatus(DownloadStatusNotDownloaded, stateLock);
}

std::optional<TransferRequest> QSOAudioDownloadTask::requestForChapter(
    const QSOChapterDescription& chapter, const QSOPlaylist& playlist) {
  const QSOPlaylistItem* item = playlist.playlistItem(chapter);
  if (!item || item->url().empty()) return std::nullopt;
  TransferRequest request;
  request.url = item->url();
  request.timeout = std::chrono::seconds(30);
  request.headers = {{"X-Request-Id", QSOUtils::generateUUID()}};
  LogEngineVerbose("[AudioDownloadTask] Audio request prepared: %@", request.url);
  return request;
}

TransferTaskPtr QSOAudioDownloadTask::scheduleDownloadForChapter(
    const QSOChapterStatus& chapter, const QSOPlaylist& playlist,
    std::unique_lock<QSOStateLock>& stateLock) {
  const auto& description = chapter.chapterDescription();
  const std::string key = description.toString();
  if (isCancelled() || isFinished() || key.empty()) return nullptr;
  auto request = requestForChapter(description, playlist);
  if (!request) {
    if (stateLock.owns_lock()) stateLock.unlock();
    failedWithError(describedError(11007, std::string(downloadDescriptionForErrorCode(11007))),
                    description);
    return nullptr;
  }
  const auto& session = audioDownloadSession();
  auto transfer = session ? session->downloadTask(std::move(*request)) : nullptr;
  if (!transfer) return nullptr;
  transfer->setTaskDescription(key);
  auto record = QSOChapterStatus::fetchForChapterDescription(description);
  const bool wasStaged = record && record->downloadStatus() == DownloadStatusStaged;
  if (record) {
    record->setDownloadStatus(DownloadStatusStaged);
    record->setPlaylistToken(playlist.playlistToken());
  }
  if (!wasStaged) {
    if (auto engine = engine_.lock())
      engine->triggerStagedForChapterDescription(description, request_);
  }
  std::lock_guard lock(taskMutex_);
  downloadTasks_[key] = transfer;
  hasScheduledDownload_ = true;
  return transfer;
}

void QSOAudioDownloadTask::chapterFinished(ErrorPtr error, const QSOChapterDescription& chapter) {
  bool scheduledHere;
  {
    std::lock_guard lock(taskMutex_);
    scheduledHere = downloadTasks_.erase(chapter.toString()) > 0;
  }
  if (error) {
    const auto* resolution =
        error->userInfo.count(std::string(QSODownloadFailureResolutionCodeKey))
            ? &error->userInfo.find(QSODownloadFailureResolutionCodeKey)->second
            : nullptr;
    if (resolution && resolution->asUInt() == 1u) {
      LogEngineInfo("trying to resolve the download failure");
      // The lost transfer left its chapter staged or downloading: back to not downloaded, so
      // that scheduling takes it up again, with a playlist fetched afresh (the one held stays
      // usable meanwhile).
      if (auto engine = engine_.lock()) {
        std::lock_guard stateLock(*engine->stateLockForAudiobookID(audiobookID_));
        if (auto record = QSOChapterStatus::fetchForChapterDescription(chapter);
            record && record->downloadStatus() != DownloadStatusDownloaded) {
          record->setDownloadStatus(DownloadStatusNotDownloaded);
          record->writeUpdateForProperties({"downloadStatus"});
        }
      }
      onStepQueue([](QSOAAudioTask& task) {
        auto& self = static_cast<QSOAudioDownloadTask&>(task);
        {
          std::lock_guard lock(self.taskMutex_);
          self.hasScheduledDownload_ = false;
        }
        self.fetchPlaylist(/*evenIfHeld=*/true);
      });
      return;
    }
    failedWithError(std::move(error), chapter);
    return;
  }
  // A transfer adopted from an earlier run may end before this task has started, or while it
  // still fetches its playlist; the task's own steps reach the audio step anyway, with a
  // playlist at hand, and see this chapter's status then.
  {
    std::lock_guard lock(taskMutex_);
    // A transfer of an earlier run that ended before this task adopted it counts as adopted:
    // the request fetched something, so all chapters done is its success, not a needless one.
    if (!scheduledHere) hasScheduledDownload_ = true;
  }
  lookAgain();
}

void QSOAudioDownloadTask::lookAgain() {
  // Judged on the step queue: the caller may hold the audiobook's state lock, which is taken
  // after the task's lock.
  onStepQueue([](QSOAAudioTask& task) {
    auto& self = static_cast<QSOAudioDownloadTask&>(task);
    {
      std::lock_guard lock(self.taskMutex_);
      if (!self.isExecuting() || !self.reachedAudioStep_) return;
    }
    self.fetchAudio();
  });
}

}  // namespace sonorell
