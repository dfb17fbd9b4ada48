// An example host of libsonorell: downloads an audiobook while a progress callback reports how
// far it got, then plays the book's first chapter to its end.
//
//   sonorell-host-example --api URL --session-key KEY --license-id ID [--ca FILE] [--book ID]
//                         [--library DIR]
//
// Audio goes to $SONORELL_AUDIO_SINK (for example "fakesink sync=true" on a machine without
// sound). Exit status 0 when both the download and the playback succeeded.
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "sonorell/sonorell.h"

namespace {

using namespace sonorell;
using Clock = std::chrono::steady_clock;

struct Options {
  std::string api, ca, sessionKey, licenseID, library;
  std::string book = "1001";
};

std::optional<Options> parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string flag = argv[i], value = argv[i + 1];
    if (flag == "--api")
      o.api = value;
    else if (flag == "--ca")
      o.ca = value;
    else if (flag == "--session-key")
      o.sessionKey = value;
    else if (flag == "--license-id")
      o.licenseID = value;
    else if (flag == "--book")
      o.book = value;
    else if (flag == "--library")
      o.library = value;
    else
      return std::nullopt;
  }
  if (argc % 2 == 0 || o.api.empty() || o.sessionKey.empty() || o.licenseID.empty()) {
    return std::nullopt;
  }
  return o;
}

// The engine's notifications, handed from its notifications queue (where observers run) to the
// main thread, which does all the printing and deciding. Shared with the observer, which may
// still be finishing a call when the host removes it.
class Inbox {
 public:
  void push(const Notification& n) {
    std::lock_guard lock(mutex_);
    queue_.push_back(n);
    arrived_.notify_one();
  }
  // The next notification, or nothing when none arrives within `wait`.
  std::optional<Notification> next(std::chrono::milliseconds wait) {
    std::unique_lock lock(mutex_);
    if (!arrived_.wait_for(lock, wait, [this] { return !queue_.empty(); })) return std::nullopt;
    Notification n = std::move(queue_.front());
    queue_.pop_front();
    return n;
  }

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::deque<Notification> queue_;  // guarded by mutex_
};

std::string stringIn(const Notification& n, std::string_view key) {
  const auto it = n.userInfo.find(key);
  return it == n.userInfo.end() ? "" : it->second.asString().value_or("");
}

const QSOChapterDescription* chapterIn(const Notification& n) {
  const auto it = n.userInfo.find(QSOChapterDescriptionUserInfoKey);
  return it == n.userInfo.end() ? nullptr : it->second.getIf<QSOChapterDescription>();
}

// "error 11004: <description>" from a failure notification.
std::string failureIn(const Notification& n) {
  const auto it = n.userInfo.find(QSOSonorellErrorUserInfoKey);
  const ErrorPtr error = it == n.userInfo.end() ? nullptr : it->second.asError();
  if (!error) return n.name + " without an error";
  return "error " + std::to_string(error->code) + ": " + error->localizedDescription();
}

// Keeps the engine's latest error line, to show if the host fails. Called on whichever engine
// thread logs, so the line is guarded by a mutex. ($SONORELL_LOG_LEVEL decides what the engine's
// own log writes to standard error meanwhile.)
class ErrorLog : public QSOLogListener {
 public:
  void logError(const std::string& line) override {
    std::lock_guard lock(mutex_);
    last_ = line;
  }
  void logWarning(const std::string&) override {}
  void logInfo(const std::string&) override {}
  void logVerbose(const std::string&) override {}
  std::string last() {
    std::lock_guard lock(mutex_);
    return last_;
  }

 private:
  std::mutex mutex_;
  std::string last_;  // guarded by mutex_
};

// The host's progress callback: one line whenever the percentage moves.
using ProgressCallback = std::function<void(const QSOAudiobookDownloadReport&)>;

ProgressCallback printProgress() {
  auto last = std::make_shared<float>(-1);
  return [last](const QSOAudiobookDownloadReport& report) {
    if (report.percentage == *last) return;
    *last = report.percentage;
    int done = 0;
    for (const auto& chapter : report.chapters) done += chapter.status == DownloadStatusDownloaded;
    std::printf("download %s: %5.1f%%  %llu/%llu bytes  %d/%zu chapters\n",
                report.audiobookID.c_str(), static_cast<double>(report.percentage),
                static_cast<unsigned long long>(report.downloadedSize),
                static_cast<unsigned long long>(report.totalSize), done, report.chapters.size());
    std::fflush(stdout);
  };
}

// Downloads the whole book, calling `progress` as it goes; true once every chapter is on disk.
bool download(QSOSonorell& engine, Inbox& inbox, const Options& o,
              const ProgressCallback& progress) {
  auto downloads = engine.downloadEngine();
  QSODownloadRequest request(o.book, DownloadTypeFullAudiobook, o.sessionKey, o.licenseID,
                             /*restrictToWiFi=*/false);
  std::printf("downloading %s (request %s)\n", o.book.c_str(), request.requestIdentifier().c_str());
  downloads->startDownloadWithRequest(request);  // returns at once
  const auto deadline = Clock::now() + std::chrono::minutes(2);
  while (Clock::now() < deadline) {
    const auto n = inbox.next(std::chrono::milliseconds(250));
    // Between events, and after each chapter, the report says how far the book has come.
    if (!n || n->name == QSOChapterDownloadSuccessNotification) {
      progress(downloads->reportForAudiobookID(o.book));
    }
    if (!n || stringIn(*n, QSODownloadRequestIDUserInfoKey) != request.requestIdentifier()) {
      continue;
    }
    if (n->name == QSODownloadRequestSuccessNotification) {
      progress(downloads->reportForAudiobookID(o.book));
      return downloads->statusForAudiobookID(o.book) == DownloadStatusDownloaded;
    }
    if (n->name == QSODownloadRequestFailedNotification) {
      std::fprintf(stderr, "download failed: %s\n", failureIn(*n).c_str());
      return false;
    }
  }
  std::fprintf(stderr, "download did not finish in time\n");
  return false;
}

// Plays the book's first chapter from disk until it ends; true when it played to its end.
bool playFirstChapter(QSOSonorell& engine, Inbox& inbox, const Options& o) {
  const auto report = engine.downloadEngine()->reportForAudiobookID(o.book);
  if (report.chapters.empty()) return false;
  const QSOChapterDescription first(o.book, report.chapters.front().partNumber,
                                    report.chapters.front().chapterNumber);
  auto player = engine.playbackEngine();
  std::printf("playing %s\n", first.description().c_str());
  player->playForAudiobookID(first.audiobookID(), first.partNumber(), first.chapterNumber(),
                             /*offset=*/0, o.sessionKey, o.licenseID);
  bool complete = false;
  const auto deadline = Clock::now() + std::chrono::minutes(1);
  while (!complete && Clock::now() < deadline) {
    const auto n = inbox.next(std::chrono::milliseconds(250));
    if (!n) continue;
    const QSOChapterDescription* chapter = chapterIn(*n);
    if (n->name == QSOPlaybackChapterStartedNotification && chapter && *chapter == first) {
      std::printf("started (%s)\n", player->isStreaming() ? "streamed" : "from disk");
    } else if (n->name == QSOPlaybackProgressUpdateNotification && chapter && *chapter == first) {
      const auto offset = n->userInfo.find(QSOCurrentOffsetUserInfoKey);
      const uint64_t seconds =
          offset == n->userInfo.end() ? 0 : offset->second.asUInt().value_or(0);
      std::printf("  at %llu s of %llu s\n", static_cast<unsigned long long>(seconds),
                  static_cast<unsigned long long>(player->currentDuration()));
    } else if (n->name == QSOPlaybackChapterCompleteNotification && chapter && *chapter == first) {
      std::printf("chapter complete\n");
      complete = true;
    } else if (n->name == QSOPlaybackChapterFailedNotification) {
      std::fprintf(stderr, "playback failed: %s\n", failureIn(*n).c_str());
      return false;
    }
    std::fflush(stdout);
  }
  // Stop here rather than go on to the next chapter, and wait until the player says so.
  player->unload();
  for (const auto unloadDeadline = Clock::now() + std::chrono::seconds(5);
       Clock::now() < unloadDeadline;) {
    const auto n = inbox.next(std::chrono::milliseconds(250));
    if (n && n->name == QSOPlaybackAudiobookUnloadedNotification) break;
  }
  if (!complete) std::fprintf(stderr, "the chapter did not end in time\n");
  return complete;
}

}  // namespace

int main(int argc, char** argv) {
  const auto options = parse(argc, argv);
  if (!options) {
    std::fprintf(stderr,
                 "usage: %s --api URL --session-key KEY --license-id ID [--ca FILE] [--book ID] "
                 "[--library DIR]\n",
                 argv[0]);
    return 2;
  }
  // Configuration comes first: the engine reads it when it is first used.
  if (!options->library.empty()) QSOSonorell::setLibraryDirectory(options->library);
  QSOSonorell::setContentAPIBaseURL(options->api);
  if (!options->ca.empty()) QSOSonorell::setTrustedCertificates(options->ca);
  auto errors = std::make_shared<ErrorLog>();
  QSOLogEngine::setListener(errors);

  // Observe everything before launching, so that no notification is missed.
  auto inbox = std::make_shared<Inbox>();
  const auto token = NotificationCenter::defaultCenter().addObserver(
      "", [inbox](const Notification& n) { inbox->push(n); });

  auto engine = QSOSonorell::sharedEngine();
  std::printf("libsonorell %s (headers %s)\n", std::string(QSOSonorell::currentVersion()).c_str(),
              std::string(kSonorellVersion).c_str());
  engine->didFinishLaunching();
  bool launched = false;
  for (auto deadline = Clock::now() + std::chrono::seconds(30);
       !launched && Clock::now() < deadline;) {
    const auto n = inbox->next(std::chrono::milliseconds(250));
    launched = n && n->name == QSODatabaseVerificationCompleteNotification;
  }
  if (!launched) std::fprintf(stderr, "start-up verification did not finish\n");

  const bool ok = launched && download(*engine, *inbox, *options, printProgress()) &&
                  playFirstChapter(*engine, *inbox, *options);

  // Before exiting: save the open listen event and let files being moved into place land.
  engine->willTerminate();
  NotificationCenter::defaultCenter().removeObserver(token);
  QSOLogEngine::setListener(nullptr);
  QSOSonorell::waitForOpenActivities(std::chrono::seconds(5));
  if (!ok && !errors->last().empty()) {
    std::fprintf(stderr, "last engine error: %s\n", errors->last().c_str());
  }
  std::printf("%s\n", ok ? "done" : "failed");
  return ok ? 0 : 1;
}
