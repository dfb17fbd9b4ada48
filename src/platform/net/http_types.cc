#include "platform/net/http_types.h"

#include <strings.h>

namespace sonorell {

std::optional<std::string> headerValue(const HttpHeaders& headers, std::string_view name) {
  for (const auto& [key, value] : headers) {
    if (key.size() == name.size() && ::strncasecmp(key.data(), name.data(), name.size()) == 0) {
      return value;
    }
  }
  return std::nullopt;
}

}  // namespace sonorell
