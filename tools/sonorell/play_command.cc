// play: a chapter of an audiobook from disk or streamed, to the end of the book (--until-end),
// for a while (--for), or under the keyboard on a terminal; the desktop's media keys and player
// widgets reach it through MPRIS when there is a session bus.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <thread>

#include "audio_output.h"
#include "catalogue.h"
#include "commands.h"
#include "mpris.h"
#include "progress_view.h"
#include "terminal.h"

namespace sonorell::cli {

namespace {

constexpr uint64_t kSeekStep = 15;
constexpr float kRateStep = 0.25f;
constexpr float kMinRate = 0.5f;
constexpr float kMaxRate = 3.0f;

std::optional<Failure> playbackFailure(const std::vector<Notification>& events) {
  for (const auto& n : events) {
    if (n.name == QSOPlaybackChapterFailedNotification) {
      return failureIn(n).value_or(Failure{0, "playback failed"});
    }
  }
  return std::nullopt;
}

// The book has ended (complete, then unloaded) or failed.
bool playbackEnded(const std::vector<Notification>& events) {
  return playbackFailure(events).has_value() ||
         (hasEvent(events, QSOPlaybackAudiobookCompleteNotification) && unloaded(events));
}

std::string statusLine(QSOPlaybackEngine& player, bool buffering) {
  const auto chapter = player.currentLoadedChapter();
  const auto status = player.playerStatus();
  char text[256];
  std::snprintf(text, sizeof text, "%s  %s / %s  %.2fx  %s%s%s",
                chapter ? ("part " + std::to_string(chapter->partNumber()) + " ch " +
                           std::to_string(chapter->chapterNumber()))
                              .c_str()
                        : "-",
                formatDuration(static_cast<double>(player.currentOffset())).c_str(),
                formatDuration(static_cast<double>(player.currentDuration())).c_str(),
                static_cast<double>(player.currentRate()),
                player.isStreaming() ? "streamed" : "disk", buffering ? "  buffering" : "",
                status == QSOPlayerStatusPaused    ? "  paused"
                : status == QSOPlayerStatusLoading ? "  loading"
                                                   : "");
  return text;
}

// The keyboard loop; returns when the user quits or the book ends.
void interact(Session& session, QSOPlaybackEngine& player) {
  RawTerminal terminal;
  // The status line says what matters; event lines would scroll it away.
  session.setTextPrinter([](const Notification&) {});
  bool buffering = false;
  std::fprintf(out(),
               "space pause/resume, n/p next/previous chapter, left/right seek %llus, +/- rate, "
               "q quit\n",
               static_cast<unsigned long long>(kSeekStep));
  for (;;) {
    const auto events = session.events();
    if (playbackEnded(events)) break;
    for (const auto& n : events) {
      if (n.name == QSOPlaybackBufferingStartNotification) buffering = true;
      if (n.name == QSOPlaybackBufferingEndNotification) buffering = false;
    }
    std::fprintf(out(), "\r\x1b[2K%s", statusLine(player, buffering).c_str());
    std::fflush(out());
    if (gInterrupted.load()) break;
    const Key key = terminal.read(250);
    const uint64_t offset = player.currentOffset();
    switch (key) {
      case Key::Space:
        if (player.playerStatus() == QSOPlayerStatusPaused) {
          player.resume();
        } else {
          player.pause();
        }
        break;
      case Key::Next:
        player.nextChapter();
        break;
      case Key::Previous:
        player.previousChapter();
        break;
      case Key::Left:
        player.setCurrentOffset(offset > kSeekStep ? offset - kSeekStep : 0);
        break;
      case Key::Right:
        player.setCurrentOffset(offset + kSeekStep);
        break;
      case Key::Faster:
        player.setCurrentRate(std::min(kMaxRate, player.currentRate() + kRateStep));
        break;
      case Key::Slower:
        player.setCurrentRate(std::max(kMinRate, player.currentRate() - kRateStep));
        break;
      case Key::Quit:
        std::fprintf(out(), "\n");
        return;
      case Key::None:
      case Key::Other:
        break;
    }
  }
  std::fprintf(out(), "\n");
}

}  // namespace

int runPlay(Session& session, const PlayArgs& args) {
  if (args.at.part.has_value() != args.at.chapter.has_value()) {
    return usageError("--part and --chapter go together");
  }
  if (!(args.rate >= kMinRate && args.rate <= kMaxRate)) {
    return usageError("--rate must be between 0.5 and 3");
  }
  if (args.offset < 0) return usageError("--offset must not be negative");
  if (args.forSeconds && *args.forSeconds <= 0) return usageError("--for must be positive");
  const AudioOutput output = probeAudioOutput();
  if (!output.available) {
    return finishWith(session, "play",
                      {kExitFailure, Failure{0,
                                             "no audio device could be opened; set "
                                             "SONORELL_AUDIO_SINK (for example to fakesink) "
                                             "to play without one"}});
  }
  const std::string book = args.book;
  session.setFilter([book](const Notification& n) {
    const auto id = audiobookOf(n);
    return id.empty() || id == book;
  });
  session.configureEngine();
  if (!session.launch()) {
    return finishWith(
        session, "play",
        {kExitFailure, Failure{0, "the engine's start-up verification did not finish"}});
  }
  auto sonorell = session.engine();
  auto chapter = args.at;
  if (!chapter.part) {
    const auto report = sonorell->downloadEngine()->reportForAudiobookID(book);
    if (report.chapters.empty()) {
      return usageError("no chapters of " + book +
                        " are on record; name one with --part and "
                        "--chapter");
    }
    chapter.part = report.chapters.front().partNumber;
    chapter.chapter = report.chapters.front().chapterNumber;
  }
  auto player = sonorell->playbackEngine();
  player->setWifiOnly(args.wifiOnly);
  session.line("playing " + book + " part " + std::to_string(*chapter.part) + " chapter " +
               std::to_string(*chapter.chapter) + " to " + output.description);
  const auto mpris = MprisPlayer::start(player, {book, ""});
  if (mpris && session.options().verbose) session.line("media keys: " + mpris->busName());
  // The widget shows the title once the catalogue has it; playback does not wait for it.
  std::jthread titleLookUp;
  if (mpris) {
    titleLookUp = std::jthread([&mpris, &session, &book] {
      if (auto title = catalogueTitle(session.options(), book); !title.empty()) {
        mpris->setAlbum(std::move(title));
      }
    });
  }
  player->playForAudiobookID(book, *chapter.part, *chapter.chapter,
                             static_cast<uint64_t>(std::llround(args.offset)),
                             session.options().sessionKey, session.options().licenseID);
  if (args.rate != 1.0f) {
    session.waitFor([](const auto& events) {
      return hasEvent(events, QSOPlaybackChapterStartedNotification) || playbackEnded(events);
    });
    player->setCurrentRate(args.rate);
  }

  const bool keyboard = session.interactive() && !args.untilEnd && !args.forSeconds;
  if (keyboard) {
    interact(session, *player);
  } else {
    const auto limit = args.forSeconds
                           ? std::chrono::milliseconds(std::llround(*args.forSeconds * 1000))
                           : std::chrono::milliseconds::zero();
    session.waitFor(playbackEnded, limit);
  }
  gInterrupted.store(false);  // Ctrl-C ends playback like q; the unload below still runs
  if (!unloaded(session.events())) {
    player->unload();
    session.waitFor(unloaded, std::chrono::seconds(5));
  }
  // Listening is archived now and posted by this or a later run.
  sonorell->willTerminate();
  const auto failure = playbackFailure(session.events());
  return finishWith(session, "play", {failure ? kExitFailure : kExitOK, failure});
}

}  // namespace sonorell::cli
