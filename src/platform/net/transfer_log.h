// Log lines of the transfer service, written to the platform log (see platform_log.h), which
// the engine routes to its own logging. Thread-safe.
#pragma once

#include "platform/log/platform_log.h"

namespace sonorell::transfer_log {

using platform_log::error;
using platform_log::info;

}  // namespace sonorell::transfer_log
