// Builds the engine on a chosen set of platform services: the process's real ones for
// QSOSonorell::sharedEngine(), a test's own otherwise. Stateless.
#pragma once

#include <memory>

#include "platform/services.h"
#include "sonorell/facade.h"

namespace sonorell {

class EngineComposition {
 public:
  // A new engine (not the shared one) with its download and playback engines on `services`.
  static std::shared_ptr<QSOSonorell> create(ServicesPtr services);
};

}  // namespace sonorell
