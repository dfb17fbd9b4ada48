#include "platform/dispatch/dispatch_group.h"

#include <algorithm>
#include <utility>

namespace sonorell {

// --- DispatchGroup --------------------------------------------------------------------------

std::shared_ptr<DispatchGroup> DispatchGroup::create() {
  return std::shared_ptr<DispatchGroup>(new DispatchGroup());
}

void DispatchGroup::enter() {
  std::lock_guard lock(mutex_);
  ++count_;
}

void DispatchGroup::leave() {
  std::vector<std::pair<DispatchQueuePtr, DispatchQueue::Block>> ready;
  {
    std::lock_guard lock(mutex_);
    if (count_ == 0) return;  // an unbalanced leave must not wake anyone early later on
    if (--count_ != 0) return;
    ready.swap(notifications_);
    emptied_.notify_all();
  }
  for (auto& [queue, block] : ready) queue->async(std::move(block));
}

bool DispatchGroup::wait(std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  return emptied_.wait_for(lock, timeout, [this] { return count_ == 0; });
}

void DispatchGroup::wait() {
  std::unique_lock lock(mutex_);
  emptied_.wait(lock, [this] { return count_ == 0; });
}

void DispatchGroup::notify(const DispatchQueuePtr& queue, DispatchQueue::Block block) {
  {
    std::lock_guard lock(mutex_);
    if (count_ != 0) {
      notifications_.emplace_back(queue, std::move(block));
      return;
    }
  }
  queue->async(std::move(block));
}

// --- Semaphore ------------------------------------------------------------------------------

void Semaphore::signal() {
  std::lock_guard lock(mutex_);
  ++value_;
  cv_.notify_one();
}

void Semaphore::wait() {
  std::unique_lock lock(mutex_);
  cv_.wait(lock, [this] { return value_ > 0; });
  --value_;
}

bool Semaphore::wait(std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  if (!cv_.wait_for(lock, timeout, [this] { return value_ > 0; })) return false;
  --value_;
  return true;
}

// --- DispatchTimer --------------------------------------------------------------------------

std::shared_ptr<DispatchTimer> DispatchTimer::create(DispatchQueuePtr queue, Duration interval,
                                                     Duration leeway, DispatchQueue::Block handler,
                                                     bool repeating) {
  std::shared_ptr<DispatchTimer> timer(new DispatchTimer());
  timer->queue_ = std::move(queue);
  // A zero interval would make a repeating timer spin at one instant of virtual time.
  timer->interval_ = std::max(interval, Duration{1});
  timer->leeway_ = leeway;  // accepted for API parity; deadlines are kept exactly
  timer->handler_ = std::move(handler);
  timer->repeating_ = repeating;
  return timer;
}

DispatchTimer::~DispatchTimer() {
  // The clock callback holds only a weak reference, so this just frees the clock's entry.
  if (auto clock = clock_.lock(); clock && timerId_ != 0) clock->cancel(timerId_);
}

void DispatchTimer::resume() {
  std::lock_guard lock(mutex_);
  if (cancelled_ || running_) return;
  running_ = true;
  std::shared_ptr<Clock> clock = Clock::current();
  clock_ = clock;
  firstTimerId_ = 0;
  arm(clock->now() + interval_);
}

void DispatchTimer::cancel() {
  std::shared_ptr<Clock> clock;
  uint64_t id = 0;
  {
    std::lock_guard lock(mutex_);
    if (cancelled_) return;
    cancelled_ = true;
    running_ = false;
    ++generation_;
    clock = clock_.lock();
    id = std::exchange(timerId_, 0);
  }
  if (clock && id != 0) clock->cancel(id);
}

bool DispatchTimer::isCancelled() const {
  std::lock_guard lock(mutex_);
  return cancelled_;
}

// Called with mutex_ held. The clock never calls back from inside schedule(), so holding our
// lock across it cannot deadlock.
void DispatchTimer::arm(MonoTime deadline) {
  std::shared_ptr<Clock> clock = clock_.lock();
  if (!clock) {
    running_ = false;  // the clock this timer ran on has been replaced and released
    return;
  }
  nextDeadline_ = deadline;
  auto fire = [weak = weak_from_this(), generation = generation_] {
    if (auto self = weak.lock()) self->fire(generation);
  };
  if (firstTimerId_ == 0) {
    timerId_ = clock->schedule(deadline, std::move(fire));
    firstTimerId_ = timerId_;
  } else {
    timerId_ = clock->scheduleRepeat(firstTimerId_, deadline, std::move(fire));
  }
}

void DispatchTimer::fire(uint64_t generation) {
  std::lock_guard lock(mutex_);
  if (cancelled_ || generation != generation_) return;
  timerId_ = 0;
  queue_->async([weak = weak_from_this(), generation] {
    auto self = weak.lock();
    if (!self) return;
    {
      std::lock_guard lock(self->mutex_);
      if (self->cancelled_ || generation != self->generation_) return;
    }
    self->handler_();  // set once in create(), so read without the lock
  });
  if (repeating_) {
    // From the planned deadline, not from now, so a late tick does not shift later ones.
    arm(nextDeadline_ + interval_);
  } else {
    running_ = false;
  }
}

}  // namespace sonorell
