#include "request_recorder.h"

#include <strings.h>

namespace sonorell::content {

std::optional<std::string> RecordedRequest::header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (key.size() == name.size() && ::strncasecmp(key.data(), name.data(), name.size()) == 0) {
      return value;
    }
  }
  return std::nullopt;
}

void RequestRecorder::record(RecordedRequest request) {
  std::lock_guard lock(mutex_);
  ++counts_[static_cast<std::size_t>(request.route)];
  requests_.push_back(std::move(request));
}

std::uint64_t RequestRecorder::count(Route route) const {
  std::lock_guard lock(mutex_);
  return counts_[static_cast<std::size_t>(route)];
}

std::vector<RecordedRequest> RequestRecorder::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

std::vector<RecordedRequest> RequestRecorder::requests(Route route) const {
  std::lock_guard lock(mutex_);
  std::vector<RecordedRequest> out;
  for (const auto& r : requests_) {
    if (r.route == route) out.push_back(r);
  }
  return out;
}

void RequestRecorder::clear() {
  std::lock_guard lock(mutex_);
  requests_.clear();
  counts_.fill(0);
}

}  // namespace sonorell::content
