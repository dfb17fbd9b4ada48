// Content API requests through the engine next to libcurl doing the same GET/POST in the same
// run, against the reference server on loopback: the 60-chapter book's metadata (fetched,
// decoded and recorded) and its playlist (fetched and decoded).
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <stdlib.h>

#include <filesystem>
#include <future>

#include "content_server.h"
#include "core/service_urls.h"
#include "download/metadata_status_recorder.h"
#include "model/audiobook_api_fetch.h"
#include "model/playlist_api_fetch.h"
#include "persistence/chapter_status.h"
#include "persistence/database_manager.h"
#include "platform/foundation/library_directory.h"
#include "platform/net/http_client.h"
#include "ratio_reporter.h"
#include "sonorell/log_engine.h"

namespace {

using namespace sonorell;

content::ContentServer& server() {
  static content::ContentServer* s = [] {
    auto* created = new content::ContentServer();
    created->start();
    HttpClient::shared()->setCABundle(created->caCertificatePath().string());
    ServiceURLs::setAPIBaseURL(created->baseURL());
    return created;
  }();
  return *s;
}

size_t discard(char*, size_t size, size_t count, void* sink) {
  static_cast<std::string*>(sink)->append(size * count, '\0');
  return size * count;
}

// What the curl command does for one request: a new handle (and connection) each time; with a
// handle given, libcurl keeps the connection alive between requests as our client does.
void curlOnce(const std::string& url, const char* postBody, CURL* reused = nullptr) {
  CURL* curl = reused ? reused : curl_easy_init();
  std::string body;
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_CAINFO, server().caCertificatePath().c_str());
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, discard);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
  curl_slist* headers = curl_slist_append(nullptr, "Session-Key: bench");
  headers = curl_slist_append(headers, "Content-Type: application/json");
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  if (postBody) curl_easy_setopt(curl, CURLOPT_POSTFIELDS, postBody);
  curl_easy_perform(curl);
  curl_slist_free_all(headers);
  if (!reused) curl_easy_cleanup(curl);
}

void BM_EngineMetadataFetch(benchmark::State& state) {
  const std::string id(content::kLargeBookID);
  auto& manager = *QSODatabaseManager::sharedManager();
  for (auto _ : state) {
    state.PauseTiming();
    manager.deleteAll();  // a book's records can be written once
    QSOChapterStatus::deleteAllForAudiobookID(id);
    state.ResumeTiming();
    std::promise<ErrorPtr> done;
    auto fetch = std::make_shared<QSOAudiobookAPIFetch>(
        "bench", HttpClient::shared(), std::make_shared<QSOMetadataStatusRecorder>());
    fetch->fetchAudiobook(id, [&done](ErrorPtr e) { done.set_value(e); });
    if (done.get_future().get()) state.SkipWithError("metadata fetch failed");
  }
}

void BM_CurlMetadataGet(benchmark::State& state) {
  const std::string url = server().metadataURL(content::kLargeBookID);
  for (auto _ : state) curlOnce(url, nullptr);
}

void BM_CurlMetadataGetKeepAlive(benchmark::State& state) {
  const std::string url = server().metadataURL(content::kLargeBookID);
  CURL* curl = curl_easy_init();
  for (auto _ : state) curlOnce(url, nullptr, curl);
  curl_easy_cleanup(curl);
}

void BM_EnginePlaylistFetch(benchmark::State& state) {
  const std::string id(content::kLargeBookID);
  for (auto _ : state) {
    std::promise<bool> done;
    QSOPlaylistAPIFetch::fetchPlaylist(
        *HttpClient::shared(), id, "license", "bench",
        [&done](std::optional<QSOPlaylist> p, ErrorPtr) { done.set_value(p.has_value()); });
    if (!done.get_future().get()) state.SkipWithError("playlist fetch failed");
  }
}

void BM_CurlPlaylistPost(benchmark::State& state) {
  const std::string url = server().playlistURL(content::kLargeBookID);
  for (auto _ : state) curlOnce(url, R"({"license_id": "license"})");
}

void BM_CurlPlaylistPostKeepAlive(benchmark::State& state) {
  const std::string url = server().playlistURL(content::kLargeBookID);
  CURL* curl = curl_easy_init();
  for (auto _ : state) curlOnce(url, R"({"license_id": "license"})", curl);
  curl_easy_cleanup(curl);
}

const bool kMetadata = bench::compare("BM_EngineMetadataFetch", "BM_CurlMetadataGet");
const bool kPlaylist = bench::compare("BM_EnginePlaylistFetch", "BM_CurlPlaylistPost");
const bool kMetadataWarm = bench::compare("BM_EngineMetadataFetch", "BM_CurlMetadataGetKeepAlive");
const bool kPlaylistWarm = bench::compare("BM_EnginePlaylistFetch", "BM_CurlPlaylistPostKeepAlive");

BENCHMARK(BM_EngineMetadataFetch)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_CurlMetadataGet)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_CurlMetadataGetKeepAlive)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_EnginePlaylistFetch)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_CurlPlaylistPost)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_CurlPlaylistPostKeepAlive)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  std::string pattern = (std::filesystem::temp_directory_path() / "sonorell-bench-XXXXXX").string();
  std::filesystem::path library(::mkdtemp(pattern.data()));
  LibraryDirectory::setPath(library);
  QSOLogEngine::setLogger(nullptr);  // keep the console for the results
  server();
  int rc = bench::runBenchmarks(argc, argv);
  server().stop();
  std::filesystem::remove_all(library);
  return rc;
}
