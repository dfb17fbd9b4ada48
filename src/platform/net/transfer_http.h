// Pure helpers that read what a transfer needs from HTTP response headers. Stateless.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/net/http_types.h"

namespace sonorell {

// What names this version of the resource for If-Range: a strong ETag, else Last-Modified;
// empty when there is neither (weak ETags cannot be used with If-Range).
std::string resumeValidator(const HttpHeaders& headers);

struct ContentRange {
  int64_t first = 0;
  int64_t last = 0;
  int64_t total = -1;  // -1 for "*"
};
// "bytes 100-199/1000"; none when malformed or unsatisfied ("bytes */1000").
std::optional<ContentRange> parseContentRange(std::string_view value);

}  // namespace sonorell
