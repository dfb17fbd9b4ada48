#include "platform/foundation/kept_aside.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>

#include <ctime>

namespace sonorell {

namespace {

// Renames without ever replacing what is at `to`: an earlier kept file is somebody's data too.
// EEXIST when `to` is taken.
std::error_code renameKeeping(const std::filesystem::path& from, const std::filesystem::path& to) {
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return {};
  if (errno != EINVAL && errno != ENOSYS) return {errno, std::generic_category()};
  // A file system that cannot refuse to replace: look first.
  std::error_code ec;
  if (std::filesystem::exists(to, ec)) return std::make_error_code(std::errc::file_exists);
  std::filesystem::rename(from, to, ec);
  return ec;
}

}  // namespace

std::string KeptAside::description() const {
  return error ? "(could not move it: " + error.message() + ")" : path.string();
}

KeptAside keepUnreadableFileAside(const std::filesystem::path& file) {
  KeptAside kept;
  const std::string base = file.string() + ".unreadable-" + std::to_string(::time(nullptr));
  for (int n = 1; n <= 100; ++n) {
    std::filesystem::path candidate = n == 1 ? base : base + "-" + std::to_string(n);
    kept.error = renameKeeping(file, candidate);
    if (!kept.error) {
      kept.path = std::move(candidate);
      break;
    }
    if (kept.error != std::errc::file_exists) break;
  }
  std::error_code ignored;
  if (kept.error) std::filesystem::remove(file, ignored);
  // The write-ahead log belongs to the old file: replayed into a new one it would damage it.
  const std::filesystem::path wal = file.string() + "-wal";
  if (kept.path.empty() || renameKeeping(wal, kept.path.string() + "-wal")) {
    std::filesystem::remove(wal, ignored);
  }
  std::filesystem::remove(file.string() + "-shm", ignored);
  return kept;
}

}  // namespace sonorell
