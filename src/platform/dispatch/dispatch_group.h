// Dispatch groups, semaphores and timers: the synchronisation helpers the engine uses beside its
// queues. All are safe from any thread (each guards its state with its own mutex).
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/dispatch/dispatch_queue.h"

namespace sonorell {

class DispatchGroup : public std::enable_shared_from_this<DispatchGroup> {
 public:
  static std::shared_ptr<DispatchGroup> create();

  void enter();
  void leave();
  // Waits (real time) until every enter has been matched by a leave. True if it emptied.
  bool wait(std::chrono::milliseconds timeout);
  void wait();
  // Queues the block on `queue` once the group is empty (at once if it is empty now).
  void notify(const DispatchQueuePtr& queue, DispatchQueue::Block block);

 private:
  DispatchGroup() = default;
  std::mutex mutex_;
  std::condition_variable emptied_;
  long count_ = 0;
  std::vector<std::pair<DispatchQueuePtr, DispatchQueue::Block>> notifications_;
};

class Semaphore {
 public:
  explicit Semaphore(long initial = 0) : value_(initial) {}
  void signal();
  void wait();
  // Real-time wait; false when the time ran out.
  bool wait(std::chrono::milliseconds timeout);

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  long value_;
};

// A repeating (or one-shot) timer that queues its handler on a queue, driven by Clock::current().
// It starts suspended; resume() arms it, the first tick coming one interval later. The handler
// never runs after cancel() has returned on the timer's queue, nor after the timer is destroyed.
// Ticks keep exact deadlines (leeway is accepted but not used for coalescing).
class DispatchTimer : public std::enable_shared_from_this<DispatchTimer> {
 public:
  static std::shared_ptr<DispatchTimer> create(DispatchQueuePtr queue, Duration interval,
                                               Duration leeway, DispatchQueue::Block handler,
                                               bool repeating = true);
  ~DispatchTimer();
  void resume();
  void cancel();
  bool isCancelled() const;

 private:
  DispatchTimer() = default;
  void arm(MonoTime deadline);
  void fire(uint64_t generation);

  mutable std::mutex mutex_;
  DispatchQueuePtr queue_;
  Duration interval_{};
  Duration leeway_{};
  DispatchQueue::Block handler_;
  bool repeating_ = true;
  bool running_ = false;
  bool cancelled_ = false;
  uint64_t generation_ = 0;
  std::weak_ptr<Clock> clock_;  // the clock it was armed on; cancel goes to that one
  uint64_t timerId_ = 0;
  uint64_t firstTimerId_ = 0;  // keeps the timer's place among equal deadlines when re-armed
  MonoTime nextDeadline_{};
};

}  // namespace sonorell
