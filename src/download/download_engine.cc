#include "sonorell/download_engine.h"

#include "core/error_descriptions.h"

namespace sonorell {

QSODownloadEngine::QSODownloadEngine() = default;

std::string_view QSODownloadEngine::descriptionForErrorCode(int64_t code) {
  return downloadDescriptionForErrorCode(code);
}

}  // namespace sonorell
