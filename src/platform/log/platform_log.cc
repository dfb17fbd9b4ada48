#include "platform/log/platform_log.h"

#include <atomic>

namespace sonorell::platform_log {

namespace {

class DefaultSink final : public LogSink {
 public:
  bool wants(LogType type) const override { return log_->isEnabled(type); }
  void write(LogType type, std::string_view line) override {
    log_->emit(type, std::string(line).c_str());
  }

 private:
  const std::shared_ptr<UnifiedLog> log_ = UnifiedLog::defaultLog();
};

std::atomic<std::shared_ptr<LogSink>>& slot() {
  // Never destroyed: threads may still log while the process exits.
  static auto* sink = new std::atomic<std::shared_ptr<LogSink>>(std::make_shared<DefaultSink>());
  return *sink;
}

}  // namespace

void setSink(std::shared_ptr<LogSink> sink) {
  slot().store(sink ? std::move(sink) : std::make_shared<DefaultSink>());
}

bool wants(LogType type) { return slot().load()->wants(type); }

void emit(LogType type, std::string_view line) { slot().load()->write(type, line); }

}  // namespace sonorell::platform_log
