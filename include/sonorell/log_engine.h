// Engine-wide logging: every line is prefixed with the version, handed to the host's listener
// (if one is set) and emitted to the unified log. The logger and listener are process-wide
// atomic references, read on each call without a lock, so logging works from any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "sonorell/export.h"
#include "sonorell/format.h"

namespace sonorell {

// The unified-log types the four levels map to.
enum class LogType { Error, Default, Info, Debug };

// A host object that receives every formatted line, whatever the log level.
class SONORELL_EXPORT QSOLogListener {
 public:
  virtual ~QSOLogListener() = default;
  virtual void logError(const std::string& line) = 0;
  virtual void logWarning(const std::string& line) = 0;
  virtual void logInfo(const std::string& line) = 0;
  virtual void logVerbose(const std::string& line) = 0;
};

// A log facility lines are emitted to. The default writes through spdlog to standard error,
// enabled from the level in $SONORELL_LOG_LEVEL (trace, debug, info, warn, error, off; default
// warn). A host can hand QSOLogEngine::setLogger its own implementation.
class SONORELL_EXPORT UnifiedLog {
 public:
  virtual ~UnifiedLog() = default;
  virtual bool isEnabled(LogType type) const = 0;
  virtual void emit(LogType type, const char* line) = 0;

  // A log object for a subsystem and category ("io.sonorell", "sdk").
  static std::shared_ptr<UnifiedLog> create(std::string_view subsystem, std::string_view category);
  // The platform's default log object, used until setUpLogging installs the engine's own.
  static std::shared_ptr<UnifiedLog> defaultLog();
};

class SONORELL_EXPORT QSOLogEngine {
 public:
  // Stored and returned, never consulted when a line is logged: the listener gets everything.
  static void setLogLevel(uint64_t level);
  static uint32_t currentLogLevel();
  static void setLogger(std::shared_ptr<UnifiedLog> logger);
  static std::shared_ptr<UnifiedLog> logger();
  // A null listener removes the current one; no call reaches it after this returns.
  static void setListener(std::shared_ptr<QSOLogListener> listener);
  static std::shared_ptr<QSOLogListener> listener();

  // Prefixes, hands to the listener and emits one already formatted message.
  static void log(LogType type, std::string_view message);
  // Whether a line of this type would reach anyone (a listener, or the log with the type
  // enabled); lets the logging functions skip formatting lines nobody receives.
  static bool isWanted(LogType type);
};

// "[6.5.8] message".
SONORELL_EXPORT std::string prepareFormat(std::string_view message);

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
