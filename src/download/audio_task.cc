#include "download/audio_task.h"

#include "core/logging.h"
#include "download/download_engine_core.h"
#include "persistence/audiobook_status.h"

namespace sonorell {

namespace {

std::shared_ptr<QSOPlaylistManager> managerOf(const std::weak_ptr<DownloadEngineCore>& engine) {
  auto core = engine.lock();
  return core ? core->playlistManager() : QSOPlaylistManager::sharedManager();
}

}  // namespace

QSOAAudioTask::QSOAAudioTask(std::string audiobookID, std::string licenseID, std::string sessionKey,
                             Completion completion, std::weak_ptr<DownloadEngineCore> engine)
    : audiobookID_(std::move(audiobookID)),
      licenseID_(std::move(licenseID)),
      sessionKey_(std::move(sessionKey)),
      engine_(std::move(engine)),
      playlistManager_(managerOf(engine_)),
      stepQueue_(DispatchQueue::create("io.sonorell.audiotask." + audiobookID_)),
      completion_(std::move(completion)) {}

void QSOAAudioTask::onStepQueue(std::function<void(QSOAAudioTask&)> step) {
  auto self = std::static_pointer_cast<QSOAAudioTask>(shared_from_this());
  stepQueue_->async([self, step = std::move(step)] { step(*self); });
}

void QSOAAudioTask::start() {
  if (isCancelled() || isFinished()) {  // cancelled while it waited on the queue
    finishOperation();
    return;
  }
  LogEngineVerbose("[AudioTask] start");
  setExecuting(true);
  onStepQueue([](QSOAAudioTask& task) { task.fetchMetadata(); });
}

void QSOAAudioTask::cancel() {
  Operation::cancel();
  complete();
}

bool QSOAAudioTask::checkForMetadata() {
  LogEngineVerbose("[AudioTask] -(BOOL)checkForMetadata");
  const bool present =
      QSOAudiobookStatus::fetchAudiobookStatusForAudiobookIdentifier(audiobookID_) != nullptr;
  LogEngineVerbose("[AudioTask] -(%@)checkForMetadata", present ? "YES" : "NO");
  return present;
}

void QSOAAudioTask::fetchMetadata() {
  if (isCancelled()) return;
  if (checkForMetadata()) {
    fetchPlaylist();
    return;
  }
  LogEngineVerbose("[AudioTask] -(void)fetchMetadata");
  auto engine = engine_.lock();
  if (!engine) return;
  auto self = std::static_pointer_cast<QSOAAudioTask>(shared_from_this());
  engine->fetchAudiobookMetadataForID(audiobookID_, sessionKey_, [self](ErrorPtr error) {
    if (error) {
      self->failedWithError(std::move(error), std::nullopt);
      return;
    }
    self->onStepQueue([](QSOAAudioTask& task) { task.fetchPlaylist(); });
  });
}

bool QSOAAudioTask::checkForPlaylist() {
  LogEngineVerbose("[AudioTask] -(BOOL)checkForPlaylist");
  const bool present = playlistManager_->getPlaylistForIdentifier(licenseID_, false).has_value();
  LogEngineVerbose("[AudioTask] -(%@)checkForPlaylist", present ? "YES" : "NO");
  return present;
}

void QSOAAudioTask::fetchPlaylist(bool evenIfHeld) {
  if (isCancelled()) return;
  if (!evenIfHeld && checkForPlaylist()) {
    fetchAudio();
    return;
  }
  LogEngineVerbose("[AudioTask] fetchPlaylist");
  auto engine = engine_.lock();
  if (!engine) return;
  auto self = std::static_pointer_cast<QSOAAudioTask>(shared_from_this());
  engine->fetchPlaylistForAudiobookID(
      audiobookID_, licenseID_, sessionKey_,
      [self](std::optional<QSOPlaylist> playlist, ErrorPtr error) {
        if (error || !playlist) {
          self->failedWithError(std::move(error), std::nullopt);
          return;
        }
        self->playlistManager_->addPlaylist(*playlist, self->licenseID_);
        self->onStepQueue([](QSOAAudioTask& task) { task.fetchAudio(); });
      });
}

bool QSOAAudioTask::checkForAudio() {
  LogEngineError("[AudioTask] Failure to override abstract method");
  return false;
}

void QSOAAudioTask::fetchAudio() {
  LogEngineError("[AudioTask] Failure to override abstract method");
}

void QSOAAudioTask::finishOperation() {
  if (isFinished()) return;
  setExecuting(false);
  setFinished(true);
}

void QSOAAudioTask::complete() {
  LogEngineVerbose("[AudioTask] Complete");
  finishOperation();
  callCompletion(nullptr, std::nullopt);
}

void QSOAAudioTask::failedWithError(ErrorPtr error, std::optional<QSOChapterDescription> chapter) {
  LogEngineError("[AudioTask] failed with error: %@", error);
  callCompletion(std::move(error), std::move(chapter));
  finishOperation();
}

void QSOAAudioTask::callCompletion(ErrorPtr error, std::optional<QSOChapterDescription> chapter) {
  std::lock_guard lock(taskMutex_);
  if (!completion_ || isCancelled()) return;
  // Cleared before the call: the completion may cancel this very task.
  auto completion = std::move(completion_);
  completion_ = nullptr;
  completion(std::move(error), std::move(chapter));
}

}  // namespace sonorell
