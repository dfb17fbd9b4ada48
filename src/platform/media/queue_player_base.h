// The part of a QueuePlayer that both backends share: the item queue with its current item, the
// action at item end, current-item observation and periodic time observers. The queue is guarded
// by queueMutex_; a backend hears of changes through queueDidChange() (called outside the mutex)
// and reads the latest state back, so that hooks racing from two threads cannot reorder it.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "platform/media/queue_player.h"

namespace sonorell {

class QueuePlayerBase : public QueuePlayer, public std::enable_shared_from_this<QueuePlayerBase> {
 public:
  // Releases the items still queued so that another player may take them.
  ~QueuePlayerBase() override;

  std::vector<ItemPtr> items() const override;
  ItemPtr currentItem() const override;
  bool canInsertItem(const ItemPtr& item, const ItemPtr& after) const override;
  bool insertItem(const ItemPtr& item, const ItemPtr& after) override;
  void removeItem(const ItemPtr& item) override;
  void removeAllItems() override;
  void advanceToNextItem() override;
  ActionAtItemEnd actionAtItemEnd() const override;
  void setActionAtItemEnd(ActionAtItemEnd action) override;
  void setAutomaticallyWaitsToMinimizeStalling(bool waits) override;
  void setAllowsExternalPlayback(bool allows) override;
  ObservationToken addPeriodicTimeObserver(MediaTime interval, DispatchQueuePtr queue,
                                           TimeCallback callback) override;
  ObservationToken observeCurrentItem(DispatchQueuePtr queue,
                                      CurrentItemCallback callback) override;

 protected:
  // The queue changed (items added or removed, current item replaced by a call). Called outside
  // queueMutex_, on the caller's thread.
  virtual void queueDidChange() = 0;

  // For a backend whose playback finished `ended`: drops it if it is still current and returns
  // the new current item (null when the queue emptied or `ended` was no longer current).
  ItemPtr dropEndedItem(const ItemPtr& ended);
  // The item after the current one, or null.
  ItemPtr nextItem() const;

  // The queue a seek's completion goes to, taken when seekToTime is called: the caller's queue,
  // or the main queue when the caller runs on no queue.
  static DispatchQueuePtr seekCompletionQueue();
  // Queues completion(finished) on `queue`; an empty completion is skipped.
  static void completeSeek(const DispatchQueuePtr& queue, SeekCompletion completion, bool finished);

 private:
  bool canInsertLocked(const ItemPtr& item, const ItemPtr& after) const;
  // Removes and releases the item at `index` under the lock, adding it to `released` so that it
  // is destroyed after the lock is dropped; notifies when the current item changed.
  void eraseLocked(size_t index, std::vector<ItemPtr>& released);

  mutable std::mutex queueMutex_;
  std::vector<ItemPtr> items_;                         // guarded by queueMutex_
  ActionAtItemEnd action_ = ActionAtItemEnd::Advance;  // guarded by queueMutex_
  ObserverList<ItemPtr, ItemPtr> currentItemObservers_;
};

}  // namespace sonorell
