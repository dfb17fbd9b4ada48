// Turns a route's answer into httplib's response, applying the fault picked for the request:
// delay, dropped connection, replaced status or body, short body, wrong Content-Length, bandwidth
// limit. Runs on the worker thread serving the request; waits end early when the server stops.
#pragma once

#include <httplib.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "fault_plan.h"
#include "request_recorder.h"

namespace sonorell::content {

// Lets waits inside request handlers end as soon as the server stops. Thread-safe.
class StopSignal {
 public:
  // False when the server stopped before the time was up.
  bool waitUntil(std::chrono::steady_clock::time_point deadline);
  bool waitFor(std::chrono::steady_clock::duration duration) {
    return waitUntil(std::chrono::steady_clock::now() + duration);
  }
  void stop();
  void reset();

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  bool stopped_ = false;  // guarded by mutex_
};

// The bytes to send, read on demand so that large bodies are never held whole.
struct Body {
  std::uint64_t size = 0;
  // False when the bytes cannot be had: the connection closes short of the promised length.
  std::function<bool(std::uint64_t offset, char* out, std::size_t n)> read;

  static Body of(std::shared_ptr<const std::string> bytes, std::uint64_t offset,
                 std::uint64_t length);
  static Body of(std::string text);
};

struct Reply {
  int status = 200;
  std::string contentType = "application/json";
  std::vector<std::pair<std::string, std::string>> headers;
  Body body;
};

// `sent`, when given, learns the status and counts the body bytes as they go out.
void send(const httplib::Request& request, httplib::Response& response, Reply reply,
          const std::optional<Fault>& fault, StopSignal& stop,
          std::shared_ptr<SentResponse> sent = nullptr);

}  // namespace sonorell::content
