/// Small engine-wide utilities: identifiers, parameter checks and running work on the main
/// thread. Stateless; callable from any thread.
/// @file
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "sonorell/export.h"

namespace sonorell {

/// Identifier and parameter helpers. Static members only.
class SONORELL_EXPORT QSOUtils {
 public:
  /// A new random UUID, upper case, 8-4-4-4-12 (36 characters).
  static std::string generateUUID();
  /// True when the string is present and not "" (no trimming: " " passes).
  static bool validateStringParam(const std::optional<std::string>& value);
  /// True when the pointer is not null and the string not "".
  static bool validateStringParam(const std::string* value);
};

/// On the main thread the block runs at once; elsewhere it runs on the main queue and the caller
/// waits for it.
SONORELL_EXPORT void QSORunOnMainThreadSync(const std::function<void()>& block);
/// On the main thread the block runs at once, before this returns; elsewhere it is queued on the
/// main queue.
SONORELL_EXPORT void QSORunOnMainThreadAsync(std::function<void()> block);

}  // namespace sonorell
