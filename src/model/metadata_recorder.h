// What a metadata fetch does with the document it read: record the audiobook and its chapters
// (with their expected sizes). The download layer records them in the status database; the
// recorder is called on the HTTP client's queue, once per step, and must be safe from any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sonorell/chapter_description.h"
#include "sonorell/error.h"

namespace sonorell {

struct QSOChapterSize {
  QSOChapterDescription chapter;
  uint64_t expectedSize = 0;
};

class QSOMetadataRecorder {
 public:
  virtual ~QSOMetadataRecorder() = default;
  // Null when recorded; otherwise the error the fetch completes with.
  virtual ErrorPtr recordAudiobook(const std::string& audiobookID, uint64_t totalSize) = 0;
  virtual ErrorPtr recordChapters(const std::string& audiobookID,
                                  const std::vector<QSOChapterSize>& chapters) = 0;
};

}  // namespace sonorell
