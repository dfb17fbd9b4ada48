// The values of an HTTP exchange: a data request, its response, and header lists with the
// case-blind lookup every part of the network layer uses. Plain values; no shared state.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sonorell {

using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

// First value of a header, names compared without regard to case.
std::optional<std::string> headerValue(const HttpHeaders& headers, std::string_view name);

struct HttpRequest {
  std::string method = "GET";
  std::string url;
  HttpHeaders headers;  // sent in this order
  std::string body;
  std::chrono::milliseconds timeout{30'000};
};

struct HttpResponse {
  long status = 0;
  HttpHeaders headers;  // names as the server sent them
  std::string body;
  // The first header with this name, compared without regard to case.
  std::optional<std::string> header(std::string_view name) const {
    return headerValue(headers, name);
  }
};

}  // namespace sonorell
