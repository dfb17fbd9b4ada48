// SHA-256 as lower-case hex (OpenSSL): of a byte string at once, or of bytes fed in pieces.
// sha256Hex is stateless; a Sha256 belongs to one thread at a time.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace sonorell::content {

std::string sha256Hex(std::string_view bytes);

class Sha256 {
 public:
  Sha256();
  ~Sha256();
  Sha256(const Sha256&) = delete;
  Sha256& operator=(const Sha256&) = delete;

  void update(std::string_view bytes);
  // The digest of everything fed so far; the object is spent afterwards.
  std::string hex();

 private:
  struct Context;
  std::unique_ptr<Context> context_;
};

}  // namespace sonorell::content
