// Renders catalogue chapters with GStreamer: a sine tone or a WAV file encoded as CBR MP3
// (44.1 kHz mono, 64 kbit/s), byte-identical on every run, and measures a file's decoded duration.
// Long chapters are made from a short rendition by repeating its frames, so that nobody encodes
// hours of audio. Each call builds and runs its own pipeline or works on its arguments alone; safe
// from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace sonorell::content {

struct Tone {
  int frequencyHz = 440;
  int seconds = 1;
};

// Every MPEG-1 Layer III frame decodes to this many samples.
inline constexpr std::uint64_t kSamplesPerFrame = 1152;
inline constexpr std::uint64_t kSampleRate = 44100;

// Writes the MP3 to `path` atomically. Throws std::runtime_error when the pipeline fails.
void renderToneMp3(Tone tone, const std::filesystem::path& path);
// The same for the audio of a WAV file, resampled and mixed down as needed.
void renderWavMp3(const std::filesystem::path& wav, const std::filesystem::path& path);

// Duration of the audio that mpg123 decodes from the file, rounded to the millisecond.
std::uint64_t decodedDurationMs(const std::filesystem::path& path);

// Where each MPEG-1 Layer III frame of `mp3` starts, then its end. Throws std::runtime_error
// unless the bytes are whole frames of that layer at 44.1 kHz, nothing before or between them.
std::vector<std::size_t> mp3FrameBoundaries(std::string_view mp3);

// `frames` frames: the rendition from its first frame, over and over, the last pass cut after a
// whole frame. Each pass decodes on its own, since a first frame never borrows from a reservoir
// (checked: throws std::runtime_error when the rendition's does).
std::string repeatFrames(std::string_view rendition, std::uint64_t frames);

// Duration of that many frames, rounded to the millisecond.
std::uint64_t durationMsOfFrames(std::uint64_t frames);

}  // namespace sonorell::content
