// The engine's version: the prefix of every log line and what QSOSonorell::currentVersion gives.
#pragma once

#include <string_view>

namespace sonorell {
inline constexpr std::string_view kSonorellVersion = "6.5.8";
}  // namespace sonorell
