// The download engine: the host's entry point for downloading audiobooks. Owned by QSOSonorell.
#pragma once

#include <cstdint>
#include <string_view>

#include "sonorell/export.h"

namespace sonorell {

class SONORELL_EXPORT QSODownloadEngine {
 public:
  QSODownloadEngine();
  // The fixed description of a download failure code (10000 to 19000); never empty.
  static std::string_view descriptionForErrorCode(int64_t code);
};

}  // namespace sonorell
