// QSOIntegrityManager: makes the status database agree with the files on disk and the stored
// requests (once at start-up, on a background queue, before stored requests are taken up again),
// and holds the rule by which an audiobook's status follows from its chapters. Class operations
// only, no state; records are written through their own caches and the status database.
#pragma once

#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "persistence/audiobook_status.h"
#include "persistence/chapter_status.h"
#include "sonorell/download_request.h"

namespace sonorell {

class DownloadEngineCore;

class QSOIntegrityManager {
 public:
  // Starts verification in the background and returns at once: repairs every audiobook and
  // chapter, removes orphaned files, has the engine restart stored requests, then posts
  // QSODatabaseVerificationCompleteNotification.
  static void verifyDatabase(std::shared_ptr<DownloadEngineCore> engine);
  // The same steps on the calling thread.
  static void verifyDatabaseNow(const std::shared_ptr<DownloadEngineCore>& engine);
  // Paths of the chapter files below the audio directory, relative to it ("<ID>/<file>").
  static std::vector<std::string> audioFilesOnDisk();
  static void removeOrphanedFiles(const std::vector<std::string>& files);
  static void verifyAudiobookStatus(QSOAudiobookStatus& audiobook, bool inProgress,
                                    const std::unordered_set<std::string>& filesOnDisk,
                                    const std::vector<QSODownloadRequest>& currentRequests);
  // One chapter against the disk and every stored request.
  static void verifyChapterStatus(QSOChapterStatus& chapter);
  static void verifyChapterStatus(QSOChapterStatus& chapter, bool existsOnDisk, bool inProgress);

  // True when a stored request names the audiobook.
  static bool audiobookInProgress(const QSOAudiobookStatus& audiobook);
  // True when one of the requests covers the chapter.
  static bool chapterInProgress(const QSOChapterStatus& chapter,
                                const std::vector<QSODownloadRequest>& requests);

  // 0 when no chapter is downloaded (or there are none), 3 when all are, otherwise 1 if a
  // download may be in progress and the book is 1 already, else 2. Always written; an audit
  // notification is posted on a change when asked.
  static void getNewStatusForAudiobook(QSOAudiobookStatus& audiobook);
  static void getNewStatusForAudiobook(QSOAudiobookStatus& audiobook, bool notifyIfChanged);
  static void getNewStatusForAudiobookInProgressPossible(QSOAudiobookStatus& audiobook,
                                                         bool inProgressPossible);
  static void getNewStatusForAudiobook(QSOAudiobookStatus& audiobook, bool inProgressPossible,
                                       bool notifyIfChanged);
  // The sum of the downloaded chapters' sizes, written.
  static void getNewDownloadedSizeForAudiobook(QSOAudiobookStatus& audiobook);
};

}  // namespace sonorell
