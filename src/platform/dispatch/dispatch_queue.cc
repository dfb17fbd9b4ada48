#include "platform/dispatch/dispatch_queue.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "platform/dispatch/dispatch_group.h"
#include "platform/dispatch/thread_pool.h"

namespace sonorell {

namespace {

using dispatch_internal::ThreadPool;
using dispatch_internal::workFinished;
using dispatch_internal::workStarted;

class QueueImpl;

// The queues this thread is serving, innermost first: a worker's queue, then any queues it
// holds through sync. Thread-local, so no lock.
struct Frame {
  QueueImpl* queue;
  Frame* outer;
};
thread_local Frame* tFrames = nullptr;

class FrameScope {
 public:
  explicit FrameScope(QueueImpl* queue) : frame_{queue, tFrames} { tFrames = &frame_; }
  ~FrameScope() { tFrames = frame_.outer; }
  FrameScope(const FrameScope&) = delete;
  FrameScope& operator=(const FrameScope&) = delete;

 private:
  Frame frame_;
};

bool threadHolds(const QueueImpl* queue) {
  for (Frame* f = tFrames; f != nullptr; f = f->outer) {
    if (f->queue == queue) return true;
  }
  return false;
}

// A sync caller waiting for its turn; it lives on the caller's stack and is guarded by the
// queue's mutex.
struct SyncWaiter {
  std::condition_variable turn;
  bool granted = false;
};

// A queued async block, or (waiter set) the place where a sync caller takes over the queue.
struct Item {
  DispatchQueue::Block block;
  SyncWaiter* waiter = nullptr;
};

enum class MainMode { Unclaimed, EngineThread, Adopted };

class QueueImpl final : public DispatchQueue {
 public:
  QueueImpl(std::string label, bool isMain) : label_(std::move(label)), isMain_(isMain) {}

  const std::string& labelText() const { return label_; }

  void enqueue(Block block) {
    workStarted();
    std::unique_lock lock(mutex_);
    items_.push_back(Item{std::move(block), nullptr});
    if (isMain_) {
      if (mode_ == MainMode::Unclaimed) startEngineMainThreadLocked();
      mainWork_.notify_one();
      return;
    }
    if (owned_) return;  // the holder will get to it
    owned_ = true;
    lock.unlock();
    submitDrain();
  }

  void runSync(const Block& block) {
    // On the main thread the main queue is ours even between blocks (a host that pumps).
    if (threadHolds(this) || (isMain_ && isMainThreadNow())) {
      FrameScope scope(this);
      block();
      return;
    }
    if (isMain_) {
      runSyncOnMain(block);
      return;
    }
    {
      std::unique_lock lock(mutex_);
      if (owned_) {
        SyncWaiter waiter;
        items_.push_back(Item{nullptr, &waiter});
        waiter.turn.wait(lock, [&] { return waiter.granted; });
      } else {
        owned_ = true;
      }
    }
    // The queue is ours until release(), even if the block throws.
    struct Release {
      QueueImpl* queue;
      ~Release() { queue->release(); }
    } release{this};
    FrameScope scope(this);
    block();
  }

  // --- main queue ---------------------------------------------------------------------------

  bool adoptMain() {
    std::lock_guard lock(mutex_);
    auto me = std::this_thread::get_id();
    if (mode_ == MainMode::EngineThread) return false;
    if (mode_ == MainMode::Adopted) return mainThread_.load() == me;
    mode_ = MainMode::Adopted;
    mainThread_.store(me);
    return true;
  }

  void serveMainUntilStopped() {
    FrameScope scope(this);
    std::unique_lock lock(mutex_);
    for (;;) {
      mainWork_.wait(lock, [&] { return !items_.empty() || stopRequested_; });
      if (stopRequested_) {
        stopRequested_ = false;
        return;
      }
      runFrontMainLocked(lock);
    }
  }

  void requestStop() {
    std::lock_guard lock(mutex_);
    stopRequested_ = true;
    mainWork_.notify_all();
  }

  size_t pumpOnce() {
    FrameScope scope(this);
    std::unique_lock lock(mutex_);
    // Only what is queued now: blocks queued by these blocks wait for the next pump.
    size_t count = items_.size();
    for (size_t i = 0; i < count; ++i) runFrontMainLocked(lock);
    return count;
  }

  bool isMainThreadNow() const { return mainThread_.load() == std::this_thread::get_id(); }

 private:
  void submitDrain() {
    ThreadPool::shared().submit(
        [self = std::static_pointer_cast<QueueImpl>(shared_from_this())] { self->drain(); });
  }

  // Runs the queue's blocks on a pool worker until it is empty or a sync caller's turn comes.
  void drain() {
    dispatch_internal::setCurrentThreadName(label_);
    FrameScope scope(this);
    std::unique_lock lock(mutex_);
    for (;;) {
      if (items_.empty()) {
        owned_ = false;
        return;
      }
      if (items_.front().waiter != nullptr) {
        grantFrontLocked();
        return;
      }
      Block block = std::move(items_.front().block);
      items_.pop_front();
      lock.unlock();
      block();
      block = nullptr;  // what the block captured goes before the work counts as done
      workFinished();
      lock.lock();
    }
  }

  // A sync caller is done with the queue: pass it to the next waiter, a worker, or nobody.
  void release() {
    std::unique_lock lock(mutex_);
    if (items_.empty()) {
      owned_ = false;
    } else if (items_.front().waiter != nullptr) {
      grantFrontLocked();
    } else {
      lock.unlock();
      submitDrain();
    }
  }

  void grantFrontLocked() {
    SyncWaiter* waiter = items_.front().waiter;
    items_.pop_front();
    waiter->granted = true;
    waiter->turn.notify_one();  // under the lock: the waiter's stack frame is still alive
  }

  void runSyncOnMain(const Block& block) {
    std::mutex doneMutex;
    std::condition_variable doneCv;
    bool done = false;
    enqueue([&] {
      block();
      std::lock_guard lock(doneMutex);
      done = true;
      doneCv.notify_one();  // under the lock: the caller returns once it sees `done`
    });
    std::unique_lock lock(doneMutex);
    doneCv.wait(lock, [&] { return done; });
  }

  void runFrontMainLocked(std::unique_lock<std::mutex>& lock) {
    Block block = std::move(items_.front().block);
    items_.pop_front();
    lock.unlock();
    block();
    block = nullptr;
    workFinished();
    lock.lock();
  }

  void startEngineMainThreadLocked() {
    mode_ = MainMode::EngineThread;
    // The main queue is never destroyed, so the thread may keep a plain pointer to it.
    std::thread([this] {
      mainThread_.store(std::this_thread::get_id());
      dispatch_internal::setCurrentThreadName("sonorell-main");
      serveMainUntilStopped();
    }).detach();
  }

  const std::string label_;
  const bool isMain_;
  std::mutex mutex_;
  std::deque<Item> items_;  // guarded by mutex_
  // A worker or a sync caller holds the queue; while false, items_ is empty. Guarded by mutex_.
  bool owned_ = false;

  // Main queue only, guarded by mutex_ except mainThread_ (read lock-free by isMainThread()).
  MainMode mode_ = MainMode::Unclaimed;
  std::condition_variable mainWork_;
  bool stopRequested_ = false;
  std::atomic<std::thread::id> mainThread_{};
};

QueueImpl& impl(DispatchQueue* queue) { return *static_cast<QueueImpl*>(queue); }
const QueueImpl& impl(const DispatchQueue* queue) { return *static_cast<const QueueImpl*>(queue); }

std::shared_ptr<QueueImpl>& mainQueue() {
  // Leaked: its serving thread and late blocks may outlive static destruction.
  static auto* queue = new std::shared_ptr<QueueImpl>(std::make_shared<QueueImpl>("main", true));
  return *queue;
}

}  // namespace

std::shared_ptr<DispatchQueue> DispatchQueue::create(std::string label) {
  return std::make_shared<QueueImpl>(std::move(label), false);
}

std::shared_ptr<DispatchQueue> DispatchQueue::main() { return mainQueue(); }

bool DispatchQueue::isMainThread() { return mainQueue()->isMainThreadNow(); }

void DispatchQueue::runMain() {
  QueueImpl& queue = *mainQueue();
  // Too late once the engine's own main thread serves the queue (or another thread adopted it).
  if (!queue.adoptMain()) return;
  queue.serveMainUntilStopped();
}

void DispatchQueue::stopMain() { mainQueue()->requestStop(); }

size_t DispatchQueue::pumpMain() {
  QueueImpl& queue = *mainQueue();
  if (!queue.adoptMain()) return 0;
  return queue.pumpOnce();
}

DispatchQueue* DispatchQueue::current() { return tFrames != nullptr ? tFrames->queue : nullptr; }

bool DispatchQueue::waitUntilAllIdle(std::chrono::milliseconds limit) {
  return dispatch_internal::waitUntilNoWork(limit);
}

DispatchQueue::~DispatchQueue() = default;

const std::string& DispatchQueue::label() const { return impl(this).labelText(); }

void DispatchQueue::async(Block block) { impl(this).enqueue(std::move(block)); }

void DispatchQueue::async(const std::shared_ptr<DispatchGroup>& group, Block block) {
  group->enter();
  impl(this).enqueue([group, block = std::move(block)] {
    block();
    group->leave();
  });
}

void DispatchQueue::sync(const Block& block) { impl(this).runSync(block); }

void DispatchQueue::after(Duration delay, Block block) {
  std::shared_ptr<Clock> clock = Clock::current();
  // Like GCD, the pending block keeps the queue alive until it is queued.
  clock->schedule(clock->now() + delay,
                  [self = shared_from_this(), block = std::move(block)]() mutable {
                    self->async(std::move(block));
                  });
}

}  // namespace sonorell
