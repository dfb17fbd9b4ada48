#include "platform/media/observation.h"

#include <string>

#include "platform/media/media_log.h"

namespace sonorell {
namespace {

class RefusedObservation final : public Observation {
 public:
  void invalidate() override {}
};

}  // namespace

ObservationToken refuseObserverWithoutQueue(std::string_view what) {
  media_log::emit(LogType::Error, "[Media] " + std::string(what) +
                                      " called without a delivery queue; the observer is refused "
                                      "and will never be called");
  return std::make_shared<RefusedObservation>();
}

}  // namespace sonorell
