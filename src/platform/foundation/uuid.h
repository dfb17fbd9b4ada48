// Random UUIDs in the canonical upper-case 8-4-4-4-12 form. Thread-safe.
#pragma once

#include <string>

namespace sonorell {
std::string makeUUIDString();
}  // namespace sonorell
