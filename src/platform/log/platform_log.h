// Where the platform layer's own log lines go (transfers, media). The platform sits below the
// engine's logging, so it writes to a sink: the default unified log until the engine installs a
// sink that hands every line to its own logging (and so to the host's listener). The sink is an
// atomic reference; emitting is safe from any thread.
#pragma once

#include <memory>
#include <string_view>

#include "platform/foundation/format.h"
#include "sonorell/unified_log.h"

namespace sonorell {

class LogSink {
 public:
  virtual ~LogSink() = default;
  virtual bool wants(LogType type) const = 0;
  virtual void write(LogType type, std::string_view line) = 0;
};

namespace platform_log {

// Null restores the default (the platform's default unified log).
void setSink(std::shared_ptr<LogSink> sink);
bool wants(LogType type);
void emit(LogType type, std::string_view line);

template <class... A>
void error(std::string_view format, const A&... args) {
  if (wants(LogType::Error)) emit(LogType::Error, stringWithFormat(format, args...));
}
template <class... A>
void info(std::string_view format, const A&... args) {
  if (wants(LogType::Info)) emit(LogType::Info, stringWithFormat(format, args...));
}

}  // namespace platform_log
}  // namespace sonorell
