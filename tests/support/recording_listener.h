// A log listener that keeps every line it is given, by level, for tests to inspect. Guarded by
// its own mutex: the engine logs from many threads.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "sonorell/log_engine.h"

namespace sonorell::testing {

class RecordingListener : public QSOLogListener {
 public:
  void logError(const std::string& line) override { add("error", line); }
  void logWarning(const std::string& line) override { add("warning", line); }
  void logInfo(const std::string& line) override { add("info", line); }
  void logVerbose(const std::string& line) override { add("verbose", line); }

  std::vector<std::pair<std::string, std::string>> lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
  }
  // Lines that contain the text.
  size_t count(std::string_view text) const {
    std::lock_guard lock(mutex_);
    return countLocked(text);
  }
  // Waits (real time, at most `limit`) until a line containing the text was logged.
  bool waitFor(std::string_view text, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    std::unique_lock lock(mutex_);
    return logged_.wait_for(lock, limit, [&] { return countLocked(text) > 0; });
  }

 private:
  void add(const char* level, const std::string& line) {
    std::lock_guard lock(mutex_);
    lines_.emplace_back(level, line);
    logged_.notify_all();
  }
  size_t countLocked(std::string_view text) const {
    size_t n = 0;
    for (const auto& [level, line] : lines_) n += line.find(text) != std::string::npos;
    return n;
  }
  mutable std::mutex mutex_;
  std::condition_variable logged_;
  std::vector<std::pair<std::string, std::string>> lines_;
};

}  // namespace sonorell::testing
