// How much room a directory's file system has left for us: what the transfer driver checks before
// a body is written and what decides how long the transfer journal's log may grow. Injectable, so
// a test can play a nearly full disk.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>

namespace sonorell {

// Bytes available to an unprivileged writer under `directory`; nullopt when it cannot be told.
using FreeSpaceProbe = std::function<std::optional<uint64_t>(const std::filesystem::path&)>;
std::optional<uint64_t> freeSpaceOnFileSystem(const std::filesystem::path& directory);

}  // namespace sonorell
