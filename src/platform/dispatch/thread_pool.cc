#include "platform/dispatch/thread_pool.h"

#include <pthread.h>

#include <atomic>
#include <system_error>
#include <thread>

namespace sonorell::dispatch_internal {

ThreadPool& ThreadPool::shared() {
  // Leaked on purpose: workers are detached and may still be parked on its mutex at exit.
  static ThreadPool* pool = new ThreadPool();
  return *pool;
}

void ThreadPool::submit(Task task) {
  std::unique_lock lock(mutex_);
  tasks_.push_back(std::move(task));
  if (tasks_.size() <= idle_) {
    taskAvailable_.notify_one();
    return;
  }
  // Every thread is busy (possibly blocked inside a block): add one rather than queue behind them.
  ++threads_;
  ++idle_;  // the new thread counts as idle until it takes a task
  lock.unlock();
  try {
    std::thread([this] { workerLoop(); }).detach();
  } catch (const std::system_error&) {
    // Out of threads: the task waits for a busy worker to come free.
    lock.lock();
    --threads_;
    --idle_;
  }
}

void ThreadPool::workerLoop() {
  setCurrentThreadName("sonorell-pool");
  std::unique_lock lock(mutex_);
  for (;;) {
    while (tasks_.empty()) {
      // Re-reads idleTimeout_ on every wake-up so a changed time-out applies to parked threads.
      if (taskAvailable_.wait_for(lock, idleTimeout_) == std::cv_status::timeout &&
          tasks_.empty()) {
        --idle_;
        --threads_;
        threadRetired_.notify_all();
        return;
      }
    }
    Task task = std::move(tasks_.front());
    tasks_.pop_front();
    --idle_;
    lock.unlock();
    task();
    task = nullptr;  // release what the task captured before parking
    lock.lock();
    ++idle_;
  }
}

size_t ThreadPool::threadCountForTesting() const {
  std::lock_guard lock(mutex_);
  return threads_;
}

bool ThreadPool::waitForThreadCountForTesting(size_t count, std::chrono::milliseconds limit) const {
  std::unique_lock lock(mutex_);
  return threadRetired_.wait_for(lock, limit, [&] { return threads_ <= count; });
}

void ThreadPool::setIdleTimeoutForTesting(std::chrono::milliseconds timeout) {
  std::lock_guard lock(mutex_);
  idleTimeout_ = timeout;
  taskAvailable_.notify_all();  // idle workers pick up the new time-out
}

namespace {

std::atomic<long> gWork{0};
std::atomic<long> gIdleWaiters{0};
std::mutex& idleMutex() {
  static auto* m = new std::mutex();
  return *m;
}
std::condition_variable& idleCv() {
  static auto* cv = new std::condition_variable();
  return *cv;
}

}  // namespace

void workStarted() { gWork.fetch_add(1, std::memory_order_seq_cst); }

void workFinished() {
  // Waiters register before they look at the count, so with both sides sequentially
  // consistent either the waiter sees zero or we see the waiter.
  if (gWork.fetch_sub(1, std::memory_order_seq_cst) == 1 &&
      gIdleWaiters.load(std::memory_order_seq_cst) > 0) {
    std::lock_guard lock(idleMutex());
    idleCv().notify_all();
  }
}

bool waitUntilNoWork(std::chrono::milliseconds limit) {
  gIdleWaiters.fetch_add(1, std::memory_order_seq_cst);
  bool idle;
  {
    std::unique_lock lock(idleMutex());
    idle =
        idleCv().wait_for(lock, limit, [] { return gWork.load(std::memory_order_seq_cst) == 0; });
  }
  gIdleWaiters.fetch_sub(1, std::memory_order_seq_cst);
  return idle;
}

void setCurrentThreadName(const std::string& name) {
  thread_local std::string current;
  std::string cut = name.substr(0, 15);
  if (cut == current) return;
  current = cut;
  pthread_setname_np(pthread_self(), cut.c_str());
}

}  // namespace sonorell::dispatch_internal
