// The platform services the engines run on, in one object: the clock, the HTTP client, the
// transfer service, reachability, the file system, the audio session and the media player. The
// facade fills it with the real ones; a test builds its own, replacing one service or wrapping one
// to fail a single call. Immutable once built: share it freely between threads.
#pragma once

#include <memory>

#include "platform/dispatch/clock.h"
#include "platform/foundation/file_system.h"
#include "platform/media/audio_session.h"
#include "platform/media/queue_player.h"
#include "platform/net/http_client.h"
#include "platform/net/reachability.h"
#include "platform/net/transfer_service.h"

namespace sonorell {

struct Services {
  // Every "now" and delay of the engines. Dispatch timers run on Clock::current(): a test that
  // replaces this clock installs the same one there (ScopedVirtualClock).
  std::shared_ptr<Clock> clock;
  std::shared_ptr<HttpClient> http;
  std::shared_ptr<TransferService> transfers;
  std::shared_ptr<Reachability> reachability;
  std::shared_ptr<FileSystem> files;
  std::shared_ptr<AudioSession> audioSession;
  // Makes the playback engine's player: GStreamer for the process, the virtual one in tests.
  QueuePlayer::Factory players;

  // The real services of this process, made on first use (the transfer service then opens its
  // journal under the Library directory) and never destroyed.
  static std::shared_ptr<const Services> system();
  // A copy of system() for a test to change.
  static std::shared_ptr<Services> systemCopy();

  // Lets the sound server (PulseAudio, or PipeWire through pipewire-pulse) drive `session` for
  // the rest of the process: its route, route changes, suspensions and resets. Nothing happens
  // when no server answers or our audio does not go to one ($SONORELL_AUDIO_SINK names another
  // sink); the session then stays driven by its host. system() does this for its own session.
  static void watchSoundServer(const std::shared_ptr<AudioSession>& session);
};

using ServicesPtr = std::shared_ptr<const Services>;

}  // namespace sonorell
