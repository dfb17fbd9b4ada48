#include "sha256.h"

#include <openssl/evp.h>

#include <array>
#include <cstdio>

namespace sonorell::content {

std::string sha256Hex(std::string_view bytes) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest.data(), &length, EVP_sha256(), nullptr);
  std::string hex;
  hex.reserve(length * 2);
  for (unsigned int i = 0; i < length; ++i) {
    char pair[3];
    std::snprintf(pair, sizeof pair, "%02x", digest[i]);
    hex += pair;
  }
  return hex;
}

}  // namespace sonorell::content
