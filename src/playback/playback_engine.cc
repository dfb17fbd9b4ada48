// QSOPlaybackEngine: the host's face of the playback engine; every call goes to its core.
#include "sonorell/playback_engine.h"

#include "core/error_descriptions.h"
#include "playback/playback_engine_core.h"

namespace sonorell {

QSOPlaybackEngine::QSOPlaybackEngine(std::shared_ptr<const Services> services)
    : core_(PlaybackEngineCore::create(std::move(services))) {}

QSOPlaybackEngine::~QSOPlaybackEngine() = default;

void QSOPlaybackEngine::playForAudiobookID(const std::string& audiobookID, uint64_t partNumber,
                                           uint64_t chapterNumber, uint64_t offset,
                                           const std::string& sessionKey,
                                           const std::string& licenseID) {
  core_->playForAudiobookID(audiobookID, partNumber, chapterNumber, offset, sessionKey, licenseID);
}
void QSOPlaybackEngine::resume() { core_->resume(); }
void QSOPlaybackEngine::pause() { core_->pause(); }
void QSOPlaybackEngine::nextChapter() { core_->nextChapter(); }
void QSOPlaybackEngine::previousChapter() { core_->previousChapter(); }
void QSOPlaybackEngine::unload() { core_->unload(); }
void QSOPlaybackEngine::setCurrentOffset(uint64_t offset) { core_->setCurrentOffset(offset); }
void QSOPlaybackEngine::setCurrentRate(float rate) { core_->setCurrentRate(rate); }

uint64_t QSOPlaybackEngine::currentOffset() const { return core_->currentOffset(); }
uint64_t QSOPlaybackEngine::currentDuration() const { return core_->currentDuration(); }
bool QSOPlaybackEngine::isStreaming() const { return core_->isStreaming(); }
std::optional<QSOChapterDescription> QSOPlaybackEngine::currentLoadedChapter() const {
  return core_->currentLoadedChapter();
}
std::vector<QSOChapterDescription> QSOPlaybackEngine::audiobookChapterDescriptions() const {
  return core_->audiobookChapterDescriptions();
}
std::optional<QSOChapterDescription> QSOPlaybackEngine::chapterAfterPartNumber(
    uint64_t partNumber, uint64_t chapterNumber) const {
  return core_->chapterAfterPartNumber(partNumber, chapterNumber);
}
std::optional<QSOChapterDescription> QSOPlaybackEngine::chapterBeforePartNumber(
    uint64_t partNumber, uint64_t chapterNumber) const {
  return core_->chapterBeforePartNumber(partNumber, chapterNumber);
}
QSOPlayerStatus QSOPlaybackEngine::playerStatus() const { return core_->playerStatus(); }
float QSOPlaybackEngine::currentRate() const { return core_->currentRate(); }

bool QSOPlaybackEngine::wifiOnly() const { return core_->wifiOnly(); }
void QSOPlaybackEngine::setWifiOnly(bool wifiOnly) { core_->setWifiOnly(wifiOnly); }
bool QSOPlaybackEngine::shouldAutoplay() const { return core_->shouldAutoplay(); }
void QSOPlaybackEngine::setShouldAutoplay(bool shouldAutoplay) {
  core_->setShouldAutoplay(shouldAutoplay);
}
uint64_t QSOPlaybackEngine::maxStallTime() const { return core_->maxStallTime(); }
void QSOPlaybackEngine::setMaxStallTime(uint64_t seconds) { core_->setMaxStallTime(seconds); }
uint64_t QSOPlaybackEngine::stallRecoveryPlan() const { return core_->stallRecoveryPlan(); }
void QSOPlaybackEngine::setStallRecoveryPlan(uint64_t plan) { core_->setStallRecoveryPlan(plan); }
void QSOPlaybackEngine::setHostBundleIdentifier(const std::string& identifier) {
  core_->setHostBundleIdentifier(identifier);
}
void QSOPlaybackEngine::setUnrecordedHostBundleIdentifier(const std::string& identifier) {
  core_->setUnrecordedHostBundleIdentifier(identifier);
}

std::string_view QSOPlaybackEngine::descriptionForErrorCode(int64_t code) {
  return playbackDescriptionForErrorCode(code);
}

}  // namespace sonorell
