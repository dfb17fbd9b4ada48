#include "download/audio_download_resume_task.h"

#include <algorithm>
#include <future>

#include "core/error_descriptions.h"
#include "core/logging.h"
#include "download/download_engine_core.h"
#include "sonorell/errors.h"

namespace sonorell {

namespace {

std::string describe(const std::vector<QSOChapterDescription>& chapters) {
  std::string text = "(";
  for (const auto& chapter : chapters) text += "\n    " + chapter.description();
  return text + "\n)";
}

std::string describe(const std::vector<QSOChapterStatusPtr>& chapters) {
  std::vector<QSOChapterDescription> descriptions;
  for (const auto& chapter : chapters) descriptions.push_back(chapter->chapterDescription());
  return describe(descriptions);
}

// The session's tasks, waited for: answered on its control queue, never its delegate queue.
std::vector<TransferTaskPtr> tasksOf(const TransferSessionPtr& session) {
  if (!session) return {};
  std::promise<std::vector<TransferTaskPtr>> answer;
  auto listed = answer.get_future();
  session->getTasks(
      [&answer](std::vector<TransferTaskPtr> tasks) { answer.set_value(std::move(tasks)); });
  return listed.get();
}

}  // namespace

std::shared_ptr<QSOAudioDownloadResumeTask> QSOAudioDownloadResumeTask::create(
    const QSODownloadRequest& request, Completion completion,
    std::weak_ptr<DownloadEngineCore> engine) {
  std::shared_ptr<QSOAudioDownloadResumeTask> task(
      new QSOAudioDownloadResumeTask(request, std::move(completion), std::move(engine)));
  connect(task);
  // What the earlier run left in the session belongs to this request, and is taken on before
  // any of it is delivered: a request whose chapters are then all done has succeeded, it did
  // not ask for nothing.
  for (const auto& transfer : tasksOf(task->audioDownloadSession())) {
    if (transfer->state() != TransferTaskState::kCancelling) task->adoptTransfer(transfer);
  }
  return task;
}

void QSOAudioDownloadResumeTask::requestIsNeedless() {
  failedWithError(Error::make(std::string(QSOErrorDomain), 11003,
                              std::string(downloadDescriptionForErrorCode(11003)), nullptr),
                  std::nullopt);
}

std::optional<std::vector<QSOChapterStatusPtr>> QSOAudioDownloadResumeTask::getChaptersToDownload(
    std::unique_lock<QSOStateLock>& stateLock) {
  std::vector<QSOChapterStatusPtr> candidates;
  for (uint64_t status : {uint64_t{DownloadStatusNotDownloaded}, uint64_t{DownloadStatusStaged},
                          uint64_t{DownloadStatusDownloading}}) {
    auto chapters = requestedChaptersWithStatus(status, stateLock);
    if (!chapters) return std::nullopt;
    candidates.insert(candidates.end(), chapters->begin(), chapters->end());
  }

  const std::vector<TransferTaskPtr> transfers = tasksOf(audioDownloadSession());
  std::string listing = "(";
  for (const auto& transfer : transfers) listing += "\n    " + transfer->taskDescription();
  LogEngineVerbose("[AudioDownloadResumeTask] Session reported tasks: %@", listing + "\n)");

  auto engine = engine_.lock();
  std::vector<QSOChapterDescription> scheduled;
  for (const auto& transfer : transfers) {
    const auto key = transfer->taskDescription();
    const auto chapter = QSOChapterDescription::initWithString(key);
    const auto state = transfer->state();
    switch (state) {
      case TransferTaskState::kSuspended:
        transfer->resume();
        [[fallthrough]];
      case TransferTaskState::kRunning:
        if (chapter) {
          scheduled.push_back(*chapter);
          adoptTransfer(transfer);
          if (engine) engine->triggerStagedForChapterDescription(*chapter, request());
        }
        break;
      case TransferTaskState::kCompleted:
        if (chapter) {
          scheduled.push_back(*chapter);
          adoptTransfer(transfer);
        }
        break;
      case TransferTaskState::kCancelling:
        break;  // its chapter is scheduled again
    }
    LogEngineVerbose("[AudioDownloadResumeTask] Download Task %@ is in state %d", key,
                     static_cast<int>(state));
  }
  LogEngineVerbose("[AudioDownloadResumeTask] Already scheduled tasks: %@", describe(scheduled));
  std::erase_if(candidates, [&](const QSOChapterStatusPtr& candidate) {
    return std::find(scheduled.begin(), scheduled.end(), candidate->chapterDescription()) !=
           scheduled.end();
  });
  LogEngineVerbose("[AudioDownloadResumeTask] Filtered candidates to schedule: %@",
                   describe(candidates));
  return candidates;
}

}  // namespace sonorell
