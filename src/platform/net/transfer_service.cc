#include "platform/net/transfer_service.h"

#include <unistd.h>

#include "platform/net/curl_loop.h"
#include "platform/net/transfer_log.h"

namespace sonorell {

std::shared_ptr<TransferService> TransferService::shared() {
  static const std::shared_ptr<TransferService> service = [] {
    ErrorPtr error;
    TransferServiceOptions defaults;
    defaults.loop = CurlLoop::shared();
    auto made = create(defaults, &error);
    if (!made) {
      // Without a Library directory transfers still run; they just do not outlive the process.
      transfer_log::error("[TransferService] no journal (%@); transfers are not kept",
                          error ? error->description() : std::string("?"));
      TransferServiceOptions options;
      options.loop = CurlLoop::shared();
      options.journalFile = ":memory:";
      options.temporaryDirectory = std::filesystem::temp_directory_path() /
                                   ("sonorell-transfers-" + std::to_string(::getpid()));
      made = create(std::move(options), nullptr);
    }
    return made;
  }();
  return service;
}

}  // namespace sonorell
