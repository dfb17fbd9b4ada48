// sonorell-content-server: serves the reference content service until SIGINT or SIGTERM, or
// prints its catalogue (--catalogue). With --print-ready, the first line on stdout is a JSON
// object that tells a script where the server listens.
#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <exception>
#include <nlohmann/json.hpp>

#include "admin_documents.h"
#include "content_server.h"
#include "data_dir.h"

namespace {

// The catalogue as one JSON line on stdout, rendered into the data directory first if need be.
int printCatalogue(const std::filesystem::path& dataDir) {
  const auto dir = dataDir.empty() ? sonorell::content::defaultDataDir() : dataDir;
  sonorell::content::DataDirLock lock(dir);
  const auto catalogue = sonorell::content::Catalogue::load(dir);
  std::printf("%s\n", sonorell::content::makeCatalogueDocument(catalogue).dump().c_str());
  std::fflush(stdout);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  sonorell::content::ServerOptions options;
  bool plainHttp = false;
  bool catalogueOnly = false;
  bool printReady = false;
  std::string dataDir;
  CLI::App app{"Sonorell reference content server"};
  app.add_option("--port", options.port, "Port to listen on (0: any free port)");
  app.add_option("--host", options.host, "Address to listen on")->capture_default_str();
  app.add_flag("--http", plainHttp, "Serve plain HTTP instead of HTTPS");
  app.add_option("--data-dir", dataDir, "Where rendered chapters and the certificate are cached");
  app.add_flag("--admin", options.admin,
               "Serve /_admin/ (fault plan, recorded requests, analytics, catalogue) for tests");
  app.add_flag("--catalogue", catalogueOnly, "Print the catalogue as one JSON line and exit");
  app.add_flag("--print-ready", printReady,
               "Once listening, print {\"baseURL\", \"caCertificate\", \"dataDir\"} as the first "
               "line on stdout (the other start-up lines go to stderr)");
  CLI11_PARSE(app, argc, argv);
  options.https = !plainHttp;
  if (!dataDir.empty()) options.dataDir = dataDir;

  if (catalogueOnly) {
    try {
      return printCatalogue(options.dataDir);
    } catch (const std::exception& e) {
      std::fprintf(stderr, "sonorell-content-server: %s\n", e.what());
      return 1;
    }
  }

  // Blocked before any thread starts, so that only sigwait below receives them.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  sonorell::content::ContentServer server(options);
  try {
    server.start();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "sonorell-content-server: %s\n", e.what());
    return 1;
  }
  if (printReady) {
    const nlohmann::json ready{{"baseURL", server.baseURL()},
                               {"caCertificate", server.caCertificatePath().string()},
                               {"dataDir", server.dataDir().string()}};
    std::printf("%s\n", ready.dump().c_str());
    std::fflush(stdout);
  }
  // With --print-ready stdout belongs to the ready line; people read stderr instead.
  FILE* human = printReady ? stderr : stdout;
  const auto& report = server.startupReport();
  std::fprintf(human, "base URL: %s\n", server.baseURL().c_str());
  if (options.https)
    std::fprintf(human, "CA certificate: %s\n", server.caCertificatePath().c_str());
  std::fprintf(human, "data directory: %s\n", server.dataDir().c_str());
  std::fprintf(human, "catalogue: %zu books, %zu files rendered, %zu reused, %lld ms\n",
               server.catalogue().books().size(), report.catalogue.rendered,
               report.catalogue.reused, static_cast<long long>(report.catalogueTime.count()));
  if (options.admin) std::fprintf(human, "admin endpoints: %s/_admin/\n", server.baseURL().c_str());
  std::fflush(human);

  int received = 0;
  sigwait(&stopSignals, &received);
  server.stop();
  return 0;
}
