// The server's TLS identity: a self-signed CA and a server certificate it signs for 127.0.0.1,
// ::1 and localhost, made with OpenSSL and cached as PEM files in a directory. The caller holds
// the data directory's lock while loading.
#pragma once

#include <filesystem>

namespace sonorell::content {

struct TlsIdentity {
  std::filesystem::path caCertificate;      // what a client must trust
  std::filesystem::path serverCertificate;  // server certificate followed by the CA
  std::filesystem::path serverKey;
};

// Reuses the files under `dir` while they are valid for at least another day; makes new ones
// otherwise. Throws std::runtime_error when OpenSSL fails.
TlsIdentity loadOrCreateTlsIdentity(const std::filesystem::path& dir);

}  // namespace sonorell::content
