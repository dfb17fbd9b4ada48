// Every request the server answered on one of its routes, kept for tests to inspect, with a count
// per route. Safe for concurrent use: worker threads record while tests read; one mutex guards
// the list and the counters.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fault_plan.h"

namespace sonorell::content {

// What went back for one request, written by the thread answering it while others read it: the
// status once the answer is chosen (0 until then, and for a connection dropped without one) and
// the body bytes handed to the connection so far.
struct SentResponse {
  std::atomic<int> status{0};
  std::atomic<std::uint64_t> bodyBytes{0};
};

struct RecordedRequest {
  Route route = Route::kMetadata;
  std::string method;
  std::string path;                                          // decoded path, no query
  std::vector<std::pair<std::string, std::string>> headers;  // as received, in order
  std::string body;
  // Shared with the thread answering the request: copies of the record see the answer go out.
  std::shared_ptr<SentResponse> response = std::make_shared<SentResponse>();

  int status() const { return response->status.load(); }
  std::uint64_t bytesSent() const { return response->bodyBytes.load(); }
  // First value of the header (names compare case-insensitively), or none.
  std::optional<std::string> header(std::string_view name) const;
};

class RequestRecorder {
 public:
  void record(RecordedRequest request);

  std::uint64_t count(Route route) const;
  std::vector<RecordedRequest> requests() const;
  std::vector<RecordedRequest> requests(Route route) const;
  // Forgets the requests and sets every counter to zero.
  void clear();

 private:
  static constexpr std::size_t kRoutes = 5;
  mutable std::mutex mutex_;
  std::vector<RecordedRequest> requests_;        // guarded by mutex_
  std::array<std::uint64_t, kRoutes> counts_{};  // guarded by mutex_
};

}  // namespace sonorell::content
