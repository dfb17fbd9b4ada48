#include "file_versions.h"

#include <ctime>

namespace sonorell::content {

std::uint64_t FileVersions::current(std::string_view path) const {
  std::lock_guard lock(mutex_);
  auto it = versions_.find(path);
  return it == versions_.end() ? 0 : it->second;
}

std::uint64_t FileVersions::change(std::string_view path) {
  std::lock_guard lock(mutex_);
  auto it = versions_.find(path);
  if (it == versions_.end()) it = versions_.emplace(std::string(path), 0).first;
  return ++it->second;
}

void FileVersions::reset() {
  std::lock_guard lock(mutex_);
  versions_.clear();
}

void applyVersion(std::uint64_t version, std::uint64_t offset, char* bytes, std::size_t n) {
  if (version == 0) return;
  const auto mask = static_cast<char>(0x5A ^ (version & 0xFF) ^ ((version >> 8) & 0xFF));
  const char flip = mask == 0 ? static_cast<char>(0xA5) : mask;
  for (std::uint64_t at = (offset + 511) / 512 * 512; at < offset + n; at += 512) {
    bytes[at - offset] ^= flip;
  }
}

std::string lastModifiedText(std::uint64_t version) {
  // 2017-03-04 10:20:30 UTC, the catalogue's modification date.
  const std::time_t base = 1488622830;
  const std::time_t t = base + static_cast<std::time_t>(version) * 3600;
  std::tm utc{};
  gmtime_r(&t, &utc);
  static const char* const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  char text[64];
  std::snprintf(text, sizeof text, "%s, %02d %s %04d %02d:%02d:%02d GMT", kDays[utc.tm_wday],
                utc.tm_mday, kMonths[utc.tm_mon], utc.tm_year + 1900, utc.tm_hour, utc.tm_min,
                utc.tm_sec);
  return text;
}

}  // namespace sonorell::content
