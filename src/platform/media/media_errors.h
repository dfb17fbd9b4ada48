// Errors the media backends raise themselves (decoding, format, truncated content). Errors that a
// resource loader finishes a request with are passed on unchanged. Constants only.
#pragma once

#include <cstdint>
#include <string_view>

namespace sonorell {

inline constexpr std::string_view kMediaErrorDomain = "io.sonorell.media";

enum MediaErrorCode : int64_t {
  kMediaErrorUnknown = -11800,
  // The resource loader's delegate is gone or declined the request without an error.
  kMediaErrorResourceUnavailable = -11801,
  // The bytes are not audio the backend can decode.
  kMediaErrorFormatNotRecognized = -11802,
  // Decoding or output failed while playing.
  kMediaErrorDecodeFailed = -11803,
  // The content ended before its stated length.
  kMediaErrorContentEndedEarly = -11804,
  // A data request was redirected after the item had started reading through its loader.
  kMediaErrorRedirectNotSupported = -11805,
  // The HTTP source of a redirected item failed.
  kMediaErrorNetworkReadFailed = -11806,
};

}  // namespace sonorell
