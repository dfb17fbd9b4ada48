// Serial queues: order, mutual exclusion, sync hand-over, current(), the growing pool, thread
// names and the idle count that VirtualClock::runUntilIdle relies on.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
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

TEST(SerialQueue, RunsOneBlockAtATimeInEachProducersOrderWithSyncCallersMixedIn) {
  auto queue = DispatchQueue::create("io.sonorell.test");
  constexpr int kProducers = 8;
  constexpr int kBlocks = 400;
  std::vector<std::pair<int, int>> ran;  // unsynchronised on purpose: the queue is the only guard
  std::atomic<int> inside{0};
  std::atomic<int> most{0};
  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      for (int i = 0; i < kBlocks; ++i) {
        auto block = [&, p, i] {
          testing::raiseTo(most, ++inside);
          ran.emplace_back(p, i);
          std::this_thread::yield();
          --inside;
        };
        if ((i + p) % 3 == 0) {
          queue->sync(block);
        } else {
          queue->async(block);
        }
      }
    });
  }
  for (auto& t : producers) t.join();
  ASSERT_TRUE(DispatchQueue::waitUntilAllIdle(20s));
  EXPECT_EQ(most.load(), 1);
  ASSERT_EQ(ran.size(), size_t{kProducers * kBlocks});
  std::vector<int> next(kProducers, 0);
  for (auto [p, i] : ran) {
    ASSERT_EQ(i, next[p]) << "producer " << p << " ran out of order";
    ++next[p];
  }
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

TEST(Current, NamesTheRunningQueueOnItsNamedThreadThroughNestedSyncsThatRunInline) {
  auto a = DispatchQueue::create("io.sonorell.database");
  auto b = DispatchQueue::create("short");
  // From a free queue, sync runs on the caller's own thread.
  std::thread::id ranOn;
  DispatchQueue* inSync = nullptr;
  a->sync([&] {
    ranOn = std::this_thread::get_id();
    inSync = DispatchQueue::current();
  });
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  EXPECT_EQ(inSync, a.get());
  EXPECT_EQ(DispatchQueue::current(), nullptr);

  std::vector<DispatchQueue*> seen;
  bool aIsCurrent = false;
  bool bIsCurrent = true;
  std::string aThread;
  std::string bThread;
  Gate done;
  a->async([&] {
    aThread = testing::currentThreadName();
    aIsCurrent = a->isCurrent();
    bIsCurrent = b->isCurrent();
    seen.push_back(DispatchQueue::current());
    a->sync([&] { seen.push_back(DispatchQueue::current()); });  // its own queue
    b->sync([&] {
      seen.push_back(DispatchQueue::current());
      a->sync([&] { seen.push_back(DispatchQueue::current()); });  // back onto the outer one
      seen.push_back(DispatchQueue::current());
    });
    seen.push_back(DispatchQueue::current());
    done.open();
  });
  b->async([&] { bThread = testing::currentThreadName(); });
  ASSERT_TRUE(done.waitOpen(10s)) << "a sync onto a held queue deadlocked";
  ASSERT_TRUE(DispatchQueue::waitUntilAllIdle(20s));
  EXPECT_EQ(seen,
            (std::vector<DispatchQueue*>{a.get(), a.get(), b.get(), a.get(), b.get(), a.get()}));
  EXPECT_TRUE(aIsCurrent);
  EXPECT_FALSE(bIsCurrent);
  // Thread names carry the label, cut to the fifteen characters Linux allows.
  EXPECT_EQ(aThread, "io.sonorell.dat");
  EXPECT_EQ(bThread, "short");
  EXPECT_EQ(a->label(), "io.sonorell.database");
}

TEST(Idle, WaitUntilAllIdleCoversDroppedQueuesAndTheWorkTheirBlocksQueue) {
  auto other = DispatchQueue::create("io.sonorell.other");
  std::atomic<int> ran{0};
  Gate gate;
  {
    auto queue = DispatchQueue::create("io.sonorell.test");
    queue->async([&] { gate.waitOpen(); });
    for (int i = 0; i < 50; ++i) {
      queue->async([&] { other->async([&] { other->async([&] { ++ran; }); }); });
    }
  }
  EXPECT_FALSE(DispatchQueue::waitUntilAllIdle(30ms));
  gate.open();
  ASSERT_TRUE(DispatchQueue::waitUntilAllIdle(20s));
  EXPECT_EQ(ran.load(), 50);
}

TEST(Pool, GroupedBlocksCountUntilTheyFinishAndIdleWorkersThenRetire) {
  auto& pool = dispatch_internal::ThreadPool::shared();
  pool.setIdleTimeoutForTesting(20ms);
  constexpr int kQueues = 4;
  Barrier together(kQueues);
  Gate gate;
  auto group = DispatchGroup::create();
  std::vector<DispatchQueuePtr> queues;
  for (int i = 0; i < kQueues; ++i) {
    queues.push_back(DispatchQueue::create("io.sonorell.q"));
    queues.back()->async(group, [&] {
      together.arriveAndWait();
      gate.waitOpen();
    });
  }
  EXPECT_FALSE(group->wait(20ms));
  gate.open();
  ASSERT_TRUE(group->wait(20s));
  ASSERT_TRUE(DispatchQueue::waitUntilAllIdle(20s));
  EXPECT_GE(pool.threadCountForTesting(), size_t{kQueues});
  EXPECT_TRUE(pool.waitForThreadCountForTesting(0, 10s));
  // A retired pool still serves new work.
  std::atomic<bool> ran{false};
  queues[0]->async([&] { ran = true; });
  ASSERT_TRUE(DispatchQueue::waitUntilAllIdle(20s));
  EXPECT_TRUE(ran.load());
}

}  // namespace
}  // namespace sonorell
