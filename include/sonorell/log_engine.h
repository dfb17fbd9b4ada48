// Engine-wide logging: every line is prefixed with the version, handed to the host's listener
// (if one is set) and emitted to the unified log. Logger and listener are process-wide atomic
// references read on each call without a lock, so logging works from any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "sonorell/export.h"
#include "sonorell/unified_log.h"

namespace sonorell {

// A host object that receives every formatted line, whatever the log level. Called on the thread
// that logged; it must not block for long.
class SONORELL_EXPORT QSOLogListener {
 public:
  virtual ~QSOLogListener() = default;
  virtual void logError(const std::string& line) = 0;
  virtual void logWarning(const std::string& line) = 0;
  virtual void logInfo(const std::string& line) = 0;
  virtual void logVerbose(const std::string& line) = 0;
};

class SONORELL_EXPORT QSOLogEngine {
 public:
  // Stored and returned, never consulted when a line is logged: the listener gets everything.
  static void setLogLevel(uint64_t level);
  static uint32_t currentLogLevel();
  static void setLogger(std::shared_ptr<UnifiedLog> logger);
  static std::shared_ptr<UnifiedLog> logger();
  // Replaces the listener (null removes it). Once this returns, no call reaches the old
  // listener: calls already under way on other threads are waited for (a call from inside the
  // old listener's own callback is not waited for, so it cannot deadlock).
  static void setListener(std::shared_ptr<QSOLogListener> listener);
  static std::shared_ptr<QSOLogListener> listener();

  // Prefixes, hands to the listener and emits one already formatted message.
  static void log(LogType type, std::string_view message);
  // Whether a line of this type would reach anyone (a listener, or the log with the type
  // enabled); lets callers skip formatting lines nobody receives.
  static bool isWanted(LogType type);
};

// "[6.5.8] message".
SONORELL_EXPORT std::string prepareFormat(std::string_view message);

// The four levels, for a message the caller has already formatted.
SONORELL_EXPORT void LogEngineError(std::string_view message);
SONORELL_EXPORT void LogEngineWarning(std::string_view message);
SONORELL_EXPORT void LogEngineInfo(std::string_view message);
SONORELL_EXPORT void LogEngineVerbose(std::string_view message);

}  // namespace sonorell
