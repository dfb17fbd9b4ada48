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
using Key = Operation::StateKey;
using Ops = std::vector<OperationPtr>;

struct Change {
  Key key;
  bool executing;
  bool finished;
  bool operator==(const Change&) const = default;
};
using Changes = std::vector<Change>;
const Changes kRanAndFinished = {
    {Key::Executing, true, false}, {Key::Executing, false, true}, {Key::Finished, false, true}};
const Changes kCancelledUnstarted = {{Key::Cancelled, false, false}, {Key::Finished, false, true}};

// Records every state change an operation reports, with the state seen at that moment.
class ChangeRecorder {
 public:
  explicit ChangeRecorder(Operation& op) {
    op.addStateObserver([this](Operation& changed, Key key) {
      std::lock_guard lock(mutex_);
      changes_.push_back({key, changed.isExecuting(), changed.isFinished()});
    });
  }
  Changes changes() {
    std::lock_guard lock(mutex_);
    return changes_;
  }

 private:
  std::mutex mutex_;
  Changes changes_;
};

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
  ChangeRecorder recorder(*op);
  int removedCalls = 0;
  op->removeStateObserver(op->addStateObserver([&](Operation&, Key) { ++removedCalls; }));
  EXPECT_FALSE(op->isExecuting());
  EXPECT_FALSE(op->isFinished());

  op->start();
  op->start();  // a second start does nothing
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  EXPECT_EQ(runs, 1);
  EXPECT_EQ(completions, 1);
  EXPECT_TRUE(op->isFinished());
  EXPECT_FALSE(op->isExecuting());
  EXPECT_EQ(recorder.changes(), kRanAndFinished);
  EXPECT_EQ(removedCalls, 0) << "a removed observer still heard the changes";
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
  ChangeRecorder recorder(*op);
  std::atomic<int> completions{0};
  op->setCompletionBlock([&] { ++completions; });
  queue->addOperation(op);
  ASSERT_TRUE(op->started.waitOpen());

  EXPECT_TRUE(op->isExecuting());
  EXPECT_FALSE(op->isFinished());
  EXPECT_EQ(queue->operationCount(), 1u) << "start() returning does not finish it";

  op->finishFromElsewhere();
  op->waitUntilFinished();
  EXPECT_EQ(completions.load(), 1) << "waitUntilFinished returned before the completion block";
  EXPECT_TRUE(op->isFinished());
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_EQ(queue->operationCount(), 0u);
  EXPECT_EQ(recorder.changes(), kRanAndFinished);
}

TEST(OperationQueue, RunsAllAtOnceByDefaultAndOneAtATimeInAddOrderUnderALimitOfOne) {
  // No limit by default, and raising a limit to none starts the operations waiting under it.
  for (const bool limited : {false, true}) {
    auto queue = OperationQueue::create("io.sonorell.ops");
    if (limited) queue->setMaxConcurrentOperationCount(1);
    constexpr int kOps = 12;
    Barrier allRunning(kOps);
    std::atomic<int> metTogether{0};
    for (int i = 0; i < kOps; ++i) {
      queue->addOperation([&] {
        if (allRunning.arriveAndWait()) ++metTogether;
      });
    }
    if (limited) queue->setMaxConcurrentOperationCount(-1);
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_EQ(metTogether.load(), kOps)
        << "operations did not all run at once, limited " << limited;
    EXPECT_EQ(queue->operationCount(), 0u);
    EXPECT_EQ(queue->name(), "io.sonorell.ops");
  }
  // A limit of one runs them one at a time in add order, even once their queue is gone.
  std::vector<int> order;  // unsynchronised: the limit of one is its only guard
  std::atomic<int> inside{0};
  std::atomic<int> most{0};
  Ops ops;
  {
    auto queue = OperationQueue::create();
    queue->setMaxConcurrentOperationCount(1);
    for (int i = 0; i < 60; ++i) {
      ops.push_back(std::make_shared<BlockOperation>([&, i] {
        testing::raiseTo(most, ++inside);
        order.push_back(i);
        std::this_thread::yield();
        --inside;
      }));
      queue->addOperation(ops.back());
    }
  }
  for (const auto& op : ops) op->waitUntilFinished();
  EXPECT_EQ(most.load(), 1);
  ASSERT_EQ(order.size(), 60u);
  for (int i = 0; i < 60; ++i) EXPECT_EQ(order[i], i) << "not run in add order";
}

TEST(OperationQueue, ListsUnfinishedOperationsInAddOrderAndCancelsRunningAndWaitingOnes) {
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
  auto second = std::make_shared<BlockOperation>([&] { ++waitingRan; });
  ChangeRecorder recorder(*second);
  Ops waiting;
  queue->addOperation(running);
  queue->addOperation(second);
  for (int i = 0; i < 3; ++i) {
    waiting.push_back(std::make_shared<BlockOperation>([&] { ++waitingRan; }));
    queue->addOperation(waiting.back());
  }
  queue->addOperation(second);  // already there: not listed twice
  EXPECT_EQ(queue->operations(), (Ops{running, second, waiting[0], waiting[1], waiting[2]}));
  ASSERT_TRUE(started.waitOpen());
  EXPECT_FALSE(second->isExecuting());

  // Cancelled while waiting, it leaves the queue without waiting for the running one's slot.
  second->cancel();
  second->cancel();  // reported once
  second->waitUntilFinished();
  EXPECT_EQ(queue->operations(), (Ops{running, waiting[0], waiting[1], waiting[2]}));
  EXPECT_TRUE(second->isCancelled());
  EXPECT_EQ(recorder.changes(), kCancelledUnstarted);

  queue->cancelAllOperations();
  gate.open();
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(runningSawCancel.load()) << "a running operation learns it was cancelled";
  EXPECT_TRUE(running->isFinished());
  EXPECT_EQ(waitingRan.load(), 0);
  for (const auto& op : waiting) EXPECT_TRUE(op->isCancelled() && op->isFinished());
  EXPECT_EQ(queue->operationCount(), 0u);
  EXPECT_TRUE(queue->operations().empty());
}

}  // namespace
}  // namespace sonorell
