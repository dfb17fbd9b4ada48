// Where the player's audio goes: $SONORELL_AUDIO_SINK when set, else the desktop's default
// device, checked before playing so that a machine without one is told so plainly.
#pragma once

#include <string>

namespace sonorell::cli {

struct AudioOutput {
  bool named = false;       // $SONORELL_AUDIO_SINK names the sink
  bool available = false;   // a real device answered (always true for a named sink)
  std::string description;  // what to show: the named sink or the device's element
};

AudioOutput probeAudioOutput();
// Sends the player's audio nowhere, paced in real time (the engine reads $SONORELL_AUDIO_SINK).
void useSilentOutput();

}  // namespace sonorell::cli
