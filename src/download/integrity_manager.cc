#include "download/integrity_manager.h"

#include <algorithm>

#include "core/logging.h"
#include "core/notification_poster.h"
#include "download/download_engine_core.h"
#include "download/download_request_utilities.h"
#include "persistence/database_manager.h"
#include "persistence/download_request_store.h"
#include "persistence/filesystem_helper.h"
#include "sonorell/download_status.h"
#include "sonorell/notifications.h"

namespace sonorell {

namespace {

void postChapterDeleted(const std::optional<QSOChapterDescription>& chapter) {
  Dictionary info;
  if (chapter) info.emplace(std::string(QSOChapterDescriptionUserInfoKey), *chapter);
  QSONotificationPoster::sharedPoster()->postNotificationWithName(
      QSOAuditChapterDeletedNotification, std::move(info));
}

void resetChapter(QSOChapterStatus& chapter) {
  chapter.setDownloadStatus(DownloadStatusNotDownloaded);
  chapter.setDownloadedSize(0);
  chapter.writeUpdateForProperties({"downloadStatus", "downloadedSize"});
  postChapterDeleted(chapter.chapterDescription());
}

}  // namespace

void QSOIntegrityManager::verifyDatabase(std::shared_ptr<DownloadEngineCore> engine) {
  static const auto* queue =
      new DispatchQueuePtr(DispatchQueue::create("io.sonorell.verification"));
  (*queue)->async([engine = std::move(engine)] { verifyDatabaseNow(engine); });
}

void QSOIntegrityManager::verifyDatabaseNow(const std::shared_ptr<DownloadEngineCore>& engine) {
  const auto files = audioFilesOnDisk();
  // Looked up once per chapter: a set, or verification grows with books times chapters.
  const std::unordered_set<std::string> onDisk(files.begin(), files.end());
  const auto requests = QSODownloadRequestDatabaseHelper::fetchAllRequests();
  for (const auto& audiobook : QSOAudiobookStatus::fetchAllAudiobookStatuses()) {
    // The cached record, if any, so that callers holding it see the repair.
    auto record = QSOAudiobookStatus::fetchAudiobookStatusForAudiobookIdentifier(
        audiobook->audiobookIdentifier());
    if (!record) record = audiobook;
    verifyAudiobookStatus(*record, audiobookInProgress(*record), onDisk, requests);
  }
  if (QSODatabaseManager::sharedManager()->vouchesForFiles()) {
    removeOrphanedFiles(files);
  } else {
    // No record read is not the same as no record: the files stay until the records can be read.
    LogEngineError(
        "[DownloadEngine] The status database cannot say which audio files are wanted (it could "
        "not be read, or an unreadable one is kept beside it); no audio file is deleted");
  }
  if (engine) engine->restartOldRequests();
  QSONotificationPoster::sharedPoster()->postNotificationWithName(
      QSODatabaseVerificationCompleteNotification);
}

std::vector<std::string> QSOIntegrityManager::audioFilesOnDisk() {
  std::vector<std::string> files;
  const auto parent = FilesystemHelper::audioParentDirectory();
  if (parent.empty()) return files;
  std::error_code ec;
  for (std::filesystem::recursive_directory_iterator it(parent, ec), end; !ec && it != end;
       it.increment(ec)) {
    if (it->path().extension() == ".mp3") {
      files.push_back(it->path().lexically_relative(parent).generic_string());
    }
  }
  return files;
}

void QSOIntegrityManager::removeOrphanedFiles(const std::vector<std::string>& files) {
  const auto parent = FilesystemHelper::audioParentDirectory();
  for (const auto& relative : files) {
    const auto name = relative.substr(relative.rfind('/') + 1);
    const auto chapter = FilesystemHelper::chapterDescription(name);
    const auto record = chapter ? QSOChapterStatus::fetchForChapterDescription(*chapter) : nullptr;
    if (record && record->downloadStatus() != DownloadStatusNotDownloaded) continue;
    LogEngineInfo(
        "[DownloadEngine] Deleting %@ because the chapter was not found or was not supposed to be "
        "downloaded",
        name);
    // The file as found: an identifier with "_" does not survive the way back from its name.
    std::error_code ec;
    std::filesystem::remove(parent / relative, ec);
    postChapterDeleted(chapter);
  }
}

void QSOIntegrityManager::verifyAudiobookStatus(QSOAudiobookStatus& audiobook, bool inProgress,
                                                const std::unordered_set<std::string>& filesOnDisk,
                                                const std::vector<QSODownloadRequest>& requests) {
  LogEngineInfo("[DownloadEngine] Verifying %@", audiobook.audiobookIdentifier());
  (void)inProgress;  // the book's own flag; each chapter is checked against the requests
  for (const auto& chapter :
       QSOChapterStatus::fetchAllForAudiobookIdentifier(audiobook.audiobookIdentifier())) {
    const auto& d = chapter->chapterDescription();
    const std::string relative = d.audiobookID() + "/" + FilesystemHelper::filename(d);
    const bool exists = filesOnDisk.count(relative) > 0;
    verifyChapterStatus(*chapter, exists, chapterInProgress(*chapter, requests));
  }
  getNewStatusForAudiobook(audiobook, true);
  getNewDownloadedSizeForAudiobook(audiobook);
}

void QSOIntegrityManager::verifyChapterStatus(QSOChapterStatus& chapter) {
  verifyChapterStatus(
      chapter, FilesystemHelper::fileExists(chapter.chapterDescription()),
      chapterInProgress(chapter, QSODownloadRequestDatabaseHelper::fetchAllRequests()));
}

void QSOIntegrityManager::verifyChapterStatus(QSOChapterStatus& chapter, bool existsOnDisk,
                                              bool inProgress) {
  const auto& d = chapter.chapterDescription();
  LogEngineVerbose("[DownloadEngine] Verifying chapter (%d,%d)", d.partNumber(), d.chapterNumber());
  if (existsOnDisk) {
    const uint64_t size = FilesystemHelper::sizeOnDisk(d);
    if (size != 0 && chapter.downloadStatus() != DownloadStatusDownloaded) {
      LogEngineInfo(
          "[DownloadEngine] Chapter (%d,%d) had a file on disk, but it's status was wrong. The "
          "file has been deleted",
          d.partNumber(), d.chapterNumber());
      FilesystemHelper::deleteFile(d, false);
      resetChapter(chapter);
      return;
    }
    // A downloaded chapter's record knows its file's length: a shorter or longer file was cut
    // or overwritten after the download and would play wrong.
    if (size != 0 && chapter.totalSize() != 0 && size != chapter.totalSize()) {
      LogEngineInfo(
          "[DownloadEngine] Chapter (%d,%d) had a file on disk of %llu bytes instead of %llu. The "
          "file has been deleted",
          d.partNumber(), d.chapterNumber(), size, chapter.totalSize());
      FilesystemHelper::deleteFile(d, false);
      resetChapter(chapter);
      return;
    }
    if (size == 0) {
      LogEngineInfo(
          "[DownloadEngine] Chapter (%d,%d) had a zero length file on disk. The file has been "
          "deleted",
          d.partNumber(), d.chapterNumber());
      FilesystemHelper::deleteFile(d, false);
      existsOnDisk = false;
    }
  }
  if (!existsOnDisk && chapter.downloadStatus() == DownloadStatusDownloaded) {
    LogEngineInfo(
        "[DownloadEngine] Chapter (%d,%d) failed verification. It has been repaired. The file did "
        "not exist on disk but the state was downloaded.",
        d.partNumber(), d.chapterNumber());
    resetChapter(chapter);
    return;
  }
  if (inProgress) return;
  if (chapter.downloadStatus() == DownloadStatusStaged ||
      chapter.downloadStatus() == DownloadStatusDownloading) {
    LogEngineInfo(
        "[DownloadEngine] Chapter (%d,%d) failed verification. It has been corrected. The state "
        "was staged or downloading,. but there were no requests in progress",
        d.partNumber(), d.chapterNumber());
    resetChapter(chapter);
  }
}

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
