// The file operations the engines perform on chapter files and their directories, behind one
// interface so that a test can fail a single call (a full disk, a failed move) and keep the rest
// real (FileSystemWrapper). The POSIX implementation is stateless and safe from any thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <vector>

#include "sonorell/error.h"

namespace sonorell {

class FileSystem {
 public:
  using Path = std::filesystem::path;
  virtual ~FileSystem() = default;

  // The POSIX file system.
  static std::shared_ptr<FileSystem> shared();

  virtual bool fileExists(const Path& path) = 0;
  // Size of a regular file; none when there is no such file.
  virtual std::optional<uint64_t> fileSize(const Path& path) = 0;
  // With missing parents, mode 0700. Null when it exists afterwards.
  virtual ErrorPtr createDirectory(const Path& path) = 0;
  // Renames within one file system (copies across file systems, then removes the source). An
  // existing destination is not replaced: file-system error 516; a missing source: error 4.
  virtual ErrorPtr moveItem(const Path& from, const Path& to) = 0;
  // A file or a whole directory tree; a missing item is error 4.
  virtual ErrorPtr removeItem(const Path& path) = 0;
  // The entries of a directory (not recursive), in no particular order; empty when unreadable.
  virtual std::vector<Path> contentsOfDirectory(const Path& directory) = 0;
  // Bytes available to this process in the directory's file system; none when it cannot tell.
  virtual std::optional<uint64_t> freeSpace(const Path& directory) = 0;
};

// Forwards every call to another file system; a test overrides the calls it wants to fail.
class FileSystemWrapper : public FileSystem {
 public:
  explicit FileSystemWrapper(std::shared_ptr<FileSystem> target) : target_(std::move(target)) {}

  bool fileExists(const Path& path) override { return target_->fileExists(path); }
  std::optional<uint64_t> fileSize(const Path& path) override { return target_->fileSize(path); }
  ErrorPtr createDirectory(const Path& path) override { return target_->createDirectory(path); }
  ErrorPtr moveItem(const Path& from, const Path& to) override {
    return target_->moveItem(from, to);
  }
  ErrorPtr removeItem(const Path& path) override { return target_->removeItem(path); }
  std::vector<Path> contentsOfDirectory(const Path& directory) override {
    return target_->contentsOfDirectory(directory);
  }
  std::optional<uint64_t> freeSpace(const Path& directory) override {
    return target_->freeSpace(directory);
  }

 protected:
  const std::shared_ptr<FileSystem>& target() const { return target_; }

 private:
  const std::shared_ptr<FileSystem> target_;
};

}  // namespace sonorell
