#include "download/metadata_status_recorder.h"

#include "core/error_descriptions.h"
#include "core/logging.h"
#include "core/notification_poster.h"
#include "persistence/audiobook_status.h"
#include "persistence/chapter_status.h"
#include "sonorell/errors.h"
#include "sonorell/notifications.h"

namespace sonorell {

namespace {

// The error of the by-audiobook failure dictionary that a notification would carry.
ErrorPtr saveFailure(const std::string& audiobookID, int64_t code) {
  auto dict = QSONotificationPoster::prepareDictionaryWithAudiobookIdentifier(
      audiobookID, std::string(downloadDescriptionForErrorCode(code)), code, nullptr);
  auto it = dict.find(QSOSonorellErrorUserInfoKey);
  return it == dict.end() ? nullptr : it->second.asError();
}

}  // namespace

ErrorPtr QSOMetadataStatusRecorder::recordAudiobook(const std::string& audiobookID,
                                                    uint64_t totalSize) {
  auto status =
      std::make_shared<QSOAudiobookStatus>(audiobookID, DownloadStatusNotDownloaded, 0, totalSize);
  if (status->saveToDatabase()) return nullptr;
  LogEngineError(
      "[QSOAudiobookAPIFetch] Something went wrong with saving the QSOAudibookStatus, trying "
      "again");
  if (status->saveToDatabase()) {
    LogEngineVerbose(
        "[QSOAudiobookAPIFetch] Second attempt to save QSOAudiobookStatus was successfull");
    return nullptr;
  }
  LogEngineError(
      "[QSOAudiobookAPIFetch] Second attempt saving QSOAudiobookStatus was unsuccessfull");
  return saveFailure(audiobookID, 12005);
}

ErrorPtr QSOMetadataStatusRecorder::recordChapters(const std::string& audiobookID,
                                                   const std::vector<QSOChapterSize>& chapters) {
  std::vector<QSOChapterStatusPtr> statuses;
  statuses.reserve(chapters.size());
  for (const auto& [chapter, expectedSize] : chapters) {
    statuses.push_back(std::make_shared<QSOChapterStatus>(chapter, DownloadStatusNotDownloaded, 0,
                                                          expectedSize, ""));
  }
  if (QSOChapterStatus::saveToDatabase(statuses)) return nullptr;
  LogEngineError(
      "[QSOAudiobookAPIFetch] Something went wrong saving the QSOChapterStatus, trying again");
  if (QSOChapterStatus::saveToDatabase(statuses)) {
    LogEngineVerbose(
        "[QSOAudiobookAPIFetch] Second attempt saving QSOChapterStatus was successfull");
    return nullptr;
  }
  LogEngineVerbose(
      "[QSOAudiobookAPIFetch] Second attempt saving QSOChapterStatus was unsuccessful "
      "audiobookID: %@",
      audiobookID);
  return saveFailure(audiobookID, 12006);
}

}  // namespace sonorell
