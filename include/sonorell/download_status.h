/// Download status of a chapter or an audiobook, as stored and reported everywhere.
/// @file
#pragma once

#include <cstdint>

namespace sonorell {

/// The values of statusForAudiobookID(), of the `status` fields of download reports and of the
/// status records: where a chapter or an audiobook stands.
enum DownloadStatus : uint64_t {
  DownloadStatusNotDownloaded = 0,        ///< nothing on disk; where failures and repairs return
  DownloadStatusDownloading = 1,          ///< a transfer has started
  DownloadStatusPartiallyDownloaded = 2,  ///< audiobooks only: some chapters, none under way
  DownloadStatusDownloaded = 3,           ///< complete on disk
  DownloadStatusStaged = 4,               ///< transfer created, no bytes yet
};

}  // namespace sonorell
