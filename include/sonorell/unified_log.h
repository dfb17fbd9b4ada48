// The log object engine lines are emitted to (subsystem "io.sonorell", category "sdk"): an
// interface a host may implement and hand to QSOLogEngine::setLogger. The default writes through
// spdlog to standard error. Implementations must be safe to call from any thread.
#pragma once

#include <memory>
#include <string_view>

#include "sonorell/export.h"

namespace sonorell {

// The unified-log types the four levels map to.
enum class LogType { Error, Default, Info, Debug };

class SONORELL_EXPORT UnifiedLog {
 public:
  virtual ~UnifiedLog() = default;
  virtual bool isEnabled(LogType type) const = 0;
  virtual void emit(LogType type, const char* line) = 0;

  // A log object for a subsystem and category, enabled from the level in $SONORELL_LOG_LEVEL
  // (trace, debug, info, warn, error, off; default warn).
  static std::shared_ptr<UnifiedLog> create(std::string_view subsystem, std::string_view category);
  // The platform's default log object, used until launch installs the engine's own.
  static std::shared_ptr<UnifiedLog> defaultLog();
};

}  // namespace sonorell
