#include "platform/net/transfer_log.h"

#include <memory>

namespace sonorell::transfer_log {

void emit(LogType type, const std::string& line) {
  static const std::shared_ptr<UnifiedLog> log = UnifiedLog::create("io.sonorell", "transfer");
  if (log && log->isEnabled(type)) log->emit(type, line.c_str());
}

}  // namespace sonorell::transfer_log
