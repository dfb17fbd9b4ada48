#include "sonorell/playback_engine.h"

#include "core/error_descriptions.h"
#include "platform/services.h"

namespace sonorell {

QSOPlaybackEngine::QSOPlaybackEngine(std::shared_ptr<const Services> services)
    : services_(std::move(services)) {}

std::string_view QSOPlaybackEngine::descriptionForErrorCode(int64_t code) {
  return playbackDescriptionForErrorCode(code);
}

}  // namespace sonorell
