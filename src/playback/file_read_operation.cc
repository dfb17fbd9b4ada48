#include "playback/file_read_operation.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "core/error_descriptions.h"
#include "core/logging.h"
#include "sonorell/errors.h"

namespace sonorell {

namespace {

std::string describeCode(QSOPlaybackFailureCode code) {
  return std::string(playbackDescriptionForErrorCode(static_cast<int64_t>(code)));
}

}  // namespace

QSOFileReadOperation::QSOFileReadOperation(std::shared_ptr<LoadingRequest> loadingRequest,
                                           std::string filePath, std::string filename,
                                           uint64_t fileLength, uint64_t fileChunkSize)
    : loadingRequest_(std::move(loadingRequest)),
      filePath_(std::move(filePath)),
      filename_(std::move(filename)),
      fileLength_(fileLength),
      fileChunkSize_(fileChunkSize == 0 ? kDefaultChunkSize : fileChunkSize),
      buffer_(fileChunkSize_) {}

QSOFileReadOperation::~QSOFileReadOperation() { closeFile(); }

void QSOFileReadOperation::main() {
  DataRequest* data = loadingRequest_->dataRequest();
  ContentInformationRequest* info = loadingRequest_->contentInformationRequest();
  const int64_t requestedOffset = data ? data->requestedOffset() : 0;
  const int64_t requestedLength = data ? data->requestedLength() : 0;
  LogEngineVerbose("[PlaybackEngine] ReasourceLoader returning data from file.");

  if (static_cast<uint64_t>(requestedOffset) != servedOffset_) {
    setOffset(static_cast<uint64_t>(requestedOffset));
  }
  if (info) {
    info->setContentLength(static_cast<int64_t>(fileLength_));
    info->setByteRangeAccessSupported(true);
    info->setContentType("public.mp3");
    LogEngineVerbose("[PlaybackEngine] Returning Content Info Request: %@", *info);
  }
  if (!data || isCancelled()) {
    LogEngineError(
        "[PlaybackEngine] not returning data because either the data request (%@) is null, or we "
        "are cancelled (%@)",
        data ? data->description() : std::string("(null)"), isCancelled() ? "YES" : "NO");
  } else {
    LogEngineVerbose("[PlaybackEngine] Beginning return data loop");
    const int64_t end = requestedOffset + requestedLength;
    for (int64_t current = data->currentOffset(); current < end; current = data->currentOffset()) {
      if (isCancelled()) break;
      std::span<const uint8_t> piece = readDataOfLength(static_cast<uint64_t>(end - current));
      if (piece.empty()) break;  // aborted: the request is already finished with the error
      data->respondWithData(piece.data(), piece.size());
    }
    closeFile();
  }
  LogEngineVerbose("[PlaybackEngine] Finished with request: %@", *loadingRequest_);
  if (!isCancelled()) loadingRequest_->finishLoading();
}

void QSOFileReadOperation::setOffset(uint64_t offset) {
  if (!openFileIfNeeded()) return;
  servedOffset_ = offset;
  fileOffset_ = offset / fileChunkSize_ * fileChunkSize_;
  chunkOffset_ = offset % fileChunkSize_;
  if (lseek(fileFD_, static_cast<off_t>(fileOffset_), SEEK_SET) < 0) {
    LogEngineError("[PlaybackEngine] seek failed - errno(%i) filePath(%@)", errno, filePath_);
    abortWithErrorCode(static_cast<int64_t>(QSOPlaybackFailureCode::FileSeekFailure),
                       describeCode(QSOPlaybackFailureCode::FileSeekFailure));
  }
}

std::span<const uint8_t> QSOFileReadOperation::readDataOfLength(uint64_t length) {
  if (!openFileIfNeeded()) return {};
  const uint64_t remaining = fileOffset_ < fileLength_ ? fileLength_ - fileOffset_ : 0;
  const off_t position = lseek(fileFD_, 0, SEEK_CUR);
  ssize_t got;
  do {
    got = read(fileFD_, buffer_.data(), std::min(fileChunkSize_, remaining));
  } while (got < 0 && errno == EINTR);
  lastReadPosition_ = got > 0 ? position + got : position;
  if (got < 0) {
    abortWithErrorCode(static_cast<int64_t>(QSOPlaybackFailureCode::FileReadFailure),
                       describeCode(QSOPlaybackFailureCode::FileReadFailure));
    return {};
  }
  // Nothing read, or a file shorter than its record says: the range cannot be served.
  if (got == 0 || static_cast<uint64_t>(got) <= chunkOffset_) {
    abortWithErrorCode(static_cast<int64_t>(QSOPlaybackFailureCode::FileNoDataFailure),
                       describeCode(QSOPlaybackFailureCode::FileNoDataFailure));
    return {};
  }

  oldChunkOffset_ = chunkOffset_;
  if (fileChunkSize_ - chunkOffset_ <= length) {
    // The chunk is used up; the descriptor already stands at the next one.
    chunkOffset_ = 0;
    fileOffset_ += fileChunkSize_;
  } else {
    // Read the same chunk again for the next piece, so that every read stays on the grid.
    chunkOffset_ += length;
    if (lseek(fileFD_, position, SEEK_SET) < 0) {
      LogEngineError("[PlaybackEngine] seek failed - errno(%i) filePath(%@)", errno, filePath_);
      abortWithErrorCode(static_cast<int64_t>(QSOPlaybackFailureCode::FileSeekFailure),
                         describeCode(QSOPlaybackFailureCode::FileSeekFailure));
      return {};
    }
  }
  const uint64_t size = std::min(
      {fileChunkSize_ - oldChunkOffset_, length, static_cast<uint64_t>(got) - oldChunkOffset_});
  servedOffset_ += size;
  return {buffer_.data() + oldChunkOffset_, static_cast<size_t>(size)};
}

bool QSOFileReadOperation::openFileIfNeeded() {
  if (aborted_) {
    LogEngineError("[PlaybackEngine] Not opening file because of abort");
    return false;
  }
  return fileFD_ != -1 || openFile();
}

bool QSOFileReadOperation::openFile() {
  int fd = open(filePath_.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    LogEngineError("[PlaybackEngine] Unable to open file at path: %@", filePath_);
    abortWithErrorCode(static_cast<int64_t>(QSOPlaybackFailureCode::FileOpenFailure),
                       describeCode(QSOPlaybackFailureCode::FileOpenFailure));
    return false;
  }
  fileFD_ = fd;
  LogEngineVerbose("[PlaybackEngine]: Opened File[%i] at path: %@", fd, filePath_);
  return true;
}

void QSOFileReadOperation::abortWithErrorCode(int64_t code, const std::string& description) {
  aborted_ = true;
  ErrorPtr error = Error::make(std::string(QSOErrorDomain), code, description, nullptr);
  LogEngineError("[PlaybackEngine] Code wanted to abort: %@", error);
  loadingRequest_->finishLoading(error);
  cancel();
}

void QSOFileReadOperation::closeFile() {
  if (fileFD_ == -1) return;
  close(fileFD_);
  fileFD_ = -1;
}

}  // namespace sonorell
