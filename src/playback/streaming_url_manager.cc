#include "playback/streaming_url_manager.h"

#include "core/logging.h"
#include "download/download_engine_core.h"
#include "persistence/filesystem_helper.h"
#include "platform/dispatch/dispatch_queue.h"
#include "playback/audio_streaming_task.h"
#include "sonorell/errors.h"

namespace sonorell {

namespace {

std::mutex gSharedMutex;
std::shared_ptr<QSOStreamingURLManager> gShared;  // guarded by gSharedMutex

std::shared_ptr<QSOPlaylistManager> playlistManagerOf(
    const std::weak_ptr<DownloadEngineCore>& engine) {
  auto core = engine.lock();
  return core ? core->playlistManager() : QSOPlaylistManager::sharedManager();
}

// Cancelling runs here so that a caller asking for another audiobook is not held up.
const DispatchQueuePtr& cancellationQueue() {
  static const DispatchQueuePtr queue = DispatchQueue::create("io.sonorell.streamingurls.cancel");
  return queue;
}

}  // namespace

std::shared_ptr<QSOStreamingURLManager> QSOStreamingURLManager::create(
    std::weak_ptr<DownloadEngineCore> engine) {
  return std::shared_ptr<QSOStreamingURLManager>(new QSOStreamingURLManager(std::move(engine)));
}

QSOStreamingURLManager::QSOStreamingURLManager(std::weak_ptr<DownloadEngineCore> engine)
    : engine_(std::move(engine)),
      playlistManager_(playlistManagerOf(engine_)),
      queue_(OperationQueue::create("io.sonorell.streamingurls")) {}

std::shared_ptr<QSOStreamingURLManager> QSOStreamingURLManager::sharedManager() {
  std::lock_guard lock(gSharedMutex);
  return gShared;
}

void QSOStreamingURLManager::setSharedManager(std::shared_ptr<QSOStreamingURLManager> manager) {
  std::lock_guard lock(gSharedMutex);
  gShared = std::move(manager);
}

std::optional<std::string> QSOStreamingURLManager::streamingURLForFilename(
    const std::string& filename) {
  auto chapter = FilesystemHelper::chapterDescription(filename);
  if (!chapter) return std::nullopt;
  std::string identifier;
  {
    std::lock_guard lock(mutex_);
    auto it = playlistIdentifiers_.find(chapter->audiobookID());
    if (it == playlistIdentifiers_.end()) return std::nullopt;
    identifier = it->second;
  }
  auto playlist = playlistManager_->getPlaylistForIdentifier(identifier, false);
  if (!playlist) return std::nullopt;
  const QSOPlaylistItem* item = playlist->playlistItem(*chapter);
  if (!item) return std::nullopt;
  return item->url();
}

void QSOStreamingURLManager::requestStreamingURLForFilename(const std::string& filename,
                                                            const std::string& sessionKey,
                                                            const std::string& licenseID,
                                                            CompletionHandler handler) {
  LogEngineVerbose("[StreamingURLManager] request URL");
  auto chapter = FilesystemHelper::chapterDescription(filename);
  if (!chapter) {
    // Not a chapter file name: nothing could ever answer it.
    if (handler) {
      handler(Error::make(std::string(QSOErrorDomain),
                          static_cast<int64_t>(QSOPlaybackFailureCode::InvalidChapter),
                          "Not a chapter file name: " + filename, nullptr),
              std::nullopt);
    }
    return;
  }
  std::lock_guard lock(mutex_);
  if (handler) pendingHandlers_[chapter->audiobookID()][chapter->toString()] = std::move(handler);

  std::vector<OperationPtr> operations = queue_->operations();
  if (!operations.empty() && !operations.front()->isFinished()) {
    LogEngineVerbose("[StreamingURLManager] requests exist");
    auto running = std::dynamic_pointer_cast<QSOAudioStreamingTask>(operations.front());
    if (running && running->audiobookID() == chapter->audiobookID()) return;
    LogEngineVerbose("[StreamingURLManager] cancel old");
    // Only the tasks seen here: the one started below must survive the cancellation.
    cancellationQueue()->async([operations] {
      for (const auto& operation : operations) operation->cancel();
    });
    createAndStartStreamingAudioTask(*chapter, licenseID, sessionKey);
    return;
  }
  createAndStartStreamingAudioTask(*chapter, licenseID, sessionKey);
  LogEngineVerbose("[QSOStreamingURLManager] request to get URLs started");
}

void QSOStreamingURLManager::createAndStartStreamingAudioTask(const QSOChapterDescription& chapter,
                                                              const std::string& licenseID,
                                                              const std::string& sessionKey) {
  std::weak_ptr<QSOStreamingURLManager> weak = weak_from_this();
  const std::string audiobookID = chapter.audiobookID();
  auto task = std::make_shared<QSOAudioStreamingTask>(
      audiobookID, licenseID, sessionKey,
      [weak, audiobookID, licenseID](std::optional<QSOPlaylist> playlist, ErrorPtr error) {
        if (auto self = weak.lock()) self->taskCompleted(audiobookID, licenseID, playlist, error);
      },
      engine_);
  queue_->addOperation(task);
}

void QSOStreamingURLManager::taskCompleted(const std::string& audiobookID,
                                           const std::string& licenseID,
                                           const std::optional<QSOPlaylist>& playlist,
                                           const ErrorPtr& error) {
  LogEngineVerbose("[StreamingURLManager] audio task completion for %@", audiobookID);
  std::lock_guard lock(mutex_);
  if (playlist) playlistIdentifiers_[audiobookID] = licenseID;
  std::map<std::string, CompletionHandler> handlers;
  if (auto it = pendingHandlers_.find(audiobookID); it != pendingHandlers_.end()) {
    handlers = std::move(it->second);
    pendingHandlers_.erase(it);
  }
  if (handlers.empty()) {
    LogEngineVerbose("[StreamingURLManager] no completion handler to call");
    return;
  }
  for (auto& [chapterText, handler] : handlers) {
    std::optional<std::string> url;
    if (playlist) {
      if (auto chapter = QSOChapterDescription::initWithString(chapterText)) {
        if (const QSOPlaylistItem* item = playlist->playlistItem(*chapter)) url = item->url();
      }
    }
    LogEngineVerbose("[StreamingURLManager] calling url completion handler for %@", chapterText);
    handler(error, std::move(url));
  }
}

}  // namespace sonorell
