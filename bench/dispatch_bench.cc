// Costs of the dispatch layer, each measured next to a plain-C++ peer in the same run. After the
// run, the program prints subject/peer time ratios for the pairs registered with compare().
#include <benchmark/benchmark.h>

#include <condition_variable>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/notification_poster.h"
#include "platform/dispatch/dispatch_queue.h"
#include "ratio_reporter.h"
#include "sonorell/notification_center.h"

namespace sonorell {
namespace {

using bench::compare;

// The signal back to the benchmark thread. Both contenders use it, so only the outbound hop
// differs between them.
class Reply {
 public:
  void signal() {
    std::lock_guard lock(mutex_);
    done_ = true;
    cv_.notify_one();
  }
  void wait() {
    std::unique_lock lock(mutex_);
    cv_.wait(lock, [this] { return done_; });
    done_ = false;
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  bool done_ = false;
};

// --- async hop onto a queue -----------------------------------------------------------------

void BM_DispatchQueueAsyncRoundTrip(benchmark::State& state) {
  auto queue = DispatchQueue::create("io.sonorell.bench");
  Reply reply;
  for (auto _ : state) {
    queue->async([&reply] { reply.signal(); });
    reply.wait();
  }
  DispatchQueue::waitUntilAllIdle(std::chrono::seconds{5});
}
BENCHMARK(BM_DispatchQueueAsyncRoundTrip)->UseRealTime();

// A dedicated thread taking jobs from a mutex + condition variable: the least a hand-off costs.
class HandoffThread {
 public:
  HandoffThread() : thread_([this] { loop(); }) {}
  ~HandoffThread() {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    cv_.notify_one();
    thread_.join();
  }
  void post(std::function<void()> job) {
    std::lock_guard lock(mutex_);
    job_ = std::move(job);
    cv_.notify_one();
  }

 private:
  void loop() {
    std::unique_lock lock(mutex_);
    for (;;) {
      cv_.wait(lock, [this] { return stopping_ || job_; });
      if (stopping_) return;
      auto job = std::move(job_);
      job_ = nullptr;
      lock.unlock();
      job();
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable cv_;
  std::function<void()> job_;
  bool stopping_ = false;
  std::thread thread_;
};

void BM_MutexCondvarHandoffRoundTrip(benchmark::State& state) {
  HandoffThread worker;
  Reply reply;
  for (auto _ : state) {
    worker.post([&reply] { reply.signal(); });
    reply.wait();
  }
}
BENCHMARK(BM_MutexCondvarHandoffRoundTrip)->UseRealTime();

const bool kCompareAsyncHop =
    compare("BM_DispatchQueueAsyncRoundTrip", "BM_MutexCondvarHandoffRoundTrip");

// --- a notification through the poster ------------------------------------------------------

// Post through the engine's poster (hop onto its queue, deliver to an observer) until the
// observer has it: what every engine event costs before a host sees it.
void BM_NotificationPosterRoundTrip(benchmark::State& state) {
  auto poster = QSONotificationPoster::sharedPoster();
  Reply reply;
  auto token = NotificationCenter::defaultCenter().addObserver(
      "io.sonorell.bench", [&reply](const Notification&) { reply.signal(); });
  for (auto _ : state) {
    poster->postNotificationWithName("io.sonorell.bench",
                                     Dictionary{{"audiobookID", Value("12345")}});
    reply.wait();
  }
  NotificationCenter::defaultCenter().removeObserver(token);
  DispatchQueue::waitUntilAllIdle(std::chrono::seconds{5});
}
BENCHMARK(BM_NotificationPosterRoundTrip)->UseRealTime();

const bool kComparePoster =
    compare("BM_NotificationPosterRoundTrip", "BM_MutexCondvarHandoffRoundTrip");

}  // namespace
}  // namespace sonorell

int main(int argc, char** argv) { return sonorell::bench::runBenchmarks(argc, argv); }
