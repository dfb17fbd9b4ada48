// Observes notifications on the default centre and lets a test wait for them. Guarded by its
// own mutex: notifications arrive on the engine's notifications queue.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "sonorell/notification_center.h"

namespace sonorell::testing {

class NotificationRecorder {
 public:
  // An empty name records every notification.
  explicit NotificationRecorder(std::string name = "") {
    token_ = NotificationCenter::defaultCenter().addObserver(std::move(name),
                                                             [this](const Notification& n) {
                                                               std::lock_guard lock(mutex_);
                                                               received_.push_back(n);
                                                               cv_.notify_all();
                                                             });
  }
  ~NotificationRecorder() { NotificationCenter::defaultCenter().removeObserver(token_); }

  // Waits (at most `limit`, real time) until `count` notifications arrived.
  bool waitFor(size_t count, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, limit, [&] { return received_.size() >= count; });
  }
  std::vector<Notification> received() const {
    std::lock_guard lock(mutex_);
    return received_;
  }

 private:
  NotificationCenter::Token token_;
  mutable std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<Notification> received_;
};

}  // namespace sonorell::testing
