// The playback engine: the host's entry point for playing chapters. Owned by QSOSonorell.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "sonorell/export.h"

namespace sonorell {

struct Services;

class SONORELL_EXPORT QSOPlaybackEngine {
 public:
  // Made by QSOSonorell on the engine's services; hosts reach it through the facade.
  explicit QSOPlaybackEngine(std::shared_ptr<const Services> services);
  // The fixed description of a playback failure code (20000 to 26000); never empty.
  static std::string_view descriptionForErrorCode(int64_t code);

 private:
  const std::shared_ptr<const Services> services_;
};

}  // namespace sonorell
