/// The download engine: the host's entry point for downloading audiobooks. Owned by QSOSonorell
/// (reach it through QSOSonorell::sharedEngine()->downloadEngine()). Commands return at once and
/// run in arrival order on the engine's input queue; queries answer on the caller's thread. What
/// happens is reported through the notifications of sonorell/notifications.h, posted on the
/// engine's notifications queue. Safe to call from any thread.
/// @file
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "sonorell/download_report.h"
#include "sonorell/download_request.h"
#include "sonorell/export.h"

namespace sonorell {

struct Services;
class DownloadEngineCore;

/// The lock that serialises every change to one audiobook's download state ("<ID> state Lock").
/// Not re-entrant. Usable with std::lock_guard / std::unique_lock. The engine never posts a
/// notification or calls the host while it holds one, so an observer may take it.
class SONORELL_EXPORT QSOStateLock {
 public:
  /// A lock named for logs.
  explicit QSOStateLock(std::string name) : name_(std::move(name)) {}
  /// Blocks until the lock is free, then takes it.
  void lock() { mutex_.lock(); }
  /// Releases the lock; only its holder may call this.
  void unlock() { mutex_.unlock(); }
  /// Takes the lock if it is free; true when it did.
  bool try_lock() { return mutex_.try_lock(); }
  /// "<audiobook ID> state Lock".
  const std::string& name() const { return name_; }

 private:
  std::mutex mutex_;
  const std::string name_;
};

/// Downloads audiobooks: whole books, a book from a chapter to its end, or single chapters, as
/// background transfers that survive the process (a later run takes them up at launch).
///
/// Threads: every command (start, pause, cancel, delete) is queued and returns at once; commands
/// run one after the other, in call order, on the engine's input queue. Queries read the status
/// database on the caller's thread. Results arrive as notifications (sonorell/notifications.h)
/// on the engine's serial notifications queue, never on the caller's thread: for a request
/// QSOAudiobookDownloadStagedNotification, QSOChapterDownloadStagedNotification per chapter,
/// QSOAudiobookDownloadStartedNotification, then per chapter QSOChapterDownloadStartedNotification
/// and QSOChapterDownloadSuccessNotification (or ...FailedNotification), and at the end
/// QSOAudiobookDownloadSuccessNotification and QSODownloadRequestSuccessNotification (or the
/// failed ones, carrying an Error under QSOSonorellErrorUserInfoKey).
///
/// Ownership: QSOSonorell makes the one engine and keeps it for the life of the process; hosts
/// hold it through std::shared_ptr and never construct one.
class SONORELL_EXPORT QSODownloadEngine {
 public:
  /// Made by QSOSonorell on the engine's services.
  explicit QSODownloadEngine(std::shared_ptr<const Services> services);
  /// Destroyed with the facade that made it; hosts never delete one.
  ~QSODownloadEngine();
  QSODownloadEngine(const QSODownloadEngine&) = delete;
  QSODownloadEngine& operator=(const QSODownloadEngine&) = delete;

  /// Validates, stores and starts the request. A request can be started once per run. An
  /// invalid one (an empty audiobook ID, session key or license ID, an unknown download type, a
  /// request started before) ends at once with QSODownloadRequestFailedNotification and
  /// QSOAudiobookDownloadFailedNotification (code 11000); failures found later (metadata,
  /// playlist, transfers) end it the same way with their own codes.
  void startDownloadWithRequest(const QSODownloadRequest& request);

  /// Stops the request's transfers, resets its unfinished chapters and forgets it; posts
  /// cancelled (16000), then QSODownloadRequestPausedNotification. Finished chapters stay.
  void pauseDownloadForRequestIdentifier(const std::string& requestIdentifier);
  /// Pauses every stored request, as pauseDownloadForRequestIdentifier() does.
  void pauseAll();
  /// Stops and forgets the audiobook's requests and marks it partially downloaded (unless it is
  /// complete); posts QSOAudiobookDownloadCancelledNotification, then
  /// QSOAudiobookDownloadPausedNotification. Finished chapters stay.
  void pauseForAudiobookID(const std::string& audiobookID);

  /// Stops and forgets the request, resets the chapters it covers and deletes their files
  /// (QSOChapterDeleteSuccessNotification each); posts QSODownloadRequestCancelledNotification.
  void cancelDownloadForRequestIdentifier(const std::string& requestIdentifier);
  /// Cancels every stored request, as cancelDownloadForRequestIdentifier() does.
  void cancelAll();
  /// Stops and forgets the audiobook's requests, resets its chapters and removes its files;
  /// posts QSOAudiobookDownloadCancelledNotification and QSOAudiobookDeleteSuccessNotification.
  void cancelForAudiobookID(const std::string& audiobookID);
  /// Stops a single-chapter request for that chapter (a request covering more keeps running)
  /// and resets the chapter.
  void cancelForAudiobookID(const std::string& audiobookID, uint64_t partNumber,
                            uint64_t chapterNumber);

  /// Removes the audiobook's files, status records, progress and cached playlists.
  void deleteForAudiobookID(const std::string& audiobookID);
  /// Removes one chapter's file and resets its status record (a single-chapter request for it
  /// is stopped first).
  void deleteForAudiobookID(const std::string& audiobookID, uint64_t partNumber,
                            uint64_t chapterNumber);
  /// Removes every audiobook the engine knows, as deleteForAudiobookID() does.
  void deleteAll();

  /// Download status values (DownloadStatus); 0 when nothing is known.
  uint64_t statusForAudiobookID(const std::string& audiobookID, uint64_t partNumber,
                                uint64_t chapterNumber);
  /// The audiobook's DownloadStatus; 0 when nothing is known.
  uint64_t statusForAudiobookID(const std::string& audiobookID);
  /// 0 to 100.
  float percentageForAudiobookID(const std::string& audiobookID, uint64_t partNumber,
                                 uint64_t chapterNumber);
  /// The audiobook's progress, 0 to 100; live while its transfers run, so a host may poll it
  /// for a progress bar.
  float percentageForAudiobookID(const std::string& audiobookID);

  /// Status, percentage and bytes of the audiobook and, when `withChapters`, of each chapter.
  QSOAudiobookDownloadReport reportForAudiobookID(const std::string& audiobookID,
                                                  bool withChapters = true);
  /// The identifiers of every audiobook with a status record.
  std::vector<std::string> localAudiobookIDs();
  /// The identifiers of the audiobooks whose DownloadStatus is `status`.
  std::vector<std::string> localAudiobookIDsForStatus(uint64_t status);
  /// The requests stored and not yet finished, failed, paused or cancelled.
  std::vector<QSODownloadRequest> currentDownloadRequests();

  /// A host's completion handler for a transfer session ("QLSO_" + request identifier); called
  /// once, on the main queue, when the session has delivered all its events.
  void addCompletionHandler(std::function<void()> handler, const std::string& sessionIdentifier);
  /// Calls and forgets the session's completion handler, on the main queue; nothing when there
  /// is none.
  void callCompletionHandlerForSession(const std::string& sessionIdentifier);

  /// Waits until every command called before this has run and the notifications it posted have
  /// reached their observers. Not to be called from an observer or a completion handler.
  void waitUntilCommandsHaveRun();
  /// Takes up the requests an earlier run left stored (run by start-up verification).
  void restartOldRequests();

  /// The audiobook's state lock, made on first use and kept as long as the engine.
  std::shared_ptr<QSOStateLock> stateLockForAudiobookID(const std::string& audiobookID);

  /// From now on commands run at once on the caller's thread.
  void disableDispatch();

  /// The fixed description of a download failure code (10000 to 19000); never empty.
  static std::string_view descriptionForErrorCode(int64_t code);

  /// The engine's internals, for the parts of the engine that work with it.
  const std::shared_ptr<DownloadEngineCore>& core() const { return core_; }

 private:
  const std::shared_ptr<DownloadEngineCore> core_;
};

}  // namespace sonorell
