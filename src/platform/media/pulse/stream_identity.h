// How our playback stream introduces itself to the sound server: the properties the GStreamer
// backend puts on it (so that mixers show it by name and role policies treat it as music) and by
// which the audio session finds it among the server's streams. Constants only.
#pragma once

#include <string_view>

namespace sonorell::pulse {

// Marks the stream as the engine's; with the process ID it tells our stream from others.
inline constexpr std::string_view kStreamApplicationID = "io.sonorell";
// The name mixers show when the host has not named its application (g_set_application_name).
inline constexpr std::string_view kDefaultApplicationName = "Sonorell";
inline constexpr std::string_view kStreamIconName = "audio-x-generic";
// Spoken-word listening is ducked and corked like music by the servers' role policies.
inline constexpr std::string_view kStreamRole = "music";
// The role of the streams that take over from it: a call.
inline constexpr std::string_view kCallRole = "phone";

}  // namespace sonorell::pulse
