// The one source of "now" and of delayed work for the whole engine. Production uses the real
// clock; tests install a VirtualClock and move time by hand. Both are safe from any thread
// (each guards its timer heap with its own mutex).
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

namespace sonorell {

using MonoTime = std::chrono::steady_clock::time_point;
using WallTime = std::chrono::system_clock::time_point;
using Duration = std::chrono::nanoseconds;

class Clock {
 public:
  using TimerId = uint64_t;
  virtual ~Clock() = default;

  // Monotonic time for delays and timers.
  virtual MonoTime now() const = 0;
  // Calendar time for dates the engine records or compares (expiry, timestamps).
  virtual WallTime wallNow() const = 0;

  // Calls `fire` once, at or after `deadline`: on the real clock's timer thread, or from inside
  // VirtualClock::advance. `fire` must be quick (it normally hands work to a DispatchQueue).
  virtual TimerId schedule(MonoTime deadline, std::function<void()> fire) = 0;
  // Like schedule(), but among timers with the same deadline this one keeps the place of
  // `firstId` (an id this clock returned earlier): a repeating timer stays ahead of timers that
  // were scheduled after it was first armed. The default ignores the order.
  virtual TimerId scheduleRepeat(TimerId firstId, MonoTime deadline, std::function<void()> fire);
  // Cancelling an id that already fired or never existed does nothing.
  virtual void cancel(TimerId id) = 0;

  // The process-wide clock (a RealClock until a test installs another).
  static std::shared_ptr<Clock> current();
  static void setCurrent(std::shared_ptr<Clock> clock);
};

// Wall and monotonic time from the system; timers fire on one background thread.
std::shared_ptr<Clock> makeRealClock();

// Time stands still until advance() moves it. Timers due within an advance fire in deadline
// order (ties in scheduling order); after each one the dispatch system is run until idle, so
// the work a timer hands to a queue has finished before the next timer fires.
class VirtualClock : public Clock {
 public:
  explicit VirtualClock(WallTime wallStart = WallTime{std::chrono::seconds{1'700'000'000}});
  ~VirtualClock() override;

  MonoTime now() const override;
  WallTime wallNow() const override;
  TimerId schedule(MonoTime deadline, std::function<void()> fire) override;
  TimerId scheduleRepeat(TimerId firstId, MonoTime deadline, std::function<void()> fire) override;
  void cancel(TimerId id) override;

  // Moves time forward by `by`, firing what falls due on the calling thread. One advance at a
  // time; a timer's own callback must not advance the clock.
  void advance(Duration by);
  // Waits (in real time, at most `limit`) until no dispatch queue has queued or running work.
  // Returns false on time-out. Never call it while a test expects a repeating timer to run:
  // time does not move here.
  bool runUntilIdle(std::chrono::milliseconds limit = std::chrono::seconds{30});
  size_t pendingTimerCount() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// Installs a VirtualClock for the lifetime of the object and restores the previous clock after.
class ScopedVirtualClock {
 public:
  ScopedVirtualClock();
  ~ScopedVirtualClock();
  VirtualClock& operator*() { return *clock_; }
  VirtualClock* operator->() { return clock_.get(); }
  std::shared_ptr<VirtualClock> get() { return clock_; }

 private:
  std::shared_ptr<Clock> previous_;
  std::shared_ptr<VirtualClock> clock_;
};

}  // namespace sonorell
