// QSOLogEngine: the process-wide logger, listener and level, and the line path of the four
// logging functions. No lock on the hot path: logger and listener are atomic shared_ptrs.
#include "sonorell/log_engine.h"

#include <atomic>

#include "sonorell/version.h"

namespace sonorell {

namespace {
std::atomic<uint64_t> gLevel{1};

std::atomic<std::shared_ptr<UnifiedLog>>& loggerSlot() {
  static std::atomic<std::shared_ptr<UnifiedLog>> slot{UnifiedLog::defaultLog()};
  return slot;
}

std::atomic<std::shared_ptr<QSOLogListener>> gListener;
}  // namespace

void QSOLogEngine::setLogLevel(uint64_t level) { gLevel.store(level); }

uint32_t QSOLogEngine::currentLogLevel() { return static_cast<uint32_t>(gLevel.load()); }

void QSOLogEngine::setLogger(std::shared_ptr<UnifiedLog> logger) {
  loggerSlot().store(std::move(logger));
}

std::shared_ptr<UnifiedLog> QSOLogEngine::logger() { return loggerSlot().load(); }

void QSOLogEngine::setListener(std::shared_ptr<QSOLogListener> listener) {
  gListener.store(std::move(listener));
}

std::shared_ptr<QSOLogListener> QSOLogEngine::listener() { return gListener.load(); }

std::string prepareFormat(std::string_view message) {
  std::string line;
  line.reserve(kSonorellVersion.size() + 3 + message.size());
  line += '[';
  line += kSonorellVersion;
  line += "] ";
  line += message;
  return line;
}

bool QSOLogEngine::isWanted(LogType type) {
  if (gListener.load(std::memory_order_relaxed)) return true;
  auto logger = loggerSlot().load();
  return logger && logger->isEnabled(type);
}

void QSOLogEngine::log(LogType type, std::string_view message) {
  const std::string line = prepareFormat(message);
  // The level is deliberately not consulted: hosts capture everything through the listener.
  if (auto listener = gListener.load()) {
    switch (type) {
      case LogType::Error:
        listener->logError(line);
        break;
      case LogType::Default:
        listener->logWarning(line);
        break;
      case LogType::Info:
        listener->logInfo(line);
        break;
      case LogType::Debug:
        listener->logVerbose(line);
        break;
    }
  }
  if (auto logger = loggerSlot().load(); logger && logger->isEnabled(type)) {
    logger->emit(type, line.c_str());
  }
}

}  // namespace sonorell
