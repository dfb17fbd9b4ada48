// The libcurl HttpClient: each request is a job on a CurlLoop that collects the body in memory
// and hands the answer to the client's serial queue.
#include <mutex>

#include "platform/dispatch/dispatch_queue.h"
#include "platform/net/curl_loop.h"
#include "platform/net/http_client.h"
#include "platform/net/transfer_errors.h"

namespace sonorell {
namespace {

class DataRequestJob final : public CurlJob {
 public:
  DataRequestJob(HttpRequest request, HttpClient::Completion completion, DispatchQueuePtr queue,
                 std::string caBundle)
      : request_(std::move(request)),
        completion_(std::move(completion)),
        queue_(std::move(queue)),
        caBundle_(std::move(caBundle)) {}
  ~DataRequestJob() override { curl_slist_free_all(headerList_); }

  std::string caBundle() const override { return caBundle_; }

  bool configure(CURL* e) override {
    curl_easy_setopt(e, CURLOPT_URL, request_.url.c_str());
    curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(e, CURLOPT_WRITEDATA, &body_);
    headers_.attach(e);
    curl_easy_setopt(e, CURLOPT_TIMEOUT_MS, static_cast<long>(request_.timeout.count()));
    curl_easy_setopt(e, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(request_.timeout.count()));
    curl_easy_setopt(e, CURLOPT_ACCEPT_ENCODING, "");
    if (request_.method == "GET") {
      curl_easy_setopt(e, CURLOPT_HTTPGET, 1L);
    } else if (request_.method == "HEAD") {
      curl_easy_setopt(e, CURLOPT_NOBODY, 1L);
    } else {
      curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, request_.method.c_str());
      curl_easy_setopt(e, CURLOPT_POSTFIELDS, request_.body.data());
      curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE,
                       static_cast<curl_off_t>(request_.body.size()));
    }
    // Data requests never come from a cache, and curl would add a default Expect header.
    headerList_ = curl_slist_append(headerList_, "Cache-Control: no-cache");
    headerList_ = curl_slist_append(headerList_, "Expect:");
    for (const auto& [name, value] : request_.headers) {
      headerList_ = curl_slist_append(headerList_, (name + ": " + value).c_str());
    }
    curl_easy_setopt(e, CURLOPT_HTTPHEADER, headerList_);
    return true;
  }

  void done(CURL* easy, CURLcode code, const char* message) override {
    if (code != CURLE_OK) {
      complete(std::nullopt, urlErrorForTransfer(easy, code, message));
      return;
    }
    HttpResponse response;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &response.status);
    response.headers = headers_.take();
    response.body = std::move(body_);
    complete(std::move(response), nullptr);
  }

  void stopped() override { complete(std::nullopt, transferCancelledError()); }

 private:
  static size_t onBody(char* data, size_t size, size_t count, void* body) {
    static_cast<std::string*>(body)->append(data, size * count);
    return size * count;
  }

  void complete(std::optional<HttpResponse> response, ErrorPtr error) {
    queue_->async([completion = std::move(completion_), response = std::move(response),
                   error = std::move(error)]() mutable {
      completion(std::move(response), std::move(error));
    });
  }

  const HttpRequest request_;
  HttpClient::Completion completion_;
  const DispatchQueuePtr queue_;
  const std::string caBundle_;
  ResponseHeaderCollector headers_;
  std::string body_;
  curl_slist* headerList_ = nullptr;
};

class DataRequestTask final : public HttpTask {
 public:
  DataRequestTask(std::weak_ptr<CurlLoop> loop, uint64_t id) : loop_(std::move(loop)), id_(id) {}
  void cancel() override {
    if (auto loop = loop_.lock()) loop->stop(id_);
  }

 private:
  const std::weak_ptr<CurlLoop> loop_;
  const uint64_t id_;
};

class CurlHttpClient final : public HttpClient {
 public:
  explicit CurlHttpClient(std::shared_ptr<CurlLoop> loop) : loop_(std::move(loop)) {}

  std::shared_ptr<HttpTask> send(HttpRequest request, Completion completion) override {
    const uint64_t id = loop_->add(std::make_unique<DataRequestJob>(
        std::move(request), std::move(completion), queue_, caBundle()));
    return std::make_shared<DataRequestTask>(loop_, id);
  }

  void setCABundle(std::string path) override {
    std::lock_guard lock(mutex_);
    caBundle_ = std::move(path);
  }

  std::string caBundle() const override {
    std::lock_guard lock(mutex_);
    return caBundle_;
  }

 private:
  const std::shared_ptr<CurlLoop> loop_;
  const DispatchQueuePtr queue_ = DispatchQueue::create("io.sonorell.http");
  mutable std::mutex mutex_;
  std::string caBundle_;  // guarded by mutex_
};

}  // namespace

std::shared_ptr<HttpClient> HttpClient::create(std::shared_ptr<CurlLoop> loop) {
  return std::make_shared<CurlHttpClient>(loop ? std::move(loop) : CurlLoop::create());
}

}  // namespace sonorell
