// Which version of each served file is current. Version 0 is the catalogue's file; a "file
// changed" fault moves a path to the next version, whose bytes differ throughout and whose
// validators (ETag, Last-Modified) are new. One mutex guards the map; safe from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

namespace sonorell::content {

class FileVersions {
 public:
  std::uint64_t current(std::string_view path) const;
  // Moves the path to its next version and returns it.
  std::uint64_t change(std::string_view path);
  void reset();

 private:
  mutable std::mutex mutex_;
  std::map<std::string, std::uint64_t, std::less<>> versions_;  // guarded by mutex_
};

// Turns bytes [offset, offset + n) of a file's version 0 into those of `version`, in place (same
// size; a byte in every 512 differs, so a resume that splices two versions never matches either).
void applyVersion(std::uint64_t version, std::uint64_t offset, char* bytes, std::size_t n);

// Last-Modified of a version: a fixed date, one hour later per version (IMF-fixdate).
std::string lastModifiedText(std::uint64_t version);

}  // namespace sonorell::content
