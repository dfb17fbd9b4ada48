// The main queue: the engine's own main thread by default, or a host's thread that adopted it
// with runMain() or pumpMain(). Each test runs in a fresh process, so each may choose who
// serves the main queue.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "platform/dispatch/dispatch_group.h"
#include "platform/dispatch/dispatch_queue.h"
#include "unit/platform/dispatch/dispatch_test_util.h"

namespace sonorell {
namespace {

using namespace std::chrono_literals;

TEST(MainQueue, ByDefaultAnEngineThreadServesItInOrderAndSyncsReachIt) {
  EXPECT_FALSE(DispatchQueue::isMainThread());
  std::thread::id ranOn;
  bool wasMain = false;
  std::string threadName;
  DispatchQueue* current = nullptr;
  DispatchQueue::main()->async([&] {
    ranOn = std::this_thread::get_id();
    wasMain = DispatchQueue::isMainThread();
    threadName = testing::currentThreadName();
    current = DispatchQueue::current();
  });
  std::vector<int> order;  // touched only on the main queue
  for (int i = 0; i < 200; ++i) DispatchQueue::main()->async([&order, i] { order.push_back(i); });

  // A sync from another thread runs on the main thread and returns after it ran; a sync from
  // the main thread onto its own queue runs inline.
  std::vector<int> seen;
  bool syncOnMain = false;
  bool nestedOnMain = false;
  std::thread([&] {
    DispatchQueue::main()->sync([&] {
      syncOnMain = DispatchQueue::isMainThread();
      DispatchQueue::main()->sync([&] {
        nestedOnMain = DispatchQueue::isMainThread();
        seen = order;
      });
    });
    EXPECT_EQ(seen.size(), 200u) << "sync returned before its block ran";
  }).join();
  EXPECT_TRUE(syncOnMain);
  EXPECT_TRUE(nestedOnMain);
  ASSERT_EQ(seen.size(), 200u);
  for (int i = 0; i < 200; ++i) EXPECT_EQ(seen[i], i);
  ASSERT_TRUE(DispatchQueue::waitUntilAllIdle(20s));
  EXPECT_NE(ranOn, std::this_thread::get_id());
  EXPECT_TRUE(wasMain);
  EXPECT_EQ(threadName, "sonorell-main");
  EXPECT_EQ(current, DispatchQueue::main().get());
  EXPECT_FALSE(DispatchQueue::isMainThread());

  // Too late to adopt: runMain and pumpMain refuse instead of taking over.
  DispatchQueue::runMain();
  EXPECT_EQ(DispatchQueue::pumpMain(), 0u);
  EXPECT_FALSE(DispatchQueue::isMainThread());
}

TEST(MainQueue, AHostAdoptsItWithRunMainUntilStopMain) {
  // This test's thread is the host's main thread. It claims the main queue before anything is
  // posted (an empty pump), as a host does before it starts the engine, then runs its loop.
  EXPECT_EQ(DispatchQueue::pumpMain(), 0u);
  const auto hostThread = std::this_thread::get_id();
  std::vector<int> order;  // touched only on the main queue
  std::vector<bool> onHost;
  std::atomic<bool> syncReturned{false};
  std::thread poster([&] {
    for (int i = 0; i < 5; ++i) {
      DispatchQueue::main()->async([&, i] {
        order.push_back(i);
        onHost.push_back(std::this_thread::get_id() == hostThread && DispatchQueue::isMainThread());
      });
    }
    DispatchQueue::main()->sync([&] { order.push_back(100); });
    syncReturned = true;
    DispatchQueue::main()->async([] { DispatchQueue::stopMain(); });
  });
  DispatchQueue::runMain();
  poster.join();
  EXPECT_TRUE(syncReturned.load());
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4, 100}));
  EXPECT_EQ(onHost, std::vector<bool>(5, true));
  EXPECT_TRUE(DispatchQueue::isMainThread()) << "the adopting thread stays the main thread";

  // Still adopted after runMain returns: nothing else serves the queue until the host does.
  std::atomic<bool> ran{false};
  DispatchQueue::main()->async([&] { ran = true; });
  EXPECT_FALSE(ran.load());
  EXPECT_EQ(DispatchQueue::pumpMain(), 1u);
  EXPECT_TRUE(ran.load());
}

TEST(MainQueue, RunMainAsTheFirstUseAdoptsAndAStopFromAnyThreadEndsIt) {
  // The stop may arrive before the loop starts; it is kept until runMain sees it.
  std::thread stopper([] { DispatchQueue::stopMain(); });
  DispatchQueue::runMain();
  stopper.join();
  EXPECT_TRUE(DispatchQueue::isMainThread());
  bool onMain = false;
  DispatchQueue::main()->sync([&] { onMain = DispatchQueue::isMainThread(); });  // inline
  EXPECT_TRUE(onMain);
}

TEST(MainQueue, AnAdoptingHostPumpsOnlyWhatIsQueuedAndNoOtherThreadCanPump) {
  EXPECT_EQ(DispatchQueue::pumpMain(), 0u);  // adopts the queue
  EXPECT_TRUE(DispatchQueue::isMainThread());
  std::vector<std::string> order;  // touched only on the main queue (this thread)
  size_t pumpedElsewhere = 99;
  std::thread([&] {
    DispatchQueue::main()->async([&] {
      order.push_back("a");
      DispatchQueue::main()->async([&] { order.push_back("queued by a"); });
    });
    DispatchQueue::main()->async([&] { order.push_back("b"); });
    pumpedElsewhere = DispatchQueue::pumpMain();
  }).join();
  EXPECT_EQ(pumpedElsewhere, 0u);
  EXPECT_TRUE(order.empty());
  EXPECT_EQ(DispatchQueue::pumpMain(), 2u);
  EXPECT_EQ(order, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(DispatchQueue::pumpMain(), 1u);
  EXPECT_EQ(order, (std::vector<std::string>{"a", "b", "queued by a"}));
  EXPECT_TRUE(DispatchQueue::waitUntilAllIdle(0ms));

  // A sync from another thread returns once the host has pumped its block.
  std::atomic<bool> returned{false};
  std::thread caller([&] {
    DispatchQueue::main()->sync([] {});
    returned = true;
  });
  size_t pumped = 0;
  while (pumped == 0) pumped = DispatchQueue::pumpMain();
  caller.join();
  EXPECT_EQ(pumped, 1u);
  EXPECT_TRUE(returned.load());
}

}  // namespace
}  // namespace sonorell
