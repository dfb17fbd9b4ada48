// The playlists fetched so far, by identifier, so that tasks and the player reuse them until
// they expire. The map is touched only on the manager's serial queue, synchronously.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "model/playlist.h"
#include "platform/dispatch/dispatch_queue.h"

namespace sonorell {

class QSOPlaylistManager {
 public:
  static std::shared_ptr<QSOPlaylistManager> sharedManager();
  QSOPlaylistManager();

  void addPlaylist(const QSOPlaylist& playlist, const std::string& identifier);
  void removePlaylistForIdentifier(const std::string& identifier);
  // An expired playlist (now at or after its expiry, by the engine's clock) is hidden unless
  // expired ones are permitted; it stays cached either way.
  std::optional<QSOPlaylist> getPlaylistForIdentifier(const std::string& identifier,
                                                      bool expiredPermitted);

 private:
  DispatchQueuePtr queue_;
  std::map<std::string, QSOPlaylist> playlists_;  // queue_ only
};

}  // namespace sonorell
