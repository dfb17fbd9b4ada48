#include "platform/foundation/library_directory.h"

#include <errno.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <mutex>
#include <string>

namespace sonorell {

namespace {
// Never destroyed: a background thread (start-up verification, a transfer) may ask for the
// path while the process exits.
struct State {
  std::mutex mutex;
  std::optional<std::filesystem::path> hostPath;
  std::optional<std::filesystem::path> resolved;
  bool resolvedOnce = false;
};

State& state() {
  static auto* s = new State();
  return *s;
}

std::string programName() {
  std::ifstream comm("/proc/self/comm");
  std::string name;
  if (std::getline(comm, name) && !name.empty()) return name;
  return "sonorell";
}

std::optional<std::filesystem::path> resolve() {
  if (state().hostPath) return state().hostPath;
  if (const char* dir = std::getenv("SONORELL_LIBRARY_DIR"); dir && *dir) {
    return std::filesystem::path(dir);
  }
  std::filesystem::path base;
  if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && *xdg) {
    base = xdg;
  } else if (const char* home = std::getenv("HOME"); home && *home) {
    base = std::filesystem::path(home) / ".local" / "share";
  } else {
    return std::nullopt;
  }
  return base / programName();
}
}  // namespace

void LibraryDirectory::setPath(std::filesystem::path path) {
  auto& s = state();
  std::lock_guard lock(s.mutex);
  if (!s.resolvedOnce) s.hostPath = std::move(path);
}

std::optional<std::filesystem::path> LibraryDirectory::path() {
  auto& s = state();
  std::lock_guard lock(s.mutex);
  if (!s.resolvedOnce) {
    s.resolvedOnce = true;
    s.resolved = resolve();
    std::error_code error;
    if (s.resolved && !createDirectories(*s.resolved, error)) s.resolved.reset();
  }
  return s.resolved;
}

void LibraryDirectory::resetForTesting() {
  auto& s = state();
  std::lock_guard lock(s.mutex);
  s.hostPath.reset();
  s.resolved.reset();
  s.resolvedOnce = false;
}

bool LibraryDirectory::createDirectories(const std::filesystem::path& dir, std::error_code& error) {
  error.clear();
  if (dir.empty()) {
    error = std::make_error_code(std::errc::invalid_argument);
    return false;
  }
  // Usually the directory is there already (each chapter asks for its book's): one call then.
  if (::mkdir(dir.c_str(), 0700) == 0) return true;
  if (errno != EEXIST) {
    std::filesystem::path partial;
    for (const auto& piece : dir) {
      partial /= piece;
      if (::mkdir(partial.c_str(), 0700) != 0 && errno != EEXIST) {
        error = std::error_code(errno, std::generic_category());
        return false;
      }
    }
  }
  if (!std::filesystem::is_directory(dir, error)) {
    if (!error) error = std::make_error_code(std::errc::not_a_directory);
    return false;
  }
  return true;
}

void LibraryDirectory::excludeFromBackup(const std::filesystem::path& dir) {
  static const char kValue[] = "false";
  ::setxattr(dir.c_str(), "user.xdg.robots.backup", kValue, sizeof kValue - 1, 0);
}

void LibraryDirectory::writeCacheDirTag(const std::filesystem::path& dir) {
  auto tag = dir / "CACHEDIR.TAG";
  std::error_code error;
  if (std::filesystem::exists(tag, error)) return;
  // Written aside and renamed, so a kill never leaves a torn tag behind.
  auto temp = dir / ("CACHEDIR.TAG.tmp" + std::to_string(::getpid()));
  {
    std::ofstream out(temp, std::ios::trunc);
    out << "Signature: 8a477f597d28d172789f06886806bc55\n"
           "# This file marks the directory as cache data (downloaded audio) for backup tools.\n";
    if (!out.flush()) {
      std::filesystem::remove(temp, error);
      return;
    }
  }
  std::filesystem::rename(temp, tag, error);
  if (error) std::filesystem::remove(temp, error);
}

}  // namespace sonorell
