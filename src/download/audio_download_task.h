// QSOAudioDownloadTask: the audio task whose audio step creates one background transfer per
// chapter of a download request, in the request's transfer session ("QLSO_" + request
// identifier), and finishes when none of the request's chapters is left to fetch. The transfer
// map and the scheduled flag are guarded by the task's own lock; transfers are resumed on the
// serial "io.sonorell.download.scheduler" queue.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "download/audio_task.h"
#include "download/session_delegate_router.h"
#include "model/playlist.h"
#include "persistence/chapter_status.h"
#include "platform/net/transfer_session.h"
#include "sonorell/download_engine.h"
#include "sonorell/download_request.h"

namespace sonorell {

class QSOAudioDownloadTask : public QSOAAudioTask {
 public:
  static std::shared_ptr<QSOAudioDownloadTask> create(const QSODownloadRequest& request,
                                                      Completion completion,
                                                      std::weak_ptr<DownloadEngineCore> engine);

  const QSODownloadRequest& request() const { return request_; }

  void cancel() override;
  bool checkForAudio() override;
  void fetchAudio() override;
  void complete() override;
  void failedWithError(ErrorPtr error, std::optional<QSOChapterDescription> chapter) override;

  // Creates the chapter's transfer (suspended) and records it; null when the task is over or the
  // request cannot be built (then the task has failed with 11007 and `stateLock` is released).
  TransferTaskPtr scheduleDownloadForChapter(const QSOChapterStatus& chapter,
                                             const QSOPlaylist& playlist,
                                             std::unique_lock<QSOStateLock>& stateLock);
  std::optional<TransferRequest> requestForChapter(const QSOChapterDescription& chapter,
                                                   const QSOPlaylist& playlist);
  const TransferSessionPtr& audioDownloadSession();
  // Runs the audio step again (on the step queue) once the task has reached it: the chapters'
  // statuses changed, by this task's transfers or by another request for the same book.
  void lookAgain();

 protected:
  QSOAudioDownloadTask(const QSODownloadRequest& request, Completion completion,
                       std::weak_ptr<DownloadEngineCore> engine);
  // Makes the session's delegate and the session; called once by the factory functions.
  static void connect(const std::shared_ptr<QSOAudioDownloadTask>& task);
  // The chapters the audio step schedules, with the state lock held: those not downloaded.
  // Nothing when the task failed (the lock is then released).
  virtual std::optional<std::vector<QSOChapterStatusPtr>> getChaptersToDownload(
      std::unique_lock<QSOStateLock>& stateLock);
  // The request's chapters with one status; fails the task with 11003 when the request covers
  // no chapter at all (`stateLock` is then released).
  std::optional<std::vector<QSOChapterStatusPtr>> requestedChaptersWithStatus(
      uint64_t status, std::unique_lock<QSOStateLock>& stateLock);
  // The request asks for nothing that needs fetching: failed (11003) is posted and the task
  // completes.
  virtual void requestIsNeedless();
  // A transfer of an earlier run is cancelled with this task, and makes the request not a
  // needless one when its chapters are all done. It is not in the transfer map: its result may
  // arrive before it is adopted.
  void adoptTransfer(TransferTaskPtr transfer);

 private:
  // The router's per-chapter result, on the session's delegate queue.
  void chapterFinished(ErrorPtr error, const QSOChapterDescription& chapter);
  void invalidateSession();
  // Marks the router cancelled and cancels every transfer of this task.
  void stopTransfers();

  const QSODownloadRequest request_;
  const DispatchQueuePtr urlSessionStartQueue_;
  std::shared_ptr<QSOAudioDownloadSessionDelegateRouter> router_;  // set once in create()
  TransferSessionPtr session_;                                     // set once in create()
  std::map<std::string, TransferTaskPtr> downloadTasks_;           // guarded by taskMutex_
  std::vector<TransferTaskPtr> adopted_;                           // guarded by taskMutex_
  bool hasScheduledDownload_ = false;                              // guarded by taskMutex_
  // The task's own steps have reached the audio step, a playlist at hand, at least once.
  bool reachedAudioStep_ = false;  // guarded by taskMutex_
};

}  // namespace sonorell
