#include "platform/media/pulse/pulse_session_monitor.h"

#include <pulse/pulseaudio.h>
#include <unistd.h>

#include <string>

#include "platform/media/media_log.h"
#include "platform/media/pulse/stream_identity.h"

namespace sonorell::pulse {
namespace {

constexpr pa_subscription_mask_t kWatched = static_cast<pa_subscription_mask_t>(
    PA_SUBSCRIPTION_MASK_SINK | PA_SUBSCRIPTION_MASK_SINK_INPUT | PA_SUBSCRIPTION_MASK_SERVER);

std::string text(const char* s) { return s ? s : ""; }

std::string prop(const pa_proplist* list, const char* key) {
  const char* value = list ? pa_proplist_gets(list, key) : nullptr;
  return text(value);
}

// Our stream: made by this process and marked by the GStreamer backend as the engine's.
bool isOurs(const pa_sink_input_info* info) {
  return prop(info->proplist, PA_PROP_APPLICATION_ID) == kStreamApplicationID &&
         prop(info->proplist, PA_PROP_APPLICATION_PROCESS_ID) == std::to_string(::getpid());
}

PortAvailability availability(int available) {
  switch (available) {
    case PA_PORT_AVAILABLE_NO:
      return PortAvailability::No;
    case PA_PORT_AVAILABLE_YES:
      return PortAvailability::Yes;
    default:
      return PortAvailability::Unknown;
  }
}

bool sameRoute(const AudioSessionRoute& a, const AudioSessionRoute& b) {
  if (a.outputs.size() != b.outputs.size()) return false;
  for (size_t i = 0; i < a.outputs.size(); ++i) {
    if (a.outputs[i].portType != b.outputs[i].portType ||
        a.outputs[i].portName != b.outputs[i].portName) {
      return false;
    }
  }
  return true;
}

void log(LogType type, const std::string& line) { media_log::emit(type, "[AudioSession] " + line); }

}  // namespace

std::unique_ptr<PulseSessionMonitor> PulseSessionMonitor::start(
    std::shared_ptr<AudioSession> session, Options options) {
  std::unique_ptr<PulseSessionMonitor> monitor(
      new PulseSessionMonitor(std::move(session), std::move(options)));
  monitor->loop_ = pa_threaded_mainloop_new();
  if (!monitor->loop_) return nullptr;
  pa_threaded_mainloop_set_name(monitor->loop_, "io.sonorell.pa");
  if (pa_threaded_mainloop_start(monitor->loop_) < 0) return nullptr;
  pa_threaded_mainloop_lock(monitor->loop_);
  monitor->connect();
  pa_threaded_mainloop_unlock(monitor->loop_);
  bool connected = false;
  {
    std::unique_lock lock(monitor->startMutex_);
    monitor->startChanged_.wait_for(lock, monitor->options_.connectTimeout,
                                    [&] { return monitor->firstOutcome_.has_value(); });
    connected = monitor->firstOutcome_.value_or(false);
  }
  if (!connected) {
    log(LogType::Info, "no sound server answered; the host drives the audio session");
    return nullptr;  // the destructor stops the thread
  }
  return monitor;
}

PulseSessionMonitor::PulseSessionMonitor(std::shared_ptr<AudioSession> session, Options options)
    : session_(std::move(session)), options_(std::move(options)) {}

PulseSessionMonitor::~PulseSessionMonitor() {
  if (!loop_) return;
  pa_threaded_mainloop_lock(loop_);
  dropContext();
  if (retry_) {
    pa_threaded_mainloop_get_api(loop_)->time_free(retry_);
    retry_ = nullptr;
  }
  pa_threaded_mainloop_unlock(loop_);
  pa_threaded_mainloop_stop(loop_);
  pa_threaded_mainloop_free(loop_);
}

bool PulseSessionMonitor::isConnected() const {
  std::lock_guard lock(startMutex_);
  return connected_;
}

void PulseSessionMonitor::connect() {
  pa_proplist* props = pa_proplist_new();
  pa_proplist_sets(props, PA_PROP_APPLICATION_NAME, std::string(kDefaultApplicationName).c_str());
  context_ = pa_context_new_with_proplist(pa_threaded_mainloop_get_api(loop_),
                                          "Sonorell audio session", props);
  pa_proplist_free(props);
  if (!context_) {
    scheduleRetry();
    return;
  }
  pa_context_set_state_callback(
      context_,
      [](pa_context*, void* self) { static_cast<PulseSessionMonitor*>(self)->onContextState(); },
      this);
  const char* server =
      options_.server && !options_.server->empty() ? options_.server->c_str() : nullptr;
  if (pa_context_connect(context_, server, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) onLost();
}

void PulseSessionMonitor::dropContext() {
  if (!context_) return;
  pa_context_set_state_callback(context_, nullptr, nullptr);
  pa_context_set_subscribe_callback(context_, nullptr, nullptr);
  pa_context_disconnect(context_);
  pa_context_unref(context_);
  context_ = nullptr;
}

void PulseSessionMonitor::scheduleRetry() {
  if (retry_) return;
  pa_mainloop_api* api = pa_threaded_mainloop_get_api(loop_);
  timeval when;
  pa_gettimeofday(&when);
  pa_timeval_add(&when, static_cast<pa_usec_t>(options_.retryInterval.count()) * PA_USEC_PER_MSEC);
  retry_ = api->time_new(
      api, &when,
      [](pa_mainloop_api* a, pa_time_event* event, const timeval*, void* data) {
        auto* self = static_cast<PulseSessionMonitor*>(data);
        a->time_free(event);
        self->retry_ = nullptr;
        self->dropContext();
        self->connect();
      },
      this);
}

void PulseSessionMonitor::onContextState() {
  switch (pa_context_get_state(context_)) {
    case PA_CONTEXT_READY:
      onReady();
      break;
    case PA_CONTEXT_FAILED:
    case PA_CONTEXT_TERMINATED:
      onLost();
      break;
    default:
      break;
  }
}

void PulseSessionMonitor::onReady() {
  {
    std::lock_guard lock(startMutex_);
    connected_ = true;
  }
  if (everConnected_) log(LogType::Info, "connection to the sound server is back");
  everConnected_ = true;
  pa_context_set_subscribe_callback(
      context_,
      [](pa_context*, pa_subscription_event_type_t type, uint32_t index, void* self) {
        static_cast<PulseSessionMonitor*>(self)->onEvent(type, index);
      },
      this);
  if (pa_operation* op = pa_context_subscribe(context_, kWatched, nullptr, nullptr)) {
    pa_operation_unref(op);
  }
  // Everything once; the events keep it current from here on.
  queryServer();
  inFlight(pa_context_get_sink_info_list(
      context_,
      [](pa_context*, const pa_sink_info* info, int eol, void* self) {
        auto* me = static_cast<PulseSessionMonitor*>(self);
        if (eol == 0) return me->onSink(info);
        me->queryDone();
      },
      this));
  inFlight(pa_context_get_sink_input_info_list(
      context_,
      [](pa_context*, const pa_sink_input_info* info, int eol, void* self) {
        auto* me = static_cast<PulseSessionMonitor*>(self);
        if (eol == 0) return me->onSinkInput(info);
        me->queryDone();
      },
      this));
}

void PulseSessionMonitor::onLost() {
  bool wasConnected;
  {
    std::lock_guard lock(startMutex_);
    wasConnected = connected_;
    connected_ = false;
    if (!everConnected_) {
      // start() gives up: there is no server to watch.
      if (!firstOutcome_) firstOutcome_ = false;
      startChanged_.notify_all();
      return;
    }
  }
  if (wasConnected) {
    log(LogType::Info,
        std::string("lost the sound server: ") + pa_strerror(pa_context_errno(context_)));
    // Every stream of ours went with it; when the server is back the engine starts again.
    resetOwed_ = true;
    baseline_ = false;
    sinks_.clear();
    streams_.clear();
    calls_.clear();
    defaultSink_.clear();
    pending_ = 0;
    suspensionRaised_ = callRaised_ = false;
  }
  scheduleRetry();
}

void PulseSessionMonitor::onEvent(uint32_t type, uint32_t index) {
  const uint32_t facility = type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK;
  const bool removed = (type & PA_SUBSCRIPTION_EVENT_TYPE_MASK) == PA_SUBSCRIPTION_EVENT_REMOVE;
  switch (facility) {
    case PA_SUBSCRIPTION_EVENT_SINK:
      if (removed) {
        sinks_.erase(index);
        // The server picks another default when it was the default: decide on that reading.
        queryServer();
      } else {
        querySink(index);
      }
      break;
    case PA_SUBSCRIPTION_EVENT_SINK_INPUT:
      if (removed) {
        if (streams_.erase(index) + calls_.erase(index) > 0) evaluate();
      } else {
        querySinkInput(index);
      }
      break;
    case PA_SUBSCRIPTION_EVENT_SERVER:
      queryServer();
      break;
    default:
      break;
  }
}

template <typename Info, void (PulseSessionMonitor::*OnInfo)(const Info*), auto Known>
void PulseSessionMonitor::queryByIndex(InfoGetter<Info> get, uint32_t index) {
  struct Query {
    PulseSessionMonitor* self;
    uint32_t index;
  };
  auto query = std::make_unique<Query>(Query{this, index});
  const bool asked = inFlight(get(
      context_, index,
      [](pa_context*, const Info* info, int eol, void* data) {
        auto* query = static_cast<Query*>(data);
        if (eol == 0) return (query->self->*OnInfo)(info);
        // Gone before we asked: it is removed by its own event.
        if (eol < 0) (query->self->*Known).erase(query->index);
        std::unique_ptr<Query> done(query);
        done->self->queryDone();
      },
      query.get()));
  if (asked) query.release();  // the last callback frees it
}

void PulseSessionMonitor::querySink(uint32_t index) {
  queryByIndex<pa_sink_info, &PulseSessionMonitor::onSink, &PulseSessionMonitor::sinks_>(
      pa_context_get_sink_info_by_index, index);
}

void PulseSessionMonitor::querySinkInput(uint32_t index) {
  queryByIndex<pa_sink_input_info, &PulseSessionMonitor::onSinkInput,
               &PulseSessionMonitor::streams_>(pa_context_get_sink_input_info, index);
}

void PulseSessionMonitor::queryServer() {
  inFlight(pa_context_get_server_info(
      context_,
      [](pa_context*, const pa_server_info* info, void* self) {
        auto* me = static_cast<PulseSessionMonitor*>(self);
        if (info) me->onServer(info);
        me->queryDone();
      },
      this));
}

bool PulseSessionMonitor::inFlight(pa_operation* op) {
  // Counted after the call: its callbacks run on this same loop, never before we return.
  if (!op) return false;
  ++pending_;
  pa_operation_unref(op);
  return true;
}

void PulseSessionMonitor::onSink(const pa_sink_info* info) {
  Sink sink;
  sink.index = info->index;
  sink.name = text(info->name);
  sink.description = text(info->description);
  sink.suspended = info->state == PA_SINK_SUSPENDED;
  if (info->active_port) sink.activePort = text(info->active_port->name);
  for (uint32_t i = 0; i < info->n_ports; ++i) {
    const pa_sink_port_info* port = info->ports[i];
    sink.ports.push_back(
        {text(port->name), text(port->description), port->type, availability(port->available)});
  }
  for (const char* key : {"device.api", "device.bus", "device.form_factor", "bluetooth.protocol",
                          "device.profile.name"}) {
    if (std::string value = prop(info->proplist, key); !value.empty()) {
      sink.properties[key] = value;
    }
  }
  sinks_[info->index] = std::move(sink);
}

void PulseSessionMonitor::onSinkInput(const pa_sink_input_info* info) {
  if (isOurs(info)) {
    streams_[info->index] = OurStream{info->sink, info->corked != 0, info->mute != 0};
  } else if (prop(info->proplist, PA_PROP_MEDIA_ROLE) == kCallRole) {
    calls_[info->index] = info->sink;
  }
}

void PulseSessionMonitor::onServer(const pa_server_info* info) {
  defaultSink_ = text(info->default_sink_name);
}

void PulseSessionMonitor::queryDone() {
  if (pending_ > 0) --pending_;
  evaluate();
}

ServerState PulseSessionMonitor::snapshot() const {
  ServerState state;
  state.sinks = sinks_;
  state.defaultSink = defaultSink_;
  // A running stream decides the route; a corked one (paused) still holds its sink.
  for (const auto& [index, stream] : streams_) {
    if (!state.streamSink || (!stream.corked && !state.streamRunning)) {
      state.streamSink = stream.sink;
      state.streamRunning = !stream.corked;
      state.streamMuted = stream.muted;
    }
  }
  for (const auto& [index, sink] : calls_) state.callSinks.insert(sink);
  return state;
}

void PulseSessionMonitor::evaluate() {
  // Decide only on a consistent reading: a stream moved by the removal of its sink is seen
  // together with that removal.
  if (pending_ > 0) return;
  const ServerState now = snapshot();
  const AudioSessionRoute route = routeFor(now);
  if (!baseline_) {
    baseline_ = true;
    session_->setCurrentRoute(route);
    if (resetOwed_) {
      resetOwed_ = false;
      log(LogType::Info, "the sound server was restarted");
      session_->raiseMediaServicesReset();
    }
    told_ = now;
    std::lock_guard lock(startMutex_);
    if (!firstOutcome_) {
      firstOutcome_ = true;
      startChanged_.notify_all();
    }
    return;
  }
  if (auto reason = routeChangeReason(told_, now)) {
    log(LogType::Info,
        "route changed to " +
            (route.outputs.empty() ? std::string("nothing") : route.outputs[0].portType) +
            ", reason " + std::to_string(static_cast<int>(*reason)));
    session_->setCurrentRoute(route, reason);
  } else if (!sameRoute(route, session_->currentRoute())) {
    session_->setCurrentRoute(route);
  }
  const bool suspended = suspendedUnderStream(now);
  if (suspended && !suspensionRaised_) {
    suspensionRaised_ = true;
    session_->raiseInterruption(AudioSessionInterruptionType::Began, true);
  } else if (!suspended && suspensionRaised_) {
    suspensionRaised_ = false;
    session_->raiseInterruption(AudioSessionInterruptionType::Ended, true);
  }
  // Raised once our stream runs: the engine pauses only what plays. It stays raised while the
  // engine's pause corks the stream, until the call lets it go.
  const bool silenced = silencedByCall(now);
  if (silenced && now.streamRunning && !callRaised_) {
    callRaised_ = true;
    log(LogType::Info, "a call silenced our stream");
    session_->raiseServerInterruption(AudioSessionInterruptionType::Began);
  } else if (!silenced && callRaised_) {
    callRaised_ = false;
    session_->raiseServerInterruption(AudioSessionInterruptionType::Ended);
  }
  told_ = now;
}

}  // namespace sonorell::pulse
