#include "platform/services.h"

#include <cstdlib>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

#include "platform/media/gst/gst_queue_player.h"
#include "platform/media/pulse/pulse_session_monitor.h"

namespace sonorell {

namespace {

// The sound server decides the route only when our audio goes to it: by default (autoaudiosink
// picks PulseAudio when a server runs) or when the configured sink is a pulsesink. Audio sent to
// a fakesink or an ALSA device has no business pausing when the desktop's headphones are pulled.
bool playsThroughSoundServer() {
  const char* sink = std::getenv("SONORELL_AUDIO_SINK");
  if (!sink || !*sink) return true;
  const std::string_view description(sink);
  return description.find("pulsesink") != description.npos ||
         description.find("autoaudiosink") != description.npos;
}

}  // namespace

void Services::watchSoundServer(const std::shared_ptr<AudioSession>& session) {
  if (!session || !playsThroughSoundServer()) return;
  // Kept for the life of the process, like the services themselves.
  static std::mutex mutex;
  static std::vector<std::unique_ptr<pulse::PulseSessionMonitor>>* monitors = nullptr;
  auto monitor = pulse::PulseSessionMonitor::start(session);
  if (!monitor) return;
  std::lock_guard lock(mutex);
  if (!monitors) monitors = new std::vector<std::unique_ptr<pulse::PulseSessionMonitor>>();
  monitors->push_back(std::move(monitor));
}

std::shared_ptr<const Services> Services::system() {
  static std::once_flag once;
  static const std::shared_ptr<const Services>* services = nullptr;
  std::call_once(once, [] {
    auto made = std::make_shared<Services>();
    made->clock = Clock::current();
    made->http = HttpClient::shared();
    made->transfers = TransferService::shared();
    made->reachability = Reachability::shared();
    made->files = FileSystem::shared();
    made->audioSession = AudioSession::sharedInstance();
    watchSoundServer(made->audioSession);
    made->players = [session = std::weak_ptr<AudioSession>(made->audioSession)] {
      return std::shared_ptr<QueuePlayer>(GstQueuePlayer::create(session));
    };
    services = new std::shared_ptr<const Services>(std::move(made));
  });
  return *services;
}

std::shared_ptr<Services> Services::systemCopy() { return std::make_shared<Services>(*system()); }

}  // namespace sonorell
