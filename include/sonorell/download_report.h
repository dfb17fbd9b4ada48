// A snapshot of what the engine knows of one audiobook's download: status, percentage and bytes
// for the book and each of its chapters, live while transfers run. Plain values, made on the
// caller's thread by QSODownloadEngine::reportForAudiobookID.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace sonorell {

struct QSOChapterDownloadReport {
  uint64_t partNumber = 0;
  uint64_t chapterNumber = 0;
  uint64_t status = 0;   // DownloadStatus
  float percentage = 0;  // 0 to 100
  // Bytes received so far (the transfer's count while one runs) and the chapter's size.
  uint64_t downloadedSize = 0;
  uint64_t totalSize = 0;
  std::filesystem::path file;  // where the chapter lives once downloaded; empty before
};

struct QSOAudiobookDownloadReport {
  std::string audiobookID;
  bool known = false;  // false: the engine has no record of this audiobook
  uint64_t status = 0;
  float percentage = 0;
  uint64_t downloadedSize = 0;                     // the chapters' bytes, summed
  uint64_t totalSize = 0;                          // the audiobook's size as its metadata gives it
  std::vector<QSOChapterDownloadReport> chapters;  // in part, then chapter order
};

}  // namespace sonorell
