// Reads the stream parameters of MPEG audio (MP3) from its first bytes: the length of a leading
// ID3v2 tag and the first frame header's bitrate and sample rate. Pure functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

namespace sonorell {

struct MpegAudioInfo {
  int64_t dataOffset = 0;  // where the first frame starts (after any ID3v2 tag)
  int bitrate = 0;         // bits per second of the first frame
  int sampleRate = 0;
};

// Null until `size` bytes hold an ID3v2 header (if any) and a valid frame header after it.
std::optional<MpegAudioInfo> parseMpegAudioHeader(const uint8_t* data, size_t size);

}  // namespace sonorell
