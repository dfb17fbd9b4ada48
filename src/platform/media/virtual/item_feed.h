// Pulls one item's bytes through its resource loader for the virtual backend: a content-
// information request first, then data requests one after another from a start offset. It keeps
// counts, not bytes (only the head, to read the stream's bitrate). Guarded by its own mutex;
// loader answers arrive on the delegate's queue and are reported through `onChange`.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/media/loading_request.h"
#include "platform/media/mpeg_audio_header.h"
#include "platform/media/resource_loader.h"

namespace sonorell {

class VirtualItemFeed : public LoadingRequestClient,
                        public std::enable_shared_from_this<VirtualItemFeed> {
 public:
  struct Snapshot {
    std::optional<ContentInformation> info;
    std::optional<MpegAudioInfo> audio;
    int64_t rangeStart = 0;   // first byte of the contiguous run being read
    int64_t rangeEnd = 0;     // one past the last byte received
    bool complete = false;    // the run reached the content length
    bool endedEarly = false;  // the loader finished short of the content length
    ErrorPtr error;           // the loader failed
    std::optional<HttpRedirect> redirect;
  };

  static constexpr int64_t kChunk = 64 * 1024;

  static std::shared_ptr<VirtualItemFeed> create(std::string url,
                                                 std::shared_ptr<ResourceLoader> loader,
                                                 std::function<void()> onChange);
  // Starts (or restarts) reading at `offset`; an outstanding request is cancelled.
  void start(int64_t offset);
  void stop();
  // Reads from a new loader from now on (after a redirect was resolved) at the current offset.
  void switchLoader(std::shared_ptr<ResourceLoader> loader);
  bool started() const;
  Snapshot snapshot() const;

  void loadingRequestDidReceiveData(LoadingRequest& request, const uint8_t* data,
                                    size_t size) override;
  void loadingRequestDidFinish(LoadingRequest& request) override;

 private:
  VirtualItemFeed(std::string url, std::shared_ptr<ResourceLoader> loader,
                  std::function<void()> onChange);
  // Issues the next request under the lock; returns it for loading outside the lock.
  std::shared_ptr<LoadingRequest> nextRequestLocked();
  void issue(std::shared_ptr<LoadingRequest> request);

  const std::string url_;
  const std::function<void()> onChange_;

  mutable std::mutex mutex_;
  std::shared_ptr<ResourceLoader> loader_;
  std::shared_ptr<LoadingRequest> outstanding_;
  bool started_ = false;
  Snapshot state_;
  std::vector<uint8_t> head_;  // the first bytes, until the frame header is found
};

}  // namespace sonorell
