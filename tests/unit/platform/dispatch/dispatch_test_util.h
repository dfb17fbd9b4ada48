// Small thread helpers shared by the dispatch tests, built on std primitives only so that they do
// not depend on the code under test. Each guards its state with its own mutex.
#pragma once

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace sonorell::testing {

// Opens once; everyone waiting (with a real-time limit) goes through.
class Gate {
 public:
  void open() {
    std::lock_guard lock(mutex_);
    open_ = true;
    cv_.notify_all();
  }
  bool waitOpen(std::chrono::milliseconds limit = std::chrono::seconds{20}) {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, limit, [this] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  bool open_ = false;
};

// Releases its callers only when `count` of them are waiting at the same time.
class Barrier {
 public:
  explicit Barrier(int count) : count_(count) {}
  bool arriveAndWait(std::chrono::milliseconds limit = std::chrono::seconds{20}) {
    std::unique_lock lock(mutex_);
    if (++arrived_ >= count_) cv_.notify_all();
    return cv_.wait_for(lock, limit, [this] { return arrived_ >= count_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  const int count_;
  int arrived_ = 0;
};

// Records labelled events from any thread.
class Log {
 public:
  void add(std::string event) {
    std::lock_guard lock(mutex_);
    events_.push_back(std::move(event));
  }
  std::vector<std::string> events() {
    std::lock_guard lock(mutex_);
    return events_;
  }
  int count(const std::string& event) {
    std::lock_guard lock(mutex_);
    return static_cast<int>(std::count(events_.begin(), events_.end(), event));
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> events_;
};

// Raises `most` to `now` when it is lower: the high-water mark of a count shared by threads.
inline void raiseTo(std::atomic<int>& most, int now) {
  int seen = most.load();
  while (now > seen && !most.compare_exchange_weak(seen, now)) {
  }
}

inline std::string currentThreadName() {
  char name[32] = {};
  pthread_getname_np(pthread_self(), name, sizeof name);
  return name;
}

}  // namespace sonorell::testing
