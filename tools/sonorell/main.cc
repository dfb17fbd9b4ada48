// The sonorell command-line host: drives the engine the way an application would. Global
// options come before or after the command; every command's exit code is 0 (success), 1 (the
// engine reported a failure) or 2 (bad usage).
#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>

#include "commands.h"

namespace sonorell::cli {

int usageError(const std::string& message) {
  std::fprintf(stderr, "sonorell: %s (see sonorell --help)\n", message.c_str());
  return kExitUsage;
}

namespace {

// Engine log lines on standard error, for -v.
class StderrListener : public QSOLogListener {
 public:
  void logError(const std::string& line) override { print("error", line); }
  void logWarning(const std::string& line) override { print("warning", line); }
  void logInfo(const std::string& line) override { print("info", line); }
  void logVerbose(const std::string& line) override { print("verbose", line); }

 private:
  static void print(const char* level, const std::string& line) {
    std::fprintf(stderr, "log %-7s %s\n", level, line.c_str());
  }
};

void addChapterOptions(CLI::App* command, ChapterChoice& at) {
  command->add_option("--part", at.part, "Part number of the chapter");
  command->add_option("--chapter", at.chapter, "Chapter number within the part");
}

}  // namespace

int run(int argc, char** argv) {
  GlobalOptions global;
  CLI::App app{
      "sonorell: download and play audiobooks with the Sonorell engine.\n"
      "Exit codes: 0 success, 1 the engine reported a failure (code and description on\n"
      "standard error), 2 bad usage."};
  app.fallthrough();  // global options may follow the command too
  app.require_subcommand(1);
  app.add_option(
      "--library", global.library,
      "Library directory (else $SONORELL_LIBRARY_DIR, $XDG_DATA_HOME or ~/.local/share)");
  app.add_option("--api", global.api, "Content service base URL")->envname("SONORELL_API_BASE_URL");
  app.add_option("--ca", global.ca, "Extra trusted CA bundle (PEM)")->envname("SONORELL_CA_FILE");
  app.add_option("--session-key", global.sessionKey, "Session key for the content service")
      ->envname("SONORELL_SESSION_KEY");
  app.add_option("--license-id", global.licenseID, "License ID for the content service")
      ->envname("SONORELL_LICENSE_ID");
  app.add_flag("--json", global.json,
               "One JSON object per line on standard output: every event, then a summary");
  app.add_flag("-q,--quiet", global.quiet, "Only failures (and JSON, when asked for)");
  app.add_flag("-v,--verbose", global.verbose, "Engine log lines on standard error");

  DownloadArgs download;
  auto* downloadCmd = app.add_subcommand(
      "download",
      "Download an audiobook (or one chapter, or from a chapter to the end) and wait for it to "
      "end.\nProgress bars on a terminal; Ctrl-C pauses the download before exiting.");
  downloadCmd->add_option("BOOK", download.book, "Audiobook ID")->required();
  addChapterOptions(downloadCmd, download.at);
  downloadCmd->add_flag("--to-end", download.toEnd, "From --part/--chapter to the last chapter");
  downloadCmd->add_flag("--wifi-only", download.wifiOnly, "Only over Wi-Fi or wired networks");

  auto* resumeCmd = app.add_subcommand(
      "resume",
      "Launch the engine (verification, then restart of stored requests) and wait until every "
      "stored request has ended; exit 0 when all succeeded.");

  std::string statusBook;
  auto* statusCmd = app.add_subcommand(
      "status", "Status of one audiobook and its chapters (or of every audiobook on record)");
  statusCmd->add_option("BOOK", statusBook, "Audiobook ID");
  auto* listCmd = app.add_subcommand("list", "The audiobooks on record, one line each");

  std::string pauseBook;
  auto* pauseCmd = app.add_subcommand(
      "pause", "Pause an audiobook's downloads: stored requests are forgotten, files kept");
  pauseCmd->add_option("BOOK", pauseBook, "Audiobook ID")->required();

  std::string cancelBook;
  ChapterChoice cancelAt;
  auto* cancelCmd = app.add_subcommand(
      "cancel", "Cancel an audiobook's downloads (or one chapter's), removing unfinished files");
  cancelCmd->add_option("BOOK", cancelBook, "Audiobook ID")->required();
  addChapterOptions(cancelCmd, cancelAt);

  std::string deleteBook;
  ChapterChoice deleteAt;
  bool deleteAll = false;
  auto* deleteCmd = app.add_subcommand(
      "delete", "Delete an audiobook's (or one chapter's) files and records, or --all");
  deleteCmd->add_option("BOOK", deleteBook, "Audiobook ID");
  addChapterOptions(deleteCmd, deleteAt);
  deleteCmd->add_flag("--all", deleteAll, "Every audiobook");

  PlayArgs play;
  double forSeconds = 0;
  auto* playCmd = app.add_subcommand(
      "play",
      "Play an audiobook from disk or streamed. On a terminal: space pause/resume, n/p "
      "next/previous chapter,\nleft/right seek 15 s, +/- rate by 0.25, q quit. Audio goes to "
      "$SONORELL_AUDIO_SINK (default autoaudiosink).");
  playCmd->add_option("BOOK", play.book, "Audiobook ID")->required();
  addChapterOptions(playCmd, play.at);
  playCmd->add_option("--offset", play.offset, "Start this many seconds into the chapter");
  playCmd->add_option("--rate", play.rate, "Playback rate, 0.5 to 3 (pitch kept)");
  playCmd->add_flag("--wifi-only", play.wifiOnly, "Stream only over Wi-Fi or wired networks");
  playCmd->add_flag("--until-end", play.untilEnd,
                    "Play to the end of the book and exit (1 on a playback failure)");
  auto* forOption = playCmd->add_option("--for", forSeconds, "Stop after this many seconds");

  DemoArgs demo;
  auto* demoCmd = app.add_subcommand(
      "demo",
      "Start the reference content server in this process, download the demo book with "
      "progress bars,\nshow its status, play its first chapter and print the listening events "
      "the analytics endpoint received.");
  demoCmd->add_option("--library", demo.library, "Library directory (default: a temporary one)");
  demoCmd->add_flag("--keep", demo.keep, "Keep the temporary Library");

  auto* versionCmd = app.add_subcommand("version", "Print the engine version");

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    app.exit(e);
    return kExitUsage;
  }
  if (global.json && global.quiet) global.quiet = false;  // JSON is the output asked for
  if (global.verbose) QSOLogEngine::setListener(std::make_shared<StderrListener>());
  if (*forOption) play.forSeconds = forSeconds;

  installInterruptHandler();
  takeStandardOutput();
  // The engine's log goes to standard error only when asked for (-v or $SONORELL_LOG_LEVEL).
  ::setenv("SONORELL_LOG_LEVEL", "off", 0);
  if (*versionCmd) {
    std::fprintf(out(), "%s\n", std::string(QSOSonorell::currentVersion()).c_str());
    return kExitOK;
  }
  if (*demoCmd) return runDemo(global, demo);
  Session session(global);
  if (*downloadCmd) return runDownload(session, download);
  if (*resumeCmd) return runResume(session);
  if (*statusCmd) return runStatus(session, statusBook);
  if (*listCmd) return runList(session);
  if (*pauseCmd) return runPause(session, pauseBook);
  if (*cancelCmd) return runCancel(session, cancelBook, cancelAt);
  if (*deleteCmd) return runDelete(session, deleteBook, deleteAt, deleteAll);
  if (*playCmd) return runPlay(session, play);
  return kExitUsage;
}

}  // namespace sonorell::cli

int main(int argc, char** argv) {
  const int code = sonorell::cli::run(argc, argv);
  // Every command has waited for what it started. The engine's threads are still parked in
  // their queues, though, and must not watch the process's static objects being destroyed.
  std::fflush(sonorell::cli::out());
  std::fflush(stdout);
  std::fflush(stderr);
  std::_Exit(code);
}
