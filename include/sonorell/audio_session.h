/// What a host tells the engine about the device's audio output: the current route and its
/// changes, interruptions (a call, another application taking the output) and a restart of the
/// media services. The playback engine reacts to each. Safe from any thread; events reach the
/// engine on its own queues.
/// @file
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "sonorell/export.h"

namespace sonorell {

/// @name Output port types
/// Values of the `portType` argument of QSOAudioSessionEvents::setOutputRoute(). Listen events
/// report the listening method from them (QSOListeningMethod): headphones, Bluetooth, the
/// speaker, or other for the rest.
///@{
/// The device's own speaker.
inline constexpr std::string_view QSOAudioPortBuiltInSpeaker = "Speaker";
/// Wired headphones.
inline constexpr std::string_view QSOAudioPortHeadphones = "Headphones";
/// Bluetooth headphones or speaker (A2DP).
inline constexpr std::string_view QSOAudioPortBluetoothA2DP = "BluetoothA2DPOutput";
/// A Bluetooth hands-free device (HFP).
inline constexpr std::string_view QSOAudioPortBluetoothHFP = "BluetoothHFP";
/// An HDMI output.
inline constexpr std::string_view QSOAudioPortHDMI = "HDMI";
/// A USB audio device.
inline constexpr std::string_view QSOAudioPortUSBAudio = "USBAudio";
/// An analogue line output.
inline constexpr std::string_view QSOAudioPortLineOut = "LineOut";
///@}

/// Whether an audio interruption begins or ends.
enum class QSOAudioInterruption {
  /// The interruption is over: playback that it paused resumes at the offset it paused at.
  Ended = 0,
  /// Something else took the output: playing audio pauses (paused context 2), unless the
  /// application was suspended.
  Began = 1
};

/// Why the route changed; OldDeviceUnavailable is the headphones being pulled out.
enum class QSOAudioRouteChangeReason {
  Unknown = 0,               ///< No reason given.
  NewDeviceAvailable = 1,    ///< A device was plugged in or connected.
  OldDeviceUnavailable = 2,  ///< The output device went away; playback pauses (context 3).
  CategoryChange = 3,        ///< The audio category changed.
  Override = 4,              ///< The output was overridden.
};

/// The host's reports on the device's audio. The host calls these from any thread, as the
/// system tells it; each event is raised on the process's audio session and handled by the
/// playback engine on its own queues, so every call returns at once.
class SONORELL_EXPORT QSOAudioSessionEvents {
 public:
  /// The output the audio now goes to; with a reason, the engine hears of the change.
  /// @param portType one of the output port types (QSOAudioPortHeadphones...)
  /// @param portName the device's name, for logs
  /// @param reason why the route changed; without one the route is only recorded
  static void setOutputRoute(std::string portType, std::string portName,
                             std::optional<QSOAudioRouteChangeReason> reason = std::nullopt);
  /// An interruption begins or ends. `wasSuspended` when the system ended the interruption by
  /// suspending the application.
  static void interruption(QSOAudioInterruption type,
                           std::optional<bool> wasSuspended = std::nullopt);
  /// The media services were restarted: the playback engine reloads the current chapter at
  /// its offset.
  static void mediaServicesReset();
};

}  // namespace sonorell
