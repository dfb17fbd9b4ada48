// Where the content services live: the content API's base URL (resources under /v4/audiobooks)
// and the analytics endpoint. What a host sets wins over $SONORELL_API_BASE_URL and
// $SONORELL_ANALYTICS_URL, which win over the built-in defaults. Guarded by one mutex.
#pragma once

#include <string>

namespace sonorell {

class ServiceURLs {
 public:
  static std::string apiBaseURL();
  static void setAPIBaseURL(std::string url);
  // The API base URL followed by "/v4/analytics" unless set or overridden.
  static std::string analyticsURL();
  static void setAnalyticsURL(std::string url);
};

}  // namespace sonorell
