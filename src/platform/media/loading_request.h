// One request of a player for an item's bytes, answered by a ResourceLoaderDelegate: an optional
// content-information part, an optional data part, then finish, finish with an error or a
// redirect. Answers may come from any thread; the request guards its state with its own mutex and
// hands data to its backend outside that mutex.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "sonorell/error.h"

namespace sonorell {

class LoadingRequest;

// What the delegate tells about the resource; a length of -1 means unknown.
struct ContentInformation {
  int64_t contentLength = -1;
  std::string contentType;
  bool byteRangeAccessSupported = false;
};

// An HTTP request the player should load instead of asking the delegate.
struct HttpRedirect {
  std::string url;
  std::vector<std::pair<std::string, std::string>> headers;  // in order, names as given
};

// The backend side of a request: receives data and the outcome. Called on the answering thread.
class LoadingRequestClient {
 public:
  virtual ~LoadingRequestClient() = default;
  virtual void loadingRequestDidReceiveData(LoadingRequest& request, const uint8_t* data,
                                            size_t size) = 0;
  // Called once, after the last data: finished, failed (error set) or redirected.
  virtual void loadingRequestDidFinish(LoadingRequest& request) = 0;
};

class ContentInformationRequest {
 public:
  void setContentLength(int64_t length);
  void setContentType(std::string type);
  void setByteRangeAccessSupported(bool supported);
  ContentInformation information() const;
  // What was answered so far, for log lines.
  std::string description() const;

 private:
  friend class LoadingRequest;
  explicit ContentInformationRequest(LoadingRequest& owner) : owner_(owner) {}
  LoadingRequest& owner_;
  ContentInformation info_;  // guarded by owner_.mutex_
};

class DataRequest {
 public:
  int64_t requestedOffset() const { return offset_; }
  // Bytes asked for; with requestsAllDataToEndOfResource() it is what is known to remain.
  int64_t requestedLength() const { return length_; }
  bool requestsAllDataToEndOfResource() const { return toEnd_; }
  // Where the next respondWithData continues.
  int64_t currentOffset() const;
  // Hands over the next bytes; ignored once the request is finished or cancelled.
  void respondWithData(const uint8_t* data, size_t size);
  void respondWithData(const std::vector<uint8_t>& data) {
    respondWithData(data.data(), data.size());
  }
  // The range asked for and the current offset, for log lines.
  std::string description() const;

 private:
  friend class LoadingRequest;
  DataRequest(LoadingRequest& owner, int64_t offset, int64_t length, bool toEnd)
      : owner_(owner), offset_(offset), length_(length), toEnd_(toEnd), current_(offset) {}
  LoadingRequest& owner_;
  const int64_t offset_;
  const int64_t length_;
  const bool toEnd_;
  int64_t current_;  // guarded by owner_.mutex_
};

class LoadingRequest : public std::enable_shared_from_this<LoadingRequest> {
 public:
  struct Options {
    bool contentInformation = false;
    std::optional<std::pair<int64_t, int64_t>> data;  // offset, length
    bool dataToEnd = false;
  };
  // Made by a backend; the client is held weakly and stops hearing once it is gone.
  static std::shared_ptr<LoadingRequest> create(std::string url, Options options,
                                                std::weak_ptr<LoadingRequestClient> client);

  const std::string& url() const { return url_; }
  // Null when the player did not ask for that part.
  ContentInformationRequest* contentInformationRequest() { return contentInfo_.get(); }
  DataRequest* dataRequest() { return data_.get(); }

  void finishLoading();
  void finishLoading(ErrorPtr error);
  // Loads the given HTTP request instead; takes effect with finishLoading().
  void setRedirect(HttpRedirect redirect);
  void setResponseStatusCode(int statusCode);

  bool isFinished() const;
  bool isCancelled() const;
  ErrorPtr error() const;
  std::optional<HttpRedirect> redirect() const;
  int responseStatusCode() const;
  std::optional<ContentInformation> contentInformation() const;

  // Backend side: the player no longer wants the answer. Later answers are ignored.
  void cancel();

  // The URL, the parts asked for and the state, for log lines.
  std::string description() const;

 private:
  friend class ContentInformationRequest;
  friend class DataRequest;
  LoadingRequest(std::string url, std::weak_ptr<LoadingRequestClient> client)
      : url_(std::move(url)), client_(std::move(client)) {}
  void deliver(const uint8_t* data, size_t size);
  void finish(ErrorPtr error);

  const std::string url_;
  const std::weak_ptr<LoadingRequestClient> client_;
  std::unique_ptr<ContentInformationRequest> contentInfo_;
  std::unique_ptr<DataRequest> data_;

  mutable std::mutex mutex_;
  bool finished_ = false;
  bool cancelled_ = false;
  ErrorPtr error_;
  std::optional<HttpRedirect> redirect_;
  int statusCode_ = 0;
};

}  // namespace sonorell
