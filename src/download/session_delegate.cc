#include "download/session_delegate.h"

#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>

#include "core/error_descriptions.h"
#include "core/logging.h"
#include "download/download_engine_core.h"
#include "download/progress_manager.h"
#include "model/api_error_response.h"
#include "persistence/audiobook_status.h"
#include "persistence/chapter_status.h"
#include "persistence/filesystem_helper.h"
#include "sonorell/download_status.h"
#include "sonorell/errors.h"
#include "sonorell/notifications.h"

namespace sonorell {

namespace {

ErrorPtr downloadError(int64_t code, ErrorPtr underlying = nullptr, Dictionary extra = {}) {
  extra.insert_or_assign(std::string(kLocalizedDescriptionKey),
                         std::string(downloadDescriptionForErrorCode(code)));
  if (underlying) extra.insert_or_assign(std::string(kUnderlyingErrorKey), std::move(underlying));
  return Error::make(std::string(QSOErrorDomain), code, std::move(extra));
}

bool isDownloaded(const QSOChapterDescription& chapter) {
  auto record = QSOChapterStatus::fetchForChapterDescription(chapter);
  return record && record->downloadStatus() == DownloadStatusDownloaded &&
         FilesystemHelper::fileExists(chapter);
}

std::string listing(const std::filesystem::path& directory, FileSystem& files) {
  std::string text = "(";
  for (const auto& entry : files.contentsOfDirectory(directory)) {
    text += "\n    " + entry.filename().string();
  }
  return text + "\n)";
}

}  // namespace

QSOAudioDownloadSessionDelegate::QSOAudioDownloadSessionDelegate(
    QSOChapterDescription chapter, QSODownloadRequest request, Completion completion,
    std::weak_ptr<DownloadEngineCore> engine)
    : chapter_(std::move(chapter)),
      request_(std::move(request)),
      completion_(std::move(completion)),
      engine_(std::move(engine)) {}

void QSOAudioDownloadSessionDelegate::didWriteData(const TransferTask& /*task*/,
                                                   int64_t totalBytesWritten,
                                                   int64_t totalBytesExpectedToWrite) {
  if (cancelled_) return;
  if (auto progress = QSOProgressManager::sharedManager()->progressForAudiobookID(
          chapter_.audiobookID(), chapter_.partNumber(), chapter_.chapterNumber())) {
    if (totalBytesExpectedToWrite > 0) {
      progress->setTotalUnitCount(static_cast<uint64_t>(totalBytesExpectedToWrite));
    }
    progress->setCompletedUnitCount(static_cast<uint64_t>(std::max<int64_t>(totalBytesWritten, 0)));
  }
  if (postedDownloadStarted_) return;
  {
    std::lock_guard lock(startMutex_);
    if (postedDownloadStarted_) return;
    postedDownloadStarted_ = true;
  }
  if (auto engine = engine_.lock()) engine->triggerStartForChapterDescription(chapter_, request_);
}

void QSOAudioDownloadSessionDelegate::didFinishDownloadingToURL(
    const TransferTask& task, const std::filesystem::path& location) {
  const long status = task.response() ? task.response()->statusCode : 0;
  LogEngineVerbose("[AudioDownloadTask][%d] didFinishDownloadingToURL (%lu, %lu) %lu", status,
                   chapter_.partNumber(), chapter_.chapterNumber(), task.countOfBytesReceived());
  auto engine = engine_.lock();
  if (!engine) return;
  ErrorPtr result;
  {
    std::lock_guard stateLock(*engine->stateLockForAudiobookID(chapter_.audiobookID()));
    if (cancelled_) return;
    switch (status) {
      case 200:
        result = process200AudioTask(task, location);
        break;
      case 400:
        result = process400AudioTask();
        break;
      case 404:
        result = process404AudioTask();
        break;
      case 500:
      case 503:
      case 504:
        result = process500AudioTask();
        break;
      default:
        result = processUnknownAudioTask(status, location);
        break;
    }
  }
  completion_(std::move(result));
}

ErrorPtr QSOAudioDownloadSessionDelegate::process400AudioTask() {
  LogEngineError("[QSOAudioDownloadSessionDelegate] Failed due to receiving a 400 from the server");
  return downloadError(15000);
}

ErrorPtr QSOAudioDownloadSessionDelegate::process404AudioTask() { return downloadError(11004); }

ErrorPtr QSOAudioDownloadSessionDelegate::process500AudioTask() { return downloadError(11009); }

ErrorPtr QSOAudioDownloadSessionDelegate::processUnknownAudioTask(
    long statusCode, const std::filesystem::path& location) {
  std::ifstream in(location, std::ios::binary);
  std::string body((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (body.empty()) {
    LogEngineError(
        "[QSOAudioDownloadSessionDelegate] An unknown error occurred when attempting to download "
        "audio");
    Dictionary info;
    info.emplace(std::string(kLocalizedDescriptionKey),
                 stringWithFormat("Empty Response Body. Status %d", statusCode));
    return Error::make(std::string(QSOErrorDomain), 10000, std::move(info));
  }
  auto json = nlohmann::json::parse(body, nullptr, /*allow_exceptions=*/false);
  if (json.is_discarded()) {
    auto parseError = Error::make("NSCocoaErrorDomain", 3840,
                                  "The data couldn't be read because it isn't in the correct "
                                  "format.",
                                  nullptr);
    return downloadError(10000, parseError);
  }
  if (auto document = QSOAPIErrorResponse::errorResponseFromDictionary(json)) {
    return document->toNSError();
  }
  return downloadError(10000);
}

ErrorPtr QSOAudioDownloadSessionDelegate::process200AudioTask(
    const TransferTask& task, const std::filesystem::path& location) {
  const uint64_t expected =
      static_cast<uint64_t>(std::max<int64_t>(task.countOfBytesReceived(), 0));
  if (isDownloaded(chapter_) && FilesystemHelper::sizeOnDisk(chapter_) == expected) {
    // An earlier run moved this file into place and recorded it, then died before the transfer
    // service forgot the transfer, which delivers it again: the chapter is whole already, and
    // counting it twice would overstate the book's downloaded size.
    LogEngineInfo("Chapter %@ was downloaded before its transfer was delivered again", chapter_);
    return nullptr;
  }
  if (auto error = moveFileFromURL(location)) return error;
  const uint64_t actual = FilesystemHelper::sizeOnDisk(chapter_);
  if (expected != actual) {
    FilesystemHelper::deleteFile(chapter_, true);
    Dictionary sizes;
    sizes.emplace("ExpectedSize", expected);
    sizes.emplace("ActualSize", actual);
    return downloadError(15002, nullptr, std::move(sizes));
  }
  saveChapterDownloadedSize(expected);
  if (auto engine = engine_.lock()) engine->markChapterDownloadComplete(chapter_, request_);
  return nullptr;
}

ErrorPtr QSOAudioDownloadSessionDelegate::moveFileFromURL(const std::filesystem::path& location) {
  auto engine = engine_.lock();
  if (!engine) return downloadError(10000);
  FileSystem& files = *engine->services()->files;
  ErrorPtr createError;
  auto directory = FilesystemHelper::createAudiobookDirectory(chapter_.audiobookID(), &createError);
  if (!directory) return downloadError(18000, createError);
  const auto destination = FilesystemHelper::filePath(chapter_);
  LogEngineVerbose("Moving file from %@ to %@", location.string(), destination.string());
  ErrorPtr moveError = files.moveItem(location, destination);
  if (!moveError) return nullptr;

  LogEngineError("error moving file to destination: %@", moveError);
  const bool exists = (moveError->domain == kFileSystemErrorDomain &&
                       moveError->code == kFileWriteFileExistsError) ||
                      (moveError->domain == kPOSIXErrorDomain && moveError->code == EEXIST);
  if (exists) {
    LogEngineWarning("Error said that destination file exists at", destination.string());
    LogEngineWarning("Contents of directory %@: %@", directory->string(),
                     listing(*directory, files));
  } else if (moveError->domain == kFileSystemErrorDomain &&
             moveError->code == kFileNoSuchFileError) {
    LogEngineWarning("Error said that the file doesn't exist at ");
    LogEngineWarning("Contents of directory %@: %@", directory->string(),
                     listing(*directory, files));
    LogEngineWarning("Contents of directory %@: %@", location.parent_path().string(),
                     listing(location.parent_path(), files));
  }
  FilesystemHelper::deleteFile(chapter_, true);
  if (isFilesystemFullError(moveError)) return downloadError(18000, moveError);
  if (files.fileExists(location)) {
    LogEngineVerbose("Retrying file from %@ to %@", location.string(), destination.string());
    ErrorPtr retryError = files.moveItem(location, destination);
    if (!retryError) return nullptr;
    LogEngineError(
        "error occured while retrying to move file from temp location to documents folder %@",
        retryError);
    return downloadError(10000, retryError);
  }
  const uint64_t resolution = getFailureResolutionForError(moveError);
  if (resolution == 1) {
    LogEngineInfo(
        "Resetting chapter download status so chapter will be rescheduled for download "
        "audiobookID:%@ part:%d chapter:%d",
        chapter_.audiobookID(), chapter_.partNumber(), chapter_.chapterNumber());
    silentReset();
  }
  Dictionary extra;
  extra.emplace(std::string(QSODownloadFailureResolutionCodeKey), resolution);
  return downloadError(10000, moveError, std::move(extra));
}

void QSOAudioDownloadSessionDelegate::saveChapterDownloadedSize(uint64_t size) {
  if (auto chapter = QSOChapterStatus::fetchForChapterDescription(chapter_)) {
    chapter->setDownloadedSize(size);
    chapter->setTotalSize(size);
    chapter->writeUpdateForProperties({"downloadedSize", "totalSize"});
    if (auto audiobook = QSOAudiobookStatus::fetchAudiobookStatusForAudiobookIdentifier(
            chapter_.audiobookID())) {
      audiobook->setDownloadedSize(audiobook->downloadedSize() + chapter->totalSize());
      audiobook->writeUpdateForProperties({"downloadedSize"});
    }
  }
  if (auto progress = QSOProgressManager::sharedManager()->progressForAudiobookID(
          chapter_.audiobookID(), chapter_.partNumber(), chapter_.chapterNumber())) {
    progress->setTotalUnitCount(size);
    progress->setCompletedUnitCount(size);
  }
}

void QSOAudioDownloadSessionDelegate::silentReset() {
  if (auto progress = QSOProgressManager::sharedManager()->progressForAudiobookID(
          chapter_.audiobookID(), chapter_.partNumber(), chapter_.chapterNumber())) {
    progress->setCompletedUnitCount(0);
  }
  if (auto chapter = QSOChapterStatus::fetchForChapterDescription(chapter_)) {
    chapter->setDownloadedSize(0);
    chapter->writeUpdateForProperties({"downloadedSize"});
  }
}

void QSOAudioDownloadSessionDelegate::didCompleteWithError(ErrorPtr error) {
  LogEngineError("URLSession Audio task (%@) complete with error: %@", chapter_, error);
  if (!error) return;
  const uint64_t resolution = getFailureResolutionForError(error);
  if (resolution == 1 && isDownloaded(chapter_)) {
    // An earlier run moved the file into place and recorded it, then died before the transfer
    // service forgot the transfer, which it now reports lost: nothing is missing, and resetting
    // the chapter's size would make a downloaded chapter read as empty.
    LogEngineInfo("Chapter %@ was downloaded before its transfer was lost", chapter_);
    completion_(nullptr);
    return;
  }
  ErrorPtr result;
  if (resolution == 1) {
    silentReset();
    Dictionary extra;
    extra.emplace(std::string(QSODownloadFailureResolutionCodeKey), uint64_t{1});
    result = downloadError(10000, error, std::move(extra));
  } else if (isFilesystemFullError(error)) {
    result = downloadError(18000, error);
  } else {
    result = downloadError(10000, error);
  }
  completion_(std::move(result));
}

uint64_t QSOAudioDownloadSessionDelegate::getFailureResolutionForError(
    const ErrorPtr& error) const {
  const bool recoverable = error && ((error->domain == kURLLoadingErrorDomain &&
                                      error->code == kURLErrorBackgroundSessionWasDisconnected) ||
                                     (error->domain == kPOSIXErrorDomain && error->code == EINTR));
  if (recoverable) {
    LogEngineError("Recovering (%@) error: %@", chapter_, error);
    return 1;
  }
  LogEngineVerbose("Audio task (%@) cannot recover from error: %@", chapter_, error);
  return 0;
}

bool QSOAudioDownloadSessionDelegate::isFilesystemFullError(const ErrorPtr& error) {
  if (!error) return false;
  const Error* examined = error.get();
  if (error->domain == kFileSystemErrorDomain && error->code == kFileWriteUnknownError) {
    // A write failure is looked at two levels down, but the test below reads the outermost
    // error's domain, so such an error never counts as a full disk. Kept on purpose.
    for (int level = 0; level < 2; ++level) {
      auto underlying = examined->underlyingError();
      if (!underlying) break;
      examined = underlying.get();
    }
  }
  return error->domain == kPOSIXErrorDomain && examined->code == ENOSPC;
}

}  // namespace sonorell
