// Serial queues: order, mutual exclusion, sync hand-over, current(), the growing pool, thread
// names and the idle count that VirtualClock::runUntilIdle relies on.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "platform/dispatch/dispatch_group.h"
#include "platform/dispatch/dispatch_queue.h"
#include "platform/dispatch/thread_pool.h"
#include "unit/platform/dispatch/dispatch_test_util.h"

namespace sonorell {
namespace {

using namespace std::chrono_literals;
using testing::Barrier;
using testing::Gate;

TEST(SerialQueue, KeepsEachProducersOrderWhenManyThreadsSubmit) {
  auto queue = DispatchQueue::create("io.sonorell.test");
  constexpr int kProducers = 8;
  constexpr int kBlocks = 400;
  std::vector<std::pair<int, int>> ran;  // touched only by blocks on `queue`
  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      for (int i = 0; i < kBlocks; ++i) queue->async([&ran, p, i] { ran.emplace_back(p, i); });
    });
  }
  for (auto& t : producers) t.join();
  ASSERT_TRUE(DispatchQueue::waitUntilAllIdle(20s));

  ASSERT_EQ(ran.size(), size_t{kProducers * kBlocks});
  std::vector<int> next(kProducers, 0);
  for (auto [p, i] : ran) {
    ASSERT_EQ(i, next[p]) << "producer " << p << " ran out of order";
    ++next[p];
  }
}

TEST(SerialQueue, NeverRunsTwoBlocksAtOnceEvenWithSyncCallersMixedIn) {
  auto queue = DispatchQueue::create("io.sonorell.test");
  std::atomic<int> inside{0};
  std::atomic<int> maxInside{0};
  int plainCounter = 0;  // unsynchronised on purpose: the queue is the only guard
  auto body = [&] {
    int now = ++inside;
    int seen = maxInside.load();
    while (now > seen && !maxInside.compare_exchange_weak(seen, now)) {
    }
    ++plainCounter;
    std::this_thread::yield();
    --inside;
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < 6; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 300; ++i) {
        if ((i + t) % 3 == 0) {
          queue->sync(body);
        } else {
          queue->async(body);
        }
      }
    });
  }
  for (auto& t : threads) t.join();
  ASSERT_TRUE(DispatchQueue::waitUntilAllIdle(20s));
  EXPECT_EQ(maxInside.load(), 1);
  queue->sync([&] { EXPECT_EQ(plainCounter, 6 * 300); });
}

TEST(SerialQueue, PendingBlocksRunAfterTheLastReferenceIsDropped) {
  std::atomic<int> ran{0};
  Gate gate;
  {
    auto queue = DispatchQueue::create("io.sonorell.test");
    queue->async([&] { gate.waitOpen(); });
    for (int i = 0; i < 50; ++i) queue->async([&] { ++ran; });
  }
  gate.open();
  ASSERT_TRUE(DispatchQueue::waitUntilAllIdle(20s));
  EXPECT_EQ(ran.load(), 50);
}

TEST(Sync, RunsOnTheCallersThreadWhenTheQueueIsFree) {
  auto queue = DispatchQueue::create("io.sonorell.test");
  std::thread::id ranOn;
  DispatchQueue* currentInside = nullptr;
  queue->sync([&] {
    ranOn = std::this_thread::get_id();
    currentInside = DispatchQueue::current();
  });
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  EXPECT_EQ(currentInside, queue.get());
  EXPECT_EQ(DispatchQueue::current(), nullptr);
}

TEST(Sync, WaitsBehindQueuedBlocksAndHoldsTheQueueWhileItRuns) {
  auto queue = DispatchQueue::create("io.sonorell.test");
  Gate gate;
  std::vector<std::string> order;  // touched only while holding `queue`
  queue->async([&] {
    gate.waitOpen();
    order.push_back("first");
  });
  queue->async([&] { order.push_back("second"); });

  Gate syncEntered;
  Gate laterRan;
  bool laterRanDuringSync = true;
  std::thread caller([&] {
    queue->sync([&] {
      syncEntered.open();
      order.push_back("sync");
      queue->async([&] {
        order.push_back("later");
        laterRan.open();
      });
      // The queue stays reserved for this caller: the block just queued must not start.
      laterRanDuringSync = laterRan.waitOpen(50ms);
    });
  });
  EXPECT_FALSE(syncEntered.waitOpen(50ms)) << "sync overtook blocks queued before it";
  gate.open();
  caller.join();
  ASSERT_TRUE(laterRan.waitOpen());
  ASSERT_TRUE(DispatchQueue::waitUntilAllIdle(20s));
  EXPECT_FALSE(laterRanDuringSync);
  EXPECT_EQ(order, (std::vector<std::string>{"first", "second", "sync", "later"}));
}

TEST(Sync, FromABlockOnTheSameQueueRunsInline) {
  auto queue = DispatchQueue::create("io.sonorell.test");
  Gate done;
  bool innerRan = false;
  queue->async([&] {
    queue->sync([&] { innerRan = true; });
    done.open();
  });
  ASSERT_TRUE(done.waitOpen(10s)) << "sync onto its own queue deadlocked";
  EXPECT_TRUE(innerRan);
}

TEST(Sync, ManyQueuesBlockedWhileSyncingOntoOneSharedQueueAllFinish) {
  // 64 blocks, each holding its own queue and waiting until all 64 run at the same time, then
  // syncing onto one shared queue. A fixed-size pool, or a sync that needed a worker of its own,
  // would stall here.
  constexpr int kQueues = 64;
  auto shared = DispatchQueue::create("io.sonorell.shared");
  std::vector<DispatchQueuePtr> queues;
  for (int i = 0; i < kQueues; ++i) queues.push_back(DispatchQueue::create("io.sonorell.q"));
  Barrier allRunning(kQueues);
  std::atomic<int> barrierFailures{0};
  int total = 0;  // touched only while holding `shared`
  auto group = DispatchGroup::create();
  for (auto& queue : queues) {
    queue->async(group, [&] {
      if (!allRunning.arriveAndWait()) ++barrierFailures;
      shared->sync([&] {
        ++total;
        shared->sync([&] { ++total; });  // nested sync onto the held queue runs inline
      });
    });
  }
  ASSERT_TRUE(group->wait(30s));
  EXPECT_EQ(barrierFailures.load(), 0) << "the pool did not grow to run all blocked blocks";
  shared->sync([&] { EXPECT_EQ(total, 2 * kQueues); });
}

TEST(Sync, ChainsOfSyncsAcrossQueuesFromManyThreadsComplete) {
  auto a = DispatchQueue::create("io.sonorell.a");
  auto b = DispatchQueue::create("io.sonorell.b");
  auto c = DispatchQueue::create("io.sonorell.c");
  std::atomic<int> done{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 16; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 50; ++i) {
        a->sync([&] { b->sync([&] { c->sync([&] { ++done; }); }); });
        b->async([&] { c->sync([&] { ++done; }); });
      }
    });
  }
  for (auto& t : threads) t.join();
  ASSERT_TRUE(DispatchQueue::waitUntilAllIdle(20s));
  EXPECT_EQ(done.load(), 16 * 50 * 2);
}

TEST(Current, NamesTheRunningQueueAndIsRestoredAfterNestedSyncs) {
  auto outer = DispatchQueue::create("io.sonorell.outer");
  auto inner = DispatchQueue::create("io.sonorell.inner");
  DispatchQueue* inAsync = nullptr;
  DispatchQueue* inNestedSync = nullptr;
  DispatchQueue* afterNestedSync = nullptr;
  bool outerIsCurrent = false;
  bool innerIsCurrentInOuter = true;
  outer->async([&] {
    inAsync = DispatchQueue::current();
    outerIsCurrent = outer->isCurrent();
    innerIsCurrentInOuter = inner->isCurrent();
    inner->sync([&] { inNestedSync = DispatchQueue::current(); });
    afterNestedSync = DispatchQueue::current();
  });
  ASSERT_TRUE(DispatchQueue::waitUntilAllIdle(20s));
  EXPECT_EQ(inAsync, outer.get());
  EXPECT_TRUE(outerIsCurrent);
  EXPECT_FALSE(innerIsCurrentInOuter);
  EXPECT_EQ(inNestedSync, inner.get());
  EXPECT_EQ(afterNestedSync, outer.get());
  EXPECT_EQ(DispatchQueue::current(), nullptr);
}

TEST(Current, ASyncBackOntoAnOuterQueueRunsInlineAsThatQueue) {
  auto a = DispatchQueue::create("io.sonorell.a");
  auto b = DispatchQueue::create("io.sonorell.b");
  std::vector<DispatchQueue*> seen;
  Gate done;
  a->async([&] {
    b->sync([&] {
      a->sync([&] { seen.push_back(DispatchQueue::current()); });
      seen.push_back(DispatchQueue::current());
    });
    seen.push_back(DispatchQueue::current());
    done.open();
  });
  ASSERT_TRUE(done.waitOpen(10s)) << "syncing back onto a held queue deadlocked";
  EXPECT_EQ(seen, (std::vector<DispatchQueue*>{a.get(), b.get(), a.get()}));
}

TEST(ThreadNames, AWorkerCarriesTheQueueLabelCutToFifteenCharacters) {
  auto database = DispatchQueue::create("io.sonorell.database");
  auto shortName = DispatchQueue::create("short");
  std::string first;
  std::string second;
  database->async([&] { first = testing::currentThreadName(); });
  shortName->async([&] { second = testing::currentThreadName(); });
  ASSERT_TRUE(DispatchQueue::waitUntilAllIdle(20s));
  EXPECT_EQ(first, "io.sonorell.dat");
  EXPECT_EQ(second, "short");
  EXPECT_EQ(database->label(), "io.sonorell.database");
}

TEST(Idle, WaitUntilAllIdleCoversBlocksThatQueueMoreWork) {
  auto a = DispatchQueue::create("io.sonorell.a");
  auto b = DispatchQueue::create("io.sonorell.b");
  std::atomic<int> finished{0};
  for (int i = 0; i < 100; ++i) {
    a->async([&] { b->async([&] { a->async([&] { ++finished; }); }); });
  }
  ASSERT_TRUE(DispatchQueue::waitUntilAllIdle(20s));
  EXPECT_EQ(finished.load(), 100);
}

TEST(Idle, WaitUntilAllIdleTimesOutWhileABlockRuns) {
  auto queue = DispatchQueue::create("io.sonorell.test");
  Gate gate;
  queue->async([&] { gate.waitOpen(); });
  EXPECT_FALSE(DispatchQueue::waitUntilAllIdle(30ms));
  gate.open();
  EXPECT_TRUE(DispatchQueue::waitUntilAllIdle(20s));
}

TEST(Pool, IdleWorkersRetire) {
  auto& pool = dispatch_internal::ThreadPool::shared();
  pool.setIdleTimeoutForTesting(20ms);
  constexpr int kQueues = 4;
  Barrier together(kQueues);
  std::vector<DispatchQueuePtr> queues;
  for (int i = 0; i < kQueues; ++i) {
    queues.push_back(DispatchQueue::create("io.sonorell.q"));
    queues.back()->async([&] { together.arriveAndWait(); });
  }
  ASSERT_TRUE(DispatchQueue::waitUntilAllIdle(20s));
  EXPECT_GE(pool.threadCountForTesting(), size_t{kQueues});
  EXPECT_TRUE(pool.waitForThreadCountForTesting(0, 10s));
  // A retired pool still serves new work.
  std::atomic<bool> ran{false};
  queues[0]->async([&] { ran = true; });
  ASSERT_TRUE(DispatchQueue::waitUntilAllIdle(20s));
  EXPECT_TRUE(ran.load());
}

TEST(Groups, AsyncWithAGroupEntersAndLeavesIt) {
  auto group = DispatchGroup::create();
  std::atomic<int> ran{0};
  Gate gate;
  std::vector<DispatchQueuePtr> queues;
  for (int i = 0; i < 8; ++i) {
    queues.push_back(DispatchQueue::create("io.sonorell.q"));
    queues.back()->async(group, [&] {
      gate.waitOpen();
      ++ran;
    });
  }
  EXPECT_FALSE(group->wait(20ms));
  gate.open();
  ASSERT_TRUE(group->wait(20s));
  EXPECT_EQ(ran.load(), 8);
}

}  // namespace
}  // namespace sonorell
