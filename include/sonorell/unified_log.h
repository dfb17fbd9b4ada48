/// The log object engine lines are emitted to (subsystem "io.sonorell", category "sdk"): an
/// interface a host may implement and hand to QSOLogEngine::setLogger. The default writes through
/// spdlog to standard error. Implementations must be safe to call from any thread.
/// @file
#pragma once

#include <memory>
#include <string_view>

#include "sonorell/export.h"

namespace sonorell {

/// The unified-log types the four levels map to.
enum class LogType {
  Error,    ///< errors (LogEngineError)
  Default,  ///< warnings (LogEngineWarning)
  Info,     ///< information (LogEngineInfo)
  Debug     ///< details (LogEngineVerbose)
};

/// A destination of log lines. A host may implement it and hand it to QSOLogEngine::setLogger();
/// the engine shares ownership of it and calls it from any of its threads, concurrently.
class SONORELL_EXPORT UnifiedLog {
 public:
  /// Destroyed when the last reference goes.
  virtual ~UnifiedLog() = default;
  /// Whether lines of this type are written; the engine skips formatting the others.
  virtual bool isEnabled(LogType type) const = 0;
  /// Writes one line (NUL-terminated, valid only during the call).
  virtual void emit(LogType type, const char* line) = 0;

  /// A log object for a subsystem and category, enabled from the level in $SONORELL_LOG_LEVEL
  /// (trace, debug, info, warn, error, off; default warn).
  static std::shared_ptr<UnifiedLog> create(std::string_view subsystem, std::string_view category);
  /// The platform's default log object, used until launch installs the engine's own.
  static std::shared_ptr<UnifiedLog> defaultLog();
};

}  // namespace sonorell
