// Log lines of the media layer, written to the platform log (category "media"). The platform
// sits below the engine's logging, so it writes there directly. Safe from any thread.
#pragma once

#include <string>

#include "sonorell/log_engine.h"

namespace sonorell::media_log {

void emit(LogType type, const std::string& line);

}  // namespace sonorell::media_log
