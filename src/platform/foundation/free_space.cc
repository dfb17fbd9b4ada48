#include "platform/foundation/free_space.h"

#include <sys/statvfs.h>

namespace sonorell {

std::optional<uint64_t> freeSpaceOnFileSystem(const std::filesystem::path& directory) {
  struct statvfs info {};
  if (::statvfs(directory.c_str(), &info) != 0) return std::nullopt;
  return uint64_t(info.f_bavail) * uint64_t(info.f_frsize);
}

}  // namespace sonorell
