#include "platform/media/pulse/pulse_route.h"

#include <algorithm>
#include <cctype>

namespace sonorell::pulse {
namespace {

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

bool contains(const std::string& text, std::string_view what) {
  return text.find(what) != std::string::npos;
}

std::string property(const Sink& sink, const std::string& key) {
  auto it = sink.properties.find(key);
  return it == sink.properties.end() ? std::string() : it->second;
}

bool isBluetooth(const Sink& sink) {
  return property(sink, "device.api") == "bluez" || property(sink, "device.bus") == "bluetooth";
}

// A Bluetooth sink plays either high-quality audio (A2DP) or call audio (HSP/HFP); the profile
// in use says which.
std::string bluetoothPortType(const Sink& sink, const SinkPort* port) {
  const std::string protocol = lower(property(sink, "bluetooth.protocol"));
  const std::string profile = lower(property(sink, "device.profile.name"));
  const bool callAudio = contains(protocol, "head_unit") || contains(protocol, "hfp") ||
                         contains(protocol, "hsp") || contains(profile, "head_unit") ||
                         (port && port->kind == static_cast<uint32_t>(PortKind::Handsfree));
  return std::string(callAudio ? QSOAudioPortBluetoothHFP : QSOAudioPortBluetoothA2DP);
}

// By the server's port type first, then by the words sound cards use in port names.
std::optional<std::string> portTypeOf(const SinkPort& port) {
  switch (static_cast<PortKind>(port.kind)) {
    case PortKind::Speaker:
      return std::string(QSOAudioPortBuiltInSpeaker);
    case PortKind::Headphones:
    case PortKind::Headset:
      return std::string(QSOAudioPortHeadphones);
    case PortKind::Line:
    case PortKind::Spdif:
      return std::string(QSOAudioPortLineOut);
    case PortKind::Hdmi:
      return std::string(QSOAudioPortHDMI);
    case PortKind::Usb:
      return std::string(QSOAudioPortUSBAudio);
    default:
      break;
  }
  const std::string name = lower(port.name);
  if (contains(name, "headphone") || contains(name, "headset")) {
    return std::string(QSOAudioPortHeadphones);
  }
  if (contains(name, "speaker")) return std::string(QSOAudioPortBuiltInSpeaker);
  if (contains(name, "hdmi") || contains(name, "iec958-stereo-hdmi")) {
    return std::string(QSOAudioPortHDMI);
  }
  if (contains(name, "lineout") || contains(name, "line-out") || contains(name, "iec958")) {
    return std::string(QSOAudioPortLineOut);
  }
  return std::nullopt;
}

// A sink without ports (a network or virtual sink) still says what it is in its properties.
std::optional<std::string> portTypeOfDevice(const Sink& sink) {
  const std::string form = property(sink, "device.form_factor");
  if (form == "headphone" || form == "headset") return std::string(QSOAudioPortHeadphones);
  if (form == "speaker" || form == "internal") return std::string(QSOAudioPortBuiltInSpeaker);
  if (property(sink, "device.bus") == "usb") return std::string(QSOAudioPortUSBAudio);
  return std::nullopt;
}

bool sinkExists(const ServerState& state, uint32_t index) { return state.sinks.contains(index); }

}  // namespace

const SinkPort* Sink::port(const std::string& portName) const {
  for (const auto& p : ports) {
    if (p.name == portName) return &p;
  }
  return nullptr;
}

const Sink* ServerState::routeSink() const {
  if (streamSink) {
    auto it = sinks.find(*streamSink);
    if (it != sinks.end()) return &it->second;
  }
  for (const auto& [index, sink] : sinks) {
    if (sink.name == defaultSink) return &sink;
  }
  return nullptr;
}

AudioSessionPort portFor(const Sink& sink) {
  const SinkPort* active = sink.activePort.empty() ? nullptr : sink.port(sink.activePort);
  const std::string portName =
      active && !active->description.empty() ? active->description : sink.description;
  if (isBluetooth(sink)) return {bluetoothPortType(sink, active), portName};
  if (active) {
    if (auto type = portTypeOf(*active)) return {*type, portName};
  }
  if (auto type = portTypeOfDevice(sink)) return {*type, portName};
  // Anything else is reported as what it calls itself.
  return {active ? active->name : sink.name, portName};
}

AudioSessionRoute routeFor(const ServerState& state) {
  const Sink* sink = state.routeSink();
  if (!sink) return {};
  return AudioSessionRoute{{portFor(*sink)}};
}

std::optional<AudioSessionRouteChangeReason> routeChangeReason(const ServerState& before,
                                                               const ServerState& after) {
  const Sink* was = before.routeSink();
  const Sink* now = after.routeSink();
  if (!was && !now) return std::nullopt;
  if (!was) return AudioSessionRouteChangeReason::NewDeviceAvailable;
  // The device we were on is gone (unplugged, Bluetooth link lost, module unloaded).
  if (!sinkExists(after, was->index)) return AudioSessionRouteChangeReason::OldDeviceUnavailable;
  const Sink& wasNow = after.sinks.at(was->index);
  // Our port became unavailable: the jack was pulled, whether or not the server has already
  // switched the sink to another port.
  if (!was->activePort.empty()) {
    const SinkPort* oldPort = wasNow.port(was->activePort);
    if (!oldPort || oldPort->available == PortAvailability::No) {
      return AudioSessionRouteChangeReason::OldDeviceUnavailable;
    }
  }
  if (!now) return AudioSessionRouteChangeReason::OldDeviceUnavailable;
  if (now->index == was->index && now->activePort == was->activePort) return std::nullopt;
  // Moved to another port or sink while the old one is still there: a new device that has just
  // shown up (plugged in, connected) or the user's own choice.
  if (!sinkExists(before, now->index)) return AudioSessionRouteChangeReason::NewDeviceAvailable;
  if (!now->activePort.empty()) {
    const SinkPort* newPort = now->port(now->activePort);
    const Sink& nowBefore = before.sinks.at(now->index);
    const SinkPort* newPortBefore = nowBefore.port(now->activePort);
    if (newPort && newPort->available == PortAvailability::Yes &&
        (!newPortBefore || newPortBefore->available != PortAvailability::Yes)) {
      return AudioSessionRouteChangeReason::NewDeviceAvailable;
    }
  }
  return AudioSessionRouteChangeReason::Override;
}

bool suspendedUnderStream(const ServerState& state) {
  if (!state.streamSink || !state.streamRunning) return false;
  auto it = state.sinks.find(*state.streamSink);
  return it != state.sinks.end() && it->second.suspended;
}

bool silencedByCall(const ServerState& state) {
  return state.streamSink && state.streamMuted && state.callSinks.contains(*state.streamSink);
}

}  // namespace sonorell::pulse
