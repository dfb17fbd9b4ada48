// Taking up a stored request after a restart: the transfers its session still holds are adopted
// (running ones left to finish, suspended ones resumed) and only the other chapters are
// scheduled, in the order not downloaded, staged, downloading. The earlier process is a transfer
// service on the same journal that goes away with its transfers under way.
#include <gtest/gtest.h>

#include "download/metadata_status_recorder.h"
#include "support/download_engine_support.h"
#include "model/task_synchronizer.h"
#include "persistence/download_request_store.h"

namespace sonorell {
namespace {

using content::Fault;
using content::Route;
using content::Trigger;
using testing::DownloadEngineTest;

// Counts the bytes each transfer of the earlier process received.
class Counting : public TransferSessionDelegate {
 public:
  void didWriteData(const TransferSessionPtr&, const TransferTaskPtr& task, int64_t, int64_t total,
                    int64_t) override {
    std::lock_guard lock(mutex);
    received[task->taskDescription()] = total;
    arrived.notify_all();
  }
  bool waitForBytes(const std::string& key) {
    std::unique_lock lock(mutex);
    return arrived.wait_for(lock, std::chrono::seconds(30), [&] { return received[key] > 0; });
  }
  std::mutex mutex;
  std::condition_variable arrived;
  std::map<std::string, int64_t> received;  // guarded by mutex
};

class Resumption : public DownloadEngineTest {
 protected:
  void SetUp() override {
    DownloadEngineTest::SetUp();
    book = server.catalogue().book(content::kLargeBookID);
    // The last five chapters of the book, through a request from the fifth-last to the end.
    for (size_t i = book->chapters.size() - 5; i < book->chapters.size(); ++i) {
      const auto& c = book->chapters[i];
      chapters.emplace_back(book->id, c.part, c.chapter);
    }
    request.emplace(book->id, chapters[0].partNumber(), chapters[0].chapterNumber(),
                    DownloadTypeToEnd, "s", "license", false);
    options.journalFile = library.path() / "journal.sqlite";
    options.temporaryDirectory = library.path() / "transfers";
    options.reachability = services->reachability;
    // The book's records, as the metadata step of the earlier run left them.
    std::promise<ErrorPtr> fetched;
    auto synchronizer = std::make_shared<TaskSynchronizer>(
        HttpClient::shared(), std::make_shared<QSOMetadataStatusRecorder>());
    synchronizer->fetchAudiobookMetadata(book->id, "s", [&](ErrorPtr e) { fetched.set_value(e); });
    ASSERT_EQ(fetched.get_future().get(), nullptr);
    ASSERT_TRUE(QSODownloadRequestDatabaseHelper::saveToDatabase(*request));
  }

  void setStatuses(const std::vector<uint64_t>& statuses) {
    for (size_t i = 0; i < chapters.size(); ++i) {
      auto record = QSOChapterStatus::fetchForChapterDescription(chapters[i]);
      record->setDownloadStatus(statuses[i]);
      record->writeUpdateForProperties({"downloadStatus"});
    }
  }

  const content::Chapter& served(const QSOChapterDescription& d) {
    return *book->chapter(d.partNumber(), d.chapterNumber());
  }

  // The earlier process: its session holds transfers of `running` (under way, slowed down) and
  // `suspended` (made, never resumed) when it goes away.
  void leaveSessionBehind(const std::vector<size_t>& running,
                          const std::vector<size_t>& suspended) {
    auto earlier = TransferService::create(options);
    ASSERT_NE(earlier, nullptr);
    auto counting = std::make_shared<Counting>();
    TransferSessionConfiguration configuration;
    configuration.identifier = "QLSO_" + request->requestIdentifier();
    auto session = earlier->sessionWithConfiguration(configuration, counting);
    std::vector<size_t> all = running;
    all.insert(all.end(), suspended.begin(), suspended.end());
    for (size_t i : all) {
      const auto& c = served(chapters[i]);
      if (std::find(running.begin(), running.end(), i) != running.end()) {
        server.faults().add(Route::kAudio, Fault::bandwidth(20'000), Trigger::always(),
                            c.audioPath);
      }
      TransferRequest transfer;
      transfer.url = server.audioURL(book->id, c.part, c.chapter);
      auto task = session->downloadTask(transfer);
      task->setTaskDescription(chapters[i].toString());
      if (std::find(running.begin(), running.end(), i) != running.end()) task->resume();
    }
    for (size_t i : running) ASSERT_TRUE(counting->waitForBytes(chapters[i].toString()));
    session.reset();
    earlier.reset();
    server.faults().clear();
    services->transfers = TransferService::create(options);
    ASSERT_NE(services->transfers, nullptr);
  }

  std::vector<content::RecordedRequest> audioRequestsFor(const QSOChapterDescription& d) {
    std::vector<content::RecordedRequest> found;
    for (auto& r : server.requests(Route::kAudio)) {
      if (r.path == served(d).audioPath) found.push_back(r);
    }
    return found;
  }

  const content::Book* book = nullptr;
  std::vector<QSOChapterDescription> chapters;
  std::optional<QSODownloadRequest> request;
  TransferServiceOptions options;
};

TEST_F(Resumption, TwoTransfersStillRunningAreAdoptedAndTheRestScheduledInStatusOrder) {
  setStatuses({DownloadStatusDownloading, DownloadStatusStaged, DownloadStatusNotDownloaded,
               DownloadStatusDownloading, DownloadStatusStaged});
  leaveSessionBehind({1, 3}, {});
  makeEngine()->restartOldRequests();
  ASSERT_EQ(waitForEnd(request->requestIdentifier()), QSODownloadRequestSuccessNotification);

  for (size_t i = 0; i < chapters.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_TRUE(identicalToServer(*book, served(chapters[i])));
    const auto requests = audioRequestsFor(chapters[i]);
    if (i == 1 || i == 3) {
      // The earlier process's request, then only the missing bytes.
      ASSERT_EQ(requests.size(), 2u);
      EXPECT_TRUE(requests[1].header("Range").value_or("").starts_with("bytes="));
    } else {
      EXPECT_EQ(requests.size(), 1u);
    }
  }
  // Scheduled: the not-downloaded chapter, then the staged one, then the downloading one.
  const auto line = [&] {
    for (const auto& [level, text] : listener->lines()) {
      if (text.find("Filtered candidates to schedule") != std::string::npos) return text;
    }
    return std::string();
  }();
  const auto at = [&](size_t i) { return line.find(chapters[i].description()); };
  ASSERT_NE(at(2), std::string::npos);
  EXPECT_LT(at(2), at(4));
  EXPECT_LT(at(4), at(0));
  EXPECT_EQ(at(1), std::string::npos);
  EXPECT_EQ(at(3), std::string::npos);
  EXPECT_TRUE(engine->currentDownloadRequests().empty());
}

TEST_F(Resumption, ASuspendedTransferIsResumedNotScheduledAgain) {
  setStatuses({DownloadStatusStaged, DownloadStatusStaged, DownloadStatusStaged,
               DownloadStatusStaged, DownloadStatusStaged});
  leaveSessionBehind({}, {2});
  makeEngine()->restartOldRequests();
  ASSERT_EQ(waitForEnd(request->requestIdentifier()), QSODownloadRequestSuccessNotification);
  for (size_t i = 0; i < chapters.size(); ++i) {
    EXPECT_TRUE(identicalToServer(*book, served(chapters[i])));
    EXPECT_EQ(audioRequestsFor(chapters[i]).size(), 1u) << i;
  }
}

}  // namespace
}  // namespace sonorell
