// What every fuzz target sets up once: the engine's log lines are still formatted (a listener
// takes them, so the formatting of hostile text runs) but none is printed, and dates read in UTC
// so that a reproducer behaves the same on every machine. Targets that read files get a scratch
// directory of their own process, removed at exit.
#pragma once

#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>

#include "sonorell/log_engine.h"

namespace sonorell::fuzz {

class DiscardingListener final : public QSOLogListener {
 public:
  void logError(const std::string&) override {}
  void logWarning(const std::string&) override {}
  void logInfo(const std::string&) override {}
  void logVerbose(const std::string&) override {}
};

inline void setUpProcess() {
  ::setenv("SONORELL_LOG_LEVEL", "off", /*overwrite=*/0);
  ::setenv("TZ", "UTC", 1);
  ::tzset();
  QSOLogEngine::setListener(std::make_shared<DiscardingListener>());
}

// In memory where the machine has /dev/shm: the file targets write every input, and the
// journal and the archive sync what they write. Never destroyed, so that the exit handler that
// removes it can still name it.
inline const std::filesystem::path& scratchDirectory() {
  static const std::filesystem::path* directory = [] {
    std::string base = "/dev/shm";
    if (::access(base.c_str(), W_OK) != 0) {
      const char* tmp = std::getenv("TMPDIR");
      base = tmp && *tmp ? tmp : "/tmp";
    }
    std::string pattern = base + "/sonorell-fuzz-XXXXXX";
    if (!::mkdtemp(pattern.data())) {
      std::perror("mkdtemp");
      std::abort();
    }
    return new std::filesystem::path(pattern);
  }();
  static const bool removedAtExit = [] {
    return std::atexit([] {
             std::error_code ignored;
             std::filesystem::remove_all(*directory, ignored);
           }) == 0;
  }();
  (void)removedAtExit;
  return *directory;
}

inline void writeFile(const std::filesystem::path& file, std::string_view bytes) {
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!out) {
    std::perror(file.c_str());
    std::abort();
  }
}

}  // namespace sonorell::fuzz
