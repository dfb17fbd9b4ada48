// Values that describe background transfers: the request a download task is made from, the
// response it got, its states and a session's configuration. Plain values; no shared state.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/net/http_types.h"

namespace sonorell {

// A GET of `url`. The service never answers from a cache and never stores one.
struct TransferRequest {
  std::string url;
  HttpHeaders headers;  // sent in this order
  // Longest wait for the connection and longest time without a single byte arriving.
  std::chrono::milliseconds timeout{60'000};
};

struct TransferResponse {
  long statusCode = 0;
  HttpHeaders headers;  // of the last response, as the server sent them
  // Bytes of the whole resource as the server declared them; -1 when it did not say.
  int64_t expectedContentLength = -1;
  std::optional<std::string> header(std::string_view name) const;
};

// Numeric values are the platform's, which callers log and compare.
enum class TransferTaskState : int {
  kRunning = 0,
  kSuspended = 1,
  kCancelling = 2,
  kCompleted = 3,
};

std::string_view transferTaskStateName(TransferTaskState state);

struct TransferSessionConfiguration {
  std::string identifier;
  // False: transfers wait while the reachability source reports a cellular link.
  bool allowsCellularAccess = true;
  // Transfers of the session that run at once; later ones wait in creation order.
  int maximumConnections = 4;
  // Extra PEM bundle trusted besides the system's; empty: the service's bundle, else the
  // process-wide one (setDefaultCABundle).
  std::string caBundle;
};

}  // namespace sonorell
