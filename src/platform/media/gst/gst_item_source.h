// Feeds one item's bytes to GStreamer through its resource loader. First a probe (content
// information and the first bytes) tells whether the item is read through appsrc or redirected to
// HTTP; then an attached appsrc (seekable, push mode) turns its byte-range seeks and reads into
// loading requests. Guarded by mutex_; appsrc calls arrive on streaming threads, loader answers
// on the delegate's queue. No GStreamer type appears here: the appsrc is passed as void*.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/media/loading_request.h"
#include "platform/media/resource_loader.h"

namespace sonorell {

class GstItemSource : public LoadingRequestClient,
                      public std::enable_shared_from_this<GstItemSource> {
 public:
  struct Probe {
    bool done = false;
    ContentInformation info;
    std::optional<HttpRedirect> redirect;
    ErrorPtr error;
  };
  // The loader failed, redirected mid-stream, or the content ended early (error set; the
  // stream has been ended so the pipeline drains).
  using FailureHandler = std::function<void(ErrorPtr error, bool endedEarly)>;

  static constexpr int64_t kChunk = 64 * 1024;

  static std::shared_ptr<GstItemSource> create(std::string url,
                                               std::shared_ptr<ResourceLoader> loader);
  ~GstItemSource() override;

  // Sends the content-information request once; `done` runs (on the loader's thread) when it
  // is answered.
  void startProbe(std::function<void()> done);
  Probe probe() const;
  // Waits, in real time, for the probe's answer; false on time-out.
  bool waitForProbe(std::chrono::milliseconds limit) const;

  // Takes over a new appsrc element (a GstElement*), replacing any earlier one.
  void attach(void* appsrc, FailureHandler onFailure);
  void detach();
  // All bytes were handed to the appsrc and its stream ended.
  bool reachedEnd() const;
  bool endedEarly() const;
  ErrorPtr failure() const;

  void loadingRequestDidReceiveData(LoadingRequest& request, const uint8_t* data,
                                    size_t size) override;
  void loadingRequestDidFinish(LoadingRequest& request) override;

  // appsrc callbacks (streaming threads).
  void needData();
  void enoughData();
  bool seekData(uint64_t offset);

 private:
  GstItemSource(std::string url, std::shared_ptr<ResourceLoader> loader);
  // Makes the next data request if one is wanted; returns it for loading outside the lock.
  std::shared_ptr<LoadingRequest> nextRequestLocked();
  void endStreamLocked();

  const std::string url_;
  const std::shared_ptr<ResourceLoader> loader_;

  mutable std::mutex mutex_;
  mutable std::condition_variable probed_;
  std::shared_ptr<LoadingRequest> probeRequest_;
  std::function<void()> probeDone_;
  Probe probe_;
  void* appsrc_ = nullptr;  // a GstElement*, referenced while attached
  FailureHandler onFailure_;
  std::shared_ptr<LoadingRequest> outstanding_;
  uint64_t offset_ = 0;  // next byte the appsrc expects
  // appsrc asked for data and has not said enough. Atomic, not under mutex_: appsrc says
  // "enough" from inside a push made under mutex_.
  std::atomic<bool> wanted_{false};
  bool reachedEnd_ = false;
  bool endedEarly_ = false;
  ErrorPtr failure_;
};

}  // namespace sonorell
