#include "http_fetch.h"

#include <strings.h>

namespace sonorell::content::testing {
namespace {

size_t onBody(char* data, size_t size, size_t count, void* out) {
  static_cast<std::string*>(out)->append(data, size * count);
  return size * count;
}

size_t onHeader(char* data, size_t size, size_t count, void* out) {
  auto* result = static_cast<HttpResult*>(out);
  std::string line(data, size * count);
  // A new status line (e.g. after 100 Continue) starts a new header block.
  if (line.rfind("HTTP/", 0) == 0) result->headers.clear();
  const auto colon = line.find(':');
  if (colon != std::string::npos) {
    std::string value = line.substr(colon + 1);
    while (!value.empty() && (value.front() == ' ')) value.erase(0, 1);
    while (!value.empty() && (value.back() == '\r' || value.back() == '\n')) value.pop_back();
    result->headers.emplace_back(line.substr(0, colon), value);
  }
  return size * count;
}

}  // namespace

std::optional<std::string> HttpResult::header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (key.size() == name.size() && ::strncasecmp(key.data(), name.data(), name.size()) == 0) {
      return value;
    }
  }
  return std::nullopt;
}

HttpResult fetch(const HttpRequest& request) {
  HttpResult result;
  CURL* curl = curl_easy_init();
  char error[CURL_ERROR_SIZE] = {0};
  curl_slist* headers = nullptr;
  for (const auto& h : request.headers) headers = curl_slist_append(headers, h.c_str());
  curl_easy_setopt(curl, CURLOPT_URL, request.url.c_str());
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
  if (!request.caFile.empty()) curl_easy_setopt(curl, CURLOPT_CAINFO, request.caFile.c_str());
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, request.timeoutMs);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, error);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, onBody);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &result.body);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, onHeader);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, &result);
  if (request.method == "HEAD") {
    curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
  } else if (request.method != "GET") {
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.c_str());
  }
  if (request.body) {
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.body->data());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE,
                     static_cast<curl_off_t>(request.body->size()));
  }
  result.code = curl_easy_perform(curl);
  result.error = error;
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &result.status);
  curl_slist_free_all(headers);
  curl_easy_cleanup(curl);
  return result;
}

}  // namespace sonorell::content::testing
