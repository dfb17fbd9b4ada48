/// The process-wide notification centre through which the engine tells the host what happened.
/// Observers run on the posting thread (the engine posts from its notifications queue). The
/// observer list is guarded by the centre's mutex; observers are called outside it.
/// @file
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "sonorell/export.h"
#include "sonorell/value.h"

namespace sonorell {

/// One notification as an observer receives it; valid for the duration of the call (copy what
/// is needed later).
struct Notification {
  std::string name;                    ///< one of the names in sonorell/notifications.h
  std::shared_ptr<const void> object;  ///< the sender, may be null
  Dictionary userInfo;                 ///< the details; keys in sonorell/notifications.h
};

/// Delivers named notifications to the observers registered for them.
///
/// Threads: an observer runs on the thread that posts. The engine posts only from its serial
/// notifications queue, so a host's observers run there, in posting order, never on the main
/// thread; they should return quickly and must not wait for engine work that itself posts
/// (QSODownloadEngine::waitUntilCommandsHaveRun, say).
///
/// Ownership: the centre keeps a copy of each observer function until removeObserver() (and a
/// post already under way) lets go of it; anything the function captures lives as long. The default
/// centre is never destroyed.
class SONORELL_EXPORT NotificationCenter {
 public:
  /// What an observer is called with.
  using Observer = std::function<void(const Notification&)>;
  /// Names one registration, for removeObserver(); never reused within a process.
  using Token = uint64_t;

  /// The process-wide centre the engine posts to.
  static NotificationCenter& defaultCenter();

  /// Registers `observer` for notifications named `name`; an empty name observes every
  /// notification. Safe from any thread, observers included.
  Token addObserver(std::string name, Observer observer);
  /// After this returns the observer is not called again (a call already running on another
  /// thread may still be finishing).
  void removeObserver(Token token);
  /// Calls every matching observer on the calling thread, in registration order, then returns.
  void post(const std::string& name, std::shared_ptr<const void> object, Dictionary userInfo);

  /// A centre of its own, apart from the default one (tests use these).
  NotificationCenter();
  /// Observers must not be running when a centre is destroyed.
  ~NotificationCenter();
  NotificationCenter(const NotificationCenter&) = delete;
  NotificationCenter& operator=(const NotificationCenter&) = delete;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace sonorell
