// The device check: autoaudiosink tries each audio sink it knows and, when none opens, settles
// on a fakesink; that is what tells a headless machine apart.
#include "audio_output.h"

#include <gst/gst.h>

#include <cstdlib>

namespace sonorell::cli {

AudioOutput probeAudioOutput() {
  AudioOutput out;
  if (const char* named = std::getenv("SONORELL_AUDIO_SINK"); named && *named) {
    out.named = true;
    out.available = true;
    out.description = named;
    return out;
  }
  gst_init(nullptr, nullptr);
  GstElement* sink = gst_element_factory_make("autoaudiosink", nullptr);
  if (!sink) return out;
  gst_object_ref_sink(sink);
  // READY is where autoaudiosink opens a device to decide which sink to keep.
  if (gst_element_set_state(sink, GST_STATE_READY) != GST_STATE_CHANGE_FAILURE) {
    GstIterator* children = gst_bin_iterate_elements(GST_BIN(sink));
    GValue item = G_VALUE_INIT;
    if (gst_iterator_next(children, &item) == GST_ITERATOR_OK) {
      auto* child = GST_ELEMENT(g_value_get_object(&item));
      GstElementFactory* factory = gst_element_get_factory(child);
      const char* name = factory ? gst_plugin_feature_get_name(GST_PLUGIN_FEATURE(factory)) : "";
      out.description = name ? name : "";
      out.available = out.description != "fakesink" && !out.description.empty();
      g_value_unset(&item);
    }
    gst_iterator_free(children);
  }
  gst_element_set_state(sink, GST_STATE_NULL);
  gst_object_unref(sink);
  return out;
}

void useSilentOutput() { ::setenv("SONORELL_AUDIO_SINK", "fakesink sync=true", 1); }

}  // namespace sonorell::cli
