#include "platform/dispatch/operation_queue.h"

#include <algorithm>
#include <utility>

#include "platform/dispatch/thread_pool.h"

namespace sonorell {

// --- Operation ------------------------------------------------------------------------------

void Operation::start() {
  bool cancelled;
  {
    std::lock_guard lock(mutex_);
    if (started_ || finished_) return;  // an operation runs once
    started_ = true;
    cancelled = cancelled_;
    if (!cancelled) executing_ = true;
  }
  if (!cancelled) {
    notify(StateKey::Executing);
    main();
  }
  setFinished(true);
}

void Operation::cancel() {
  {
    std::lock_guard lock(mutex_);
    if (cancelled_ || finished_) return;
    cancelled_ = true;
  }
  notify(StateKey::Cancelled);
}

bool Operation::isCancelled() const {
  std::lock_guard lock(mutex_);
  return cancelled_;
}

bool Operation::isExecuting() const {
  std::lock_guard lock(mutex_);
  return executing_;
}

bool Operation::isFinished() const {
  std::lock_guard lock(mutex_);
  return finished_;
}

void Operation::setCompletionBlock(std::function<void()> block) {
  std::lock_guard lock(mutex_);
  completion_ = std::move(block);
}

void Operation::waitUntilFinished() {
  std::unique_lock lock(mutex_);
  finishedCv_.wait(lock, [this] { return settled_; });
}

uint64_t Operation::addStateObserver(StateObserver observer) {
  std::lock_guard lock(mutex_);
  uint64_t token = nextToken_++;
  observers_.emplace_back(token, std::move(observer));
  return token;
}

void Operation::removeStateObserver(uint64_t token) {
  std::lock_guard lock(mutex_);
  std::erase_if(observers_, [token](const auto& entry) { return entry.first == token; });
}

void Operation::setExecuting(bool executing) {
  {
    std::lock_guard lock(mutex_);
    if (executing_ == executing || finished_) return;
    executing_ = executing;
  }
  notify(StateKey::Executing);
}

void Operation::setFinished(bool finished) {
  if (!finished) return;  // a finished operation stays finished
  bool wasExecuting;
  std::function<void()> completion;
  {
    std::lock_guard lock(mutex_);
    if (finished_) return;
    wasExecuting = std::exchange(executing_, false);
    finished_ = true;
    completion = std::move(completion_);
    completion_ = nullptr;
  }
  if (wasExecuting) notify(StateKey::Executing);
  notify(StateKey::Finished);
  if (completion) completion();
  // Waiters return only now, so they see the observers' and completion block's effects.
  std::lock_guard lock(mutex_);
  settled_ = true;
  finishedCv_.notify_all();
}

void Operation::notify(StateKey key) {
  std::vector<StateObserver> observers;
  {
    std::lock_guard lock(mutex_);
    for (const auto& entry : observers_) observers.push_back(entry.second);
  }
  for (const auto& observer : observers) observer(*this, key);
}

void BlockOperation::main() {
  if (block_) block_();
}

// --- OperationQueue -------------------------------------------------------------------------

struct OperationQueue::State : std::enable_shared_from_this<OperationQueue::State> {
  struct Entry {
    OperationPtr op;
    uint64_t observer = 0;
    bool started = false;
  };

  explicit State(std::string queueName) : name(std::move(queueName)) {}

  const std::string name;
  mutable std::mutex mutex;
  std::condition_variable empty;
  std::vector<Entry> entries;  // guarded by mutex; added and not finished, in add order
  int maxConcurrent = -1;      // guarded by mutex
  int running = 0;             // guarded by mutex; started and not finished

  Entry* findLocked(const Operation* op) {
    for (auto& entry : entries) {
      if (entry.op.get() == op) return &entry;
    }
    return nullptr;
  }

  // Starts what may start now: operations in add order up to the limit, and cancelled ones at
  // once (they only mark themselves finished).
  void pumpLocked() {
    for (auto& entry : entries) {
      if (entry.started) continue;
      bool limitReached = maxConcurrent >= 0 && running >= maxConcurrent;
      if (limitReached && !entry.op->isCancelled()) continue;
      entry.started = true;
      ++running;
      dispatch_internal::workStarted();
      dispatch_internal::ThreadPool::shared().submit([op = entry.op, queueName = name] {
        dispatch_internal::setCurrentThreadName(queueName.empty() ? "sonorell-ops" : queueName);
        op->start();
        dispatch_internal::workFinished();
      });
    }
  }

  void onStateChange(Operation& op, Operation::StateKey key) {
    if (key == Operation::StateKey::Cancelled) {
      std::lock_guard lock(mutex);
      pumpLocked();
      return;
    }
    if (key != Operation::StateKey::Finished) return;
    uint64_t observer = 0;
    {
      std::lock_guard lock(mutex);
      auto it = std::find_if(entries.begin(), entries.end(),
                             [&](const Entry& entry) { return entry.op.get() == &op; });
      if (it == entries.end()) return;
      observer = it->observer;
      if (it->started) --running;
      entries.erase(it);
      pumpLocked();
      if (entries.empty()) this->empty.notify_all();
    }
    op.removeStateObserver(observer);
  }
};

std::shared_ptr<OperationQueue> OperationQueue::create(std::string name) {
  std::shared_ptr<OperationQueue> queue(new OperationQueue());
  queue->state_ = std::make_shared<State>(std::move(name));
  return queue;
}

// Operations already added still run to the end: their observers keep the state alive.
OperationQueue::~OperationQueue() = default;

void OperationQueue::addOperation(OperationPtr op) {
  if (!op || op->isFinished()) return;
  {
    std::lock_guard lock(state_->mutex);
    if (state_->findLocked(op.get()) != nullptr) return;  // already queued here
  }
  // The observer holds the state strongly until the operation finishes, so work that was added
  // is not dropped when the OperationQueue object goes away first.
  uint64_t observer =
      op->addStateObserver([state = state_](Operation& changed, Operation::StateKey key) {
        state->onStateChange(changed, key);
      });
  {
    std::lock_guard lock(state_->mutex);
    state_->entries.push_back(State::Entry{op, observer, false});
    state_->pumpLocked();
  }
  // Finished by someone else before it was listed: take it out again.
  if (op->isFinished()) state_->onStateChange(*op, Operation::StateKey::Finished);
}

void OperationQueue::addOperation(std::function<void()> block) {
  addOperation(std::make_shared<BlockOperation>(std::move(block)));
}

std::vector<OperationPtr> OperationQueue::operations() const {
  std::lock_guard lock(state_->mutex);
  std::vector<OperationPtr> ops;
  ops.reserve(state_->entries.size());
  for (const auto& entry : state_->entries) ops.push_back(entry.op);
  return ops;
}

size_t OperationQueue::operationCount() const {
  std::lock_guard lock(state_->mutex);
  return state_->entries.size();
}

void OperationQueue::cancelAllOperations() {
  // Cancelling notifies observers, ours included, so it happens outside the lock.
  for (const auto& op : operations()) op->cancel();
}

void OperationQueue::setMaxConcurrentOperationCount(int count) {
  std::lock_guard lock(state_->mutex);
  state_->maxConcurrent = count < 0 ? -1 : count;
  state_->pumpLocked();
}

void OperationQueue::waitUntilAllOperationsAreFinished() {
  std::unique_lock lock(state_->mutex);
  state_->empty.wait(lock, [this] { return state_->entries.empty(); });
}

const std::string& OperationQueue::name() const { return state_->name; }

}  // namespace sonorell
