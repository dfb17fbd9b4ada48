// SHA-256 of a byte string as lower-case hex (OpenSSL). Stateless; safe from any thread.
#pragma once

#include <string>
#include <string_view>

namespace sonorell::content {

std::string sha256Hex(std::string_view bytes);

}  // namespace sonorell::content
