// Operations and operation queues: how an operation starts, cancels and finishes (also later,
// when asynchronous), what its observers see, and how a queue schedules, lists and cancels them.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/dispatch/operation_queue.h"
#include "unit/platform/dispatch/dispatch_test_util.h"

namespace sonorell {
namespace {

using namespace std::chrono_literals;
using testing::Barrier;
using testing::Gate;

struct Change {
  Operation::StateKey key;
  bool executing;
  bool finished;
  bool operator==(const Change&) const = default;
};

// Records every state change an operation reports, with the state seen at that moment.
class ChangeRecorder {
 public:
  void attach(Operation& op) {
    op.addStateObserver([this](Operation& changed, Operation::StateKey key) {
      std::lock_guard lock(mutex_);
      changes_.push_back({key, changed.isExecuting(), changed.isFinished()});
    });
  }
  std::vector<Change> changes() {
    std::lock_guard lock(mutex_);
    return changes_;
  }

 private:
  std::mutex mutex_;
  std::vector<Change> changes_;
};

using Key = Operation::StateKey;

// --- Operation on its own -------------------------------------------------------------------

TEST(Operation, StartRunsMainOnTheCallersThreadThenFinishesOnce) {
  std::thread::id ranOn;
  int runs = 0;
  int completions = 0;
  auto op = std::make_shared<BlockOperation>([&] {
    ranOn = std::this_thread::get_id();
    ++runs;
  });
  op->setCompletionBlock([&] {
    EXPECT_TRUE(op->isFinished());
    ++completions;
  });
  ChangeRecorder recorder;
  recorder.attach(*op);
  EXPECT_FALSE(op->isExecuting());
  EXPECT_FALSE(op->isFinished());

  op->start();
  op->start();  // a second start does nothing
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  EXPECT_EQ(runs, 1);
  EXPECT_EQ(completions, 1);
  EXPECT_TRUE(op->isFinished());
  EXPECT_FALSE(op->isExecuting());
  EXPECT_EQ(recorder.changes(), (std::vector<Change>{{Key::Executing, true, false},
                                                     {Key::Executing, false, true},
                                                     {Key::Finished, false, true}}));
}

TEST(Operation, CancelledBeforeStartFinishesWithoutRunningMain) {
  bool ran = false;
  auto op = std::make_shared<BlockOperation>([&] { ran = true; });
  ChangeRecorder recorder;
  recorder.attach(*op);
  op->cancel();
  op->cancel();  // reported once
  op->start();
  EXPECT_FALSE(ran);
  EXPECT_TRUE(op->isCancelled());
  EXPECT_TRUE(op->isFinished());
  EXPECT_EQ(recorder.changes(),
            (std::vector<Change>{{Key::Cancelled, false, false}, {Key::Finished, false, true}}));
}

TEST(Operation, RemovedObserversHearNothingMore) {
  auto op = std::make_shared<BlockOperation>([] {});
  int calls = 0;
  auto token = op->addStateObserver([&](Operation&, Key) { ++calls; });
  op->removeStateObserver(token);
  op->start();
  EXPECT_EQ(calls, 0);
}

TEST(Operation, WaitUntilFinishedReturnsAfterTheCompletionBlockOnAnotherThread) {
  Gate gate;
  std::atomic<bool> completed{false};
  auto op = std::make_shared<BlockOperation>([&] { gate.waitOpen(); });
  op->setCompletionBlock([&] { completed = true; });
  std::thread runner([&] { op->start(); });
  gate.open();
  op->waitUntilFinished();
  EXPECT_TRUE(op->isFinished());
  EXPECT_TRUE(completed.load());
  runner.join();
}

// An operation that finishes later, from another thread, the way a network transfer would.
class LaterOperation : public Operation {
 public:
  bool isAsynchronous() const override { return true; }
  void start() override {
    if (isCancelled()) {
      setFinished(true);
      return;
    }
    setExecuting(true);
    started.open();
  }
  void finishFromElsewhere() {
    std::thread([self = std::static_pointer_cast<LaterOperation>(shared_from_this())] {
      self->setFinished(true);
    }).detach();
  }
  Gate started;
};

TEST(Operation, AnAsynchronousOperationStaysExecutingUntilItSaysItFinished) {
  auto queue = OperationQueue::create("io.sonorell.ops");
  auto op = std::make_shared<LaterOperation>();
  ChangeRecorder recorder;
  recorder.attach(*op);
  std::atomic<int> completions{0};
  op->setCompletionBlock([&] { ++completions; });
  queue->addOperation(op);
  ASSERT_TRUE(op->started.waitOpen());

  EXPECT_TRUE(op->isExecuting());
  EXPECT_FALSE(op->isFinished());
  EXPECT_EQ(queue->operationCount(), 1u) << "start() returning does not finish it";

  op->finishFromElsewhere();
  op->waitUntilFinished();
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_EQ(queue->operationCount(), 0u);
  EXPECT_EQ(completions.load(), 1);
  EXPECT_EQ(recorder.changes(), (std::vector<Change>{{Key::Executing, true, false},
                                                     {Key::Executing, false, true},
                                                     {Key::Finished, false, true}}));
}

// --- OperationQueue -------------------------------------------------------------------------

TEST(OperationQueue, RunsOperationsConcurrentlyByDefault) {
  auto queue = OperationQueue::create("io.sonorell.ops");
  constexpr int kOps = 12;
  Barrier allRunning(kOps);
  std::atomic<int> metTogether{0};
  for (int i = 0; i < kOps; ++i) {
    queue->addOperation([&] {
      if (allRunning.arriveAndWait()) ++metTogether;
    });
  }
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_EQ(metTogether.load(), kOps) << "operations did not all run at the same time";
  EXPECT_EQ(queue->operationCount(), 0u);
  EXPECT_EQ(queue->name(), "io.sonorell.ops");
}

TEST(OperationQueue, WithAConcurrencyOfOneRunsOneAtATimeInAddOrder) {
  auto queue = OperationQueue::create();
  queue->setMaxConcurrentOperationCount(1);
  std::vector<int> order;  // unsynchronised: the limit of one is the only guard
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  for (int i = 0; i < 60; ++i) {
    queue->addOperation([&, i] {
      if (++inside > 1) overlapped = true;
      order.push_back(i);
      --inside;
    });
  }
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_FALSE(overlapped.load());
  ASSERT_EQ(order.size(), 60u);
  for (int i = 0; i < 60; ++i) EXPECT_EQ(order[i], i);
}

TEST(OperationQueue, ALimitOfTwoNeverRunsThree) {
  auto queue = OperationQueue::create();
  queue->setMaxConcurrentOperationCount(2);
  std::atomic<int> inside{0};
  std::atomic<int> most{0};
  for (int i = 0; i < 40; ++i) {
    queue->addOperation([&] {
      int now = ++inside;
      int seen = most.load();
      while (now > seen && !most.compare_exchange_weak(seen, now)) {
      }
      std::this_thread::yield();
      --inside;
    });
  }
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_LE(most.load(), 2);
  EXPECT_GE(most.load(), 1);
}

TEST(OperationQueue, ListsUnfinishedOperationsInAddOrderAndDropsFinishedOnes) {
  auto queue = OperationQueue::create();
  queue->setMaxConcurrentOperationCount(1);
  Gate gate;
  auto first = std::make_shared<BlockOperation>([&] { gate.waitOpen(); });
  auto second = std::make_shared<BlockOperation>([] {});
  auto third = std::make_shared<BlockOperation>([] {});
  queue->addOperation(first);
  queue->addOperation(second);
  queue->addOperation(third);
  queue->addOperation(second);  // already there: not listed twice
  EXPECT_EQ(queue->operations(), (std::vector<OperationPtr>{first, second, third}));
  EXPECT_EQ(queue->operationCount(), 3u);
  EXPECT_FALSE(second->isExecuting());

  gate.open();
  third->waitUntilFinished();
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(queue->operations().empty());
  EXPECT_TRUE(first->isFinished() && second->isFinished() && third->isFinished());
}

TEST(OperationQueue, AnOperationCancelledWhileWaitingFinishesWithoutRunningMain) {
  auto queue = OperationQueue::create();
  queue->setMaxConcurrentOperationCount(1);
  Gate gate;
  auto blocker = std::make_shared<BlockOperation>([&] { gate.waitOpen(); });
  std::atomic<bool> ran{false};
  auto waiting = std::make_shared<BlockOperation>([&] { ran = true; });
  ChangeRecorder recorder;
  recorder.attach(*waiting);
  queue->addOperation(blocker);
  queue->addOperation(waiting);

  waiting->cancel();
  // It leaves the queue without waiting for the blocker's slot.
  waiting->waitUntilFinished();
  EXPECT_EQ(queue->operations(), (std::vector<OperationPtr>{blocker}));
  gate.open();
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_FALSE(ran.load());
  EXPECT_TRUE(waiting->isCancelled());
  EXPECT_EQ(recorder.changes(),
            (std::vector<Change>{{Key::Cancelled, false, false}, {Key::Finished, false, true}}));
}

TEST(OperationQueue, CancelAllOperationsCancelsRunningAndWaitingOnes) {
  auto queue = OperationQueue::create();
  queue->setMaxConcurrentOperationCount(1);
  Gate started;
  Gate gate;
  std::shared_ptr<BlockOperation> running;
  std::atomic<bool> runningSawCancel{false};
  running = std::make_shared<BlockOperation>([&] {
    started.open();
    gate.waitOpen();
    runningSawCancel = running->isCancelled();
  });
  std::atomic<int> waitingRan{0};
  std::vector<OperationPtr> waiting;
  queue->addOperation(running);
  for (int i = 0; i < 5; ++i) {
    waiting.push_back(std::make_shared<BlockOperation>([&] { ++waitingRan; }));
    queue->addOperation(waiting.back());
  }
  ASSERT_TRUE(started.waitOpen());
  queue->cancelAllOperations();
  gate.open();
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(runningSawCancel.load()) << "a running operation learns it was cancelled";
  EXPECT_EQ(waitingRan.load(), 0);
  for (const auto& op : waiting) EXPECT_TRUE(op->isCancelled() && op->isFinished());
  EXPECT_EQ(queue->operationCount(), 0u);
}

TEST(OperationQueue, RaisingTheLimitStartsWaitingOperations) {
  auto queue = OperationQueue::create();
  queue->setMaxConcurrentOperationCount(1);
  constexpr int kOps = 4;
  Barrier together(kOps);
  std::atomic<int> metTogether{0};
  for (int i = 0; i < kOps; ++i) {
    queue->addOperation([&] {
      if (together.arriveAndWait()) ++metTogether;
    });
  }
  queue->setMaxConcurrentOperationCount(-1);
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_EQ(metTogether.load(), kOps);
}

TEST(OperationQueue, OperationsAddedBeforeTheQueueIsReleasedStillRun) {
  std::atomic<int> ran{0};
  std::vector<OperationPtr> ops;
  {
    auto queue = OperationQueue::create();
    queue->setMaxConcurrentOperationCount(1);
    for (int i = 0; i < 10; ++i) {
      ops.push_back(std::make_shared<BlockOperation>([&] { ++ran; }));
      queue->addOperation(ops.back());
    }
  }
  for (const auto& op : ops) op->waitUntilFinished();
  EXPECT_EQ(ran.load(), 10);
}

}  // namespace
}  // namespace sonorell
