// Errors as the engine reports them: a domain, a signed code and user info holding the
// description, an optional underlying error and any further details. Immutable once shared.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "sonorell/export.h"
#include "sonorell/value.h"

namespace sonorell {

// User-info keys of every error.
inline constexpr std::string_view kLocalizedDescriptionKey = "NSLocalizedDescription";
inline constexpr std::string_view kUnderlyingErrorKey = "NSUnderlyingError";

// Platform domains the engine relies on.
inline constexpr std::string_view kURLLoadingErrorDomain = "NSURLErrorDomain";
inline constexpr std::string_view kPOSIXErrorDomain = "NSPOSIXErrorDomain";
inline constexpr std::string_view kFileSystemErrorDomain = "NSCocoaErrorDomain";

// Codes of the URL-loading domain.
enum URLLoadingErrorCode : int64_t {
  kURLErrorCancelled = -999,
  kURLErrorBackgroundSessionWasDisconnected = -997,
  kURLErrorUnknown = -1,
  kURLErrorTimedOut = -1001,
  kURLErrorUnsupportedURL = -1002,
  kURLErrorCannotFindHost = -1003,
  kURLErrorCannotConnectToHost = -1004,
  kURLErrorNetworkConnectionLost = -1005,
  kURLErrorDNSLookupFailed = -1006,
  kURLErrorNotConnectedToInternet = -1009,
  kURLErrorBadServerResponse = -1011,
  kURLErrorUserAuthenticationRequired = -1013,
  kURLErrorCannotWriteToFile = -3003,
  kURLErrorSecureConnectionFailed = -1200,
  kURLErrorServerCertificateUntrusted = -1202,
};

// Codes of the file-system domain.
enum FileSystemErrorCode : int64_t {
  kFileNoSuchFileError = 4,
  kFileWriteUnknownError = 512,
  kFileWriteFileExistsError = 516,
};

struct SONORELL_EXPORT Error {
  std::string domain;
  int64_t code = 0;
  Dictionary userInfo;

  static ErrorPtr make(std::string domain, int64_t code, Dictionary userInfo = {});
  // The common shape: a description and, if given, the error underneath.
  static ErrorPtr make(std::string domain, int64_t code, std::string description,
                       ErrorPtr underlying);
  // An error of the POSIX domain for an errno value, described by strerror.
  static ErrorPtr posix(int errnoValue, std::string_view context = {});

  // The description under kLocalizedDescriptionKey, or a generic text naming domain and code.
  std::string localizedDescription() const;
  ErrorPtr underlyingError() const;
  // "Error Domain=%@ Code=%ld \"%@\"" plus the underlying error, for logs.
  std::string description() const;
};

}  // namespace sonorell
