// The server's data directory: where rendered chapters and the TLS identity are cached, shared by
// every server process on the machine. DataDirLock (an flock on a file inside it) serialises the
// processes that fill it; files appear complete or not at all.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace sonorell::content {

// <system temp dir>/sonorell-content-server/<catalogue version>.
std::filesystem::path defaultDataDir();

class DataDirLock {
 public:
  // Creates the directory (mode 0700) if needed and blocks until the lock is held.
  explicit DataDirLock(const std::filesystem::path& dir);
  ~DataDirLock();
  DataDirLock(const DataDirLock&) = delete;
  DataDirLock& operator=(const DataDirLock&) = delete;

 private:
  int fd_ = -1;
};

// Writes to a unique temporary name beside `path`, then renames it into place.
void writeFileAtomically(const std::filesystem::path& path, std::string_view bytes);
// Whole file; throws std::runtime_error when it cannot be read.
std::string readFile(const std::filesystem::path& path);

}  // namespace sonorell::content
