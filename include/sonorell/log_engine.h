/// Engine-wide logging: every line is prefixed with the version, handed to the host's listener
/// (if one is set) and emitted to the unified log. Logger and listener are process-wide atomic
/// references read on each call without a lock, so logging works from any thread.
/// @file
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "sonorell/export.h"
#include "sonorell/unified_log.h"

namespace sonorell {

/// A host object that receives every formatted line, whatever the log level. Called on the thread
/// that logged (any of the engine's threads, several at once); it must be thread-safe and must
/// not block for long. The engine holds it through std::shared_ptr until it is replaced.
class SONORELL_EXPORT QSOLogListener {
 public:
  /// Destroyed when the last reference goes, possibly on an engine thread.
  virtual ~QSOLogListener() = default;
  /// A line logged at error level: something failed.
  virtual void logError(const std::string& line) = 0;
  /// A line logged at warning level.
  virtual void logWarning(const std::string& line) = 0;
  /// A line logged at info level: the engine's commands and what they did.
  virtual void logInfo(const std::string& line) = 0;
  /// A line logged at verbose level: details, every notification posted included.
  virtual void logVerbose(const std::string& line) = 0;
};

/// The engine's logging switchboard: which listener and which unified-log object receive the
/// engine's lines. Static members only; safe from any thread.
class SONORELL_EXPORT QSOLogEngine {
 public:
  /// Stored and returned, never consulted when a line is logged: the listener gets everything.
  static void setLogLevel(uint64_t level);
  /// The level last given to setLogLevel().
  static uint32_t currentLogLevel();
  /// Replaces the unified-log object lines are emitted to (launch installs the engine's own).
  static void setLogger(std::shared_ptr<UnifiedLog> logger);
  /// The current unified-log object.
  static std::shared_ptr<UnifiedLog> logger();
  /// Replaces the listener (null removes it). Once this returns, no call reaches the old
  /// listener: calls already under way on other threads are waited for (a call from inside the
  /// old listener's own callback is not waited for, so it cannot deadlock).
  static void setListener(std::shared_ptr<QSOLogListener> listener);
  /// The current listener, or null.
  static std::shared_ptr<QSOLogListener> listener();

  /// Prefixes, hands to the listener and emits one already formatted message.
  static void log(LogType type, std::string_view message);
  /// Whether a line of this type would reach anyone (a listener, or the log with the type
  /// enabled); lets callers skip formatting lines nobody receives.
  static bool isWanted(LogType type);
};

/// "[6.5.8] message".
SONORELL_EXPORT std::string prepareFormat(std::string_view message);

/// @name The four levels, for a message the caller has already formatted
/// Each prefixes the message and logs it as QSOLogEngine::log() does; a host may log through
/// them to have its lines beside the engine's.
///@{
/// Logs at error level (QSOLogListener::logError, LogType::Error).
SONORELL_EXPORT void LogEngineError(std::string_view message);
/// Logs at warning level (QSOLogListener::logWarning, LogType::Default).
SONORELL_EXPORT void LogEngineWarning(std::string_view message);
/// Logs at info level (QSOLogListener::logInfo, LogType::Info).
SONORELL_EXPORT void LogEngineInfo(std::string_view message);
/// Logs at verbose level (QSOLogListener::logVerbose, LogType::Debug).
SONORELL_EXPORT void LogEngineVerbose(std::string_view message);
///@}

}  // namespace sonorell
