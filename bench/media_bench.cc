// Costs of the media layer. Decoding a 60-second chapter through a resource loader to fakesink
// (sync off) is measured in CPU seconds next to gst-launch-1.0 decoding the same file
// (filesrc ! mpegaudioparse ! mpg123audiodec ! fakesink), run as a child in the same run; the
// program prints the ratio. Also: real time from play() to the first decoded buffer.
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <vector>

#include "platform/media/gst/gst_queue_player.h"
#include "ratio_reporter.h"

namespace sonorell {
namespace {

using bench::compare;

const std::filesystem::path& chapterFile() {
  static const std::filesystem::path path = [] {
    auto file = std::filesystem::temp_directory_path() /
                ("sonorell-media-bench-" + std::to_string(::getpid()) + ".mp3");
    std::string command =
        "gst-launch-1.0 -q audiotestsrc wave=sine num-buffers=6000 samplesperbuffer=441 ! "
        "audio/x-raw,rate=44100,channels=2 ! audioconvert ! lamemp3enc target=bitrate cbr=true "
        "bitrate=128 ! filesink location=" +
        file.string();
    if (std::system(command.c_str()) != 0) std::abort();
    return file;
  }();
  return path;
}

class FileDelegate : public ResourceLoaderDelegate {
 public:
  explicit FileDelegate(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    bytes_.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  bool shouldWaitForLoadingOfRequestedResource(
      ResourceLoader&, const std::shared_ptr<LoadingRequest>& request) override {
    auto size = static_cast<int64_t>(bytes_.size());
    if (auto* info = request->contentInformationRequest()) {
      info->setContentLength(size);
      info->setContentType("public.mp3");
      info->setByteRangeAccessSupported(true);
    }
    if (auto* data = request->dataRequest()) {
      int64_t begin = std::min(data->requestedOffset(), size);
      int64_t end = std::min(begin + data->requestedLength(), size);
      data->respondWithData(reinterpret_cast<const uint8_t*>(bytes_.data()) + begin,
                            static_cast<size_t>(end - begin));
    }
    request->finishLoading();
    return true;
  }

 private:
  std::string bytes_;
};

double processCpuSeconds() {
  timespec ts;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return ts.tv_sec + ts.tv_nsec / 1e9;
}

struct Signal {
  std::mutex mutex;
  std::condition_variable cv;
  bool done = false;
  void set() {
    std::lock_guard lock(mutex);
    done = true;
    cv.notify_all();
  }
  void wait() {
    std::unique_lock lock(mutex);
    cv.wait(lock, [&] { return done; });
  }
};

void BM_DecodeChapterThroughLoader(benchmark::State& state) {
  setenv("SONORELL_AUDIO_SINK", "fakesink sync=false", 1);
  const auto& file = chapterFile();
  auto delegate = std::make_shared<FileDelegate>(file);
  auto loaderQueue = DispatchQueue::create("io.sonorell.bench.loader");
  auto eventQueue = DispatchQueue::create("io.sonorell.bench.events");
  for (auto _ : state) {
    double start = processCpuSeconds();
    auto player = GstQueuePlayer::create();
    auto item = PlayerItem::create("qlso://bench.mp3");
    item->resourceLoader().setDelegate(delegate, loaderQueue);
    Signal ended;
    auto token = item->observeEvents(eventQueue, [&](PlayerItemEvent e, ErrorPtr) {
      if (e != PlayerItemEvent::PlaybackStalled) ended.set();
    });
    player->insertItem(item, nullptr);
    player->play();
    ended.wait();
    token.reset();
    player.reset();
    state.SetIterationTime(processCpuSeconds() - start);
  }
}
BENCHMARK(BM_DecodeChapterThroughLoader)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(5);

void BM_GstLaunchDecodeChapter(benchmark::State& state) {
  const auto& file = chapterFile();
  std::string location = "location=" + file.string();
  for (auto _ : state) {
    pid_t child = fork();
    if (child == 0) {
      execlp("gst-launch-1.0", "gst-launch-1.0", "-q", "filesrc", location.c_str(), "!",
             "mpegaudioparse", "!", "mpg123audiodec", "!", "fakesink", nullptr);
      _exit(127);
    }
    int status = 0;
    rusage usage{};
    wait4(child, &status, 0, &usage);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) state.SkipWithError("gst-launch failed");
    state.SetIterationTime(usage.ru_utime.tv_sec + usage.ru_utime.tv_usec / 1e6 +
                           usage.ru_stime.tv_sec + usage.ru_stime.tv_usec / 1e6);
  }
}
BENCHMARK(BM_GstLaunchDecodeChapter)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);

const bool kCompared = compare("BM_DecodeChapterThroughLoader", "BM_GstLaunchDecodeChapter");

void BM_PlayToFirstDecodedBuffer(benchmark::State& state) {
  setenv("SONORELL_AUDIO_SINK", "fakesink sync=true", 1);
  auto delegate = std::make_shared<FileDelegate>(chapterFile());
  auto loaderQueue = DispatchQueue::create("io.sonorell.bench.loader");
  for (auto _ : state) {
    state.PauseTiming();
    auto player = GstQueuePlayer::create();
    auto item = PlayerItem::create("qlso://bench.mp3");
    item->resourceLoader().setDelegate(delegate, loaderQueue);
    Signal first;
    player->setAudioTapForTesting(
        [&](const float*, size_t, int, int64_t, int64_t) { first.set(); });
    state.ResumeTiming();
    player->insertItem(item, nullptr);
    player->play();
    first.wait();
    state.PauseTiming();
    player->setAudioTapForTesting(nullptr);
    player.reset();
    state.ResumeTiming();
  }
}
BENCHMARK(BM_PlayToFirstDecodedBuffer)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(10);

}  // namespace
}  // namespace sonorell

int main(int argc, char** argv) {
  int result = sonorell::bench::runBenchmarks(argc, argv);
  std::error_code ec;
  std::filesystem::remove(sonorell::chapterFile(), ec);
  return result;
}
