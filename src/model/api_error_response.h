// The content API's error document ({"message", "code", "error_number", "errors": [...]}) and
// its conversion into a download failure. Plain values.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "sonorell/error.h"

namespace sonorell {

struct QSOAPIFieldError {
  std::string field;
  std::string code;

  // Both "field" and "code" must be present.
  static std::optional<QSOAPIFieldError> fieldErrorFromDictionary(const nlohmann::json& object);
};

struct QSOAPIErrorResponse {
  std::string message;
  std::string code;
  uint64_t errorNumber = 0;
  std::vector<QSOAPIFieldError> fieldErrors;

  // A document needs "message", "code" and "errors"; field errors lacking a key are skipped.
  static std::optional<QSOAPIErrorResponse> errorResponseFromDictionary(
      const nlohmann::json& object);
  // Unauthorized (11008) for error numbers 4011 and 4012, else an unknown server response
  // (10001), described with the document's code and message.
  ErrorPtr toNSError() const;
};

}  // namespace sonorell
