// What starting and playing a chapter costs through the playback engine on GStreamer, beside
// playbin doing the same work in the same process: play → first decoded buffer (downloaded and
// streamed over loopback HTTPS) and CPU seconds per minute of audio at rate 1.0 and 2.0.
#include <gio/gio.h>
#include <gst/audio/audio.h>
#include <gst/gst.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "content_server.h"
#include "persistence/filesystem_helper.h"
#include "sonorell/sonorell.h"

namespace {

using namespace sonorell;
using Clock = std::chrono::steady_clock;

// Both the engine (through $SONORELL_AUDIO_SINK) and the peers get this sink, so that the
// observation costs them the same. Unsynced: the CPU runs decode as fast as they can.
constexpr const char* kSinkFactory = "sonorellbenchsink";
constexpr const char* kSinkDescription = "sonorellbenchsink sync=false";
constexpr const char* kSession = "bench-session";
constexpr const char* kLicense = "bench-license";
// A 20-minute chapter: long enough for minutes of audio per CPU run.
const std::string kBook(content::kTenMegabyteChapterBookID);
constexpr uint64_t kDownloadedChapter = 1;
constexpr uint64_t kStreamedChapter = 5;
// playbin's flags as the engine sets them: audio and software volume only.
constexpr guint kPlayFlagsAudioOnly = 0x2 | 0x10;

double processCpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

double msSince(Clock::time_point start, Clock::time_point end) {
  return std::chrono::duration<double, std::milli>(end - start).count();
}

int envInt(const char* name, int fallback) {
  const char* text = std::getenv(name);
  return text && *text ? std::max(1, std::atoi(text)) : fallback;
}

// ---- the observing sink

// What one run waits for, filled in from the sinks' streaming threads. Only sinks made after
// arm() count, so that a pipeline still being torn down cannot answer for the next run.
class Watch {
 public:
  void arm(double targetSeconds) {
    std::lock_guard lock(mutex_);
    armedFrom_ = nextSerial.load();
    targetSeconds_ = targetSeconds;
    arrived_.reset();
    rendered_.reset();
    cpuAtTarget_.reset();
    failure_.clear();
    contentSeconds_ = 0;
    segments_ = 0;
  }
  // A buffer reached a sink's pad; `endSeconds` is where it ends in the chapter (stream time),
  // `contentSeconds` how much of the chapter it carries.
  void arrived(uint64_t serial, double endSeconds, double contentSeconds) {
    const auto now = Clock::now();
    std::lock_guard lock(mutex_);
    if (serial < armedFrom_) return;
    // Counted up to the target: what was decoded (flushed or not) to get there.
    if (!cpuAtTarget_) contentSeconds_ += contentSeconds;
    bool changed = false;
    if (!arrived_) {
      arrived_ = now;
      changed = true;
    }
    if (targetSeconds_ > 0 && !cpuAtTarget_ && endSeconds >= targetSeconds_) {
      cpuAtTarget_ = processCpuSeconds();
      changed = true;
    }
    if (changed) changed_.notify_all();
  }
  // A segment reached a sink: one at the start, one more after every flushing seek.
  void segment(uint64_t serial) {
    std::lock_guard lock(mutex_);
    if (serial >= armedFrom_ && !cpuAtTarget_) ++segments_;
  }
  // A sink rendered a buffer: in PLAYING, where a real sink would play it.
  void rendered(uint64_t serial) {
    const auto now = Clock::now();
    std::lock_guard lock(mutex_);
    if (serial < armedFrom_ || rendered_) return;
    rendered_ = now;
    changed_.notify_all();
  }
  void fail(std::string why) {
    std::lock_guard lock(mutex_);
    if (failure_.empty()) failure_ = std::move(why);
    changed_.notify_all();
  }

  struct Result {
    std::optional<Clock::time_point> arrived;
    std::optional<Clock::time_point> rendered;
    std::optional<double> cpuAtTarget;
    std::string failure;
    double contentSeconds = 0;
    int segments = 0;
  };
  // Waits until a buffer was rendered (or, with a target, the target was reached) or it failed.
  Result wait(std::chrono::seconds limit) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, limit, [&] {
      return !failure_.empty() ||
             (targetSeconds_ > 0 ? cpuAtTarget_.has_value() : rendered_.has_value());
    });
    return {arrived_, rendered_, cpuAtTarget_, failure_, contentSeconds_, segments_};
  }

  std::atomic<uint64_t> nextSerial{1};
  std::atomic<bool> signalRendered{true};  // read when a sink is made

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  uint64_t armedFrom_ = UINT64_MAX;
  double targetSeconds_ = 0;
  std::optional<Clock::time_point> arrived_;
  std::optional<Clock::time_point> rendered_;
  std::optional<double> cpuAtTarget_;
  std::string failure_;
  double contentSeconds_ = 0;
  int segments_ = 0;
};

Watch gWatch;
const content::ContentServer* gServer = nullptr;

uint64_t requestCount(content::Route route) { return gServer ? gServer->requestCount(route) : 0; }

// Per sink, touched only by its streaming thread (serialized events and buffers).
struct SinkState {
  uint64_t serial = 0;
  GstSegment segment{};
  int rate = 0;
  int bytesPerFrame = 0;
};

GstPadProbeReturn onSinkPad(GstPad*, GstPadProbeInfo* info, gpointer data) {
  auto* state = static_cast<SinkState*>(data);
  if (info->type & GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM) {
    GstEvent* event = GST_PAD_PROBE_INFO_EVENT(info);
    if (GST_EVENT_TYPE(event) == GST_EVENT_SEGMENT) {
      const GstSegment* segment = nullptr;
      gst_event_parse_segment(event, &segment);
      gst_segment_copy_into(segment, &state->segment);
      gWatch.segment(state->serial);
    } else if (GST_EVENT_TYPE(event) == GST_EVENT_CAPS) {
      GstCaps* caps = nullptr;
      gst_event_parse_caps(event, &caps);
      GstAudioInfo audio;
      if (gst_audio_info_from_caps(&audio, caps)) {
        state->rate = GST_AUDIO_INFO_RATE(&audio);
        state->bytesPerFrame = GST_AUDIO_INFO_BPF(&audio);
      }
    }
    return GST_PAD_PROBE_OK;
  }
  GstBuffer* buffer = nullptr;
  if (info->type & GST_PAD_PROBE_TYPE_BUFFER) {
    buffer = GST_PAD_PROBE_INFO_BUFFER(info);
  } else if (info->type & GST_PAD_PROBE_TYPE_BUFFER_LIST) {
    GstBufferList* list = GST_PAD_PROBE_INFO_BUFFER_LIST(info);
    if (gst_buffer_list_length(list) > 0) {
      buffer = gst_buffer_list_get(list, gst_buffer_list_length(list) - 1);
    }
  }
  if (!buffer) return GST_PAD_PROBE_OK;
  double endSeconds = -1;
  double contentSeconds = 0;
  GstClockTime pts = GST_BUFFER_PTS(buffer);
  if (GST_CLOCK_TIME_IS_VALID(pts)) {
    GstClockTime duration = GST_BUFFER_DURATION(buffer);
    if (!GST_CLOCK_TIME_IS_VALID(duration) && state->rate > 0 && state->bytesPerFrame > 0) {
      duration = gst_util_uint64_scale(gst_buffer_get_size(buffer) / state->bytesPerFrame,
                                       GST_SECOND, static_cast<guint64>(state->rate));
    }
    if (!GST_CLOCK_TIME_IS_VALID(duration)) duration = 0;
    // Stream time undoes scaletempo's stretch: it is the position in the chapter at any rate.
    guint64 end = gst_segment_to_stream_time(&state->segment, GST_FORMAT_TIME, pts + duration);
    if (GST_CLOCK_TIME_IS_VALID(end)) endSeconds = static_cast<double>(end) / GST_SECOND;
    contentSeconds =
        static_cast<double>(duration) / GST_SECOND * std::abs(state->segment.applied_rate);
  }
  gWatch.arrived(state->serial, endSeconds, contentSeconds);
  return GST_PAD_PROBE_OK;
}

void onHandoff(GstElement* sink, GstBuffer*, GstPad*, gpointer data) {
  gWatch.rendered(static_cast<SinkState*>(data)->serial);
  // One is all a run needs; the signal costs a closure call per buffer.
  g_object_set(sink, "signal-handoffs", FALSE, nullptr);
}

// fakesink with a buffer probe on its pad and, for the latency runs, its handoff signal (emitted
// from render, so in PLAYING only: the first one is the first buffer played, after any preroll
// that a flushing seek threw away).
void benchSinkInit(GTypeInstance* instance, gpointer) {
  auto* state = new SinkState();
  state->serial = gWatch.nextSerial.fetch_add(1);
  gst_segment_init(&state->segment, GST_FORMAT_TIME);
  GstElement* element = GST_ELEMENT(instance);
  GstPad* pad = gst_element_get_static_pad(element, "sink");
  gst_pad_add_probe(
      pad,
      static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST |
                                   GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM),
      onSinkPad, state, [](gpointer data) { delete static_cast<SinkState*>(data); });
  gst_object_unref(pad);
  if (gWatch.signalRendered) {
    g_object_set(element, "signal-handoffs", TRUE, nullptr);
    g_signal_connect(element, "handoff", G_CALLBACK(onHandoff), state);
  }
}

bool registerBenchSink() {
  GstElementFactory* factory = gst_element_factory_find("fakesink");
  if (!factory) return false;
  auto* loaded = gst_plugin_feature_load(GST_PLUGIN_FEATURE(factory));
  gst_object_unref(factory);
  if (!loaded) return false;
  GType parent = gst_element_factory_get_element_type(GST_ELEMENT_FACTORY(loaded));
  gst_object_unref(loaded);
  GTypeQuery query;
  g_type_query(parent, &query);
  GType type =
      g_type_register_static_simple(parent, "SonorellBenchSink", query.class_size, nullptr,
                                    query.instance_size, benchSinkInit, static_cast<GTypeFlags>(0));
  return gst_element_register(nullptr, kSinkFactory, GST_RANK_NONE, type);
}

// ---- the engine

// Counts the engine's notifications and turns a failure into the run's failure.
class Notifications {
 public:
  Notifications() {
    token_ = NotificationCenter::defaultCenter().addObserver("", [this](const Notification& n) {
      if (n.name == QSOPlaybackChapterFailedNotification ||
          n.name == QSODownloadRequestFailedNotification) {
        gWatch.fail(n.name);
      }
      std::lock_guard lock(mutex_);
      ++counts_[n.name];
      if (n.name == QSOPlaybackChapterStartedNotification) lastStarted_ = Clock::now();
      changed_.notify_all();
    });
  }
  ~Notifications() { NotificationCenter::defaultCenter().removeObserver(token_); }

  size_t count(std::string_view name) {
    std::lock_guard lock(mutex_);
    auto it = counts_.find(std::string(name));
    return it == counts_.end() ? 0 : it->second;
  }
  bool waitFor(std::string_view name, size_t n, std::chrono::seconds limit) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [&] {
      auto it = counts_.find(std::string(name));
      return it != counts_.end() && it->second >= n;
    });
  }
  std::optional<Clock::time_point> lastStarted() {
    std::lock_guard lock(mutex_);
    return lastStarted_;
  }

 private:
  NotificationCenter::Token token_ = 0;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<std::string, size_t> counts_;
  std::optional<Clock::time_point> lastStarted_;
};

struct Sample {
  double renderedMs = -1;  // play (or PLAYING) → first buffer rendered
  double arrivedMs = -1;   // play (or PLAYING) → first buffer at the sink's pad
  double startedMs = -1;   // play → the engine's chapter-started notification
  double builtMs = -1;     // playbin only: building the pipeline → first buffer rendered
  double cpuSeconds = -1;  // play → the target reached, process CPU
  double wallMs = -1;
  double contentSeconds = -1;  // of the chapter, reaching the sink until the target
  double segments = -1;        // segments reaching the sink until the target
  double audioRequests = -1;   // audio GETs the server answered during the run
  double playlistRequests = -1;
};

void unloadEngine(QSOPlaybackEngine& engine, Notifications& notes) {
  const size_t before = notes.count(QSOPlaybackAudiobookUnloadedNotification);
  engine.unload();
  notes.waitFor(QSOPlaybackAudiobookUnloadedNotification, before + 1, std::chrono::seconds(10));
  // The dropped player stops on its own queue; let it, so that it does not share the next run.
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
}

// Plays a chapter through the engine and waits for its first rendered buffer or, with a target,
// until that many seconds of the chapter reached the sink.
std::optional<Sample> playThroughEngine(QSOPlaybackEngine& engine, Notifications& notes,
                                        uint64_t chapter, double targetSeconds) {
  gWatch.arm(targetSeconds);
  const auto startedBefore = notes.count(QSOPlaybackChapterStartedNotification);
  const uint64_t requests = requestCount(content::Route::kAudio);
  const uint64_t playlists = requestCount(content::Route::kPlaylist);
  const double cpu = processCpuSeconds();
  const auto start = Clock::now();
  engine.playForAudiobookID(kBook, 0, chapter, 0, kSession, kLicense);
  const auto result = gWatch.wait(std::chrono::seconds(120));
  const auto end = Clock::now();
  const uint64_t requestsAfter = requestCount(content::Route::kAudio);
  const uint64_t playlistsAfter = requestCount(content::Route::kPlaylist);
  if (!result.failure.empty() || (targetSeconds > 0 ? !result.cpuAtTarget : !result.rendered)) {
    std::fprintf(stderr, "engine run on chapter %lu failed: %s\n",
                 static_cast<unsigned long>(chapter),
                 result.failure.empty() ? "timed out" : result.failure.c_str());
    return std::nullopt;
  }
  Sample sample;
  sample.audioRequests = static_cast<double>(requestsAfter - requests);
  sample.playlistRequests = static_cast<double>(playlistsAfter - playlists);
  sample.contentSeconds = result.contentSeconds;
  sample.segments = result.segments;
  if (result.rendered) sample.renderedMs = msSince(start, *result.rendered);
  if (result.arrived) sample.arrivedMs = msSince(start, *result.arrived);
  if (result.cpuAtTarget) {
    sample.cpuSeconds = *result.cpuAtTarget - cpu;
    sample.wallMs = msSince(start, end);
  } else if (notes.waitFor(QSOPlaybackChapterStartedNotification, startedBefore + 1,
                           std::chrono::seconds(10))) {
    sample.startedMs = msSince(start, *notes.lastStarted());
  }
  return sample;
}

// ---- the peer: playbin as the engine configures it, without the engine

void trustForHttps(GstElement*, GstElement* source, gpointer database) {
  if (g_object_class_find_property(G_OBJECT_GET_CLASS(source), "tls-database")) {
    g_object_set(source, "tls-database", database, nullptr);
  }
}

// playbin with the engine's flags, scaletempo as its audio filter and the same sink bin.
GstElement* makePlaybin(const std::string& uri, GTlsDatabase* database) {
  GstElement* playbin = gst_element_factory_make("playbin", nullptr);
  GstElement* scaletempo = gst_element_factory_make("scaletempo", nullptr);
  GstElement* sink = gst_parse_bin_from_description(kSinkDescription, TRUE, nullptr);
  if (!playbin || !scaletempo || !sink) return nullptr;
  g_object_set(playbin, "uri", uri.c_str(), "flags", kPlayFlagsAudioOnly, "audio-sink", sink,
               "audio-filter", scaletempo, nullptr);
  if (database) g_signal_connect(playbin, "source-setup", G_CALLBACK(trustForHttps), database);
  return playbin;
}

// The peer's answer to a run: first rendered buffer after PLAYING or, with a target, the CPU to
// get that far (building the pipeline included, as the engine builds its own within its run).
std::optional<Sample> playThroughPlaybin(const std::string& uri, GTlsDatabase* database,
                                         double targetSeconds, double rate) {
  gWatch.arm(targetSeconds);
  const uint64_t requests = requestCount(content::Route::kAudio);
  const uint64_t playlists = requestCount(content::Route::kPlaylist);
  const double cpu = processCpuSeconds();
  const auto built = Clock::now();
  GstElement* playbin = makePlaybin(uri, database);
  if (!playbin) return std::nullopt;
  GstBus* bus = gst_element_get_bus(playbin);
  bool ok = true;
  if (rate != 1.0) {
    // The rate goes in with a flushing seek once prerolled, as the engine's player does it.
    gst_element_set_state(playbin, GST_STATE_PAUSED);
    GstMessage* message = gst_bus_timed_pop_filtered(
        bus, 30 * GST_SECOND,
        static_cast<GstMessageType>(GST_MESSAGE_ASYNC_DONE | GST_MESSAGE_ERROR));
    ok = message && GST_MESSAGE_TYPE(message) == GST_MESSAGE_ASYNC_DONE &&
         gst_element_seek(playbin, rate, GST_FORMAT_TIME,
                          static_cast<GstSeekFlags>(GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_ACCURATE),
                          GST_SEEK_TYPE_SET, 0, GST_SEEK_TYPE_NONE, -1);
    if (message) gst_message_unref(message);
  }
  const auto start = Clock::now();
  if (ok) gst_element_set_state(playbin, GST_STATE_PLAYING);
  Watch::Result result;
  if (ok) {
    // Errors come on the bus; the watch answers the rest.
    for (auto deadline = Clock::now() + std::chrono::seconds(120); Clock::now() < deadline;) {
      result = gWatch.wait(std::chrono::seconds(0));
      if (targetSeconds > 0 ? result.cpuAtTarget.has_value() : result.rendered.has_value()) break;
      GstMessage* message = gst_bus_timed_pop_filtered(
          bus, 2 * GST_MSECOND, static_cast<GstMessageType>(GST_MESSAGE_ERROR | GST_MESSAGE_EOS));
      if (message) {
        GError* error = nullptr;
        if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
          gst_message_parse_error(message, &error, nullptr);
        }
        std::fprintf(stderr, "playbin on %s: %s\n", uri.c_str(),
                     error ? error->message : "ended before the target");
        g_clear_error(&error);
        gst_message_unref(message);
        ok = false;
        break;
      }
    }
  }
  const auto end = Clock::now();
  const uint64_t requestsAfter = requestCount(content::Route::kAudio);
  const uint64_t playlistsAfter = requestCount(content::Route::kPlaylist);
  gst_element_set_state(playbin, GST_STATE_NULL);
  gst_object_unref(bus);
  gst_object_unref(playbin);
  if (!ok || (targetSeconds > 0 ? !result.cpuAtTarget : !result.rendered)) return std::nullopt;
  Sample sample;
  sample.audioRequests = static_cast<double>(requestsAfter - requests);
  sample.playlistRequests = static_cast<double>(playlistsAfter - playlists);
  sample.contentSeconds = result.contentSeconds;
  sample.segments = result.segments;
  if (result.rendered) sample.renderedMs = msSince(start, *result.rendered);
  if (result.rendered) sample.builtMs = msSince(built, *result.rendered);
  if (result.arrived) sample.arrivedMs = msSince(start, *result.arrived);
  if (result.cpuAtTarget) {
    sample.cpuSeconds = *result.cpuAtTarget - cpu;
    sample.wallMs = msSince(built, end);
  }
  return sample;
}

// ---- reporting

struct Stats {
  double median = -1;
  double p90 = -1;
  double min = -1;  // the run least disturbed by whatever else shares the machine
};

Stats stats(const std::vector<Sample>& samples, double Sample::*field) {
  std::vector<double> values;
  for (const auto& s : samples) {
    if (s.*field >= 0) values.push_back(s.*field);
  }
  if (values.empty()) return {};
  std::sort(values.begin(), values.end());
  const size_t p90 = std::min(values.size() - 1, (values.size() * 9 + 9) / 10 - 1);
  return {values[values.size() / 2], values[p90], values.front()};
}

void printLatency(const char* name, const std::vector<Sample>& samples) {
  const Stats rendered = stats(samples, &Sample::renderedMs);
  const Stats arrived = stats(samples, &Sample::arrivedMs);
  const Stats started = stats(samples, &Sample::startedMs);
  std::printf("  %-34s rendered %7.1f / %7.1f ms   at sink pad %7.1f / %7.1f ms", name,
              rendered.median, rendered.p90, arrived.median, arrived.p90);
  std::printf("   segments %.0f, audio GETs %.0f, playlist fetches %.0f",
              stats(samples, &Sample::segments).median,
              stats(samples, &Sample::audioRequests).median,
              stats(samples, &Sample::playlistRequests).median);
  if (started.median >= 0) std::printf("   (started note %.1f ms)", started.median);
  const Stats built = stats(samples, &Sample::builtMs);
  if (built.median >= 0) std::printf("   (from building it %.1f ms)", built.median);
  std::printf("   n=%zu\n", samples.size());
}

void printLatencyRatio(const char* name, const std::vector<Sample>& ours,
                       const std::vector<Sample>& peer) {
  const Stats a = stats(ours, &Sample::renderedMs);
  const Stats b = stats(peer, &Sample::renderedMs);
  std::printf("  ratio (ours / peer) %s, first rendered buffer, median: %.1f / %.1f ms -> %.2f\n",
              name, a.median, b.median, a.median / b.median);
}

}  // namespace

// Knobs: BENCH_RUNS (latency runs, default 11), BENCH_CPU_RUNS (default 7) and BENCH_MINUTES
// (of the chapter decoded per CPU run, default 10).
int main() {
  const int latencyRuns = envInt("BENCH_RUNS", 11);
  const int cpuRuns = envInt("BENCH_CPU_RUNS", 7);
  const double minutes = envInt("BENCH_MINUTES", 10);

  setenv("SONORELL_AUDIO_SINK", kSinkDescription, 1);
  gst_init(nullptr, nullptr);
  if (!registerBenchSink()) {
    std::fprintf(stderr, "cannot make the observing sink (no fakesink?)\n");
    return 1;
  }
  std::string pattern = (std::filesystem::temp_directory_path() / "sonorell-bench-XXXXXX").string();
  const std::filesystem::path library(::mkdtemp(pattern.data()));
  QSOSonorell::setLibraryDirectory(library);

  content::ContentServer server;
  server.start();
  gServer = &server;
  QSOSonorell::setContentAPIBaseURL(server.baseURL());
  QSOSonorell::setAnalyticsURL(server.analyticsURL());
  QSOSonorell::setTrustedCertificates(server.caCertificatePath());
  GError* error = nullptr;
  GTlsDatabase* database = g_tls_file_database_new(server.caCertificatePath().c_str(), &error);
  if (!database) {
    std::fprintf(stderr, "server CA unusable: %s\n", error ? error->message : "?");
    return 1;
  }

  auto sonorell = QSOSonorell::sharedEngine();
  sonorell->didFinishLaunching();
  QSOPlaybackEngine& engine = *sonorell->playbackEngine();
  Notifications notes;

  // The downloaded chapter arrives the way a host gets it: through the download engine.
  const QSODownloadRequest request(kBook, 0, kDownloadedChapter, DownloadTypeSingleChapter,
                                   kSession, kLicense, false);
  sonorell->downloadEngine()->startDownloadWithRequest(request);
  if (!notes.waitFor(QSODownloadRequestSuccessNotification, 1, std::chrono::seconds(120))) {
    std::fprintf(stderr, "the chapter did not download\n");
    return 1;
  }
  const auto file = FilesystemHelper::filePath(QSOChapterDescription(kBook, 0, kDownloadedChapter));
  const auto* book = server.catalogue().book(kBook);
  const auto* downloaded = book->chapter(0, kDownloadedChapter);
  const std::string fileURI = "file://" + file.string();
  const std::string httpsURI = server.audioURL(kBook, 0, kStreamedChapter);
  std::printf("downloaded chapter %s/0/%lu: %.1f s, %.2f MB at %s\n", kBook.c_str(),
              static_cast<unsigned long>(kDownloadedChapter), downloaded->durationMs / 1e3,
              static_cast<double>(std::filesystem::file_size(file)) / (1 << 20), file.c_str());
  std::printf("streamed chapter %s/0/%lu: %s\n", kBook.c_str(),
              static_cast<unsigned long>(kStreamedChapter), httpsURI.c_str());
  std::printf("sink everywhere: %s (a fakesink with a pad probe and a handoff)\n\n",
              kSinkDescription);

  // One warm-up of each path, so that plugin loading and first TLS set-up are in neither.
  playThroughEngine(engine, notes, kDownloadedChapter, 0);
  playThroughEngine(engine, notes, kStreamedChapter, 0);
  unloadEngine(engine, notes);
  playThroughPlaybin(fileURI, nullptr, 0, 1.0);
  playThroughPlaybin(httpsURI, database, 0, 1.0);

  // Play → first decoded buffer. unload() forgets the book's playlist, so the first streamed
  // start fetches it; the one right after finds it cached but first stops the chapter still
  // playing, as a host switching chapters would.
  std::vector<Sample> engineDisk, engineCold, engineWarm, peerDisk, peerHttps;
  auto keep = [](std::vector<Sample>& into, const std::optional<Sample>& sample) {
    if (sample) into.push_back(*sample);
  };
  for (int i = 0; i < latencyRuns; ++i) {
    keep(engineDisk, playThroughEngine(engine, notes, kDownloadedChapter, 0));
    unloadEngine(engine, notes);
    keep(peerDisk, playThroughPlaybin(fileURI, nullptr, 0, 1.0));
    keep(engineCold, playThroughEngine(engine, notes, kStreamedChapter, 0));
    keep(engineWarm, playThroughEngine(engine, notes, kStreamedChapter, 0));
    unloadEngine(engine, notes);
    keep(peerHttps, playThroughPlaybin(httpsURI, database, 0, 1.0));
  }
  std::printf(
      "play -> first decoded buffer, median / p90 (engine from playForAudiobookID, "
      "playbin from PLAYING):\n");
  printLatency("engine, downloaded chapter", engineDisk);
  printLatency("playbin file://", peerDisk);
  printLatency("engine, streamed (playlist fetched)", engineCold);
  printLatency("engine, streamed (cached, replacing)", engineWarm);
  printLatency("playbin https:// (souphttpsrc)", peerHttps);
  printLatencyRatio("from disk", engineDisk, peerDisk);
  printLatencyRatio("streamed, playlist fetched", engineCold, peerHttps);
  printLatencyRatio("streamed, playlist cached, replacing a playing chapter", engineWarm,
                    peerHttps);

  // CPU per minute of audio: the first `minutes` of the downloaded chapter decoded unsynced.
  gWatch.signalRendered = false;
  const double target = minutes * 60;
  std::printf(
      "\nCPU seconds per minute of audio (process CPU from play until %.0f min of the "
      "chapter reached the sink, sync=false, scaletempo in both; median / p90 / min of %d):\n",
      minutes, cpuRuns);
  for (const double rate : {1.0, 2.0}) {
    std::vector<Sample> ours, peer;
    for (int i = 0; i < cpuRuns; ++i) {
      engine.setCurrentRate(static_cast<float>(rate));
      keep(ours, playThroughEngine(engine, notes, kDownloadedChapter, target));
      unloadEngine(engine, notes);
      keep(peer, playThroughPlaybin(fileURI, nullptr, target, rate));
    }
    engine.setCurrentRate(1.0f);
    const Stats a = stats(ours, &Sample::cpuSeconds);
    const Stats b = stats(peer, &Sample::cpuSeconds);
    const Stats aWall = stats(ours, &Sample::wallMs);
    const Stats bWall = stats(peer, &Sample::wallMs);
    auto line = [&](const char* name, const std::vector<Sample>& runs, const Stats& cpu,
                    const Stats& wall) {
      std::printf(
          "  rate %.1f %-8s %.4f / %.4f / %.4f s/min   wall %4.0f ms/run   chapter decoded "
          "%5.1f s in %.0f segments\n",
          rate, name, cpu.median / minutes, cpu.p90 / minutes, cpu.min / minutes, wall.median,
          stats(runs, &Sample::contentSeconds).median, stats(runs, &Sample::segments).median);
    };
    line("engine", ours, a, aWall);
    line("playbin", peer, b, bWall);
    std::printf(
        "  ratio (ours / peer) CPU at rate %.1f, median: %.4f / %.4f s/min -> %.2f   (by min: "
        "%.2f)\n",
        rate, a.median / minutes, b.median / minutes, a.median / b.median, a.min / b.min);
  }

  g_object_unref(database);
  gServer = nullptr;
  server.stop();
  std::filesystem::remove_all(library);
  return 0;
}
