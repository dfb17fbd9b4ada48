// HTTP(S) data requests on libcurl: one event thread drives a curl multi handle for every
// request in flight; completions run on the client's own serial queue, never on the caller's
// thread. TLS verification is always on; a host may add a CA bundle. The pending list and the
// settings are guarded by the client's mutex; curl handles are touched only on the event thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/dispatch/dispatch_queue.h"
#include "sonorell/error.h"

namespace sonorell {

using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

struct HttpRequest {
  std::string method = "GET";
  std::string url;
  HttpHeaders headers;  // sent in this order
  std::string body;
  std::chrono::milliseconds timeout{30'000};
};

struct HttpResponse {
  long status = 0;
  HttpHeaders headers;  // names as the server sent them
  std::string body;
  // The first header with this name, compared without regard to case.
  std::optional<std::string> header(std::string_view name) const;
};

// A request in flight; cancel() completes it with URL-loading -999 unless it already finished.
class HttpTask {
 public:
  virtual ~HttpTask() = default;
  virtual void cancel() = 0;
};

class HttpClient : public std::enable_shared_from_this<HttpClient> {
 public:
  // Exactly one of response and error is set. Transport failures are URL-loading errors whose
  // underlying error carries libcurl's code and message.
  using Completion = std::function<void(std::optional<HttpResponse>, ErrorPtr)>;

  static std::shared_ptr<HttpClient> shared();
  static std::shared_ptr<HttpClient> create();
  ~HttpClient();

  std::shared_ptr<HttpTask> send(HttpRequest request, Completion completion);
  // Waits for the answer on the calling thread: for engine queues, never for a host's thread.
  std::pair<std::optional<HttpResponse>, ErrorPtr> sendSynchronously(HttpRequest request);

  // An extra CA bundle (PEM file) trusted besides the system's.
  void setCABundle(std::string path);
  std::string caBundle() const;

  // The content API base URL (e.g. "https://api.example.com") and the analytics endpoint:
  // host-settable, with $SONORELL_API_BASE_URL / $SONORELL_ANALYTICS_URL taking precedence
  // over the built-in defaults but not over what a host set.
  static std::string apiBaseURL();
  static void setAPIBaseURL(std::string url);
  static std::string analyticsURL();
  static void setAnalyticsURL(std::string url);

  struct State;  // the event thread's state; defined in the implementation

 private:
  HttpClient();
  std::shared_ptr<State> state_;
};

// Verification on, and a host's extra CA bundle trusted besides the system's certificate
// directory; shared by the data client and the transfer service. `easy` is a CURL handle.
void configureTLSVerification(void* easy, const std::string& caBundle);

// Maps a libcurl result (and, for connection failures, the OS error) to a URL-loading error;
// shared by the data client and the transfer service.
ErrorPtr urlErrorForCurlCode(int curlCode, const std::string& curlMessage, long osErrno = 0);

}  // namespace sonorell
