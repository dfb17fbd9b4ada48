// Groups, semaphores and timers. Timers run on the virtual clock: time moves only when a test
// advances it, so a 300-second schedule is checked without waiting.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
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

// --- DispatchGroup --------------------------------------------------------------------------

TEST(DispatchGroup, WaitReturnsOnceEveryEnterHasItsLeave) {
  auto group = DispatchGroup::create();
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
}

TEST(DispatchGroup, WaitTimesOutWhileAnEnterIsUnmatched) {
  auto group = DispatchGroup::create();
  group->enter();
  group->enter();
  EXPECT_FALSE(group->wait(20ms));
  group->leave();
  EXPECT_FALSE(group->wait(20ms));
  group->leave();
  EXPECT_TRUE(group->wait(0ms));
  group->wait();  // the untimed form returns at once on an empty group
}

TEST(DispatchGroup, AnExtraLeaveDoesNotMakeTheNextEnterLookEmpty) {
  auto group = DispatchGroup::create();
  group->leave();
  group->enter();
  EXPECT_FALSE(group->wait(20ms));
  group->leave();
  EXPECT_TRUE(group->wait(0ms));
}

TEST(DispatchGroup, NotifyRunsOnItsQueueOnlyWhenTheGroupEmpties) {
  auto group = DispatchGroup::create();
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

// --- Semaphore ------------------------------------------------------------------------------

TEST(Semaphore, CountsSignalsAndTimesOutWhenNoneIsLeft) {
  Semaphore semaphore(1);
  EXPECT_TRUE(semaphore.wait(0ms));
  EXPECT_FALSE(semaphore.wait(20ms));
  semaphore.signal();
  semaphore.signal();
  semaphore.wait();
  EXPECT_TRUE(semaphore.wait(0ms));
  EXPECT_FALSE(semaphore.wait(0ms));
}

TEST(Semaphore, AsAMutexItKeepsThreadsOutOfEachOthersWay) {
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

TEST(Semaphore, WakesAWaiterBlockedOnAnotherThread) {
  Semaphore semaphore;
  std::atomic<bool> woke{false};
  // A bounded wait, so a lost signal shows as a failure instead of a hang.
  std::thread waiter([&] { woke = semaphore.wait(std::chrono::seconds(30)); });
  semaphore.signal();
  waiter.join();
  EXPECT_TRUE(woke.load()) << "the wait ran out instead of being signalled";
}

// --- DispatchTimer --------------------------------------------------------------------------

class TimerTest : public ::testing::Test {
 protected:
  // Records ticks and other events in the order their blocks ran.
  void add(std::string event) {
    std::lock_guard lock(mutex_);
    events_.push_back(std::move(event));
  }
  std::vector<std::string> events() {
    std::lock_guard lock(mutex_);
    return events_;
  }
  int ticks() {
    std::lock_guard lock(mutex_);
    return static_cast<int>(std::count(events_.begin(), events_.end(), "tick"));
  }

  ScopedVirtualClock clock_;
  DispatchQueuePtr queue_ = DispatchQueue::create("io.sonorell.timer");

 private:
  std::mutex mutex_;
  std::vector<std::string> events_;
};

TEST_F(TimerTest, DoesNothingUntilResumedThenTicksOneIntervalLater) {
  auto timer = DispatchTimer::create(queue_, 1s, 0ms, [&] { add("tick"); });
  clock_->advance(5s);
  EXPECT_EQ(ticks(), 0);
  EXPECT_EQ(clock_->pendingTimerCount(), 0u);

  timer->resume();
  clock_->advance(999ms);
  EXPECT_EQ(ticks(), 0);
  clock_->advance(1ms);
  EXPECT_EQ(ticks(), 1);
  clock_->advance(1s);
  EXPECT_EQ(ticks(), 2);
  timer->resume();  // resuming a running timer does not arm it twice
  clock_->advance(1s);
  EXPECT_EQ(ticks(), 3);
  timer->cancel();
}

TEST_F(TimerTest, HandlerRunsOnTheTimersQueue) {
  DispatchQueue* ranOn = nullptr;
  auto timer = DispatchTimer::create(queue_, 1s, 100ms, [&] { ranOn = DispatchQueue::current(); });
  timer->resume();
  clock_->advance(1s);
  EXPECT_EQ(ranOn, queue_.get());
  timer->cancel();
}

TEST_F(TimerTest, ASecondTimerAndAFiveMinuteAfterFireInOrderWithoutWaiting) {
  std::vector<Duration> tickTimes;  // written by blocks on queue_ only
  const MonoTime start = clock_->now();
  auto timer = DispatchTimer::create(queue_, 1s, 0ms, [&] {
    tickTimes.push_back(clock_->now() - start);
    add("tick");
  });
  timer->resume();
  queue_->after(300s, [&] { add("flush"); });

  const auto realStart = std::chrono::steady_clock::now();
  clock_->advance(300s);
  EXPECT_LT(std::chrono::steady_clock::now() - realStart, 60s) << "virtual time waited for real";

  std::vector<std::string> expected(300, "tick");
  expected.push_back("flush");
  EXPECT_EQ(events(), expected);
  ASSERT_EQ(tickTimes.size(), 300u);
  for (size_t i = 0; i < tickTimes.size(); ++i) {
    EXPECT_EQ(tickTimes[i], std::chrono::seconds(i + 1)) << "tick " << i;
  }
  timer->cancel();
  EXPECT_EQ(clock_->pendingTimerCount(), 0u);
}

TEST_F(TimerTest, CancelStopsFurtherTicks) {
  auto timer = DispatchTimer::create(queue_, 1s, 0ms, [&] { add("tick"); });
  timer->resume();
  clock_->advance(3s);
  EXPECT_EQ(ticks(), 3);
  timer->cancel();
  EXPECT_TRUE(timer->isCancelled());
  EXPECT_EQ(clock_->pendingTimerCount(), 0u);
  clock_->advance(10s);
  EXPECT_EQ(ticks(), 3);
  timer->resume();  // a cancelled timer stays cancelled
  clock_->advance(10s);
  EXPECT_EQ(ticks(), 3);
}

TEST_F(TimerTest, CancelFromItsOwnHandlerStopsTheNextTick) {
  std::shared_ptr<DispatchTimer> timer;
  timer = DispatchTimer::create(queue_, 1s, 0ms, [&] {
    add("tick");
    if (ticks() == 2) timer->cancel();
  });
  timer->resume();
  clock_->advance(10s);
  EXPECT_EQ(ticks(), 2);
}

// A clock that fires everything scheduled when told to, without waiting for queues to drain, so
// several ticks can sit in a queue at once.
class ManualClock : public Clock {
 public:
  MonoTime now() const override { return MonoTime{}; }
  WallTime wallNow() const override { return WallTime{}; }
  TimerId schedule(MonoTime, std::function<void()> fire) override {
    std::lock_guard lock(mutex_);
    timers_.emplace_back(++lastId_, std::move(fire));
    return lastId_;
  }
  void cancel(TimerId id) override {
    std::lock_guard lock(mutex_);
    std::erase_if(timers_, [id](const auto& timer) { return timer.first == id; });
  }
  void fireAll() {
    std::vector<std::pair<TimerId, std::function<void()>>> due;
    {
      std::lock_guard lock(mutex_);
      due.swap(timers_);
    }
    for (auto& timer : due) timer.second();
  }

 private:
  std::mutex mutex_;
  TimerId lastId_ = 0;
  std::vector<std::pair<TimerId, std::function<void()>>> timers_;
};

TEST(DispatchTimer, ATickAlreadyQueuedIsDroppedWhenCancelledFirstOnItsQueue) {
  auto clock = std::make_shared<ManualClock>();
  auto previous = Clock::current();
  Clock::setCurrent(clock);
  auto queue = DispatchQueue::create("io.sonorell.timer");
  std::vector<std::string> events;  // touched only by blocks on `queue`
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
  EXPECT_EQ(events, (std::vector<std::string>{"first"}));

  // The first timer re-armed; the cancelled one did not.
  clock->fireAll();
  ASSERT_TRUE(DispatchQueue::waitUntilAllIdle(20s));
  EXPECT_EQ(events, (std::vector<std::string>{"first", "first"}));
  first->cancel();
  Clock::setCurrent(previous);
}

TEST_F(TimerTest, ADestroyedTimerNeverTicksAgain) {
  auto timer = DispatchTimer::create(queue_, 1s, 0ms, [&] { add("tick"); });
  timer->resume();
  clock_->advance(2s);
  EXPECT_EQ(ticks(), 2);
  timer.reset();
  clock_->advance(10s);
  EXPECT_EQ(ticks(), 2);
  EXPECT_EQ(clock_->pendingTimerCount(), 0u);
}

TEST_F(TimerTest, AOneShotTimerTicksOnce) {
  auto timer = DispatchTimer::create(
      queue_, 5s, 0ms, [&] { add("tick"); }, false);
  timer->resume();
  clock_->advance(4s);
  EXPECT_EQ(ticks(), 0);
  clock_->advance(60s);
  EXPECT_EQ(ticks(), 1);
  EXPECT_EQ(clock_->pendingTimerCount(), 0u);
}

}  // namespace
}  // namespace sonorell
