// The delegate of one request's transfer session: routes every transfer event, by the task's
// description (the chapter key), to that chapter's QSOAudioDownloadSessionDelegate, made on first
// use and forgotten once it has reported. Events arrive on the session's delegate queue; the map
// is touched only on the serial "io.sonorell.download.router" queue, synchronously.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "download/session_delegate.h"
#include "platform/dispatch/dispatch_queue.h"
#include "platform/net/transfer_delegate.h"
#include "sonorell/download_request.h"

namespace sonorell {

class DownloadEngineCore;

class QSOAudioDownloadSessionDelegateRouter
    : public TransferSessionDelegate,
      public std::enable_shared_from_this<QSOAudioDownloadSessionDelegateRouter> {
 public:
  using Completion = std::function<void(ErrorPtr error, const QSOChapterDescription& chapter)>;

  QSOAudioDownloadSessionDelegateRouter(QSODownloadRequest request, Completion completion,
                                        std::weak_ptr<DownloadEngineCore> engine);

  // Also marks every per-chapter delegate now alive.
  void setCancelled(bool cancelled);
  bool isCancelled() const { return cancelled_; }
  std::shared_ptr<QSOAudioDownloadSessionDelegate> getDelegateForKey(const std::string& key);

  void didWriteData(const std::shared_ptr<TransferSession>& session,
                    const std::shared_ptr<TransferTask>& task, int64_t bytesWritten,
                    int64_t totalBytesWritten, int64_t totalBytesExpectedToWrite) override;
  void didFinishDownloadingToURL(const std::shared_ptr<TransferSession>& session,
                                 const std::shared_ptr<TransferTask>& task,
                                 const std::filesystem::path& location) override;
  void didCompleteWithError(const std::shared_ptr<TransferSession>& session,
                            const std::shared_ptr<TransferTask>& task, ErrorPtr error) override;
  void didFinishEventsForBackgroundURLSession(
      const std::shared_ptr<TransferSession>& session) override;

 private:
  const QSODownloadRequest request_;
  const Completion completion_;
  const std::weak_ptr<DownloadEngineCore> engine_;
  const DispatchQueuePtr routerQueue_;
  std::atomic<bool> cancelled_{false};
  std::map<std::string, std::shared_ptr<QSOAudioDownloadSessionDelegate>>
      delegates_;  // routerQueue_ only
};

}  // namespace sonorell
