// Which chapters a download request covers, and the validation of requests before the download
// engine takes them. The utilities are stateless; the validator keeps the requests started in
// this run under its own mutex.
#pragma once

#include <mutex>
#include <vector>

#include "persistence/chapter_status.h"
#include "sonorell/download_request.h"

namespace sonorell {

class QSODownloadRequestUtilities {
 public:
  // The request's chapters in download order: from the start chapter (the first chapter for the
  // default part and chapter) to the end, wrapping round for a whole audiobook; one chapter for
  // a single-chapter request. Empty when the start chapter is not among the status records.
  static std::vector<QSOChapterStatusPtr> getChaptersInRequest(const QSODownloadRequest& request);
};

class QSODownloadRequestValidator {
 public:
  // Checks audiobook ID, session key, license ID and download type, then reuse; the first
  // failure is logged and refuses the request. An accepted request is remembered for the rest
  // of the run, so the same request can be started only once.
  bool validateRequest(const QSODownloadRequest& request);
  // The reuse check alone (no request with the same identifier was accepted before).
  bool validateReuseOfRequest(const QSODownloadRequest& request);
  std::vector<QSODownloadRequest> currentRequests() const;

 private:
  mutable std::mutex mutex_;
  std::vector<QSODownloadRequest> currentRequests_;
};

}  // namespace sonorell
