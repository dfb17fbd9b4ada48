#include "platform/media/queue_player.h"

#include <mutex>

#include "platform/media/gst/gst_queue_player.h"

namespace sonorell {
namespace {

std::mutex& factoryMutex() {
  static std::mutex mutex;
  return mutex;
}

QueuePlayer::Factory& factory() {
  static QueuePlayer::Factory f;
  return f;
}

}  // namespace

std::shared_ptr<QueuePlayer> QueuePlayer::create() {
  Factory f;
  {
    std::lock_guard lock(factoryMutex());
    f = factory();
  }
  if (f) return f();
  return GstQueuePlayer::create();
}

void QueuePlayer::setFactory(Factory f) {
  std::lock_guard lock(factoryMutex());
  factory() = std::move(f);
}

}  // namespace sonorell
