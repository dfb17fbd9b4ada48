// QSOLogEngine: the process-wide logger, listener and level, the line path of the logging
// functions, and the sink that brings the platform layer's lines into the same path. Logger and
// listener are read under one short lock (never held across a call out); a listener call counts
// itself in and out so that replacing the listener can wait for calls still under way.
#include "sonorell/log_engine.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/log/platform_log.h"
#include "sonorell/version.h"

namespace sonorell {

namespace {

// One listener as installed, with the calls into it that are under way.
struct ListenerSlot {
  explicit ListenerSlot(std::shared_ptr<QSOLogListener> l) : listener(std::move(l)) {}
  const std::shared_ptr<QSOLogListener> listener;
  std::atomic<int> inFlight{0};
};

std::atomic<uint64_t> gLevel{1};

// The installed logger and listener. A plain mutex rather than std::atomic<shared_ptr>: the
// latter's lock in libstdc++ 12 releases with a relaxed store, so a listener's fields written
// before setListener were not ordered before a logging thread's read of them. Never destroyed:
// threads may still log while the process exits.
struct Installed {
  std::mutex mutex;
  std::shared_ptr<UnifiedLog> logger = UnifiedLog::defaultLog();
  std::shared_ptr<ListenerSlot> listener;
  std::atomic<bool> hasListener{false};  // lets isWanted skip the lock
};

Installed& installed() {
  static auto* state = new Installed();
  return *state;
}

std::shared_ptr<ListenerSlot> currentListener() {
  std::lock_guard lock(installed().mutex);
  return installed().listener;
}

std::shared_ptr<UnifiedLog> currentLogger() {
  std::lock_guard lock(installed().mutex);
  return installed().logger;
}

// The slots this thread is calling into right now (a listener may log, or replace itself).
thread_local std::vector<const ListenerSlot*> tCalling;

void callListener(QSOLogListener& listener, LogType type, const std::string& line) {
  switch (type) {
    case LogType::Error:
      listener.logError(line);
      break;
    case LogType::Default:
      listener.logWarning(line);
      break;
    case LogType::Info:
      listener.logInfo(line);
      break;
    case LogType::Debug:
      listener.logVerbose(line);
      break;
  }
}

void deliverToListener(LogType type, const std::string& line) {
  for (;;) {
    auto slot = currentListener();
    if (!slot) return;
    slot->inFlight.fetch_add(1);
    // Counted in before checking that the slot is still current: setListener swaps first and
    // then reads the count, so one of the two always sees the other.
    if (currentListener() != slot) {
      if (slot->inFlight.fetch_sub(1) == 1) slot->inFlight.notify_all();
      continue;
    }
    tCalling.push_back(slot.get());
    callListener(*slot->listener, type, line);
    tCalling.pop_back();
    if (slot->inFlight.fetch_sub(1) == 1) slot->inFlight.notify_all();
    return;
  }
}

// Routes the platform layer's lines through the engine's logging, so the listener hears them.
class EngineSink final : public LogSink {
 public:
  bool wants(LogType type) const override { return QSOLogEngine::isWanted(type); }
  void write(LogType type, std::string_view line) override { QSOLogEngine::log(type, line); }
};

// Installed when the engine's code is loaded: from then on every platform line is an engine line.
[[maybe_unused]] const bool gSinkInstalled = [] {
  platform_log::setSink(std::make_shared<EngineSink>());
  return true;
}();

}  // namespace

void QSOLogEngine::setLogLevel(uint64_t level) { gLevel.store(level); }

uint32_t QSOLogEngine::currentLogLevel() { return static_cast<uint32_t>(gLevel.load()); }

void QSOLogEngine::setLogger(std::shared_ptr<UnifiedLog> logger) {
  std::shared_ptr<UnifiedLog> previous;  // released outside the lock
  std::lock_guard lock(installed().mutex);
  previous = std::exchange(installed().logger, std::move(logger));
}

std::shared_ptr<UnifiedLog> QSOLogEngine::logger() { return currentLogger(); }

void QSOLogEngine::setListener(std::shared_ptr<QSOLogListener> listener) {
  auto next = listener ? std::make_shared<ListenerSlot>(std::move(listener)) : nullptr;
  std::shared_ptr<ListenerSlot> previous;
  {
    std::lock_guard lock(installed().mutex);
    installed().hasListener.store(next != nullptr);
    previous = std::exchange(installed().listener, std::move(next));
  }
  if (!previous) return;
  // Calls this thread itself is making into the old listener cannot be waited for.
  const int own = static_cast<int>(std::count(tCalling.begin(), tCalling.end(), previous.get()));
  for (int n = previous->inFlight.load(); n > own; n = previous->inFlight.load()) {
    previous->inFlight.wait(n);
  }
}

std::shared_ptr<QSOLogListener> QSOLogEngine::listener() {
  auto slot = currentListener();
  return slot ? slot->listener : nullptr;
}

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
  if (installed().hasListener.load(std::memory_order_relaxed)) return true;
  auto logger = currentLogger();
  return logger && logger->isEnabled(type);
}

void QSOLogEngine::log(LogType type, std::string_view message) {
  const std::string line = prepareFormat(message);
  // The level is deliberately not consulted: hosts capture everything through the listener.
  deliverToListener(type, line);
  if (auto logger = currentLogger(); logger && logger->isEnabled(type)) {
    logger->emit(type, line.c_str());
  }
}

void LogEngineError(std::string_view message) {
  if (QSOLogEngine::isWanted(LogType::Error)) QSOLogEngine::log(LogType::Error, message);
}
void LogEngineWarning(std::string_view message) {
  if (QSOLogEngine::isWanted(LogType::Default)) QSOLogEngine::log(LogType::Default, message);
}
void LogEngineInfo(std::string_view message) {
  if (QSOLogEngine::isWanted(LogType::Info)) QSOLogEngine::log(LogType::Info, message);
}
void LogEngineVerbose(std::string_view message) {
  if (QSOLogEngine::isWanted(LogType::Debug)) QSOLogEngine::log(LogType::Debug, message);
}

}  // namespace sonorell
