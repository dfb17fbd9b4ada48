#include "blob.h"

namespace sonorell::content {
namespace {

// splitmix64: cheap, and every 8-byte word is independent of the others.
std::uint64_t mix(std::uint64_t x) {
  x += 0x9E3779B97F4A7C15ULL;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ULL;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBULL;
  return x ^ (x >> 31);
}

}  // namespace

void fillBlob(std::uint64_t version, std::uint64_t offset, char* out, std::size_t n) {
  const std::uint64_t seed = version * 0xD1B54A32D192ED03ULL;
  std::size_t i = 0;
  while (i < n) {
    const std::uint64_t pos = offset + i;
    const std::uint64_t word = mix((pos >> 3) ^ seed);
    for (std::uint64_t b = pos & 7; b < 8 && i < n; ++b, ++i) {
      out[i] = static_cast<char>((word >> (b * 8)) & 0xFF);
    }
  }
}

std::string blobBytes(std::uint64_t size, std::uint64_t version) {
  std::string bytes(size, '\0');
  fillBlob(version, 0, bytes.data(), bytes.size());
  return bytes;
}

}  // namespace sonorell::content
