// Downloading books end to end against the reference server: what lands on disk, the status
// records, the notifications in their order, and what failures, pauses, cancels and deletes
// leave behind.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "download/progress_manager.h"
#include "persistence/audiobook_status.h"
#include "persistence/download_request_store.h"
#include "sonorell/errors.h"
#include "support/download_engine_support.h"

namespace sonorell {
namespace {

using content::Fault;
using content::Route;
using content::Trigger;
using testing::DownloadEngineTest;

QSODownloadRequest wholeBook(std::string_view id) {
  return QSODownloadRequest(std::string(id), DownloadTypeFullAudiobook, "session",
                            "license-" + std::string(id), false);
}

TEST_F(DownloadEngineTest, AWholeBookArrivesByteIdenticalWithEveryStepAnnouncedInOrder) {
  const auto* book = server.catalogue().book(content::kLargeBookID);
  ASSERT_NE(book, nullptr);
  auto request = wholeBook(book->id);
  ASSERT_EQ(download(request), QSODownloadRequestSuccessNotification);

  for (const auto& chapter : book->chapters) {
    SCOPED_TRACE(chapter.audioPath);
    const QSOChapterDescription description(book->id, chapter.part, chapter.chapter);
    EXPECT_TRUE(identicalToServer(*book, chapter));
    auto record = QSOChapterStatus::fetchForChapterDescription(description);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->downloadStatus(), DownloadStatusDownloaded);
    EXPECT_EQ(record->downloadedSize(), chapter.size);
    EXPECT_EQ(record->totalSize(), chapter.size);
    EXPECT_EQ(namesFor(description),
              (std::vector<std::string>{std::string(QSOChapterDownloadStagedNotification),
                                        std::string(QSOChapterDownloadStartedNotification),
                                        std::string(QSOChapterDownloadSuccessNotification)}));
  }
  EXPECT_EQ(engine->statusForAudiobookID(book->id), DownloadStatusDownloaded);
  EXPECT_FLOAT_EQ(engine->percentageForAudiobookID(book->id), 100.0f);
  EXPECT_EQ(
      QSOAudiobookStatus::fetchAudiobookStatusForAudiobookIdentifier(book->id)->downloadedSize(),
      book->actualSize());
  EXPECT_EQ(namesFor(std::nullopt, "QSOAudiobook"),
            (std::vector<std::string>{std::string(QSOAudiobookDownloadStagedNotification),
                                      std::string(QSOAudiobookDownloadStartedNotification),
                                      std::string(QSOAudiobookDownloadSuccessNotification)}));
  EXPECT_EQ(namesFor(std::nullopt, "QSODownloadRequest"),
            (std::vector<std::string>{std::string(QSODownloadRequestSuccessNotification)}));
  EXPECT_EQ(posted().back().name, QSODownloadRequestSuccessNotification);
  EXPECT_TRUE(engine->currentDownloadRequests().empty());
  EXPECT_EQ(server.requestCount(Route::kMetadata), 1u);
  EXPECT_EQ(server.requestCount(Route::kPlaylist), 1u);
}

TEST_F(DownloadEngineTest, PartialRequestsCoverExactlyTheirChaptersAndANeedlessOneFailsWith11003) {
  const auto* book = server.catalogue().book(content::kFourChapterBookID);
  auto toEnd = QSODownloadRequest(book->id, 0, 3, DownloadTypeToEnd, "s", "l", false);
  ASSERT_EQ(download(toEnd), QSODownloadRequestSuccessNotification);
  auto single = QSODownloadRequest(book->id, 0, 1, DownloadTypeSingleChapter, "s", "l", false);
  ASSERT_EQ(download(single), QSODownloadRequestSuccessNotification);
  for (const auto& chapter : book->chapters) {
    const bool wanted = chapter.chapter != 2;
    EXPECT_EQ(identicalToServer(*book, chapter), wanted) << chapter.chapter;
    EXPECT_EQ(engine->statusForAudiobookID(book->id, 0, chapter.chapter),
              wanted ? DownloadStatusDownloaded : DownloadStatusNotDownloaded);
  }
  EXPECT_EQ(engine->statusForAudiobookID(book->id), DownloadStatusPartiallyDownloaded);
  EXPECT_EQ(server.requestCount(Route::kAudio), 3u);

  auto again = QSODownloadRequest(book->id, 0, 4, DownloadTypeSingleChapter, "s", "l", false);
  ASSERT_EQ(download(again), QSODownloadRequestFailedNotification);
  // The task itself completes normally: failed (11003), then the request's success.
  std::vector<testing::Posted> ends;
  for (const auto& p : posted()) {
    if (p.text(QSODownloadRequestIDUserInfoKey) == again.requestIdentifier()) ends.push_back(p);
  }
  ASSERT_EQ(ends.size(), 2u);
  EXPECT_EQ(ends[0].name, QSODownloadRequestFailedNotification);
  ASSERT_NE(ends[0].error(), nullptr);
  EXPECT_EQ(ends[0].error()->code,
            static_cast<int64_t>(QSODownloadFailureCode::ChapterAlreadyInProgress));
  EXPECT_EQ(ends[1].name, QSODownloadRequestSuccessNotification);
  EXPECT_EQ(server.requestCount(Route::kAudio), 3u);
  EXPECT_TRUE(engine->currentDownloadRequests().empty());
}

struct StatusFault {
  Fault fault;
  int64_t code;
  std::string_view logged;  // a line the failure leaves in the log
};

TEST_F(DownloadEngineTest, AChapterAnsweredWithAnErrorFailsTheRequestAndKeepsWhatArrived) {
  const auto* book = server.catalogue().book(content::kThreeChapterBookID);
  const auto& broken = book->chapters.at(1);
  const StatusFault cases[] = {
      {Fault::statusCode(404), 11004, ""},
      {Fault::statusCode(400), 15000, "Failed due to receiving a 400 from the server"},
      {Fault::statusCode(500), 11009, ""},
      {Fault::statusCode(503), 11009, ""},
      {Fault::statusCode(504), 11009, ""},
      {Fault::errorDocument(502, "expired", "session_expired", 4011), 11008, ""},
      {Fault::customBody(502, "<html>bad gateway</html>", "text/html"), 10000, ""},
      {Fault::customBody(502, ""), 10000, "Empty Response Body. Status 502"},
  };
  makeEngine();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.code);
    engine->deleteForAudiobookID(book->id);
    auto rule = server.faults().add(Route::kAudio, c.fault, Trigger::always(), broken.audioPath);
    auto request = wholeBook(book->id);
    const size_t before = posted().size();
    ASSERT_EQ(download(request), QSODownloadRequestFailedNotification);
    server.faults().remove(rule);

    std::vector<std::string> order;
    ErrorPtr chapterError;
    const auto all = posted();
    for (const auto& p : std::vector(all.begin() + before, all.end())) {
      if (p.name == QSOChapterDownloadFailedNotification) chapterError = p.error();
      if (p.name == QSOChapterDownloadFailedNotification ||
          p.name == QSODownloadRequestCancelledNotification ||
          p.name == QSODownloadRequestFailedNotification ||
          p.name == QSOAudiobookDownloadFailedNotification) {
        order.push_back(p.name);
      }
    }
    EXPECT_EQ(order,
              (std::vector<std::string>{std::string(QSOChapterDownloadFailedNotification),
                                        std::string(QSODownloadRequestCancelledNotification),
                                        std::string(QSODownloadRequestFailedNotification),
                                        std::string(QSOAudiobookDownloadFailedNotification)}));
    ASSERT_NE(chapterError, nullptr);
    EXPECT_EQ(chapterError->code, c.code);
    if (!c.logged.empty()) {
      EXPECT_GE(listener->count(c.logged), 1u);
    }
    EXPECT_EQ(engine->statusForAudiobookID(book->id, broken.part, broken.chapter),
              DownloadStatusNotDownloaded);
    EXPECT_FALSE(FilesystemHelper::fileExists({book->id, broken.part, broken.chapter}));
    for (const auto& chapter : book->chapters) {
      if (engine->statusForAudiobookID(book->id, chapter.part, chapter.chapter) ==
          DownloadStatusDownloaded) {
        EXPECT_TRUE(identicalToServer(*book, chapter)) << "a downloaded chapter was lost";
      }
    }
    EXPECT_TRUE(engine->currentDownloadRequests().empty());
  }
}

TEST_F(DownloadEngineTest, ABodyCutShortOrLongerThanDeclaredIsNeverADownloadedChapter) {
  const auto* book = server.catalogue().book(content::kThreeChapterBookID);
  const auto& broken = book->chapters.at(0);
  makeEngine();
  for (auto fault :
       {Fault::cutShort(broken.size / 2), Fault::wrongContentLength(broken.size + 10)}) {
    engine->deleteForAudiobookID(book->id);
    auto rule = server.faults().add(Route::kAudio, fault, Trigger::always(), broken.audioPath);
    EXPECT_EQ(download(wholeBook(book->id)), QSODownloadRequestFailedNotification);
    server.faults().remove(rule);
    EXPECT_EQ(engine->statusForAudiobookID(book->id, broken.part, broken.chapter),
              DownloadStatusNotDownloaded);
    EXPECT_FALSE(FilesystemHelper::fileExists({book->id, broken.part, broken.chapter}));
  }
}

TEST_F(DownloadEngineTest, PausingKeepsFinishedChaptersAndAFreshRequestFetchesOnlyTheRest) {
  const auto* book = server.catalogue().book(content::kFourChapterBookID);
  // The last chapter crawls, so the pause always finds it unfinished.
  const auto& slow = book->chapters.back();
  server.faults().add(Route::kAudio, Fault::bandwidth(2000), Trigger::always(), slow.audioPath);
  makeEngine();
  auto request = wholeBook(book->id);
  engine->startDownloadWithRequest(request);
  ASSERT_TRUE(
      waitFor(QSOChapterDownloadSuccessNotification, QSOChapterDescription(book->id, 0, 1)));
  engine->pauseDownloadForRequestIdentifier(request.requestIdentifier());
  ASSERT_TRUE(waitFor(QSODownloadRequestPausedNotification));
  DispatchQueue::waitUntilAllIdle(std::chrono::seconds(10));

  auto names = namesFor(std::nullopt, "QSODownloadRequest");
  ASSERT_GE(names.size(), 2u);
  EXPECT_EQ(names[names.size() - 2], QSODownloadRequestCancelledNotification);
  EXPECT_EQ(names.back(), QSODownloadRequestPausedNotification);
  EXPECT_EQ(engine->statusForAudiobookID(book->id, slow.part, slow.chapter),
            DownloadStatusNotDownloaded);
  EXPECT_FALSE(FilesystemHelper::fileExists({book->id, slow.part, slow.chapter}));
  EXPECT_EQ(engine->statusForAudiobookID(book->id, 0, 1), DownloadStatusDownloaded);
  EXPECT_TRUE(engine->currentDownloadRequests().empty());

  server.faults().clear();
  // Requests per chapter so far; a paused transfer's request may still reach the server late,
  // so only the chapters finished before the pause are counted exactly.
  auto requestsFor = [&](const content::Chapter& chapter) {
    size_t n = 0;
    for (const auto& r : server.requests(Route::kAudio)) n += r.path == chapter.audioPath;
    return n;
  };
  std::vector<std::pair<const content::Chapter*, size_t>> finished;
  for (const auto& chapter : book->chapters) {
    if (engine->statusForAudiobookID(book->id, chapter.part, chapter.chapter) == 3) {
      finished.emplace_back(&chapter, requestsFor(chapter));
    }
  }
  ASSERT_FALSE(finished.empty());
  ASSERT_EQ(download(wholeBook(book->id)), QSODownloadRequestSuccessNotification);
  for (const auto& [chapter, before] : finished) {
    EXPECT_EQ(requestsFor(*chapter), before) << "a finished chapter was fetched again";
  }
  for (const auto& chapter : book->chapters) EXPECT_TRUE(identicalToServer(*book, chapter));
}

// A second request for a book whose remaining chapters another request is fetching (one
// restarted at launch, say) waits for them: their arrival is its success, and when the other
// request fails it takes up the chapters that one left.
TEST_F(DownloadEngineTest, ASecondRequestForABookWaitsForTheFirstAndTakesOverWhatItLeaves) {
  makeEngine();
  for (const bool firstFails : {false, true}) {
    SCOPED_TRACE(firstFails ? "the first request fails" : "the first request succeeds");
    const auto* book = server.catalogue().book(firstFails ? content::kThreeChapterBookID
                                                          : content::kFourChapterBookID);
    const auto& last = book->chapters.back();
    // The last chapter answers late, so the second request finds it in the first one's hands.
    Fault fault = firstFails ? Fault::statusCode(500) : Fault{};
    fault.delay = std::chrono::milliseconds(1500);
    server.faults().add(Route::kAudio, fault, Trigger::next(1), last.audioPath);

    auto first = wholeBook(book->id);
    engine->startDownloadWithRequest(first);
    ASSERT_TRUE(waitFor(QSOChapterDownloadStagedNotification,
                        QSOChapterDescription(book->id, last.part, last.chapter)));
    const auto second = QSODownloadRequest(book->id, DownloadTypeFullAudiobook, "session",
                                           "license-" + book->id, false);
    engine->startDownloadWithRequest(second);

    EXPECT_EQ(waitForEnd(second.requestIdentifier(), std::chrono::seconds(30)),
              QSODownloadRequestSuccessNotification);
    EXPECT_EQ(
        waitForEnd(first.requestIdentifier(), std::chrono::seconds(30)),
        firstFails ? QSODownloadRequestFailedNotification : QSODownloadRequestSuccessNotification);
    for (const auto& chapter : book->chapters) EXPECT_TRUE(identicalToServer(*book, chapter));
    size_t lastFetches = 0;
    for (const auto& r : server.requests(Route::kAudio)) lastFetches += r.path == last.audioPath;
    EXPECT_EQ(lastFetches, firstFails ? 2u : 1u);
    EXPECT_EQ(engine->statusForAudiobookID(book->id), DownloadStatusDownloaded);
    EXPECT_TRUE(engine->currentDownloadRequests().empty());
  }
}

TEST_F(DownloadEngineTest, CancellingOneChapterKeepsTheRequestAndDeleteRemovesEverything) {
  const auto* book = server.catalogue().book(content::kThreeChapterBookID);
  makeEngine();
  auto request = wholeBook(book->id);
  engine->startDownloadWithRequest(request);
  engine->cancelForAudiobookID(book->id, 0, 2);
  ASSERT_EQ(waitForEnd(request.requestIdentifier()), QSODownloadRequestSuccessNotification);
  EXPECT_EQ(namesFor(QSOChapterDescription(book->id, 0, 2), "QSOChapterDownloadCancelled").size(),
            1u);
  for (const auto& chapter : book->chapters) EXPECT_TRUE(identicalToServer(*book, chapter));
  ASSERT_TRUE(QSOPlaylistManager::sharedManager()
                  ->getPlaylistForIdentifier(request.licenseID(), true)
                  .has_value());

  engine->deleteForAudiobookID(book->id);
  DispatchQueue::waitUntilAllIdle(std::chrono::seconds(10));
  EXPECT_FALSE(std::filesystem::exists(FilesystemHelper::audiobookDirectory(book->id)));
  EXPECT_EQ(QSOAudiobookStatus::fetchAudiobookStatusForAudiobookIdentifier(book->id), nullptr);
  EXPECT_TRUE(QSOChapterStatus::fetchAllForAudiobookIdentifier(book->id).empty());
  EXPECT_EQ(QSOProgressManager::sharedManager()->progressForAudiobookID(book->id), nullptr);
  EXPECT_FALSE(QSOPlaylistManager::sharedManager()
                   ->getPlaylistForIdentifier(request.licenseID(), true)
                   .has_value());
  EXPECT_EQ(engine->statusForAudiobookID(book->id), DownloadStatusNotDownloaded);
}

TEST_F(DownloadEngineTest, AnInvalidRequestIsRefusedWith11000AndStoresNothing) {
  makeEngine();
  QSODownloadRequest noKey("1001", DownloadTypeFullAudiobook, "", "license", false);
  ASSERT_EQ(download(noKey), QSODownloadRequestFailedNotification);
  auto names = namesFor(std::nullopt);
  ASSERT_EQ(names.size(), 2u);
  EXPECT_EQ(names[1], QSOAudiobookDownloadFailedNotification);
  EXPECT_EQ(posted().front().error()->code, 11000);
  EXPECT_TRUE(engine->currentDownloadRequests().empty());
  EXPECT_EQ(server.requestCount(Route::kMetadata), 0u);
}

// Hands the engine's delegate every event but one: the first finished file of `key` never
// arrives, and that transfer completes as lost by the service (-997), as when a temporary file
// vanished before the process could handle it.
class LosesOneFinishedFile : public TransferSessionDelegate {
 public:
  LosesOneFinishedFile(std::weak_ptr<TransferSessionDelegate> target, std::string key)
      : target_(std::move(target)), key_(std::move(key)) {}
  void didWriteData(const TransferSessionPtr& s, const TransferTaskPtr& t, int64_t a, int64_t b,
                    int64_t c) override {
    if (auto target = target_.lock()) target->didWriteData(s, t, a, b, c);
  }
  void didFinishDownloadingToURL(const TransferSessionPtr& s, const TransferTaskPtr& t,
                                 const std::filesystem::path& location) override {
    if (t->taskDescription() == key_ && !lost_) {
      lost_ = t->taskIdentifier();
      return;
    }
    if (auto target = target_.lock()) target->didFinishDownloadingToURL(s, t, location);
  }
  void didCompleteWithError(const TransferSessionPtr& s, const TransferTaskPtr& t,
                            ErrorPtr error) override {
    if (lost_ == t->taskIdentifier()) {
      error = Error::make(std::string(kURLLoadingErrorDomain),
                          kURLErrorBackgroundSessionWasDisconnected, "lost", nullptr);
    }
    if (auto target = target_.lock()) target->didCompleteWithError(s, t, std::move(error));
  }
  void didFinishEventsForBackgroundURLSession(const TransferSessionPtr& s) override {
    if (auto target = target_.lock()) target->didFinishEventsForBackgroundURLSession(s);
  }

 private:
  const std::weak_ptr<TransferSessionDelegate> target_;
  const std::string key_;
  std::optional<uint64_t> lost_;  // the session's delegate queue only
};

class LosingTransfers : public TransferServiceWrapper {
 public:
  LosingTransfers(std::shared_ptr<TransferService> target, std::string key)
      : TransferServiceWrapper(std::move(target)), key_(std::move(key)) {}
  TransferSessionPtr sessionWithConfiguration(
      const TransferSessionConfiguration& configuration,
      std::weak_ptr<TransferSessionDelegate> delegate) override {
    auto wrapper = std::make_shared<LosesOneFinishedFile>(std::move(delegate), key_);
    delegates_.push_back(wrapper);  // sessions hold their delegates weakly
    return TransferServiceWrapper::sessionWithConfiguration(configuration, wrapper);
  }

 private:
  const std::string key_;
  std::vector<std::shared_ptr<LosesOneFinishedFile>> delegates_;
};

TEST_F(DownloadEngineTest, ALostTransferIsFetchedAgainWithAFreshPlaylistAndNoFailure) {
  const auto* book = server.catalogue().book(content::kThreeChapterBookID);
  const auto& lost = book->chapters.at(1);
  const QSOChapterDescription description(book->id, lost.part, lost.chapter);
  services->transfers =
      std::make_shared<LosingTransfers>(services->transfers, description.toString());
  ASSERT_EQ(download(wholeBook(book->id)), QSODownloadRequestSuccessNotification);
  for (const auto& chapter : book->chapters) EXPECT_TRUE(identicalToServer(*book, chapter));
  EXPECT_TRUE(namesFor(description, "QSOChapterDownloadFailed").empty());
  EXPECT_TRUE(namesFor(std::nullopt, "QSODownloadRequestFailed").empty());
  EXPECT_EQ(server.requestCount(Route::kPlaylist), 2u);
  EXPECT_EQ(listener->count("trying to resolve the download failure"), 1u);
  EXPECT_EQ(engine->statusForAudiobookID(book->id), DownloadStatusDownloaded);
}

TEST_F(DownloadEngineTest, NoRoomForAChapterFailsWith18000AndLosesNothingAlreadyDownloaded) {
  auto full = std::make_shared<std::atomic<bool>>(false);
  TransferServiceOptions options;
  options.journalFile = library.path() / "NoSpace.sqlite";
  options.temporaryDirectory = library.path() / "NoSpaceTemporary";
  options.reachability = services->reachability;
  options.freeSpace = [full](const std::filesystem::path&) -> std::optional<uint64_t> {
    return *full ? 0 : uint64_t{1} << 40;
  };
  services->transfers = TransferService::create(options);
  ASSERT_NE(services->transfers, nullptr);
  const auto* book = server.catalogue().book(content::kThreeChapterBookID);
  const auto& kept = book->chapters.at(0);
  ASSERT_EQ(download(QSODownloadRequest(book->id, kept.part, kept.chapter,
                                        DownloadTypeSingleChapter, "s", "l", false)),
            QSODownloadRequestSuccessNotification);

  *full = true;
  ASSERT_EQ(download(wholeBook(book->id)), QSODownloadRequestFailedNotification);
  ErrorPtr chapterError;
  for (const auto& p : posted()) {
    if (p.name == QSOChapterDownloadFailedNotification) chapterError = p.error();
  }
  ASSERT_NE(chapterError, nullptr);
  EXPECT_EQ(chapterError->code, static_cast<int64_t>(QSODownloadFailureCode::NoSpace));
  EXPECT_EQ(chapterError->localizedDescription(), QSODownloadFailureNoSpaceDescription);
  EXPECT_TRUE(identicalToServer(*book, kept));
  EXPECT_EQ(engine->statusForAudiobookID(book->id, kept.part, kept.chapter),
            DownloadStatusDownloaded);
}

TEST_F(DownloadEngineTest, HostileIdentifiersAreStoredUnchangedOrRefusedAndNeverLeaveTheAudioTree) {
  const auto* real = server.catalogue().book(content::kThreeChapterBookID);
  makeEngine();
  ASSERT_EQ(download(wholeBook(real->id)), QSODownloadRequestSuccessNotification);
  const std::vector<std::string> stored = {"a\"b", "x--y", "'); DROP TABLE chapterStatus; --",
                                           "\xC3\x9C"
                                           "n\xC3\xAF"
                                           "c\xC3\xB8"
                                           "d\xC3\xA9 \xE6\x9B\xB8"};
  const std::vector<std::string> refused = {"a/../b", "../escape", ".."};
  auto answerAs = [&](const std::string& id) {
    server.faults().clear();
    nlohmann::json chapters = nlohmann::json::array();
    nlohmann::json items = nlohmann::json::array();
    for (const auto& c : real->chapters) {
      chapters.push_back(
          {{"duration", c.durationMs}, {"part_number", c.part}, {"chapter_number", c.chapter}});
      items.push_back({{"part_number", c.part},
                       {"chapter_number", c.chapter},
                       {"url", server.audioURL(real->id, c.part, c.chapter)}});
    }
    nlohmann::json metadata = {
        {"audiobook", {{"id", id}, {"actual_size", real->actualSize()}, {"chapters", chapters}}}};
    nlohmann::json playlist = {{"playlist_token", "token-" + id},
                               {"expires", "2099-01-02T03:04:05+0000"},
                               {"playlist", items}};
    server.faults().add(Route::kMetadata, Fault::customBody(200, metadata.dump()),
                        Trigger::always());
    server.faults().add(Route::kPlaylist, Fault::customBody(200, playlist.dump()),
                        Trigger::always());
  };
  for (const auto& id : stored) {
    SCOPED_TRACE(id);
    answerAs(id);
    ASSERT_EQ(download(wholeBook(id)), QSODownloadRequestSuccessNotification);
    auto ids = engine->localAudiobookIDs();
    EXPECT_NE(std::find(ids.begin(), ids.end(), id), ids.end());
    EXPECT_EQ(engine->statusForAudiobookID(id), DownloadStatusDownloaded);
    for (const auto& c : real->chapters) {
      EXPECT_EQ(content::sha256Hex(fileBytes({id, c.part, c.chapter})), c.sha256);
    }
  }
  for (const auto& id : refused) {
    SCOPED_TRACE(id);
    answerAs(id);
    EXPECT_EQ(download(wholeBook(id)), QSODownloadRequestFailedNotification);
    EXPECT_NE(engine->statusForAudiobookID(id), DownloadStatusDownloaded);
  }
  // Every chapter file lies in the audio tree, and the real book is untouched.
  const auto audio = std::filesystem::weakly_canonical(FilesystemHelper::audioParentDirectory());
  for (const auto& entry : std::filesystem::recursive_directory_iterator(library.path())) {
    if (entry.path().extension() != ".mp3") continue;
    const auto file = std::filesystem::weakly_canonical(entry.path()).string();
    EXPECT_TRUE(file.starts_with(audio.string() + "/")) << file;
  }
  for (const auto& c : real->chapters) EXPECT_TRUE(identicalToServer(*real, c));
  EXPECT_EQ(engine->statusForAudiobookID(real->id), DownloadStatusDownloaded);
}

}  // namespace
}  // namespace sonorell
