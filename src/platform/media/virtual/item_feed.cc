#include "platform/media/virtual/item_feed.h"

#include <algorithm>

#include "platform/media/media_errors.h"

namespace sonorell {

std::shared_ptr<VirtualItemFeed> VirtualItemFeed::create(std::string url,
                                                         std::shared_ptr<ResourceLoader> loader,
                                                         std::function<void()> onChange) {
  return std::shared_ptr<VirtualItemFeed>(
      new VirtualItemFeed(std::move(url), std::move(loader), std::move(onChange)));
}

VirtualItemFeed::VirtualItemFeed(std::string url, std::shared_ptr<ResourceLoader> loader,
                                 std::function<void()> onChange)
    : url_(std::move(url)), onChange_(std::move(onChange)), loader_(std::move(loader)) {}

std::shared_ptr<LoadingRequest> VirtualItemFeed::nextRequestLocked() {
  LoadingRequest::Options options;
  options.contentInformation = !state_.info.has_value();
  // The first request asks what the resource is, with its first two bytes, as players do; the
  // answer must not wait for the bulk of the data.
  int64_t length = options.contentInformation ? 2 : kChunk;
  if (state_.info && state_.info->contentLength >= 0) {
    length = std::min(length, state_.info->contentLength - state_.rangeEnd);
  }
  options.data = std::make_pair(state_.rangeEnd, length);
  outstanding_ = LoadingRequest::create(url_, options, weak_from_this());
  return outstanding_;
}

void VirtualItemFeed::issue(std::shared_ptr<LoadingRequest> request) {
  std::shared_ptr<ResourceLoader> loader;
  {
    std::lock_guard lock(mutex_);
    loader = loader_;
  }
  if (request && loader) loader->load(request);
}

void VirtualItemFeed::start(int64_t offset) {
  std::shared_ptr<LoadingRequest> old;
  std::shared_ptr<LoadingRequest> next;
  std::shared_ptr<ResourceLoader> loader;
  {
    std::lock_guard lock(mutex_);
    old = std::move(outstanding_);
    started_ = true;
    state_.rangeStart = state_.rangeEnd = offset;
    state_.complete = false;
    state_.endedEarly = false;
    int64_t length = state_.info ? state_.info->contentLength : -1;
    if (length >= 0 && offset >= length) {
      state_.complete = true;
    } else {
      next = nextRequestLocked();
    }
    loader = loader_;
  }
  if (old && loader) loader->cancel(old);
  issue(next);
}

void VirtualItemFeed::stop() {
  std::shared_ptr<LoadingRequest> old;
  std::shared_ptr<ResourceLoader> loader;
  {
    std::lock_guard lock(mutex_);
    old = std::move(outstanding_);
    loader = loader_;
  }
  if (old && loader) loader->cancel(old);
}

void VirtualItemFeed::switchLoader(std::shared_ptr<ResourceLoader> loader) {
  std::shared_ptr<LoadingRequest> next;
  {
    std::lock_guard lock(mutex_);
    loader_ = std::move(loader);
    state_.redirect.reset();
    next = nextRequestLocked();
  }
  issue(next);
}

bool VirtualItemFeed::started() const {
  std::lock_guard lock(mutex_);
  return started_;
}

VirtualItemFeed::Snapshot VirtualItemFeed::snapshot() const {
  std::lock_guard lock(mutex_);
  return state_;
}

void VirtualItemFeed::loadingRequestDidReceiveData(LoadingRequest& request, const uint8_t* data,
                                                   size_t size) {
  {
    std::lock_guard lock(mutex_);
    if (outstanding_.get() != &request) return;
    if (!state_.audio && state_.rangeStart == 0 && head_.size() < 256 * 1024) {
      head_.insert(head_.end(), data, data + size);
      state_.audio = parseMpegAudioHeader(head_.data(), head_.size());
      if (state_.audio) head_.clear();
    }
    state_.rangeEnd += static_cast<int64_t>(size);
  }
  onChange_();
}

void VirtualItemFeed::loadingRequestDidFinish(LoadingRequest& request) {
  std::shared_ptr<LoadingRequest> next;
  {
    std::lock_guard lock(mutex_);
    if (outstanding_.get() != &request) return;
    outstanding_.reset();
    if (auto error = request.error()) {
      state_.error = error;
    } else if (auto redirect = request.redirect()) {
      // The content information comes from where the redirect leads, asked for again there.
      state_.redirect = redirect;
    } else {
      if (auto info = request.contentInformation()) state_.info = info;
      DataRequest* data = request.dataRequest();
      bool shortAnswer =
          data && data->currentOffset() < data->requestedOffset() + data->requestedLength();
      int64_t length = state_.info ? state_.info->contentLength : -1;
      if (length >= 0 && state_.rangeEnd >= length) {
        state_.complete = true;
      } else if (shortAnswer) {
        // Finished without the bytes it was asked for: with a stated length the content is
        // shorter than stated; without one this is its end.
        (length >= 0 ? state_.endedEarly : state_.complete) = true;
      } else {
        next = nextRequestLocked();
      }
    }
  }
  issue(next);
  onChange_();
}

}  // namespace sonorell
