/// A snapshot of what the engine knows of one audiobook's download: status, percentage and bytes
/// for the book and each of its chapters, live while transfers run. Plain values, made on the
/// caller's thread by QSODownloadEngine::reportForAudiobookID.
/// @file
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace sonorell {

/// One chapter's part of a QSOAudiobookDownloadReport.
struct QSOChapterDownloadReport {
  uint64_t partNumber = 0;     ///< the chapter's part
  uint64_t chapterNumber = 0;  ///< the chapter's number within the part
  uint64_t status = 0;         ///< DownloadStatus
  float percentage = 0;        ///< 0 to 100
  /// Bytes received so far (the transfer's count while one runs).
  uint64_t downloadedSize = 0;
  uint64_t totalSize = 0;      ///< the chapter's size in bytes
  std::filesystem::path file;  ///< where the chapter lives once downloaded; empty before
};

/// What QSODownloadEngine::reportForAudiobookID() answers: one audiobook's download state. The
/// caller owns the copy; it does not change as the download goes on (ask again for news).
struct QSOAudiobookDownloadReport {
  std::string audiobookID;      ///< the audiobook asked about
  bool known = false;           ///< false: the engine has no record of this audiobook
  uint64_t status = 0;          ///< the audiobook's DownloadStatus
  float percentage = 0;         ///< 0 to 100
  uint64_t downloadedSize = 0;  ///< the chapters' bytes, summed
  uint64_t totalSize = 0;       ///< the audiobook's size as its metadata gives it
  std::vector<QSOChapterDownloadReport> chapters;  ///< in part, then chapter order
};

}  // namespace sonorell
