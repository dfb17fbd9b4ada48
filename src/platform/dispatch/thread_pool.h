// The worker threads behind every dispatch queue and operation queue. The pool grows whenever a
// task arrives and no thread is idle (blocks may block, so a fixed pool could deadlock) and lets a
// thread retire after it has been idle for a while. All state is guarded by the pool's mutex.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <string>

namespace sonorell::dispatch_internal {

class ThreadPool {
 public:
  using Task = std::function<void()>;

  // The process-wide pool. It is never destroyed, so detached workers may outlive main().
  static ThreadPool& shared();

  // Runs the task on a worker: an idle one if there is one, otherwise a new thread.
  void submit(Task task);

  size_t threadCountForTesting() const;
  // Waits (real time, at most `limit`) until the pool has at most `count` threads.
  bool waitForThreadCountForTesting(size_t count, std::chrono::milliseconds limit) const;
  void setIdleTimeoutForTesting(std::chrono::milliseconds timeout);

 private:
  ThreadPool() = default;
  void workerLoop();

  mutable std::mutex mutex_;
  std::condition_variable taskAvailable_;
  mutable std::condition_variable threadRetired_;
  std::deque<Task> tasks_;
  size_t threads_ = 0;
  size_t idle_ = 0;  // threads waiting for a task; tasks_.size() never exceeds it for long
  std::chrono::milliseconds idleTimeout_{std::chrono::seconds{10}};
};

// Counts asynchronous work (queued or running blocks of every queue, the main queue included,
// and operations while their start() runs) so that tests and hosts can wait until the dispatch
// system is quiet. Lock-free unless someone is waiting.
void workStarted();
void workFinished();
bool waitUntilNoWork(std::chrono::milliseconds limit);

// Names the calling thread (at most 15 characters are kept), skipping the system call when the
// thread already carries that name.
void setCurrentThreadName(const std::string& name);

}  // namespace sonorell::dispatch_internal
