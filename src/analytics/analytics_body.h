// The body of an analytics POST: the queued events (oldest first), the install identifier, the
// system and the engine version, as compact JSON. Reads and may create the "uuid" user default
// (UserDefaults guards itself); otherwise pure, safe from any thread.
#pragma once

#include <string>
#include <vector>

#include "analytics/listen_event.h"

namespace sonorell {

// The install identifier reported as "udid": user defaults' "uuid", created and stored first
// when there is none.
std::string analyticsInstallIdentifier();

std::string analyticsBody(const std::vector<QLListenEventPtr>& events);

}  // namespace sonorell
