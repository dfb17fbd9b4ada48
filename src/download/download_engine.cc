#include "sonorell/download_engine.h"

#include "core/error_descriptions.h"
#include "platform/services.h"

namespace sonorell {

QSODownloadEngine::QSODownloadEngine(std::shared_ptr<const Services> services)
    : services_(std::move(services)) {}

std::string_view QSODownloadEngine::descriptionForErrorCode(int64_t code) {
  return downloadDescriptionForErrorCode(code);
}

}  // namespace sonorell
