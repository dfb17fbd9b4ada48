// sonorell-content-server: serves the reference content service until SIGINT or SIGTERM.
#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <exception>

#include "content_server.h"

int main(int argc, char** argv) {
  sonorell::content::ServerOptions options;
  bool plainHttp = false;
  std::string dataDir;
  CLI::App app{"Sonorell reference content server"};
  app.add_option("--port", options.port, "Port to listen on (0: any free port)");
  app.add_option("--host", options.host, "Address to listen on")->capture_default_str();
  app.add_flag("--http", plainHttp, "Serve plain HTTP instead of HTTPS");
  app.add_option("--data-dir", dataDir, "Where rendered chapters and the certificate are cached");
  CLI11_PARSE(app, argc, argv);
  options.https = !plainHttp;
  if (!dataDir.empty()) options.dataDir = dataDir;

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
  const auto& report = server.startupReport();
  std::printf("base URL: %s\n", server.baseURL().c_str());
  if (options.https) std::printf("CA certificate: %s\n", server.caCertificatePath().c_str());
  std::printf("data directory: %s\n", server.dataDir().c_str());
  std::printf("catalogue: %zu books, %zu files rendered, %zu reused, %lld ms\n",
              server.catalogue().books().size(), report.catalogue.rendered, report.catalogue.reused,
              static_cast<long long>(report.catalogueTime.count()));
  std::fflush(stdout);

  int received = 0;
  sigwait(&stopSignals, &received);
  server.stop();
  return 0;
}
