/// The engine's version: the prefix of every log line and what QSOSonorell::currentVersion gives.
/// @file
#pragma once

#include <string_view>

namespace sonorell {
/// The version of these headers, compiled into the host. QSOSonorell::currentVersion() gives
/// the version of the library loaded at run time; hosts built for 6.x run with any 6.y, y >= x
/// (the shared library's SONAME is libsonorell.so.6).
inline constexpr std::string_view kSonorellVersion = "6.5.8";
}  // namespace sonorell
