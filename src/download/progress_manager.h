// The process-wide registry of download progress trees: builds an audiobook's tree from its
// status records and finds roots (by audiobook ID) and chapter nodes (by chapter key). The map is
// touched only inside runSync: synchronously on the serial "io.sonorell.progress" queue, and
// always under mapMutex_, which alone guards it once dispatch is disabled.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "download/progress.h"
#include "platform/dispatch/dispatch_queue.h"

namespace sonorell {

class QSOProgressManager {
 public:
  static std::shared_ptr<QSOProgressManager> sharedManager();

  QSOProgressManager();
  QSOProgressManager(const QSOProgressManager&) = delete;
  QSOProgressManager& operator=(const QSOProgressManager&) = delete;

  // From now on every operation runs at once on the caller's thread, without the queue.
  void disableDispatch();

  // The audiobook's root, or null.
  QSOProgressPtr progressForAudiobookID(const std::string& audiobookID);
  // The audiobook's root, building the tree from the status records when there is none.
  QSOProgressPtr createProgressForAudiobookID(const std::string& audiobookID);
  // The chapter node kept under "ID_part_chapter", or null.
  QSOProgressPtr progressForAudiobookID(const std::string& audiobookID, uint64_t partNumber,
                                        uint64_t chapterNumber);
  // Drops the root and the key of every chapter the status records list; nothing without a root.
  void removeProgressForAudiobookID(const std::string& audiobookID);

 private:
  void runSync(const std::function<void()>& block);

  // Null once dispatch is disabled.
  std::atomic<std::shared_ptr<DispatchQueue>> progressQueue_;
  // Recursive because a block already inside runSync may call another operation.
  std::recursive_mutex mapMutex_;
  std::map<std::string, QSOProgressPtr> progresses_;  // guarded by mapMutex_
};

}  // namespace sonorell
