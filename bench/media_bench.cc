// What playing a chapter costs on the engine's path against the least GStreamer needs, in one run:
// a 60-second chapter decoded to fakesink (sync off) from disk through the qlso:// resource loader
// and its file read operations, beside `filesrc ! mpegaudioparse ! mpg123audiodec ! fakesink`.
// Prints the CPU time of each (median of several runs) and their ratio, also against playbin on
// the file (the player's pipeline without the loader), read system calls per MB served, and the
// time from play to the first decoded buffer from disk and streamed over loopback HTTPS from the
// reference server.
#include <gst/audio/audio.h>
#include <gst/gst.h>
#include <stdlib.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "content_server.h"
#include "core/service_urls.h"
#include "download/download_engine_core.h"
#include "mp3_renderer.h"
#include "persistence/chapter_status.h"
#include "persistence/filesystem_helper.h"
#include "platform/dispatch/dispatch_queue.h"
#include "platform/foundation/library_directory.h"
#include "platform/media/gst/gst_queue_player.h"
#include "platform/net/curl_loop.h"
#include "platform/services.h"
#include "playback/resource_loader_delegate.h"
#include "playback/streaming_url_manager.h"
#include "sonorell/download_engine.h"

namespace {

using namespace sonorell;
using Clock = std::chrono::steady_clock;

constexpr int kRuns = 5;
// The machine may be shared: CPU medians are taken over more runs than start times.
constexpr int kCpuRuns = 15;

double cpuMs() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e3 +
         (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e3;
}

// Read-like system calls of the whole process so far.
uint64_t readCalls() {
  std::ifstream io("/proc/self/io");
  std::string key;
  uint64_t value = 0;
  while (io >> key >> value) {
    if (key == "syscr:") return value;
  }
  return 0;
}

struct Run {
  double cpu = 0;
  double wallMs = 0;
  uint64_t reads = 0;
  double firstBufferMs = -1;  // measured only when asked for
};

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// The engine's path: a queue player whose item asks a qlso:// delegate for every byte.
Run playThroughLoader(const std::string& url, const std::shared_ptr<QSOStreamingURLManager>& urls,
                      bool timeFirstBuffer) {
  auto player = GstQueuePlayer::create();
  auto delegate = std::make_shared<QSOResourceLoaderDelegate>(
      "bench-session", "license-bench", false, urls, Services::system()->reachability);
  auto item = PlayerItem::create(url);
  item->resourceLoader().setDelegate(delegate, DispatchQueue::create("io.sonorell.bench.loader"));
  std::mutex mutex;
  std::condition_variable ended;
  bool done = false;
  auto observer = DispatchQueue::create("io.sonorell.bench.observer");
  auto token = item->observeEvents(observer, [&](PlayerItemEvent event, ErrorPtr) {
    if (event == PlayerItemEvent::PlaybackStalled) return;
    std::lock_guard lock(mutex);
    done = true;
    ended.notify_all();
  });
  std::optional<Clock::time_point> firstBuffer;
  if (timeFirstBuffer) {
    player->setAudioTapForTesting([&](const float*, size_t, int, int64_t, int64_t) {
      std::lock_guard lock(mutex);
      if (!firstBuffer) firstBuffer = Clock::now();
    });
  }
  Run run;
  const double cpu = cpuMs();
  const uint64_t reads = readCalls();
  const auto start = Clock::now();
  player->insertItem(item, nullptr);
  player->play();
  {
    std::unique_lock lock(mutex);
    ended.wait(lock, [&] { return done; });
  }
  run.wallMs = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
  run.cpu = cpuMs() - cpu;
  run.reads = readCalls() - reads;
  if (firstBuffer) {
    run.firstBufferMs = std::chrono::duration<double, std::milli>(*firstBuffer - start).count();
  }
  observer->sync([&] { token = ObservationToken(); });
  player.reset();
  DispatchQueue::waitUntilAllIdle(std::chrono::seconds(20));
  return run;
}

// The least GStreamer needs for the same bytes.
std::string filesrcPipeline(const std::filesystem::path& file) {
  return "filesrc location=\"" + file.string() +
         "\" ! mpegaudioparse ! mpg123audiodec ! fakesink name=sink sync=false";
}
// What the player's own pipeline costs without the resource loader: playbin reading the file.
std::string playbinPipeline(const std::filesystem::path& file) {
  return "playbin uri=\"file://" + file.string() +
         "\" flags=0x12 audio-filter=scaletempo audio-sink=\"fakesink sync=false\"";
}

// After a stream's first second the player has its decoder gather half a second of audio per
// buffer; a playbin standing for the player's pipeline gathers as much throughout.
void decodeLikeThePlayer(GstElement* pipeline) {
  g_signal_connect(pipeline, "deep-element-added",
                   G_CALLBACK(+[](GstBin*, GstBin*, GstElement* element, gpointer) {
                     if (GST_IS_AUDIO_DECODER(element)) {
                       g_object_set(element, "min-latency", gint64{500 * GST_MSECOND}, nullptr);
                     }
                   }),
                   nullptr);
}

Run playThroughPipeline(const std::string& description, bool timeFirstBuffer,
                        bool likePlayer = false) {
  GstElement* pipeline = gst_parse_launch(description.c_str(), nullptr);
  if (likePlayer) decodeLikeThePlayer(pipeline);
  std::optional<Clock::time_point> firstBuffer;
  if (timeFirstBuffer) {
    GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
    if (!sink) return {};
    GstPad* pad = gst_element_get_static_pad(sink, "sink");
    gst_pad_add_probe(
        pad, GST_PAD_PROBE_TYPE_BUFFER,
        [](GstPad*, GstPadProbeInfo*, gpointer data) {
          auto* first = static_cast<std::optional<Clock::time_point>*>(data);
          if (!*first) *first = Clock::now();
          return GST_PAD_PROBE_OK;
        },
        &firstBuffer, nullptr);
    gst_object_unref(pad);
    gst_object_unref(sink);
  }
  Run run;
  const double cpu = cpuMs();
  const uint64_t reads = readCalls();
  const auto start = Clock::now();
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  GstBus* bus = gst_element_get_bus(pipeline);
  GstMessage* message = gst_bus_timed_pop_filtered(
      bus, GST_CLOCK_TIME_NONE, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
  run.wallMs = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
  run.cpu = cpuMs() - cpu;
  run.reads = readCalls() - reads;
  if (firstBuffer) {
    run.firstBufferMs = std::chrono::duration<double, std::milli>(*firstBuffer - start).count();
  }
  if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) std::fprintf(stderr, "filesrc failed\n");
  gst_message_unref(message);
  gst_object_unref(bus);
  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(pipeline);
  return run;
}

// A downloaded chapter of 60 seconds: frames of a catalogue rendition, repeated.
std::filesystem::path placeMinuteChapter(const content::ContentServer& server) {
  const QSOChapterDescription chapter("9001", 0, 1);
  const auto& rendition = server.catalogue().book(content::kLargeBookID)->chapters.front();
  const char* seconds = std::getenv("BENCH_SECONDS");
  const uint64_t frames =
      (seconds ? std::stoull(seconds) : 60) * content::kSampleRate / content::kSamplesPerFrame + 1;
  const std::string bytes = content::repeatFrames(rendition.bytes->all(), frames);
  ErrorPtr error;
  FilesystemHelper::createAudiobookDirectory(chapter.audiobookID(), &error);
  const auto path = FilesystemHelper::filePath(chapter);
  std::ofstream(path, std::ios::binary)
      .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  QSOChapterStatus::saveToDatabase({std::make_shared<QSOChapterStatus>(
      chapter, DownloadStatusDownloaded, bytes.size(), bytes.size(), "bench")});
  return path;
}

void report(const char* name, const std::vector<Run>& runs, double megabytes) {
  std::vector<double> cpu, wall, reads;
  for (const auto& r : runs) {
    cpu.push_back(r.cpu);
    wall.push_back(r.wallMs);
    reads.push_back(static_cast<double>(r.reads) / megabytes);
  }
  std::printf("%-28s cpu %7.1f ms   wall %7.1f ms   read calls/MB %7.1f\n", name, median(cpu),
              median(wall), median(reads));
}

}  // namespace

int main() {
  setenv("SONORELL_AUDIO_SINK", "fakesink sync=false", 1);
  gst_init(nullptr, nullptr);
  std::string pattern = (std::filesystem::temp_directory_path() / "sonorell-bench-XXXXXX").string();
  const std::filesystem::path library(::mkdtemp(pattern.data()));
  LibraryDirectory::setPath(library);

  content::ContentServer server;
  server.start();
  setDefaultCABundle(server.caCertificatePath().string());
  ServiceURLs::setAPIBaseURL(server.baseURL());
  auto downloads = std::make_shared<QSODownloadEngine>(Services::system());
  auto urls = QSOStreamingURLManager::create(downloads->core());

  const auto file = placeMinuteChapter(server);
  const double megabytes = static_cast<double>(std::filesystem::file_size(file)) / (1 << 20);
  std::printf("chapter: %.1f s, %.2f MB (%s)\n", content::decodedDurationMs(file) / 1e3, megabytes,
              file.c_str());

  // BENCH_ONLY=loader|filesrc|playbin runs one path alone, many times: a steady load to profile.
  if (const char* only = std::getenv("BENCH_ONLY")) {
    const std::string which = only;
    auto once = [&] {
      if (which == "loader")
        return playThroughLoader("qlso://" + file.filename().string(), urls, false);
      if (which == "filesrc") return playThroughPipeline(filesrcPipeline(file), false);
      return playThroughPipeline(playbinPipeline(file), false, true);
    };
    once();
    std::vector<Run> runs;
    for (int i = 0; i < kCpuRuns * 2; ++i) runs.push_back(once());
    report(only, runs, megabytes);
    server.stop();
    std::filesystem::remove_all(library);
    return 0;
  }

  // One warm-up each, so that plugin loading is in neither measurement.
  playThroughLoader("qlso://" + file.filename().string(), urls, false);
  playThroughPipeline(filesrcPipeline(file), false);
  playThroughPipeline(playbinPipeline(file), false, true);
  std::vector<Run> loader, filesrc, playbin;
  for (int i = 0; i < kCpuRuns; ++i) {
    loader.push_back(playThroughLoader("qlso://" + file.filename().string(), urls, false));
    filesrc.push_back(playThroughPipeline(filesrcPipeline(file), false));
    playbin.push_back(playThroughPipeline(playbinPipeline(file), false, true));
  }
  report("disk via resource loader", loader, megabytes);
  report("filesrc pipeline", filesrc, megabytes);
  report("playbin on the file", playbin, megabytes);
  auto medianCpu = [](const std::vector<Run>& runs) {
    std::vector<double> cpu;
    for (const auto& r : runs) cpu.push_back(r.cpu);
    return median(cpu);
  };
  std::printf("cpu ratio (resource loader / filesrc): %.2f\n",
              medianCpu(loader) / medianCpu(filesrc));
  std::printf("cpu ratio (resource loader / playbin on the file): %.2f\n",
              medianCpu(loader) / medianCpu(playbin));

  // Time to the first decoded buffer: disk, the filesrc peer, and a chapter streamed over HTTPS.
  std::vector<double> diskFirst, filesrcFirst, streamedFirst;
  const auto* book = server.catalogue().book(content::kLargeBookID);
  for (int i = 0; i < kRuns; ++i) {
    diskFirst.push_back(
        playThroughLoader("qlso://" + file.filename().string(), urls, true).firstBufferMs);
    filesrcFirst.push_back(playThroughPipeline(filesrcPipeline(file), true).firstBufferMs);
    const auto& chapter = book->chapters[static_cast<size_t>(i)];
    const std::string name =
        FilesystemHelper::filename(QSOChapterDescription(book->id, chapter.part, chapter.chapter));
    // The playlist is dropped each time, so that its fetch is part of every streamed start.
    downloads->core()->playlistManager()->removePlaylistForIdentifier("license-bench");
    streamedFirst.push_back(playThroughLoader("qlso://" + name, urls, true).firstBufferMs);
  }
  std::printf("play to first decoded buffer: disk %.1f ms, filesrc %.1f ms, streamed %.1f ms\n",
              median(diskFirst), median(filesrcFirst), median(streamedFirst));

  server.stop();
  std::filesystem::remove_all(library);
  return 0;
}
