#include "core/service_urls.h"

#include <cstdlib>
#include <mutex>
#include <optional>

namespace sonorell {

namespace {

constexpr const char* kDefaultAPIBaseURL = "https://api.sonorell.io";

std::mutex gMutex;
std::optional<std::string> gHostAPIBaseURL;    // guarded by gMutex
std::optional<std::string> gHostAnalyticsURL;  // guarded by gMutex

const char* environment(const char* name) {
  const char* value = std::getenv(name);
  return value && *value ? value : nullptr;
}

bool isUnreserved(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.' || c == '_' || c == '~';
}

void appendEscaped(std::string& out, unsigned char c) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  out.push_back('%');
  out.push_back(kHex[c >> 4]);
  out.push_back(kHex[c & 0xF]);
}

}  // namespace

std::string ServiceURLs::apiBaseURL() {
  std::lock_guard lock(gMutex);
  if (gHostAPIBaseURL) return *gHostAPIBaseURL;
  if (const char* env = environment("SONORELL_API_BASE_URL")) return env;
  return kDefaultAPIBaseURL;
}

void ServiceURLs::setAPIBaseURL(std::string url) {
  std::lock_guard lock(gMutex);
  gHostAPIBaseURL = std::move(url);
}

std::string ServiceURLs::analyticsURL() {
  {
    std::lock_guard lock(gMutex);
    if (gHostAnalyticsURL) return *gHostAnalyticsURL;
    if (const char* env = environment("SONORELL_ANALYTICS_URL")) return env;
  }
  return apiBaseURL() + "/v4/analytics";
}

void ServiceURLs::setAnalyticsURL(std::string url) {
  std::lock_guard lock(gMutex);
  gHostAnalyticsURL = std::move(url);
}

std::string ServiceURLs::audiobookURL(std::string_view audiobookID) {
  return percentEscapeURL(apiBaseURL() + "/v4/audiobooks") + "/" +
         percentEscapePathSegment(audiobookID);
}

std::string ServiceURLs::playlistURL(std::string_view audiobookID) {
  return audiobookURL(audiobookID) + "/playlists";
}

std::string percentEscapeURL(std::string_view url) {
  static constexpr std::string_view kDelimiters = ":/?#[]@!$&'()*+,;=%";
  std::string out;
  out.reserve(url.size());
  for (char ch : url) {
    const auto c = static_cast<unsigned char>(ch);
    if (isUnreserved(c) || kDelimiters.find(ch) != std::string_view::npos) {
      out.push_back(ch);
    } else {
      appendEscaped(out, c);
    }
  }
  return out;
}

std::string percentEscapePathSegment(std::string_view segment) {
  std::string out;
  out.reserve(segment.size() * 3);
  const bool dotSegment = segment == "." || segment == "..";
  for (char ch : segment) {
    const auto c = static_cast<unsigned char>(ch);
    if (isUnreserved(c) && !dotSegment) {
      out.push_back(ch);
    } else {
      appendEscaped(out, c);
    }
  }
  return out;
}

}  // namespace sonorell
