// pause, cancel and delete: the engine's commands on what it has stored, run without launching
// the engine (which would restart stored requests only to stop them again). Each waits until
// its commands have run and their notifications are printed.
#include <string>
#include <vector>

#include "commands.h"

namespace sonorell::cli {

namespace {

int finishCommands(Session& session, const std::string& command) {
  session.engine()->downloadEngine()->waitUntilCommandsHaveRun();
  QSOSonorell::waitForOpenActivities(std::chrono::seconds(5));
  return session.finish(command, kExitOK);
}

bool chapterGiven(const ChapterChoice& at) { return at.part.has_value(); }

// The book's requests an earlier run stored: acting on them here forgets them, so no later
// run takes them up again.
std::vector<std::string> storedRequests(QSODownloadEngine& engine, const std::string& book) {
  std::vector<std::string> ids;
  for (const auto& request : engine.currentDownloadRequests()) {
    if (request.audiobookID() == book) ids.push_back(request.requestIdentifier());
  }
  return ids;
}

}  // namespace

int runPause(Session& session, const std::string& book) {
  session.setFilter([book](const Notification& n) { return audiobookOf(n) == book; });
  session.configureEngine();
  auto engine = session.engine()->downloadEngine();
  for (const auto& id : storedRequests(*engine, book))
    engine->pauseDownloadForRequestIdentifier(id);
  engine->pauseForAudiobookID(book);
  return finishCommands(session, "pause");
}

int runCancel(Session& session, const std::string& book, const ChapterChoice& at) {
  if (at.part.has_value() != at.chapter.has_value()) {
    return usageError("--part and --chapter go together");
  }
  session.setFilter([book](const Notification& n) { return audiobookOf(n) == book; });
  session.configureEngine();
  auto engine = session.engine()->downloadEngine();
  if (chapterGiven(at)) {
    engine->cancelForAudiobookID(book, *at.part, *at.chapter);
  } else {
    for (const auto& id : storedRequests(*engine, book)) {
      engine->cancelDownloadForRequestIdentifier(id);
    }
    engine->cancelForAudiobookID(book);
  }
  return finishCommands(session, "cancel");
}

int runDelete(Session& session, const std::string& book, const ChapterChoice& at, bool all) {
  if (all == !book.empty()) return usageError("delete takes a BOOK or --all");
  if (all && chapterGiven(at)) return usageError("--all deletes every audiobook, not a chapter");
  if (at.part.has_value() != at.chapter.has_value()) {
    return usageError("--part and --chapter go together");
  }
  if (!all) session.setFilter([book](const Notification& n) { return audiobookOf(n) == book; });
  session.configureEngine();
  auto engine = session.engine()->downloadEngine();
  if (all) {
    engine->cancelAll();
    engine->deleteAll();
  } else if (chapterGiven(at)) {
    engine->deleteForAudiobookID(book, *at.part, *at.chapter);
  } else {
    for (const auto& id : storedRequests(*engine, book)) {
      engine->cancelDownloadForRequestIdentifier(id);
    }
    engine->deleteForAudiobookID(book);
  }
  return finishCommands(session, "delete");
}

}  // namespace sonorell::cli
