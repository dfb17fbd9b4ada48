#include "model/playlist_api_fetch.h"

#include <nlohmann/json.hpp>

#include "core/service_urls.h"
#include "model/api_error_response.h"
#include "model/json_reading.h"
#include "platform/net/http_client.h"
#include "sonorell/errors.h"
#include "sonorell/utils.h"

namespace sonorell {

namespace {
ErrorPtr lowError(int64_t code) { return Error::make(std::string(QSOErrorDomain), code); }
}  // namespace

void QSOPlaylistAPIFetch::fetchPlaylist(HttpClient& http, const std::string& audiobookID,
                                        const std::string& licenseID, const std::string& sessionKey,
                                        Completion completion) {
  HttpRequest request;
  request.method = "POST";
  request.url = ServiceURLs::playlistURL(audiobookID);
  request.timeout = std::chrono::seconds(30);
  request.headers = {{"X-Request-Id", QSOUtils::generateUUID()},
                     {"Session-Key", sessionKey},
                     {"Content-Type", "application/json"}};
  // A license ID that is not UTF-8 cannot be JSON text as it is: its bad bytes go as U+FFFD
  // for the service to refuse, rather than as an exception out of this call (whose caller would
  // then never see a completion).
  request.body = nlohmann::json{{"license_id", licenseID}}.dump(
      -1, ' ', false, nlohmann::json::error_handler_t::replace);

  http.send(std::move(request), [audiobookID, completion = std::move(completion)](
                                    std::optional<HttpResponse> response, ErrorPtr error) {
    if (error) {
      completion(std::nullopt, std::move(error));  // the transport error as it is
      return;
    }
    nlohmann::json body = nlohmann::json::parse(response->body, nullptr, false);
    switch (response->status) {
      case 200: {
        std::optional<QSOPlaylist> playlist;
        if (!body.is_discarded() && body.is_object()) {
          playlist = QSOPlaylist::decodePlaylist(body, audiobookID);
        }
        if (playlist) {
          completion(std::move(playlist), nullptr);
        } else {
          completion(std::nullopt, lowError(25));
        }
        return;
      }
      case 400:
        completion(std::nullopt, lowError(35));
        return;
      case 401:
        completion(std::nullopt, lowError(40));
        return;
      case 404:
        completion(std::nullopt, lowError(20));
        return;
      case 502:
      case 503:
        completion(std::nullopt, lowError(10));
        return;
      case 504:
        completion(std::nullopt, lowError(15));
        return;
      default: {
        auto document = body.is_discarded()
                            ? std::nullopt
                            : QSOAPIErrorResponse::errorResponseFromDictionary(body);
        completion(std::nullopt, document ? document->toNSError() : lowError(30));
        return;
      }
    }
  });
}

}  // namespace sonorell
