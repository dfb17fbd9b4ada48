// QSOAudioStreamingTask: the audio task that only makes sure a playlist is at hand for streaming.
// It never fetches metadata and downloads nothing; its own completion receives the playlist the
// playlist manager now holds, or the error. Runs on the base task's step queue; the completion is
// guarded by the base task's lock and skipped once the task is cancelled.
#pragma once

#include <functional>
#include <optional>

#include "download/audio_task.h"
#include "model/playlist.h"

namespace sonorell {

class QSOAudioStreamingTask : public QSOAAudioTask {
 public:
  using StreamingCompletion = std::function<void(std::optional<QSOPlaylist> playlist, ErrorPtr)>;

  QSOAudioStreamingTask(std::string audiobookID, std::string licenseID, std::string sessionKey,
                        StreamingCompletion completion, std::weak_ptr<DownloadEngineCore> engine);

  bool checkForMetadata() override;
  void fetchAudio() override;
  void complete() override;
  void failedWithError(ErrorPtr error, std::optional<QSOChapterDescription> chapter) override;

 private:
  void callStreamingCompletion(std::optional<QSOPlaylist> playlist, ErrorPtr error);

  StreamingCompletion streamingCompletion_;  // guarded by taskMutex_
};

}  // namespace sonorell
