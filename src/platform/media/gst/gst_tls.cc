#include "platform/media/gst/gst_tls.h"

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>

#include "platform/media/media_log.h"
#include "platform/net/curl_loop.h"

namespace sonorell::gst_tls {
namespace {

namespace fs = std::filesystem;

// Where distributions keep the system's CA bundle, for a TLS backend whose default database
// does not name its file (glib-networking's GnuTLS one does not).
constexpr const char* kSystemBundles[] = {
    "/etc/ssl/certs/ca-certificates.crt",  // Debian, Ubuntu
    "/etc/pki/tls/certs/ca-bundle.crt",    // Fedora, RHEL
    "/etc/ssl/cert.pem",                   // Alpine, Arch
};

// The cached database and the bundle it was made from. An unusable bundle is cached too (null
// database), so that it is reported once, not at every source.
struct Cache {
  bool valid = false;
  std::string path;
  std::uintmax_t size = 0;
  fs::file_time_type time{};
  GTlsDatabase* database = nullptr;
};

std::mutex gMutex;
Cache gCache;  // guarded by gMutex

std::string systemBundle() {
  GTlsDatabase* fallback = g_tls_backend_get_default_database(g_tls_backend_get_default());
  std::string file;
  if (fallback && G_IS_TLS_FILE_DATABASE(fallback)) {
    gchar* anchors = nullptr;
    g_object_get(fallback, "anchors", &anchors, nullptr);
    if (anchors) file = anchors;
    g_free(anchors);
  }
  if (fallback) g_object_unref(fallback);
  if (!file.empty()) return file;
  std::error_code ec;
  for (const char* candidate : kSystemBundles) {
    if (fs::is_regular_file(candidate, ec)) return candidate;
  }
  return {};
}

bool readFile(const std::string& path, std::string& out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream bytes;
  bytes << in.rdbuf();
  out = bytes.str();
  return true;
}

bool writeAll(int fd, const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

void logError(const std::string& line) { media_log::emit(LogType::Error, "[Media] " + line); }

void closeAnchors(gpointer fd) { close(GPOINTER_TO_INT(fd)); }

// GIO makes a database only from a file, and GnuTLS reads that file again whenever a connection
// needs the trust list. So the merged PEM is an anonymous in-memory file (memfd), named by its
// /proc/self/fd path and closed with the database: nothing is left on disk, even after a crash.
GTlsDatabase* build(const std::string& bundle) {
  GError* error = nullptr;
  GList* own = g_tls_certificate_list_new_from_file(bundle.c_str(), &error);
  if (!own) {
    logError("CA bundle " + bundle + " is unusable (" +
             (error ? error->message : "it holds no certificate") +
             "); streamed items trust the system's CAs only");
    g_clear_error(&error);
    return nullptr;
  }
  g_list_free_full(own, g_object_unref);

  std::string pem;
  std::string system = systemBundle();
  if (system.empty() || !readFile(system, pem)) {
    std::string line = "[Media] no system CA bundle found; streamed items trust " + bundle;
    media_log::emit(LogType::Default, line + " only");
    pem.clear();
  }
  std::string extra;
  if (!readFile(bundle, extra)) {
    logError("CA bundle " + bundle + " cannot be read; streamed items trust the system's CAs only");
    return nullptr;
  }
  pem += "\n" + extra + "\n";

  int fd = memfd_create("sonorell-ca", MFD_CLOEXEC);
  if (fd < 0 || !writeAll(fd, pem)) {
    logError(std::string("cannot hold the merged CA bundle in memory (") + std::strerror(errno) +
             ")");
    if (fd >= 0) close(fd);
    return nullptr;
  }
  std::string path = "/proc/self/fd/" + std::to_string(fd);
  GTlsDatabase* database = g_tls_file_database_new(path.c_str(), &error);
  if (!database) {
    logError("cannot make a TLS database of the system's CAs and " + bundle + " (" +
             (error ? error->message : "unknown error") + ")");
    g_clear_error(&error);
    close(fd);
    return nullptr;
  }
  g_object_set_data_full(G_OBJECT(database), "sonorell-anchors-fd", GINT_TO_POINTER(fd),
                         closeAnchors);
  return database;
}

}  // namespace

GTlsDatabase* databaseForBundle(const std::string& bundle) {
  if (bundle.empty()) return nullptr;
  std::error_code ec;
  std::uintmax_t size = fs::file_size(bundle, ec);
  if (ec) size = 0;
  fs::file_time_type time = fs::last_write_time(bundle, ec);
  if (ec) time = {};

  std::lock_guard lock(gMutex);
  if (!gCache.valid || gCache.path != bundle || gCache.size != size || gCache.time != time) {
    if (gCache.database) g_object_unref(gCache.database);
    gCache = Cache{true, bundle, size, time, build(bundle)};
  }
  return gCache.database ? static_cast<GTlsDatabase*>(g_object_ref(gCache.database)) : nullptr;
}

void applyTrust(GstElement* element) {
  GObjectClass* type = G_OBJECT_GET_CLASS(element);
  if (!g_object_class_find_property(type, "tls-database")) {
    static std::atomic<bool> logged{false};
    if (!logged.exchange(true)) {
      media_log::emit(LogType::Default,
                      std::string("[Media] HTTP source ") + G_OBJECT_TYPE_NAME(element) +
                          " takes no TLS database; it trusts its own default CAs only");
    }
    return;
  }
  if (g_object_class_find_property(type, "ssl-strict")) {
    g_object_set(element, "ssl-strict", TRUE, nullptr);
  }
  GTlsDatabase* database = databaseForBundle(defaultCABundle());
  if (!database) return;
  g_object_set(element, "tls-database", database, nullptr);
  g_object_unref(database);
}

}  // namespace sonorell::gst_tls
