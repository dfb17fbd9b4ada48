// The process clock: the virtual clock's ordering and run-until-idle contract, after() on it, the
// scoped installer, and the real clock's timer thread (short real deadlines, waited for on a
// semaphore).
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/dispatch/clock.h"
#include "platform/dispatch/dispatch_group.h"
#include "platform/dispatch/dispatch_queue.h"
#include "unit/platform/dispatch/dispatch_test_util.h"

namespace sonorell {
namespace {

using namespace std::chrono_literals;
using testing::Log;
using Events = std::vector<std::string>;

TEST(VirtualClock, FiresDueTimersInDeadlineOrderAsMonotonicAndWallTimeMove) {
  const WallTime wallStart{std::chrono::seconds{1'600'000'000}};
  VirtualClock clock(wallStart);
  EXPECT_EQ(clock.wallNow(), wallStart);
  const MonoTime start = clock.now();
  Log log;
  std::vector<Duration> firedAt;
  auto record = [&](std::string name) {
    return [&, name] {
      log.add(name);
      firedAt.push_back(clock.now() - start);
    };
  };
  clock.schedule(start + 3s, record("c"));
  const auto a = clock.schedule(start + 1s, record("a"));
  clock.schedule(start + 2s, record("b1"));
  clock.schedule(start + 2s, record("b2"));
  // Timers set while an advance runs fire in it when they fall inside it.
  clock.schedule(start + 1s, [&] {
    clock.schedule(clock.now() + 500ms, record("set by a timer"));
    clock.schedule(clock.now() + 10s, record("too late"));
  });
  const auto cancelled = clock.schedule(start + 1s, record("cancelled"));
  clock.cancel(cancelled);
  clock.cancel(cancelled);
  clock.cancel(987654);
  EXPECT_EQ(clock.pendingTimerCount(), 5u);

  clock.advance(5s);
  EXPECT_EQ(log.events(), (Events{"a", "set by a timer", "b1", "b2", "c"}));
  EXPECT_EQ(firedAt, (std::vector<Duration>{1s, 1500ms, 2s, 2s, 3s}));
  EXPECT_EQ(clock.now() - start, 5s);
  EXPECT_EQ(clock.wallNow(), wallStart + 5s);
  EXPECT_EQ(clock.pendingTimerCount(), 1u);
  clock.cancel(a);  // already fired: must not hit another timer
  clock.advance(6s);
  EXPECT_EQ(log.events().back(), "too late");
  EXPECT_EQ(clock.pendingTimerCount(), 0u);
}

TEST(VirtualClock, AnAdvanceRunsTheWorkADueBlockQueuesBeforeTheNextTimerFires) {
  ScopedVirtualClock clock;
  auto a = DispatchQueue::create("io.sonorell.a");
  auto b = DispatchQueue::create("io.sonorell.b");
  Log log;
  DispatchQueue* ranOn = nullptr;
  a->after(1s, [&] {
    ranOn = DispatchQueue::current();
    log.add("after on a");
    b->async([&] {
      log.add("work on b");
      a->async([&] { log.add("work on a"); });
    });
  });
  clock->schedule(clock->now() + 1s, [&] { log.add("timer"); });
  clock->advance(999ms);
  EXPECT_TRUE(log.events().empty());
  EXPECT_EQ(clock->pendingTimerCount(), 2u);
  clock->advance(1ms);  // returns only after the queued work has run
  EXPECT_EQ(log.events(), (Events{"after on a", "work on b", "work on a", "timer"}));
  EXPECT_EQ(ranOn, a.get());
  clock->advance(1h);
  EXPECT_EQ(log.count("after on a"), 1);

  // Run-until-idle reports a time-out while work is stuck.
  Semaphore release;
  a->async([&] { release.wait(); });
  EXPECT_FALSE(clock->runUntilIdle(30ms));
  release.signal();
  EXPECT_TRUE(clock->runUntilIdle());
}

TEST(Clock, TheRealClockIsTheDefaultUntilScopedVirtualClocksReplaceIt) {
  std::shared_ptr<Clock> real = Clock::current();
  ASSERT_EQ(std::dynamic_pointer_cast<VirtualClock>(real), nullptr);
  auto steadyBefore = std::chrono::steady_clock::now();
  auto now = real->now();
  EXPECT_GE(now, steadyBefore);
  EXPECT_LT(now - steadyBefore, 5s);
  EXPECT_LT(std::chrono::abs(real->wallNow() - std::chrono::system_clock::now()), 5s);

  {
    ScopedVirtualClock clock;
    EXPECT_EQ(Clock::current(), clock.get());
    {
      ScopedVirtualClock nested;
      EXPECT_EQ(Clock::current(), nested.get());
    }
    EXPECT_EQ(Clock::current(), clock.get());
  }
  EXPECT_EQ(Clock::current(), real);
}

TEST(RealClock, FiresInDeadlineOrderSkipsCancelledAndMayBeReleasedByItsOwnCallback) {
  auto clock = makeRealClock();
  Clock* c = clock.get();
  const MonoTime start = c->now();
  Log log;
  Semaphore lastFired;
  std::vector<bool> onTime;  // written on the timer thread only, read after `lastFired`
  auto record = [&](std::string name, MonoTime deadline) {
    return [&, name, deadline] {
      onTime.push_back(c->now() >= deadline);
      log.add(name);
    };
  };
  c->schedule(start + 30ms, record("third", start + 30ms));
  c->schedule(start + 10ms, record("first", start + 10ms));
  auto cancelled = c->schedule(start + 15ms, record("cancelled", start + 15ms));
  c->schedule(start + 20ms, record("second", start + 20ms));
  c->cancel(cancelled);
  // The last reference goes on the clock's own thread.
  auto* holder = new std::shared_ptr<Clock>(std::move(clock));
  c->schedule(start + 40ms, [holder, &lastFired] {
    delete holder;
    lastFired.signal();
  });
  ASSERT_TRUE(lastFired.wait(10s));
  EXPECT_EQ(log.events(), (Events{"first", "second", "third"}));
  EXPECT_EQ(onTime, (std::vector<bool>{true, true, true}));
}

}  // namespace
}  // namespace sonorell
