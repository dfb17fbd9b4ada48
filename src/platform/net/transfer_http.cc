#include "platform/net/transfer_http.h"

#include <charconv>

namespace sonorell {
namespace {

std::optional<int64_t> number(std::string_view text) {
  int64_t value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size() || value < 0) return std::nullopt;
  return value;
}

}  // namespace

std::string resumeValidator(const HttpHeaders& headers) {
  if (auto etag = headerValue(headers, "ETag");
      etag && !etag->empty() && !etag->starts_with("W/")) {
    return *etag;
  }
  if (auto modified = headerValue(headers, "Last-Modified"); modified && !modified->empty()) {
    return *modified;
  }
  return {};
}

std::optional<ContentRange> parseContentRange(std::string_view value) {
  if (!value.starts_with("bytes ")) return std::nullopt;
  value.remove_prefix(6);
  const auto dash = value.find('-');
  const auto slash = value.find('/');
  if (dash == std::string_view::npos || slash == std::string_view::npos || dash > slash) {
    return std::nullopt;
  }
  auto first = number(value.substr(0, dash));
  auto last = number(value.substr(dash + 1, slash - dash - 1));
  if (!first || !last || *last < *first) return std::nullopt;
  ContentRange range{*first, *last, -1};
  if (auto totalText = value.substr(slash + 1); totalText != "*") {
    auto total = number(totalText);
    if (!total || *total <= *last) return std::nullopt;
    range.total = *total;
  }
  return range;
}

}  // namespace sonorell
