// The download engine: the host's entry point for downloading audiobooks. Owned by QSOSonorell
// (reach it through QSOSonorell::sharedEngine()->downloadEngine()). Commands return at once and
// run in arrival order on the engine's input queue; queries answer on the caller's thread. What
// happens is reported through the notifications of sonorell/notifications.h, posted on the
// engine's notifications queue. Safe to call from any thread.
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

// The lock that serialises every change to one audiobook's download state ("<ID> state Lock").
// Not re-entrant. Usable with std::lock_guard / std::unique_lock.
class SONORELL_EXPORT QSOStateLock {
 public:
  explicit QSOStateLock(std::string name) : name_(std::move(name)) {}
  void lock() { mutex_.lock(); }
  void unlock() { mutex_.unlock(); }
  bool try_lock() { return mutex_.try_lock(); }
  const std::string& name() const { return name_; }

 private:
  std::mutex mutex_;
  const std::string name_;
};

class SONORELL_EXPORT QSODownloadEngine {
 public:
  // Made by QSOSonorell on the engine's services.
  explicit QSODownloadEngine(std::shared_ptr<const Services> services);
  ~QSODownloadEngine();
  QSODownloadEngine(const QSODownloadEngine&) = delete;
  QSODownloadEngine& operator=(const QSODownloadEngine&) = delete;

  // Validates, stores and starts the request. A request can be started once per run.
  void startDownloadWithRequest(const QSODownloadRequest& request);

  // Stops the request's transfers, resets its unfinished chapters and forgets it; posts
  // cancelled (16000), then paused.
  void pauseDownloadForRequestIdentifier(const std::string& requestIdentifier);
  void pauseAll();
  void pauseForAudiobookID(const std::string& audiobookID);

  // Stops and forgets the request and deletes the files of its unfinished chapters.
  void cancelDownloadForRequestIdentifier(const std::string& requestIdentifier);
  void cancelAll();
  void cancelForAudiobookID(const std::string& audiobookID);
  // Stops a single-chapter request for that chapter (a request covering more keeps running)
  // and resets the chapter.
  void cancelForAudiobookID(const std::string& audiobookID, uint64_t partNumber,
                            uint64_t chapterNumber);

  // Removes the audiobook's files, status records, progress and cached playlists.
  void deleteForAudiobookID(const std::string& audiobookID);
  void deleteForAudiobookID(const std::string& audiobookID, uint64_t partNumber,
                            uint64_t chapterNumber);
  void deleteAll();

  // Download status values (DownloadStatus); 0 when nothing is known.
  uint64_t statusForAudiobookID(const std::string& audiobookID, uint64_t partNumber,
                                uint64_t chapterNumber);
  uint64_t statusForAudiobookID(const std::string& audiobookID);
  // 0 to 100.
  float percentageForAudiobookID(const std::string& audiobookID, uint64_t partNumber,
                                 uint64_t chapterNumber);
  float percentageForAudiobookID(const std::string& audiobookID);

  // Status, percentage and bytes of the audiobook and, when `withChapters`, of each chapter.
  QSOAudiobookDownloadReport reportForAudiobookID(const std::string& audiobookID,
                                                  bool withChapters = true);
  std::vector<std::string> localAudiobookIDs();
  std::vector<std::string> localAudiobookIDsForStatus(uint64_t status);
  // The requests stored and not yet finished, failed, paused or cancelled.
  std::vector<QSODownloadRequest> currentDownloadRequests();

  // A host's completion handler for a transfer session ("QLSO_" + request identifier); called
  // once, on the main queue, when the session has delivered all its events.
  void addCompletionHandler(std::function<void()> handler, const std::string& sessionIdentifier);
  void callCompletionHandlerForSession(const std::string& sessionIdentifier);

  // Waits until every command called before this has run and the notifications it posted have
  // reached their observers. Not to be called from an observer or a completion handler.
  void waitUntilCommandsHaveRun();
  // Takes up the requests an earlier run left stored (run by start-up verification).
  void restartOldRequests();

  // The audiobook's state lock, made on first use and kept as long as the engine.
  std::shared_ptr<QSOStateLock> stateLockForAudiobookID(const std::string& audiobookID);

  // From now on commands run at once on the caller's thread.
  void disableDispatch();

  // The fixed description of a download failure code (10000 to 19000); never empty.
  static std::string_view descriptionForErrorCode(int64_t code);

  // The engine's internals, for the parts of the engine that work with it.
  const std::shared_ptr<DownloadEngineCore>& core() const { return core_; }

 private:
  const std::shared_ptr<DownloadEngineCore> core_;
};

}  // namespace sonorell
