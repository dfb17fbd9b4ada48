#include "platform/dispatch/observation.h"

#include <string>

#include "platform/log/platform_log.h"

namespace sonorell {
namespace {

class RefusedObservation final : public Observation {
 public:
  void invalidate() override {}
};

}  // namespace

ObservationToken refuseObserverWithoutQueue(std::string_view what) {
  platform_log::error(
      "[Observation] %@ called without a delivery queue; the observer is "
      "refused and will never be called",
      what);
  return std::make_shared<RefusedObservation>();
}

}  // namespace sonorell
