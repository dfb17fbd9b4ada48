// A unit of work on the object store: the entities inserted through it (by the metadata builder)
// are written together when it saves, audiobooks first so that chapters can point at their
// rows. Used under the persistence engine's mutex only; not synchronised itself.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "model/object_context.h"
#include "persistence/store_connection.h"
#include "persistence/store_entities.h"

namespace sonorell {

class QSOStoreContext : public QSOObjectContext {
 public:
  std::shared_ptr<QSOAudiobookInterface> insertNewAudiobook() override;
  std::shared_ptr<QSOChapterInterface> insertNewChapter() override;

  bool hasChanges() const { return !audiobooks_.empty() || !chapters_.empty(); }
  // Writes every inserted object in one transaction and gives each its row id; on failure
  // nothing is written and `error` says why. The context is empty afterwards either way.
  bool save(StoreConnection& connection, std::string* error);

  // The statements that write one entity, shared with the benchmark's plain-SQLite peer so both
  // sides do the same work.
  static const std::string& insertAudiobookSQL();
  static const std::string& insertChapterSQL();

 private:
  bool write(StoreConnection& connection, std::string* error);

  std::vector<std::shared_ptr<QSOAudiobook>> audiobooks_;
  std::vector<std::shared_ptr<QSOChapter>> chapters_;
};

}  // namespace sonorell
