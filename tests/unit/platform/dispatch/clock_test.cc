// The process clock: the virtual clock's ordering and run-until-idle contract, after() on it, the
// scoped installer, and the real clock's timer thread (short real deadlines, waited for on a
// semaphore).
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/dispatch/clock.h"
#include "platform/dispatch/dispatch_group.h"
#include "platform/dispatch/dispatch_queue.h"

namespace sonorell {
namespace {

using namespace std::chrono_literals;

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

 private:
  std::mutex mutex_;
  std::vector<std::string> events_;
};

TEST(VirtualClock, AfterFiresOnlyOnceItsWholeDelayHasPassed) {
  ScopedVirtualClock clock;
  auto queue = DispatchQueue::create("io.sonorell.test");
  std::atomic<int> fired{0};
  DispatchQueue* ranOn = nullptr;
  queue->after(1s, [&] {
    ranOn = DispatchQueue::current();
    ++fired;
  });
  clock->advance(999ms);
  EXPECT_EQ(fired.load(), 0);
  EXPECT_EQ(clock->pendingTimerCount(), 1u);
  clock->advance(1ms);  // returns only after the queued block has run
  EXPECT_EQ(fired.load(), 1);
  EXPECT_EQ(ranOn, queue.get());
  clock->advance(1h);
  EXPECT_EQ(fired.load(), 1);
}

TEST(VirtualClock, FiresInDeadlineOrderWithTiesInSchedulingOrderAtEachDeadline) {
  ScopedVirtualClock clock;
  const MonoTime start = clock->now();
  Log log;
  std::vector<Duration> firedAt;
  auto record = [&](std::string name) {
    return [&, name] {
      log.add(name);
      firedAt.push_back(clock->now() - start);
    };
  };
  clock->schedule(start + 3s, record("c"));
  clock->schedule(start + 1s, record("a"));
  clock->schedule(start + 2s, record("b1"));
  clock->schedule(start + 2s, record("b2"));
  clock->advance(5s);
  EXPECT_EQ(log.events(), (std::vector<std::string>{"a", "b1", "b2", "c"}));
  EXPECT_EQ(firedAt, (std::vector<Duration>{1s, 2s, 2s, 3s}));
  EXPECT_EQ(clock->now() - start, 5s);
}

TEST(VirtualClock, TimersScheduledDuringAnAdvanceFireIfTheyFallInsideIt) {
  ScopedVirtualClock clock;
  const MonoTime start = clock->now();
  Log log;
  clock->schedule(start + 1s, [&] {
    log.add("first");
    clock->schedule(clock->now() + 1s, [&] { log.add("second"); });
    clock->schedule(clock->now() + 10s, [&] { log.add("too late"); });
  });
  clock->advance(5s);
  EXPECT_EQ(log.events(), (std::vector<std::string>{"first", "second"}));
  EXPECT_EQ(clock->pendingTimerCount(), 1u);
  clock->advance(6s);
  EXPECT_EQ(log.events(), (std::vector<std::string>{"first", "second", "too late"}));
}

TEST(VirtualClock, WorkATimerQueuesFinishesBeforeTheNextTimerFires) {
  ScopedVirtualClock clock;
  auto a = DispatchQueue::create("io.sonorell.a");
  auto b = DispatchQueue::create("io.sonorell.b");
  Log log;
  const MonoTime start = clock->now();
  clock->schedule(start + 1s, [&] {
    log.add("timer 1");
    a->async([&] {
      log.add("work on a");
      b->async([&] { log.add("work on b"); });
    });
  });
  clock->schedule(start + 1s, [&] { log.add("timer 2"); });
  clock->advance(1s);
  EXPECT_EQ(log.events(),
            (std::vector<std::string>{"timer 1", "work on a", "work on b", "timer 2"}));
}

TEST(VirtualClock, CancelledTimersDoNotFireAndUnknownIdsAreIgnored) {
  ScopedVirtualClock clock;
  std::atomic<int> fired{0};
  auto id = clock->schedule(clock->now() + 1s, [&] { ++fired; });
  clock->schedule(clock->now() + 2s, [&] { fired += 10; });
  clock->cancel(id);
  clock->cancel(id);
  clock->cancel(987654);
  EXPECT_EQ(clock->pendingTimerCount(), 1u);
  clock->advance(5s);
  EXPECT_EQ(fired.load(), 10);
  clock->cancel(id + 1);  // already fired
  EXPECT_EQ(clock->pendingTimerCount(), 0u);
}

TEST(VirtualClock, WallTimeMovesWithMonotonicTime) {
  const WallTime wallStart{std::chrono::seconds{1'600'000'000}};
  auto clock = std::make_shared<VirtualClock>(wallStart);
  EXPECT_EQ(clock->wallNow(), wallStart);
  const MonoTime monoStart = clock->now();
  clock->advance(90s);
  EXPECT_EQ(clock->wallNow(), wallStart + 90s);
  EXPECT_EQ(clock->now(), monoStart + 90s);
}

TEST(VirtualClock, RunUntilIdleReportsATimeOutWhileWorkIsStuck) {
  ScopedVirtualClock clock;
  auto queue = DispatchQueue::create("io.sonorell.test");
  Semaphore release;
  queue->async([&] { release.wait(); });
  EXPECT_FALSE(clock->runUntilIdle(30ms));
  release.signal();
  EXPECT_TRUE(clock->runUntilIdle());
}

TEST(ScopedVirtualClock, InstallsItselfAndRestoresThePreviousClock) {
  std::shared_ptr<Clock> before = Clock::current();
  {
    ScopedVirtualClock clock;
    EXPECT_EQ(Clock::current(), clock.get());
    {
      ScopedVirtualClock nested;
      EXPECT_EQ(Clock::current(), nested.get());
    }
    EXPECT_EQ(Clock::current(), clock.get());
  }
  EXPECT_EQ(Clock::current(), before);
}

TEST(RealClock, IsTheDefaultAndFollowsTheSystemClocks) {
  auto clock = Clock::current();
  ASSERT_EQ(std::dynamic_pointer_cast<VirtualClock>(clock), nullptr);
  auto steadyBefore = std::chrono::steady_clock::now();
  auto now = clock->now();
  EXPECT_GE(now, steadyBefore);
  EXPECT_LT(now - steadyBefore, 5s);
  auto wall = clock->wallNow();
  EXPECT_LT(std::chrono::abs(wall - std::chrono::system_clock::now()), 5s);
}

TEST(RealClock, FiresAtOrAfterTheDeadlineInDeadlineOrderAndSkipsCancelled) {
  auto clock = makeRealClock();
  const MonoTime start = clock->now();
  Log log;
  Semaphore lastFired;
  std::vector<bool> onTime;  // written on the timer thread only, read after `lastFired`
  auto record = [&](std::string name, MonoTime deadline) {
    return [&, name, deadline] {
      onTime.push_back(clock->now() >= deadline);
      log.add(name);
    };
  };
  clock->schedule(start + 30ms, record("third", start + 30ms));
  clock->schedule(start + 10ms, record("first", start + 10ms));
  auto cancelled = clock->schedule(start + 15ms, record("cancelled", start + 15ms));
  clock->schedule(start + 20ms, record("second", start + 20ms));
  clock->schedule(start + 40ms, [&] { lastFired.signal(); });
  clock->cancel(cancelled);
  ASSERT_TRUE(lastFired.wait(10s));
  EXPECT_EQ(log.events(), (std::vector<std::string>{"first", "second", "third"}));
  EXPECT_EQ(onTime, (std::vector<bool>{true, true, true}));
}

TEST(RealClock, AfterQueuesTheBlockOnceTheDelayHasPassed) {
  auto queue = DispatchQueue::create("io.sonorell.test");
  Semaphore fired;
  const MonoTime start = Clock::current()->now();
  MonoTime firedAt{};
  queue->after(5ms, [&] {
    firedAt = Clock::current()->now();
    fired.signal();
  });
  ASSERT_TRUE(fired.wait(10s));
  EXPECT_GE(firedAt - start, 5ms);
}

TEST(RealClock, CanBeReleasedFromInsideItsOwnCallback) {
  auto clock = makeRealClock();
  Semaphore fired;
  std::shared_ptr<Clock>* holder = new std::shared_ptr<Clock>(clock);
  clock->schedule(clock->now() + 20ms, [holder, &fired] {
    delete holder;  // the last reference goes on the clock's own thread
    fired.signal();
  });
  clock.reset();
  ASSERT_TRUE(fired.wait(10s));
}

}  // namespace
}  // namespace sonorell
