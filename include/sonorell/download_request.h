// A host's order to download audio of one audiobook: which book, from which chapter, how much,
// with which credentials, Wi-Fi only or not. An immutable value; copy it freely between threads.
#pragma once

#include <cstdint>
#include <limits>
#include <string>

#include "sonorell/export.h"

namespace sonorell {

// A request whose part and chapter are both these starts at the audiobook's first chapter.
inline constexpr uint64_t QSODownloadRequestDefaultPart = std::numeric_limits<uint64_t>::max();
inline constexpr uint64_t QSODownloadRequestDefaultChapter = std::numeric_limits<uint64_t>::max();

// How many chapters a request covers, from its start chapter.
enum DownloadType : uint64_t {
  DownloadTypeFullAudiobook = 0,  // all, wrapping round to the chapter before the start
  DownloadTypeToEnd = 1,          // the start chapter up to the last
  DownloadTypeSingleChapter = 2,  // the start chapter only
};

class SONORELL_EXPORT QSODownloadRequest {
 public:
  // A new request with a fresh identifier.
  QSODownloadRequest(std::string audiobookID, uint64_t partNumber, uint64_t chapterNumber,
                     uint64_t downloadType, std::string sessionKey, std::string licenseID,
                     bool restrictToWiFi);
  // The same, starting at the audiobook's first chapter.
  QSODownloadRequest(std::string audiobookID, uint64_t downloadType, std::string sessionKey,
                     std::string licenseID, bool restrictToWiFi);
  // A request rebuilt with a stored identifier.
  QSODownloadRequest(std::string requestIdentifier, std::string audiobookID, uint64_t partNumber,
                     uint64_t chapterNumber, uint64_t downloadType, std::string sessionKey,
                     std::string licenseID, bool restrictToWiFi);
  QSODownloadRequest(std::string requestIdentifier, std::string audiobookID, uint64_t downloadType,
                     std::string sessionKey, std::string licenseID, bool restrictToWiFi);

  const std::string& requestIdentifier() const { return requestIdentifier_; }
  const std::string& audiobookID() const { return audiobookID_; }
  uint64_t partNumber() const { return partNumber_; }
  uint64_t chapterNumber() const { return chapterNumber_; }
  uint64_t downloadType() const { return downloadType_; }
  const std::string& sessionKey() const { return sessionKey_; }
  const std::string& licenseID() const { return licenseID_; }
  bool restrictToWiFi() const { return restrictToWiFi_; }

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
