// The second process of the download crash tests: a host that launches the engine on the real
// services against the parent's server and Library, optionally starts a whole-book request, and
// writes one line per thing it observes to descriptor 3. It exits on its own only after the
// request ended and its queues went idle; mostly the parent kills it first.
//
// Arguments: Library directory, content API base URL, CA bundle, audiobook ID, and the mode:
//   "start"                  start a whole-book request once launched;
//   "resume"                 only launch;
//   "hold-after-move-<n>"    as "start", but once the engine has handled the n-th finished file
//                            the call never returns to the transfer service, which so never
//                            forgets that transfer;
//   "hold-before-move-<n>"   as "start", but the n-th finished file is never handed to the engine.
// A held process waits for the parent's SIGKILL.
// Lines: "verified", "staged|started|success|failed <chapter key>", "book-success",
// "request-success <id>", "request-failed <code> <text>", "bytes <key> <total>",
// "moving <key>" (just before the engine handles a finished file), "moved <key>", "done",
// "held" (a held process stops there), "idle" or "busy".
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "engine/engine_composition.h"
#include "platform/dispatch/dispatch_queue.h"
#include "platform/net/transfer_service.h"
#include "platform/services.h"
#include "sonorell/chapter_description.h"
#include "sonorell/download_engine.h"
#include "sonorell/facade.h"
#include "sonorell/notification_center.h"
#include "sonorell/notifications.h"

namespace {

using namespace sonorell;

void report(const std::string& line) {
  // One write per line: lines from different threads never interleave (under PIPE_BUF).
  std::string text = line + "\n";
  [[maybe_unused]] ssize_t n = ::write(3, text.data(), text.size());
}

enum class Hold { kNever, kAfterMove, kBeforeMove };

struct Holding {
  Hold hold = Hold::kNever;
  int at = 0;  // the finished file, counted from 1, that the process holds at
};

// Stands between a transfer session and the engine's delegate, so that the parent hears of a
// finished file right before the engine moves it into place and can kill the process there.
// Called on the session's delegate queue only.
class AnnouncingDelegate : public TransferSessionDelegate {
 public:
  AnnouncingDelegate(std::weak_ptr<TransferSessionDelegate> target, const Holding& holding)
      : target_(std::move(target)), holding_(holding) {}

  void didWriteData(const std::shared_ptr<TransferSession>& session,
                    const std::shared_ptr<TransferTask>& task, int64_t written, int64_t total,
                    int64_t expected) override {
    report("bytes " + task->taskDescription() + " " + std::to_string(total));
    if (auto target = target_.lock()) target->didWriteData(session, task, written, total, expected);
  }
  void didFinishDownloadingToURL(const std::shared_ptr<TransferSession>& session,
                                 const std::shared_ptr<TransferTask>& task,
                                 const std::filesystem::path& location) override {
    report("moving " + task->taskDescription());
    const bool holdHere = ++handed_ == holding_.at;
    if (holdHere && holding_.hold == Hold::kBeforeMove) hold();
    if (auto target = target_.lock()) target->didFinishDownloadingToURL(session, task, location);
    report("moved " + task->taskDescription());
    if (holdHere && holding_.hold == Hold::kAfterMove) hold();
  }
  void didCompleteWithError(const std::shared_ptr<TransferSession>& session,
                            const std::shared_ptr<TransferTask>& task, ErrorPtr error) override {
    if (auto target = target_.lock()) target->didCompleteWithError(session, task, std::move(error));
  }
  void didFinishEventsForBackgroundURLSession(
      const std::shared_ptr<TransferSession>& session) override {
    if (auto target = target_.lock()) target->didFinishEventsForBackgroundURLSession(session);
  }

 private:
  [[noreturn]] static void hold() {
    report("held");
    for (;;) ::pause();
  }

  const std::weak_ptr<TransferSessionDelegate> target_;
  const Holding& holding_;
  int handed_ = 0;  // finished files seen; delegate queue only
};

// The real transfer service, handing each session an announcing delegate in front of the
// engine's. Sessions hold their delegate weakly, so the announcers are kept here.
class AnnouncingTransferService : public TransferServiceWrapper {
 public:
  AnnouncingTransferService(std::shared_ptr<TransferService> target, const Holding& holding)
      : TransferServiceWrapper(std::move(target)), holding_(holding) {}

  TransferSessionPtr sessionWithConfiguration(
      const TransferSessionConfiguration& configuration,
      std::weak_ptr<TransferSessionDelegate> delegate) override {
    auto announcer = std::make_shared<AnnouncingDelegate>(std::move(delegate), holding_);
    {
      std::lock_guard lock(mutex_);
      announcers_[configuration.identifier] = announcer;
    }
    return TransferServiceWrapper::sessionWithConfiguration(configuration, announcer);
  }

 private:
  const Holding& holding_;
  std::mutex mutex_;
  std::map<std::string, std::shared_ptr<AnnouncingDelegate>> announcers_;  // guarded by mutex_
};

std::string chapterKey(const Notification& n) {
  auto it = n.userInfo.find(QSOChapterDescriptionUserInfoKey);
  if (it == n.userInfo.end()) return "?";
  const auto* chapter = it->second.getIf<QSOChapterDescription>();
  return chapter ? chapter->toString() : "?";
}

std::string text(const Notification& n, std::string_view key) {
  auto it = n.userInfo.find(key);
  return it == n.userInfo.end() ? std::string() : it->second.asString().value_or("");
}

std::string errorOf(const Notification& n) {
  auto it = n.userInfo.find(QSOSonorellErrorUserInfoKey);
  ErrorPtr error = it == n.userInfo.end() ? nullptr : it->second.asError();
  return error ? std::to_string(error->code) + " " + error->description() : "0 (no error)";
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) {
    std::fprintf(stderr, "engine_child: run only by the download crash tests\n");
    return 2;
  }
  const std::string bookID = argv[4];
  const std::string mode = argv[5];
  // Never destroyed: the transfer service's delegates read it until the process ends.
  auto& holding = *new Holding();
  for (auto [prefix, hold] : {std::pair{"hold-after-move-", Hold::kAfterMove},
                              std::pair{"hold-before-move-", Hold::kBeforeMove}}) {
    if (mode.starts_with(prefix)) {
      holding.hold = hold;
      holding.at = std::atoi(mode.c_str() + std::strlen(prefix));
    }
  }
  const bool start = mode == "start" || holding.hold != Hold::kNever;
  QSOSonorell::setLibraryDirectory(argv[1]);
  QSOSonorell::setContentAPIBaseURL(argv[2]);
  QSOSonorell::setTrustedCertificates(argv[3]);

  auto services = Services::systemCopy();
  services->transfers = std::make_shared<AnnouncingTransferService>(services->transfers, holding);
  auto engine = EngineComposition::create(services);
  auto downloads = engine->downloadEngine();

  const QSODownloadRequest request(bookID, DownloadTypeFullAudiobook, "session-key",
                                   "license-" + bookID, /*restrictToWiFi=*/false);
  std::mutex doneMutex;
  std::condition_variable doneChanged;
  bool done = false;  // guarded by doneMutex
  const auto finish = [&] {
    std::lock_guard lock(doneMutex);
    done = true;
    doneChanged.notify_all();
  };

  // Observers run on the engine's notifications queue, one at a time.
  NotificationCenter::defaultCenter().addObserver("", [&](const Notification& n) {
    const std::string_view name = n.name;
    if (name == QSOChapterDownloadStagedNotification) {
      report("staged " + chapterKey(n));
    } else if (name == QSOChapterDownloadStartedNotification) {
      report("started " + chapterKey(n));
    } else if (name == QSOChapterDownloadSuccessNotification) {
      report("success " + chapterKey(n));
    } else if (name == QSOChapterDownloadFailedNotification) {
      report("failed " + chapterKey(n) + " " + errorOf(n));
    } else if (name == QSOAudiobookDownloadSuccessNotification) {
      report("book-success");
    } else if (name == QSODownloadRequestFailedNotification) {
      report("request-failed " + errorOf(n));
    } else if (name == QSODownloadRequestSuccessNotification) {
      report("request-success " + text(n, QSODownloadRequestIDUserInfoKey));
      finish();
    } else if (name == QSODatabaseVerificationCompleteNotification) {
      report("verified");
      if (start) {
        // A fresh request only once verification has looked at what is stored, as a host does.
        downloads->startDownloadWithRequest(request);
      } else if (downloads->currentDownloadRequests().empty()) {
        finish();
      }
    }
  });

  // Verification, then the stored requests are taken up.
  engine->didFinishLaunching();

  std::unique_lock lock(doneMutex);
  doneChanged.wait(lock, [&] { return done; });
  lock.unlock();
  report("done");
  // What the end set going (the last file's journal row and temporary file, the session's
  // invalidation) finishes before the parent looks at the Library.
  report(DispatchQueue::waitUntilAllIdle(std::chrono::seconds(30)) ? "idle" : "busy");
  std::fflush(nullptr);
  // The engine is never torn down: leave without running destructors.
  std::_Exit(0);
}
