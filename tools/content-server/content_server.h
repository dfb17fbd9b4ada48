// The reference content service, started in-process by tests and by the sonorell-content-server
// command: metadata, playlists, chapter audio with byte ranges, blobs and the analytics endpoint,
// over HTTPS (or plain HTTP), with fault injection and request recording.
// Thread-safety: start()/stop() from one controlling thread; everything else from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "catalogue.h"
#include "fault_plan.h"
#include "request_recorder.h"

namespace sonorell::content {

struct ServerOptions {
  bool https = true;
  std::string host = "127.0.0.1";
  std::uint16_t port = 0;  // 0: an ephemeral port
  // Rendered chapters and the TLS identity; empty: defaultDataDir(), shared by the machine.
  std::filesystem::path dataDir;
  std::chrono::seconds playlistLifetime{3600};  // negative: playlists arrive already expired
  std::size_t workerThreads = 32;
  // How long a connection may sit idle between requests; stop() ends idle connections at once.
  std::chrono::seconds keepAliveTimeout{1};
  // Also serve the /_admin/ endpoints (admin_routes.h), through which a test in another process
  // sets faults and reads what was requested. Off: those paths are unknown, like any other.
  bool admin = false;
};

struct StartupReport {
  std::chrono::milliseconds catalogueTime{0};  // rendering (first start) or loading
  std::chrono::milliseconds tlsTime{0};
  CatalogueLoadStats catalogue;
};

class ContentServer {
 public:
  explicit ContentServer(ServerOptions options = {});
  ~ContentServer();  // stops
  ContentServer(const ContentServer&) = delete;
  ContentServer& operator=(const ContentServer&) = delete;

  // Loads (or first renders) the catalogue, binds and serves. Throws std::runtime_error.
  void start();
  // Ends delays and throttled bodies at once, closes the listener and joins the workers.
  void stop();
  bool isRunning() const;

  std::uint16_t port() const;
  std::string baseURL() const;  // "https://127.0.0.1:PORT"
  // PEM file of the CA that signed the server's certificate; empty for plain HTTP.
  std::filesystem::path caCertificatePath() const;
  std::filesystem::path dataDir() const;
  const StartupReport& startupReport() const;
  const Catalogue& catalogue() const;  // after start()

  std::string apiBaseURL() const;  // baseURL() + "/v4/audiobooks"
  std::string metadataURL(std::string_view bookID) const;
  std::string playlistURL(std::string_view bookID) const;
  std::string audioURL(std::string_view bookID, std::uint64_t part, std::uint64_t chapter) const;
  std::string analyticsURL() const;
  std::string blobURL(std::uint64_t bytes) const;

  FaultPlan& faults();
  RequestRecorder& recorder();
  std::uint64_t requestCount(Route route) const;
  std::vector<RecordedRequest> requests(Route route) const;

  // What a GET of an audio or blob path (e.g. "/audio/1001/0/1.mp3") serves now, after any file
  // changes; empty strings for unknown paths.
  std::string currentBytes(std::string_view path) const;
  std::string currentETag(std::string_view path) const;
  // Replaces the file at `path` by its next version, as the fileChanged fault does.
  void changeFile(std::string_view path);

  void setPlaylistLifetime(std::chrono::seconds lifetime);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace sonorell::content
