// The process-wide notification centre through which the engine tells the host what happened.
// Observers run on the posting thread (the engine posts from its notifications queue). The
// observer list is guarded by the centre's mutex; observers are called outside it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "sonorell/export.h"
#include "sonorell/value.h"

namespace sonorell {

struct Notification {
  std::string name;
  std::shared_ptr<const void> object;  // the sender, may be null
  Dictionary userInfo;
};

class SONORELL_EXPORT NotificationCenter {
 public:
  using Observer = std::function<void(const Notification&)>;
  using Token = uint64_t;

  static NotificationCenter& defaultCenter();

  // An empty name observes every notification.
  Token addObserver(std::string name, Observer observer);
  // After this returns the observer is not called again (a call already running on another
  // thread may still be finishing).
  void removeObserver(Token token);
  void post(const std::string& name, std::shared_ptr<const void> object, Dictionary userInfo);

  NotificationCenter();
  ~NotificationCenter();
  NotificationCenter(const NotificationCenter&) = delete;
  NotificationCenter& operator=(const NotificationCenter&) = delete;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace sonorell
