// Log lines of the media layer, written to the platform log (see platform_log.h), which the
// engine routes to its own logging. Safe from any thread.
#pragma once

#include <string_view>

#include "platform/log/platform_log.h"

namespace sonorell::media_log {

inline void emit(LogType type, std::string_view line) {
  if (platform_log::wants(type)) platform_log::emit(type, line);
}

}  // namespace sonorell::media_log
