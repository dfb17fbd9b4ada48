/// Errors as the engine reports them: a domain, a signed code and user info holding the
/// description, an optional underlying error and any further details. Immutable once shared.
/// @file
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "sonorell/export.h"
#include "sonorell/value.h"

namespace sonorell {

/// @name User-info keys of every error
///@{
/// The key of the error's description (a string).
inline constexpr std::string_view kLocalizedDescriptionKey = "NSLocalizedDescription";
/// The key of the lower-level error that caused this one (an ErrorPtr).
inline constexpr std::string_view kUnderlyingErrorKey = "NSUnderlyingError";
///@}

/// @name Platform domains the engine relies on
/// The engine's own errors are of QSOErrorDomain (sonorell/errors.h); these appear as their
/// underlying errors.
///@{
/// Network and HTTP transport errors; codes in URLLoadingErrorCode.
inline constexpr std::string_view kURLLoadingErrorDomain = "NSURLErrorDomain";
/// System call failures; the code is the errno value.
inline constexpr std::string_view kPOSIXErrorDomain = "NSPOSIXErrorDomain";
/// File-system errors; codes in FileSystemErrorCode.
inline constexpr std::string_view kFileSystemErrorDomain = "NSCocoaErrorDomain";
///@}

/// Codes of the URL-loading domain.
enum URLLoadingErrorCode : int64_t {
  kURLErrorCancelled = -999,                         ///< the transfer was cancelled
  kURLErrorBackgroundSessionWasDisconnected = -997,  ///< the transfer service lost the transfer
  kURLErrorUnknown = -1,                             ///< a failure with no better code
  kURLErrorTimedOut = -1001,                         ///< no answer in time
  kURLErrorUnsupportedURL = -1002,                   ///< a URL the client cannot fetch
  kURLErrorCannotFindHost = -1003,                   ///< the host name does not resolve
  kURLErrorCannotConnectToHost = -1004,              ///< the connection was refused
  kURLErrorNetworkConnectionLost = -1005,            ///< the connection broke mid-way
  kURLErrorDNSLookupFailed = -1006,                  ///< name resolution failed
  kURLErrorNotConnectedToInternet = -1009,           ///< no network
  kURLErrorBadServerResponse = -1011,                ///< the server's answer was malformed
  kURLErrorUserAuthenticationRequired = -1013,       ///< the server wants credentials
  kURLErrorCannotWriteToFile = -3003,                ///< the received bytes could not be stored
  kURLErrorSecureConnectionFailed = -1200,           ///< TLS failed
  kURLErrorServerCertificateUntrusted = -1202,       ///< the server's certificate is not trusted
};

/// Codes of the file-system domain.
enum FileSystemErrorCode : int64_t {
  kFileNoSuchFileError = 4,         ///< no such file
  kFileWriteUnknownError = 512,     ///< a write failed
  kFileWriteFileExistsError = 516,  ///< the destination exists
};

/// An error: where it comes from (domain), what it is (code) and the details (user info). Shared
/// as ErrorPtr, a pointer to a constant error, so it can be handed between threads freely.
struct SONORELL_EXPORT Error {
  std::string domain;   ///< QSOErrorDomain for the engine's own errors, else a platform domain
  int64_t code = 0;     ///< meaningful within the domain
  Dictionary userInfo;  ///< kLocalizedDescriptionKey, kUnderlyingErrorKey and further details

  /// An error with this user info.
  static ErrorPtr make(std::string domain, int64_t code, Dictionary userInfo = {});
  /// The common shape: a description and, if given, the error underneath.
  static ErrorPtr make(std::string domain, int64_t code, std::string description,
                       ErrorPtr underlying);
  /// An error of the POSIX domain for an errno value, described by strerror.
  static ErrorPtr posix(int errnoValue, std::string_view context = {});

  /// The description under kLocalizedDescriptionKey, or a generic text naming domain and code.
  std::string localizedDescription() const;
  /// The error under kUnderlyingErrorKey, or null.
  ErrorPtr underlyingError() const;
  /// "Error Domain=%@ Code=%ld \"%@\"" plus the underlying error, for logs.
  std::string description() const;
};

}  // namespace sonorell
