#include "model/audiobook_api_fetch.h"

#include "core/logging.h"
#include "core/service_urls.h"
#include "model/json_reading.h"
#include "sonorell/errors.h"
#include "sonorell/utils.h"

namespace sonorell {

namespace {
// Nulls become empty strings so that the tolerant readers see text, not null.
std::string replaceNulls(std::string text) {
  static const std::string kNull = ": null";
  static const std::string kEmpty = ": \"\"";
  for (size_t at = text.find(kNull); at != std::string::npos; at = text.find(kNull, at)) {
    text.replace(at, kNull.size(), kEmpty);
    at += kEmpty.size();
  }
  return text;
}

// An identifier as a JSON string, so that a log line shows every character of it (a NUL, a
// control character, a byte that is not UTF-8) rather than cutting it short.
std::string jsonQuoted(const std::string& identifier) {
  return nlohmann::json(identifier).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}
}  // namespace

QSOAudiobookAPIFetch::QSOAudiobookAPIFetch(std::string sessionKey, std::shared_ptr<HttpClient> http,
                                           std::shared_ptr<QSOMetadataRecorder> recorder)
    : sessionKey_(std::move(sessionKey)), http_(std::move(http)), recorder_(std::move(recorder)) {}

HttpRequest QSOAudiobookAPIFetch::buildRequest() {
  HttpRequest request;
  const std::string url = ServiceURLs::audiobookURL(audiobookID_);
  request.method = "GET";
  request.url = url;
  request.timeout = std::chrono::seconds(30);
  request.headers = {{"X-Request-Id", QSOUtils::generateUUID()},
                     {"Content-Type", "application/json"},
                     {"Session-Key", sessionKey_}};
  LogEngineVerbose("[DownloadEngine] Starting a %@. Making a %@ request to %@ with session %@",
                   "GET", "/audiobooks", url, sessionKey_);
  return request;
}

void QSOAudiobookAPIFetch::fetchAudiobook(std::string audiobookID, Completion completionHandler) {
  audiobookID_ = std::move(audiobookID);
  completionHandler_ = std::move(completionHandler);
  HttpRequest request = buildRequest();
  std::string requestID = request.headers.front().second;
  auto self = shared_from_this();  // kept alive until the answer is handled
  http_->send(std::move(request),
              [self, requestID](std::optional<HttpResponse> response, ErrorPtr error) {
                self->processResponse(response, error, requestID);
              });
}

void QSOAudiobookAPIFetch::processResponse(const std::optional<HttpResponse>& response,
                                           const ErrorPtr& error, const std::string& requestID) {
  long status = response ? response->status : 0;
  std::string text = response ? response->body : std::string();
  if (error) {
    LogEngineWarning("[DownloadEngine] Connection Failed");
    LogEngineWarning("[DownloadEngine] [%d] Response: %@", status, text);
    processMetadataUnavilable(error);
    return;
  }
  text = replaceNulls(std::move(text));
  LogEngineVerbose("[DownloadEngine] Extended Request ID [%@]", requestID);
  switch (status) {
    case 200: {
      if (!json_reading::isValidUTF8(response->body)) {
        // Deliberately never completes: there is no text to read.
        LogEngineError("[DownloadEngine] Error reading message from server");
        return;
      }
      nlohmann::json json = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
      const nlohmann::json* document =
          json.is_discarded() ? nullptr : json_reading::member(json, "audiobook");
      processJSON(document);
      return;
    }
    case 401:
      LogEngineError("[DownloadEngine] Metadata could not be downloaded");
      processNetworkError(45);
      return;
    case 404:
      LogEngineError("[DownloadEngine] Audiobook not found");
      processNetworkError(60);
      return;
    case 500:
      LogEngineError("[DownloadEngine] internal server error");
      processNetworkError(50);
      return;
    case 502:
      LogEngineError("[DownloadEngine] cloud front error, 502");
      processNetworkError(50);
      return;
    case 503:
      LogEngineError("[DownloadEngine] cloud front error, 503");
      processNetworkError(50);
      return;
    case 504:
      LogEngineError("[DownloadEngine] cloud front error, 504");
      processNetworkError(55);
      return;
    default:
      LogEngineError("[DownloadEngine] Audiobook not found");
      processNetworkError(65);
      return;
  }
}

void QSOAudiobookAPIFetch::processNetworkError(int64_t code) {
  complete(Error::make(std::string(QSOErrorDomain), code));
}

void QSOAudiobookAPIFetch::processMetadataUnavilable(ErrorPtr error) {
  Dictionary info;
  if (error) info.emplace(std::string(kUnderlyingErrorKey), std::move(error));
  complete(Error::make(std::string(QSOErrorDomain), 70, std::move(info)));
}

void QSOAudiobookAPIFetch::processJSON(const nlohmann::json* document) {
  if (document && !document->is_object() && !document->is_null()) {
    // Not a document at all: reading its fields is impossible.
    LogEngineError("[DownloadEngine] processJSON Audiobook not found");
    processNetworkError(70);
    return;
  }
  const nlohmann::json* id = document ? json_reading::member(*document, "id") : nullptr;
  if (id && !id->is_string()) {
    LogEngineError("[DownloadEngine] processJSON Audiobook not found");
    processNetworkError(70);
    return;
  }
  if (!id || id->get_ref<const std::string&>().empty()) {
    LogEngineError("[DownloadEngine] Audiobook not found");
    processNetworkError(70);
    return;
  }
  const std::string audiobookID = id->get<std::string>();
  if (audiobookID != audiobookID_) {
    // Recording it would put another book's records (or a name nobody asked for) under this
    // request; the answer is as useless as one without an ID.
    LogEngineError("[DownloadEngine] Metadata for audiobook %@ describes audiobook %@ instead",
                   jsonQuoted(audiobookID_), jsonQuoted(audiobookID));
    processNetworkError(70);
    return;
  }
  const nlohmann::json* size = json_reading::member(*document, "actual_size");
  const nlohmann::json* chapters = json_reading::member(*document, "chapters");

  const uint64_t totalSize = size ? json_reading::unsignedValue(*size) : 0;
  if (auto error = recorder_->recordAudiobook(audiobookID, totalSize)) {
    complete(std::move(error));
    return;
  }
  static const nlohmann::json kNoChapters = nlohmann::json::array();
  parseChapterStatus(totalSize, chapters ? *chapters : kNoChapters, audiobookID);
}

void QSOAudiobookAPIFetch::parseChapterStatus(uint64_t totalSize, const nlohmann::json& chapters,
                                              const std::string& audiobookID) {
  auto field = [](const nlohmann::json& chapter, const char* key) -> uint64_t {
    const auto* value = json_reading::member(chapter, key);
    return value ? json_reading::unsignedValue(*value) : 0;
  };
  const bool isArray = chapters.is_array();
  // Whole seconds per chapter, summed, then in single precision: sizes must come out the same
  // as the records other versions wrote.
  uint64_t seconds = 0;
  if (isArray) {
    for (const auto& chapter : chapters) seconds += field(chapter, "duration") / 1000;
  }
  const float total = static_cast<float>(seconds);

  std::vector<QSOChapterSize> sizes;
  if (isArray) {
    for (const auto& chapter : chapters) {
      float share = total > 0 ? static_cast<float>(field(chapter, "duration") / 1000) / total : 0;
      // A total near 2^64 rounds up in single precision to a size no uint64 holds.
      const float bytes = static_cast<float>(totalSize) * share;
      sizes.push_back(
          {QSOChapterDescription(audiobookID, field(chapter, "part_number"),
                                 field(chapter, "chapter_number")),
           bytes >= 18446744073709551616.0f ? UINT64_MAX : static_cast<uint64_t>(bytes)});
    }
  }
  if (auto error = recorder_->recordChapters(audiobookID, sizes)) {
    complete(std::move(error));
    return;
  }
  completeFetch();
}

void QSOAudiobookAPIFetch::completeFetch() {
  if (!completionHandler_) {
    LogEngineError("[DownloadEngine] Metadata fetch complete, but missing completion");
    return;
  }
  complete(nullptr);
}

void QSOAudiobookAPIFetch::handleFalse() {
  LogEngineError("[DownloadEngine] Error getting info from the server");
}

void QSOAudiobookAPIFetch::complete(ErrorPtr error) {
  if (completionHandler_) completionHandler_(std::move(error));
}

}  // namespace sonorell
