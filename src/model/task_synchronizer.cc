#include "model/task_synchronizer.h"

#include <algorithm>
#include <cstdio>

#include "model/audiobook_api_fetch.h"
#include "model/playlist_api_fetch.h"

namespace sonorell {

TaskSynchronizer::TaskSynchronizer(std::shared_ptr<HttpClient> http,
                                   std::shared_ptr<QSOMetadataRecorder> recorder)
    : http_(std::move(http)),
      recorder_(std::move(recorder)),
      metadataQueue_(DispatchQueue::create("io.sonorell.sdk.metadata")),
      playlistQueue_(DispatchQueue::create("io.sonorell.sdk.playlist")) {}

std::string TaskSynchronizer::playlistRequestIdentifier(const std::string& licenseID) {
  return "playlist-" + licenseID;
}

void TaskSynchronizer::fetchAudiobookMetadata(const std::string& audiobookID,
                                              const std::string& sessionKey,
                                              MetadataCompletion completion) {
  bool start = false;
  metadataQueue_->sync([&] {
    metadataCallbacks_[audiobookID].push_back(std::move(completion));
    if (std::find(liveMetadataRequests_.begin(), liveMetadataRequests_.end(), audiobookID) ==
        liveMetadataRequests_.end()) {
      liveMetadataRequests_.push_back(audiobookID);
      start = true;
    }
  });
  if (!start) return;  // the fetch in flight answers this caller too
  auto fetch = std::make_shared<QSOAudiobookAPIFetch>(sessionKey, http_, recorder_);
  // Held until the fetch ends (it times out): its waiting callers must hear the outcome.
  fetch->fetchAudiobook(audiobookID, [self = shared_from_this(), audiobookID](ErrorPtr error) {
    self->runAudiobookCompletions(audiobookID, error);
  });
}

void TaskSynchronizer::runAudiobookCompletions(const std::string& audiobookID,
                                               const ErrorPtr& error) {
  std::vector<MetadataCompletion> waiting;
  metadataQueue_->sync([&] {
    auto it = metadataCallbacks_.find(audiobookID);
    if (it != metadataCallbacks_.end()) {
      waiting = std::move(it->second);
      metadataCallbacks_.erase(it);
    }
    std::erase(liveMetadataRequests_, audiobookID);
  });
  std::printf("metadata callbacks for %s %zu\n", audiobookID.c_str(), waiting.size());
  for (auto& completion : waiting) {
    if (!completion) {
      std::printf("Metadata callback not of expeceted type\n");
      continue;
    }
    completion(error);
  }
}

void TaskSynchronizer::fetchPlaylistMetadata(const std::string& audiobookID,
                                             const std::string& licenseID,
                                             const std::string& sessionKey,
                                             PlaylistCompletion completion) {
  const std::string key = playlistRequestIdentifier(licenseID);
  bool start = false;
  playlistQueue_->sync([&] {
    playlistCallbacks_[key].push_back(std::move(completion));
    if (std::find(livePlaylistRequests_.begin(), livePlaylistRequests_.end(), key) ==
        livePlaylistRequests_.end()) {
      livePlaylistRequests_.push_back(key);
      start = true;
    }
  });
  if (!start) return;
  QSOPlaylistAPIFetch::fetchPlaylist(
      *http_, audiobookID, licenseID, sessionKey,
      [self = shared_from_this(), key](std::optional<QSOPlaylist> playlist, ErrorPtr error) {
        self->runPlaylistCompletions(key, playlist, error);
      });
}

void TaskSynchronizer::runPlaylistCompletions(const std::string& playlistRequestIdentifier,
                                              const std::optional<QSOPlaylist>& playlist,
                                              const ErrorPtr& error) {
  std::vector<PlaylistCompletion> waiting;
  playlistQueue_->sync([&] {
    auto it = playlistCallbacks_.find(playlistRequestIdentifier);
    if (it != playlistCallbacks_.end()) {
      waiting = std::move(it->second);
      playlistCallbacks_.erase(it);
    }
    std::erase(livePlaylistRequests_, playlistRequestIdentifier);
  });
  std::printf("playlist callbacks for %s %zu\n", playlistRequestIdentifier.c_str(), waiting.size());
  for (auto& completion : waiting) {
    if (!completion) {
      std::printf("Playlist callback not of expeceted type\n");
      continue;
    }
    completion(playlist, error);
  }
}

}  // namespace sonorell
