// The fixed description of every failure code, per layer; codes missing from a layer's table
// get that layer's unknown description. Stateless.
#pragma once

#include <cstdint>
#include <string_view>

namespace sonorell {

std::string_view downloadDescriptionForErrorCode(int64_t code);
std::string_view playbackDescriptionForErrorCode(int64_t code);

}  // namespace sonorell
