// The engine's printf-style logging functions ("%@" for any describable argument): they format
// only when someone receives the line, then log it through QSOLogEngine. Safe from any thread.
#pragma once

#include <string_view>

#include "platform/foundation/format.h"
#include "sonorell/log_engine.h"

namespace sonorell {

template <class... A>
void LogEngineError(std::string_view format, const A&... args) {
  if (!QSOLogEngine::isWanted(LogType::Error)) return;
  QSOLogEngine::log(LogType::Error, stringWithFormat(format, args...));
}
template <class... A>
void LogEngineWarning(std::string_view format, const A&... args) {
  if (!QSOLogEngine::isWanted(LogType::Default)) return;
  QSOLogEngine::log(LogType::Default, stringWithFormat(format, args...));
}
template <class... A>
void LogEngineInfo(std::string_view format, const A&... args) {
  if (!QSOLogEngine::isWanted(LogType::Info)) return;
  QSOLogEngine::log(LogType::Info, stringWithFormat(format, args...));
}
template <class... A>
void LogEngineVerbose(std::string_view format, const A&... args) {
  if (!QSOLogEngine::isWanted(LogType::Debug)) return;
  QSOLogEngine::log(LogType::Debug, stringWithFormat(format, args...));
}

}  // namespace sonorell
