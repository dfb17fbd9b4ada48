#include "model/playlist_manager.h"

#include "core/logging.h"
#include "platform/dispatch/clock.h"

namespace sonorell {

std::shared_ptr<QSOPlaylistManager> QSOPlaylistManager::sharedManager() {
  // Never destroyed: work still running at exit may use it.
  static const auto* manager =
      new std::shared_ptr<QSOPlaylistManager>(std::make_shared<QSOPlaylistManager>());
  return *manager;
}

QSOPlaylistManager::QSOPlaylistManager() : queue_(DispatchQueue::create("io.sonorell.playlist")) {}

void QSOPlaylistManager::addPlaylist(const QSOPlaylist& playlist, const std::string& identifier) {
  LogEngineVerbose("[QSOPlaylistManager] addPlaylist: %@ forIdentifier: %@",
                   playlist.playlistToken(), identifier);
  queue_->sync([&] { playlists_.insert_or_assign(identifier, playlist); });
}

void QSOPlaylistManager::removePlaylistForIdentifier(const std::string& identifier) {
  LogEngineVerbose("[QSOPlaylistManager] removePlaylistForIdentifier: %@", identifier);
  queue_->sync([&] { playlists_.erase(identifier); });
}

std::optional<QSOPlaylist> QSOPlaylistManager::getPlaylistForIdentifier(
    const std::string& identifier, bool expiredPermitted) {
  LogEngineVerbose("[QSOPlaylistManager] getPlaylistForIdentifier: %@ expiredPermitted: %@",
                   identifier, expiredPermitted ? "YES" : "NO");
  std::optional<QSOPlaylist> found;
  queue_->sync([&] {
    auto it = playlists_.find(identifier);
    if (it != playlists_.end()) found = it->second;
  });
  if (found && !expiredPermitted) {
    auto now = std::chrono::duration_cast<std::chrono::seconds>(
        Clock::current()->wallNow().time_since_epoch());
    auto expires =
        std::chrono::duration_cast<std::chrono::seconds>(found->expires().time_since_epoch());
    if (now >= expires) return std::nullopt;
  }
  return found;
}

}  // namespace sonorell
