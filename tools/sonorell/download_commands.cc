// download and resume: start requests (or let the engine restart the stored ones) and wait for
// each to end, drawing progress on a terminal. Ctrl-C pauses what is running before exiting.
#include <algorithm>
#include <cstdio>
#include <iterator>
#include <set>
#include <thread>

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

// The first failure among the events of these requests (or of their audiobooks' chapters). A
// failing request is reported cancelled (16000) before it is reported failed with the reason,
// so the cancellation counts only when nothing else failed.
std::optional<Failure> firstFailure(const std::vector<Notification>& events) {
  std::optional<Failure> cancelled;
  for (const auto& n : events) {
    if (n.name == QSODownloadRequestPausedNotification) continue;
    auto failure = failureIn(n);
    if (!failure) continue;
    if (n.name == QSODownloadRequestCancelledNotification ||
        n.name == QSOAudiobookDownloadCancelledNotification) {
      if (!cancelled) cancelled = failure;
      continue;
    }
    return failure;
  }
  return cancelled;
}

// The engine forgets a failed or paused request just after announcing its end. A process that
// exited in between would leave it stored, and the next launch would take it up again; so this
// waits (briefly) until none of `requests` is stored, then until what was posted is delivered.
void waitUntilForgotten(Session& session, const std::vector<std::string>& requests) {
  auto engine = session.engine()->downloadEngine();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  for (;;) {
    const auto stored = engine->currentDownloadRequests();
    const bool pending = std::any_of(stored.begin(), stored.end(), [&](const auto& request) {
      return std::find(requests.begin(), requests.end(), request.requestIdentifier()) !=
             requests.end();
    });
    if (!pending || std::chrono::steady_clock::now() >= deadline) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  engine->waitUntilCommandsHaveRun();
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
    waitUntilForgotten(session, requests);
    // Files of chapters that finished meanwhile are moved into place before the process ends.
    QSOSonorell::waitForOpenActivities(std::chrono::seconds(5));
    return {kExitFailure, Failure{16000, "download paused by interrupt"}};
  }
  waitUntilForgotten(session, requests);
  QSOSonorell::waitForOpenActivities(std::chrono::seconds(5));
  const auto events = session.events();
  bool allSucceeded = true;
  for (const auto& id : requests) {
    allSucceeded &= std::any_of(events.begin(), events.end(), [&](const Notification& n) {
      return n.name == QSODownloadRequestSuccessNotification && requestOf(n) == id;
    });
  }
  // Judged by these requests' own ends: another request for the same book (one restarted at
  // launch, say) may fail meanwhile without this command having failed.
  if (allSucceeded) return {kExitOK, std::nullopt};
  std::vector<Notification> own;
  std::copy_if(events.begin(), events.end(), std::back_inserter(own), [&](const Notification& n) {
    return std::find(requests.begin(), requests.end(), requestOf(n)) != requests.end();
  });
  auto failure = firstFailure(own);
  if (!failure) failure = firstFailure(events);
  return {kExitFailure, failure.value_or(Failure{0, "the download did not complete"})};
}

// A restarted request whose chapters are all downloaded (or that covers none) ends without a
// word from the engine, which keeps it stored for a later run: waiting for it would never end.
bool nothingLeftFor(Session& session, const QSODownloadRequest& request) {
  const auto report =
      session.engine()->downloadEngine()->reportForAudiobookID(request.audiobookID());
  if (!report.known) return false;  // its metadata is still to be fetched
  bool started = request.downloadType() == DownloadTypeFullAudiobook;
  for (const auto& c : report.chapters) {
    const bool isStart =
        c.partNumber == request.partNumber() && c.chapterNumber == request.chapterNumber();
    if (request.downloadType() == DownloadTypeSingleChapter) {
      if (isStart) return c.status == DownloadStatusDownloaded;
      continue;
    }
    started |= isStart;
    if (started && c.status != DownloadStatusDownloaded) return false;
  }
  return true;
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
    if (nothingLeftFor(session, request)) {
      session.line("request " + request.requestIdentifier() + " of " + request.audiobookID() +
                   ": nothing left to fetch");
      continue;
    }
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
