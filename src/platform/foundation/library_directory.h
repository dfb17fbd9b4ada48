// The per-user Library directory under which the engine keeps everything, and the directory
// helpers that apply our rules (mode 0700, excluded from backup). The chosen path is resolved
// once and guarded by a mutex; the helpers are stateless.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <system_error>

namespace sonorell {

class LibraryDirectory {
 public:
  // The host's choice; only honoured before the path is first resolved.
  static void setPath(std::filesystem::path path);
  // In order: the host's choice, $SONORELL_LIBRARY_DIR, $XDG_DATA_HOME (default ~/.local/share)
  // + "/" + the program name. Created (0700) on first use; empty if it cannot be made.
  static std::optional<std::filesystem::path> path();
  // Forgets the resolved path so that a test can point the engine somewhere else.
  static void resetForTesting();

  // Creates the directory and missing parents with mode 0700.
  static bool createDirectories(const std::filesystem::path& dir, std::error_code& error);
  // Best effort: the backup-exclusion xattr on the directory.
  static void excludeFromBackup(const std::filesystem::path& dir);
  // Best effort: a CACHEDIR.TAG so that backup tools skip the directory.
  static void writeCacheDirTag(const std::filesystem::path& dir);
};

}  // namespace sonorell
