#include "model/json_reading.h"

#include <cmath>

namespace sonorell::json_reading {

uint64_t unsignedValue(const nlohmann::json& value) {
  if (value.is_number_unsigned()) return value.get<uint64_t>();
  if (value.is_number_integer()) return static_cast<uint64_t>(value.get<int64_t>());
  if (value.is_number_float()) {
    double d = value.get<double>();
    if (!std::isfinite(d) || d <= 0) return 0;
    // 2^64: a larger number has no uint64 value and is read as the largest.
    return d >= 18446744073709551616.0 ? UINT64_MAX : static_cast<uint64_t>(d);
  }
  if (value.is_boolean()) return value.get<bool>() ? 1 : 0;
  if (value.is_string()) {
    const auto& s = value.get_ref<const std::string&>();
    size_t i = 0;
    while (i < s.size() && s[i] == ' ') ++i;
    uint64_t n = 0;
    for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
      n = n * 10 + static_cast<uint64_t>(s[i] - '0');
    }
    return n;
  }
  return 0;
}

const nlohmann::json* member(const nlohmann::json& object, std::string_view key) {
  if (!object.is_object()) return nullptr;
  auto it = object.find(key);
  return it == object.end() ? nullptr : &*it;
}

bool isValidUTF8(std::string_view text) {
  const size_t n = text.size();
  size_t i = 0;
  while (i < n) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (c < 0x80) {
      ++i;
      continue;
    }
    size_t length;
    uint32_t point;
    if ((c & 0xE0) == 0xC0) {
      length = 2;
      point = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      length = 3;
      point = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      length = 4;
      point = c & 0x07;
    } else {
      return false;
    }
    if (i + length > n) return false;
    for (size_t k = 1; k < length; ++k) {
      unsigned char d = static_cast<unsigned char>(text[i + k]);
      if ((d & 0xC0) != 0x80) return false;
      point = (point << 6) | (d & 0x3F);
    }
    bool overlong = (length == 2 && point < 0x80) || (length == 3 && point < 0x800) ||
                    (length == 4 && point < 0x10000);
    if (overlong || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) return false;
    i += length;
  }
  return true;
}

}  // namespace sonorell::json_reading
