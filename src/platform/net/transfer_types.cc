#include "platform/net/transfer_types.h"

#include "platform/net/http_types.h"

namespace sonorell {

std::optional<std::string> TransferResponse::header(std::string_view name) const {
  return headerValue(headers, name);
}

std::string_view transferTaskStateName(TransferTaskState state) {
  switch (state) {
    case TransferTaskState::kRunning:
      return "running";
    case TransferTaskState::kSuspended:
      return "suspended";
    case TransferTaskState::kCancelling:
      return "cancelling";
    case TransferTaskState::kCompleted:
      return "completed";
  }
  return "unknown";
}

}  // namespace sonorell
