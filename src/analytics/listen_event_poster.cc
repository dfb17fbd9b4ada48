#include "analytics/listen_event_poster.h"

#include <algorithm>
#include <unordered_set>

#include "analytics/analytics_body.h"
#include "core/logging.h"
#include "core/service_urls.h"
#include "persistence/filesystem_helper.h"
#include "platform/foundation/uuid.h"

namespace sonorell {

namespace {
constexpr std::chrono::seconds kRequestTimeout{30};
constexpr int kNoContent = 204;
}  // namespace

std::shared_ptr<QLListenEventPoster> QLListenEventPoster::create(std::shared_ptr<HttpClient> http,
                                                                 int32_t maxEventQueueSize,
                                                                 int32_t flushInterval) {
  std::shared_ptr<QLListenEventPoster> poster(
      new QLListenEventPoster(std::move(http), maxEventQueueSize, flushInterval));
  poster->start();
  return poster;
}

QLListenEventPoster::QLListenEventPoster(std::shared_ptr<HttpClient> http,
                                         int32_t maxEventQueueSize, int32_t flushInterval)
    : http_(std::move(http)),
      eventQueueFlushInterval_(flushInterval),
      maxEventQueueSize_(maxEventQueueSize),
      networkingQueue_(DispatchQueue::create("io.sonorell.listeningevent")),
      readWriteQueue_(DispatchQueue::create("io.sonorell.listeningevent.readwrite")),
      readWriteGroup_(DispatchGroup::create()),
      networkingEventGroup_(DispatchGroup::create()),
      archive_(FilesystemHelper::listenEventsArchivePath()) {
  // No other thread can see the poster yet, so the queue is filled here directly.
  eventQueue_ = archive_.load();
  for (const auto& entry : eventQueue_) {
    ObjectRef& ref = queuedObjects_[entry.event.get()];
    ref.id = entry.object;
    ++ref.places;
    nextSeq_ = std::max(nextSeq_, entry.seq + 1);
    nextObject_ = std::max(nextObject_, entry.object + 1);
  }
}

QLListenEventPoster::~QLListenEventPoster() {
  if (networkingTimer_) networkingTimer_->cancel();
}

void QLListenEventPoster::start() {
  if (eventQueueFlushInterval_ <= 0) {
    LogEngineWarning("[ListenEventPoster] Flush interval %d is not positive; no timed flushes",
                     eventQueueFlushInterval_);
    return;
  }
  std::chrono::seconds interval(eventQueueFlushInterval_);
  std::weak_ptr<QLListenEventPoster> weak = weak_from_this();
  networkingTimer_ = DispatchTimer::create(networkingQueue_, interval, interval / 10, [weak] {
    if (auto self = weak.lock()) self->flushListeningEventQueue();
  });
  networkingTimer_->resume();
}

void QLListenEventPoster::submitListenEvent(QLListenEventPtr event) {
  if (!event) return;
  std::weak_ptr<QLListenEventPoster> weak = weak_from_this();
  readWriteQueue_->async(readWriteGroup_, [weak, event = std::move(event)]() mutable {
    auto self = weak.lock();
    if (!self) return;
    self->enqueue(std::move(event));
    if (self->eventQueue_.size() > static_cast<size_t>(std::max(self->maxEventQueueSize_, 0))) {
      self->flushListeningEventQueue();
    }
  });
}

void QLListenEventPoster::enqueue(QLListenEventPtr event) {
  ObjectRef& ref = queuedObjects_[event.get()];
  if (ref.places++ == 0) ref.id = nextObject_++;
  eventQueue_.push_back(ListenEventArchive::Entry{nextSeq_++, ref.id, std::move(event)});
  archive_.recordAdd(eventQueue_.back(), eventQueue_);
}

void QLListenEventPoster::flushListeningEventQueue() {
  std::weak_ptr<QLListenEventPoster> weak = weak_from_this();
  networkingQueue_->async(networkingEventGroup_, [weak] {
    auto self = weak.lock();
    if (!self) return;
    std::optional<HttpRequest> request = self->analyticsAPIRequest();
    if (!request) return;
    std::string requestID = request->headers.front().second;
    // The group covers the request until its completion has been handled.
    std::shared_ptr<DispatchGroup> group = self->networkingEventGroup_;
    group->enter();
    self->http_->send(
        std::move(*request),
        [weak, requestID, group](std::optional<HttpResponse> response, ErrorPtr error) {
          if (auto owner = weak.lock()) owner->didComplete(requestID, response, error);
          group->leave();
        });
  });
}

std::optional<HttpRequest> QLListenEventPoster::analyticsAPIRequest() {
  HttpRequest request;
  request.method = "POST";
  request.url = ServiceURLs::analyticsURL();
  request.timeout = kRequestTimeout;
  std::string requestID = makeUUIDString();
  request.headers.emplace_back("X-Request-Id", requestID);
  request.headers.emplace_back("Content-Type", "application/json");

  bool empty = false;
  readWriteQueue_->sync([&] {
    if (eventQueue_.empty()) {
      empty = true;
      return;
    }
    std::vector<QLListenEventPtr> snapshot;
    snapshot.reserve(eventQueue_.size());
    for (const auto& entry : eventQueue_) snapshot.push_back(entry.event);
    if (auto key = snapshot.back()->sessionKey()) request.headers.emplace_back("Session-Key", *key);
    request.body = analyticsBody(snapshot);
    processingEventQueueCache_[requestID] = std::move(snapshot);
  });
  if (empty) return std::nullopt;
  return request;
}

void QLListenEventPoster::didComplete(const std::string& requestID,
                                      const std::optional<HttpResponse>& response,
                                      const ErrorPtr& error) {
  bool delivered = !error && response && response->status == kNoContent;
  readWriteQueue_->sync([&] {
    auto found = processingEventQueueCache_.find(requestID);
    if (found == processingEventQueueCache_.end()) return;
    std::vector<QLListenEventPtr> snapshot = std::move(found->second);
    processingEventQueueCache_.erase(found);
    // Anything but 204 keeps the events for the next flush.
    if (delivered) removeSnapshot(snapshot);
  });
}

void QLListenEventPoster::removeSnapshot(const std::vector<QLListenEventPtr>& snapshot) {
  std::unordered_set<const QLListenEvent*> sent;
  for (const auto& event : snapshot) sent.insert(event.get());
  std::vector<uint64_t> removed;
  std::vector<ListenEventArchive::Entry> kept;
  kept.reserve(eventQueue_.size());
  for (auto& entry : eventQueue_) {
    // Every place of a sent object goes, including places it took after the snapshot.
    if (sent.count(entry.event.get()) == 0) {
      kept.push_back(std::move(entry));
      continue;
    }
    removed.push_back(entry.seq);
    auto ref = queuedObjects_.find(entry.event.get());
    if (ref != queuedObjects_.end() && --ref->second.places == 0) queuedObjects_.erase(ref);
  }
  eventQueue_ = std::move(kept);
  archive_.recordRemove(removed, eventQueue_);
}

bool QLListenEventPoster::waitForReadWrite(std::chrono::milliseconds timeout) {
  return readWriteGroup_->wait(timeout);
}

bool QLListenEventPoster::waitForNetworking(std::chrono::milliseconds timeout) {
  return networkingEventGroup_->wait(timeout);
}

size_t QLListenEventPoster::waitingEventCount() {
  size_t count = 0;
  readWriteQueue_->sync([&] { count = eventQueue_.size(); });
  return count;
}

std::vector<QLListenEventPtr> QLListenEventPoster::eventQueueForTesting() {
  std::vector<QLListenEventPtr> events;
  readWriteQueue_->sync([&] {
    for (const auto& entry : eventQueue_) events.push_back(entry.event);
  });
  return events;
}

size_t QLListenEventPoster::processingRequestCountForTesting() {
  size_t count = 0;
  readWriteQueue_->sync([&] { count = processingEventQueueCache_.size(); });
  return count;
}

}  // namespace sonorell
