#include "platform/media/mpeg_audio_header.h"

namespace sonorell {
namespace {

// kbit/s by [MPEG-1?][layer index 1..3][bitrate index]; layer index 1 is Layer III.
constexpr int kBitrates[2][4][16] = {
    // MPEG-2 and 2.5
    {{0},
     {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0},
     {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0},
     {0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256, 0}},
    // MPEG-1
    {{0},
     {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 0},
     {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384, 0},
     {0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448, 0}},
};
constexpr int kSampleRates[4][3] = {
    {11025, 12000, 8000},   // MPEG-2.5
    {0, 0, 0},              // reserved
    {22050, 24000, 16000},  // MPEG-2
    {44100, 48000, 32000},  // MPEG-1
};

}  // namespace

std::optional<MpegAudioInfo> parseMpegAudioHeader(const uint8_t* data, size_t size) {
  size_t pos = 0;
  if (size >= 10 && data[0] == 'I' && data[1] == 'D' && data[2] == '3') {
    // Synchsafe size: 7 bits per byte; a footer adds 10 more bytes.
    size_t tag = (size_t{data[6]} << 21) | (size_t{data[7]} << 14) | (size_t{data[8]} << 7) |
                 size_t{data[9]};
    pos = 10 + tag + ((data[5] & 0x10) ? 10 : 0);
  }
  for (; pos + 4 <= size; ++pos) {
    if (data[pos] != 0xFF || (data[pos + 1] & 0xE0) != 0xE0) continue;
    int version = (data[pos + 1] >> 3) & 0x3;
    int layer = (data[pos + 1] >> 1) & 0x3;
    int bitrateIndex = (data[pos + 2] >> 4) & 0xF;
    int rateIndex = (data[pos + 2] >> 2) & 0x3;
    if (version == 1 || layer == 0 || bitrateIndex == 0 || bitrateIndex == 15 || rateIndex == 3) {
      continue;
    }
    MpegAudioInfo info;
    info.dataOffset = static_cast<int64_t>(pos);
    info.bitrate = kBitrates[version == 3 ? 1 : 0][layer][bitrateIndex] * 1000;
    info.sampleRate = kSampleRates[version][rateIndex];
    return info;
  }
  return std::nullopt;
}

}  // namespace sonorell
