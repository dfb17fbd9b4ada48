// QSOAAudioTask: one asynchronous operation that takes an audiobook from nothing known to audio
// under way: metadata stored, then a playlist at hand, then the subclass's audio step. Every step
// after start() runs on the task's serial "io.sonorell.audiotask.<ID>" queue. The completion is
// called at most once, under the task's own (recursive) lock, which subclasses also take before
// an audiobook's state lock. The engine is held weakly.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "model/playlist_manager.h"
#include "platform/dispatch/dispatch_queue.h"
#include "platform/dispatch/operation_queue.h"
#include "sonorell/chapter_description.h"
#include "sonorell/error.h"

namespace sonorell {

class DownloadEngineCore;

class QSOAAudioTask : public Operation {
 public:
  using Completion =
      std::function<void(ErrorPtr error, std::optional<QSOChapterDescription> chapter)>;

  QSOAAudioTask(std::string audiobookID, std::string licenseID, std::string sessionKey,
                Completion completion, std::weak_ptr<DownloadEngineCore> engine);

  const std::string& audiobookID() const { return audiobookID_; }
  const std::string& licenseID() const { return licenseID_; }

  bool isAsynchronous() const override { return true; }
  void start() override;
  void cancel() override;

  virtual bool checkForMetadata();
  void fetchMetadata();
  bool checkForPlaylist();
  // Fetches a playlist unless an unexpired one is held (or regardless, when asked), then runs
  // the audio step.
  void fetchPlaylist(bool evenIfHeld = false);
  // True when nothing is left to do. The base has no audio step.
  virtual bool checkForAudio();
  virtual void fetchAudio();

  // Finishes the operation, then calls the completion without an error.
  virtual void complete();
  // Calls the completion with the error, then finishes the operation.
  virtual void failedWithError(ErrorPtr error, std::optional<QSOChapterDescription> chapter);
  void callCompletion(ErrorPtr error, std::optional<QSOChapterDescription> chapter);

 protected:
  // Runs a step on the step queue with the task kept alive.
  void onStepQueue(std::function<void(QSOAAudioTask&)> step);
  void finishOperation();

  const std::string audiobookID_;
  const std::string licenseID_;
  const std::string sessionKey_;
  const std::weak_ptr<DownloadEngineCore> engine_;
  const std::shared_ptr<QSOPlaylistManager> playlistManager_;
  const DispatchQueuePtr stepQueue_;
  // The task's own lock: the completion, and subclasses' scheduling (before any state lock).
  std::recursive_mutex taskMutex_;

 private:
  Completion completion_;  // guarded by taskMutex_
};

}  // namespace sonorell
