#include "playback/resource_loader_delegate.h"

#include "core/error_descriptions.h"
#include "core/logging.h"
#include "core/notification_poster.h"
#include "download/integrity_manager.h"
#include "persistence/audiobook_status.h"
#include "persistence/chapter_status.h"
#include "persistence/filesystem_helper.h"
#include "platform/foundation/uuid.h"
#include "playback/file_read_operation.h"
#include "playback/streaming_url_manager.h"
#include "sonorell/download_status.h"
#include "sonorell/errors.h"

namespace sonorell {

namespace {

ErrorPtr playbackError(QSOPlaybackFailureCode code, ErrorPtr underlying) {
  const auto value = static_cast<int64_t>(code);
  return Error::make(std::string(QSOErrorDomain), value,
                     std::string(playbackDescriptionForErrorCode(value)), std::move(underlying));
}

}  // namespace

QSOResourceLoaderDelegate::QSOResourceLoaderDelegate(
    std::string sessionKey, std::string licenseId, bool wifiOnly,
    std::shared_ptr<QSOStreamingURLManager> streamingURLs,
    std::shared_ptr<Reachability> reachability)
    : sessionKey_(std::move(sessionKey)),
      licenseId_(std::move(licenseId)),
      streamingURLs_(std::move(streamingURLs)),
      reachability_(std::move(reachability)),
      operationQueue_(OperationQueue::create("io.sonorell.playbackengine.fileread")),
      wifiOnly_(wifiOnly) {}

bool QSOResourceLoaderDelegate::wifiOnly() const {
  std::lock_guard lock(mutex_);
  return wifiOnly_;
}

void QSOResourceLoaderDelegate::setWifiOnly(bool wifiOnly) {
  std::lock_guard lock(mutex_);
  wifiOnly_ = wifiOnly;
}

bool QSOResourceLoaderDelegate::isStreaming() const {
  std::lock_guard lock(mutex_);
  return streaming_;
}

ErrorPtr QSOResourceLoaderDelegate::loaderError() const {
  std::lock_guard lock(mutex_);
  return loaderError_;
}

QSOConnectionType QSOResourceLoaderDelegate::currentConnectionType() const {
  if (!reachability_) return QSOConnectionType::Unknown;
  return static_cast<QSOConnectionType>(reachability_->connectionType());
}

std::string QSOResourceLoaderDelegate::description() const {
  std::lock_guard lock(mutex_);
  return stringWithFormat("QSOResourceLoaderDelegate %@ (%d, %d)", fileName_, partNumber_,
                          chapterNumber_);
}

Dictionary QSOResourceLoaderDelegate::prepareDictionaryWithAudiobookID(
    const std::string& audiobookID, uint64_t part, uint64_t chapter,
    const std::optional<std::string>& description, int64_t code, const ErrorPtr& error) {
  return QSONotificationPoster::prepareDictionaryWithChapterDescription(
      QSOChapterDescription(audiobookID, part, chapter), description, code, error);
}

void QSOResourceLoaderDelegate::parseURLIfNeeded(const std::string& url) {
  if (parsed_) return;
  parsed_ = true;
  QSOChapterURL parsed = parseChapterURL(url);
  fileName_ = std::move(parsed.fileName);
  if (!parsed.namesChapter) return;  // not a chapter file name: never on disk
  audiobookID_ = std::move(parsed.audiobookID);
  partNumber_ = parsed.partNumber;
  chapterNumber_ = parsed.chapterNumber;
  const auto directory = FilesystemHelper::audiobookDirectory(audiobookID_);
  if (directory.empty() || fileName_.find('/') != std::string::npos) return;
  filePath_ = (directory / fileName_).string();

  const QSOChapterDescription chapter(audiobookID_, static_cast<uint64_t>(partNumber_),
                                      static_cast<uint64_t>(chapterNumber_));
  auto record = QSOChapterStatus::fetchForChapterDescription(chapter);
  if (!record) return;
  const uint64_t before = record->downloadStatus();
  QSOIntegrityManager::verifyChapterStatus(*record);
  if (record->downloadStatus() != before) {
    if (auto audiobook =
            QSOAudiobookStatus::fetchAudiobookStatusForAudiobookIdentifier(audiobookID_)) {
      QSOIntegrityManager::getNewStatusForAudiobook(*audiobook, true);
    }
  }
  if (record->downloadStatus() == DownloadStatusDownloaded) {
    onDisk_ = true;
    fileLength_ = record->totalSize();
    chunkSize_ = QSOFileReadOperation::kDefaultChunkSize;
  }
}

bool QSOResourceLoaderDelegate::shouldWaitForLoadingOfRequestedResource(
    ResourceLoader& /*loader*/, const std::shared_ptr<LoadingRequest>& request) {
  DataRequest* data = request->dataRequest();
  ContentInformationRequest* info = request->contentInformationRequest();
  LogEngineVerbose("[PlaybackEngine] request: %@", *request);
  LogEngineVerbose("[PlaybackEngine] content info request: %@",
                   info ? info->description() : std::string("(null)"));
  LogEngineVerbose("[PlaybackEngine] data request: %@",
                   data ? data->description() : std::string("(null)"));

  bool onDisk;
  bool refuseCellular;
  std::string fileName;
  {
    std::lock_guard lock(mutex_);
    parseURLIfNeeded(request->url());
    onDisk = onDisk_;
    refuseCellular = wifiOnly_;
    fileName = fileName_;
  }
  const int64_t offset = data ? data->requestedOffset() : 0;
  const int64_t length = data ? data->requestedLength() : 0;

  if (onDisk) {
    startFileRead(request);
    return true;
  }
  if (refuseCellular && currentConnectionType() == QSOConnectionType::Cellular) {
    refuse(request, playbackError(QSOPlaybackFailureCode::CellularProhibited, nullptr));
    return false;
  }
  {
    std::lock_guard lock(mutex_);
    streaming_ = true;
  }
  if (auto url = streamingURLs_->streamingURLForFilename(fileName)) {
    LogEngineVerbose("[PlaybackEngine] ReasourceLoader Redirecting to streaming (%@)", *url);
    redirect(request, *url, offset, length);
    return true;
  }
  LogEngineVerbose(
      "[PlaybackEngine] ReasourceLoader needs to redirect, but doesn't have a stream url. "
      "Fetching");
  std::weak_ptr<QSOResourceLoaderDelegate> weak = weak_from_this();
  streamingURLs_->requestStreamingURLForFilename(
      fileName, sessionKey_, licenseId_,
      [weak, request, offset, length](ErrorPtr error, std::optional<std::string> url) {
        auto self = weak.lock();
        if (error || !url || url->empty()) {
          ErrorPtr failure = playbackError(QSOPlaybackFailureCode::ResourceCannotBeLoaded, error);
          if (self) {
            self->refuse(request, failure);
          } else {
            request->finishLoading(failure);
          }
          return;
        }
        LogEngineVerbose(
            "[PlaybackEngine] ReasourceLoader got the required url. Redirecting to streaming (%@)",
            *url);
        redirect(request, *url, offset, length);
      });
  return true;
}

void QSOResourceLoaderDelegate::startFileRead(const std::shared_ptr<LoadingRequest>& request) {
  std::shared_ptr<QSOFileReadOperation> operation;
  {
    std::lock_guard lock(mutex_);
    operation = std::make_shared<QSOFileReadOperation>(request, filePath_, fileName_, fileLength_,
                                                       chunkSize_);
    std::erase_if(readOperations_, [](const auto& weak) { return weak.expired(); });
    readOperations_.push_back(operation);
  }
  operationQueue_->addOperation(operation);
}

void QSOResourceLoaderDelegate::refuse(const std::shared_ptr<LoadingRequest>& request,
                                       ErrorPtr error) {
  LogEngineError("[PlaybackEngine] Code wanted to abort when trying to load reasource: %@", error);
  {
    std::lock_guard lock(mutex_);
    loaderError_ = error;
  }
  request->finishLoading(std::move(error));
}

void QSOResourceLoaderDelegate::redirect(const std::shared_ptr<LoadingRequest>& request,
                                         const std::string& url, int64_t offset, int64_t length) {
  // The upper bound is one byte past the range asked for, on purpose: servers and players have
  // long relied on it.
  request->setRedirect(HttpRedirect{
      url,
      {{"X-Request-Id", makeUUIDString()},
       {"Range", "bytes=" + std::to_string(offset) + "-" + std::to_string(offset + length)}}});
  request->setResponseStatusCode(302);
  request->finishLoading();
}

void QSOResourceLoaderDelegate::didCancelLoadingRequest(
    ResourceLoader& /*loader*/, const std::shared_ptr<LoadingRequest>& request) {
  LogEngineVerbose("[PlaybackEngine] didCancelLoadingRequest: %@", *request);
  std::vector<std::shared_ptr<QSOFileReadOperation>> matching;
  {
    std::lock_guard lock(mutex_);
    for (const auto& weak : readOperations_) {
      auto operation = weak.lock();
      if (operation && operation->loadingRequest() == request) matching.push_back(operation);
    }
  }
  for (const auto& operation : matching) operation->cancel();
}

}  // namespace sonorell
