#include "model/safe_dictionary.h"

#include <cctype>
#include <cmath>
#include <limits>

#include "model/date_rules.h"

namespace sonorell {

namespace {

const Value* find(const Dictionary& dictionary, std::string_view key) {
  auto it = dictionary.find(key);
  return it == dictionary.end() ? nullptr : &it->second;
}

bool isNumber(const Value& value) {
  return value.is<int64_t>() || value.is<uint64_t>() || value.is<double>() || value.is<bool>();
}

size_t skipBlanks(std::string_view s, size_t at) {
  while (at < s.size() && std::isspace(static_cast<unsigned char>(s[at]))) ++at;
  return at;
}

bool stringBoolValue(std::string_view s) {
  size_t at = skipBlanks(s, 0);
  if (at < s.size() && (s[at] == '+' || s[at] == '-')) ++at;
  while (at < s.size() && s[at] == '0') ++at;
  if (at >= s.size()) return false;
  char c = s[at];
  return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

int64_t stringIntegerValue(std::string_view s) {
  size_t at = skipBlanks(s, 0);
  bool negative = false;
  if (at < s.size() && (s[at] == '+' || s[at] == '-')) negative = s[at++] == '-';
  // Accumulate as a negative number so that INT64_MIN itself fits.
  int64_t value = 0;
  constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
  for (; at < s.size() && std::isdigit(static_cast<unsigned char>(s[at])); ++at) {
    int digit = s[at] - '0';
    if (value < (kMin + digit) / 10) {
      return negative ? kMin : std::numeric_limits<int64_t>::max();
    }
    value = value * 10 - digit;
  }
  if (negative) return value;
  return value == kMin ? std::numeric_limits<int64_t>::max() : -value;
}

int64_t doubleIntegerValue(double d) {
  if (std::isnan(d)) return 0;
  if (d >= 9.2233720368547758e18) return std::numeric_limits<int64_t>::max();
  if (d <= -9.2233720368547758e18) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(d);
}

}  // namespace

bool QSOSafeDictionary::boolValue(const Value& value) {
  if (const auto* s = value.getIf<std::string>()) return stringBoolValue(*s);
  if (const auto* d = value.getIf<double>()) return *d != 0;
  if (isNumber(value)) return value.asInt().value_or(0) != 0 || value.asUInt().value_or(0) != 0;
  return false;
}

int64_t QSOSafeDictionary::integerValue(const Value& value) {
  if (const auto* s = value.getIf<std::string>()) return stringIntegerValue(*s);
  if (const auto* d = value.getIf<double>()) return doubleIntegerValue(*d);
  if (const auto* u = value.getIf<uint64_t>()) {
    constexpr uint64_t kMax = std::numeric_limits<int64_t>::max();
    return static_cast<int64_t>(*u > kMax ? kMax : *u);
  }
  if (isNumber(value)) return value.asInt().value_or(0);
  return 0;
}

std::string QSOSafeDictionary::safeStringForKey(const Dictionary& dictionary,
                                                std::string_view key) {
  const Value* value = find(dictionary, key);
  if (value == nullptr) return "";
  const auto* s = value->getIf<std::string>();
  return s ? *s : "";
}

Value QSOSafeDictionary::safeNumberForKey(const Dictionary& dictionary, std::string_view key) {
  const Value* value = find(dictionary, key);
  if (value == nullptr || !isNumber(*value)) return Value(int64_t{0});
  return *value;
}

bool QSOSafeDictionary::safeBoolForKey(const Dictionary& dictionary, std::string_view key) {
  const Value* value = find(dictionary, key);
  return value != nullptr && boolValue(*value);
}

int64_t QSOSafeDictionary::safeIntegerForKey(const Dictionary& dictionary, std::string_view key) {
  const Value* value = find(dictionary, key);
  return value == nullptr ? 0 : integerValue(*value);
}

std::optional<Date> QSOSafeDictionary::safeDateForKey(const Dictionary& dictionary,
                                                      std::string_view key,
                                                      std::string_view dateFormat) {
  const Value* value = find(dictionary, key);
  if (value == nullptr) return referenceDate1970();
  const auto* s = value->getIf<std::string>();
  if (s == nullptr) return referenceDate1970();
  return dateFromString(*s, dateFormat);
}

Array QSOSafeDictionary::safeArrayForKey(const Dictionary& dictionary, std::string_view key) {
  const Value* value = find(dictionary, key);
  if (value == nullptr) return {};
  const auto* array = value->asArray();
  return array ? *array : Array{};
}

}  // namespace sonorell
