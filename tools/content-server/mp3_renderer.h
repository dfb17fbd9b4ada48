// Renders catalogue chapters with GStreamer: a sine tone encoded as CBR MP3 (44.1 kHz mono,
// 64 kbit/s), byte-identical on every run, and measures a file's decoded duration.
// Each call builds and runs its own pipeline; safe from any thread.
#pragma once

#include <cstdint>
#include <filesystem>

namespace sonorell::content {

struct Tone {
  int frequencyHz = 440;
  int seconds = 1;
};

// Writes the MP3 to `path` atomically. Throws std::runtime_error when the pipeline fails.
void renderToneMp3(Tone tone, const std::filesystem::path& path);

// Duration of the audio that mpg123 decodes from the file, rounded to the millisecond.
std::uint64_t decodedDurationMs(const std::filesystem::path& path);

}  // namespace sonorell::content
