// Observer lists whose callbacks run on a queue each observer names. An observer lives as long as
// the token returned for it: dropping or invalidating the token stops delivery, even of
// notifications already queued. The list is guarded by its own mutex; safe from any thread.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/dispatch/dispatch_queue.h"

namespace sonorell {

class Observation {
 public:
  virtual ~Observation() = default;
  // Stops delivery at once; callbacks already running finish.
  virtual void invalidate() = 0;
};

using ObservationToken = std::shared_ptr<Observation>;

template <class... Args>
class ObserverList {
 public:
  using Callback = std::function<void(Args...)>;

  // A null queue delivers on the main queue.
  ObservationToken add(DispatchQueuePtr queue, Callback callback) {
    auto entry = std::make_shared<Entry>();
    entry->queue = queue ? std::move(queue) : DispatchQueue::main();
    entry->callback = std::move(callback);
    std::lock_guard lock(mutex_);
    std::erase_if(entries_, [](const std::weak_ptr<Entry>& e) { return e.expired(); });
    entries_.push_back(entry);
    return entry;
  }

  // Queues the callback of every live observer with a copy of the arguments.
  void notify(const Args&... args) {
    std::vector<std::shared_ptr<Entry>> live;
    {
      std::lock_guard lock(mutex_);
      for (const auto& weak : entries_) {
        if (auto entry = weak.lock(); entry && entry->active) live.push_back(std::move(entry));
      }
    }
    for (const auto& entry : live) {
      std::weak_ptr<Entry> weak = entry;
      entry->queue->async([weak, args...] {
        if (auto e = weak.lock(); e && e->active) e->callback(args...);
      });
    }
  }

  bool empty() const {
    std::lock_guard lock(mutex_);
    for (const auto& weak : entries_) {
      if (auto entry = weak.lock(); entry && entry->active) return false;
    }
    return true;
  }

 private:
  struct Entry : Observation {
    void invalidate() override { active = false; }
    DispatchQueuePtr queue;
    Callback callback;
    std::atomic<bool> active{true};
  };

  mutable std::mutex mutex_;
  std::vector<std::weak_ptr<Entry>> entries_;
};

}  // namespace sonorell
