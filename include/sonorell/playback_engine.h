// The playback engine: the host's entry point for playing chapters. Owned by QSOSonorell.
#pragma once

#include <cstdint>
#include <string_view>

#include "sonorell/export.h"

namespace sonorell {

class SONORELL_EXPORT QSOPlaybackEngine {
 public:
  QSOPlaybackEngine();
  // The fixed description of a playback failure code (20000 to 26000); never empty.
  static std::string_view descriptionForErrorCode(int64_t code);
};

}  // namespace sonorell
