// The server's routes on httplib: metadata, playlists, chapter audio, blobs and analytics, each
// recording its request and applying the fault picked for it. Handlers run on httplib's worker
// threads; everything they share lives in ServerState, whose members guard themselves.
#pragma once

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "catalogue.h"
#include "fault_plan.h"
#include "file_versions.h"
#include "request_recorder.h"
#include "responder.h"

namespace sonorell::content {

struct ServerState {
  Catalogue catalogue;       // immutable while serving
  std::string baseURL;       // set before serving starts
  FaultPlan faults;          // self-guarded
  RequestRecorder recorder;  // self-guarded
  FileVersions versions;     // self-guarded
  StopSignal stop;           // self-guarded
  std::atomic<std::int64_t> playlistLifetimeSeconds{3600};
  std::atomic<std::uint64_t> playlistSequence{0};
};

// What a GET of an audio or blob path serves now.
struct ServedFile {
  std::uint64_t size = 0;
  std::string etag;
  std::string lastModified;
  // False when the bytes cannot be read (a chapter file gone bad): the answer is cut off.
  std::function<bool(std::uint64_t offset, char* out, std::size_t n)> read;
};

// None when the path names no audio chapter or blob.
std::optional<ServedFile> servedFile(const ServerState& state, std::string_view path);

void installRoutes(httplib::Server& server, ServerState& state);

}  // namespace sonorell::content
