#include "platform/net/transfer_driver.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>

#include "platform/dispatch/clock.h"
#include "platform/net/curl_loop.h"
#include "platform/net/transfer_errors.h"
#include "platform/net/transfer_http.h"

namespace sonorell {
namespace {

// The total of an unsatisfied range answer ("bytes */1000"), or -1.
int64_t unsatisfiedTotal(const HttpHeaders& headers) {
  const auto value = headerValue(headers, "Content-Range").value_or("");
  constexpr std::string_view kPrefix = "bytes */";
  if (!std::string_view(value).starts_with(kPrefix)) return -1;
  int64_t total = -1;
  const char* begin = value.data() + kPrefix.size();
  const char* end = value.data() + value.size();
  auto [at, ec] = std::from_chars(begin, end, total);
  return ec == std::errc() && at == end ? total : -1;
}

constexpr auto kProgressInterval = std::chrono::milliseconds(100);
// The size curl's own tool reads with: few system calls, and a few jobs stay far under 30 MB.
constexpr long kBufferSize = 100 * 1024;

// One resource into one file; lives on the loop's thread from configure() on.
class TransferJob final : public CurlJob {
 public:
  TransferJob(TransferJobSpec plan, std::weak_ptr<TransferJobSink> sink, FreeSpaceProbe freeSpace)
      : plan_(std::move(plan)), sink_(std::move(sink)), freeSpace_(std::move(freeSpace)) {}
  ~TransferJob() override {
    curl_slist_free_all(headerList_);
    if (fd_ >= 0) ::close(fd_);
  }

  std::string caBundle() const override { return plan_.caBundle; }

  bool configure(CURL* e) override {
    easy_ = e;
    if (!openFile()) {
      TransferJobResult result;
      result.error = abortError_;
      end(std::move(result));
      return false;
    }
    const auto& request = plan_.request;
    curl_easy_setopt(e, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(e, CURLOPT_WRITEDATA, this);
    headers_.attach(e);
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
    headerList_ = curl_slist_append(headerList_, "Cache-Control: no-cache");
    headerList_ = curl_slist_append(headerList_, "Pragma: no-cache");
    if (plan_.offset > 0) {
      const std::string range = "Range: bytes=" + std::to_string(plan_.offset) + "-";
      const std::string ifRange = "If-Range: " + plan_.validator;
      headerList_ = curl_slist_append(headerList_, range.c_str());
      headerList_ = curl_slist_append(headerList_, ifRange.c_str());
    }
    for (const auto& [name, value] : request.headers) {
      headerList_ = curl_slist_append(headerList_, (name + ": " + value).c_str());
    }
    curl_easy_setopt(e, CURLOPT_HTTPHEADER, headerList_);
    return true;
  }

  void done(CURL* easy, CURLcode code, const char* message) override {
    TransferJobResult result;
    if (code == CURLE_OK && !responded_ && !beginBody()) code = CURLE_WRITE_ERROR;
    if (code != CURLE_OK) {
      result.error = abortError_ ? abortError_ : urlErrorForTransfer(easy, code, message);
    } else if (expectedTotal_ >= 0 && onDisk_ != expectedTotal_) {
      // Never a short (or long) file called finished.
      result.error = transferError(kURLErrorNetworkConnectionLost,
                                   "received " + std::to_string(onDisk_) + " of " +
                                       std::to_string(expectedTotal_) + " bytes");
    } else {
      result.kind = TransferJobResult::Kind::kFinished;
    }
    result.response = response();
    reportProgress(true);
    end(std::move(result));
  }

  void stopped() override {
    TransferJobResult result;
    result.kind = TransferJobResult::Kind::kStopped;
    end(std::move(result));
  }

 private:
  // Opens the file keeping the bytes a resume asks the rest for; false with abortError_ set.
  bool openFile() {
    const bool resume = plan_.offset > 0 && !plan_.validator.empty();
    if (!resume) {
      plan_.offset = 0;
      if (!createEmptyFile()) return false;
    } else {
      fd_ = ::open(plan_.file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
      if (fd_ < 0) {
        abortError_ = Error::posix(errno, "opening " + plan_.file.string());
        return false;
      }
      if (!keepFirst(plan_.offset)) return false;
    }
    lastReported_ = onDisk_;  // bytes kept from before are no news
    return true;
  }

  // The file starts over as a new, empty one rather than being truncated to nothing: ext4 takes
  // a truncation to zero for an application replacing a file's contents and then flushes the
  // whole file inside close(), which held the loop (and every other transfer on it) for a tenth
  // of a second per 256 MB (auto_da_alloc).
  bool createEmptyFile() {
    if (fd_ >= 0) {
      ::close(fd_);
      fd_ = -1;
    }
    if (::unlink(plan_.file.c_str()) != 0 && errno != ENOENT) {
      abortError_ = Error::posix(errno, "replacing " + plan_.file.string());
      return false;
    }
    fd_ = ::open(plan_.file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd_ < 0) {
      abortError_ = Error::posix(errno, "opening " + plan_.file.string());
      return false;
    }
    onDisk_ = 0;
    return true;
  }

  // Keeps the first `size` bytes and writes after them; a file of that size already is left
  // untouched (a truncation would arm the flush-on-close described above).
  bool keepFirst(int64_t size) {
    struct stat info {};
    if (::fstat(fd_, &info) != 0 || (info.st_size != size && ::ftruncate(fd_, size) != 0) ||
        ::lseek(fd_, size, SEEK_SET) < 0) {
      abortError_ = Error::posix(errno, "truncating " + plan_.file.string());
      return false;
    }
    onDisk_ = size;
    return true;
  }

  TransferResponse response() const {
    TransferResponse r;
    if (easy_) curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &r.statusCode);
    r.headers = headers_.headers();
    r.expectedContentLength = expectedTotal_;
    if (continued_) {
      // The task asked for the resource, not for a range of it: what it ends with is the whole
      // resource, so it is described as a 200 of the full length.
      r.statusCode = 200;
      std::erase_if(r.headers, [](const auto& h) {
        return ::strcasecmp(h.first.c_str(), "Content-Range") == 0 ||
               ::strcasecmp(h.first.c_str(), "Content-Length") == 0;
      });
      if (expectedTotal_ >= 0)
        r.headers.emplace_back("Content-Length", std::to_string(expectedTotal_));
    }
    return r;
  }

  // Decides, once the final response starts, what the file keeps and whether there is room.
  bool beginBody() {
    responded_ = true;
    const HttpHeaders& headers = headers_.headers();
    long status = 0;
    curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &status);
    curl_off_t length = -1;
    curl_easy_getinfo(easy_, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
    bool restarted = false;
    if (status == 416 && plan_.offset > 0 && unsatisfiedTotal(headers) == plan_.offset) {
      // The process that wrote the last byte died before the transfer was recorded as finished:
      // the file is whole already, and the server's "nothing after that" completes it.
      expectedTotal_ = plan_.offset;
      continued_ = true;
      discardBody_ = true;
    } else if (status == 206 && plan_.offset > 0) {
      auto range = parseContentRange(headerValue(headers, "Content-Range").value_or(""));
      if (!range || range->first != plan_.offset) {
        abortError_ = transferError(kURLErrorBadServerResponse,
                                    "the server answered a different range than was asked for");
        return false;
      }
      expectedTotal_ =
          range->total >= 0 ? range->total : (length >= 0 ? plan_.offset + length : -1);
      continued_ = true;
    } else {
      // The whole resource (the range was ignored or the validator no longer matched), or an
      // error document: the file holds only this body.
      restarted = plan_.offset > 0;
      if (restarted && !createEmptyFile()) return false;
      expectedTotal_ = length >= 0 ? static_cast<int64_t>(length) : -1;
    }
    if (expectedTotal_ > onDisk_ && freeSpace_) {
      const uint64_t needed = uint64_t(expectedTotal_ - onDisk_);
      if (auto free = freeSpace_(plan_.file.parent_path()); free && *free < needed) {
        abortError_ = noSpaceError(needed, *free);
        return false;
      }
    }
    if (auto s = sink_.lock())
      s->jobResponded(id(), response(), resumeValidator(headers), restarted);
    return true;
  }

  void reportProgress(bool last) {
    if (onDisk_ == lastReported_) return;
    const MonoTime now = Clock::current()->now();
    if (!last && lastProgress_ && now - *lastProgress_ < kProgressInterval) return;
    lastProgress_ = now;
    lastReported_ = onDisk_;
    if (auto s = sink_.lock()) s->jobProgressed(id(), onDisk_, expectedTotal_);
  }

  static size_t onBody(char* data, size_t size, size_t count, void* self) {
    auto* job = static_cast<TransferJob*>(self);
    const size_t n = size * count;
    if (!job->responded_ && !job->beginBody()) return 0;
    if (job->discardBody_) return n;  // the 416's own text, not the resource's bytes
    size_t written = 0;
    while (written < n) {
      ssize_t w = ::write(job->fd_, data + written, n - written);
      if (w < 0) {
        if (errno == EINTR) continue;
        job->abortError_ = Error::posix(errno, "writing " + job->plan_.file.string());
        return 0;
      }
      written += static_cast<size_t>(w);
    }
    job->onDisk_ += static_cast<int64_t>(n);
    job->reportProgress(false);
    return n;
  }

  // Closes the file, then tells the sink: exactly once per job.
  void end(TransferJobResult result) {
    if (fd_ >= 0) {
      ::close(fd_);
      fd_ = -1;
    }
    result.bytesOnDisk = onDisk_;
    if (auto s = sink_.lock()) s->jobEnded(id(), std::move(result));
  }

  TransferJobSpec plan_;
  const std::weak_ptr<TransferJobSink> sink_;
  const FreeSpaceProbe freeSpace_;
  CURL* easy_ = nullptr;  // the loop's handle, from configure() until done()
  curl_slist* headerList_ = nullptr;
  int fd_ = -1;
  ResponseHeaderCollector headers_;  // of the response being received
  bool responded_ = false;
  bool continued_ = false;    // a 206 that carries on from the bytes kept
  bool discardBody_ = false;  // a 416 for a file that is whole already
  int64_t onDisk_ = 0;        // bytes in the file
  int64_t expectedTotal_ = -1;
  ErrorPtr abortError_;  // why a callback stopped the transfer
  std::optional<MonoTime> lastProgress_;
  int64_t lastReported_ = -1;
};

}  // namespace

std::shared_ptr<TransferDriver> TransferDriver::create(FreeSpaceProbe freeSpace,
                                                       std::shared_ptr<CurlLoop> loop) {
  return std::shared_ptr<TransferDriver>(
      new TransferDriver(freeSpace ? std::move(freeSpace) : FreeSpaceProbe(freeSpaceOnFileSystem),
                         loop ? std::move(loop) : CurlLoop::create()));
}

uint64_t TransferDriver::start(TransferJobSpec plan, std::weak_ptr<TransferJobSink> sink) {
  return loop_->add(std::make_unique<TransferJob>(std::move(plan), std::move(sink), freeSpace_));
}

void TransferDriver::stop(uint64_t job) { loop_->stop(job); }

}  // namespace sonorell
