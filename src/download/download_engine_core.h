// The download engine itself, behind QSODownloadEngine: its queues and locks, the commands, and
// what the audio tasks and transfer delegates call back into. Commands run on the serial
// "io.sonorell.downloadengine.input" queue; the per-audiobook state locks are kept in a map
// touched only on "io.sonorell.downloadengine.concurrency"; the completion handlers are guarded
// by handlersMutex_. Tasks and delegates hold the core weakly.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "download/download_request_utilities.h"
#include "model/playlist.h"
#include "model/playlist_manager.h"
#include "model/task_synchronizer.h"
#include "persistence/chapter_status.h"
#include "platform/dispatch/dispatch_queue.h"
#include "platform/dispatch/operation_queue.h"
#include "platform/services.h"
#include "sonorell/download_engine.h"
#include "sonorell/download_request.h"

namespace sonorell {

class DownloadEngineCore : public std::enable_shared_from_this<DownloadEngineCore> {
 public:
  using MetadataCompletion = std::function<void(ErrorPtr)>;
  using PlaylistCompletion = std::function<void(std::optional<QSOPlaylist>, ErrorPtr)>;
  using TaskCompletion =
      std::function<void(ErrorPtr error, std::optional<QSOChapterDescription> chapter)>;

  explicit DownloadEngineCore(ServicesPtr services);

  const ServicesPtr& services() const { return services_; }
  const std::shared_ptr<QSOPlaylistManager>& playlistManager() const { return playlistManager_; }

  // Commands (QSODownloadEngine's), each logged, then run on the input queue.
  void startDownloadWithRequest(const QSODownloadRequest& request);
  void pauseDownloadForRequestIdentifier(const std::string& requestIdentifier);
  void pauseAll();
  void pauseForAudiobookID(const std::string& audiobookID);
  void cancelDownloadForRequestIdentifier(const std::string& requestIdentifier);
  void cancelAll();
  void cancelForAudiobookID(const std::string& audiobookID);
  void cancelForAudiobookID(const std::string& audiobookID, uint64_t part, uint64_t chapter);
  void deleteForAudiobookID(const std::string& audiobookID);
  void deleteForAudiobookID(const std::string& audiobookID, uint64_t part, uint64_t chapter);
  void deleteAll();

  // Queries, on the caller's thread.
  uint64_t statusForAudiobookID(const std::string& audiobookID, uint64_t part, uint64_t chapter);
  uint64_t statusForAudiobookID(const std::string& audiobookID);
  float percentageForAudiobookID(const std::string& audiobookID, uint64_t part, uint64_t chapter);
  float percentageForAudiobookID(const std::string& audiobookID);
  std::vector<std::string> localAudiobookIDs();

  void addCompletionHandler(std::function<void()> handler, const std::string& sessionIdentifier);
  void callCompletionHandlerForSession(const std::string& sessionIdentifier);
  // Restarts the stored requests, after dropping the transfer sessions none of them owns.
  void restartOldRequests();
  std::shared_ptr<QSOStateLock> stateLockForAudiobookID(const std::string& audiobookID);
  void disableDispatch();
  // Returns once the commands queued before the call have run.
  void waitForInputQueue();

  // For the audio tasks.
  void fetchAudiobookMetadataForID(const std::string& audiobookID, const std::string& sessionKey,
                                   MetadataCompletion completion);
  void fetchPlaylistForAudiobookID(const std::string& audiobookID, const std::string& licenseID,
                                   const std::string& sessionKey, PlaylistCompletion completion);
  void triggerStagedForAudiobookIdentifier(const std::string& audiobookID,
                                           const QSODownloadRequest& request);
  void triggerStagedForChapterDescription(const QSOChapterDescription& chapter,
                                          const QSODownloadRequest& request);
  // For the transfer delegates.
  void triggerStartForChapterDescription(const QSOChapterDescription& chapter,
                                         const QSODownloadRequest& request);
  void markChapterDownloadComplete(const QSOChapterDescription& chapter,
                                   const QSODownloadRequest& request);
  void taskFailedForRequest(const QSODownloadRequest& request,
                            const std::optional<QSOChapterDescription>& chapter,
                            const std::string& errorDescription, int64_t errorCode,
                            const ErrorPtr& error);
  void downloadCompleteForRequest(const QSODownloadRequest& request);

 private:
  void discardSessionsWithoutRequest(const std::vector<QSODownloadRequest>& requests);
  // Runs the command on the input queue (at once after disableDispatch) while the engine lives.
  void runOnInputQueue(std::function<void(DownloadEngineCore&)> command);
  void scheduleRequest(const QSODownloadRequest& request);
  void beginDownloadOperation(const QSODownloadRequest& request);
  void pauseRequest(const QSODownloadRequest& request);
  void cancelRequest(const QSODownloadRequest& request);
  void handleChapterFailure(const QSOChapterDescription& chapter, const QSODownloadRequest& request,
                            const std::string& errorDescription, int64_t errorCode,
                            const ErrorPtr& error);
  void cancelTaskForRequestIdentifier(const std::string& requestIdentifier);
  // The other queued requests for the book look at its chapters again: one may be waiting for
  // chapters this request fetched, or have to take up those it left.
  void otherRequestsLookAgain(const QSODownloadRequest& request);
  void cancelTasksForAudiobookID(const std::string& audiobookID);
  void cancelTasksForAudiobookID(const std::string& audiobookID, uint64_t part, uint64_t chapter);
  // With the audiobook's state lock held.
  void clearInProgressStateForChapters(const std::vector<QSOChapterStatusPtr>& chapters,
                                       const std::string& audiobookID);
  void resetAndDeleteForRequestIdentifier(const std::string& requestIdentifier);
  void resetAndDeleteForAudiobookID(const std::string& audiobookID);
  void resetAndDeleteForAudiobookID(const std::string& audiobookID, uint64_t part,
                                    uint64_t chapter);
  void deleteAudiobookNow(const std::string& audiobookID);
  // The queued download tasks whose request matches.
  std::vector<OperationPtr> operationsMatching(
      const std::function<bool(const QSODownloadRequest&)>& predicate) const;

  const ServicesPtr services_;
  const std::shared_ptr<QSOPlaylistManager> playlistManager_;
  const std::shared_ptr<TaskSynchronizer> synchronizer_;
  const std::shared_ptr<OperationQueue> downloadTaskQueue_;
  const DispatchQueuePtr lockQueue_;
  std::atomic<std::shared_ptr<DispatchQueue>> userInputQueue_;  // null once dispatch is disabled
  QSODownloadRequestValidator validator_;  // the run's request cache, under its own mutex

  std::map<std::string, std::shared_ptr<QSOStateLock>> sizeLocks_;  // lockQueue_ only
  std::mutex handlersMutex_;
  std::map<std::string, std::function<void()>> completionHandlers_;  // guarded by handlersMutex_
};

}  // namespace sonorell
