// Operations and operation queues in the manner of NSOperation: an operation is started once,
// may finish later (asynchronous operations), can be cancelled, and reports changes of its
// executing and finished states to observers. Each object guards its state with its own mutex;
// observers are called on the thread that made the change, outside that mutex.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/dispatch/dispatch_queue.h"

namespace sonorell {

class Operation : public std::enable_shared_from_this<Operation> {
 public:
  enum class StateKey { Executing, Finished, Cancelled };
  using StateObserver = std::function<void(Operation&, StateKey)>;

  virtual ~Operation() = default;

  // Synchronous operations run main() and finish when it returns. Asynchronous ones
  // (isAsynchronous() true) override start() and call setExecuting/setFinished themselves.
  virtual void start();
  virtual void main() {}
  virtual bool isAsynchronous() const { return false; }
  virtual void cancel();

  bool isCancelled() const;
  bool isExecuting() const;
  bool isFinished() const;

  void setCompletionBlock(std::function<void()> block);
  // Real-time wait until the operation has finished and its observers and completion block
  // have returned. Not from inside those callbacks.
  void waitUntilFinished();

  uint64_t addStateObserver(StateObserver observer);
  void removeStateObserver(uint64_t token);

 protected:
  void setExecuting(bool executing);
  // Finishing runs the completion block (once) after the observers.
  void setFinished(bool finished);

 private:
  void notify(StateKey key);

  mutable std::mutex mutex_;
  std::condition_variable finishedCv_;
  bool executing_ = false;
  bool finished_ = false;
  bool cancelled_ = false;
  bool started_ = false;  // the default start() ran (or is running)
  bool settled_ = false;  // finished and every finish callback has returned
  std::function<void()> completion_;
  uint64_t nextToken_ = 1;
  std::vector<std::pair<uint64_t, StateObserver>> observers_;
};

using OperationPtr = std::shared_ptr<Operation>;

class BlockOperation : public Operation {
 public:
  explicit BlockOperation(std::function<void()> block) : block_(std::move(block)) {}
  void main() override;

 private:
  std::function<void()> block_;
};

// Runs its operations concurrently on the dispatch thread pool, at most
// maxConcurrentOperationCount at once (unlimited by default), in the order they were added.
class OperationQueue : public std::enable_shared_from_this<OperationQueue> {
 public:
  static std::shared_ptr<OperationQueue> create(std::string name = "");
  ~OperationQueue();

  void addOperation(OperationPtr op);
  void addOperation(std::function<void()> block);
  // Operations added and not yet finished, in the order they were added.
  std::vector<OperationPtr> operations() const;
  size_t operationCount() const;
  void cancelAllOperations();
  void setMaxConcurrentOperationCount(int count);  // -1: no limit
  void waitUntilAllOperationsAreFinished();
  const std::string& name() const;

 private:
  struct State;
  OperationQueue() = default;
  std::shared_ptr<State> state_;
};

}  // namespace sonorell
