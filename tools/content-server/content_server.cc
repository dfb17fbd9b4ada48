#include "content_server.h"

#include <httplib.h>
#include <signal.h>

#include <stdexcept>
#include <thread>

#include "admin_routes.h"
#include "connection.h"
#include "data_dir.h"
#include "documents.h"
#include "routes.h"
#include "tls_identity.h"

namespace sonorell::content {

struct ContentServer::Impl {
  ServerOptions options;
  std::filesystem::path dataDir;
  StartupReport report;
  bool loaded = false;
  TlsIdentity tls;
  ServerState state;
  std::unique_ptr<httplib::Server> server;
  std::thread listener;
  std::uint16_t port = 0;
};

namespace {

using Clock = std::chrono::steady_clock;

std::chrono::milliseconds since(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
}

// A client that goes away mid-body must not kill the process: writes to its socket fail with
// EPIPE instead of raising SIGPIPE (OpenSSL writes with plain write()).
void ignoreSigpipe() {
  struct sigaction current {};
  if (::sigaction(SIGPIPE, nullptr, &current) == 0 && current.sa_handler == SIG_DFL) {
    ::signal(SIGPIPE, SIG_IGN);
  }
}

}  // namespace

ContentServer::ContentServer(ServerOptions options) : impl_(std::make_unique<Impl>()) {
  impl_->options = std::move(options);
  impl_->dataDir = impl_->options.dataDir.empty() ? defaultDataDir() : impl_->options.dataDir;
  impl_->state.playlistLifetimeSeconds = impl_->options.playlistLifetime.count();
}

ContentServer::~ContentServer() { stop(); }

void ContentServer::start() {
  Impl& d = *impl_;
  if (d.server) return;
  ignoreSigpipe();
  if (!d.loaded) {
    DataDirLock lock(d.dataDir);
    auto t0 = Clock::now();
    d.state.catalogue = Catalogue::load(d.dataDir, &d.report.catalogue);
    d.report.catalogueTime = since(t0);
    if (d.options.https) {
      t0 = Clock::now();
      d.tls = loadOrCreateTlsIdentity(d.dataDir / "tls");
      d.report.tlsTime = since(t0);
    }
    d.loaded = true;
  }

  d.server = makeServer(d.options.https ? &d.tls : nullptr);
  if (!d.server) throw std::runtime_error("content server: TLS set-up failed");
  const std::size_t threads = d.options.workerThreads;
  d.server->new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
  d.server->set_keep_alive_timeout(d.options.keepAliveTimeout.count());
  d.server->set_keep_alive_max_count(1000);
  // Small answers must not wait for the client's delayed ACK (Nagle): ~40 ms each otherwise.
  d.server->set_tcp_nodelay(true);
  d.state.stop.reset();
  installRoutes(*d.server, d.state);
  if (d.options.admin) installAdminRoutes(*d.server, d.state);

  int bound = d.options.port == 0
                  ? d.server->bind_to_any_port(d.options.host)
                  : (d.server->bind_to_port(d.options.host, d.options.port) ? d.options.port : -1);
  if (bound <= 0) {
    d.server.reset();
    throw std::runtime_error("content server: cannot bind " + d.options.host + ":" +
                             std::to_string(d.options.port));
  }
  d.port = static_cast<std::uint16_t>(bound);
  d.state.baseURL = std::string(d.options.https ? "https" : "http") + "://" + d.options.host + ":" +
                    std::to_string(d.port);
  httplib::Server* server = d.server.get();
  d.listener = std::thread([server] { server->listen_after_bind(); });
  // httplib's stop() only acts once the accept loop runs; wait for it so stop() cannot miss it.
  while (!server->is_running()) std::this_thread::yield();
}

void ContentServer::stop() {
  Impl& d = *impl_;
  if (!d.server) return;
  d.state.stop.stop();
  d.server->stop();
  if (d.listener.joinable()) d.listener.join();
  d.server.reset();
}

bool ContentServer::isRunning() const { return impl_->server != nullptr; }
std::uint16_t ContentServer::port() const { return impl_->port; }
std::string ContentServer::baseURL() const { return impl_->state.baseURL; }

std::filesystem::path ContentServer::caCertificatePath() const {
  return impl_->options.https ? impl_->tls.caCertificate : std::filesystem::path();
}

std::filesystem::path ContentServer::dataDir() const { return impl_->dataDir; }
const StartupReport& ContentServer::startupReport() const { return impl_->report; }
const Catalogue& ContentServer::catalogue() const { return impl_->state.catalogue; }

std::string ContentServer::apiBaseURL() const { return baseURL() + "/v4/audiobooks"; }

std::string ContentServer::metadataURL(std::string_view bookID) const {
  return apiBaseURL() + "/" + std::string(bookID);
}

std::string ContentServer::playlistURL(std::string_view bookID) const {
  return metadataURL(bookID) + "/playlists";
}

std::string ContentServer::audioURL(std::string_view bookID, std::uint64_t part,
                                    std::uint64_t chapter) const {
  return baseURL() + audioPath(bookID, part, chapter);
}

std::string ContentServer::analyticsURL() const { return baseURL() + "/v4/analytics"; }

std::string ContentServer::blobURL(std::uint64_t bytes) const {
  return baseURL() + "/blob/" + std::to_string(bytes);
}

FaultPlan& ContentServer::faults() { return impl_->state.faults; }
RequestRecorder& ContentServer::recorder() { return impl_->state.recorder; }

std::uint64_t ContentServer::requestCount(Route route) const {
  return impl_->state.recorder.count(route);
}

std::vector<RecordedRequest> ContentServer::requests(Route route) const {
  return impl_->state.recorder.requests(route);
}

std::string ContentServer::currentBytes(std::string_view path) const {
  const auto file = servedFile(impl_->state, path);
  if (!file) return {};
  std::string bytes(file->size, '\0');
  return file->read(0, bytes.data(), bytes.size()) ? bytes : std::string();
}

std::string ContentServer::currentETag(std::string_view path) const {
  const auto file = servedFile(impl_->state, path);
  return file ? file->etag : std::string();
}

void ContentServer::changeFile(std::string_view path) { impl_->state.versions.change(path); }

void ContentServer::setPlaylistLifetime(std::chrono::seconds lifetime) {
  impl_->state.playlistLifetimeSeconds = lifetime.count();
}

}  // namespace sonorell::content
