// Serial, labelled dispatch queues in the manner of GCD, on a shared, growing thread pool, plus
// the main queue. A queue runs one block at a time in submission order; its state is guarded by
// the queue's own mutex, so every operation is safe from any thread.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "platform/dispatch/clock.h"

namespace sonorell {

class DispatchGroup;

class DispatchQueue : public std::enable_shared_from_this<DispatchQueue> {
 public:
  using Block = std::function<void()>;

  // A new serial queue. Worker threads carry the label (cut to 15 characters) as their name
  // while they serve it.
  static std::shared_ptr<DispatchQueue> create(std::string label);

  // The main queue. It is served by an engine-owned thread unless a host adopts it with
  // runMain() or pumpMain() before anything is queued on it.
  static std::shared_ptr<DispatchQueue> main();
  // True on the thread that currently serves the main queue.
  static bool isMainThread();
  // Serves the main queue on the calling thread until stopMain(); the host's main loop. The
  // adopting thread stays the main thread afterwards. Returns at once, serving nothing, when
  // the engine's thread or another thread already serves the queue.
  static void runMain();
  // Ends runMain(); a stop that arrives before the loop starts is kept for it.
  static void stopMain();
  // Runs what is queued on the main queue now, on the calling thread, and returns the number of
  // blocks run. Only for hosts that adopted the main queue (before it was first used); the
  // first call adopts it, and anywhere else it returns 0.
  static size_t pumpMain();

  // The queue whose block is running on this thread, or null.
  static DispatchQueue* current();
  // Blocks until no queue has queued or running asynchronous work (or the limit passes).
  static bool waitUntilAllIdle(std::chrono::milliseconds limit);

  virtual ~DispatchQueue();

  const std::string& label() const;
  bool isCurrent() const { return current() == this; }

  void async(Block block);
  void async(const std::shared_ptr<DispatchGroup>& group, Block block);
  // Waits until the queue is free, then runs the block on the caller's thread while the queue
  // stays reserved (the main queue instead runs it on the main thread). Called from a block
  // already running on this queue it runs inline.
  void sync(const Block& block);
  // Queues the block after `delay` of Clock::current() time.
  void after(Duration delay, Block block);

 protected:
  DispatchQueue() = default;
};

using DispatchQueuePtr = std::shared_ptr<DispatchQueue>;

}  // namespace sonorell
