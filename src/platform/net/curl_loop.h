// One libcurl event loop: a single thread drives one curl multi handle for every job added to
// it (data requests, background transfers). Jobs are added and stopped from any thread through
// the loop's mutex-guarded inbox; easy handles, and every call into a job, stay on the loop's
// thread. Also here, so that no caller repeats them: curl's global set-up, TLS trust, the
// mapping of libcurl failures to URL-loading errors and the response-header collector.
#pragma once

#include <curl/curl.h>

#include <cstdint>
#include <memory>
#include <string>

#include "platform/net/http_types.h"
#include "sonorell/error.h"

namespace sonorell {

// A CA bundle (PEM file) trusted besides the system's by every job that names none of its own.
// A host sets it (QSOSonorell::setTrustedCertificates), possibly before any client exists; it
// applies to jobs set up afterwards. Guarded by its own mutex; safe from any thread.
void setDefaultCABundle(std::string path);
std::string defaultCABundle();

// Maps a libcurl result (and, for connection failures, the OS error) to a URL-loading error
// whose underlying error carries libcurl's code and message.
ErrorPtr urlErrorForCurlCode(int curlCode, const std::string& curlMessage, long osErrno = 0);
// The same for a transfer that just ended on `easy`, with the OS error it saw.
ErrorPtr urlErrorForTransfer(CURL* easy, CURLcode code, const char* message);

// Keeps the headers of the response being received: a status line starts over (a redirect,
// 100 Continue), "Name: value" lines are kept with the value trimmed. Loop thread only.
class ResponseHeaderCollector {
 public:
  // Makes this the handle's header callback; it must outlive the transfer.
  void attach(CURL* easy);
  const HttpHeaders& headers() const { return headers_; }
  HttpHeaders take() { return std::move(headers_); }

 private:
  static size_t onHeader(char* data, size_t size, size_t count, void* self);
  HttpHeaders headers_;
};

// One transfer on the loop. The loop calls it on its own thread only: configure once, then
// exactly one of done or stopped (none after a refusal).
class CurlJob {
 public:
  virtual ~CurlJob() = default;

  // What add() returned; set before the loop first calls the job.
  uint64_t id() const { return id_; }
  // The extra CA bundle this job trusts besides the system's; empty: defaultCABundle().
  virtual std::string caBundle() const { return {}; }
  // Sets up the job's easy handle (URL, method, body and header callbacks, request headers,
  // time-outs). Verification, the CA bundle, CURLOPT_PRIVATE, CURLOPT_ERRORBUFFER and
  // CURLOPT_NOSIGNAL are set already. False refuses the job: it has ended itself with its own
  // error and hears nothing more.
  virtual bool configure(CURL* easy) = 0;
  // The transfer ended: CURLE_OK, or libcurl's failure with its message. `easy` is still open
  // for curl_easy_getinfo (null only when libcurl could not make a handle at all).
  virtual void done(CURL* easy, CURLcode code, const char* message) = 0;
  // Stopped before it ended: by CurlLoop::stop, or because the loop is going away.
  virtual void stopped() = 0;

 private:
  friend class CurlLoop;
  uint64_t id_ = 0;  // written by add() before the job is queued
};

class CurlLoop {
 public:
  static std::shared_ptr<CurlLoop> create();
  // The process's loop, which the shared HTTP client and transfer service both run on: one
  // thread for all of the process's network work. Made on first use, never destroyed.
  static std::shared_ptr<CurlLoop> shared();
  // Every job still in hand hears stopped(), then the thread ends. Joins it, except when the
  // last owner lets go from a job's call on the loop's own thread: that thread then finishes
  // on its own (it holds the loop's state).
  ~CurlLoop();
  CurlLoop(const CurlLoop&) = delete;
  CurlLoop& operator=(const CurlLoop&) = delete;

  // Queues the job and returns its id (never 0, unique within this loop).
  uint64_t add(std::unique_ptr<CurlJob> job);
  // The job hears stopped() unless it ended already; an unknown id is ignored.
  void stop(uint64_t id);

  struct State;  // the loop thread's state; defined in the implementation

 private:
  CurlLoop() = default;
  std::shared_ptr<State> state_;
};

}  // namespace sonorell
