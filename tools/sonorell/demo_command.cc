// demo: the whole job on one machine. The reference content server runs in this process on
// loopback (HTTPS, its own CA, which the engine is told to trust); the engine downloads the demo
// book into a temporary Library, shows its status, plays its first chapter and posts the
// listening it recorded, and the demo prints what the analytics endpoint received.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "audio_output.h"
#include "commands.h"
#include "content_server.h"
#include "progress_view.h"

namespace sonorell::cli {

namespace {

namespace fs = std::filesystem;

constexpr uint64_t kDemoBytesPerSecond = 150'000;

// Removes the temporary Library at exit unless it is to be kept.
class DemoLibrary {
 public:
  DemoLibrary(std::string given, bool keep) : keep_(keep || !given.empty()) {
    if (!given.empty()) {
      path_ = given;
      return;
    }
    std::string pattern = (fs::temp_directory_path() / "sonorell-demo-XXXXXX").string();
    if (::mkdtemp(pattern.data())) path_ = pattern;
  }
  ~DemoLibrary() {
    std::error_code error;
    if (!keep_ && !path_.empty()) fs::remove_all(path_, error);
  }
  const fs::path& path() const { return path_; }
  bool kept() const { return keep_; }

 private:
  const bool keep_;
  fs::path path_;
};

void heading(Session& session, const std::string& text) {
  session.line("");
  session.line("== " + text);
}

// Plays the chapter to its end, with a status line; true when it played without failing.
bool playChapter(Session& session, const std::string& book,
                 const QSOChapterDownloadReport& chapter) {
  auto sonorell = session.engine();
  auto player = sonorell->playbackEngine();
  session.setFilter([book](const Notification& n) {
    const auto id = audiobookOf(n);
    return id.empty() || id == book;
  });
  const bool interactive = session.interactive();
  // The moments worth a line; the status line (or a line every few seconds) shows the rest.
  session.setTextPrinter([&session, interactive](const Notification& n) {
    const bool notable = n.name == QSOPlaybackChapterLoadedNotification ||
                         n.name == QSOPlaybackChapterStartedNotification ||
                         n.name == QSOPlaybackChapterCompleteNotification ||
                         n.name == QSOPlaybackChapterFailedNotification;
    if (!notable) return;
    if (interactive) std::fprintf(out(), "\r\x1b[2K");
    session.line("  " + describeEvent(n));
  });
  player->playForAudiobookID(book, chapter.partNumber, chapter.chapterNumber, 0,
                             session.options().sessionKey, session.options().licenseID);
  auto lastShown = std::chrono::steady_clock::now();
  const auto ended = [](const std::vector<Notification>& events) {
    return hasEvent(events, QSOPlaybackChapterCompleteNotification) ||
           hasEvent(events, QSOPlaybackChapterFailedNotification) || unloaded(events);
  };
  const bool finished = session.waitFor(ended, std::chrono::minutes(2), [&] {
    const std::string where = formatDuration(static_cast<double>(player->currentOffset())) + " / " +
                              formatDuration(static_cast<double>(player->currentDuration())) +
                              (player->isStreaming() ? "  streamed" : "  from disk");
    if (interactive) {
      std::fprintf(out(), "\r\x1b[2K  playing %s", where.c_str());
      std::fflush(out());
    } else if (std::chrono::steady_clock::now() - lastShown > std::chrono::seconds(5)) {
      lastShown = std::chrono::steady_clock::now();
      session.line("  playing " + where);
    }
  });
  if (interactive) std::fprintf(out(), "\n");
  session.setTextPrinter([](const Notification&) {});
  player->unload();
  session.waitFor(unloaded, std::chrono::seconds(5));
  return finished && hasEvent(session.events(), QSOPlaybackChapterCompleteNotification) &&
         !hasEvent(session.events(), QSOPlaybackChapterFailedNotification);
}

void printAnalytics(Session& session, const content::ContentServer& server) {
  const auto posts = server.requests(content::Route::kAnalytics);
  session.line("the analytics endpoint received " + std::to_string(posts.size()) + " batch(es)");
  for (const auto& post : posts) {
    const auto body = nlohmann::json::parse(post.body, nullptr, false);
    if (session.json()) {
      session.printJSON({{"event", "analyticsBatch"},
                         {"body", body.is_discarded() ? nlohmann::json(post.body) : body}});
    } else {
      session.line(body.is_discarded() ? post.body : body.dump(2));
    }
  }
}

}  // namespace

int runDemo(const GlobalOptions& given, const DemoArgs& args) {
  DemoLibrary library(args.library.empty() ? given.library : args.library, args.keep);
  if (library.path().empty()) {
    std::fprintf(stderr, "sonorell: cannot create a temporary Library directory\n");
    return kExitFailure;
  }
  content::ContentServer server;
  try {
    server.start();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "sonorell: the reference content server did not start: %s\n", e.what());
    return kExitFailure;
  }

  // Paced like a good mobile connection, so that the progress bars have something to show.
  server.faults().add(content::Route::kAudio, content::Fault::bandwidth(kDemoBytesPerSecond),
                      content::Trigger::always());

  GlobalOptions options = given;
  options.library = library.path().string();
  options.api = server.baseURL();
  options.ca = server.caCertificatePath().string();
  if (options.sessionKey.empty()) options.sessionKey = "demo-session";
  if (options.licenseID.empty()) options.licenseID = "demo-license";
  Session session(options);
  const std::string book(content::kDemoBookID);
  const auto* entry = server.catalogue().book(book);

  session.line("Sonorell " + std::string(QSOSonorell::currentVersion()) + " demo");
  session.line("content server: " + server.baseURL() + " (its CA: " + options.ca + ")");
  session.line("Library: " + options.library + (library.kept() ? "" : " (removed at exit)"));

  heading(session,
          "1. download \"" + (entry ? entry->title : book) + "\" (audiobook " + book + ")");
  const Outcome download = downloadBook(session, {book, {}, false, false});
  const auto report = session.engine()->downloadEngine()->reportForAudiobookID(book);
  if (download.exitCode != kExitOK && report.status == DownloadStatusDownloaded) {
    session.line("(already downloaded in this Library)");
  } else if (download.exitCode != kExitOK) {
    return finishWith(session, "demo", download);
  }

  heading(session, "2. status");
  printStatusTable(session, report);
  if (report.chapters.empty()) {
    return finishWith(session, "demo", {kExitFailure, Failure{0, "no chapters on record"}});
  }

  heading(session, "3. play the first chapter");
  const AudioOutput output = probeAudioOutput();
  if (!output.available) {
    useSilentOutput();
    session.line("no audio device here: playing to fakesink instead (silent, in real time)");
  } else {
    session.line("audio to " + output.description);
  }
  if (!playChapter(session, book, report.chapters.front())) {
    Failure failure{0, "the chapter did not play to its end"};
    for (const auto& n : session.events()) {
      if (n.name == QSOPlaybackChapterFailedNotification) failure = failureIn(n).value_or(failure);
    }
    return finishWith(session, "demo", {kExitFailure, failure});
  }

  heading(session, "4. listening reported to analytics");
  const bool posted = session.engine()->flushListeningEvents(std::chrono::seconds(15));
  printAnalytics(session, server);
  if (!posted) {
    return finishWith(session, "demo",
                      {kExitFailure, Failure{0, "the listening events were not all accepted"}});
  }
  session.line("");
  session.line("demo complete");
  return session.finish("demo", kExitOK);
}

}  // namespace sonorell::cli
