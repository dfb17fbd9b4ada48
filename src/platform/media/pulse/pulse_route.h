// What the sound server says about where our audio goes, as plain values: the sinks, the default
// sink, the sink our playback stream is on and where calls play. The audio session's decisions
// (which port type the route has, why it changed, whether the device was suspended or a call
// silenced us) are pure functions of such snapshots, so they can be checked without a server.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/media/audio_session.h"

namespace sonorell::pulse {

// A sink port's availability, as the server reports it (jack detection, Bluetooth link).
enum class PortAvailability { Unknown, No, Yes };

// The sound server's device port types that tell an output apart; values as libpulse's
// pa_device_port_type (Unknown when the server does not say).
enum class PortKind : uint32_t {
  Unknown = 0,
  Speaker = 2,
  Headphones = 3,
  Line = 4,
  Headset = 6,
  Spdif = 9,
  Hdmi = 10,
  Usb = 14,
  Bluetooth = 15,
  Handsfree = 17,
};

struct SinkPort {
  std::string name;
  std::string description;
  uint32_t kind = 0;  // pa_device_port_type
  PortAvailability available = PortAvailability::Unknown;
};

struct Sink {
  uint32_t index = 0;
  std::string name;
  std::string description;
  std::string activePort;  // empty: the sink has no ports
  std::vector<SinkPort> ports;
  bool suspended = false;
  // Device properties that matter when the ports say nothing: device.api, device.bus,
  // device.form_factor, bluetooth.protocol.
  std::map<std::string, std::string> properties;

  const SinkPort* port(const std::string& portName) const;
};

struct ServerState {
  std::map<uint32_t, Sink> sinks;
  std::string defaultSink;  // name
  // The sink our playback stream is on, when we have one, and whether it is running (uncorked).
  std::optional<uint32_t> streamSink;
  bool streamRunning = false;
  bool streamMuted = false;
  // The sinks a call (a stream of the "phone" role) plays on.
  std::set<uint32_t> callSinks;

  // The sink the route is about: our stream's, else the default one. Null when neither exists.
  const Sink* routeSink() const;
};

// The port type the listening method reads, from a sink and its active port: "Headphones",
// "Speaker", "BluetoothA2DPOutput"/"BluetoothHFP" for a Bluetooth (bluez) device, "LineOut",
// "HDMI", "USBAudio", and otherwise the port's (or sink's) own name.
AudioSessionPort portFor(const Sink& sink);
AudioSessionRoute routeFor(const ServerState& state);

// Why the route moved from `before` to `after`, or nothing when it did not:
// OldDeviceUnavailable when the sink we were on went away or its active port became unavailable
// (headphones pulled out, a Bluetooth device gone); NewDeviceAvailable when we moved to a port or
// sink that has just appeared or become available (headphones plugged in); Override when the
// user moved us to another output while the old one is still there.
std::optional<AudioSessionRouteChangeReason> routeChangeReason(const ServerState& before,
                                                               const ServerState& after);

// The device under our running stream was suspended by the server (it took the device away, as
// pasuspender or a sound server handing the card to another does).
bool suspendedUnderStream(const ServerState& state);

// A call on our stream's sink has it muted. The server's role policy asks a running stream to
// cork, but one that was still starting (corked for preroll) is only muted, and would play on
// unheard through the call.
bool silencedByCall(const ServerState& state);

}  // namespace sonorell::pulse
