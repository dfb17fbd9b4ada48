// QSODownloadRequest's initialisers and description.
#include "sonorell/download_request.h"

#include "platform/foundation/format.h"
#include "sonorell/utils.h"

namespace sonorell {

QSODownloadRequest::QSODownloadRequest(std::string audiobookID, uint64_t partNumber,
                                       uint64_t chapterNumber, uint64_t downloadType,
                                       std::string sessionKey, std::string licenseID,
                                       bool restrictToWiFi)
    : QSODownloadRequest(QSOUtils::generateUUID(), std::move(audiobookID), partNumber,
                         chapterNumber, downloadType, std::move(sessionKey), std::move(licenseID),
                         restrictToWiFi) {}

QSODownloadRequest::QSODownloadRequest(std::string audiobookID, uint64_t downloadType,
                                       std::string sessionKey, std::string licenseID,
                                       bool restrictToWiFi)
    : QSODownloadRequest(std::move(audiobookID), QSODownloadRequestDefaultPart,
                         QSODownloadRequestDefaultChapter, downloadType, std::move(sessionKey),
                         std::move(licenseID), restrictToWiFi) {}

QSODownloadRequest::QSODownloadRequest(std::string requestIdentifier, std::string audiobookID,
                                       uint64_t partNumber, uint64_t chapterNumber,
                                       uint64_t downloadType, std::string sessionKey,
                                       std::string licenseID, bool restrictToWiFi)
    : requestIdentifier_(std::move(requestIdentifier)),
      audiobookID_(std::move(audiobookID)),
      partNumber_(partNumber),
      chapterNumber_(chapterNumber),
      downloadType_(downloadType),
      sessionKey_(std::move(sessionKey)),
      licenseID_(std::move(licenseID)),
      restrictToWiFi_(restrictToWiFi) {}

QSODownloadRequest::QSODownloadRequest(std::string requestIdentifier, std::string audiobookID,
                                       uint64_t downloadType, std::string sessionKey,
                                       std::string licenseID, bool restrictToWiFi)
    : QSODownloadRequest(std::move(requestIdentifier), std::move(audiobookID),
                         QSODownloadRequestDefaultPart, QSODownloadRequestDefaultChapter,
                         downloadType, std::move(sessionKey), std::move(licenseID),
                         restrictToWiFi) {}

std::string QSODownloadRequest::description() const {
  return stringWithFormat(
      "(QSODownloadRequest) audiobookID: %@ partNumber: %lu chapterNumber: %lu downloadType: %lu "
      "sessionKey: %@ licenseID: %@ restrictToWiFi: %@ requestID: %@",
      audiobookID_, partNumber_, chapterNumber_, downloadType_, sessionKey_, licenseID_,
      restrictToWiFi_ ? "YES" : "NO", requestIdentifier_);
}

}  // namespace sonorell
