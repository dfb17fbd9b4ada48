#include "platform/net/transfer_errors.h"

#include <cerrno>

namespace sonorell {

ErrorPtr transferError(int64_t urlLoadingCode, std::string description) {
  return Error::make(std::string(kURLLoadingErrorDomain), urlLoadingCode, std::move(description),
                     nullptr);
}

ErrorPtr transferCancelledError() { return transferError(kURLErrorCancelled, "cancelled"); }

ErrorPtr transferLostError(std::string description) {
  return transferError(kURLErrorBackgroundSessionWasDisconnected, std::move(description));
}

ErrorPtr noSpaceError(uint64_t needed, uint64_t available) {
  return Error::posix(ENOSPC, "need " + std::to_string(needed) + " bytes, " +
                                  std::to_string(available) + " available");
}

}  // namespace sonorell
