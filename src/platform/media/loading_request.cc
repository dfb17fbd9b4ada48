#include "platform/media/loading_request.h"

#include <string>

namespace sonorell {

void ContentInformationRequest::setContentLength(int64_t length) {
  std::lock_guard lock(owner_.mutex_);
  info_.contentLength = length;
}

void ContentInformationRequest::setContentType(std::string type) {
  std::lock_guard lock(owner_.mutex_);
  info_.contentType = std::move(type);
}

void ContentInformationRequest::setByteRangeAccessSupported(bool supported) {
  std::lock_guard lock(owner_.mutex_);
  info_.byteRangeAccessSupported = supported;
}

ContentInformation ContentInformationRequest::information() const {
  std::lock_guard lock(owner_.mutex_);
  return info_;
}

std::string ContentInformationRequest::description() const {
  ContentInformation info = information();
  return "<ContentInformationRequest length=" + std::to_string(info.contentLength) +
         " type=" + (info.contentType.empty() ? "(none)" : info.contentType) +
         " byteRange=" + (info.byteRangeAccessSupported ? "YES" : "NO") + ">";
}

std::string DataRequest::description() const {
  return "<DataRequest requestedOffset=" + std::to_string(offset_) +
         " requestedLength=" + std::to_string(length_) + (toEnd_ ? " toEnd" : "") +
         " currentOffset=" + std::to_string(currentOffset()) + ">";
}

int64_t DataRequest::currentOffset() const {
  std::lock_guard lock(owner_.mutex_);
  return current_;
}

void DataRequest::respondWithData(const uint8_t* data, size_t size) { owner_.deliver(data, size); }

std::shared_ptr<LoadingRequest> LoadingRequest::create(std::string url, Options options,
                                                       std::weak_ptr<LoadingRequestClient> client) {
  std::shared_ptr<LoadingRequest> request(new LoadingRequest(std::move(url), std::move(client)));
  if (options.contentInformation) {
    request->contentInfo_.reset(new ContentInformationRequest(*request));
  }
  if (options.data) {
    request->data_.reset(
        new DataRequest(*request, options.data->first, options.data->second, options.dataToEnd));
  }
  return request;
}

void LoadingRequest::deliver(const uint8_t* data, size_t size) {
  if (size == 0 || !data_) return;
  {
    std::lock_guard lock(mutex_);
    if (finished_ || cancelled_) return;
    data_->current_ += static_cast<int64_t>(size);
  }
  if (auto client = client_.lock()) client->loadingRequestDidReceiveData(*this, data, size);
}

void LoadingRequest::finish(ErrorPtr error) {
  {
    std::lock_guard lock(mutex_);
    if (finished_ || cancelled_) return;
    finished_ = true;
    error_ = std::move(error);
  }
  if (auto client = client_.lock()) client->loadingRequestDidFinish(*this);
}

void LoadingRequest::finishLoading() { finish(nullptr); }

void LoadingRequest::finishLoading(ErrorPtr error) { finish(std::move(error)); }

void LoadingRequest::setRedirect(HttpRedirect redirect) {
  std::lock_guard lock(mutex_);
  if (!finished_) redirect_ = std::move(redirect);
}

void LoadingRequest::setResponseStatusCode(int statusCode) {
  std::lock_guard lock(mutex_);
  if (!finished_) statusCode_ = statusCode;
}

bool LoadingRequest::isFinished() const {
  std::lock_guard lock(mutex_);
  return finished_;
}

bool LoadingRequest::isCancelled() const {
  std::lock_guard lock(mutex_);
  return cancelled_;
}

ErrorPtr LoadingRequest::error() const {
  std::lock_guard lock(mutex_);
  return error_;
}

std::optional<HttpRedirect> LoadingRequest::redirect() const {
  std::lock_guard lock(mutex_);
  return redirect_;
}

int LoadingRequest::responseStatusCode() const {
  std::lock_guard lock(mutex_);
  return statusCode_;
}

std::optional<ContentInformation> LoadingRequest::contentInformation() const {
  if (!contentInfo_) return std::nullopt;
  return contentInfo_->information();
}

std::string LoadingRequest::description() const {
  std::string text = "<LoadingRequest " + url_;
  if (contentInfo_) text += " contentInformation";
  if (data_) {
    text += " data=" + std::to_string(data_->requestedOffset()) + "+" +
            std::to_string(data_->requestedLength());
  }
  std::lock_guard lock(mutex_);
  if (finished_) text += error_ ? " failed" : " finished";
  if (cancelled_) text += " cancelled";
  return text + ">";
}

void LoadingRequest::cancel() {
  std::lock_guard lock(mutex_);
  if (!finished_) cancelled_ = true;
}

}  // namespace sonorell
