#include "platform/media/gst/gst_item_source.h"

#include <gst/app/gstappsrc.h>
#include <gst/gst.h>

#include <algorithm>

#include "platform/media/media_errors.h"

namespace sonorell {
namespace {

using WeakSource = std::weak_ptr<GstItemSource>;

void onNeedData(GstAppSrc*, guint, gpointer data) {
  if (auto self = static_cast<WeakSource*>(data)->lock()) self->needData();
}
void onEnoughData(GstAppSrc*, gpointer data) {
  if (auto self = static_cast<WeakSource*>(data)->lock()) self->enoughData();
}
gboolean onSeekData(GstAppSrc*, guint64 offset, gpointer data) {
  auto self = static_cast<WeakSource*>(data)->lock();
  return self && self->seekData(offset);
}
void deleteWeak(gpointer data) { delete static_cast<WeakSource*>(data); }

}  // namespace

std::shared_ptr<GstItemSource> GstItemSource::create(std::string url,
                                                     std::shared_ptr<ResourceLoader> loader) {
  return std::shared_ptr<GstItemSource>(new GstItemSource(std::move(url), std::move(loader)));
}

GstItemSource::GstItemSource(std::string url, std::shared_ptr<ResourceLoader> loader)
    : url_(std::move(url)), loader_(std::move(loader)) {}

GstItemSource::~GstItemSource() { detach(); }

void GstItemSource::startProbe(std::function<void()> done) {
  std::shared_ptr<LoadingRequest> request;
  {
    std::lock_guard lock(mutex_);
    if (probeRequest_ || probe_.done) return;
    LoadingRequest::Options options;
    options.contentInformation = true;
    options.data = std::make_pair(int64_t{0}, int64_t{2});
    probeRequest_ = request = LoadingRequest::create(url_, options, weak_from_this());
    probeDone_ = std::move(done);
  }
  loader_->load(request);
}

GstItemSource::Probe GstItemSource::probe() const {
  std::lock_guard lock(mutex_);
  return probe_;
}

bool GstItemSource::waitForProbe(std::chrono::milliseconds limit) const {
  std::unique_lock lock(mutex_);
  return probed_.wait_for(lock, limit, [this] { return probe_.done; });
}

void GstItemSource::attach(void* element, FailureHandler onFailure) {
  detach();
  auto* appsrc = GST_APP_SRC(element);
  std::lock_guard lock(mutex_);
  appsrc_ = gst_object_ref(appsrc);
  onFailure_ = std::move(onFailure);
  offset_ = 0;
  wanted_ = false;
  reachedEnd_ = endedEarly_ = false;
  failure_.reset();
  // Seekable push mode: pull mode (random-access) lets typefind and parsers read scattered
  // ranges that appsrc answers from its queue regardless of offset.
  gst_app_src_set_stream_type(appsrc, GST_APP_STREAM_TYPE_SEEKABLE);
  g_object_set(appsrc, "format", GST_FORMAT_BYTES, "max-bytes", guint64{4 * kChunk}, "min-percent",
               50, nullptr);
  gst_app_src_set_size(appsrc, probe_.info.contentLength);
  GstAppSrcCallbacks callbacks{};
  callbacks.need_data = onNeedData;
  callbacks.enough_data = onEnoughData;
  callbacks.seek_data = onSeekData;
  gst_app_src_set_callbacks(appsrc, &callbacks, new WeakSource(weak_from_this()), deleteWeak);
}

void GstItemSource::detach() {
  GstAppSrc* appsrc = nullptr;
  std::shared_ptr<LoadingRequest> outstanding;
  {
    std::lock_guard lock(mutex_);
    appsrc = static_cast<GstAppSrc*>(appsrc_);
    appsrc_ = nullptr;
    outstanding = std::move(outstanding_);
    onFailure_ = nullptr;
  }
  if (outstanding) loader_->cancel(outstanding);
  if (appsrc) {
    GstAppSrcCallbacks none{};
    gst_app_src_set_callbacks(appsrc, &none, nullptr, nullptr);
    gst_object_unref(appsrc);
  }
}

bool GstItemSource::reachedEnd() const {
  std::lock_guard lock(mutex_);
  return reachedEnd_;
}

bool GstItemSource::endedEarly() const {
  std::lock_guard lock(mutex_);
  return endedEarly_;
}

ErrorPtr GstItemSource::failure() const {
  std::lock_guard lock(mutex_);
  return failure_;
}

std::shared_ptr<LoadingRequest> GstItemSource::nextRequestLocked() {
  if (!appsrc_ || outstanding_ || !wanted_ || reachedEnd_ || failure_) return nullptr;
  int64_t length = kChunk;
  int64_t total = probe_.info.contentLength;
  if (total >= 0) {
    if (static_cast<int64_t>(offset_) >= total) {
      endStreamLocked();
      return nullptr;
    }
    length = std::min(length, total - static_cast<int64_t>(offset_));
  }
  LoadingRequest::Options options;
  options.data = std::make_pair(static_cast<int64_t>(offset_), length);
  outstanding_ = LoadingRequest::create(url_, options, weak_from_this());
  return outstanding_;
}

void GstItemSource::endStreamLocked() {
  if (reachedEnd_ || !appsrc_) return;
  reachedEnd_ = true;
  gst_app_src_end_of_stream(static_cast<GstAppSrc*>(appsrc_));
}

void GstItemSource::needData() {
  std::shared_ptr<LoadingRequest> request;
  {
    std::lock_guard lock(mutex_);
    wanted_ = true;
    request = nextRequestLocked();
  }
  if (request) loader_->load(request);
}

void GstItemSource::enoughData() { wanted_ = false; }

bool GstItemSource::seekData(uint64_t offset) {
  std::shared_ptr<LoadingRequest> old;
  {
    std::lock_guard lock(mutex_);
    old = std::move(outstanding_);
    offset_ = offset;
    reachedEnd_ = false;
    if (endedEarly_) {
      endedEarly_ = false;
      failure_.reset();
    }
  }
  if (old) loader_->cancel(old);
  return true;
}

void GstItemSource::loadingRequestDidReceiveData(LoadingRequest& request, const uint8_t* data,
                                                 size_t size) {
  std::lock_guard lock(mutex_);
  if (outstanding_.get() != &request || !appsrc_) return;
  GstBuffer* buffer = gst_buffer_new_memdup(data, size);
  GST_BUFFER_OFFSET(buffer) = offset_;
  offset_ += size;
  GST_BUFFER_OFFSET_END(buffer) = offset_;
  gst_app_src_push_buffer(static_cast<GstAppSrc*>(appsrc_), buffer);
}

void GstItemSource::loadingRequestDidFinish(LoadingRequest& request) {
  std::function<void()> probeDone;
  FailureHandler onFailure;
  ErrorPtr failure;
  bool early = false;
  std::shared_ptr<LoadingRequest> next;
  {
    std::lock_guard lock(mutex_);
    if (probeRequest_.get() == &request) {
      probeRequest_.reset();
      probe_.done = true;
      if (auto info = request.contentInformation()) probe_.info = *info;
      probe_.redirect = request.redirect();
      probe_.error = request.error();
      probeDone = std::move(probeDone_);
      probed_.notify_all();
    } else if (outstanding_.get() == &request) {
      outstanding_.reset();
      DataRequest* dataRequest = request.dataRequest();
      if (auto error = request.error()) {
        failure = error;
      } else if (request.redirect()) {
        failure = Error::make(std::string(kMediaErrorDomain), kMediaErrorRedirectNotSupported,
                              "A data request was redirected after reading had begun", nullptr);
      } else if (dataRequest->currentOffset() <
                 dataRequest->requestedOffset() + dataRequest->requestedLength()) {
        // The bytes end here. This read ends the stream; a later seek (a parser looking at the
        // tail, say) starts afresh, so only an end met while playing on is reported.
        if (probe_.info.contentLength >= 0) {
          endedEarly_ = true;
          failure_ = Error::make(std::string(kMediaErrorDomain), kMediaErrorContentEndedEarly,
                                 "The content ended before its stated length", nullptr);
        }
        endStreamLocked();
      } else {
        next = nextRequestLocked();
      }
      if (failure) {
        failure_ = failure;
        endedEarly_ = early;
        // Ending the stream lets the pipeline drain instead of waiting for bytes forever.
        endStreamLocked();
        onFailure = onFailure_;
      }
    }
  }
  if (probeDone) probeDone();
  if (next) loader_->load(next);
  if (onFailure) onFailure(failure, early);
}

}  // namespace sonorell
