// Deterministic content of any size for transfer benchmarks, made on the fly so nothing is stored:
// byte i of a blob depends only on i and the blob's version. Stateless; safe from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace sonorell::content {

void fillBlob(std::uint64_t version, std::uint64_t offset, char* out, std::size_t n);
// The whole blob, for tests that compare what they received (keep sizes modest).
std::string blobBytes(std::uint64_t size, std::uint64_t version = 0);

}  // namespace sonorell::content
