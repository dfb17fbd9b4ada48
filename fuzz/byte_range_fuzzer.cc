// The reference server's reading of Range and If-Range: whatever the headers say, an answer of
// part of a file must lie inside the file, and anything else is the whole file or nothing.
// Input, one field a line: the file's size, then the Range and If-Range values (a missing line
// is a header not sent), the file's ETag and its Last-Modified text.
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "byte_range.h"

namespace {

using sonorell::content::answerRange;
using sonorell::content::RangeAnswer;

void check(bool condition) {
  if (!condition) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  std::vector<std::string_view> lines;
  while (!input.empty() && lines.size() < 5) {
    const size_t end = input.find('\n');
    lines.push_back(input.substr(0, end));
    input.remove_prefix(end == std::string_view::npos ? input.size() : end + 1);
  }
  auto line = [&lines](size_t i) -> std::optional<std::string_view> {
    return i < lines.size() ? std::optional(lines[i]) : std::nullopt;
  };
  uint64_t fileSize = 0;
  if (const auto text = line(0))
    std::from_chars(text->data(), text->data() + text->size(), fileSize);
  const auto range = line(1);
  const auto ifRange = line(2);

  const RangeAnswer answer =
      answerRange(range, ifRange, line(3).value_or(""), line(4).value_or(""), fileSize);
  switch (answer.kind) {
    case RangeAnswer::Kind::kWhole:
      check(answer.offset == 0 && answer.length == fileSize);
      break;
    case RangeAnswer::Kind::kPartial:
      check(range && answer.length > 0 && answer.offset < fileSize &&
            answer.length <= fileSize - answer.offset);
      break;
    case RangeAnswer::Kind::kUnsatisfiable:
      check(range && answer.offset == 0 && answer.length == 0);
      break;
  }
  return 0;
}
