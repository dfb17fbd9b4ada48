/// The object store of audiobook metadata that a host adds to, queries page by page, counts and
/// empties ("PersistenceEngine.sqlite" in the support directory). Lookups hand out detached copies,
/// never stored objects. Every operation may be called from any thread: one mutex serialises use
/// of the store; set-up runs once, on the main queue, while other threads wait for it.
/// @file
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sonorell/audiobook.h"
#include "sonorell/export.h"
#include "sonorell/predicate.h"
#include "sonorell/value.h"

namespace sonorell {

/// The object store of audiobook metadata. A host adds the metadata documents it holds (the
/// download engine does not add what it fetches) and queries them with predicates
/// (sonorell/predicate.h). Results are detached copies the caller owns.
class SONORELL_EXPORT QSOPersistenceEngine {
 public:
  /// The process-wide store, created on first use and kept for the life of the process.
  static std::shared_ptr<QSOPersistenceEngine> sharedEngine();

  /// A store object of its own on the same file; hosts use sharedEngine().
  QSOPersistenceEngine();
  /// Lets go of this object's hold on the store.
  ~QSOPersistenceEngine();
  QSOPersistenceEngine(const QSOPersistenceEngine&) = delete;
  QSOPersistenceEngine& operator=(const QSOPersistenceEngine&) = delete;

  /// Opens the store (migrating it, or deleting and recreating it when its model cannot be
  /// migrated). Only the main thread builds it; called on any other thread this waits until the
  /// main queue has (asking the main queue to do it if nobody has yet). Later calls return at once.
  void setUpStore();
  /// Whether setUpStore() has finished.
  bool isInitialized() const;

  /// Adds the audiobook of a metadata document (the value of "audiobook"); nothing when an
  /// audiobook with the same "id" is stored already.
  void addAudiobook(const Dictionary& metadata);
  /// A detached copy, or null when no audiobook has that identifier.
  std::shared_ptr<QSOConcreteAudiobook> audiobookForID(const std::string& audiobookID);
  /// How many stored audiobooks have that identifier.
  uint64_t audiobookCountForID(const std::string& audiobookID);
  /// Page `page` (from 0) of the audiobooks matching `predicate` (all when empty) in the order of
  /// `sortDescriptors`, audiobooksPageSize() to a page. An invalid predicate or sort key is
  /// logged and gives an empty array.
  std::vector<std::shared_ptr<QSOConcreteAudiobook>> audiobooksForPredicate(
      const std::optional<QSOPredicate>& predicate,
      const std::vector<QSOSortDescriptor>& sortDescriptors, uint64_t page);
  /// How many audiobooks are stored.
  uint64_t audiobooksCount();
  /// How many stored audiobooks match `predicate` (all when empty); 0 for an invalid one.
  uint64_t audiobooksCountForPredicate(const std::optional<QSOPredicate>& predicate);
  /// The distinct identifiers, in the order the audiobooks were first added.
  std::vector<std::string> audiobookIDs();
  /// Removes the audiobook with that identifier and its chapters, if stored.
  void removeAudiobookForID(const std::string& audiobookID);
  /// Removes every audiobook.
  void removeAllAudiobooks();
  /// Removes the store file; the engine goes on with a new, empty store.
  void deletePersistentStore();

  /// 0 (the initial value) means no limit: every match is on page 0, as an unlimited fetch.
  uint64_t audiobooksPageSize() const;
  /// Sets audiobooksPageSize(); 0 for no limit.
  void setAudiobooksPageSize(uint64_t pageSize);

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace sonorell
