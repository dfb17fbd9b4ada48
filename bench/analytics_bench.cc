// Listen event submit cost as the unsent queue grows while the analytics server is down: one
// submit, archived, at 100, 1,000 and 10,000 queued events, beside a whole-file atomic rewrite
// of the same queue (what every submit cost when each change rewrote the archive).
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <climits>
#include <filesystem>
#include <string>
#include <vector>

#include "analytics/listen_event_archive.h"
#include "analytics/listen_event_poster.h"
#include "core/service_urls.h"
#include "persistence/filesystem_helper.h"
#include "platform/foundation/library_directory.h"
#include "platform/net/http_client.h"
#include "ratio_reporter.h"

namespace {

using namespace sonorell;
namespace fs = std::filesystem;

constexpr int kSizes[] = {100, 1000, 10000};
// Each measured submit adds one event; a fixed count keeps the queue near its nominal size.
constexpr int kSubmits = 100;

QLListenEventPtr makeEvent(uint64_t n) {
  auto event = std::make_shared<QLListenEvent>();
  event->setChapterNumber(n % 40);
  event->setStartOffset(n * 60);
  event->setCurrentSecondOffset(n * 60 + 59);
  event->setFinalOffset(n * 60 + 59);
  event->setSessionKey("bench-session-key-0123456789");
  event->setPlaylistToken("bench-playlist-token-0123456789");
  event->setPlaybackRate(1.0f);
  event->setScreenState(2);
  event->setTimestamp(std::chrono::system_clock::now());
  return event;
}

// A fresh Library per benchmark, so every run starts from an empty archive.
fs::path freshLibrary() {
  std::string pattern = (fs::temp_directory_path() / "sonorell-bench-XXXXXX").string();
  fs::path dir(::mkdtemp(pattern.data()));
  LibraryDirectory::resetForTesting();
  LibraryDirectory::setPath(dir);
  FilesystemHelper::createSupportDirectory();
  return dir;
}

void submitToPoster(benchmark::State& state, int queued) {
  fs::path library = freshLibrary();
  // Never posts: no size trigger, no timer within the run, and nothing listening there anyway.
  ServiceURLs::setAnalyticsURL("https://127.0.0.1:9/v4/analytics");
  auto poster = QLListenEventPoster::create(HttpClient::shared(), INT32_MAX, INT32_MAX);
  for (int i = 0; i < queued; ++i) poster->submitListenEvent(makeEvent(static_cast<uint64_t>(i)));
  poster->waitForReadWrite(std::chrono::minutes(10));
  uint64_t n = static_cast<uint64_t>(queued);
  for (auto _ : state) {
    poster->submitListenEvent(makeEvent(n++));
    poster->waitForReadWrite(std::chrono::minutes(1));
  }
  state.counters["queued"] = static_cast<double>(queued);
  state.counters["archive_bytes"] =
      static_cast<double>(fs::file_size(FilesystemHelper::listenEventsArchivePath()));
  poster.reset();
  fs::remove_all(library);
}

void rewriteWholeArchive(benchmark::State& state, int queued) {
  fs::path library = freshLibrary();
  ListenEventArchive archive(FilesystemHelper::listenEventsArchivePath());
  std::vector<ListenEventArchive::Entry> queue;
  for (int i = 1; i <= queued; ++i) {
    uint64_t seq = static_cast<uint64_t>(i);
    queue.push_back({seq, seq, makeEvent(seq)});
  }
  uint64_t seq = queue.size();
  for (auto _ : state) {
    ++seq;
    queue.push_back({seq, seq, makeEvent(seq)});
    benchmark::DoNotOptimize(archive.rewrite(queue));
  }
  state.counters["queued"] = static_cast<double>(queued);
  fs::remove_all(library);
}

bool registerAll() {
  for (int size : kSizes) {
    std::string submit = "PosterSubmit_" + std::to_string(size);
    std::string rewrite = "WholeArchiveRewrite_" + std::to_string(size);
    benchmark::RegisterBenchmark(submit.c_str(), submitToPoster, size)
        ->Iterations(kSubmits)
        ->Unit(benchmark::kMicrosecond)
        ->UseRealTime();
    benchmark::RegisterBenchmark(rewrite.c_str(), rewriteWholeArchive, size)
        ->Iterations(kSubmits)
        ->Unit(benchmark::kMicrosecond)
        ->UseRealTime();
    bench::compare(submit, rewrite);
  }
  return true;
}

const bool registered = registerAll();

}  // namespace

int main(int argc, char** argv) { return sonorell::bench::runBenchmarks(argc, argv); }
