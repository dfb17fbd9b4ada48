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

}  // namespace sonorell
