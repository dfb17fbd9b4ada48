// Moving a store file that is no longer a database out of the way without losing it: the stores
// start a new file in its place and keep the old bytes beside it for a person to look at. The
// function is stateless and safe from any thread.
#pragma once

#include <filesystem>
#include <string>
#include <system_error>

namespace sonorell {

struct KeptAside {
  std::filesystem::path path;  // where the file now is; empty when it could not be moved
  std::error_code error;       // why it could not be moved

  // For log lines: the new path, or "(could not move it: <reason>)".
  std::string description() const;
};

// Renames `file` to "<file>.unreadable-<unix time>" (with "-2", "-3"... added when that name is
// taken) and its write-ahead log "<file>-wal" to the same name + "-wal", and removes "<file>-shm",
// which only indexes that log. A file that cannot be moved is removed instead, so that a new
// store can still be made in its place.
KeptAside keepUnreadableFileAside(const std::filesystem::path& file);

}  // namespace sonorell
