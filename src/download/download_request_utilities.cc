#include "download/download_request_utilities.h"

#include "core/logging.h"
#include "sonorell/utils.h"

namespace sonorell {

std::vector<QSOChapterStatusPtr> QSODownloadRequestUtilities::getChaptersInRequest(
    const QSODownloadRequest& request) {
  auto chapters = QSOChapterStatus::fetchAllSortedForAudiobookIdentifier(request.audiobookID());
  const size_t n = chapters.size();
  const bool fromFirst = request.partNumber() == QSODownloadRequestDefaultPart &&
                         request.chapterNumber() == QSODownloadRequestDefaultChapter;
  size_t start = n;
  for (size_t i = 0; i < n; ++i) {
    const auto& chapter = chapters[i]->chapterDescription();
    if (fromFirst || (chapter.partNumber() == request.partNumber() &&
                      chapter.chapterNumber() == request.chapterNumber())) {
      start = i;
      break;
    }
  }
  if (start == n) return {};

  size_t count = 1;
  if (request.downloadType() == DownloadTypeToEnd) count = n - start;
  if (request.downloadType() == DownloadTypeFullAudiobook) count = n;

  std::vector<QSOChapterStatusPtr> covered;
  covered.reserve(count);
  for (size_t k = 0, i = start; k < count; ++k, i = (i + 1) % n) covered.push_back(chapters[i]);
  return covered;
}

bool QSODownloadRequestValidator::validateRequest(const QSODownloadRequest& request) {
  if (!QSOUtils::validateStringParam(&request.audiobookID())) {
    LogEngineError("[DownloadEngine] Request validation failed. AudiobookId: %@",
                   request.audiobookID());
    return false;
  }
  if (!QSOUtils::validateStringParam(&request.sessionKey())) {
    LogEngineError("[DownloadEngine] Request validation failed. SessionKey: %@",
                   request.sessionKey());
    return false;
  }
  if (!QSOUtils::validateStringParam(&request.licenseID())) {
    LogEngineError("[DownloadEngine] Request validation failed. LicenseId: %@",
                   request.licenseID());
    return false;
  }
  if (request.downloadType() > DownloadTypeSingleChapter) {
    LogEngineError("[DownloadEngine] Request validation failed. Download Type: %lu",
                   request.downloadType());
    return false;
  }
  return validateReuseOfRequest(request);
}

bool QSODownloadRequestValidator::validateReuseOfRequest(const QSODownloadRequest& request) {
  std::lock_guard lock(mutex_);
  for (const auto& current : currentRequests_) {
    if (current.requestIdentifier() == request.requestIdentifier()) {
      LogEngineError("[DownloadEngine] Request validation failed. Reuse of %@",
                     request.requestIdentifier());
      return false;
    }
  }
  // Never removed during the run: a request can be started once, also after it finished.
  currentRequests_.push_back(request);
  return true;
}

std::vector<QSODownloadRequest> QSODownloadRequestValidator::currentRequests() const {
  std::lock_guard lock(mutex_);
  return currentRequests_;
}

}  // namespace sonorell
