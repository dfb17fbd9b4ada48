// QLListenEventPoster keeps completed listen events in a queue that survives restarts and posts
// the whole queue to the analytics endpoint on a timer and when it grows past a size. The queue,
// the request snapshots and the archive belong to the read/write queue
// ("io.sonorell.listeningevent.readwrite"); flushes and the timer run on the networking queue
// ("io.sonorell.listeningevent"). Blocks and completions hold the poster weakly.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "analytics/listen_event.h"
#include "analytics/listen_event_archive.h"
#include "platform/dispatch/dispatch_group.h"
#include "platform/dispatch/dispatch_queue.h"
#include "platform/net/http_client.h"

namespace sonorell {

class QLListenEventPoster : public std::enable_shared_from_this<QLListenEventPoster> {
 public:
  // Posts through `http`. Reads the archive into the queue and starts the timer (first flush one
  // interval from now, on Clock::current()).
  static std::shared_ptr<QLListenEventPoster> create(std::shared_ptr<HttpClient> http,
                                                     int32_t maxEventQueueSize,
                                                     int32_t flushInterval);
  ~QLListenEventPoster();
  QLListenEventPoster(const QLListenEventPoster&) = delete;
  QLListenEventPoster& operator=(const QLListenEventPoster&) = delete;

  int32_t maxEventQueueSize() const { return maxEventQueueSize_; }
  int32_t eventQueueFlushInterval() const { return eventQueueFlushInterval_; }

  // Queues the event and records it in the archive; flushes when the queue then holds more
  // than maxEventQueueSize events. Returns at once.
  void submitListenEvent(QLListenEventPtr event);
  // Posts every queued event (even ones a request in flight already carries). Returns at once;
  // events leave the queue only when the server answers 204.
  void flushListeningEventQueue();

  // Waits (real time) for queued archive work, as termination does. True if it all finished.
  bool waitForReadWrite(std::chrono::milliseconds timeout);
  // Waits (real time) for flushes, including their requests' completions.
  bool waitForNetworking(std::chrono::milliseconds timeout);

  // Events queued and not yet accepted by the service.
  size_t waitingEventCount();
  std::vector<QLListenEventPtr> eventQueueForTesting();
  size_t processingRequestCountForTesting();

 private:
  QLListenEventPoster(std::shared_ptr<HttpClient> http, int32_t maxEventQueueSize,
                      int32_t flushInterval);
  void start();

  // Readwrite queue only.
  void enqueue(QLListenEventPtr event);
  void removeSnapshot(const std::vector<QLListenEventPtr>& snapshot);
  // Networking queue: the request, with its body and snapshot taken on the read/write queue;
  // nothing when the queue is empty.
  std::optional<HttpRequest> analyticsAPIRequest();
  // Any thread (the HTTP client's queue).
  void didComplete(const std::string& requestID, const std::optional<HttpResponse>& response,
                   const ErrorPtr& error);

  const std::shared_ptr<HttpClient> http_;
  const int32_t eventQueueFlushInterval_;
  const int32_t maxEventQueueSize_;
  const DispatchQueuePtr networkingQueue_;
  const DispatchQueuePtr readWriteQueue_;
  const std::shared_ptr<DispatchGroup> readWriteGroup_;
  const std::shared_ptr<DispatchGroup> networkingEventGroup_;
  std::shared_ptr<DispatchTimer> networkingTimer_;  // set once in start()

  // Guarded by readWriteQueue_.
  ListenEventArchive archive_;
  std::vector<ListenEventArchive::Entry> eventQueue_;
  std::map<std::string, std::vector<QLListenEventPtr>> processingEventQueueCache_;
  struct ObjectRef {
    uint64_t id = 0;
    size_t places = 0;
  };
  std::unordered_map<const QLListenEvent*, ObjectRef> queuedObjects_;
  uint64_t nextSeq_ = 1;
  uint64_t nextObject_ = 1;
};

}  // namespace sonorell
