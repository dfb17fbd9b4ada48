// Where the metadata builder creates records: the object store's context inserts store entities
// ("QSOAudiobook", "QSOChapter") that are written when it saves; QSODetachedContext makes plain
// detached records for callers that want a record without a store. A context is used by one
// thread at a time (its owner's); it is not synchronised.
#pragma once

#include <memory>

#include "sonorell/audiobook.h"

namespace sonorell {

class QSOObjectContext {
 public:
  virtual ~QSOObjectContext() = default;
  // A new record of the entity "QSOAudiobook", owned by the context until it saves.
  virtual std::shared_ptr<QSOAudiobookInterface> insertNewAudiobook() = 0;
  // A new record of the entity "QSOChapter".
  virtual std::shared_ptr<QSOChapterInterface> insertNewChapter() = 0;
};

// Makes QSOConcreteAudiobook and QSOConcreteChapter records and keeps nothing.
class QSODetachedContext : public QSOObjectContext {
 public:
  std::shared_ptr<QSOAudiobookInterface> insertNewAudiobook() override {
    return std::make_shared<QSOConcreteAudiobook>();
  }
  std::shared_ptr<QSOChapterInterface> insertNewChapter() override {
    return std::make_shared<QSOConcreteChapter>();
  }
};

}  // namespace sonorell
