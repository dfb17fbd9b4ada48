// Records what a metadata fetch read as download status records: the audiobook and one chapter
// record per chapter, all not downloaded, each save retried once. Stateless: the status database
// serialises the writes.
#pragma once

#include "model/metadata_recorder.h"

namespace sonorell {

class QSOMetadataStatusRecorder final : public QSOMetadataRecorder {
 public:
  ErrorPtr recordAudiobook(const std::string& audiobookID, uint64_t totalSize) override;
  ErrorPtr recordChapters(const std::string& audiobookID,
                          const std::vector<QSOChapterSize>& chapters) override;
};

}  // namespace sonorell
