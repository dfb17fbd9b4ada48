#include "download/session_delegate_router.h"

#include "core/logging.h"
#include "download/download_engine_core.h"
#include "platform/foundation/process_activity.h"
#include "platform/net/transfer_session.h"

namespace sonorell {

QSOAudioDownloadSessionDelegateRouter::QSOAudioDownloadSessionDelegateRouter(
    QSODownloadRequest request, Completion completion, std::weak_ptr<DownloadEngineCore> engine)
    : request_(std::move(request)),
      completion_(std::move(completion)),
      engine_(std::move(engine)),
      routerQueue_(DispatchQueue::create("io.sonorell.download.router")) {}

void QSOAudioDownloadSessionDelegateRouter::setCancelled(bool cancelled) {
  cancelled_ = cancelled;
  routerQueue_->sync([&] {
    for (auto& [key, delegate] : delegates_) delegate->setCancelled(cancelled);
  });
}

std::shared_ptr<QSOAudioDownloadSessionDelegate>
QSOAudioDownloadSessionDelegateRouter::getDelegateForKey(const std::string& key) {
  std::shared_ptr<QSOAudioDownloadSessionDelegate> delegate;
  routerQueue_->sync([&] {
    if (auto it = delegates_.find(key); it != delegates_.end()) {
      delegate = it->second;
      return;
    }
    auto chapter = QSOChapterDescription::initWithString(key).value_or(QSOChapterDescription());
    std::weak_ptr<QSOAudioDownloadSessionDelegateRouter> weakSelf = weak_from_this();
    delegate = std::make_shared<QSOAudioDownloadSessionDelegate>(
        chapter, request_,
        [weakSelf, key, chapter](ErrorPtr error) {
          auto self = weakSelf.lock();
          if (!self) return;
          self->routerQueue_->sync([&] { self->delegates_.erase(key); });
          self->completion_(std::move(error), chapter);
        },
        engine_);
    delegate->setCancelled(cancelled_);
    delegates_.emplace(key, delegate);
  });
  return delegate;
}

void QSOAudioDownloadSessionDelegateRouter::didWriteData(const std::shared_ptr<TransferSession>&,
                                                         const std::shared_ptr<TransferTask>& task,
                                                         int64_t, int64_t totalBytesWritten,
                                                         int64_t totalBytesExpectedToWrite) {
  if (cancelled_) return;
  const auto key = task->taskDescription();
  if (key.empty()) return;
  getDelegateForKey(key)->didWriteData(*task, totalBytesWritten, totalBytesExpectedToWrite);
}

void QSOAudioDownloadSessionDelegateRouter::didFinishDownloadingToURL(
    const std::shared_ptr<TransferSession>&, const std::shared_ptr<TransferTask>& task,
    const std::filesystem::path& location) {
  if (cancelled_) return;
  const auto key = task->taskDescription();
  if (key.empty()) return;
  // Keeps the process alive while the file leaves the temporary location, which the transfer
  // service empties when this call returns.
  const auto activity = ProcessActivity::begin("Process chapter " + key + " download");
  LogEngineVerbose("[AudioDownloadTask] Started background task for processing chapter %@ download",
                   key);
  getDelegateForKey(key)->didFinishDownloadingToURL(*task, location);
  LogEngineVerbose(
      "[AudioDownloadTask] Finished background task for processing chapter %@ download", key);
  ProcessActivity::end(activity);
}

void QSOAudioDownloadSessionDelegateRouter::didCompleteWithError(
    const std::shared_ptr<TransferSession>&, const std::shared_ptr<TransferTask>& task,
    ErrorPtr error) {
  if (cancelled_) return;
  if (error && error->domain == kURLLoadingErrorDomain && error->code == kURLErrorCancelled) return;
  const auto key = task->taskDescription();
  if (key.empty()) return;
  getDelegateForKey(key)->didCompleteWithError(std::move(error));
}

void QSOAudioDownloadSessionDelegateRouter::didFinishEventsForBackgroundURLSession(
    const std::shared_ptr<TransferSession>& session) {
  if (auto engine = engine_.lock()) engine->callCompletionHandlerForSession(session->identifier());
}

}  // namespace sonorell
