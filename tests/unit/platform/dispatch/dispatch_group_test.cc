// Groups, semaphores and timers. Timers run on the virtual clock: time moves only when a test
// advances it, so a 300-second schedule is checked without waiting.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/dispatch/dispatch_group.h"
#include "unit/platform/dispatch/dispatch_test_util.h"

namespace sonorell {
namespace {

using namespace std::chrono_literals;
using testing::Gate;
using Events = std::vector<std::string>;

TEST(DispatchGroup, WaitAndNotifyGoOnlyOnceEveryEnterHasItsLeave) {
  auto group = DispatchGroup::create();
  group->leave();  // an extra leave must not make the next enter look empty
  group->enter();
  group->enter();
  EXPECT_FALSE(group->wait(20ms));
  group->leave();
  EXPECT_FALSE(group->wait(20ms));
  group->leave();
  EXPECT_TRUE(group->wait(0ms));
  group->wait();  // the untimed form returns at once on an empty group

  // Leaves from other threads wake the waiter.
  std::atomic<int> done{0};
  std::vector<std::thread> workers;
  for (int i = 0; i < 8; ++i) {
    group->enter();
    workers.emplace_back([&] {
      ++done;
      group->leave();
    });
  }
  EXPECT_TRUE(group->wait(20s));
  EXPECT_EQ(done.load(), 8);
  for (auto& t : workers) t.join();

  // Notify runs on its queue once the group empties, and only once.
  auto queue = DispatchQueue::create("io.sonorell.notify");
  std::atomic<int> notified{0};
  DispatchQueue* ranOn = nullptr;
  group->enter();
  group->enter();
  group->notify(queue, [&] {
    ranOn = DispatchQueue::current();
    ++notified;
  });
  group->leave();
  ASSERT_TRUE(DispatchQueue::waitUntilAllIdle(20s));
  EXPECT_EQ(notified.load(), 0);
  group->leave();
  ASSERT_TRUE(DispatchQueue::waitUntilAllIdle(20s));
  EXPECT_EQ(notified.load(), 1);
  EXPECT_EQ(ranOn, queue.get());

  // Once empty, a new notify runs straight away and the old one does not run again.
  group->notify(queue, [&] { notified += 10; });
  ASSERT_TRUE(DispatchQueue::waitUntilAllIdle(20s));
  EXPECT_EQ(notified.load(), 11);
}

TEST(Semaphore, CountsSignalsWakesWaitersOnOtherThreadsAndWorksAsAMutex) {
  Semaphore semaphore(1);
  EXPECT_TRUE(semaphore.wait(0ms));
  EXPECT_FALSE(semaphore.wait(20ms));
  semaphore.signal();
  semaphore.signal();
  semaphore.wait();
  EXPECT_TRUE(semaphore.wait(0ms));
  EXPECT_FALSE(semaphore.wait(0ms));

  // A bounded wait, so a lost signal shows as a failure instead of a hang.
  std::atomic<bool> woke{false};
  std::thread waiter([&] { woke = semaphore.wait(30s); });
  semaphore.signal();
  waiter.join();
  EXPECT_TRUE(woke.load()) << "the wait ran out instead of being signalled";

  Semaphore mutex(1);
  long counter = 0;  // guarded only by the semaphore
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        mutex.wait();
        ++counter;
        mutex.signal();
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(counter, 8 * 2000);
}

class TimerTest : public ::testing::Test {
 protected:
  std::shared_ptr<DispatchTimer> timer(std::string event, Duration interval = 1s,
                                       bool repeating = true) {
    return DispatchTimer::create(
        queue_, interval, 0ms, [this, event] { log_.add(event); }, repeating);
  }

  ScopedVirtualClock clock_;
  DispatchQueuePtr queue_ = DispatchQueue::create("io.sonorell.timer");
  testing::Log log_;
};

TEST_F(TimerTest, TicksEachIntervalOnItsQueueOnceResumedAndAFiveMinuteAfterNeedsNoWaiting) {
  std::vector<Duration> tickTimes;  // written by blocks on queue_ only
  bool allOnQueue = true;
  MonoTime start = clock_->now();
  auto t = DispatchTimer::create(queue_, 1s, 100ms, [&] {
    tickTimes.push_back(clock_->now() - start);
    allOnQueue &= DispatchQueue::current() == queue_.get();
    log_.add("tick");
  });
  clock_->advance(5s);
  EXPECT_TRUE(log_.events().empty()) << "ticked before it was resumed";
  EXPECT_EQ(clock_->pendingTimerCount(), 0u);

  start = clock_->now();
  t->resume();
  t->resume();  // resuming a running timer does not arm it twice
  queue_->after(300s, [&] { log_.add("flush"); });
  const auto realStart = std::chrono::steady_clock::now();
  clock_->advance(300s);
  EXPECT_LT(std::chrono::steady_clock::now() - realStart, 60s) << "virtual time waited for real";

  Events expected(300, "tick");
  expected.push_back("flush");
  EXPECT_EQ(log_.events(), expected);
  ASSERT_EQ(tickTimes.size(), 300u);
  for (size_t i = 0; i < tickTimes.size(); ++i) {
    EXPECT_EQ(tickTimes[i], std::chrono::seconds(i + 1)) << "tick " << i;
  }
  EXPECT_TRUE(allOnQueue);
  t->cancel();
  EXPECT_EQ(clock_->pendingTimerCount(), 0u);
}

TEST_F(TimerTest, CancelledDestroyedAndOneShotTimersTickNoMore) {
  auto cancelled = timer("cancelled");
  auto destroyed = timer("destroyed");
  auto oneShot = timer("one shot", 5s, false);
  std::shared_ptr<DispatchTimer> selfCancelling;
  selfCancelling = DispatchTimer::create(queue_, 1s, 0ms, [&] {
    log_.add("self");
    if (log_.count("self") == 2) selfCancelling->cancel();
  });
  auto ticks = [&] {
    return std::vector<int>{log_.count("cancelled"), log_.count("destroyed"), log_.count("self"),
                            log_.count("one shot")};
  };
  for (auto* t : {&cancelled, &destroyed, &oneShot, &selfCancelling}) (*t)->resume();
  clock_->advance(3s);
  EXPECT_EQ(ticks(), (std::vector<int>{3, 3, 2, 0}));

  cancelled->cancel();
  EXPECT_TRUE(cancelled->isCancelled());
  destroyed.reset();
  EXPECT_EQ(clock_->pendingTimerCount(), 1u) << "only the one-shot timer may still be armed";
  cancelled->resume();  // a cancelled timer stays cancelled
  clock_->advance(60s);
  EXPECT_EQ(ticks(), (std::vector<int>{3, 3, 2, 1}));
  EXPECT_EQ(clock_->pendingTimerCount(), 0u);
}

// A clock that fires everything scheduled when told to, without waiting for queues to drain, so
// several ticks can sit in a queue at once.
class ManualClock : public Clock {
 public:
  MonoTime now() const override { return {}; }
  WallTime wallNow() const override { return {}; }
  TimerId schedule(MonoTime, std::function<void()> fire) override {
    std::lock_guard lock(mutex_);
    timers_[++lastId_] = std::move(fire);
    return lastId_;
  }
  void cancel(TimerId id) override {
    std::lock_guard lock(mutex_);
    timers_.erase(id);
  }
  void fireAll() {
    std::map<TimerId, std::function<void()>> due;
    {
      std::lock_guard lock(mutex_);
      due.swap(timers_);
    }
    for (auto& [id, fire] : due) fire();
  }

 private:
  std::mutex mutex_;
  TimerId lastId_ = 0;
  std::map<TimerId, std::function<void()>> timers_;
};

TEST(DispatchTimer, ATickAlreadyQueuedIsDroppedWhenCancelledFirstOnItsQueue) {
  auto clock = std::make_shared<ManualClock>();
  auto previous = Clock::current();
  Clock::setCurrent(clock);
  auto queue = DispatchQueue::create("io.sonorell.timer");
  Events events;  // touched only by blocks on `queue`
  std::shared_ptr<DispatchTimer> second;
  auto first = DispatchTimer::create(queue, 1s, 0ms, [&] {
    events.push_back("first");
    second->cancel();
  });
  second = DispatchTimer::create(queue, 1s, 0ms, [&] { events.push_back("second"); });
  first->resume();
  second->resume();
  // Hold the queue so that both ticks are queued before either handler runs.
  Gate gate;
  queue->async([&] { gate.waitOpen(); });
  clock->fireAll();
  gate.open();
  ASSERT_TRUE(DispatchQueue::waitUntilAllIdle(20s));
  EXPECT_EQ(events, (Events{"first"}));

  // The first timer re-armed; the cancelled one did not.
  clock->fireAll();
  ASSERT_TRUE(DispatchQueue::waitUntilAllIdle(20s));
  EXPECT_EQ(events, (Events{"first", "first"}));
  first->cancel();
  Clock::setCurrent(previous);
}

}  // namespace
}  // namespace sonorell
