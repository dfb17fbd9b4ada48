// Observer lists whose callbacks run on a serial queue each observer must name. An observer lives
// as long as the token returned for it. The list is guarded by its own mutex and is safe from any
// thread; each observer's callback runs only on its delivery queue.
//
// The guarantee: invalidating a token, or dropping its last reference, ON ITS DELIVERY QUEUE
// means no callback of that observer runs afterwards, not even one already queued. The queue is
// serial, so no delivery of it is half-way through a callback at that moment, and every queued
// delivery re-checks the token on that queue before calling. An owner that removes its observers
// on their queue may therefore be destroyed right after. From any other thread, invalidation
// stops every delivery not yet started, but a callback already running may still finish.
// Either way the token lets go of the callback (and what it captured) at once, or, when a
// delivery is running it on another thread, as soon as that call returns.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

#include "platform/dispatch/dispatch_queue.h"

namespace sonorell {

class Observation {
 public:
  virtual ~Observation() = default;
  // Stops delivery (see the guarantee above). Dropping the last reference does the same.
  virtual void invalidate() = 0;
};

using ObservationToken = std::shared_ptr<Observation>;

// Reports a programming error (an observer without a delivery queue) and returns the token the
// caller hands back: not null, so callers that invalidate their tokens need no special case, but
// it never delivers. Silently picking a queue would run the callback on a thread its owner does
// not expect, so the observer is refused instead.
ObservationToken refuseObserverWithoutQueue(std::string_view what);

template <class... Args>
class ObserverList {
 public:
  using Callback = std::function<void(Args...)>;

  // `queue` is required: a null one is refused (logged; the token never delivers). `what` names
  // the public operation in that log line.
  ObservationToken add(DispatchQueuePtr queue, Callback callback,
                       std::string_view what = "ObserverList::add") {
    if (!queue) return refuseObserverWithoutQueue(what);
    auto entry = std::make_shared<Entry>(std::move(queue), std::move(callback));
    {
      std::lock_guard lock(mutex_);
      std::erase_if(entries_, [](const std::weak_ptr<Entry>& weak) {
        auto e = weak.lock();
        return !e || !e->active;
      });
      entries_.push_back(entry);
    }
    return std::make_shared<Token>(std::move(entry));
  }

  // Queues the callback of every live observer on its queue with a copy of the arguments.
  // Observers that are gone or invalidated leave the list here, so that an invalidated token its
  // owner still keeps costs later notifications nothing.
  void notify(const Args&... args) {
    std::vector<std::shared_ptr<Entry>> live;
    {
      std::lock_guard lock(mutex_);
      std::erase_if(entries_, [&live](const std::weak_ptr<Entry>& weak) {
        auto e = weak.lock();
        if (!e || !e->active) return true;
        live.push_back(std::move(e));
        return false;
      });
    }
    for (const auto& entry : live) {
      entry->queue->async([weak = std::weak_ptr<Entry>(entry), args...] {
        // Read on the delivery queue, after anything queued there before this block (an
        // invalidation in particular) has run.
        auto e = weak.lock();
        if (!e || !e->active) return;
        if (auto callback = e->currentCallback()) (*callback)(args...);
      });
    }
  }

  bool empty() const {
    std::lock_guard lock(mutex_);
    for (const auto& weak : entries_) {
      if (auto e = weak.lock(); e && e->active) return false;
    }
    return true;
  }

 private:
  // Held strongly by the token only; the list and queued deliveries hold it weakly. A notify()
  // on another thread may hold it strongly for a moment, which is why the token switches it off
  // itself rather than relying on it going away.
  struct Entry {
    Entry(DispatchQueuePtr q, Callback c)
        : queue(std::move(q)), callback(std::make_shared<const Callback>(std::move(c))) {}
    std::shared_ptr<const Callback> currentCallback() const {
      std::lock_guard lock(callbackMutex);
      return callback;
    }
    void dropCallback() {
      std::shared_ptr<const Callback> dropped;
      std::lock_guard lock(callbackMutex);
      dropped.swap(callback);  // released after the lock, in case it captured this list
    }

    const DispatchQueuePtr queue;
    std::atomic<bool> active{true};
    // Null once the token is invalidated or gone. A delivery takes its own reference for the
    // call, so a token dropped meanwhile on another thread cannot destroy a running callback.
    // A mutex rather than std::atomic<std::shared_ptr>: libstdc++ 12 releases that type's
    // internal lock with a relaxed store, which ThreadSanitizer rightly reports.
    mutable std::mutex callbackMutex;
    std::shared_ptr<const Callback> callback;  // guarded by callbackMutex
  };

  class Token final : public Observation {
   public:
    explicit Token(std::shared_ptr<Entry> entry) : entry_(std::move(entry)) {}
    ~Token() override { invalidate(); }
    // Also lets go of the callback, and so of what it captured, on this thread at once (after
    // the call in progress, if a delivery is running it now).
    void invalidate() override {
      entry_->active = false;
      entry_->dropCallback();
    }

   private:
    const std::shared_ptr<Entry> entry_;
  };

  mutable std::mutex mutex_;
  std::vector<std::weak_ptr<Entry>> entries_;  // guarded by mutex_
};

}  // namespace sonorell
