#include "platform/media/queue_player_base.h"

#include <algorithm>
#include <atomic>

#include "platform/dispatch/dispatch_group.h"

namespace sonorell {
namespace {

// The callback of a periodic observer, shared by its token and its timer's handler. Null once the
// token is invalidated or gone; a tick takes its own reference for the call.
using TimeCallbackSlot = std::atomic<std::shared_ptr<const QueuePlayer::TimeCallback>>;

// A periodic observer: its timer stops with the token. The timer re-checks its cancellation on
// the delivery queue before each tick, which is what makes an invalidation made there final. The
// token also lets go of the callback (and what it captured) at once, on its own thread.
class PeriodicObservation : public Observation {
 public:
  PeriodicObservation(std::shared_ptr<DispatchTimer> timer, std::shared_ptr<TimeCallbackSlot> slot)
      : timer_(std::move(timer)), slot_(std::move(slot)) {}
  ~PeriodicObservation() override { invalidate(); }
  void invalidate() override {
    timer_->cancel();
    slot_->store(nullptr);
  }

 private:
  const std::shared_ptr<DispatchTimer> timer_;
  const std::shared_ptr<TimeCallbackSlot> slot_;
};

}  // namespace

QueuePlayerBase::~QueuePlayerBase() {
  // Items claim the player by address; a dead player must not keep them, nor let a new player
  // at the same address inherit them.
  for (const auto& item : items_) PlayerItemControl::release(*item, this);
}

DispatchQueuePtr QueuePlayerBase::seekCompletionQueue() {
  if (DispatchQueue* current = DispatchQueue::current()) {
    if (auto queue = current->weak_from_this().lock()) return queue;
  }
  return DispatchQueue::main();
}

void QueuePlayerBase::completeSeek(const DispatchQueuePtr& queue, SeekCompletion completion,
                                   bool finished) {
  if (!completion) return;
  queue->async([completion = std::move(completion), finished] { completion(finished); });
}

std::vector<QueuePlayer::ItemPtr> QueuePlayerBase::items() const {
  std::lock_guard lock(queueMutex_);
  return items_;
}

QueuePlayer::ItemPtr QueuePlayerBase::currentItem() const {
  std::lock_guard lock(queueMutex_);
  return items_.empty() ? nullptr : items_.front();
}

QueuePlayer::ItemPtr QueuePlayerBase::nextItem() const {
  std::lock_guard lock(queueMutex_);
  return items_.size() < 2 ? nullptr : items_[1];
}

bool QueuePlayerBase::canInsertLocked(const ItemPtr& item, const ItemPtr& after) const {
  if (!item) return false;
  if (std::find(items_.begin(), items_.end(), item) != items_.end()) return false;
  if (!PlayerItemControl::isOwnedBy(*item, this) && !PlayerItemControl::isOwnedBy(*item, nullptr)) {
    return false;
  }
  return !after || std::find(items_.begin(), items_.end(), after) != items_.end();
}

bool QueuePlayerBase::canInsertItem(const ItemPtr& item, const ItemPtr& after) const {
  std::lock_guard lock(queueMutex_);
  return canInsertLocked(item, after);
}

bool QueuePlayerBase::insertItem(const ItemPtr& item, const ItemPtr& after) {
  {
    std::lock_guard lock(queueMutex_);
    if (!canInsertLocked(item, after) || !PlayerItemControl::claim(*item, this)) return false;
    auto at = after ? std::find(items_.begin(), items_.end(), after) + 1 : items_.end();
    bool becomesCurrent = items_.empty();
    items_.insert(at, item);
    if (becomesCurrent) currentItemObservers_.notify(nullptr, item);
  }
  queueDidChange();
  return true;
}

void QueuePlayerBase::eraseLocked(size_t index, std::vector<ItemPtr>& released) {
  ItemPtr item = items_[index];
  items_.erase(items_.begin() + static_cast<std::ptrdiff_t>(index));
  // Released under the lock: a release after it could undo an insertion of the same item that
  // another thread made in between, leaving it queued here but free for another player.
  PlayerItemControl::release(*item, this);
  released.push_back(item);
  if (index == 0) {
    currentItemObservers_.notify(item, items_.empty() ? nullptr : items_.front());
  }
}

void QueuePlayerBase::removeItem(const ItemPtr& item) {
  std::vector<ItemPtr> released;
  {
    std::lock_guard lock(queueMutex_);
    auto it = std::find(items_.begin(), items_.end(), item);
    if (it == items_.end()) return;
    eraseLocked(static_cast<size_t>(it - items_.begin()), released);
  }
  queueDidChange();
}

void QueuePlayerBase::removeAllItems() {
  std::vector<ItemPtr> released;
  {
    std::lock_guard lock(queueMutex_);
    if (items_.empty()) return;
    ItemPtr old = items_.front();
    released = std::move(items_);
    items_.clear();
    for (const auto& r : released) PlayerItemControl::release(*r, this);
    currentItemObservers_.notify(old, nullptr);
  }
  queueDidChange();
}

void QueuePlayerBase::advanceToNextItem() {
  std::vector<ItemPtr> released;
  {
    std::lock_guard lock(queueMutex_);
    if (items_.empty()) return;
    eraseLocked(0, released);
  }
  queueDidChange();
}

QueuePlayer::ItemPtr QueuePlayerBase::dropEndedItem(const ItemPtr& ended) {
  ItemPtr next;
  {
    std::lock_guard lock(queueMutex_);
    if (items_.empty() || items_.front() != ended) return nullptr;
    std::vector<ItemPtr> released;
    eraseLocked(0, released);
    next = items_.empty() ? nullptr : items_.front();
  }
  return next;
}

ActionAtItemEnd QueuePlayerBase::actionAtItemEnd() const {
  std::lock_guard lock(queueMutex_);
  return action_;
}

void QueuePlayerBase::setActionAtItemEnd(ActionAtItemEnd action) {
  {
    std::lock_guard lock(queueMutex_);
    action_ = action;
  }
  queueDidChange();
}

// Neither applies to a local audio player: it never waits on its own, and has no external route.
void QueuePlayerBase::setAutomaticallyWaitsToMinimizeStalling(bool) {}
void QueuePlayerBase::setAllowsExternalPlayback(bool) {}

ObservationToken QueuePlayerBase::addPeriodicTimeObserver(MediaTime interval,
                                                          DispatchQueuePtr queue,
                                                          TimeCallback callback) {
  if (!queue) return refuseObserverWithoutQueue("QueuePlayer::addPeriodicTimeObserver");
  double seconds = interval.seconds();
  if (!(seconds > 0)) seconds = 0.5;
  std::weak_ptr<QueuePlayerBase> weakSelf = weak_from_this();
  auto slot =
      std::make_shared<TimeCallbackSlot>(std::make_shared<const TimeCallback>(std::move(callback)));
  // Reports while time moves, and once more when it has stopped. `last` is only touched on
  // `queue`.
  auto last = std::make_shared<int64_t>(-1);
  auto timer =
      DispatchTimer::create(queue, std::chrono::nanoseconds(static_cast<int64_t>(seconds * 1e9)),
                            Duration{0}, [weakSelf, slot, last] {
                              auto self = weakSelf.lock();
                              auto callback = slot->load();
                              if (!self || !callback) return;
                              MediaTime now = self->currentTime();
                              int64_t ns = now.isNumeric() ? now.nanoseconds() : -2;
                              if (ns == *last && self->rate() == 0.0f) return;
                              *last = ns;
                              (*callback)(now);
                            });
  timer->resume();
  return std::make_shared<PeriodicObservation>(std::move(timer), std::move(slot));
}

ObservationToken QueuePlayerBase::observeCurrentItem(DispatchQueuePtr queue,
                                                     CurrentItemCallback callback) {
  return currentItemObservers_.add(std::move(queue), std::move(callback),
                                   "QueuePlayer::observeCurrentItem");
}

}  // namespace sonorell
