#include "download/integrity_manager.h"

#include <algorithm>

#include "core/notification_poster.h"
#include "download/download_request_utilities.h"
#include "persistence/download_request_store.h"
#include "sonorell/download_status.h"
#include "sonorell/notifications.h"

namespace sonorell {

bool QSOIntegrityManager::audiobookInProgress(const QSOAudiobookStatus& audiobook) {
  const auto requests = QSODownloadRequestDatabaseHelper::fetchAllRequests();
  return std::any_of(requests.begin(), requests.end(), [&](const QSODownloadRequest& request) {
    return request.audiobookID() == audiobook.audiobookIdentifier();
  });
}

bool QSOIntegrityManager::chapterInProgress(const QSOChapterStatus& chapter,
                                            const std::vector<QSODownloadRequest>& requests) {
  for (const auto& request : requests) {
    for (const auto& covered : QSODownloadRequestUtilities::getChaptersInRequest(request)) {
      if (*covered == chapter) return true;
    }
  }
  return false;
}

void QSOIntegrityManager::getNewStatusForAudiobook(QSOAudiobookStatus& audiobook) {
  getNewStatusForAudiobook(audiobook, audiobookInProgress(audiobook), false);
}

void QSOIntegrityManager::getNewStatusForAudiobook(QSOAudiobookStatus& audiobook,
                                                   bool notifyIfChanged) {
  getNewStatusForAudiobook(audiobook, audiobookInProgress(audiobook), notifyIfChanged);
}

void QSOIntegrityManager::getNewStatusForAudiobookInProgressPossible(QSOAudiobookStatus& audiobook,
                                                                     bool inProgressPossible) {
  getNewStatusForAudiobook(audiobook, inProgressPossible, false);
}

void QSOIntegrityManager::getNewStatusForAudiobook(QSOAudiobookStatus& audiobook,
                                                   bool inProgressPossible, bool notifyIfChanged) {
  const auto chapters =
      QSOChapterStatus::fetchAllForAudiobookIdentifier(audiobook.audiobookIdentifier());
  const auto pending = std::count_if(chapters.begin(), chapters.end(), [](const auto& chapter) {
    return chapter->downloadStatus() != DownloadStatusDownloaded;
  });
  uint64_t status;
  if (chapters.empty() || pending == static_cast<std::ptrdiff_t>(chapters.size())) {
    status = DownloadStatusNotDownloaded;
  } else if (pending == 0) {
    status = DownloadStatusDownloaded;
  } else if (inProgressPossible && audiobook.downloadStatus() == DownloadStatusDownloading) {
    status = DownloadStatusDownloading;
  } else {
    status = DownloadStatusPartiallyDownloaded;
  }
  const uint64_t old = audiobook.downloadStatus();
  audiobook.setDownloadStatus(status);
  audiobook.writeUpdateForProperties({"downloadStatus"});
  if (notifyIfChanged && old != status) {
    Dictionary info;
    info.emplace(std::string(QSOAudiobookIDUserInfoKey), audiobook.audiobookIdentifier());
    QSONotificationPoster::sharedPoster()->postNotificationWithName(
        QSOAuditAudiobookStatusUpdatedNotification, std::move(info));
  }
}

void QSOIntegrityManager::getNewDownloadedSizeForAudiobook(QSOAudiobookStatus& audiobook) {
  uint64_t size = 0;
  for (const auto& chapter :
       QSOChapterStatus::fetchAllForAudiobookIdentifier(audiobook.audiobookIdentifier())) {
    if (chapter->downloadStatus() == DownloadStatusDownloaded) size += chapter->downloadedSize();
  }
  audiobook.setDownloadedSize(size);
  audiobook.writeUpdateForProperties({"downloadedSize"});
}

}  // namespace sonorell
