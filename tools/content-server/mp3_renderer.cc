#include "mp3_renderer.h"

#include <gst/gst.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>

namespace sonorell::content {
namespace {

constexpr int kSamplesPerBuffer = 441;  // 10 ms, so whole seconds are whole buffers
// MPEG-1 Layer III bit rates by header index, kbit/s (0: free format, 15: invalid).
constexpr unsigned kBitRates[16] = {0,   32,  40,  48,  56,  64,  80,  96,
                                    112, 128, 160, 192, 224, 256, 320, 0};

struct PipelineDeleter {
  void operator()(GstElement* p) const {
    gst_element_set_state(p, GST_STATE_NULL);
    gst_object_unref(p);
  }
};
using Pipeline = std::unique_ptr<GstElement, PipelineDeleter>;

Pipeline parse(const std::string& description) {
  static const bool initialised = gst_init_check(nullptr, nullptr, nullptr);
  if (!initialised) throw std::runtime_error("GStreamer cannot be initialised");
  GError* error = nullptr;
  GstElement* p = gst_parse_launch(description.c_str(), &error);
  if (error) {
    std::string message = error->message;
    g_error_free(error);
    if (p) gst_object_unref(p);
    throw std::runtime_error("pipeline '" + description + "': " + message);
  }
  return Pipeline(p);
}

// Plays the pipeline to its end; throws with the bus's error message on failure.
void runToEnd(GstElement* pipeline) {
  if (gst_element_set_state(pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
    throw std::runtime_error("pipeline does not start");
  }
  GstBus* bus = gst_element_get_bus(pipeline);
  GstMessage* msg = gst_bus_timed_pop_filtered(
      bus, GST_CLOCK_TIME_NONE, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
  std::string failure;
  if (GST_MESSAGE_TYPE(msg) == GST_MESSAGE_ERROR) {
    GError* error = nullptr;
    gst_message_parse_error(msg, &error, nullptr);
    failure = error ? error->message : "unknown error";
    if (error) g_error_free(error);
  }
  gst_message_unref(msg);
  gst_object_unref(bus);
  if (!failure.empty()) throw std::runtime_error("pipeline failed: " + failure);
}

// How many bytes of a frame's audio data sit in earlier frames (the bit reservoir).
unsigned mainDataBegin(std::string_view mp3, std::size_t frameOffset) {
  const auto* h = reinterpret_cast<const unsigned char*>(mp3.data() + frameOffset);
  const auto* side = h + ((h[1] & 1) ? 4 : 6);  // past the CRC when there is one
  return (unsigned{side[0]} << 1) | (side[1] >> 7);
}

// Pipelines are described as text; quote a path for gst_parse_launch.
std::string quoted(const std::filesystem::path& path) {
  std::string out = "\"";
  for (char c : path.string()) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + "\"";
}

// Runs `source` (raw audio of any layout) through the catalogue's encoder into `path`, written
// under a temporary name and renamed into place once complete.
void encodeMp3(const std::string& source, const std::filesystem::path& path) {
  static std::atomic<unsigned> sequence{0};
  const auto temp =
      path.parent_path() / (path.filename().string() + ".tmp-" + std::to_string(::getpid()) + "-" +
                            std::to_string(sequence++));
  Pipeline p = parse(source + " ! audioconvert ! audioresample ! audio/x-raw,format=S16LE,rate=" +
                     std::to_string(kSampleRate) +
                     ",channels=1 ! lamemp3enc target=bitrate cbr=true bitrate=64"
                     " ! filesink location=" +
                     quoted(temp));
  try {
    runToEnd(p.get());
  } catch (...) {
    std::filesystem::remove(temp);
    throw;
  }
  p.reset();  // closes the file before it is renamed
  std::filesystem::rename(temp, path);
}

}  // namespace

void renderToneMp3(Tone tone, const std::filesystem::path& path) {
  const int buffers = tone.seconds * (static_cast<int>(kSampleRate) / kSamplesPerBuffer);
  encodeMp3("audiotestsrc wave=sine volume=0.4 freq=" + std::to_string(tone.frequencyHz) +
                " num-buffers=" + std::to_string(buffers) +
                " samplesperbuffer=" + std::to_string(kSamplesPerBuffer) +
                " ! audio/x-raw,format=S16LE,rate=" + std::to_string(kSampleRate) + ",channels=1",
            path);
}

void renderWavMp3(const std::filesystem::path& wav, const std::filesystem::path& path) {
  encodeMp3("filesrc location=" + quoted(wav) + " ! wavparse", path);
}

std::uint64_t decodedDurationMs(const std::filesystem::path& path) {
  Pipeline p = parse("filesrc location=" + quoted(path) +
                     " ! mpegaudioparse ! mpg123audiodec ! audioconvert ! audio/x-raw,format=S16LE,"
                     "channels=1 ! fakesink name=sink sync=false");
  GstElement* sink = gst_bin_get_by_name(GST_BIN(p.get()), "sink");
  GstPad* pad = gst_element_get_static_pad(sink, "sink");
  std::uint64_t bytes = 0;
  gst_pad_add_probe(
      pad, GST_PAD_PROBE_TYPE_BUFFER,
      [](GstPad*, GstPadProbeInfo* info, gpointer data) -> GstPadProbeReturn {
        *static_cast<std::uint64_t*>(data) += gst_buffer_get_size(GST_PAD_PROBE_INFO_BUFFER(info));
        return GST_PAD_PROBE_OK;
      },
      &bytes, nullptr);
  gst_object_unref(pad);
  gst_object_unref(sink);
  runToEnd(p.get());
  const std::uint64_t samples = bytes / 2;
  return (samples * 1000 + kSampleRate / 2) / kSampleRate;
}

std::vector<std::size_t> mp3FrameBoundaries(std::string_view mp3) {
  std::vector<std::size_t> boundaries;
  std::size_t at = 0;
  while (at < mp3.size()) {
    if (mp3.size() - at < 4) throw std::runtime_error("MP3 ends inside a frame header");
    const auto* h = reinterpret_cast<const unsigned char*>(mp3.data() + at);
    // Sync, MPEG-1, Layer III; a known bit rate; 44.1 kHz.
    const unsigned rate = kBitRates[h[2] >> 4];
    if (h[0] != 0xFF || (h[1] & 0xFE) != 0xFA || rate == 0 || ((h[2] >> 2) & 3) != 0) {
      throw std::runtime_error("no MPEG-1 Layer III frame at byte " + std::to_string(at));
    }
    const std::size_t length = 144 * rate * 1000 / kSampleRate + ((h[2] >> 1) & 1);
    if (mp3.size() - at < length) throw std::runtime_error("MP3 ends inside a frame");
    boundaries.push_back(at);
    at += length;
  }
  boundaries.push_back(at);
  return boundaries;
}

std::string repeatFrames(std::string_view rendition, std::uint64_t frames) {
  const std::vector<std::size_t> bounds = mp3FrameBoundaries(rendition);
  const std::uint64_t perPass = bounds.size() - 1;
  if (perPass == 0) throw std::runtime_error("the rendition has no frames");
  if (mainDataBegin(rendition, 0) != 0) {
    throw std::runtime_error("the rendition's first frame borrows from a bit reservoir");
  }
  const std::uint64_t passes = frames / perPass;
  const std::size_t tail = bounds[frames % perPass];
  std::string out;
  out.reserve(passes * rendition.size() + tail);
  for (std::uint64_t i = 0; i < passes; ++i) out.append(rendition);
  out.append(rendition.substr(0, tail));
  return out;
}

std::uint64_t durationMsOfFrames(std::uint64_t frames) {
  return (frames * kSamplesPerFrame * 1000 + kSampleRate / 2) / kSampleRate;
}

}  // namespace sonorell::content
