// What a host tells the engine about the device's audio output: the current route and its
// changes, interruptions (a call, another application taking the output) and a restart of the
// media services. The playback engine reacts to each. Safe from any thread; events reach the
// engine on its own queues.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "sonorell/export.h"

namespace sonorell {

// Output port types, as listen events report the listening method.
inline constexpr std::string_view QSOAudioPortBuiltInSpeaker = "Speaker";
inline constexpr std::string_view QSOAudioPortHeadphones = "Headphones";
inline constexpr std::string_view QSOAudioPortBluetoothA2DP = "BluetoothA2DPOutput";
inline constexpr std::string_view QSOAudioPortBluetoothHFP = "BluetoothHFP";
inline constexpr std::string_view QSOAudioPortHDMI = "HDMI";
inline constexpr std::string_view QSOAudioPortUSBAudio = "USBAudio";
inline constexpr std::string_view QSOAudioPortLineOut = "LineOut";

enum class QSOAudioInterruption { Ended = 0, Began = 1 };

// Why the route changed; OldDeviceUnavailable is the headphones being pulled out.
enum class QSOAudioRouteChangeReason {
  Unknown = 0,
  NewDeviceAvailable = 1,
  OldDeviceUnavailable = 2,
  CategoryChange = 3,
  Override = 4,
};

class SONORELL_EXPORT QSOAudioSessionEvents {
 public:
  // The output the audio now goes to; with a reason, the engine hears of the change.
  static void setOutputRoute(std::string portType, std::string portName,
                             std::optional<QSOAudioRouteChangeReason> reason = std::nullopt);
  // `wasSuspended` when the system ended the interruption by suspending the application.
  static void interruption(QSOAudioInterruption type,
                           std::optional<bool> wasSuspended = std::nullopt);
  static void mediaServicesReset();
};

}  // namespace sonorell
