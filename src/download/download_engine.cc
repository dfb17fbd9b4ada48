// QSODownloadEngine: the host's face of DownloadEngineCore.
#include "sonorell/download_engine.h"

#include "core/error_descriptions.h"
#include "core/notification_poster.h"
#include "download/download_engine_core.h"
#include "persistence/audiobook_status.h"
#include "persistence/download_request_store.h"

namespace sonorell {

QSODownloadEngine::QSODownloadEngine(std::shared_ptr<const Services> services)
    : core_(std::make_shared<DownloadEngineCore>(std::move(services))) {}

QSODownloadEngine::~QSODownloadEngine() = default;

void QSODownloadEngine::startDownloadWithRequest(const QSODownloadRequest& request) {
  core_->startDownloadWithRequest(request);
}
void QSODownloadEngine::pauseDownloadForRequestIdentifier(const std::string& requestIdentifier) {
  core_->pauseDownloadForRequestIdentifier(requestIdentifier);
}
void QSODownloadEngine::pauseAll() { core_->pauseAll(); }
void QSODownloadEngine::pauseForAudiobookID(const std::string& audiobookID) {
  core_->pauseForAudiobookID(audiobookID);
}
void QSODownloadEngine::cancelDownloadForRequestIdentifier(const std::string& requestIdentifier) {
  core_->cancelDownloadForRequestIdentifier(requestIdentifier);
}
void QSODownloadEngine::cancelAll() { core_->cancelAll(); }
void QSODownloadEngine::cancelForAudiobookID(const std::string& audiobookID) {
  core_->cancelForAudiobookID(audiobookID);
}
void QSODownloadEngine::cancelForAudiobookID(const std::string& audiobookID, uint64_t partNumber,
                                             uint64_t chapterNumber) {
  core_->cancelForAudiobookID(audiobookID, partNumber, chapterNumber);
}
void QSODownloadEngine::deleteForAudiobookID(const std::string& audiobookID) {
  core_->deleteForAudiobookID(audiobookID);
}
void QSODownloadEngine::deleteForAudiobookID(const std::string& audiobookID, uint64_t partNumber,
                                             uint64_t chapterNumber) {
  core_->deleteForAudiobookID(audiobookID, partNumber, chapterNumber);
}
void QSODownloadEngine::deleteAll() { core_->deleteAll(); }

uint64_t QSODownloadEngine::statusForAudiobookID(const std::string& audiobookID,
                                                 uint64_t partNumber, uint64_t chapterNumber) {
  return core_->statusForAudiobookID(audiobookID, partNumber, chapterNumber);
}
uint64_t QSODownloadEngine::statusForAudiobookID(const std::string& audiobookID) {
  return core_->statusForAudiobookID(audiobookID);
}
float QSODownloadEngine::percentageForAudiobookID(const std::string& audiobookID,
                                                  uint64_t partNumber, uint64_t chapterNumber) {
  return core_->percentageForAudiobookID(audiobookID, partNumber, chapterNumber);
}
float QSODownloadEngine::percentageForAudiobookID(const std::string& audiobookID) {
  return core_->percentageForAudiobookID(audiobookID);
}
std::vector<std::string> QSODownloadEngine::localAudiobookIDs() {
  return core_->localAudiobookIDs();
}
std::vector<std::string> QSODownloadEngine::localAudiobookIDsForStatus(uint64_t status) {
  return QSOAudiobookStatus::fetchAudiobookIdentifersForStatus(status);
}
std::vector<QSODownloadRequest> QSODownloadEngine::currentDownloadRequests() {
  return QSODownloadRequestDatabaseHelper::fetchAllRequests();
}
void QSODownloadEngine::addCompletionHandler(std::function<void()> handler,
                                             const std::string& sessionIdentifier) {
  core_->addCompletionHandler(std::move(handler), sessionIdentifier);
}
void QSODownloadEngine::callCompletionHandlerForSession(const std::string& sessionIdentifier) {
  core_->callCompletionHandlerForSession(sessionIdentifier);
}
void QSODownloadEngine::waitUntilCommandsHaveRun() {
  core_->waitForInputQueue();
  QSONotificationPoster::sharedPoster()->waitForPosted();
}
void QSODownloadEngine::restartOldRequests() { core_->restartOldRequests(); }
std::shared_ptr<QSOStateLock> QSODownloadEngine::stateLockForAudiobookID(
    const std::string& audiobookID) {
  return core_->stateLockForAudiobookID(audiobookID);
}
void QSODownloadEngine::disableDispatch() { core_->disableDispatch(); }

std::string_view QSODownloadEngine::descriptionForErrorCode(int64_t code) {
  return downloadDescriptionForErrorCode(code);
}

}  // namespace sonorell
