// QSOFileReadOperation: answers one loading request of the player from a chapter file on disk:
// the content information, then the requested range in pieces read on a fixed chunk grid through
// a plain file descriptor. Runs once on its delegate's operation queue; its reading state is
// touched only by that run. Cancellation may come from any thread and is checked before each piece.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/dispatch/operation_queue.h"
#include "platform/media/loading_request.h"

namespace sonorell {

class QSOFileReadOperation : public Operation {
 public:
  static constexpr uint64_t kDefaultChunkSize = 10240;

  QSOFileReadOperation(std::shared_ptr<LoadingRequest> loadingRequest, std::string filePath,
                       std::string filename, uint64_t fileLength, uint64_t fileChunkSize);
  ~QSOFileReadOperation() override;

  const std::shared_ptr<LoadingRequest>& loadingRequest() const { return loadingRequest_; }
  const std::string& filePath() const { return filePath_; }
  const std::string& filename() const { return filename_; }

  void main() override;

  // Positions reading at a byte offset of the audio; aborts with 25003 when the seek fails.
  void setOffset(uint64_t offset);
  // The next piece of at most `length` bytes: the rest of the current chunk, read whole from its
  // start. Empty after an abort. Valid until the next call.
  std::span<const uint8_t> readDataOfLength(uint64_t length);
  bool openFileIfNeeded();
  bool openFile();
  // Finishes the loading request with the error and cancels the operation.
  void abortWithErrorCode(int64_t code, const std::string& description);

 private:
  void closeFile();

  const std::shared_ptr<LoadingRequest> loadingRequest_;
  const std::string filePath_;
  const std::string filename_;
  const uint64_t fileLength_;
  const uint64_t fileChunkSize_;
  std::vector<uint8_t> buffer_;  // one chunk

  int fileFD_ = -1;
  uint64_t fileOffset_ = 0;   // file position of the chunk being served, on the chunk grid
  uint64_t chunkOffset_ = 0;  // position inside that chunk of the next byte to serve
  uint64_t oldChunkOffset_ = 0;
  uint64_t servedOffset_ = 0;  // offset in the audio of the next byte to serve
  int64_t lastReadPosition_ = 0;
  bool aborted_ = false;
};

}  // namespace sonorell
