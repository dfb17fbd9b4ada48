#include "catalogue.h"

#include <curl/curl.h>

#include <nlohmann/json.hpp>

#include "sonorell/sonorell.h"

namespace sonorell::cli {
namespace {

using nlohmann::json;

Value toValue(const json& j) {
  switch (j.type()) {
    case json::value_t::boolean:
      return Value(j.get<bool>());
    case json::value_t::number_integer:
      return Value(j.get<int64_t>());
    case json::value_t::number_unsigned:
      return Value(j.get<uint64_t>());
    case json::value_t::number_float:
      return Value(j.get<double>());
    case json::value_t::string:
      return Value(j.get<std::string>());
    case json::value_t::array: {
      Array array;
      for (const auto& element : j) array.push_back(toValue(element));
      return Value(std::move(array));
    }
    case json::value_t::object: {
      Dictionary dictionary;
      for (auto it = j.begin(); it != j.end(); ++it) dictionary.emplace(it.key(), toValue(*it));
      return Value(std::move(dictionary));
    }
    default:
      return Value(nullptr);
  }
}

// One path segment, whatever the ID holds.
std::string escapedSegment(CURL* curl, const std::string& text) {
  char* escaped = curl_easy_escape(curl, text.c_str(), static_cast<int>(text.size()));
  std::string segment = escaped ? escaped : "";
  curl_free(escaped);
  if (segment == "." || segment == "..") segment = segment == "." ? "%2E" : "%2E%2E";
  return segment;
}

// The metadata document's "audiobook" object; null when the service does not give one.
json fetchMetadata(const GlobalOptions& options, const std::string& audiobookID) {
  CURL* curl = curl_easy_init();
  if (!curl) return nullptr;
  std::string base = options.api;
  while (!base.empty() && base.back() == '/') base.pop_back();
  const std::string url = base + "/v4/audiobooks/" + escapedSegment(curl, audiobookID);
  std::string body;
  curl_slist* headers = curl_slist_append(nullptr, ("Session-Key: " + options.sessionKey).c_str());
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, 3000L);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  if (!options.ca.empty()) curl_easy_setopt(curl, CURLOPT_CAINFO, options.ca.c_str());
  curl_easy_setopt(
      curl, CURLOPT_WRITEFUNCTION, +[](char* data, size_t size, size_t count, void* out) {
        static_cast<std::string*>(out)->append(data, size * count);
        return size * count;
      });
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
  long status = 0;
  if (curl_easy_perform(curl) == CURLE_OK) {
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
  }
  curl_slist_free_all(headers);
  curl_easy_cleanup(curl);
  if (status != 200) return nullptr;
  json document = json::parse(body, nullptr, /*allow_exceptions=*/false);
  if (!document.is_object() || !document.contains("audiobook")) return nullptr;
  json audiobook = document["audiobook"];
  // Only the book asked for goes into the store.
  if (!audiobook.is_object() || audiobook.value("id", json()) != json(audiobookID)) return nullptr;
  return audiobook;
}

}  // namespace

std::string catalogueTitle(const GlobalOptions& options, const std::string& audiobookID) {
  auto store = QSOPersistenceEngine::sharedEngine();
  if (auto stored = store->audiobookForID(audiobookID)) return stored->title();
  if (options.api.empty()) return {};
  const json audiobook = fetchMetadata(options, audiobookID);
  if (audiobook.is_null()) return {};
  const Value value = toValue(audiobook);
  store->addAudiobook(*value.asDictionary());
  // Read back: the store gives titles in display form.
  auto added = store->audiobookForID(audiobookID);
  return added ? added->title() : std::string();
}

}  // namespace sonorell::cli
