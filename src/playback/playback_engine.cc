#include "sonorell/playback_engine.h"

#include "core/error_descriptions.h"

namespace sonorell {

QSOPlaybackEngine::QSOPlaybackEngine() = default;

std::string_view QSOPlaybackEngine::descriptionForErrorCode(int64_t code) {
  return playbackDescriptionForErrorCode(code);
}

}  // namespace sonorell
