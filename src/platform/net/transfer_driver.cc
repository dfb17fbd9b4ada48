#include "platform/net/transfer_driver.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <deque>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "platform/dispatch/clock.h"
#include "platform/net/http_client.h"
#include "platform/net/transfer_errors.h"
#include "platform/net/transfer_http.h"

namespace sonorell {
namespace {

constexpr auto kProgressInterval = std::chrono::milliseconds(100);
// The size curl's own tool reads with: few system calls, and a few jobs stay far under 30 MB.
constexpr long kBufferSize = 100 * 1024;

std::string trimmed(std::string_view s) {
  size_t b = 0, e = s.size();
  while (b < e && (s[b] == ' ' || s[b] == '\t')) ++b;
  while (e > b && (s[e - 1] == ' ' || s[e - 1] == '\t' || s[e - 1] == '\r' || s[e - 1] == '\n')) {
    --e;
  }
  return std::string(s.substr(b, e - b));
}

struct Job {
  uint64_t key = 0;
  TransferJobSpec plan;
  std::weak_ptr<TransferJobSink> sink;
  CURL* easy = nullptr;
  curl_slist* headerList = nullptr;
  int fd = -1;
  char errorBuffer[CURL_ERROR_SIZE] = {};
  HttpHeaders headers;  // of the response being received
  bool responded = false;
  bool continued = false;  // a 206 that carries on from the bytes kept
  int64_t onDisk = 0;      // bytes in the file
  int64_t expectedTotal = -1;
  ErrorPtr abortError;  // why a callback stopped the transfer
  std::optional<MonoTime> lastProgress;
  int64_t lastReported = -1;
  FreeSpaceProbe* freeSpace = nullptr;

  ~Job() {
    if (easy) curl_easy_cleanup(easy);
    curl_slist_free_all(headerList);
    if (fd >= 0) ::close(fd);
  }

  std::shared_ptr<TransferJobSink> lockSink() const { return sink.lock(); }

  TransferResponse response() const {
    TransferResponse r;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &r.statusCode);
    r.headers = headers;
    r.expectedContentLength = expectedTotal;
    if (continued) {
      // The task asked for the resource, not for a range of it: what it ends with is the whole
      // resource, so it is described as a 200 of the full length.
      r.statusCode = 200;
      std::erase_if(r.headers, [](const auto& h) {
        return ::strcasecmp(h.first.c_str(), "Content-Range") == 0 ||
               ::strcasecmp(h.first.c_str(), "Content-Length") == 0;
      });
      if (expectedTotal >= 0)
        r.headers.emplace_back("Content-Length", std::to_string(expectedTotal));
    }
    return r;
  }

  bool truncateTo(int64_t size) {
    if (::ftruncate(fd, size) != 0 || ::lseek(fd, size, SEEK_SET) < 0) {
      abortError = Error::posix(errno, "truncating " + plan.file.string());
      return false;
    }
    onDisk = size;
    return true;
  }

  // Decides, once the final response starts, what the file keeps and whether there is room.
  bool beginBody() {
    responded = true;
    TransferResponse r = response();
    bool restarted = false;
    curl_off_t length = -1;
    curl_easy_getinfo(easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
    if (r.statusCode == 206 && plan.offset > 0) {
      auto range = parseContentRange(headerValue(headers, "Content-Range").value_or(""));
      if (!range || range->first != plan.offset) {
        abortError = transferError(kURLErrorBadServerResponse,
                                   "the server answered a different range than was asked for");
        return false;
      }
      expectedTotal = range->total >= 0 ? range->total : (length >= 0 ? plan.offset + length : -1);
      continued = true;
    } else {
      // The whole resource (the range was ignored or the validator no longer matched), or an
      // error document: the file holds only this body.
      restarted = plan.offset > 0;
      if (!truncateTo(0)) return false;
      expectedTotal = length >= 0 ? static_cast<int64_t>(length) : -1;
    }
    r = response();
    if (expectedTotal > onDisk && freeSpace && *freeSpace) {
      auto directory = plan.file.parent_path();
      if (auto free = (*freeSpace)(directory); free && *free < uint64_t(expectedTotal - onDisk)) {
        abortError = noSpaceError(uint64_t(expectedTotal - onDisk), *free);
        return false;
      }
    }
    if (auto s = lockSink()) s->jobResponded(key, r, resumeValidator(headers), restarted);
    return true;
  }

  void reportProgress(bool last) {
    if (onDisk == lastReported) return;
    const MonoTime now = Clock::current()->now();
    if (!last && lastProgress && now - *lastProgress < kProgressInterval) return;
    lastProgress = now;
    lastReported = onDisk;
    if (auto s = lockSink()) s->jobProgressed(key, onDisk, expectedTotal);
  }
};

size_t onBody(char* data, size_t size, size_t count, void* user) {
  auto* job = static_cast<Job*>(user);
  const size_t n = size * count;
  if (!job->responded && !job->beginBody()) return 0;
  size_t written = 0;
  while (written < n) {
    ssize_t w = ::write(job->fd, data + written, n - written);
    if (w < 0) {
      if (errno == EINTR) continue;
      job->abortError = Error::posix(errno, "writing " + job->plan.file.string());
      return 0;
    }
    written += static_cast<size_t>(w);
  }
  job->onDisk += static_cast<int64_t>(n);
  job->reportProgress(false);
  return n;
}

size_t onHeader(char* data, size_t size, size_t count, void* user) {
  auto* job = static_cast<Job*>(user);
  std::string_view line(data, size * count);
  if (line.starts_with("HTTP/")) {
    job->headers.clear();  // a new response (after a redirect or 100 Continue)
  } else if (auto colon = line.find(':'); colon != std::string_view::npos) {
    job->headers.emplace_back(trimmed(line.substr(0, colon)), trimmed(line.substr(colon + 1)));
  }
  return size * count;
}

}  // namespace

std::optional<uint64_t> freeSpaceOnFileSystem(const std::filesystem::path& directory) {
  struct statvfs info {};
  if (::statvfs(directory.c_str(), &info) != 0) return std::nullopt;
  return uint64_t(info.f_bavail) * uint64_t(info.f_frsize);
}

struct TransferDriver::State {
  std::mutex mutex;
  std::deque<std::unique_ptr<Job>> incoming;  // guarded by mutex
  std::vector<uint64_t> stops;                // guarded by mutex
  bool stopping = false;                      // guarded by mutex
  uint64_t nextKey = 1;                       // guarded by mutex
  FreeSpaceProbe freeSpace;                   // set before the thread starts
  CURLM* multi = nullptr;
  std::unordered_map<CURL*, std::unique_ptr<Job>> running;  // driver thread only
  std::thread thread;

  ~State() { curl_multi_cleanup(multi); }

  static void end(std::unique_ptr<Job> job, TransferJobResult result) {
    if (job->fd >= 0) {
      ::close(job->fd);
      job->fd = -1;
    }
    result.bytesOnDisk = job->onDisk;
    if (auto sink = job->lockSink()) sink->jobEnded(job->key, std::move(result));
  }

  static void stopped(std::unique_ptr<Job> job) {
    TransferJobResult result;
    result.kind = TransferJobResult::Kind::kStopped;
    end(std::move(job), std::move(result));
  }

  // Opens the file and sets up the handle; false (with the job ended) when it cannot.
  bool configure(Job& job) {
    const bool resume = job.plan.offset > 0 && !job.plan.validator.empty();
    job.fd = ::open(job.plan.file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (job.fd < 0) {
      job.abortError = Error::posix(errno, "opening " + job.plan.file.string());
      return false;
    }
    if (!job.truncateTo(resume ? job.plan.offset : 0)) return false;
    if (!resume) job.plan.offset = 0;
    job.lastReported = job.onDisk;  // bytes kept from before are no news
    job.freeSpace = &freeSpace;
    job.easy = curl_easy_init();
    CURL* e = job.easy;
    const auto& request = job.plan.request;
    curl_easy_setopt(e, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(e, CURLOPT_PRIVATE, &job);
    curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(e, CURLOPT_ERRORBUFFER, job.errorBuffer);
    curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(e, CURLOPT_WRITEDATA, &job);
    curl_easy_setopt(e, CURLOPT_HEADERFUNCTION, onHeader);
    curl_easy_setopt(e, CURLOPT_HEADERDATA, &job);
    curl_easy_setopt(e, CURLOPT_BUFFERSIZE, kBufferSize);
    curl_easy_setopt(e, CURLOPT_HTTPGET, 1L);
    curl_easy_setopt(e, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(e, CURLOPT_MAXREDIRS, 10L);
    // The request's time-out bounds the connection and any stretch without data, not the whole
    // transfer, which may take as long as it needs.
    const long timeoutMs = static_cast<long>(request.timeout.count());
    const long timeoutSeconds = std::max(1L, (timeoutMs + 999) / 1000);
    curl_easy_setopt(e, CURLOPT_CONNECTTIMEOUT_MS, timeoutMs);
    curl_easy_setopt(e, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(e, CURLOPT_LOW_SPEED_TIME, timeoutSeconds);
    configureTLSVerification(e, job.plan.caBundle);
    job.headerList = curl_slist_append(job.headerList, "Cache-Control: no-cache");
    job.headerList = curl_slist_append(job.headerList, "Pragma: no-cache");
    if (resume) {
      const std::string range = "Range: bytes=" + std::to_string(job.plan.offset) + "-";
      const std::string ifRange = "If-Range: " + job.plan.validator;
      job.headerList = curl_slist_append(job.headerList, range.c_str());
      job.headerList = curl_slist_append(job.headerList, ifRange.c_str());
    }
    for (const auto& [name, value] : request.headers) {
      job.headerList = curl_slist_append(job.headerList, (name + ": " + value).c_str());
    }
    curl_easy_setopt(e, CURLOPT_HTTPHEADER, job.headerList);
    return true;
  }

  void finish(std::unique_ptr<Job> job, CURLcode code) {
    TransferJobResult result;
    if (code == CURLE_OK && !job->responded && !job->beginBody()) code = CURLE_WRITE_ERROR;
    if (code != CURLE_OK) {
      result.kind = TransferJobResult::Kind::kFailed;
      if (job->abortError) {
        result.error = job->abortError;
      } else {
        long osErrno = 0;
        curl_easy_getinfo(job->easy, CURLINFO_OS_ERRNO, &osErrno);
        result.error = urlErrorForCurlCode(code, job->errorBuffer, osErrno);
      }
    } else if (job->expectedTotal >= 0 && job->onDisk != job->expectedTotal) {
      // Never a short (or long) file called finished.
      result.kind = TransferJobResult::Kind::kFailed;
      result.error = transferError(kURLErrorNetworkConnectionLost,
                                   "received " + std::to_string(job->onDisk) + " of " +
                                       std::to_string(job->expectedTotal) + " bytes");
    } else {
      result.kind = TransferJobResult::Kind::kFinished;
    }
    result.response = job->response();
    job->reportProgress(true);
    end(std::move(job), std::move(result));
  }

  void run() {
    for (;;) {
      std::deque<std::unique_ptr<Job>> added;
      std::vector<uint64_t> stopList;
      {
        std::lock_guard lock(mutex);
        if (stopping) break;
        added.swap(incoming);
        stopList.swap(stops);
      }
      for (uint64_t key : stopList) {
        for (auto it = running.begin(); it != running.end(); ++it) {
          if (it->second->key == key) {
            curl_multi_remove_handle(multi, it->first);
            auto job = std::move(it->second);
            running.erase(it);
            stopped(std::move(job));
            break;
          }
        }
        for (auto it = added.begin(); it != added.end(); ++it) {
          if ((*it)->key == key) {
            stopped(std::move(*it));
            added.erase(it);
            break;
          }
        }
      }
      for (auto& job : added) {
        if (!configure(*job)) {
          TransferJobResult result;
          result.error = job->abortError;
          end(std::move(job), std::move(result));
          continue;
        }
        curl_multi_add_handle(multi, job->easy);
        CURL* key = job->easy;
        running.emplace(key, std::move(job));
      }
      int stillRunning = 0;
      curl_multi_perform(multi, &stillRunning);
      int queued = 0;
      while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
        if (message->msg != CURLMSG_DONE) continue;
        CURL* easy = message->easy_handle;
        CURLcode code = message->data.result;
        curl_multi_remove_handle(multi, easy);
        auto it = running.find(easy);
        if (it == running.end()) continue;
        auto job = std::move(it->second);
        running.erase(it);
        finish(std::move(job), code);
      }
      curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
    }
    for (auto& [easy, job] : running) {
      curl_multi_remove_handle(multi, easy);
      stopped(std::move(job));
    }
    running.clear();
    std::deque<std::unique_ptr<Job>> left;
    {
      std::lock_guard lock(mutex);
      left.swap(incoming);
    }
    for (auto& job : left) stopped(std::move(job));
  }
};

std::shared_ptr<TransferDriver> TransferDriver::create(FreeSpaceProbe freeSpace) {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
  std::shared_ptr<TransferDriver> driver(new TransferDriver());
  driver->state_ = std::make_shared<State>();
  driver->state_->freeSpace =
      freeSpace ? std::move(freeSpace) : FreeSpaceProbe(freeSpaceOnFileSystem);
  driver->state_->multi = curl_multi_init();
  driver->state_->thread = std::thread([state = driver->state_] { state->run(); });
  return driver;
}

TransferDriver::~TransferDriver() {
  {
    std::lock_guard lock(state_->mutex);
    state_->stopping = true;
  }
  curl_multi_wakeup(state_->multi);
  if (!state_->thread.joinable()) return;
  // The last owner may let go from a sink call on the driver thread itself; that thread then
  // finishes on its own (it holds the state).
  if (state_->thread.get_id() == std::this_thread::get_id()) {
    state_->thread.detach();
  } else {
    state_->thread.join();
  }
}

uint64_t TransferDriver::start(TransferJobSpec plan, std::weak_ptr<TransferJobSink> sink) {
  auto job = std::make_unique<Job>();
  job->plan = std::move(plan);
  job->sink = std::move(sink);
  uint64_t key;
  {
    std::lock_guard lock(state_->mutex);
    key = state_->nextKey++;
    job->key = key;
    state_->incoming.push_back(std::move(job));
  }
  curl_multi_wakeup(state_->multi);
  return key;
}

void TransferDriver::stop(uint64_t job) {
  {
    std::lock_guard lock(state_->mutex);
    state_->stops.push_back(job);
  }
  curl_multi_wakeup(state_->multi);
}

}  // namespace sonorell
