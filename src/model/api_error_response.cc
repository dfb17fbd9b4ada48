#include "model/api_error_response.h"

#include "core/error_transformer.h"
#include "model/json_reading.h"
#include "sonorell/errors.h"

namespace sonorell {

namespace {
std::string textOf(const nlohmann::json& value) {
  return value.is_string() ? value.get<std::string>() : value.dump();
}
}  // namespace

std::optional<QSOAPIFieldError> QSOAPIFieldError::fieldErrorFromDictionary(
    const nlohmann::json& object) {
  const auto* code = json_reading::member(object, "code");
  const auto* field = json_reading::member(object, "field");
  if (!code || !field) return std::nullopt;
  return QSOAPIFieldError{textOf(*field), textOf(*code)};
}

std::optional<QSOAPIErrorResponse> QSOAPIErrorResponse::errorResponseFromDictionary(
    const nlohmann::json& object) {
  const auto* message = json_reading::member(object, "message");
  const auto* code = json_reading::member(object, "code");
  const auto* errors = json_reading::member(object, "errors");
  if (!message || !code || !errors) return std::nullopt;
  QSOAPIErrorResponse response;
  response.message = textOf(*message);
  response.code = textOf(*code);
  if (const auto* number = json_reading::member(object, "error_number")) {
    response.errorNumber = json_reading::unsignedValue(*number);
  }
  if (errors->is_array()) {
    for (const auto& element : *errors) {
      if (auto fieldError = QSOAPIFieldError::fieldErrorFromDictionary(element)) {
        response.fieldErrors.push_back(std::move(*fieldError));
      }
    }
  }
  return response;
}

ErrorPtr QSOAPIErrorResponse::toNSError() const {
  int64_t errorCode = QSOErrorTransformer::codeForAPIErrorNumber(static_cast<int64_t>(errorNumber));
  return Error::make(std::string(QSOErrorDomain), errorCode,
                     QSOErrorTransformer::descriptionForAPIError(errorCode, code, message),
                     nullptr);
}

}  // namespace sonorell
