// Which version of each served file is current. Version 0 is the catalogue's file; a "file
// changed" fault moves a path to the next version, whose bytes differ throughout and whose
// validators (ETag, Last-Modified) are new. One mutex guards the map; safe from any thread.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
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

// The bytes of `version` of a file whose version 0 is `original` (same size; a byte in every 512
// differs, so a resume that splices two versions never matches either).
std::shared_ptr<const std::string> versionBytes(std::shared_ptr<const std::string> original,
                                                std::uint64_t version);

// Last-Modified of a version: a fixed date, one hour later per version (IMF-fixdate).
std::string lastModifiedText(std::uint64_t version);

}  // namespace sonorell::content
