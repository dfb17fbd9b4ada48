// The audio session on a PulseAudio (or pipewire-pulse) server: one client connection on its own
// libpulse thread watches the sinks, the default sink and our playback stream, and raises on the
// AudioSession what the engine reacts to: the current route, route changes (with their reason),
// a suspension of the device under our stream, a call that silenced our stream, and a
// media-services reset when the connection was lost and has come back. Cork requests for our
// stream reach the session through the GStreamer backend (the server sends them to the stream's
// own connection, not to ours).
// All state below is touched only on the libpulse thread (callbacks, or under its loop lock).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/media/audio_session.h"
#include "platform/media/pulse/pulse_route.h"

struct pa_threaded_mainloop;
struct pa_context;
struct pa_time_event;
struct pa_sink_info;
struct pa_sink_input_info;
struct pa_server_info;
struct pa_operation;

namespace sonorell::pulse {

class PulseSessionMonitor {
 public:
  struct Options {
    // The server to watch; the client library's own lookup ($PULSE_SERVER, the user's runtime
    // directory) when empty. A server is never started on our behalf.
    std::optional<std::string> server;
    std::chrono::milliseconds connectTimeout{2000};
    // How often a lost connection is tried again.
    std::chrono::milliseconds retryInterval{250};
  };

  // Connects and reads the server's state (the session's route is set before this returns).
  // Null when no server answers within the time-out: the session stays driven by its host.
  static std::unique_ptr<PulseSessionMonitor> start(std::shared_ptr<AudioSession> session,
                                                    Options options);
  static std::unique_ptr<PulseSessionMonitor> start(std::shared_ptr<AudioSession> session) {
    return start(std::move(session), Options{});
  }
  ~PulseSessionMonitor();  // disconnects and joins the libpulse thread

  PulseSessionMonitor(const PulseSessionMonitor&) = delete;
  PulseSessionMonitor& operator=(const PulseSessionMonitor&) = delete;

  bool isConnected() const;

 private:
  struct OurStream {
    uint32_t sink = 0;
    bool corked = false;
    bool muted = false;
  };

  PulseSessionMonitor(std::shared_ptr<AudioSession> session, Options options);

  // On the libpulse thread.
  void connect();
  void dropContext();
  void scheduleRetry();
  void onContextState();
  void onReady();
  void onLost();
  void onEvent(uint32_t type, uint32_t index);
  template <typename Info>
  using InfoGetter = pa_operation* (*)(pa_context*, uint32_t,
                                       void (*)(pa_context*, const Info*, int, void*), void*);
  // Reads one sink or sink input; `OnInfo` gets it, and one gone meanwhile leaves `Known`.
  template <typename Info, void (PulseSessionMonitor::*OnInfo)(const Info*), auto Known>
  void queryByIndex(InfoGetter<Info> get, uint32_t index);
  void querySink(uint32_t index);
  void querySinkInput(uint32_t index);
  void queryServer();
  // Counts a query libpulse accepted (one queryDone() to come); false when it refused it.
  bool inFlight(pa_operation* op);
  void onSink(const pa_sink_info* info);
  void onSinkInput(const pa_sink_input_info* info);
  void onServer(const pa_server_info* info);
  void queryDone();
  void evaluate();
  ServerState snapshot() const;

  const std::shared_ptr<AudioSession> session_;
  const Options options_;
  pa_threaded_mainloop* loop_ = nullptr;
  pa_context* context_ = nullptr;
  pa_time_event* retry_ = nullptr;

  // The server as last read; what the session was last told about.
  std::map<uint32_t, Sink> sinks_;
  std::map<uint32_t, OurStream> streams_;
  std::map<uint32_t, uint32_t> calls_;  // a call's sink input → its sink
  std::string defaultSink_;
  ServerState told_;
  int pending_ = 0;        // queries in flight; decisions wait until none are
  bool baseline_ = false;  // told_ holds a full reading since the last connect
  bool everConnected_ = false;
  bool resetOwed_ = false;  // the connection was lost: say so once it is back
  bool suspensionRaised_ = false;
  bool callRaised_ = false;

  // The first connection's outcome, for start().
  mutable std::mutex startMutex_;
  std::condition_variable startChanged_;
  std::optional<bool> firstOutcome_;  // guarded by startMutex_
  bool connected_ = false;            // guarded by startMutex_
};

}  // namespace sonorell::pulse
