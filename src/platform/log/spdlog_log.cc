// The unified-log backend on spdlog: one logger per subsystem/category, writing to standard
// error. Which types are enabled comes from $SONORELL_LOG_LEVEL, read once per logger.
#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

#include <cstdlib>
#include <mutex>

#include "sonorell/unified_log.h"

namespace sonorell {

namespace {

spdlog::level::level_enum levelFor(LogType type) {
  switch (type) {
    case LogType::Error:
      return spdlog::level::err;
    case LogType::Default:
      return spdlog::level::warn;
    case LogType::Info:
      return spdlog::level::info;
    case LogType::Debug:
      return spdlog::level::debug;
  }
  return spdlog::level::info;
}

spdlog::level::level_enum configuredLevel() {
  const char* text = std::getenv("SONORELL_LOG_LEVEL");
  if (!text || !*text) return spdlog::level::warn;
  return spdlog::level::from_str(text);
}

class SpdlogUnifiedLog final : public UnifiedLog {
 public:
  explicit SpdlogUnifiedLog(std::string name) {
    static std::mutex registryMutex;  // spdlog's registry rejects duplicate names
    std::lock_guard lock(registryMutex);
    logger_ = spdlog::get(name);
    if (!logger_) {
      logger_ = spdlog::stderr_color_mt(name);
      logger_->set_pattern("%Y-%m-%d %H:%M:%S.%e %n %^%l%$ %v");
      logger_->set_level(configuredLevel());
    }
  }

  bool isEnabled(LogType type) const override { return logger_->should_log(levelFor(type)); }
  void emit(LogType type, const char* line) override { logger_->log(levelFor(type), "{}", line); }

 private:
  std::shared_ptr<spdlog::logger> logger_;
};

}  // namespace

std::shared_ptr<UnifiedLog> UnifiedLog::create(std::string_view subsystem,
                                               std::string_view category) {
  return std::make_shared<SpdlogUnifiedLog>(std::string(subsystem) + "/" + std::string(category));
}

std::shared_ptr<UnifiedLog> UnifiedLog::defaultLog() {
  static const std::shared_ptr<UnifiedLog> log = std::make_shared<SpdlogUnifiedLog>("default");
  return log;
}

}  // namespace sonorell
