// A small persistent key-value store (strings, numbers, booleans) kept as a JSON file in the
// engine's support directory. Every change is written through at once, atomically (temporary
// file, then rename). All members are guarded by the object's mutex.
#pragma once

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "sonorell/value.h"

namespace sonorell {

class UserDefaults {
 public:
  // Library/"SonorellSupport"/"UserDefaults.json"; created on first use.
  static UserDefaults& standard();
  // Drops the standard instance so that the next use reads the file again (tests).
  static void resetStandardForTesting();

  explicit UserDefaults(std::filesystem::path file);

  std::optional<Value> objectForKey(std::string_view key) const;
  std::optional<std::string> stringForKey(std::string_view key) const;
  int64_t integerForKey(std::string_view key) const;  // 0 when absent
  bool boolForKey(std::string_view key) const;        // false when absent
  // Only null, booleans, numbers and strings are kept; a null value removes the key.
  void setObject(const Value& value, std::string_view key);
  void removeObjectForKey(std::string_view key);

 private:
  void load();
  bool save() const;

  std::filesystem::path file_;
  mutable std::mutex mutex_;
  Dictionary values_;
};

}  // namespace sonorell
