#include "mp3_decode.h"

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <string>

namespace sonorell::content::testing {

// Plays the file through mpg123 to the end and counts the samples it decodes.
std::int64_t decodedMs(const std::filesystem::path& file) {
  gst_init(nullptr, nullptr);
  GError* error = nullptr;
  GstElement* pipeline = gst_parse_launch(
      ("filesrc location=\"" + file.string() +
       "\" ! mpegaudioparse ! mpg123audiodec ! audioconvert ! audio/x-raw,format=S16LE,channels=1"
       " ! fakesink name=sink sync=false signal-handoffs=true")
          .c_str(),
      &error);
  if (error) {
    ADD_FAILURE() << error->message;
    g_error_free(error);
    return -1;
  }
  std::uint64_t bytes = 0;
  GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
  g_signal_connect(sink, "handoff",
                   G_CALLBACK(+[](GstElement*, GstBuffer* buffer, GstPad*, gpointer total) {
                     *static_cast<std::uint64_t*>(total) += gst_buffer_get_size(buffer);
                   }),
                   &bytes);
  gst_object_unref(sink);
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  GstBus* bus = gst_element_get_bus(pipeline);
  GstMessage* msg = gst_bus_timed_pop_filtered(
      bus, 60 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
  const bool ended = msg && GST_MESSAGE_TYPE(msg) == GST_MESSAGE_EOS;
  if (msg && !ended) {
    GError* failure = nullptr;
    gst_message_parse_error(msg, &failure, nullptr);
    ADD_FAILURE() << file << " does not decode: " << (failure ? failure->message : "no message");
    if (failure) g_error_free(failure);
  } else if (!msg) {
    ADD_FAILURE() << file << " did not finish decoding within a minute";
  }
  if (msg) gst_message_unref(msg);
  gst_object_unref(bus);
  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(pipeline);
  return ended && bytes > 0 ? static_cast<std::int64_t>(bytes / 2 * 1000 / 44100) : -1;
}

}  // namespace sonorell::content::testing
