// Tolerant readers of a decoded document: each gives a documented default instead of failing when
// a key is missing, null or of another type, so that no field of a metadata document is ever
// mandatory. Pure functions over a Dictionary; safe from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "sonorell/value.h"

namespace sonorell {

class QSOSafeDictionary {
 public:
  // The string, or "" for anything else.
  static std::string safeStringForKey(const Dictionary& dictionary, std::string_view key);
  // The number (integer, floating or boolean value, kind kept), or the integer 0.
  static Value safeNumberForKey(const Dictionary& dictionary, std::string_view key);
  // Numbers are true when non-zero; strings as the platform reads a string's boolean value
  // (leading blanks, a sign and zeros skipped, then Y, y, T, t or 1-9 means true: "true", "YES",
  // "7"). Missing, null and anything else give false.
  static bool safeBoolForKey(const Dictionary& dictionary, std::string_view key);
  // Numbers truncated toward zero; strings read as a leading decimal integer ("1234",
  // " -5kg" gives -5), clamped to the 64-bit range. Missing, null and anything else give 0.
  static int64_t safeIntegerForKey(const Dictionary& dictionary, std::string_view key);
  // A string is parsed with `dateFormat` (date_rules.h) and gives an empty date when it does not
  // match; anything that is not a string gives the 1970 date.
  static std::optional<Date> safeDateForKey(const Dictionary& dictionary, std::string_view key,
                                            std::string_view dateFormat);
  // The array, or an empty one (a single string is not an array).
  static Array safeArrayForKey(const Dictionary& dictionary, std::string_view key);

  // The readings above on a value, for callers that already hold one.
  static bool boolValue(const Value& value);
  static int64_t integerValue(const Value& value);
};

}  // namespace sonorell
