// QSOAudioDownloadSessionDelegate: what one chapter's transfer means for the engine. It reports
// progress and the chapter's start, checks the HTTP status, moves the finished file into the
// audiobook's directory (through the file-system service), checks its size, records the sizes,
// classifies failures and says whether fetching a fresh playlist can overcome them. Called on the
// session's delegate queue; the finished-file path runs under the audiobook's state lock. The
// started flag is guarded by the delegate's own mutex.
#pragma once

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>

#include "platform/net/transfer_task.h"
#include "sonorell/chapter_description.h"
#include "sonorell/download_request.h"
#include "sonorell/error.h"

namespace sonorell {

class DownloadEngineCore;

class QSOAudioDownloadSessionDelegate {
 public:
  using Completion = std::function<void(ErrorPtr error)>;

  QSOAudioDownloadSessionDelegate(QSOChapterDescription chapter, QSODownloadRequest request,
                                  Completion completion, std::weak_ptr<DownloadEngineCore> engine);

  const QSOChapterDescription& chapterDescription() const { return chapter_; }
  bool isCancelled() const { return cancelled_; }
  void setCancelled(bool cancelled) { cancelled_ = cancelled; }

  void didWriteData(const TransferTask& task, int64_t totalBytesWritten,
                    int64_t totalBytesExpectedToWrite);
  void didFinishDownloadingToURL(const TransferTask& task, const std::filesystem::path& location);
  void didCompleteWithError(ErrorPtr error);

  // 1 when fetching a fresh playlist and scheduling again can overcome the error, else 0.
  uint64_t getFailureResolutionForError(const ErrorPtr& error) const;
  static bool isFilesystemFullError(const ErrorPtr& error);

  ErrorPtr process200AudioTask(const TransferTask& task, const std::filesystem::path& location);
  ErrorPtr process400AudioTask();
  ErrorPtr process404AudioTask();
  ErrorPtr process500AudioTask();
  ErrorPtr processUnknownAudioTask(long statusCode, const std::filesystem::path& location);
  ErrorPtr moveFileFromURL(const std::filesystem::path& location);
  void saveChapterDownloadedSize(uint64_t size);
  void silentReset();

 private:
  const QSOChapterDescription chapter_;
  const QSODownloadRequest request_;
  const Completion completion_;
  const std::weak_ptr<DownloadEngineCore> engine_;
  std::atomic<bool> cancelled_{false};
  std::atomic<bool> postedDownloadStarted_{false};
  std::mutex startMutex_;  // with the flag's second look
};

}  // namespace sonorell
