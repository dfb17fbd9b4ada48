#include "byte_range.h"

#include <charconv>

namespace sonorell::content {
namespace {

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

std::optional<std::uint64_t> number(std::string_view s) {
  std::uint64_t value = 0;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), value);
  if (s.empty() || ec != std::errc() || end != s.data() + s.size()) return std::nullopt;
  return value;
}

bool validatorMatches(std::string_view ifRange, std::string_view etag,
                      std::string_view lastModified) {
  ifRange = trim(ifRange);
  // Weak validators never match for ranges.
  if (ifRange.starts_with("W/")) return false;
  if (ifRange.starts_with("\"")) return ifRange == etag;
  return ifRange == lastModified;
}

}  // namespace

RangeAnswer answerRange(std::optional<std::string_view> range,
                        std::optional<std::string_view> ifRange, std::string_view etag,
                        std::string_view lastModified, std::uint64_t size) {
  RangeAnswer whole{RangeAnswer::Kind::kWhole, 0, size};
  if (!range) return whole;
  if (ifRange && !validatorMatches(*ifRange, etag, lastModified)) return whole;
  std::string_view rangeText = trim(*range);
  if (!rangeText.starts_with("bytes=")) return whole;
  rangeText = trim(rangeText.substr(6));
  if (rangeText.find(',') != std::string_view::npos) return whole;
  const auto dash = rangeText.find('-');
  if (dash == std::string_view::npos) return whole;
  const std::string_view first = trim(rangeText.substr(0, dash));
  const std::string_view last = trim(rangeText.substr(dash + 1));
  const RangeAnswer unsatisfiable{RangeAnswer::Kind::kUnsatisfiable, 0, 0};

  if (first.empty()) {  // suffix: the last N bytes
    const auto n = number(last);
    if (!n) return whole;
    if (*n == 0 || size == 0) return unsatisfiable;
    const std::uint64_t length = *n < size ? *n : size;
    return {RangeAnswer::Kind::kPartial, size - length, length};
  }
  const auto from = number(first);
  if (!from) return whole;
  std::uint64_t to = size == 0 ? 0 : size - 1;
  if (!last.empty()) {
    const auto parsed = number(last);
    if (!parsed || *parsed < *from) return whole;
    if (*parsed < to) to = *parsed;
  }
  if (*from >= size) return unsatisfiable;
  return {RangeAnswer::Kind::kPartial, *from, to - *from + 1};
}

}  // namespace sonorell::content
