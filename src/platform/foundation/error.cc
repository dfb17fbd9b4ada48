// Error construction and description.
#include "sonorell/error.h"

#include <cstring>

namespace sonorell {

ErrorPtr Error::make(std::string domain, int64_t code, Dictionary userInfo) {
  auto error = std::make_shared<Error>();
  error->domain = std::move(domain);
  error->code = code;
  error->userInfo = std::move(userInfo);
  return error;
}

ErrorPtr Error::make(std::string domain, int64_t code, std::string description,
                     ErrorPtr underlying) {
  Dictionary info;
  info.emplace(std::string(kLocalizedDescriptionKey), std::move(description));
  if (underlying) info.emplace(std::string(kUnderlyingErrorKey), std::move(underlying));
  return make(std::move(domain), code, std::move(info));
}

ErrorPtr Error::posix(int errnoValue, std::string_view context) {
  std::string text = std::strerror(errnoValue);
  if (!context.empty()) text = std::string(context) + ": " + text;
  return make(std::string(kPOSIXErrorDomain), errnoValue, std::move(text), nullptr);
}

std::string Error::localizedDescription() const {
  auto it = userInfo.find(kLocalizedDescriptionKey);
  if (it != userInfo.end()) {
    if (auto text = it->second.asString()) return *text;
  }
  return "The operation couldn't be completed. (" + domain + " error " + std::to_string(code) +
         ".)";
}

ErrorPtr Error::underlyingError() const {
  auto it = userInfo.find(kUnderlyingErrorKey);
  return it == userInfo.end() ? nullptr : it->second.asError();
}

std::string Error::description() const {
  std::string out = "Error Domain=" + domain + " Code=" + std::to_string(code) + " \"" +
                    localizedDescription() + "\"";
  if (auto underlying = underlyingError()) {
    out += " UserInfo={" + std::string(kUnderlyingErrorKey) + "=" + underlying->description() + "}";
  }
  return out;
}

}  // namespace sonorell
