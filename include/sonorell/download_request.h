/// A host's order to download audio of one audiobook: which book, from which chapter, how much,
/// with which credentials, Wi-Fi only or not. An immutable value; copy it freely between threads.
/// @file
#pragma once

#include <cstdint>
#include <limits>
#include <string>

#include "sonorell/export.h"

namespace sonorell {

///@{
/// A request whose part and chapter are both these starts at the audiobook's first chapter.
inline constexpr uint64_t QSODownloadRequestDefaultPart = std::numeric_limits<uint64_t>::max();
inline constexpr uint64_t QSODownloadRequestDefaultChapter = std::numeric_limits<uint64_t>::max();
///@}

/// How many chapters a request covers, from its start chapter.
enum DownloadType : uint64_t {
  DownloadTypeFullAudiobook = 0,  ///< all, wrapping round to the chapter before the start
  DownloadTypeToEnd = 1,          ///< the start chapter up to the last
  DownloadTypeSingleChapter = 2,  ///< the start chapter only
};

/// What to download and with which credentials; hand it to
/// QSODownloadEngine::startDownloadWithRequest(). Its requestIdentifier() names it in the
/// notifications about it (QSODownloadRequestIDUserInfoKey) and in the engine's commands.
class SONORELL_EXPORT QSODownloadRequest {
 public:
  /// A new request with a fresh identifier (a random UUID).
  /// @param audiobookID the audiobook in the content service
  /// @param partNumber, chapterNumber the chapter to start at (QSODownloadRequestDefaultPart and
  ///        QSODownloadRequestDefaultChapter: the first)
  /// @param downloadType how many chapters (DownloadType)
  /// @param sessionKey, licenseID the user's credentials for the content service
  /// @param restrictToWiFi wait while the network link is cellular
  QSODownloadRequest(std::string audiobookID, uint64_t partNumber, uint64_t chapterNumber,
                     uint64_t downloadType, std::string sessionKey, std::string licenseID,
                     bool restrictToWiFi);
  /// The same, starting at the audiobook's first chapter.
  QSODownloadRequest(std::string audiobookID, uint64_t downloadType, std::string sessionKey,
                     std::string licenseID, bool restrictToWiFi);
  /// A request rebuilt with a stored identifier.
  QSODownloadRequest(std::string requestIdentifier, std::string audiobookID, uint64_t partNumber,
                     uint64_t chapterNumber, uint64_t downloadType, std::string sessionKey,
                     std::string licenseID, bool restrictToWiFi);
  /// A request rebuilt with a stored identifier, starting at the audiobook's first chapter.
  QSODownloadRequest(std::string requestIdentifier, std::string audiobookID, uint64_t downloadType,
                     std::string sessionKey, std::string licenseID, bool restrictToWiFi);

  /// The identifier: upper-case UUID text for a new request.
  const std::string& requestIdentifier() const { return requestIdentifier_; }
  /// The audiobook to download.
  const std::string& audiobookID() const { return audiobookID_; }
  /// The part of the start chapter, or QSODownloadRequestDefaultPart.
  uint64_t partNumber() const { return partNumber_; }
  /// The start chapter, or QSODownloadRequestDefaultChapter.
  uint64_t chapterNumber() const { return chapterNumber_; }
  /// A DownloadType value.
  uint64_t downloadType() const { return downloadType_; }
  /// The user's session key for the content service.
  const std::string& sessionKey() const { return sessionKey_; }
  /// The user's license identifier.
  const std::string& licenseID() const { return licenseID_; }
  /// Whether the transfers wait while the link is cellular.
  bool restrictToWiFi() const { return restrictToWiFi_; }

  /// Every field in one line, for logs.
  std::string description() const;

 private:
  std::string requestIdentifier_;
  std::string audiobookID_;
  uint64_t partNumber_;
  uint64_t chapterNumber_;
  uint64_t downloadType_;
  std::string sessionKey_;
  std::string licenseID_;
  bool restrictToWiFi_;
};

}  // namespace sonorell
