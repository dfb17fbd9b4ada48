#include "mp3_renderer.h"

#include <gst/gst.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>

namespace sonorell::content {
namespace {

constexpr int kSampleRate = 44100;
constexpr int kSamplesPerBuffer = 441;  // 10 ms, so whole seconds are whole buffers

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

// Pipelines are described as text; quote a path for gst_parse_launch.
std::string quoted(const std::filesystem::path& path) {
  std::string out = "\"";
  for (char c : path.string()) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + "\"";
}

}  // namespace

void renderToneMp3(Tone tone, const std::filesystem::path& path) {
  static std::atomic<unsigned> sequence{0};
  const auto temp =
      path.parent_path() / (path.filename().string() + ".tmp-" + std::to_string(::getpid()) + "-" +
                            std::to_string(sequence++));
  const int buffers = tone.seconds * (kSampleRate / kSamplesPerBuffer);
  Pipeline p = parse("audiotestsrc wave=sine volume=0.4 freq=" + std::to_string(tone.frequencyHz) +
                     " num-buffers=" + std::to_string(buffers) +
                     " samplesperbuffer=" + std::to_string(kSamplesPerBuffer) +
                     " ! audio/x-raw,format=S16LE,rate=" + std::to_string(kSampleRate) +
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

}  // namespace sonorell::content
