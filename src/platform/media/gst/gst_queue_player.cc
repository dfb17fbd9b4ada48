#include "platform/media/gst/gst_queue_player.h"

#include <gst/app/gstappsrc.h>
#include <gst/audio/audio.h>
#include <gst/gst.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "platform/media/gst/gst_tls.h"
#include "platform/media/media_errors.h"
#include "platform/media/media_log.h"
#include "platform/media/pulse/stream_identity.h"

namespace sonorell {
namespace {

using WeakPlayer = std::weak_ptr<QueuePlayerBase>;

constexpr GstClockTime kStallMargin = 300 * GST_MSECOND;
constexpr auto kStallCheckInterval = std::chrono::milliseconds(100);
// How long the gapless hand-over waits for the next item's loader to say what it is.
constexpr auto kProbeWaitLimit = std::chrono::seconds(5);
// playbin's GstPlayFlags: audio and software volume, no video or subtitles.
constexpr guint kPlayFlagsAudioOnly = 0x2 | 0x10;
// How much decoded audio the decoder gathers into one buffer. An MP3 frame lasts 26 ms, and each
// buffer costs a hand-off to playsink's queue thread and a pass through every element after the
// decoder: at one frame a buffer that overhead cost as much as the decoding. Half a second is
// decoded in well under a millisecond; when bytes stop coming, at most this much decoded audio
// waits in the decoder for the rest of its buffer.
constexpr gint64 kDecodedBufferNs = 500 * GST_MSECOND;
// A stream's first second goes out frame by frame: the player applies its rate and any pending
// seek right after the preroll, with a flush, and what had gone ahead to the sink by then is
// thrown away. Small buffers there keep that to a frame or two.
constexpr GstClockTime kUnbatchedLeadNs = GST_SECOND;

void ensureGstInitialized() {
  static std::once_flag once;
  std::call_once(once, [] { gst_init(nullptr, nullptr); });
}

void deleteWeak(gpointer data) { delete static_cast<WeakPlayer*>(data); }

// Counts a decoder's output until its first second has gone out, then has it gather buffers.
void batchDecodedAudio(GstElement* element) {
  if (!GST_IS_AUDIO_DECODER(element)) return;
  GstPad* pad = gst_element_get_static_pad(element, "src");
  if (!pad) return;
  // Buffers leave a decoder one at a time, under its stream lock: the count needs no lock.
  gst_pad_add_probe(
      pad, GST_PAD_PROBE_TYPE_BUFFER,
      [](GstPad* probePad, GstPadProbeInfo* info, gpointer data) -> GstPadProbeReturn {
        auto* sent = static_cast<GstClockTime*>(data);
        GstClockTime duration = GST_BUFFER_DURATION(GST_PAD_PROBE_INFO_BUFFER(info));
        if (GST_CLOCK_TIME_IS_VALID(duration)) *sent += duration;
        if (*sent < kUnbatchedLeadNs) return GST_PAD_PROBE_OK;
        GstObject* decoder = gst_pad_get_parent(probePad);
        if (decoder) {
          g_object_set(decoder, "min-latency", kDecodedBufferNs, nullptr);
          gst_object_unref(decoder);
        }
        return GST_PAD_PROBE_REMOVE;
      },
      new GstClockTime(0), [](gpointer data) { delete static_cast<GstClockTime*>(data); });
  gst_object_unref(pad);
}

// Set while a GStreamer thread runs one of our callbacks. If the player's last reference is
// dropped there, its pipeline must be stopped from another thread: GStreamer cannot join a
// streaming thread from itself.
thread_local int tCallbackDepth = 0;

struct InCallback {
  InCallback() { ++tCallbackDepth; }
  ~InCallback() { --tCallbackDepth; }
};

GstQueuePlayer* lockPlayer(gpointer data, std::shared_ptr<QueuePlayerBase>& keep) {
  keep = static_cast<WeakPlayer*>(data)->lock();
  return static_cast<GstQueuePlayer*>(keep.get());
}

void teardown(GstElement* playbin, GstElement* scaletempo) {
  if (playbin) {
    gst_element_set_state(playbin, GST_STATE_NULL);
    gst_object_unref(playbin);
  }
  if (scaletempo) gst_object_unref(scaletempo);
}

ErrorPtr mediaError(int64_t code, std::string description) {
  return Error::make(std::string(kMediaErrorDomain), code, std::move(description), nullptr);
}

bool isPulseSink(GstObject* object) {
  if (!object || !GST_IS_ELEMENT(object)) return false;
  GstElementFactory* factory = gst_element_get_factory(GST_ELEMENT(object));
  return factory &&
         g_strcmp0(gst_plugin_feature_get_name(GST_PLUGIN_FEATURE(factory)), "pulsesink") == 0;
}

// The name mixers show: the host's, when it named its application, else ours.
std::string applicationName() {
  const char* name = g_get_application_name();
  const char* program = g_get_prgname();
  if (!name || !*name || (program && g_strcmp0(name, program) == 0)) {
    return std::string(pulse::kDefaultApplicationName);
  }
  return name;
}

// Mixes one buffer of raw audio to mono floats; empty for formats the tap does not read.
std::vector<float> monoSamples(GstBuffer* buffer, const GstAudioInfo& info) {
  std::vector<float> out;
  GstMapInfo map;
  if (!gst_buffer_map(buffer, &map, GST_MAP_READ)) return out;
  int channels = std::max(1, GST_AUDIO_INFO_CHANNELS(&info));
  GstAudioFormat format = GST_AUDIO_INFO_FORMAT(&info);
  size_t width = format == GST_AUDIO_FORMAT_F32LE   ? 4
                 : format == GST_AUDIO_FORMAT_F64LE ? 8
                 : format == GST_AUDIO_FORMAT_S16LE ? 2
                                                    : 0;
  if (width != 0) {
    size_t frames = map.size / (width * static_cast<size_t>(channels));
    out.resize(frames);
    for (size_t f = 0; f < frames; ++f) {
      double sum = 0;
      for (int c = 0; c < channels; ++c) {
        const guint8* p = map.data + (f * channels + static_cast<size_t>(c)) * width;
        if (width == 4) {
          float v;
          std::memcpy(&v, p, 4);
          sum += v;
        } else if (width == 8) {
          double v;
          std::memcpy(&v, p, 8);
          sum += v;
        } else {
          int16_t v;
          std::memcpy(&v, p, 2);
          sum += v / 32768.0;
        }
      }
      out[f] = static_cast<float>(sum / channels);
    }
  }
  gst_buffer_unmap(buffer, &map);
  return out;
}

// Whether the audio sink is busy with a buffer. A sink waits inside its chain function while its
// device has no room (a sound server that reads in large blocks can hold the first buffers for
// a second or more); that is a full output, not a decoder that starved. Written on the streaming
// thread, read on the player's queue.
struct SinkOccupancy {
  std::atomic<bool> inChain{false};
  std::atomic<int64_t> lastReturnMonotonicNs{-1};  // when the sink last gave a buffer back
};

GstFlowReturn chainThroughSink(GstPad* pad, GstObject* parent, GstBuffer* buffer) {
  auto* occupancy = static_cast<std::shared_ptr<SinkOccupancy>*>(pad->chaindata)->get();
  occupancy->inChain = true;
  const GstFlowReturn result = gst_proxy_pad_chain_default(pad, parent, buffer);
  occupancy->lastReturnMonotonicNs = g_get_monotonic_time() * 1000;
  occupancy->inChain = false;
  return result;
}

}  // namespace

struct GstQueuePlayer::Pipeline {
  GstElement* playbin = nullptr;
  GstElement* scaletempo = nullptr;
  GstElement* sink = nullptr;
  // Sink-pad state, written on the streaming thread.
  std::mutex padMutex;
  GstSegment segment{};
  GstAudioInfo audioInfo{};
  bool haveAudioInfo = false;
  std::atomic<int64_t> lastEndRunning{-1};  // running time where decoded audio runs out
  // Shared with the sink pad's chain function, which may outlive the player by a teardown.
  std::shared_ptr<SinkOccupancy> occupancy = std::make_shared<SinkOccupancy>();
};

std::shared_ptr<GstQueuePlayer> GstQueuePlayer::create(std::weak_ptr<AudioSession> session) {
  ensureGstInitialized();
  std::shared_ptr<GstQueuePlayer> player(new GstQueuePlayer());
  player->session_ = std::move(session);
  if (!player->build()) return nullptr;
  return player;
}

GstQueuePlayer::GstQueuePlayer()
    : queue_(DispatchQueue::create("io.sonorell.media.gst")), gst_(new Pipeline()) {
  gst_segment_init(&gst_->segment, GST_FORMAT_TIME);
}

std::shared_ptr<GstQueuePlayer> GstQueuePlayer::self() {
  return std::static_pointer_cast<GstQueuePlayer>(shared_from_this());
}

void GstQueuePlayer::async(std::function<void(GstQueuePlayer&)> work) {
  WeakPlayer weak = weak_from_this();
  queue_->async([weak, work = std::move(work)] {
    if (auto strong = weak.lock()) work(static_cast<GstQueuePlayer&>(*strong));
  });
}

bool GstQueuePlayer::build() {
  gst_->playbin = gst_element_factory_make("playbin", "sonorell-player");
  gst_->scaletempo = gst_element_factory_make("scaletempo", nullptr);
  if (!gst_->playbin || !gst_->scaletempo) {
    media_log::emit(LogType::Error, "[Media] GStreamer lacks playbin or scaletempo");
    return false;
  }
  gst_object_ref_sink(gst_->scaletempo);
  const char* description = std::getenv("SONORELL_AUDIO_SINK");
  if (!description || !*description) description = "autoaudiosink";
  GError* error = nullptr;
  gst_->sink = gst_parse_bin_from_description(description, TRUE, &error);
  if (!gst_->sink) {
    media_log::emit(LogType::Error, std::string("[Media] audio sink \"") + description +
                                        "\" unusable (" + (error ? error->message : "unknown") +
                                        "); using fakesink");
    g_clear_error(&error);
    gst_->sink = gst_parse_bin_from_description("fakesink sync=true", TRUE, nullptr);
  }
  g_object_set(gst_->playbin, "flags", kPlayFlagsAudioOnly, "audio-sink", gst_->sink,
               "audio-filter", gst_->scaletempo, nullptr);
  // A PulseAudio sink named in the description exists now; autoaudiosink makes its own when it
  // opens, and playbin reports that one as it is added.
  GstIterator* children = gst_bin_iterate_recurse(GST_BIN(gst_->sink));
  gst_iterator_foreach(
      children, [](const GValue* item, gpointer) { nameStream(g_value_get_object(item)); },
      nullptr);
  gst_iterator_free(children);
  g_signal_connect(gst_->playbin, "deep-element-added",
                   G_CALLBACK(+[](GstBin*, GstBin*, GstElement* element, gpointer) {
                     nameStream(element);
                     batchDecodedAudio(element);
                   }),
                   nullptr);

  WeakPlayer weak = weak_from_this();
  GstPad* pad = gst_element_get_static_pad(gst_->sink, "sink");
  gst_pad_add_probe(
      pad, static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_EVENT_BOTH),
      [](GstPad* probePad, GstPadProbeInfo* info, gpointer data) -> GstPadProbeReturn {
        InCallback guard;
        std::shared_ptr<QueuePlayerBase> keep;
        if (auto* player = lockPlayer(data, keep)) player->onSinkBuffer(probePad, info);
        return GST_PAD_PROBE_OK;
      },
      new WeakPlayer(weak), deleteWeak);
  // The sink bin's ghost pad forwards buffers to the real sink; timing that call tells a full
  // output from a starved one.
  if (GST_IS_GHOST_PAD(pad)) {
    gst_pad_set_chain_function_full(
        pad, chainThroughSink, new std::shared_ptr<SinkOccupancy>(gst_->occupancy),
        [](gpointer data) { delete static_cast<std::shared_ptr<SinkOccupancy>*>(data); });
  }
  gst_object_unref(pad);

  g_signal_connect_data(
      gst_->playbin, "about-to-finish", G_CALLBACK(+[](GstElement*, gpointer data) {
        InCallback guard;
        std::shared_ptr<QueuePlayerBase> keep;
        if (auto* player = lockPlayer(data, keep)) player->aboutToFinish();
      }),
      new WeakPlayer(weak), [](gpointer data, GClosure*) { deleteWeak(data); },
      static_cast<GConnectFlags>(0));
  g_signal_connect_data(
      gst_->playbin, "source-setup",
      G_CALLBACK(+[](GstElement*, GstElement* source, gpointer data) {
        InCallback guard;
        std::shared_ptr<QueuePlayerBase> keep;
        if (auto* player = lockPlayer(data, keep)) player->sourceSetup(source);
      }),
      new WeakPlayer(weak), [](gpointer data, GClosure*) { deleteWeak(data); },
      static_cast<GConnectFlags>(0));

  GstBus* bus = gst_element_get_bus(gst_->playbin);
  gst_bus_set_sync_handler(
      bus,
      [](GstBus*, GstMessage* message, gpointer data) -> GstBusSyncReply {
        InCallback guard;
        auto weakPlayer = *static_cast<WeakPlayer*>(data);
        if (auto strong = weakPlayer.lock()) {
          auto* player = static_cast<GstQueuePlayer*>(strong.get());
          gst_message_ref(message);
          player->queue_->async([weakPlayer, message] {
            if (auto again = weakPlayer.lock()) {
              static_cast<GstQueuePlayer*>(again.get())->handleMessage(message);
            }
            gst_message_unref(message);
          });
        }
        return GST_BUS_DROP;
      },
      new WeakPlayer(weak), deleteWeak);
  gst_object_unref(bus);

  stallTimer_ = DispatchTimer::create(queue_, kStallCheckInterval, Duration{0}, [weak] {
    if (auto strong = weak.lock()) static_cast<GstQueuePlayer*>(strong.get())->checkStall();
  });
  stallTimer_->resume();
  return true;
}

GstQueuePlayer::~GstQueuePlayer() {
  if (stallTimer_) stallTimer_->cancel();
  for (auto& [item, source] : sources_) source->detach();
  if (gst_->playbin) {
    GstBus* bus = gst_element_get_bus(gst_->playbin);
    gst_bus_set_sync_handler(bus, nullptr, nullptr, nullptr);
    gst_object_unref(bus);
  }
  GstElement* playbin = gst_->playbin;
  GstElement* scaletempo = gst_->scaletempo;
  if (tCallbackDepth > 0) {
    static const DispatchQueuePtr teardownQueue =
        DispatchQueue::create("io.sonorell.media.teardown");
    teardownQueue->async([playbin, scaletempo] { teardown(playbin, scaletempo); });
  } else {
    teardown(playbin, scaletempo);
  }
}

void GstQueuePlayer::complete(Seek seek, bool finished) {
  completeSeek(seek.replyQueue, std::move(seek.completion), finished);
}

void GstQueuePlayer::setAudioTapForTesting(AudioTap tap) {
  std::lock_guard lock(mutex_);
  tap_ = std::move(tap);
}

std::shared_ptr<GstItemSource> GstQueuePlayer::sourceFor(const ItemPtr& item) {
  std::shared_ptr<GstItemSource> source;
  {
    std::lock_guard lock(mutex_);
    auto& slot = sources_[item];
    if (!slot) slot = GstItemSource::create(item->url(), item->resourceLoaderPtr());
    source = slot;
  }
  WeakPlayer weak = weak_from_this();
  source->startProbe([weak] {
    if (auto strong = weak.lock()) static_cast<GstQueuePlayer*>(strong.get())->queueDidChange();
  });
  return source;
}

void GstQueuePlayer::queueDidChange() {
  async([](GstQueuePlayer& p) { p.sync(); });
}

void GstQueuePlayer::sync() {
  std::vector<ItemPtr> items = this->items();
  std::vector<std::shared_ptr<GstItemSource>> dropped;
  {
    std::lock_guard lock(mutex_);
    for (auto it = sources_.begin(); it != sources_.end();) {
      bool queued = std::find(items.begin(), items.end(), it->first) != items.end();
      if (!queued && it->first != loaded_ && it->first != pendingNext_) {
        dropped.push_back(it->second);
        it = sources_.erase(it);
      } else {
        ++it;
      }
    }
  }
  for (auto& source : dropped) source->detach();
  // The current item and the next one learn what they are ahead of need.
  for (size_t i = 0; i < items.size() && i < 2; ++i) sourceFor(items[i]);

  ItemPtr current = items.empty() ? nullptr : items.front();
  ItemPtr loaded;
  {
    std::lock_guard lock(mutex_);
    loaded = loaded_;
  }
  if (!current) {
    if (loaded) stopPipeline();
    return;
  }
  if (current == loaded) {
    applyRate();
    return;
  }
  GstItemSource::Probe probe = sourceFor(current)->probe();
  if (!probe.done) return;  // the probe's answer calls sync() again
  load(current, probe);
}

void GstQueuePlayer::stopPipeline(bool keepPendingSeek) {
  std::optional<Seek> pending;
  std::optional<Seek> inFlight;
  {
    std::lock_guard lock(mutex_);
    loaded_ = pendingNext_ = sourceItem_ = nullptr;
    prerolled_ = ended_ = stalled_ = failed_ = outputLost_ = false;
    settledSeconds_.reset();
    if (!keepPendingSeek) pending = std::move(pendingSeek_);
    inFlight = std::move(seekInFlight_);
    if (!keepPendingSeek) pendingSeek_.reset();
    seekInFlight_.reset();
  }
  gst_element_set_state(gst_->playbin, GST_STATE_READY);
  if (pending) complete(std::move(*pending), false);
  if (inFlight) complete(std::move(*inFlight), false);
}

void GstQueuePlayer::load(const ItemPtr& item, const GstItemSource::Probe& probe) {
  // A seek made while the item was being probed belongs to it.
  stopPipeline(true);
  {
    std::lock_guard lock(mutex_);
    loaded_ = item;
  }
  if (probe.error) {
    std::lock_guard lock(mutex_);
    failed_ = true;
    PlayerItemControl::setStatus(*item, PlayerItemStatus::Failed, probe.error);
    return;
  }
  bool keepPitch = item->audioTimePitchAlgorithm() != TimePitchAlgorithm::Varispeed;
  g_object_set(gst_->playbin, "audio-filter", keepPitch ? gst_->scaletempo : nullptr, nullptr);
  std::string uri =
      probe.redirect ? probe.redirect->url
                     : "appsrc://item-" + std::to_string(reinterpret_cast<uintptr_t>(item.get()));
  float rate;
  {
    std::lock_guard lock(mutex_);
    sourceItem_ = item;
    appliedRate_ = 1.0f;
    rate = rate_;
  }
  gst_->lastEndRunning = -1;
  g_object_set(gst_->playbin, "uri", uri.c_str(), nullptr);
  gst_element_set_state(gst_->playbin, rate > 0 ? GST_STATE_PLAYING : GST_STATE_PAUSED);
}

void GstQueuePlayer::nameStream(void* element) {
  auto* object = static_cast<GstElement*>(element);
  if (!isPulseSink(GST_OBJECT(object))) return;
  const std::string name = applicationName();
  GstStructure* props = gst_structure_new(
      "props", "application.name", G_TYPE_STRING, name.c_str(), "application.id", G_TYPE_STRING,
      std::string(pulse::kStreamApplicationID).c_str(), "application.icon_name", G_TYPE_STRING,
      std::string(pulse::kStreamIconName).c_str(), "media.role", G_TYPE_STRING,
      std::string(pulse::kStreamRole).c_str(), nullptr);
  g_object_set(object, "stream-properties", props, "client-name", name.c_str(), nullptr);
  gst_structure_free(props);
}

void GstQueuePlayer::sourceSetup(void* element) {
  std::shared_ptr<GstItemSource> source;
  ItemPtr item;
  {
    std::lock_guard lock(mutex_);
    item = sourceItem_;
    auto it = sources_.find(item);
    if (it != sources_.end()) source = it->second;
  }
  if (!item || !source) return;
  if (GST_IS_APP_SRC(element)) {
    WeakPlayer weak = weak_from_this();
    std::weak_ptr<PlayerItem> weakItem = item;
    source->attach(element, [weak, weakItem](ErrorPtr error, bool endedEarly) {
      auto strong = weak.lock();
      auto strongItem = weakItem.lock();
      if (!strong || !strongItem) return;
      auto* player = static_cast<GstQueuePlayer*>(strong.get());
      player->async([strongItem, error, endedEarly](GstQueuePlayer& p) {
        p.onSourceFailure(strongItem, error, endedEarly);
      });
    });
    return;
  }
  GstItemSource::Probe probe = source->probe();
  if (!probe.redirect) return;
  auto* http = static_cast<GstElement*>(element);
  gst_tls::applyTrust(http);
  // The HTTP source makes its own Range requests as playback reads and seeks.
  if (g_object_class_find_property(G_OBJECT_GET_CLASS(http), "extra-headers")) {
    GstStructure* headers = gst_structure_new_empty("extra-headers");
    for (const auto& [name, value] : probe.redirect->headers) {
      if (g_ascii_strcasecmp(name.c_str(), "Range") == 0) continue;
      gst_structure_set(headers, name.c_str(), G_TYPE_STRING, value.c_str(), nullptr);
    }
    g_object_set(http, "extra-headers", headers, nullptr);
    gst_structure_free(headers);
  }
}

void GstQueuePlayer::aboutToFinish() {
  ItemPtr current;
  ItemPtr next;
  {
    std::lock_guard lock(mutex_);
    current = loaded_;
  }
  if (!current || actionAtItemEnd() != ActionAtItemEnd::Advance) return;
  std::vector<ItemPtr> items = this->items();
  auto it = std::find(items.begin(), items.end(), current);
  if (it == items.end() || it + 1 == items.end()) return;
  next = *(it + 1);
  auto source = sourceFor(next);
  if (!source->waitForProbe(kProbeWaitLimit)) return;
  GstItemSource::Probe probe = source->probe();
  if (probe.error) return;  // it fails when the end of the current item makes it current
  std::string uri =
      probe.redirect ? probe.redirect->url
                     : "appsrc://item-" + std::to_string(reinterpret_cast<uintptr_t>(next.get()));
  {
    std::lock_guard lock(mutex_);
    if (loaded_ != current) return;
    pendingNext_ = next;
    sourceItem_ = next;
  }
  g_object_set(gst_->playbin, "uri", uri.c_str(), nullptr);
}

void GstQueuePlayer::onSinkBuffer(void* padPtr, void* infoPtr) {
  auto* info = static_cast<GstPadProbeInfo*>(infoPtr);
  (void)padPtr;
  if (info->type & GST_PAD_PROBE_TYPE_BUFFER) {
    GstBuffer* buffer = GST_PAD_PROBE_INFO_BUFFER(info);
    GstClockTime pts = GST_BUFFER_PTS(buffer);
    GstClockTime duration = GST_BUFFER_DURATION(buffer);
    if (!GST_CLOCK_TIME_IS_VALID(pts)) return;
    std::lock_guard padLock(gst_->padMutex);
    if (!GST_CLOCK_TIME_IS_VALID(duration) && gst_->haveAudioInfo) {
      duration =
          gst_util_uint64_scale(gst_buffer_get_size(buffer) / GST_AUDIO_INFO_BPF(&gst_->audioInfo),
                                GST_SECOND, GST_AUDIO_INFO_RATE(&gst_->audioInfo));
    }
    GstClockTime end = pts + (GST_CLOCK_TIME_IS_VALID(duration) ? duration : 0);
    guint64 startRunning = gst_segment_to_running_time(&gst_->segment, GST_FORMAT_TIME, pts);
    guint64 endRunning = gst_segment_to_running_time(&gst_->segment, GST_FORMAT_TIME, end);
    if (GST_CLOCK_TIME_IS_VALID(endRunning))
      gst_->lastEndRunning = static_cast<int64_t>(endRunning);
    AudioTap tap;
    {
      std::lock_guard lock(mutex_);
      tap = tap_;
    }
    if (tap && gst_->haveAudioInfo) {
      std::vector<float> samples = monoSamples(buffer, gst_->audioInfo);
      if (!samples.empty()) {
        tap(samples.data(), samples.size(), GST_AUDIO_INFO_RATE(&gst_->audioInfo),
            static_cast<int64_t>(startRunning), static_cast<int64_t>(endRunning));
      }
    }
    return;
  }
  GstEvent* event = GST_PAD_PROBE_INFO_EVENT(info);
  std::lock_guard padLock(gst_->padMutex);
  switch (GST_EVENT_TYPE(event)) {
    case GST_EVENT_SEGMENT: {
      const GstSegment* segment;
      gst_event_parse_segment(event, &segment);
      gst_segment_copy_into(segment, &gst_->segment);
      break;
    }
    case GST_EVENT_CAPS: {
      GstCaps* caps;
      gst_event_parse_caps(event, &caps);
      gst_->haveAudioInfo = gst_audio_info_from_caps(&gst_->audioInfo, caps);
      break;
    }
    case GST_EVENT_FLUSH_STOP:
      gst_->lastEndRunning = -1;
      break;
    default:
      break;
  }
}

float GstQueuePlayer::rate() const {
  std::lock_guard lock(mutex_);
  return rate_;
}

void GstQueuePlayer::setRate(float rate) {
  {
    std::lock_guard lock(mutex_);
    rate_ = std::max(0.0f, rate);
    if (rate_ > 0) stalled_ = false;
  }
  async([](GstQueuePlayer& p) { p.applyRate(); });
}

void GstQueuePlayer::applyRate() {
  float rate;
  float applied;
  {
    std::lock_guard lock(mutex_);
    // A sink that lost its server cannot play again: the session's reset replaces the player.
    if (!loaded_ || !prerolled_ || failed_ || outputLost_) return;
    rate = rate_;
    applied = appliedRate_;
  }
  if (rate <= 0) {
    gst_element_set_state(gst_->playbin, GST_STATE_PAUSED);
    return;
  }
  if (rate != applied) {
    gint64 position = 0;
    if (!gst_element_query_position(gst_->playbin, GST_FORMAT_TIME, &position)) position = 0;
    if (gst_element_seek(gst_->playbin, rate, GST_FORMAT_TIME,
                         static_cast<GstSeekFlags>(GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_ACCURATE),
                         GST_SEEK_TYPE_SET, position, GST_SEEK_TYPE_NONE, -1)) {
      std::lock_guard lock(mutex_);
      appliedRate_ = rate;
    }
  }
  gst_element_set_state(gst_->playbin, GST_STATE_PLAYING);
}

void GstQueuePlayer::seekToTime(MediaTime time, SeekCompletion completion) {
  seekToTime(time, MediaTime::zero(), MediaTime::zero(), std::move(completion));
}

void GstQueuePlayer::seekToTime(MediaTime time, MediaTime toleranceBefore, MediaTime toleranceAfter,
                                SeekCompletion completion) {
  double seconds = time.isNumeric() ? std::max(0.0, time.seconds()) : 0.0;
  bool accurate = !(toleranceBefore.isNumeric() && toleranceBefore.seconds() > 0) &&
                  !(toleranceAfter.isNumeric() && toleranceAfter.seconds() > 0);
  auto seek =
      std::make_shared<Seek>(Seek{seconds, accurate, std::move(completion), seekCompletionQueue()});
  async([seek](GstQueuePlayer& p) { p.startSeek(std::move(*seek)); });
}

void GstQueuePlayer::startSeek(Seek seek) {
  std::optional<Seek> superseded;
  float rate;
  {
    std::lock_guard lock(mutex_);
    if (!loaded_ || !prerolled_) {
      // Made before the item is ready: performed once it is.
      superseded = std::move(pendingSeek_);
      pendingSeek_ = std::move(seek);
      if (superseded) complete(std::move(*superseded), false);
      return;
    }
    superseded = std::move(seekInFlight_);
    seekInFlight_ = seek;
    seekInFlight_->completion = std::move(seek.completion);
    ended_ = false;
    rate = appliedRate_;
  }
  if (superseded) complete(std::move(*superseded), false);
  auto flags = static_cast<GstSeekFlags>(
      GST_SEEK_FLAG_FLUSH | (seek.accurate ? GST_SEEK_FLAG_ACCURATE
                                           : GST_SEEK_FLAG_KEY_UNIT | GST_SEEK_FLAG_SNAP_NEAREST));
  auto target = static_cast<gint64>(seek.seconds * GST_SECOND);
  if (!gst_element_seek(gst_->playbin, rate, GST_FORMAT_TIME, flags, GST_SEEK_TYPE_SET, target,
                        GST_SEEK_TYPE_NONE, -1)) {
    std::optional<Seek> failed;
    {
      std::lock_guard lock(mutex_);
      failed = std::move(seekInFlight_);
      seekInFlight_.reset();
    }
    if (failed) complete(std::move(*failed), false);
  }
}

MediaTime GstQueuePlayer::currentTime() const {
  ItemPtr item;
  {
    std::lock_guard lock(mutex_);
    if (!loaded_) return MediaTime::zero();
    if (seekInFlight_) return MediaTime::fromSeconds(seekInFlight_->seconds);
    if (pendingSeek_) return MediaTime::fromSeconds(pendingSeek_->seconds);
    if (ended_) return loaded_->duration().isNumeric() ? loaded_->duration() : MediaTime::zero();
    if (!prerolled_) return MediaTime::zero();
    item = loaded_;
  }
  gint64 position = 0;
  const bool answered =
      gst_element_query_position(gst_->playbin, GST_FORMAT_TIME, &position) && position >= 0;
  std::lock_guard lock(mutex_);
  // Right after a seek the pipeline may not answer yet, or answer from before it: it is where
  // the seek put it until it answers from there.
  if (settledSeconds_) {
    const MediaTime settled = MediaTime::fromSeconds(*settledSeconds_);
    if (answered && position + 100'000'000 >= settled.nanoseconds()) {
      settledSeconds_.reset();
    } else if (!answered || rate_ <= 0) {
      return settled;
    }
  }
  return answered ? MediaTime::fromNanoseconds(position) : MediaTime::zero();
}

void GstQueuePlayer::refreshDuration(const ItemPtr& item) {
  gint64 duration = 0;
  if (gst_element_query_duration(gst_->playbin, GST_FORMAT_TIME, &duration) && duration > 0) {
    PlayerItemControl::setDuration(*item, MediaTime::fromNanoseconds(duration));
  }
}

void GstQueuePlayer::handleMessage(void* messagePtr) {
  auto* message = static_cast<GstMessage*>(messagePtr);
  switch (GST_MESSAGE_TYPE(message)) {
    case GST_MESSAGE_ASYNC_DONE:
      onAsyncDone();
      break;
    case GST_MESSAGE_EOS:
      onEos();
      break;
    case GST_MESSAGE_STREAM_START:
      onStreamStart();
      break;
    case GST_MESSAGE_DURATION_CHANGED: {
      ItemPtr item;
      {
        std::lock_guard lock(mutex_);
        item = loaded_;
      }
      if (item) refreshDuration(item);
      break;
    }
    case GST_MESSAGE_REQUEST_STATE:
      onStateRequest(message);
      break;
    case GST_MESSAGE_ERROR: {
      if (onOutputLost(message->src)) break;
      GError* error = nullptr;
      gchar* debug = nullptr;
      gst_message_parse_error(message, &error, &debug);
      int64_t code = kMediaErrorDecodeFailed;
      if (error->domain == GST_STREAM_ERROR &&
          (error->code == GST_STREAM_ERROR_TYPE_NOT_FOUND ||
           error->code == GST_STREAM_ERROR_WRONG_TYPE || error->code == GST_STREAM_ERROR_DEMUX)) {
        code = kMediaErrorFormatNotRecognized;
      } else if (error->domain == GST_RESOURCE_ERROR) {
        code = kMediaErrorNetworkReadFailed;
      }
      media_log::emit(LogType::Error, std::string("[Media] pipeline error from ") +
                                          GST_OBJECT_NAME(message->src) + ": " + error->message +
                                          " (" + (debug ? debug : "") + ")");
      onError(mediaError(code, error->message));
      g_clear_error(&error);
      g_free(debug);
      break;
    }
    default:
      break;
  }
}

void GstQueuePlayer::onAsyncDone() {
  ItemPtr item;
  bool firstPreroll = false;
  bool recovered = false;
  std::optional<Seek> finished;
  std::optional<Seek> pending;
  {
    std::lock_guard lock(mutex_);
    item = loaded_;
    if (!item || failed_) return;
    if (!prerolled_) {
      prerolled_ = firstPreroll = true;
      pending = std::move(pendingSeek_);
      pendingSeek_.reset();
    }
    finished = std::move(seekInFlight_);
    seekInFlight_.reset();
    if (finished) settledSeconds_ = finished->seconds;
    recovered = stalled_;
    stalled_ = false;
  }
  if (firstPreroll) {
    refreshDuration(item);
    PlayerItemControl::setBufferState(*item, true, false, false);
    PlayerItemControl::setStatus(*item, PlayerItemStatus::ReadyToPlay);
  }
  if (recovered) PlayerItemControl::setBufferState(*item, true, false, false);
  if (finished) complete(std::move(*finished), true);
  if (pending) {
    startSeek(std::move(*pending));
  } else if (firstPreroll) {
    applyRate();
  }
}

void GstQueuePlayer::finishItem(const ItemPtr& item, bool advance) {
  std::shared_ptr<GstItemSource> source;
  {
    std::lock_guard lock(mutex_);
    auto it = sources_.find(item);
    if (it != sources_.end()) source = it->second;
  }
  if (source && source->endedEarly()) {
    PlayerItemControl::post(*item, PlayerItemEvent::FailedToPlayToEndTime, source->failure());
  } else {
    PlayerItemControl::post(*item, PlayerItemEvent::DidPlayToEndTime);
  }
  if (advance) dropEndedItem(item);
}

void GstQueuePlayer::onEos() {
  ItemPtr item;
  {
    std::lock_guard lock(mutex_);
    item = loaded_;
    if (!item || ended_ || failed_) return;
    ended_ = true;
    pendingNext_ = nullptr;
  }
  ActionAtItemEnd action = actionAtItemEnd();
  if (action == ActionAtItemEnd::Pause) {
    std::lock_guard lock(mutex_);
    rate_ = 0;
  }
  finishItem(item, action == ActionAtItemEnd::Advance);
  // After an advance, the base's change of current item calls sync(), which loads the next one.
  if (action == ActionAtItemEnd::Advance) sync();
}

void GstQueuePlayer::onStreamStart() {
  ItemPtr old;
  ItemPtr next;
  float rate;
  {
    std::lock_guard lock(mutex_);
    if (!pendingNext_) return;
    old = loaded_;
    next = loaded_ = pendingNext_;
    pendingNext_ = nullptr;
    ended_ = stalled_ = false;
    settledSeconds_.reset();
    prerolled_ = true;
    rate = rate_;
    // The new stream starts with a segment at the normal rate.
    appliedRate_ = 1.0f;
  }
  if (old) finishItem(old, true);
  refreshDuration(next);
  PlayerItemControl::setBufferState(*next, true, false, false);
  PlayerItemControl::setStatus(*next, PlayerItemStatus::ReadyToPlay);
  if (rate > 0 && rate != 1.0f) applyRate();
  sync();
}

void GstQueuePlayer::onError(ErrorPtr error) {
  ItemPtr item;
  std::shared_ptr<GstItemSource> source;
  {
    std::lock_guard lock(mutex_);
    item = loaded_;
    if (!item) return;
    auto it = sources_.find(item);
    if (it != sources_.end()) source = it->second;
  }
  // The loader's own error explains the failure better than the pipeline's view of it.
  if (source && source->failure() && !source->endedEarly()) error = source->failure();
  onSourceFailure(item, error, false);
}

void GstQueuePlayer::onStateRequest(void* messagePtr) {
  auto* message = static_cast<GstMessage*>(messagePtr);
  // pulsesink asks for PAUSED when the server sends our stream a cork request (a call, or a
  // stream of a role that takes precedence), and for PLAYING when it may go on.
  if (!isPulseSink(message->src)) return;
  GstState state = GST_STATE_VOID_PENDING;
  gst_message_parse_request_state(message, &state);
  auto session = session_.lock();
  if (!session || (state != GST_STATE_PAUSED && state != GST_STATE_PLAYING)) return;
  {
    std::lock_guard lock(mutex_);
    if (!loaded_) return;
  }
  media_log::emit(LogType::Info, std::string("[Media] the sound server asks to ") +
                                     (state == GST_STATE_PAUSED ? "cork" : "uncork") +
                                     " our stream");
  session->raiseServerInterruption(state == GST_STATE_PAUSED ? AudioSessionInterruptionType::Began
                                                             : AudioSessionInterruptionType::Ended);
}

bool GstQueuePlayer::onOutputLost(void* sourcePtr) {
  auto* source = static_cast<GstObject*>(sourcePtr);
  if (!isPulseSink(source)) return false;
  ItemPtr item;
  {
    std::lock_guard lock(mutex_);
    // Before the first preroll the sink never worked: that is an ordinary failure.
    if (!loaded_ || !prerolled_ || failed_) return false;
    if (outputLost_) return true;
    outputLost_ = true;
    item = loaded_;
  }
  gint64 position = 0;
  const bool answered =
      gst_element_query_position(gst_->playbin, GST_FORMAT_TIME, &position) && position >= 0;
  media_log::emit(LogType::Error,
                  "[Media] the audio sink lost its sound server; waiting as in a stall");
  {
    std::lock_guard lock(mutex_);
    if (loaded_ != item) return true;
    // Where playback stood is where it goes on from.
    if (answered) settledSeconds_ = static_cast<double>(position) / GST_SECOND;
    stalled_ = true;
    rate_ = 0;
  }
  gst_element_set_state(gst_->playbin, GST_STATE_READY);
  PlayerItemControl::setBufferState(*item, false, true, false);
  PlayerItemControl::post(*item, PlayerItemEvent::PlaybackStalled);
  return true;
}

void GstQueuePlayer::onSourceFailure(const ItemPtr& item, ErrorPtr error, bool endedEarly) {
  if (endedEarly) return;  // the stream drains; its end is reported as failed-to-play-to-end
  std::optional<Seek> pending;
  std::optional<Seek> inFlight;
  {
    std::lock_guard lock(mutex_);
    if (loaded_ != item) {
      // Not playing yet: it fails when it becomes current.
      PlayerItemControl::setStatus(*item, PlayerItemStatus::Failed, error);
      return;
    }
    failed_ = true;
    pending = std::move(pendingSeek_);
    inFlight = std::move(seekInFlight_);
    pendingSeek_.reset();
    seekInFlight_.reset();
  }
  PlayerItemControl::setStatus(*item, PlayerItemStatus::Failed, error);
  gst_element_set_state(gst_->playbin, GST_STATE_READY);
  if (pending) complete(std::move(*pending), false);
  if (inFlight) complete(std::move(*inFlight), false);
}

void GstQueuePlayer::checkStall() {
  ItemPtr item;
  std::shared_ptr<GstItemSource> source;
  {
    std::lock_guard lock(mutex_);
    item = loaded_;
    if (!item || !prerolled_ || ended_ || failed_ || stalled_ || rate_ <= 0 || seekInFlight_) {
      return;
    }
    auto it = sources_.find(item);
    if (it != sources_.end()) source = it->second;
  }
  if (!item->duration().isNumeric()) refreshDuration(item);
  bool allRead = source && source->reachedEnd();
  PlayerItemControl::setBufferState(*item, true, false, allRead);
  GstState state = GST_STATE_NULL;
  GstState pendingState = GST_STATE_NULL;
  if (gst_element_get_state(gst_->playbin, &state, &pendingState, 0) != GST_STATE_CHANGE_SUCCESS ||
      state != GST_STATE_PLAYING || allRead) {
    return;
  }
  int64_t last = gst_->lastEndRunning;
  GstClock* clock = gst_element_get_clock(gst_->playbin);
  if (!clock || last < 0) {
    if (clock) gst_object_unref(clock);
    return;
  }
  GstClockTime now = gst_clock_get_time(clock) - gst_element_get_base_time(gst_->playbin);
  gst_object_unref(clock);
  if (now <= static_cast<GstClockTime>(last) + kStallMargin) return;
  // A sink still holding a buffer, or one that just gave it back, is not starved: its output is
  // full and the next buffer follows as soon as it has room.
  const SinkOccupancy& occupancy = *gst_->occupancy;
  const int64_t returned = occupancy.lastReturnMonotonicNs;
  if (occupancy.inChain || (returned >= 0 && g_get_monotonic_time() * 1000 - returned <=
                                                 static_cast<int64_t>(kStallMargin))) {
    return;
  }
  // The decoder starved while playing: the player stops and waits, as a stalled player does.
  {
    std::lock_guard lock(mutex_);
    if (loaded_ != item) return;
    stalled_ = true;
    rate_ = 0;
  }
  PlayerItemControl::setBufferState(*item, false, true, false);
  PlayerItemControl::post(*item, PlayerItemEvent::PlaybackStalled);
  gst_element_set_state(gst_->playbin, GST_STATE_PAUSED);
}

}  // namespace sonorell
