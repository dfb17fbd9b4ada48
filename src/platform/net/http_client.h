// HTTP(S) data requests: the HttpClient interface the engine calls, the libcurl implementation
// behind create(), and HttpClientWrapper for replacing one operation while keeping the rest.
// Completions run on the client's own serial queue, never on the caller's thread. Clients are
// safe to call from any thread; each guards its settings with its own mutex.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/net/http_types.h"
#include "sonorell/error.h"

namespace sonorell {

class CurlLoop;

// A request in flight; cancel() completes it with URL-loading -999 unless it already finished.
class HttpTask {
 public:
  virtual ~HttpTask() = default;
  virtual void cancel() = 0;
};

class HttpClient {
 public:
  // Exactly one of response and error is set. Transport failures are URL-loading errors whose
  // underlying error carries libcurl's code and message; HTTP statuses are answers, not errors.
  using Completion = std::function<void(std::optional<HttpResponse>, ErrorPtr)>;

  // The process-wide client, made on first use and never destroyed: requests still completing
  // at exit must find it.
  static std::shared_ptr<HttpClient> shared();
  // The libcurl client. It runs its requests on `loop`, or on a loop of its own when null
  // (ended, with its requests cancelled, when the client goes).
  static std::shared_ptr<HttpClient> create(std::shared_ptr<CurlLoop> loop = nullptr);

  virtual ~HttpClient() = default;

  virtual std::shared_ptr<HttpTask> send(HttpRequest request, Completion completion) = 0;
  // Waits for send()'s answer on the calling thread: for engine queues, never a host's thread.
  std::pair<std::optional<HttpResponse>, ErrorPtr> sendSynchronously(HttpRequest request);

  // An extra CA bundle (PEM file) trusted besides the system's by this client's requests;
  // empty (the default): the process-wide bundle (setDefaultCABundle).
  virtual void setCABundle(std::string path) = 0;
  virtual std::string caBundle() const = 0;
};

// Forwards every operation to another client; a test overrides the one it wants to change.
class HttpClientWrapper : public HttpClient {
 public:
  explicit HttpClientWrapper(std::shared_ptr<HttpClient> target) : target_(std::move(target)) {}
  const std::shared_ptr<HttpClient>& target() const { return target_; }

  std::shared_ptr<HttpTask> send(HttpRequest request, Completion completion) override {
    return target_->send(std::move(request), std::move(completion));
  }
  void setCABundle(std::string path) override { target_->setCABundle(std::move(path)); }
  std::string caBundle() const override { return target_->caBundle(); }

 private:
  const std::shared_ptr<HttpClient> target_;
};

}  // namespace sonorell
