// QSOStreamingURLManager: the one place that hands out chapters' streaming URLs. It answers from
// the cached playlist when it can, otherwise runs one QSOAudioStreamingTask at a time to obtain
// the playlist and then calls every handler waiting for that audiobook. Both maps and the decision
// to start, join or replace a task are guarded by mutex_ (recursive); handlers are called with it
// held, after they have been taken out of the map, so one that asks again is not lost.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "model/playlist_manager.h"
#include "platform/dispatch/operation_queue.h"
#include "sonorell/chapter_description.h"
#include "sonorell/error.h"

namespace sonorell {

class DownloadEngineCore;

class QSOStreamingURLManager : public std::enable_shared_from_this<QSOStreamingURLManager> {
 public:
  // Called once with an error and no URL, or no error and the URL (empty when the playlist has
  // no such chapter).
  using CompletionHandler = std::function<void(ErrorPtr error, std::optional<std::string> url)>;

  // Playlists are fetched through the engine's coalescing fetch and cached in its playlist
  // manager.
  static std::shared_ptr<QSOStreamingURLManager> create(std::weak_ptr<DownloadEngineCore> engine);
  // The manager of the process's engine; null until that engine has been made.
  static std::shared_ptr<QSOStreamingURLManager> sharedManager();
  static void setSharedManager(std::shared_ptr<QSOStreamingURLManager> manager);

  // The cached URL for a chapter file name, without any network work.
  std::optional<std::string> streamingURLForFilename(const std::string& filename);
  // Makes sure a URL is obtained; the handler, if any, is called once.
  void requestStreamingURLForFilename(const std::string& filename, const std::string& sessionKey,
                                      const std::string& licenseID, CompletionHandler handler);

 private:
  explicit QSOStreamingURLManager(std::weak_ptr<DownloadEngineCore> engine);
  // With mutex_ held.
  void createAndStartStreamingAudioTask(const QSOChapterDescription& chapter,
                                        const std::string& licenseID,
                                        const std::string& sessionKey);
  void taskCompleted(const std::string& audiobookID, const std::string& licenseID,
                     const std::optional<QSOPlaylist>& playlist, const ErrorPtr& error);

  const std::weak_ptr<DownloadEngineCore> engine_;
  const std::shared_ptr<QSOPlaylistManager> playlistManager_;
  const std::shared_ptr<OperationQueue> queue_;

  std::recursive_mutex mutex_;
  std::map<std::string, std::string> playlistIdentifiers_;  // audiobook ID → license ID
  // audiobook ID → (chapter text form → handler)
  std::map<std::string, std::map<std::string, CompletionHandler>> pendingHandlers_;
};

}  // namespace sonorell
