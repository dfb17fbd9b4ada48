#include "data_dir.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "catalogue.h"

namespace sonorell::content {

std::filesystem::path defaultDataDir() {
  return std::filesystem::temp_directory_path() / "sonorell-content-server" /
         std::string(Catalogue::version());
}

DataDirLock::DataDirLock(const std::filesystem::path& dir) {
  std::filesystem::create_directories(dir);
  ::chmod(dir.c_str(), 0700);
  const auto lockPath = dir / ".lock";
  fd_ = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd_ < 0) {
    throw std::system_error(errno, std::generic_category(), "open " + lockPath.string());
  }
  while (::flock(fd_, LOCK_EX) != 0) {
    if (errno != EINTR) {
      const int err = errno;
      ::close(fd_);
      throw std::system_error(err, std::generic_category(), "flock " + lockPath.string());
    }
  }
}

DataDirLock::~DataDirLock() {
  if (fd_ >= 0) {
    ::flock(fd_, LOCK_UN);
    ::close(fd_);
  }
}

void writeFileAtomically(const std::filesystem::path& path, std::string_view bytes) {
  static std::atomic<unsigned> sequence{0};
  std::ostringstream name;
  name << path.filename().string() << ".tmp-" << ::getpid() << '-' << std::this_thread::get_id()
       << '-' << sequence++;
  const auto temp = path.parent_path() / name.str();
  {
    std::ofstream out(temp, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.flush();
    if (!out) throw std::runtime_error("cannot write " + temp.string());
  }
  std::filesystem::rename(temp, path);
}

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path.string());
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

}  // namespace sonorell::content
