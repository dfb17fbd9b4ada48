#include "platform/foundation/file_system.h"

#include <sys/statvfs.h>

#include <cerrno>
#include <system_error>

#include "platform/foundation/library_directory.h"

namespace sonorell {

namespace {

namespace fs = std::filesystem;

ErrorPtr fileError(int64_t code, const fs::path& path, const std::error_code& cause) {
  auto underlying = cause ? Error::posix(cause.value(), path.string()) : nullptr;
  return Error::make(std::string(kFileSystemErrorDomain), code,
                     "The operation on \"" + path.filename().string() + "\" could not be completed",
                     underlying);
}

class PosixFileSystem final : public FileSystem {
 public:
  bool fileExists(const Path& path) override {
    std::error_code ec;
    return fs::exists(path, ec);
  }

  std::optional<uint64_t> fileSize(const Path& path) override {
    std::error_code ec;
    auto size = fs::file_size(path, ec);
    if (ec) return std::nullopt;
    return static_cast<uint64_t>(size);
  }

  ErrorPtr createDirectory(const Path& path) override {
    std::error_code ec;
    if (LibraryDirectory::createDirectories(path, ec)) return nullptr;
    return fileError(kFileWriteUnknownError, path, ec);
  }

  ErrorPtr moveItem(const Path& from, const Path& to) override {
    std::error_code ec;
    if (!fs::exists(from, ec)) return fileError(kFileNoSuchFileError, from, {});
    if (fs::exists(to, ec)) return fileError(kFileWriteFileExistsError, to, {});
    fs::rename(from, to, ec);
    if (ec == std::errc::cross_device_link) {
      // Another file system: copy beside the destination, rename into place, drop the source.
      Path partial = to;
      partial += ".partial";
      std::error_code copyError;
      fs::copy_file(from, partial, fs::copy_options::overwrite_existing, copyError);
      if (!copyError) fs::rename(partial, to, copyError);
      if (copyError) {
        fs::remove(partial, ec);
        return fileError(kFileWriteUnknownError, to, copyError);
      }
      fs::remove(from, ec);
      return nullptr;
    }
    return ec ? fileError(kFileWriteUnknownError, to, ec) : nullptr;
  }

  ErrorPtr removeItem(const Path& path) override {
    std::error_code ec;
    if (!fs::exists(fs::symlink_status(path, ec))) return fileError(kFileNoSuchFileError, path, {});
    fs::remove_all(path, ec);
    return ec ? fileError(kFileWriteUnknownError, path, ec) : nullptr;
  }

  std::vector<Path> contentsOfDirectory(const Path& directory) override {
    std::vector<Path> entries;
    std::error_code ec;
    for (fs::directory_iterator it(directory, ec), end; !ec && it != end; it.increment(ec)) {
      entries.push_back(it->path());
    }
    return entries;
  }

  std::optional<uint64_t> freeSpace(const Path& directory) override {
    struct statvfs info {};
    if (::statvfs(directory.c_str(), &info) != 0) return std::nullopt;
    return uint64_t(info.f_bavail) * uint64_t(info.f_frsize);
  }
};

}  // namespace

std::shared_ptr<FileSystem> FileSystem::shared() {
  // Never destroyed: work still completing at exit may reach it.
  static const auto* files = new std::shared_ptr<FileSystem>(std::make_shared<PosixFileSystem>());
  return *files;
}

}  // namespace sonorell
