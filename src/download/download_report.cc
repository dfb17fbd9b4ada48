// QSODownloadEngine::reportForAudiobookID: the status records, with the progress tree's byte
// counts for chapters whose transfer is running, so a host can draw progress from one call.
#include "download/download_engine_core.h"
#include "download/progress_manager.h"
#include "persistence/audiobook_status.h"
#include "persistence/chapter_status.h"
#include "persistence/filesystem_helper.h"
#include "sonorell/download_engine.h"

namespace sonorell {

QSOAudiobookDownloadReport QSODownloadEngine::reportForAudiobookID(const std::string& audiobookID,
                                                                   bool withChapters) {
  QSOAudiobookDownloadReport report;
  report.audiobookID = audiobookID;
  auto record = QSOAudiobookStatus::fetchAudiobookStatusForAudiobookIdentifier(audiobookID);
  if (!record) return report;
  report.known = true;
  report.status = record->downloadStatus();
  report.totalSize = record->totalSize();
  report.percentage = core_->percentageForAudiobookID(audiobookID);
  auto progresses = QSOProgressManager::sharedManager();
  for (const auto& chapter : QSOChapterStatus::fetchAllSortedForAudiobookIdentifier(audiobookID)) {
    const auto& description = chapter->chapterDescription();
    QSOChapterDownloadReport line;
    line.partNumber = description.partNumber();
    line.chapterNumber = description.chapterNumber();
    line.status = chapter->downloadStatus();
    line.downloadedSize = chapter->downloadedSize();
    line.totalSize = chapter->totalSize();
    if (auto progress =
            progresses->progressForAudiobookID(audiobookID, line.partNumber, line.chapterNumber)) {
      const auto [done, total] = progress->work();
      if (total > 0) {
        line.downloadedSize = done;
        line.totalSize = total;
      }
    }
    report.downloadedSize += line.downloadedSize;
    if (!withChapters) continue;
    line.percentage =
        core_->percentageForAudiobookID(audiobookID, line.partNumber, line.chapterNumber);
    if (line.status == DownloadStatusDownloaded)
      line.file = FilesystemHelper::filePath(description);
    report.chapters.push_back(std::move(line));
  }
  return report;
}

}  // namespace sonorell
