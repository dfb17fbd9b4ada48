// What every command shares: the global options, the engine they configure, and the event
// stream that prints what the engine reports (JSON lines or text) and lets a command wait for
// the notification that ends it. The event log is guarded by one mutex; observers run on the
// engine's notifications queue.
#pragma once

#include <nlohmann/json.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "sonorell/sonorell.h"

namespace sonorell::cli {

// Exit codes: a contract with scripts.
inline constexpr int kExitOK = 0;
inline constexpr int kExitFailure = 1;  // the engine reported a failure
inline constexpr int kExitUsage = 2;

struct GlobalOptions {
  std::string library;
  std::string api;
  std::string ca;
  std::string sessionKey;
  std::string licenseID;
  bool json = false;
  bool quiet = false;
  bool verbose = false;
};

// The code and description of a failure the engine reported.
struct Failure {
  int64_t code = 0;
  std::string description;
};

// The failure a notification carries, if its error is a real one (success and progress
// notifications carry the no-error code).
std::optional<Failure> failureIn(const Notification& notification);

std::string statusName(uint64_t status);

// The audiobook a notification is about (its ID or its chapter's), empty when none.
std::string audiobookOf(const Notification& notification);
std::string requestOf(const Notification& notification);
// One readable line: the name, the chapter, the failure.
std::string describeEvent(const Notification& notification);

bool hasEvent(const std::vector<Notification>& events, std::string_view name);
// The player was unloaded for a reason other than the new request that a play itself makes.
bool unloaded(const std::vector<Notification>& events);

// Value and user info as JSON: errors as {domain, code, description[, underlying]}, chapter
// descriptions as {audiobookID, part, chapter}.
nlohmann::json toJSON(const Value& value);
nlohmann::json eventJSON(const Notification& notification);

// The CLI's own standard output. The engine prints a few lines of its own to standard output;
// takeStandardOutput() keeps the real one for the CLI and sends those to standard error, so
// that what scripts read (JSON lines, tables) is never mixed with them.
void takeStandardOutput();
std::FILE* out();

// Set by SIGINT; the commands' wait loops look at it.
extern std::atomic<bool> gInterrupted;
void installInterruptHandler();

class Session {
 public:
  explicit Session(GlobalOptions options);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  const GlobalOptions& options() const { return options_; }
  bool json() const { return options_.json; }
  bool quiet() const { return options_.quiet; }
  // Standard output is a terminal and the output is for a person.
  bool interactive() const;

  // Applies the library, API and CA options (before anything touches the engine).
  void configureEngine();
  std::shared_ptr<QSOSonorell> engine();
  // didFinishLaunching, then waits for the start-up verification (which restarts the requests
  // an earlier run left stored). False after `limit`.
  bool launch(std::chrono::milliseconds limit = std::chrono::seconds(60));

  // Only notifications this accepts are printed and kept.
  void setFilter(std::function<bool(const Notification&)> filter);
  // Text mode: called for each kept notification instead of the default line (nullptr: default).
  void setTextPrinter(std::function<void(const Notification&)> printer);

  // Waits until `done` holds over the kept notifications, SIGINT arrives, or `limit` passes;
  // returns what held (true: done). `limit` zero waits without end.
  bool waitFor(const std::function<bool(const std::vector<Notification>&)>& done,
               std::chrono::milliseconds limit = std::chrono::milliseconds::zero(),
               const std::function<void()>& tick = nullptr);
  std::vector<Notification> events() const;

  // Output. Text lines go to standard output unless -q; JSON lines always in --json mode.
  void line(const std::string& text);
  void printJSON(const nlohmann::json& object);
  // The failure on standard error ("error CODE: description") and in JSON.
  void reportFailure(const Failure& failure);
  // The command's last JSON object: {"event": "summary", "command", "exitCode", ...extra}.
  int finish(const std::string& command, int exitCode,
             nlohmann::json extra = nlohmann::json::object());

 private:
  void onNotification(const Notification& notification);

  const GlobalOptions options_;
  NotificationCenter::Token token_ = 0;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Notification> events_;                      // guarded by mutex_
  std::function<bool(const Notification&)> filter_;       // guarded by mutex_
  std::function<void(const Notification&)> textPrinter_;  // guarded by mutex_
  bool finished_ = false;  // guarded by mutex_; no event is printed after the summary
  std::atomic<bool> engineUsed_{false};
  std::mutex outputMutex_;  // one line at a time
};

}  // namespace sonorell::cli
