// Small readers over decoded JSON shared by the content-API clients: numbers the way the
// platform reads them from numbers or digit strings, and UTF-8 validation. Stateless.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace sonorell::json_reading {

// A number, or a string starting with digits, as an unsigned integer; anything else is 0. A
// fractional number is truncated; one beyond the range of uint64 reads as its largest value.
uint64_t unsignedValue(const nlohmann::json& value);
// The key's value in an object, or null when the object is not one or lacks the key.
const nlohmann::json* member(const nlohmann::json& object, std::string_view key);
bool isValidUTF8(std::string_view text);

}  // namespace sonorell::json_reading
