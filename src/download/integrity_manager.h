// QSOIntegrityManager: how an audiobook's download status follows from its chapters (the rule
// the engine applies after every chapter change) and its downloaded size. Class operations only,
// no state; records are written through their own caches and the status database.
#pragma once

#include <memory>
#include <vector>

#include "persistence/audiobook_status.h"
#include "persistence/chapter_status.h"
#include "sonorell/download_request.h"

namespace sonorell {

class QSOIntegrityManager {
 public:
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
