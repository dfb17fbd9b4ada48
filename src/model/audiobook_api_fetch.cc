#include "model/audiobook_api_fetch.h"

#include "model/json_reading.h"
#include "persistence/chapter_status.h"
#include "sonorell/download_engine.h"
#include "sonorell/errors.h"
#include "sonorell/log_engine.h"
#include "sonorell/notification_poster.h"
#include "sonorell/notifications.h"
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

ErrorPtr errorFromFailureDictionary(const Dictionary& dict) {
  auto it = dict.find(QSOSonorellErrorUserInfoKey);
  return it == dict.end() ? nullptr : it->second.asError();
}
}  // namespace

QSOAudiobookAPIFetch::QSOAudiobookAPIFetch(std::string sessionKey)
    : sessionKey_(std::move(sessionKey)) {}

HttpRequest QSOAudiobookAPIFetch::buildRequest() {
  HttpRequest request;
  std::string url = json_reading::percentEscapeURL(
      stringWithFormat("%@/%@", HttpClient::apiBaseURL() + "/v4/audiobooks", audiobookID_));
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
  HttpClient::shared()->send(
      std::move(request), [self, requestID](std::optional<HttpResponse> response, ErrorPtr error) {
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
  const nlohmann::json* size = json_reading::member(*document, "actual_size");
  const nlohmann::json* chapters = json_reading::member(*document, "chapters");

  auto status = std::make_shared<QSOAudiobookStatus>(audiobookID, DownloadStatusNotDownloaded, 0,
                                                     size ? json_reading::unsignedValue(*size) : 0);
  if (!status->saveToDatabase()) {
    LogEngineError(
        "[QSOAudiobookAPIFetch] Something went wrong with saving the QSOAudibookStatus, trying "
        "again");
    if (status->saveToDatabase()) {
      LogEngineVerbose(
          "[QSOAudiobookAPIFetch] Second attempt to save QSOAudiobookStatus was successfull");
    } else {
      LogEngineError(
          "[QSOAudiobookAPIFetch] Second attempt saving QSOAudiobookStatus was unsuccessfull");
      auto dict = QSONotificationPoster::prepareDictionaryWithAudiobookIdentifier(
          audiobookID, std::string(QSODownloadEngine::descriptionForErrorCode(12005)), 12005,
          nullptr);
      complete(errorFromFailureDictionary(dict));
      return;
    }
  }
  static const nlohmann::json kNoChapters = nlohmann::json::array();
  parseChapterStatus(*status, chapters ? *chapters : kNoChapters, audiobookID);
}

void QSOAudiobookAPIFetch::parseChapterStatus(const QSOAudiobookStatus& audiobookStatus,
                                              const nlohmann::json& chapters,
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

  std::vector<QSOChapterStatusPtr> statuses;
  if (isArray) {
    for (const auto& chapter : chapters) {
      float share = total > 0 ? static_cast<float>(field(chapter, "duration") / 1000) / total : 0;
      auto expected =
          static_cast<uint64_t>(static_cast<float>(audiobookStatus.totalSize()) * share);
      statuses.push_back(std::make_shared<QSOChapterStatus>(
          QSOChapterDescription(audiobookID, field(chapter, "part_number"),
                                field(chapter, "chapter_number")),
          DownloadStatusNotDownloaded, 0, expected, ""));
    }
  }
  if (!QSOChapterStatus::saveToDatabase(statuses)) {
    LogEngineError(
        "[QSOAudiobookAPIFetch] Something went wrong saving the QSOChapterStatus, trying again");
    if (QSOChapterStatus::saveToDatabase(statuses)) {
      LogEngineVerbose(
          "[QSOAudiobookAPIFetch] Second attempt saving QSOChapterStatus was successfull");
    } else {
      LogEngineVerbose(
          "[QSOAudiobookAPIFetch] Second attempt saving QSOChapterStatus was unsuccessful "
          "audiobookID: %@",
          audiobookID);
      auto dict = QSONotificationPoster::prepareDictionaryWithAudiobookIdentifier(
          audiobookID, std::string(QSODownloadEngine::descriptionForErrorCode(12006)), 12006,
          nullptr);
      complete(errorFromFailureDictionary(dict));
      return;
    }
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
