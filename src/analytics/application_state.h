// Whether the host application is in the foreground or the background, as the host reports it
// through the facade (didEnterBackground / willEnterForeground). Listen events are stamped
// with it. One process-wide atomic value: safe from any thread without a hop to the main thread.
#pragma once

#include <cstdint>

namespace sonorell {

enum class ApplicationState : uint64_t { Foreground = 0, Background = 1 };

class ApplicationStateTracker {
 public:
  static ApplicationState current();
  static void set(ApplicationState state);
};

}  // namespace sonorell
