#include "analytics/application_state.h"

#include <atomic>

namespace sonorell {

namespace {
// A process starts in front: the host launches it because the user opened it.
std::atomic<ApplicationState> state{ApplicationState::Foreground};
}  // namespace

ApplicationState ApplicationStateTracker::current() {
  return state.load(std::memory_order_acquire);
}

void ApplicationStateTracker::set(ApplicationState next) {
  state.store(next, std::memory_order_release);
}

}  // namespace sonorell
