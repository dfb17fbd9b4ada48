// download and resume: start requests (or let the engine restart the stored ones) and wait for
// each to end, drawing progress on a terminal. Ctrl-C pauses what is running before exiting.
#include <algorithm>
#include <cstdio>
#include <set>

#include "commands.h"
#include "progress_view.h"

namespace sonorell::cli {

namespace {

bool isRequestEnd(const std::string& name) {
  return name == QSODownloadRequestSuccessNotification ||
         name == QSODownloadRequestFailedNotification ||
         name == QSODownloadRequestCancelledNotification ||
         name == QSODownloadRequestPausedNotification;
}

// The first failure among the events of these requests (or of their audiobooks' chapters).
std::optional<Failure> firstFailure(const std::vector<Notification>& events) {
  for (const auto& n : events) {
    if (n.name == QSODownloadRequestPausedNotification) continue;
    if (auto failure = failureIn(n)) return failure;
  }
  return std::nullopt;
}

// Draws the bars of the audiobooks being downloaded while the command waits.
class Progress {
 public:
  Progress(Session& session, std::vector<std::string> books) : session_(session), books_(books) {
    if (session_.interactive() && !session_.quiet()) {
      session_.setTextPrinter([this](const Notification& n) { view_.note(describeEvent(n)); });
    }
  }
  ~Progress() { view_.close(); }
  void tick() {
    if (!session_.interactive() || session_.quiet()) return;
    for (const auto& book : books_) {
      view_.draw(session_.engine()->downloadEngine()->reportForAudiobookID(book));
    }
  }

 private:
  Session& session_;
  const std::vector<std::string> books_;
  ProgressView view_;
};

// Pauses the requests still running after Ctrl-C and waits for the engine to say so (a pause
// reports the request cancelled first, then paused).
void pauseOnInterrupt(Session& session, const std::vector<std::string>& requests) {
  session.line("interrupted: pausing");
  auto engine = session.engine()->downloadEngine();
  for (const auto& id : requests) engine->pauseDownloadForRequestIdentifier(id);
  gInterrupted.store(false);
  session.waitFor(
      [&](const std::vector<Notification>& events) {
        return std::all_of(requests.begin(), requests.end(), [&](const std::string& id) {
          return std::any_of(events.begin(), events.end(), [&](const Notification& n) {
            return requestOf(n) == id && (n.name == QSODownloadRequestPausedNotification ||
                                          n.name == QSODownloadRequestSuccessNotification ||
                                          n.name == QSODownloadRequestFailedNotification);
          });
        });
      },
      std::chrono::seconds(10));
}

// Waits for every request in `requests` to end and says how they ended.
Outcome waitForRequests(Session& session, const std::vector<std::string>& requests,
                        const std::vector<std::string>& books) {
  Progress progress(session, books);
  const auto ended = [&](const std::vector<Notification>& events) {
    std::set<std::string> done;
    for (const auto& n : events) {
      if (isRequestEnd(n.name)) done.insert(requestOf(n));
    }
    return std::all_of(requests.begin(), requests.end(),
                       [&](const std::string& id) { return done.count(id) > 0; });
  };
  const bool finished = session.waitFor(ended, {}, [&] { progress.tick(); });
  progress.tick();
  if (!finished) {
    pauseOnInterrupt(session, requests);
    // Files of chapters that finished meanwhile are moved into place before the process ends.
    QSOSonorell::waitForOpenActivities(std::chrono::seconds(5));
    return {kExitFailure, Failure{16000, "download paused by interrupt"}};
  }
  QSOSonorell::waitForOpenActivities(std::chrono::seconds(5));
  const auto events = session.events();
  bool allSucceeded = true;
  for (const auto& id : requests) {
    allSucceeded &= std::any_of(events.begin(), events.end(), [&](const Notification& n) {
      return n.name == QSODownloadRequestSuccessNotification && requestOf(n) == id;
    });
  }
  auto failure = firstFailure(events);
  if (allSucceeded && !failure) return {kExitOK, std::nullopt};
  return {kExitFailure, failure.value_or(Failure{0, "the download did not complete"})};
}

}  // namespace

int finishWith(Session& session, const std::string& command, const Outcome& outcome) {
  if (!outcome.failure) return session.finish(command, outcome.exitCode);
  session.reportFailure(*outcome.failure);
  return session.finish(
      command, outcome.exitCode,
      {{"error",
        {{"code", outcome.failure->code}, {"description", outcome.failure->description}}}});
}

Outcome downloadBook(Session& session, const DownloadArgs& args) {
  const std::string book = args.book;
  session.setFilter([book](const Notification& n) { return audiobookOf(n) == book; });
  session.configureEngine();
  if (!session.launch()) {
    return {kExitFailure, Failure{0, "the engine's start-up verification did not finish"}};
  }
  const auto& options = session.options();
  const uint64_t type = !args.at.part ? DownloadTypeFullAudiobook
                        : args.toEnd  ? DownloadTypeToEnd
                                      : DownloadTypeSingleChapter;
  QSODownloadRequest request(book, args.at.part.value_or(QSODownloadRequestDefaultPart),
                             args.at.chapter.value_or(QSODownloadRequestDefaultChapter), type,
                             options.sessionKey, options.licenseID, args.wifiOnly);
  session.line("downloading " + book + " (request " + request.requestIdentifier() + ")");
  session.engine()->downloadEngine()->startDownloadWithRequest(request);
  return waitForRequests(session, {request.requestIdentifier()}, {book});
}

int runDownload(Session& session, const DownloadArgs& args) {
  if (args.at.part.has_value() != args.at.chapter.has_value()) {
    return usageError("--part and --chapter go together");
  }
  if (args.toEnd && !args.at.part) return usageError("--to-end needs --part and --chapter");
  return finishWith(session, "download", downloadBook(session, args));
}

int runResume(Session& session) {
  session.configureEngine();
  if (!session.launch()) {
    return finishWith(
        session, "resume",
        {kExitFailure, Failure{0, "the engine's start-up verification did not finish"}});
  }
  // Verification has restarted the stored requests by now; those still stored are running.
  std::vector<std::string> requests, books;
  for (const auto& request : session.engine()->downloadEngine()->currentDownloadRequests()) {
    requests.push_back(request.requestIdentifier());
    if (std::find(books.begin(), books.end(), request.audiobookID()) == books.end()) {
      books.push_back(request.audiobookID());
    }
  }
  session.line(requests.empty() ? "nothing to resume"
                                : "resuming " + std::to_string(requests.size()) + " request(s)");
  return finishWith(session, "resume", waitForRequests(session, requests, books));
}

}  // namespace sonorell::cli
