// QSOAudioDownloadResumeTask: the download task of a request an earlier run left stored. It
// reconnects to the request's transfer session, adopts the transfers the session still holds and
// schedules only the chapters none of them covers. The wait for the session's task list runs on
// the task's step queue; the list is answered on the session's control queue.
#pragma once

#include <memory>

#include "download/audio_download_task.h"

namespace sonorell {

class QSOAudioDownloadResumeTask : public QSOAudioDownloadTask {
 public:
  static std::shared_ptr<QSOAudioDownloadResumeTask> create(
      const QSODownloadRequest& request, Completion completion,
      std::weak_ptr<DownloadEngineCore> engine);

 protected:
  // Chapters 0, then 4, then 1, less those a transfer of the session still covers.
  std::optional<std::vector<QSOChapterStatusPtr>> getChaptersToDownload(
      std::unique_lock<QSOStateLock>& stateLock) override;
  // A stored request with nothing left to fetch, whose session held no transfer of the earlier
  // run either, ends with 11003, which leaves it stored.
  void requestIsNeedless() override;

 private:
  using QSOAudioDownloadTask::QSOAudioDownloadTask;
};

}  // namespace sonorell
