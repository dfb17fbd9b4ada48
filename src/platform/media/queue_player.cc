#include "platform/media/queue_player.h"

#include "platform/media/gst/gst_queue_player.h"

namespace sonorell {

std::shared_ptr<QueuePlayer> QueuePlayer::create() { return GstQueuePlayer::create(); }

}  // namespace sonorell
