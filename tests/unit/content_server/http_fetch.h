// A blocking libcurl request for the server's tests: verification on, the server's CA trusted,
// every response header kept. Each call uses its own easy handle; safe from any thread.
#pragma once

#include <curl/curl.h>

#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace sonorell::content::testing {

struct HttpRequest {
  std::string method = "GET";
  std::string url;
  std::vector<std::string> headers;  // "Name: value"
  std::optional<std::string> body;
  std::filesystem::path caFile;  // empty: libcurl's default bundle
  long timeoutMs = 30000;
};

struct HttpResult {
  CURLcode code = CURLE_OK;
  std::string error;
  long status = 0;  // 0 when no response arrived
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;

  std::optional<std::string> header(std::string_view name) const;
};

HttpResult fetch(const HttpRequest& request);

}  // namespace sonorell::content::testing
