#include "sha256.h"

#include <openssl/evp.h>

#include <array>
#include <cstdio>
#include <stdexcept>

namespace sonorell::content {
namespace {

std::string hexOf(const unsigned char* digest, unsigned int length) {
  std::string hex;
  hex.reserve(length * 2);
  for (unsigned int i = 0; i < length; ++i) {
    char pair[3];
    std::snprintf(pair, sizeof pair, "%02x", digest[i]);
    hex += pair;
  }
  return hex;
}

}  // namespace

std::string sha256Hex(std::string_view bytes) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest.data(), &length, EVP_sha256(), nullptr);
  return hexOf(digest.data(), length);
}

struct Sha256::Context {
  EVP_MD_CTX* md = EVP_MD_CTX_new();
  ~Context() { EVP_MD_CTX_free(md); }
};

Sha256::Sha256() : context_(std::make_unique<Context>()) {
  if (!context_->md || EVP_DigestInit_ex(context_->md, EVP_sha256(), nullptr) != 1) {
    throw std::runtime_error("SHA-256 is not available");
  }
}

Sha256::~Sha256() = default;

void Sha256::update(std::string_view bytes) {
  EVP_DigestUpdate(context_->md, bytes.data(), bytes.size());
}

std::string Sha256::hex() {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  EVP_DigestFinal_ex(context_->md, digest.data(), &length);
  return hexOf(digest.data(), length);
}

}  // namespace sonorell::content
