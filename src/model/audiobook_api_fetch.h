// Fetches one audiobook's metadata document from the content API and hands the audiobook and its
// chapters, each chapter's expected size in proportion to its duration, to a recorder. One object
// serves one fetch; the response is handled on the HTTP client's queue, where the completion is
// called once (fields are set before the request starts and not changed after).
#pragma once

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "model/metadata_recorder.h"
#include "platform/net/http_client.h"
#include "sonorell/error.h"

namespace sonorell {

class QSOAudiobookAPIFetch : public std::enable_shared_from_this<QSOAudiobookAPIFetch> {
 public:
  using Completion = std::function<void(ErrorPtr)>;

  QSOAudiobookAPIFetch(std::string sessionKey, std::shared_ptr<HttpClient> http,
                       std::shared_ptr<QSOMetadataRecorder> recorder);

  // Starts the request and returns at once.
  void fetchAudiobook(std::string audiobookID, Completion completionHandler);
  HttpRequest buildRequest();

  // Low codes of the metadata fetch: 45 unauthorized, 50 server error, 55 gateway time-out,
  // 60 not found, 65 other status, 70 unavailable (the transport error underneath) or no usable
  // document (not JSON, no ID, or the ID of another book).
  void processNetworkError(int64_t code);
  void processMetadataUnavilable(ErrorPtr error);
  void processResponse(const std::optional<HttpResponse>& response, const ErrorPtr& error,
                       const std::string& requestID);
  void processJSON(const nlohmann::json* document);
  void parseChapterStatus(uint64_t totalSize, const nlohmann::json& chapters,
                          const std::string& audiobookID);
  void completeFetch();
  void handleFalse();

  const std::string& audiobookID() const { return audiobookID_; }

 private:
  void complete(ErrorPtr error);

  std::string sessionKey_;
  const std::shared_ptr<HttpClient> http_;
  const std::shared_ptr<QSOMetadataRecorder> recorder_;
  std::string audiobookID_;
  Completion completionHandler_;
};

}  // namespace sonorell
