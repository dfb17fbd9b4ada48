#include "platform/media/queue_player_base.h"

#include <algorithm>

#include "platform/dispatch/dispatch_group.h"

namespace sonorell {
namespace {

// A periodic observer: its timer stops with the token.
class PeriodicObservation : public Observation {
 public:
  explicit PeriodicObservation(std::shared_ptr<DispatchTimer> timer) : timer_(std::move(timer)) {}
  ~PeriodicObservation() override { timer_->cancel(); }
  void invalidate() override { timer_->cancel(); }

 private:
  std::shared_ptr<DispatchTimer> timer_;
};

}  // namespace

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
  for (const auto& r : released) PlayerItemControl::release(*r, this);
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
    currentItemObservers_.notify(old, nullptr);
  }
  for (const auto& r : released) PlayerItemControl::release(*r, this);
  queueDidChange();
}

void QueuePlayerBase::advanceToNextItem() {
  std::vector<ItemPtr> released;
  {
    std::lock_guard lock(queueMutex_);
    if (items_.empty()) return;
    eraseLocked(0, released);
  }
  for (const auto& r : released) PlayerItemControl::release(*r, this);
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
  PlayerItemControl::release(*ended, this);
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
  if (!queue) queue = DispatchQueue::main();
  double seconds = interval.seconds();
  if (!(seconds > 0)) seconds = 0.5;
  std::weak_ptr<QueuePlayerBase> weakSelf = weak_from_this();
  // Reports while time moves, and once more when it has stopped.
  auto last = std::make_shared<int64_t>(-1);
  auto timer =
      DispatchTimer::create(queue, std::chrono::nanoseconds(static_cast<int64_t>(seconds * 1e9)),
                            Duration{0}, [weakSelf, callback = std::move(callback), last] {
                              auto self = weakSelf.lock();
                              if (!self) return;
                              MediaTime now = self->currentTime();
                              int64_t ns = now.isNumeric() ? now.nanoseconds() : -2;
                              if (ns == *last && self->rate() == 0.0f) return;
                              *last = ns;
                              callback(now);
                            });
  timer->resume();
  return std::make_shared<PeriodicObservation>(std::move(timer));
}

ObservationToken QueuePlayerBase::observeCurrentItem(DispatchQueuePtr queue,
                                                     CurrentItemCallback callback) {
  return currentItemObservers_.add(std::move(queue), std::move(callback));
}

}  // namespace sonorell
