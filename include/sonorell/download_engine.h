// The download engine: the host's entry point for downloading audiobooks. Owned by QSOSonorell.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "sonorell/export.h"

namespace sonorell {

struct Services;

class SONORELL_EXPORT QSODownloadEngine {
 public:
  // Made by QSOSonorell on the engine's services; hosts reach it through the facade.
  explicit QSODownloadEngine(std::shared_ptr<const Services> services);
  // The fixed description of a download failure code (10000 to 19000); never empty.
  static std::string_view descriptionForErrorCode(int64_t code);

 private:
  const std::shared_ptr<const Services> services_;
};

}  // namespace sonorell
