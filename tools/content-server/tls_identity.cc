#include "tls_identity.h"

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "data_dir.h"

namespace sonorell::content {
namespace {

template <auto Free>
struct Deleter {
  template <typename T>
  void operator()(T* p) const {
    Free(p);
  }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using CertPtr = std::unique_ptr<X509, Deleter<X509_free>>;
using BioPtr = std::unique_ptr<BIO, Deleter<BIO_free>>;
using ExtPtr = std::unique_ptr<X509_EXTENSION, Deleter<X509_EXTENSION_free>>;

constexpr long kValidDays = 3650;

void check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string("TLS identity: ") + what + " failed");
}

KeyPtr newKey() {
  KeyPtr key(EVP_EC_gen("P-256"));
  check(key != nullptr, "EC key generation");
  return key;
}

void addExtension(X509* cert, X509* issuer, int nid, const char* value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
  ExtPtr ext(X509V3_EXT_conf_nid(nullptr, &ctx, nid, value));
  check(ext != nullptr, "certificate extension");
  check(X509_add_ext(cert, ext.get(), -1) == 1, "adding an extension");
}

CertPtr newCertificate(EVP_PKEY* key, const char* commonName, X509* issuer) {
  CertPtr cert(X509_new());
  check(cert != nullptr, "X509_new");
  X509_set_version(cert.get(), 2);
  unsigned char serial[16];
  check(RAND_bytes(serial, sizeof serial) == 1, "serial number");
  serial[0] &= 0x7F;  // positive
  std::unique_ptr<BIGNUM, Deleter<BN_free>> bn(BN_bin2bn(serial, sizeof serial, nullptr));
  check(BN_to_ASN1_INTEGER(bn.get(), X509_get_serialNumber(cert.get())) != nullptr, "serial");
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), -24 * 3600);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), kValidDays * 24 * 3600);
  X509_set_pubkey(cert.get(), key);
  X509_NAME* name = X509_get_subject_name(cert.get());
  X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("Sonorell"), -1, -1, 0);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(commonName), -1, -1, 0);
  X509_set_issuer_name(cert.get(), issuer ? X509_get_subject_name(issuer) : name);
  return cert;
}

std::string pem(X509* cert) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  check(PEM_write_bio_X509(bio.get(), cert) == 1, "writing a certificate");
  char* data = nullptr;
  const long n = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<std::size_t>(n));
}

std::string pem(EVP_PKEY* key) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  check(PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1,
        "writing a key");
  char* data = nullptr;
  const long n = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<std::size_t>(n));
}

// True when the cached server certificate loads and stays valid for at least a day.
bool usable(const TlsIdentity& id) {
  for (const auto& p : {id.caCertificate, id.serverCertificate, id.serverKey}) {
    if (!std::filesystem::exists(p)) return false;
  }
  std::unique_ptr<FILE, Deleter<std::fclose>> f(std::fopen(id.serverCertificate.c_str(), "r"));
  if (!f) return false;
  CertPtr cert(PEM_read_X509(f.get(), nullptr, nullptr, nullptr));
  if (!cert) return false;
  time_t tomorrow = time(nullptr) + 24 * 3600;
  return X509_cmp_time(X509_get0_notAfter(cert.get()), &tomorrow) > 0;
}

}  // namespace

TlsIdentity loadOrCreateTlsIdentity(const std::filesystem::path& dir) {
  TlsIdentity id{dir / "ca.pem", dir / "server.pem", dir / "server-key.pem"};
  if (usable(id)) return id;
  std::filesystem::create_directories(dir);

  KeyPtr caKey = newKey();
  CertPtr ca = newCertificate(caKey.get(), "Sonorell Reference Content CA", nullptr);
  addExtension(ca.get(), ca.get(), NID_basic_constraints, "critical,CA:TRUE");
  addExtension(ca.get(), ca.get(), NID_key_usage, "critical,keyCertSign,cRLSign");
  addExtension(ca.get(), ca.get(), NID_subject_key_identifier, "hash");
  check(X509_sign(ca.get(), caKey.get(), EVP_sha256()) > 0, "signing the CA");

  KeyPtr serverKey = newKey();
  CertPtr server = newCertificate(serverKey.get(), "localhost", ca.get());
  addExtension(server.get(), ca.get(), NID_basic_constraints, "critical,CA:FALSE");
  addExtension(server.get(), ca.get(), NID_key_usage, "critical,digitalSignature");
  addExtension(server.get(), ca.get(), NID_ext_key_usage, "serverAuth");
  addExtension(server.get(), ca.get(), NID_subject_alt_name, "IP:127.0.0.1,IP:::1,DNS:localhost");
  addExtension(server.get(), ca.get(), NID_authority_key_identifier, "keyid:always");
  check(X509_sign(server.get(), caKey.get(), EVP_sha256()) > 0, "signing the server certificate");

  // Key and chain first, CA last: a reader that sees the CA file sees a complete set.
  writeFileAtomically(id.serverKey, pem(serverKey.get()));
  writeFileAtomically(id.serverCertificate, pem(server.get()) + pem(ca.get()));
  writeFileAtomically(id.caCertificate, pem(ca.get()));
  return id;
}

}  // namespace sonorell::content
