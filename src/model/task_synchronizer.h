// Merges concurrent fetches of the same audiobook's metadata (keyed by audiobook) and of the
// same playlist (keyed by license): the first caller starts the one fetch, later callers wait
// for its outcome. Each key family is guarded by its own serial queue; completions are called
// after leaving it, so a completion may start a new request for the same key. Lives in a
// shared_ptr: a fetch in flight keeps it alive until its callers have heard the outcome.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "model/metadata_recorder.h"
#include "model/playlist.h"
#include "platform/dispatch/dispatch_queue.h"
#include "platform/net/http_client.h"
#include "sonorell/error.h"

namespace sonorell {

class TaskSynchronizer : public std::enable_shared_from_this<TaskSynchronizer> {
 public:
  using MetadataCompletion = std::function<void(ErrorPtr)>;
  using PlaylistCompletion = std::function<void(std::optional<QSOPlaylist>, ErrorPtr)>;

  // Fetches go through `http`; metadata documents are handed to `recorder`.
  TaskSynchronizer(std::shared_ptr<HttpClient> http, std::shared_ptr<QSOMetadataRecorder> recorder);

  void fetchAudiobookMetadata(const std::string& audiobookID, const std::string& sessionKey,
                              MetadataCompletion completion);
  void fetchPlaylistMetadata(const std::string& audiobookID, const std::string& licenseID,
                             const std::string& sessionKey, PlaylistCompletion completion);

  void runAudiobookCompletions(const std::string& audiobookID, const ErrorPtr& error);
  void runPlaylistCompletions(const std::string& playlistRequestIdentifier,
                              const std::optional<QSOPlaylist>& playlist, const ErrorPtr& error);

  // Equal for equal license identifiers.
  static std::string playlistRequestIdentifier(const std::string& licenseID);

 private:
  const std::shared_ptr<HttpClient> http_;
  const std::shared_ptr<QSOMetadataRecorder> recorder_;
  DispatchQueuePtr metadataQueue_;
  DispatchQueuePtr playlistQueue_;
  std::map<std::string, std::vector<MetadataCompletion>> metadataCallbacks_;  // metadataQueue_
  std::vector<std::string> liveMetadataRequests_;                             // metadataQueue_
  std::map<std::string, std::vector<PlaylistCompletion>> playlistCallbacks_;  // playlistQueue_
  std::vector<std::string> livePlaylistRequests_;                             // playlistQueue_
};

}  // namespace sonorell
