// Where the content services live: the content API's base URL (resources under /v4/audiobooks)
// and the analytics endpoint, and the one place that turns an audiobook ID into a URL. What a
// host sets wins over $SONORELL_API_BASE_URL and $SONORELL_ANALYTICS_URL, which win over the
// built-in defaults. Guarded by one mutex.
#pragma once

#include <string>
#include <string_view>

namespace sonorell {

class ServiceURLs {
 public:
  static std::string apiBaseURL();
  static void setAPIBaseURL(std::string url);
  // The API base URL followed by "/v4/analytics" unless set or overridden.
  static std::string analyticsURL();
  static void setAnalyticsURL(std::string url);

  // One audiobook's metadata: the escaped base URL, "/v4/audiobooks/" and the ID as exactly one
  // path segment, so that no ID ("../audiobooks/1002", "a/b", "..") names another resource.
  static std::string audiobookURL(std::string_view audiobookID);
  // The audiobook's playlists: audiobookURL(audiobookID) + "/playlists".
  static std::string playlistURL(std::string_view audiobookID);
};

// Percent-escapes (UTF-8 bytes, upper-case hex) what may not stand in a URL, keeping the URL's
// own delimiters and any escapes already in it.
std::string percentEscapeURL(std::string_view url);
// Percent-escapes all but the unreserved characters (letters, digits, "-", ".", "_", "~"), so
// that the text is one path segment whatever it holds. "." and ".." are escaped whole, since a
// URL parser would resolve them as dot segments.
std::string percentEscapePathSegment(std::string_view segment);

}  // namespace sonorell
