#include "download/progress_manager.h"

#include <vector>

#include "core/logging.h"
#include "persistence/audiobook_status.h"
#include "persistence/chapter_status.h"
#include "platform/foundation/format.h"

namespace sonorell {

namespace {

std::string chapterKey(const std::string& audiobookID, uint64_t partNumber,
                       uint64_t chapterNumber) {
  return stringWithFormat("%@_%lu_%lu", audiobookID, partNumber, chapterNumber);
}

uint64_t saturatingAdd(uint64_t a, uint64_t b) { return a > UINT64_MAX - b ? UINT64_MAX : a + b; }

}  // namespace

QSOProgressManager::QSOProgressManager()
    : progressQueue_(DispatchQueue::create("io.sonorell.progress")) {}

std::shared_ptr<QSOProgressManager> QSOProgressManager::sharedManager() {
  static std::once_flag once;
  // Never destroyed: queued work may still reach it while the process exits.
  static std::shared_ptr<QSOProgressManager>& manager = *new std::shared_ptr<QSOProgressManager>();
  std::call_once(once, [] { manager = std::make_shared<QSOProgressManager>(); });
  return manager;
}

void QSOProgressManager::disableDispatch() { progressQueue_.store(nullptr); }

void QSOProgressManager::runSync(const std::function<void()>& block) {
  auto locked = [&] {
    std::lock_guard lock(mapMutex_);
    block();
  };
  if (auto queue = progressQueue_.load()) {
    queue->sync(locked);
  } else {
    locked();
  }
}

QSOProgressPtr QSOProgressManager::progressForAudiobookID(const std::string& audiobookID) {
  QSOProgressPtr found;
  runSync([&] {
    auto it = progresses_.find(audiobookID);
    if (it != progresses_.end()) found = it->second;
  });
  return found;
}

QSOProgressPtr QSOProgressManager::progressForAudiobookID(const std::string& audiobookID,
                                                          uint64_t partNumber,
                                                          uint64_t chapterNumber) {
  QSOProgressPtr found;
  std::string key = chapterKey(audiobookID, partNumber, chapterNumber);
  runSync([&] {
    auto it = progresses_.find(key);
    if (it != progresses_.end()) found = it->second;
  });
  return found;
}

QSOProgressPtr QSOProgressManager::createProgressForAudiobookID(const std::string& audiobookID) {
  QSOProgressPtr root;
  runSync([&] {
    if (auto it = progresses_.find(audiobookID); it != progresses_.end()) {
      root = it->second;
      return;
    }
    auto audiobook = QSOAudiobookStatus::fetchAudiobookStatusForAudiobookIdentifier(audiobookID);
    auto chapters = QSOChapterStatus::fetchAllForAudiobookIdentifier(audiobookID);
    // An audiobook without a status record has nothing to weigh against: every chapter then
    // counts 0, as a root of total 0 gives its children no share.
    const uint64_t audiobookTotal = audiobook ? audiobook->totalSize() : 0;
    root = std::make_shared<QSOProgress>(0, audiobookTotal);
    LogEngineInfo("Create progress for %@ with %u children, %@", audiobookID, chapters.size(),
                  root);

    // The last chapter takes the audiobook's total less the other chapters' totals, so the
    // weights add up to the audiobook's total whether the chapters' sizes fall short of it or
    // exceed it. When the other chapters alone exceed it the weight would be negative; it is
    // clamped to 0 (that chapter then adds nothing) instead of wrapping around to a huge weight.
    uint64_t othersTotal = 0;
    for (size_t i = 0; i < chapters.size(); ++i) {
      const auto& chapter = chapters[i];
      auto child = std::make_shared<QSOProgress>(chapter->downloadedSize(), chapter->totalSize());
      uint64_t work = chapter->totalSize();
      if (i + 1 == chapters.size()) {
        work = audiobookTotal > othersTotal ? audiobookTotal - othersTotal : 0;
      } else {
        othersTotal = saturatingAdd(othersTotal, chapter->totalSize());
      }
      root->assignChild(child, work);
      const auto& description = chapter->chapterDescription();
      std::string key =
          chapterKey(audiobookID, description.partNumber(), description.chapterNumber());
      LogEngineVerbose("Create progress for %@ %@", key, child);
      progresses_[key] = child;
    }
    progresses_[audiobookID] = root;
  });
  return root;
}

void QSOProgressManager::removeProgressForAudiobookID(const std::string& audiobookID) {
  runSync([&] {
    if (progresses_.find(audiobookID) == progresses_.end()) return;
    for (const auto& chapter : QSOChapterStatus::fetchAllForAudiobookIdentifier(audiobookID)) {
      const auto& description = chapter->chapterDescription();
      progresses_.erase(
          chapterKey(audiobookID, description.partNumber(), description.chapterNumber()));
    }
    progresses_.erase(audiobookID);
  });
}

}  // namespace sonorell
