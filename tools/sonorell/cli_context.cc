// The shared machinery of the commands: configuration, JSON forms of engine values, the event
// stream and its waits.
#include "cli_context.h"

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <thread>

namespace sonorell::cli {

std::atomic<bool> gInterrupted{false};

namespace {
std::FILE* gOut = stdout;
}  // namespace

void takeStandardOutput() {
  std::fflush(stdout);
  const int kept = ::dup(STDOUT_FILENO);
  if (kept < 0) return;
  std::FILE* file = ::fdopen(kept, "w");
  if (!file) return;
  ::dup2(STDERR_FILENO, STDOUT_FILENO);
  gOut = file;
}

std::FILE* out() { return gOut; }

namespace {
constexpr int64_t kNoError = std::numeric_limits<int64_t>::max();

nlohmann::json errorJSON(const Error& error) {
  nlohmann::json out{{"domain", error.domain}, {"code", error.code}};
  if (auto it = error.userInfo.find(kLocalizedDescriptionKey); it != error.userInfo.end()) {
    out["description"] = it->second.asString().value_or(it->second.description());
  }
  if (auto it = error.userInfo.find(kUnderlyingErrorKey); it != error.userInfo.end()) {
    if (auto underlying = it->second.asError()) out["underlying"] = errorJSON(*underlying);
  }
  return out;
}
}  // namespace

void installInterruptHandler() {
  // Blocked in this thread before any other exists, so every thread the engine starts inherits
  // the mask: the signals reach only the waiting thread below, and no engine call sees EINTR.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::thread([signals] {
    for (;;) {
      int received = 0;
      if (sigwait(&signals, &received) != 0) continue;
      // A second interrupt while the first is being handled ends the process at once.
      if (gInterrupted.exchange(true)) std::_Exit(130);
    }
  }).detach();
}

std::optional<Failure> failureIn(const Notification& notification) {
  auto it = notification.userInfo.find(QSOSonorellErrorUserInfoKey);
  if (it == notification.userInfo.end()) return std::nullopt;
  auto error = it->second.asError();
  if (!error || error->code == kNoError) return std::nullopt;
  Failure failure{error->code, {}};
  if (auto d = error->userInfo.find(kLocalizedDescriptionKey); d != error->userInfo.end()) {
    failure.description = d->second.asString().value_or("");
  }
  return failure;
}

std::string statusName(uint64_t status) {
  switch (status) {
    case DownloadStatusNotDownloaded:
      return "NotDownloaded";
    case DownloadStatusDownloading:
      return "Downloading";
    case DownloadStatusPartiallyDownloaded:
      return "PartiallyDownloaded";
    case DownloadStatusDownloaded:
      return "Downloaded";
    case DownloadStatusStaged:
      return "Staged";
  }
  return "Unknown";
}

std::string audiobookOf(const Notification& notification) {
  const auto& info = notification.userInfo;
  if (auto it = info.find(QSOAudiobookIDUserInfoKey); it != info.end()) {
    if (auto id = it->second.asString()) return *id;
  }
  if (auto it = info.find(QSOChapterDescriptionUserInfoKey); it != info.end()) {
    if (const auto* chapter = it->second.getIf<QSOChapterDescription>()) {
      return chapter->audiobookID();
    }
  }
  return {};
}

std::string requestOf(const Notification& notification) {
  auto it = notification.userInfo.find(QSODownloadRequestIDUserInfoKey);
  return it == notification.userInfo.end() ? std::string() : it->second.asString().value_or("");
}

std::string describeEvent(const Notification& notification) {
  std::string text = notification.name;
  const auto& info = notification.userInfo;
  if (auto it = info.find(QSOChapterDescriptionUserInfoKey); it != info.end()) {
    if (const auto* chapter = it->second.getIf<QSOChapterDescription>()) {
      text += " part " + std::to_string(chapter->partNumber()) + " chapter " +
              std::to_string(chapter->chapterNumber());
    }
  } else if (auto id = audiobookOf(notification); !id.empty()) {
    text += " " + id;
  }
  if (auto failure = failureIn(notification)) {
    text += " (error " + std::to_string(failure->code) + ": " + failure->description + ")";
  }
  return text;
}

bool hasEvent(const std::vector<Notification>& events, std::string_view name) {
  for (const auto& n : events) {
    if (n.name == name) return true;
  }
  return false;
}

bool unloaded(const std::vector<Notification>& events) {
  for (const auto& n : events) {
    if (n.name != QSOPlaybackAudiobookUnloadedNotification) continue;
    auto it = n.userInfo.find(QSOPlaybackUnloadedReasonUserInfoKey);
    if (it == n.userInfo.end() ||
        it->second.asUInt() != uint64_t{QSOPlaybackUnloadedReasonNewRequest}) {
      return true;
    }
  }
  return false;
}

nlohmann::json toJSON(const Value& value) {
  return std::visit(
      [&](const auto& v) -> nlohmann::json {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, std::monostate>) {
          return nullptr;
        } else if constexpr (std::is_same_v<T, Date>) {
          return std::chrono::duration<double>(v.time_since_epoch()).count();
        } else if constexpr (std::is_same_v<T, Array>) {
          nlohmann::json out = nlohmann::json::array();
          for (const auto& item : v) out.push_back(toJSON(item));
          return out;
        } else if constexpr (std::is_same_v<T, Dictionary>) {
          nlohmann::json out = nlohmann::json::object();
          for (const auto& [key, item] : v) out[key] = toJSON(item);
          return out;
        } else if constexpr (std::is_same_v<T, Value::ObjectPtr>) {
          if (const auto* chapter = value.getIf<QSOChapterDescription>()) {
            return {{"audiobookID", chapter->audiobookID()},
                    {"part", chapter->partNumber()},
                    {"chapter", chapter->chapterNumber()}};
          }
          return v ? v->description() : std::string();
        } else if constexpr (std::is_same_v<T, ErrorPtr>) {
          return v ? errorJSON(*v) : nlohmann::json(nullptr);
        } else {
          return v;
        }
      },
      value.storage());
}

nlohmann::json eventJSON(const Notification& notification) {
  nlohmann::json out{{"event", notification.name}};
  for (const auto& [key, value] : notification.userInfo) out[key] = toJSON(value);
  return out;
}

Session::Session(GlobalOptions options) : options_(std::move(options)) {
  token_ = NotificationCenter::defaultCenter().addObserver(
      "", [this](const Notification& n) { onNotification(n); });
}

Session::~Session() { NotificationCenter::defaultCenter().removeObserver(token_); }

bool Session::interactive() const { return !options_.json && ::isatty(::fileno(gOut)) == 1; }

void Session::configureEngine() {
  if (!options_.library.empty()) QSOSonorell::setLibraryDirectory(options_.library);
  if (!options_.api.empty()) QSOSonorell::setContentAPIBaseURL(options_.api);
  if (!options_.ca.empty()) QSOSonorell::setTrustedCertificates(options_.ca);
}

std::shared_ptr<QSOSonorell> Session::engine() {
  engineUsed_ = true;
  return QSOSonorell::sharedEngine();
}

bool Session::launch(std::chrono::milliseconds limit) {
  auto sonorell = engine();
  sonorell->didFinishLaunching();
  const auto name = std::string(QSODatabaseVerificationCompleteNotification);
  return waitFor(
      [&](const std::vector<Notification>& events) {
        for (const auto& n : events) {
          if (n.name == name) return true;
        }
        return false;
      },
      limit);
}

void Session::setFilter(std::function<bool(const Notification&)> filter) {
  std::lock_guard lock(mutex_);
  filter_ = std::move(filter);
}

void Session::setTextPrinter(std::function<void(const Notification&)> printer) {
  std::lock_guard lock(mutex_);
  textPrinter_ = std::move(printer);
}

void Session::onNotification(const Notification& notification) {
  std::function<void(const Notification&)> printer;
  {
    std::lock_guard lock(mutex_);
    // Start-up verification is every command's business, whatever the filter.
    const bool verification = notification.name == QSODatabaseVerificationCompleteNotification;
    if (finished_ || (!verification && filter_ && !filter_(notification))) return;
    printer = textPrinter_;
  }
  // Printed before a waiting command can see it, so that no event line comes after the end.
  if (options_.json) {
    printJSON(eventJSON(notification));
  } else if (printer) {
    printer(notification);
  } else {
    line(options_.verbose ? notification.name + " " + describe(notification.userInfo)
                          : describeEvent(notification));
  }
  {
    std::lock_guard lock(mutex_);
    events_.push_back(notification);
  }
  changed_.notify_all();
}

bool Session::waitFor(const std::function<bool(const std::vector<Notification>&)>& done,
                      std::chrono::milliseconds limit, const std::function<void()>& tick) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  std::unique_lock lock(mutex_);
  for (;;) {
    if (done(events_)) return true;
    if (gInterrupted.load()) return false;
    if (limit.count() > 0 && std::chrono::steady_clock::now() >= deadline) return false;
    // Woken by each notification; the timeout only lets the tick run and SIGINT be seen.
    changed_.wait_for(lock, std::chrono::milliseconds(100));
    if (tick) {
      lock.unlock();
      tick();
      lock.lock();
    }
  }
}

std::vector<Notification> Session::events() const {
  std::lock_guard lock(mutex_);
  return events_;
}

void Session::line(const std::string& text) {
  if (options_.quiet || options_.json) return;
  std::lock_guard lock(outputMutex_);
  std::fputs(text.c_str(), gOut);
  std::fputc('\n', gOut);
  std::fflush(gOut);
}

void Session::printJSON(const nlohmann::json& object) {
  std::lock_guard lock(outputMutex_);
  const std::string text = object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  std::fputs(text.c_str(), gOut);
  std::fputc('\n', gOut);
  std::fflush(gOut);
}

void Session::reportFailure(const Failure& failure) {
  std::lock_guard lock(outputMutex_);
  std::fprintf(stderr, "error %lld: %s\n", static_cast<long long>(failure.code),
               failure.description.c_str());
  std::fflush(stderr);
}

int Session::finish(const std::string& command, int exitCode, nlohmann::json extra) {
  // Notifications already posted are delivered (and printed) first; none after the summary.
  if (engineUsed_) engine()->downloadEngine()->waitUntilCommandsHaveRun();
  {
    std::lock_guard lock(mutex_);
    finished_ = true;
  }
  if (options_.json) {
    nlohmann::json summary{{"event", "summary"}, {"command", command}, {"exitCode", exitCode}};
    for (auto& [key, value] : extra.items()) summary[key] = value;
    printJSON(summary);
  }
  return exitCode;
}

}  // namespace sonorell::cli
