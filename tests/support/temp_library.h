// A fresh Library directory for one test: created under the system temp directory, installed
// as the engine's Library directory, and removed with everything in it afterwards.
#pragma once

#include <filesystem>

namespace sonorell::testing {

class TempLibrary {
 public:
  TempLibrary();
  ~TempLibrary();
  TempLibrary(const TempLibrary&) = delete;
  TempLibrary& operator=(const TempLibrary&) = delete;

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace sonorell::testing
