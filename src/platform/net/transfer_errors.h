// The errors the network layer makes itself (libcurl's own failures go through
// urlErrorForCurlCode): URL-loading and POSIX errors with the platform codes. Stateless.
#pragma once

#include <cstdint>
#include <string>

#include "sonorell/error.h"

namespace sonorell {

ErrorPtr transferError(int64_t urlLoadingCode, std::string description);
// URL-loading -999, what a cancelled task or request completes with.
ErrorPtr transferCancelledError();
// URL-loading -997: the service lost the transfer (its file vanished between processes).
ErrorPtr transferLostError(std::string description);
// POSIX 28, before a single byte is written.
ErrorPtr noSpaceError(uint64_t needed, uint64_t available);

}  // namespace sonorell
