#include "platform/net/curl_loop.h"

#include <cerrno>
#include <cstdlib>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace sonorell {
namespace {

constexpr const char* kCurlErrorDomain = "CURLErrorDomain";
// How long the loop sleeps in curl_multi_poll when nothing wakes it: a safety net only, since
// every add and stop wakes it at once.
constexpr int kPollMs = 1000;

// Loop threads whose loop was destroyed on the thread itself (a job's callback dropped the last
// reference): they finish on their own and are joined at exit, before libcurl's TLS library
// tears itself down under them. Never destroyed, so the exit handler can still reach them.
struct Orphans {
  std::mutex mutex;
  std::vector<std::thread> threads;
};

Orphans& orphans() {
  static auto* o = new Orphans();
  return *o;
}

void joinOrphans() {
  std::vector<std::thread> threads;
  {
    std::lock_guard lock(orphans().mutex);
    threads.swap(orphans().threads);
  }
  for (auto& t : threads) t.join();
}

std::mutex gDefaultCABundleMutex;
std::string gDefaultCABundle;  // guarded by gDefaultCABundleMutex

std::string trimmed(std::string_view s) {
  size_t b = 0, e = s.size();
  while (b < e && (s[b] == ' ' || s[b] == '\t')) ++b;
  while (e > b && (s[e - 1] == ' ' || s[e - 1] == '\t' || s[e - 1] == '\r' || s[e - 1] == '\n')) {
    --e;
  }
  return std::string(s.substr(b, e - b));
}

// Verification is never turned off; an extra bundle is trusted besides the system's directory.
void configureTLS(CURL* easy, const std::string& caBundle) {
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
  if (!caBundle.empty()) {
    curl_easy_setopt(easy, CURLOPT_CAINFO, caBundle.c_str());
    curl_easy_setopt(easy, CURLOPT_CAPATH, "/etc/ssl/certs");
  }
}

}  // namespace

void setDefaultCABundle(std::string path) {
  std::lock_guard lock(gDefaultCABundleMutex);
  gDefaultCABundle = std::move(path);
}

std::string defaultCABundle() {
  std::lock_guard lock(gDefaultCABundleMutex);
  return gDefaultCABundle;
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

ErrorPtr urlErrorForTransfer(CURL* easy, CURLcode code, const char* message) {
  long osErrno = 0;
  if (easy) curl_easy_getinfo(easy, CURLINFO_OS_ERRNO, &osErrno);
  return urlErrorForCurlCode(code, message ? message : "", osErrno);
}

void ResponseHeaderCollector::attach(CURL* easy) {
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, onHeader);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, this);
}

size_t ResponseHeaderCollector::onHeader(char* data, size_t size, size_t count, void* self) {
  auto& headers = static_cast<ResponseHeaderCollector*>(self)->headers_;
  std::string_view line(data, size * count);
  if (line.starts_with("HTTP/")) {
    headers.clear();
  } else if (auto colon = line.find(':'); colon != std::string_view::npos) {
    headers.emplace_back(trimmed(line.substr(0, colon)), trimmed(line.substr(colon + 1)));
  }
  return size * count;
}

struct CurlLoop::State {
  // A job with the handle the loop made for it.
  struct Entry {
    std::unique_ptr<CurlJob> job;
    CURL* easy = nullptr;
    char errorBuffer[CURL_ERROR_SIZE] = {};
    ~Entry() {
      if (easy) curl_easy_cleanup(easy);  // before the job, which owns what the handle points at
    }
  };
  using Entries = std::vector<std::unique_ptr<Entry>>;

  std::mutex mutex;
  Entries incoming;             // guarded by mutex
  std::vector<uint64_t> stops;  // guarded by mutex
  bool stopping = false;        // guarded by mutex
  bool abandoned = false;       // guarded by mutex; the process is exiting: end, finish nothing
  uint64_t nextId = 1;          // guarded by mutex
  // Made before the thread starts and cleaned up after it ends; curl_multi_wakeup may be called
  // on it from any thread.
  CURLM* const multi = curl_multi_init();
  std::map<uint64_t, std::unique_ptr<Entry>> running;  // loop thread only
  std::thread thread;

  ~State() { curl_multi_cleanup(multi); }

  void wake() { curl_multi_wakeup(multi); }

  // False when the job was refused or no handle could be made (the job has then ended).
  bool begin(Entry& entry) {
    entry.easy = curl_easy_init();
    if (!entry.easy) {
      entry.job->done(nullptr, CURLE_FAILED_INIT, "no transfer handle could be made");
      return false;
    }
    CURL* e = entry.easy;
    curl_easy_setopt(e, CURLOPT_PRIVATE, &entry);
    curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(e, CURLOPT_ERRORBUFFER, entry.errorBuffer);
    std::string bundle = entry.job->caBundle();
    configureTLS(e, bundle.empty() ? defaultCABundle() : bundle);
    if (!entry.job->configure(e)) return false;
    curl_multi_add_handle(multi, e);
    return true;
  }

  void stopOne(uint64_t id, Entries& added) {
    if (auto it = running.find(id); it != running.end()) {
      auto entry = std::move(it->second);
      running.erase(it);
      curl_multi_remove_handle(multi, entry->easy);
      entry->job->stopped();
      return;
    }
    for (auto it = added.begin(); it != added.end(); ++it) {
      if ((*it)->job->id() == id) {
        auto entry = std::move(*it);
        added.erase(it);
        entry->job->stopped();
        return;
      }
    }
  }

  void finishDone() {
    int queued = 0;
    while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
      if (message->msg != CURLMSG_DONE) continue;
      const CURLcode code = message->data.result;
      Entry* raw = nullptr;
      curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &raw);
      auto it = raw ? running.find(raw->job->id()) : running.end();
      if (it == running.end()) continue;
      auto entry = std::move(it->second);
      running.erase(it);
      curl_multi_remove_handle(multi, entry->easy);
      entry->job->done(entry->easy, code, entry->errorBuffer);
    }
  }

  void run() {
    for (;;) {
      Entries added;
      std::vector<uint64_t> stopList;
      {
        std::lock_guard lock(mutex);
        if (abandoned) return;  // jobs and handles are left to the process's end
        if (stopping) break;
        added.swap(incoming);
        stopList.swap(stops);
      }
      // Stops first: a job stopped before the loop saw it never touches the network.
      for (uint64_t id : stopList) stopOne(id, added);
      for (auto& entry : added) {
        const uint64_t id = entry->job->id();
        if (begin(*entry)) running.emplace(id, std::move(entry));
      }
      int stillRunning = 0;
      curl_multi_perform(multi, &stillRunning);
      finishDone();
      curl_multi_poll(multi, nullptr, 0, kPollMs, nullptr);
    }
    auto left = std::move(running);
    running.clear();
    for (auto& [id, entry] : left) {
      curl_multi_remove_handle(multi, entry->easy);
      entry->job->stopped();
    }
    Entries queued;
    {
      std::lock_guard lock(mutex);
      queued.swap(incoming);
    }
    for (auto& entry : queued) entry->job->stopped();
  }
};

std::shared_ptr<CurlLoop> CurlLoop::create() {
  static std::once_flag once;
  std::call_once(once, [] {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    // Registered after the TLS library's own exit handler, so it runs before that one.
    std::atexit(joinOrphans);
  });
  std::shared_ptr<CurlLoop> loop(new CurlLoop());
  loop->state_ = std::make_shared<State>();
  loop->state_->thread = std::thread([state = loop->state_] { state->run(); });
  return loop;
}

CurlLoop::~CurlLoop() {
  {
    std::lock_guard lock(state_->mutex);
    state_->stopping = true;
  }
  state_->wake();
  if (state_->thread.get_id() == std::this_thread::get_id()) {
    std::lock_guard lock(orphans().mutex);
    orphans().threads.push_back(std::move(state_->thread));
  } else {
    state_->thread.join();
  }
}

uint64_t CurlLoop::add(std::unique_ptr<CurlJob> job) {
  auto entry = std::make_unique<State::Entry>();
  entry->job = std::move(job);
  uint64_t id;
  {
    std::lock_guard lock(state_->mutex);
    id = state_->nextId++;
    entry->job->id_ = id;
    state_->incoming.push_back(std::move(entry));
  }
  state_->wake();
  return id;
}

void CurlLoop::stop(uint64_t id) {
  {
    std::lock_guard lock(state_->mutex);
    state_->stops.push_back(id);
  }
  state_->wake();
}

std::shared_ptr<CurlLoop> CurlLoop::shared() {
  static std::shared_ptr<CurlLoop>* loop = nullptr;
  static std::once_flag once;
  std::call_once(once, [] {
    loop = new std::shared_ptr<CurlLoop>(create());
    // The shared loop lives as long as the process, but its thread must be out of libcurl
    // before the TLS library's exit handler (registered before this one, so run after it)
    // frees what the thread may be using. Jobs still running are not finished: no callback
    // into a process that is going away.
    std::atexit([] {
      const auto& state = (*loop)->state_;
      {
        std::lock_guard lock(state->mutex);
        state->abandoned = true;
      }
      state->wake();
      if (state->thread.joinable() && state->thread.get_id() != std::this_thread::get_id()) {
        state->thread.join();
      }
    });
  });
  return *loop;
}

}  // namespace sonorell
