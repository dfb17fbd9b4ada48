#include "platform/net/http_client.h"

#include <curl/curl.h>
#include <strings.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <future>
#include <mutex>
#include <thread>
#include <unordered_map>

namespace sonorell {

namespace {

constexpr const char* kDefaultAPIBaseURL = "https://api.sonorell.io";
constexpr const char* kCurlErrorDomain = "CURLErrorDomain";

std::mutex gURLMutex;
std::optional<std::string> gHostAPIBaseURL;
std::optional<std::string> gHostAnalyticsURL;

std::string trimmed(std::string_view s) {
  size_t b = 0, e = s.size();
  while (b < e && (s[b] == ' ' || s[b] == '\t')) ++b;
  while (e > b && (s[e - 1] == ' ' || s[e - 1] == '\t' || s[e - 1] == '\r' || s[e - 1] == '\n')) {
    --e;
  }
  return std::string(s.substr(b, e - b));
}

void initCurlOnce() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

}  // namespace

std::optional<std::string> HttpResponse::header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (key.size() == name.size() && ::strncasecmp(key.data(), name.data(), name.size()) == 0) {
      return value;
    }
  }
  return std::nullopt;
}

void configureTLSVerification(void* easy, const std::string& caBundle) {
  CURL* e = static_cast<CURL*>(easy);
  curl_easy_setopt(e, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(e, CURLOPT_SSL_VERIFYHOST, 2L);
  if (!caBundle.empty()) {
    curl_easy_setopt(e, CURLOPT_CAINFO, caBundle.c_str());
    curl_easy_setopt(e, CURLOPT_CAPATH, "/etc/ssl/certs");
  }
}

ErrorPtr urlErrorForCurlCode(int curlCode, const std::string& curlMessage, long osErrno) {
  int64_t code = kURLErrorUnknown;
  switch (static_cast<CURLcode>(curlCode)) {
    case CURLE_OPERATION_TIMEDOUT:
      code = kURLErrorTimedOut;
      break;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      code = kURLErrorCannotFindHost;
      break;
    case CURLE_COULDNT_CONNECT:
      code = osErrno == ENETUNREACH || osErrno == EHOSTUNREACH ? kURLErrorNotConnectedToInternet
                                                               : kURLErrorCannotConnectToHost;
      break;
    case CURLE_PEER_FAILED_VERIFICATION:
      code = kURLErrorServerCertificateUntrusted;
      break;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
      code = kURLErrorSecureConnectionFailed;
      break;
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
      code = kURLErrorNetworkConnectionLost;
      break;
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_BAD_CONTENT_ENCODING:
      code = kURLErrorBadServerResponse;
      break;
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_URL_MALFORMAT:
      code = kURLErrorUnsupportedURL;
      break;
    case CURLE_WRITE_ERROR:
      code = kURLErrorCannotWriteToFile;
      break;
    case CURLE_ABORTED_BY_CALLBACK:
      code = kURLErrorCancelled;
      break;
    default:
      break;
  }
  std::string text =
      curlMessage.empty() ? curl_easy_strerror(static_cast<CURLcode>(curlCode)) : curlMessage;
  auto underlying = Error::make(kCurlErrorDomain, curlCode, text, nullptr);
  return Error::make(std::string(kURLLoadingErrorDomain), code, text, underlying);
}

namespace {

ErrorPtr cancelledError() {
  return Error::make(std::string(kURLLoadingErrorDomain), kURLErrorCancelled, "cancelled", nullptr);
}

struct Transfer {
  uint64_t id = 0;
  HttpRequest request;
  HttpClient::Completion completion;
  CURL* easy = nullptr;
  curl_slist* headerList = nullptr;
  HttpResponse response;
  char errorBuffer[CURL_ERROR_SIZE] = {};

  ~Transfer() {
    if (easy) curl_easy_cleanup(easy);
    curl_slist_free_all(headerList);
  }
};

size_t onBody(char* data, size_t size, size_t count, void* user) {
  auto* transfer = static_cast<Transfer*>(user);
  transfer->response.body.append(data, size * count);
  return size * count;
}

size_t onHeader(char* data, size_t size, size_t count, void* user) {
  auto* transfer = static_cast<Transfer*>(user);
  std::string_view line(data, size * count);
  if (line.starts_with("HTTP/")) {
    transfer->response.headers.clear();  // a new response (after 100 Continue, say)
  } else if (auto colon = line.find(':'); colon != std::string_view::npos) {
    transfer->response.headers.emplace_back(trimmed(line.substr(0, colon)),
                                            trimmed(line.substr(colon + 1)));
  }
  return size * count;
}

}  // namespace

struct HttpClient::State {
  std::mutex mutex;
  std::string caBundle;                                          // guarded by mutex
  std::deque<std::unique_ptr<Transfer>> incoming;                // guarded by mutex
  std::vector<uint64_t> cancelled;                               // guarded by mutex
  bool stopping = false;                                         // guarded by mutex
  uint64_t nextId = 1;                                           // guarded by mutex
  CURLM* multi = nullptr;                                        // event thread only (after start)
  std::unordered_map<CURL*, std::unique_ptr<Transfer>> running;  // event thread only
  DispatchQueuePtr callbackQueue = DispatchQueue::create("io.sonorell.http");
  std::thread thread;

  void complete(std::unique_ptr<Transfer> transfer, ErrorPtr error) {
    std::shared_ptr<Transfer> owned(std::move(transfer));
    callbackQueue->async([owned, error] {
      if (error) {
        owned->completion(std::nullopt, error);
      } else {
        owned->completion(std::move(owned->response), nullptr);
      }
    });
  }

  void configure(Transfer& t, const std::string& bundle) {
    t.easy = curl_easy_init();
    CURL* e = t.easy;
    curl_easy_setopt(e, CURLOPT_URL, t.request.url.c_str());
    curl_easy_setopt(e, CURLOPT_PRIVATE, &t);
    curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(e, CURLOPT_ERRORBUFFER, t.errorBuffer);
    curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(e, CURLOPT_WRITEDATA, &t);
    curl_easy_setopt(e, CURLOPT_HEADERFUNCTION, onHeader);
    curl_easy_setopt(e, CURLOPT_HEADERDATA, &t);
    curl_easy_setopt(e, CURLOPT_TIMEOUT_MS, static_cast<long>(t.request.timeout.count()));
    curl_easy_setopt(e, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(t.request.timeout.count()));
    configureTLSVerification(e, bundle);
    curl_easy_setopt(e, CURLOPT_ACCEPT_ENCODING, "");
    if (t.request.method == "GET") {
      curl_easy_setopt(e, CURLOPT_HTTPGET, 1L);
    } else if (t.request.method == "HEAD") {
      curl_easy_setopt(e, CURLOPT_NOBODY, 1L);
    } else {
      curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, t.request.method.c_str());
      curl_easy_setopt(e, CURLOPT_POSTFIELDS, t.request.body.data());
      curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE,
                       static_cast<curl_off_t>(t.request.body.size()));
    }
    // Data requests never come from a cache, and curl would add a default Expect header.
    t.headerList = curl_slist_append(t.headerList, "Cache-Control: no-cache");
    t.headerList = curl_slist_append(t.headerList, "Expect:");
    for (const auto& [name, value] : t.request.headers) {
      t.headerList = curl_slist_append(t.headerList, (name + ": " + value).c_str());
    }
    curl_easy_setopt(e, CURLOPT_HTTPHEADER, t.headerList);
  }

  void run() {
    for (;;) {
      std::deque<std::unique_ptr<Transfer>> added;
      std::vector<uint64_t> cancels;
      std::string bundle;
      {
        std::lock_guard lock(mutex);
        if (stopping) break;
        added.swap(incoming);
        cancels.swap(cancelled);
        bundle = caBundle;
      }
      for (uint64_t id : cancels) {
        for (auto it = running.begin(); it != running.end(); ++it) {
          if (it->second->id == id) {
            curl_multi_remove_handle(multi, it->first);
            auto transfer = std::move(it->second);
            running.erase(it);
            complete(std::move(transfer), cancelledError());
            break;
          }
        }
        for (auto it = added.begin(); it != added.end(); ++it) {
          if ((*it)->id == id) {
            complete(std::move(*it), cancelledError());
            added.erase(it);
            break;
          }
        }
      }
      for (auto& transfer : added) {
        configure(*transfer, bundle);
        curl_multi_add_handle(multi, transfer->easy);
        CURL* key = transfer->easy;
        running.emplace(key, std::move(transfer));
      }
      int stillRunning = 0;
      curl_multi_perform(multi, &stillRunning);
      int queued = 0;
      while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
        if (message->msg != CURLMSG_DONE) continue;
        CURL* easy = message->easy_handle;
        CURLcode result = message->data.result;
        curl_multi_remove_handle(multi, easy);
        auto it = running.find(easy);
        if (it == running.end()) continue;
        auto transfer = std::move(it->second);
        running.erase(it);
        if (result == CURLE_OK) {
          curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &transfer->response.status);
          complete(std::move(transfer), nullptr);
        } else {
          long osErrno = 0;
          curl_easy_getinfo(easy, CURLINFO_OS_ERRNO, &osErrno);
          auto error = urlErrorForCurlCode(result, transfer->errorBuffer, osErrno);
          complete(std::move(transfer), error);
        }
      }
      curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
    }
    for (auto& [easy, transfer] : running) {
      curl_multi_remove_handle(multi, easy);
      complete(std::move(transfer), cancelledError());
    }
    running.clear();
  }
};

namespace {
class Task : public HttpTask {
 public:
  Task(std::weak_ptr<HttpClient::State> state, uint64_t id) : state_(std::move(state)), id_(id) {}
  void cancel() override {
    auto state = state_.lock();
    if (!state) return;
    {
      std::lock_guard lock(state->mutex);
      state->cancelled.push_back(id_);
    }
    curl_multi_wakeup(state->multi);
  }

 private:
  std::weak_ptr<HttpClient::State> state_;
  uint64_t id_;
};
}  // namespace

HttpClient::HttpClient() : state_(std::make_shared<State>()) {
  initCurlOnce();
  state_->multi = curl_multi_init();
  state_->thread = std::thread([state = state_] { state->run(); });
}

HttpClient::~HttpClient() {
  {
    std::lock_guard lock(state_->mutex);
    state_->stopping = true;
  }
  curl_multi_wakeup(state_->multi);
  if (state_->thread.joinable()) state_->thread.join();
  for (auto& transfer : state_->incoming) state_->complete(std::move(transfer), cancelledError());
  curl_multi_cleanup(state_->multi);
}

std::shared_ptr<HttpClient> HttpClient::create() {
  return std::shared_ptr<HttpClient>(new HttpClient());
}

std::shared_ptr<HttpClient> HttpClient::shared() {
  // Never destroyed: requests still completing at exit must find it.
  static const auto* client = new std::shared_ptr<HttpClient>(create());
  return *client;
}

std::shared_ptr<HttpTask> HttpClient::send(HttpRequest request, Completion completion) {
  auto transfer = std::make_unique<Transfer>();
  transfer->request = std::move(request);
  transfer->completion = std::move(completion);
  uint64_t id;
  {
    std::lock_guard lock(state_->mutex);
    id = state_->nextId++;
    transfer->id = id;
    state_->incoming.push_back(std::move(transfer));
  }
  curl_multi_wakeup(state_->multi);
  return std::make_shared<Task>(state_, id);
}

std::pair<std::optional<HttpResponse>, ErrorPtr> HttpClient::sendSynchronously(
    HttpRequest request) {
  std::promise<std::pair<std::optional<HttpResponse>, ErrorPtr>> promise;
  auto future = promise.get_future();
  send(std::move(request), [&promise](std::optional<HttpResponse> response, ErrorPtr error) {
    promise.set_value({std::move(response), std::move(error)});
  });
  return future.get();
}

void HttpClient::setCABundle(std::string path) {
  std::lock_guard lock(state_->mutex);
  state_->caBundle = std::move(path);
}

std::string HttpClient::caBundle() const {
  std::lock_guard lock(state_->mutex);
  return state_->caBundle;
}

std::string HttpClient::apiBaseURL() {
  std::lock_guard lock(gURLMutex);
  if (gHostAPIBaseURL) return *gHostAPIBaseURL;
  if (const char* env = std::getenv("SONORELL_API_BASE_URL"); env && *env) return env;
  return kDefaultAPIBaseURL;
}

void HttpClient::setAPIBaseURL(std::string url) {
  std::lock_guard lock(gURLMutex);
  gHostAPIBaseURL = std::move(url);
}

std::string HttpClient::analyticsURL() {
  {
    std::lock_guard lock(gURLMutex);
    if (gHostAnalyticsURL) return *gHostAnalyticsURL;
    if (const char* env = std::getenv("SONORELL_ANALYTICS_URL"); env && *env) return env;
  }
  return apiBaseURL() + "/v4/analytics";
}

void HttpClient::setAnalyticsURL(std::string url) {
  std::lock_guard lock(gURLMutex);
  gHostAnalyticsURL = std::move(url);
}

}  // namespace sonorell
