#include "playback/audio_streaming_task.h"

#include "core/logging.h"

namespace sonorell {

QSOAudioStreamingTask::QSOAudioStreamingTask(std::string audiobookID, std::string licenseID,
                                             std::string sessionKey, StreamingCompletion completion,
                                             std::weak_ptr<DownloadEngineCore> engine)
    : QSOAAudioTask(std::move(audiobookID), std::move(licenseID), std::move(sessionKey), nullptr,
                    std::move(engine)),
      streamingCompletion_(std::move(completion)) {}

bool QSOAudioStreamingTask::checkForMetadata() {
  LogEngineVerbose("[AudioTask] -(BOOL)checkForMetadata");
  LogEngineVerbose("[AudioTask] -(%@)checkForMetadata", "YES");
  return true;
}

void QSOAudioStreamingTask::fetchAudio() { complete(); }

void QSOAudioStreamingTask::complete() {
  QSOAAudioTask::complete();
  callStreamingCompletion(playlistManager_->getPlaylistForIdentifier(licenseID_, false), nullptr);
}

void QSOAudioStreamingTask::failedWithError(ErrorPtr error,
                                            std::optional<QSOChapterDescription> chapter) {
  // The base finishes the operation first, so a request arriving while the handlers are called
  // starts a new task instead of joining one that will never answer it.
  QSOAAudioTask::failedWithError(error, std::move(chapter));
  callStreamingCompletion(std::nullopt, std::move(error));
}

void QSOAudioStreamingTask::callStreamingCompletion(std::optional<QSOPlaylist> playlist,
                                                    ErrorPtr error) {
  std::lock_guard lock(taskMutex_);
  // A cancelled task answers nobody: its handlers wait for the next task of their audiobook.
  if (!streamingCompletion_ || isCancelled()) return;
  auto completion = std::move(streamingCompletion_);
  streamingCompletion_ = nullptr;
  completion(std::move(playlist), std::move(error));
}

}  // namespace sonorell
