#include "platform/media/player_item.h"

namespace sonorell {

std::shared_ptr<PlayerItem> PlayerItem::create(std::string url) {
  return std::shared_ptr<PlayerItem>(new PlayerItem(std::move(url)));
}

PlayerItem::PlayerItem(std::string url) : url_(std::move(url)), loader_(ResourceLoader::create()) {}

PlayerItemStatus PlayerItem::status() const {
  std::lock_guard lock(mutex_);
  return status_;
}

ErrorPtr PlayerItem::error() const {
  std::lock_guard lock(mutex_);
  return error_;
}

MediaTime PlayerItem::duration() const {
  std::lock_guard lock(mutex_);
  return duration_;
}

bool PlayerItem::isPlaybackLikelyToKeepUp() const {
  std::lock_guard lock(mutex_);
  return likelyToKeepUp_;
}

bool PlayerItem::isPlaybackBufferEmpty() const {
  std::lock_guard lock(mutex_);
  return bufferEmpty_;
}

bool PlayerItem::isPlaybackBufferFull() const {
  std::lock_guard lock(mutex_);
  return bufferFull_;
}

TimePitchAlgorithm PlayerItem::audioTimePitchAlgorithm() const {
  std::lock_guard lock(mutex_);
  return pitch_;
}

void PlayerItem::setAudioTimePitchAlgorithm(TimePitchAlgorithm algorithm) {
  std::lock_guard lock(mutex_);
  pitch_ = algorithm;
}

ObservationToken PlayerItem::observeStatus(DispatchQueuePtr queue, StatusCallback callback) {
  return statusObservers_.add(std::move(queue), std::move(callback), "PlayerItem::observeStatus");
}

ObservationToken PlayerItem::observeEvents(DispatchQueuePtr queue, EventCallback callback) {
  return eventObservers_.add(std::move(queue), std::move(callback), "PlayerItem::observeEvents");
}

void PlayerItemControl::setStatus(PlayerItem& item, PlayerItemStatus status, ErrorPtr error) {
  PlayerItemStatus old;
  {
    std::lock_guard lock(item.mutex_);
    old = item.status_;
    if (old == status) return;
    // A failed item stays failed: later answers of its loader cannot revive it.
    if (old == PlayerItemStatus::Failed) return;
    item.status_ = status;
    if (status == PlayerItemStatus::Failed) item.error_ = std::move(error);
  }
  item.statusObservers_.notify(old, status);
}

void PlayerItemControl::setDuration(PlayerItem& item, MediaTime duration) {
  std::lock_guard lock(item.mutex_);
  item.duration_ = duration;
}

void PlayerItemControl::setBufferState(PlayerItem& item, bool likelyToKeepUp, bool bufferEmpty,
                                       bool bufferFull) {
  std::lock_guard lock(item.mutex_);
  item.likelyToKeepUp_ = likelyToKeepUp;
  item.bufferEmpty_ = bufferEmpty;
  item.bufferFull_ = bufferFull;
}

void PlayerItemControl::post(PlayerItem& item, PlayerItemEvent event, ErrorPtr error) {
  item.eventObservers_.notify(event, error);
}

bool PlayerItemControl::claim(PlayerItem& item, const void* player) {
  std::lock_guard lock(item.mutex_);
  if (item.owner_ && item.owner_ != player) return false;
  item.owner_ = player;
  return true;
}

void PlayerItemControl::release(PlayerItem& item, const void* player) {
  std::lock_guard lock(item.mutex_);
  if (item.owner_ == player) item.owner_ = nullptr;
}

bool PlayerItemControl::isOwnedBy(const PlayerItem& item, const void* player) {
  std::lock_guard lock(item.mutex_);
  return item.owner_ == player;
}

}  // namespace sonorell
