// Decides how a GET of a file of known size is answered given its Range and If-Range headers:
// whole, one byte range, or unsatisfiable. Pure function; safe from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace sonorell::content {

struct RangeAnswer {
  enum class Kind { kWhole, kPartial, kUnsatisfiable };
  Kind kind = Kind::kWhole;
  std::uint64_t offset = 0;
  std::uint64_t length = 0;
};

// `ifRange` matches when it equals the strong ETag or, for a date, the Last-Modified text exactly;
// otherwise the whole file is sent. Only a single "bytes=" range is honoured; several ranges or a
// malformed header get the whole file, as a server may answer.
RangeAnswer answerRange(std::optional<std::string_view> range,
                        std::optional<std::string_view> ifRange, std::string_view etag,
                        std::string_view lastModified, std::uint64_t size);

}  // namespace sonorell::content
