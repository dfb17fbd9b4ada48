// The player the playback engine drives: a queue of items played one after the other, a rate,
// seeking, time, periodic time observers and observation of the current item. Implementations
// (GStreamer, virtual) are safe to call from any thread; each says which lock guards its state.
// Observers run on the queues their callers name (required; see observation.h for when a token
// stops them); seek completions run on the queue that asked for the seek.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "platform/dispatch/dispatch_queue.h"
#include "platform/dispatch/observation.h"
#include "platform/media/media_time.h"
#include "platform/media/player_item.h"

namespace sonorell {

enum class ActionAtItemEnd { Advance = 0, Pause = 1, None = 2 };

class QueuePlayer {
 public:
  using ItemPtr = std::shared_ptr<PlayerItem>;
  using CurrentItemCallback = std::function<void(ItemPtr oldItem, ItemPtr newItem)>;
  using TimeCallback = std::function<void(MediaTime time)>;
  using SeekCompletion = std::function<void(bool finished)>;
  using Factory = std::function<std::shared_ptr<QueuePlayer>()>;

  // A player of the GStreamer backend (Services::players chooses the backend for the engine).
  static std::shared_ptr<QueuePlayer> create();

  virtual ~QueuePlayer() = default;

  // The queue, current item first.
  virtual std::vector<ItemPtr> items() const = 0;
  virtual ItemPtr currentItem() const = 0;
  // False for a null item, one already queued here or held by another player, or an `after`
  // that is not queued.
  virtual bool canInsertItem(const ItemPtr& item, const ItemPtr& after) const = 0;
  // Inserts after `after` (null: at the end). Returns canInsertItem().
  virtual bool insertItem(const ItemPtr& item, const ItemPtr& after) = 0;
  virtual void removeItem(const ItemPtr& item) = 0;
  virtual void removeAllItems() = 0;
  // Drops the current item; the next one becomes current.
  virtual void advanceToNextItem() = 0;

  virtual ActionAtItemEnd actionAtItemEnd() const = 0;
  virtual void setActionAtItemEnd(ActionAtItemEnd action) = 0;
  virtual void setAutomaticallyWaitsToMinimizeStalling(bool waits) = 0;
  virtual void setAllowsExternalPlayback(bool allows) = 0;

  // 0 is paused; play() is rate 1. A stall sets the rate to 0: the player waits until told to
  // play again (the item's keep-up flag says when that is worth trying).
  virtual float rate() const = 0;
  virtual void setRate(float rate) = 0;
  void play() { setRate(1.0f); }
  void pause() { setRate(0.0f); }

  // The completion runs once, on the queue that called seekToTime (DispatchQueue::current() at
  // the call; the main queue when the caller runs on no queue), so the caller gets its answer
  // where its own state lives. `finished` is true when the seek finished, false when a later
  // seek or a change of item superseded it. A seek before the item is ready waits for it.
  virtual void seekToTime(MediaTime time, SeekCompletion completion) = 0;
  virtual void seekToTime(MediaTime time, MediaTime toleranceBefore, MediaTime toleranceAfter,
                          SeekCompletion completion) = 0;
  // Zero without a current item.
  virtual MediaTime currentTime() const = 0;

  // Calls `callback` with the current time every `interval` of clock time while the time moves
  // (and once when it has stopped), on `queue`, until the token is dropped or invalidated. A null
  // queue is refused: it is logged and the token never delivers.
  virtual ObservationToken addPeriodicTimeObserver(MediaTime interval, DispatchQueuePtr queue,
                                                   TimeCallback callback) = 0;
  // Every change of the current item, old and new value, on `queue` (required, as above).
  virtual ObservationToken observeCurrentItem(DispatchQueuePtr queue,
                                              CurrentItemCallback callback) = 0;
};

}  // namespace sonorell
