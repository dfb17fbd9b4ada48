#include "platform/dispatch/clock.h"

#include <algorithm>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <tuple>
#include <utility>

#include "platform/dispatch/thread_pool.h"

namespace sonorell {

namespace {

struct CurrentClock {
  std::mutex mutex;
  std::shared_ptr<Clock> clock;  // guarded by mutex; created on first use
};

CurrentClock& currentClock() {
  // Leaked: detached workers may ask for the clock while statics are being destroyed.
  static auto* current = new CurrentClock();
  return *current;
}

// Timers ordered by deadline, then by their place (scheduling order), then by id. Both clocks
// keep them here; the owner guards it with its own mutex.
class TimerSet {
 public:
  Clock::TimerId add(MonoTime deadline, std::function<void()> fire, Clock::TimerId order = 0) {
    Clock::TimerId id = ++lastId_;
    Key key{deadline, order == 0 ? id : order, id};
    order_.insert(key);
    timers_.emplace(id, Timer{key, std::move(fire)});
    return id;
  }
  void cancel(Clock::TimerId id) {
    auto it = timers_.find(id);
    if (it == timers_.end()) return;
    order_.erase(it->second.key);
    timers_.erase(it);
  }
  bool empty() const { return timers_.empty(); }
  size_t size() const { return timers_.size(); }
  MonoTime earliest() const { return std::get<0>(*order_.begin()); }
  // Removes the earliest timer and hands back its callback.
  std::function<void()> takeEarliest() {
    Key key = *order_.begin();
    order_.erase(order_.begin());
    auto it = timers_.find(std::get<2>(key));
    std::function<void()> fire = std::move(it->second.fire);
    timers_.erase(it);
    return fire;
  }

 private:
  using Key = std::tuple<MonoTime, Clock::TimerId, Clock::TimerId>;
  struct Timer {
    Key key;
    std::function<void()> fire;
  };
  Clock::TimerId lastId_ = 0;
  std::set<Key> order_;
  std::map<Clock::TimerId, Timer> timers_;
};

// One background thread sleeps until the earliest deadline. Its state is shared with that
// thread so the clock may be released from inside one of its own callbacks.
class RealClock final : public Clock {
 public:
  RealClock() : shared_(std::make_shared<Shared>()) {}
  ~RealClock() override {
    {
      std::lock_guard lock(shared_->mutex);
      shared_->stopping = true;
    }
    shared_->changed.notify_all();
    if (!thread_.joinable()) return;
    if (thread_.get_id() == std::this_thread::get_id()) {
      thread_.detach();
    } else {
      thread_.join();
    }
  }

  MonoTime now() const override { return std::chrono::steady_clock::now(); }
  WallTime wallNow() const override { return std::chrono::system_clock::now(); }

  TimerId schedule(MonoTime deadline, std::function<void()> fire) override {
    std::lock_guard lock(shared_->mutex);
    if (!thread_.joinable()) {
      thread_ = std::thread([shared = shared_] { run(*shared); });
    }
    TimerId id = shared_->timers.add(deadline, std::move(fire));
    shared_->changed.notify_one();
    return id;
  }

  void cancel(TimerId id) override {
    std::lock_guard lock(shared_->mutex);
    shared_->timers.cancel(id);
  }

 private:
  struct Shared {
    std::mutex mutex;
    std::condition_variable changed;
    TimerSet timers;  // guarded by mutex
    bool stopping = false;
  };

  static void run(Shared& shared) {
    dispatch_internal::setCurrentThreadName("sonorell-timer");
    std::unique_lock lock(shared.mutex);
    while (!shared.stopping) {
      if (shared.timers.empty()) {
        shared.changed.wait(lock);
        continue;
      }
      MonoTime deadline = shared.timers.earliest();
      if (std::chrono::steady_clock::now() < deadline) {
        shared.changed.wait_until(lock, deadline);
        continue;
      }
      std::function<void()> fire = shared.timers.takeEarliest();
      lock.unlock();
      fire();
      fire = nullptr;
      lock.lock();
    }
  }

  std::shared_ptr<Shared> shared_;
  std::thread thread_;  // started with the first timer; guarded by shared_->mutex
};

}  // namespace

Clock::TimerId Clock::scheduleRepeat(TimerId, MonoTime deadline, std::function<void()> fire) {
  return schedule(deadline, std::move(fire));
}

std::shared_ptr<Clock> Clock::current() {
  CurrentClock& current = currentClock();
  std::lock_guard lock(current.mutex);
  if (!current.clock) current.clock = makeRealClock();
  return current.clock;
}

void Clock::setCurrent(std::shared_ptr<Clock> clock) {
  CurrentClock& current = currentClock();
  std::shared_ptr<Clock> old;
  {
    std::lock_guard lock(current.mutex);
    old = std::exchange(current.clock, std::move(clock));
  }
  // `old` is released here, outside the lock: a RealClock joins its thread on destruction.
}

std::shared_ptr<Clock> makeRealClock() { return std::make_shared<RealClock>(); }

struct VirtualClock::State {
  mutable std::mutex mutex;
  MonoTime now{std::chrono::hours{24}};  // guarded by mutex
  const MonoTime monoStart{std::chrono::hours{24}};
  WallTime wallStart;
  TimerSet timers;       // guarded by mutex
  std::mutex advancing;  // one advance at a time
};

VirtualClock::VirtualClock(WallTime wallStart) : state_(std::make_unique<State>()) {
  state_->wallStart = wallStart;
}

VirtualClock::~VirtualClock() = default;

MonoTime VirtualClock::now() const {
  std::lock_guard lock(state_->mutex);
  return state_->now;
}

WallTime VirtualClock::wallNow() const {
  std::lock_guard lock(state_->mutex);
  return state_->wallStart +
         std::chrono::duration_cast<WallTime::duration>(state_->now - state_->monoStart);
}

Clock::TimerId VirtualClock::schedule(MonoTime deadline, std::function<void()> fire) {
  std::lock_guard lock(state_->mutex);
  return state_->timers.add(deadline, std::move(fire));
}

Clock::TimerId VirtualClock::scheduleRepeat(TimerId firstId, MonoTime deadline,
                                            std::function<void()> fire) {
  std::lock_guard lock(state_->mutex);
  return state_->timers.add(deadline, std::move(fire), firstId);
}

void VirtualClock::cancel(TimerId id) {
  std::lock_guard lock(state_->mutex);
  state_->timers.cancel(id);
}

void VirtualClock::advance(Duration by) {
  std::lock_guard advancing(state_->advancing);
  std::unique_lock lock(state_->mutex);
  const MonoTime target = state_->now + by;
  // Timers scheduled by a callback (a repeating timer re-arming) are seen on the next pass.
  while (!state_->timers.empty() && state_->timers.earliest() <= target) {
    state_->now = std::max(state_->now, state_->timers.earliest());
    std::function<void()> fire = state_->timers.takeEarliest();
    lock.unlock();
    fire();
    fire = nullptr;
    runUntilIdle();
    lock.lock();
  }
  state_->now = std::max(state_->now, target);
}

bool VirtualClock::runUntilIdle(std::chrono::milliseconds limit) {
  return dispatch_internal::waitUntilNoWork(limit);
}

size_t VirtualClock::pendingTimerCount() const {
  std::lock_guard lock(state_->mutex);
  return state_->timers.size();
}

ScopedVirtualClock::ScopedVirtualClock()
    : previous_(Clock::current()), clock_(std::make_shared<VirtualClock>()) {
  Clock::setCurrent(clock_);
}

ScopedVirtualClock::~ScopedVirtualClock() { Clock::setCurrent(previous_); }

}  // namespace sonorell
