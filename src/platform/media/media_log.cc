#include "platform/media/media_log.h"

#include <memory>

namespace sonorell::media_log {

void emit(LogType type, const std::string& line) {
  static const std::shared_ptr<UnifiedLog> log = UnifiedLog::create("io.sonorell", "media");
  if (log && log->isEnabled(type)) log->emit(type, line.c_str());
}

}  // namespace sonorell::media_log
