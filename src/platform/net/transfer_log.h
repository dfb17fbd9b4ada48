// Log lines of the transfer service. The platform layer sits below the engine's log facade, so
// it writes to the platform's unified log ("io.sonorell", category "transfer"). Thread-safe.
#pragma once

#include <string>

#include "sonorell/format.h"
#include "sonorell/log_engine.h"

namespace sonorell::transfer_log {

void emit(LogType type, const std::string& line);

template <class... A>
void error(std::string_view format, const A&... args) {
  emit(LogType::Error, stringWithFormat(format, args...));
}
template <class... A>
void info(std::string_view format, const A&... args) {
  emit(LogType::Info, stringWithFormat(format, args...));
}

}  // namespace sonorell::transfer_log
