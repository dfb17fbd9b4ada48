// The platform log's lines, captured while one of these lives (the default sink comes back
// after), for tests that check what the platform layer logged. Thread-safe.
#pragma once

#include <algorithm>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/log/platform_log.h"

namespace sonorell::testing {

class PlatformLogLines {
 public:
  PlatformLogLines() : sink_(std::make_shared<Sink>()) { platform_log::setSink(sink_); }
  ~PlatformLogLines() { platform_log::setSink(nullptr); }
  PlatformLogLines(const PlatformLogLines&) = delete;
  PlatformLogLines& operator=(const PlatformLogLines&) = delete;

  // Lines holding `part`, of one type or of any.
  size_t count(std::string_view part, std::optional<LogType> type = std::nullopt) const {
    std::lock_guard lock(sink_->mutex);
    return static_cast<size_t>(
        std::count_if(sink_->lines.begin(), sink_->lines.end(), [&](const auto& entry) {
          return (!type || entry.first == *type) && entry.second.find(part) != std::string::npos;
        }));
  }
  std::string all() const {
    std::lock_guard lock(sink_->mutex);
    std::string text;
    for (const auto& entry : sink_->lines) text += entry.second + "\n";
    return text;
  }

 private:
  struct Sink : LogSink {
    bool wants(LogType) const override { return true; }
    void write(LogType type, std::string_view line) override {
      std::lock_guard lock(mutex);
      lines.emplace_back(type, std::string(line));
    }
    mutable std::mutex mutex;
    std::vector<std::pair<LogType, std::string>> lines;  // guarded by mutex
  };
  std::shared_ptr<Sink> sink_;
};

}  // namespace sonorell::testing
