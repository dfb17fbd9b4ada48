// Fetching metadata from the reference server: every status mapping, the records a document
// becomes (expected sizes by duration), tolerant reading, and coalesced concurrent fetches.
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <future>

#include "core/service_urls.h"
#include "download/metadata_status_recorder.h"
#include "model/audiobook_api_fetch.h"
#include "model/task_synchronizer.h"
#include "persistence/audiobook_status.h"
#include "persistence/chapter_status.h"
#include "persistence/database_manager.h"
#include "platform/services.h"
#include "sonorell/errors.h"
#include "support/failure_notification.h"
#include "support/server_fixture.h"

namespace sonorell {
namespace {

using content::Fault;
using content::Route;
using content::Trigger;

class MetadataFetch : public testing::ServerTest {
 protected:
  ErrorPtr fetch(const std::string& id) {
    std::promise<ErrorPtr> done;
    auto future = done.get_future();
    auto fetcher =
        std::make_shared<QSOAudiobookAPIFetch>("session-key", HttpClient::shared(), recorder);
    fetcher->fetchAudiobook(id, [&done](ErrorPtr error) { done.set_value(error); });
    return await(future);
  }
  std::shared_ptr<QSOMetadataRecorder> recorder = std::make_shared<QSOMetadataStatusRecorder>();
  void answerMetadataWith(const std::string& body) {
    server.faults().add(Route::kMetadata, Fault::customBody(200, body), Trigger::always());
  }
};

TEST_F(MetadataFetch, ABookBecomesItsStatusRecordsWithSizesInProportionToDuration) {
  const auto* book = server.catalogue().book(content::kThreeChapterBookID);
  ASSERT_NE(book, nullptr);
  EXPECT_EQ(fetch(book->id), nullptr);
  auto status = QSOAudiobookStatus::fetchAudiobookStatusForAudiobookIdentifier(book->id);
  ASSERT_NE(status, nullptr);
  EXPECT_EQ(status->totalSize(), book->actualSize());
  auto chapters = QSOChapterStatus::fetchAllSortedForAudiobookIdentifier(book->id);
  ASSERT_EQ(chapters.size(), book->chapters.size());
  for (const auto& chapter : chapters) {
    EXPECT_EQ(chapter->downloadStatus(), DownloadStatusNotDownloaded);
    EXPECT_GT(chapter->totalSize(), 0u);
    EXPECT_LE(chapter->totalSize(), book->actualSize());
  }
  auto request = server.requests(Route::kMetadata).at(0);
  EXPECT_EQ(request.header("Session-Key"), "session-key");
  EXPECT_EQ(request.header("Content-Type"), "application/json");
  EXPECT_EQ(request.header("X-Request-Id").value_or("").size(), 36u);
  EXPECT_EQ(listener->count("[DownloadEngine] Starting a GET. Making a /audiobooks request to " +
                            server.metadataURL(book->id) + " with session session-key"),
            1u);
}

// Sizes come from the book's size split by whole seconds in single precision; a size beyond
// what a uint64 holds (a huge number, or a rounding up to 2^64) is recorded as the largest one.
TEST_F(MetadataFetch, ChapterSizesSplitTheBookBySingleSecondsAndSaturateAtTheLargestSize) {
  struct Case {
    std::string id;
    std::string body;
    uint64_t bookSize;
    std::vector<uint64_t> chapterSizes;
  };
  const Case cases[] = {
      {"77",
       R"({"audiobook": {"id": "77", "actual_size": 1000, "chapters": [
          {"duration": 1999, "part_number": 0, "chapter_number": 1},
          {"duration": 3000, "part_number": 0, "chapter_number": 2}]}})",
       1000,
       {250, 750}},
      {"x", R"({"audiobook":{"id":"x","actual_size":1e300}})", UINT64_MAX, {}},
      {"y",
       R"({"audiobook":{"id":"y","actual_size":18446744073709551615,"chapters":[{"duration":5000}]}})",
       UINT64_MAX,
       {UINT64_MAX}},
      {"z",
       R"({"audiobook": {"id": "z", "actual_size": 1e300, "chapters": [
          {"duration": 1000, "part_number": 0, "chapter_number": 1},
          {"duration": 3000, "part_number": 0, "chapter_number": 2}]}})",
       UINT64_MAX,
       {uint64_t{1} << 62, 13835058055282163712u}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.body);
    server.faults().clear();
    answerMetadataWith(c.body);
    ASSERT_EQ(fetch(c.id), nullptr);
    auto book = QSOAudiobookStatus::fetchAudiobookStatusForAudiobookIdentifier(c.id);
    ASSERT_NE(book, nullptr);
    EXPECT_EQ(book->totalSize(), c.bookSize);
    std::vector<uint64_t> sizes;
    for (const auto& chapter : QSOChapterStatus::fetchAllSortedForAudiobookIdentifier(c.id)) {
      sizes.push_back(chapter->totalSize());
    }
    EXPECT_EQ(sizes, c.chapterSizes);
  }
}

TEST_F(MetadataFetch, AnEmptyIdCompletesWith70AndWritesNothing) {
  answerMetadataWith(R"({"audiobook": {"id": "", "actual_size": 10, "chapters": []}})");
  auto error = fetch("78");
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain, QSOErrorDomain);
  EXPECT_EQ(error->code, 70);
  EXPECT_TRUE(QSODatabaseManager::sharedManager()->getAllAudiobookIdentifiers().empty());
}

TEST_F(MetadataFetch, NullsAreReadAsEmptyStrings) {
  // A null id becomes "" (not found); a null size and duration become 0.
  answerMetadataWith(R"({"audiobook": {"id": null, "title": null}})");
  auto error = fetch("79");
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code, 70);
  EXPECT_EQ(listener->count("[DownloadEngine] Audiobook not found"), 1u);
  EXPECT_EQ(listener->count("processJSON"), 0u);

  server.faults().clear();
  answerMetadataWith(R"({"audiobook": {"id": "80", "actual_size": null, "chapters": [
      {"duration": null, "part_number": 0, "chapter_number": 1}]}})");
  EXPECT_EQ(fetch("80"), nullptr);
  auto chapters = QSOChapterStatus::fetchAllForAudiobookIdentifier("80");
  ASSERT_EQ(chapters.size(), 1u);
  EXPECT_EQ(chapters[0]->totalSize(), 0u);
}

struct StatusCase {
  int status;
  int64_t code;
  const char* line;
  QSODownloadFailureCode download;
  std::string_view downloadText;
  QSOPlaybackFailureCode playback;
  std::string_view playbackText;
};

// Each failing status: the fetch's own code and log line, and what a host is told when a
// download or a playback fails with it.
TEST_F(MetadataFetch, EveryFailingStatusReachesTheHostWithItsCodeAndText) {
  using D = QSODownloadFailureCode;
  using P = QSOPlaybackFailureCode;
  const StatusCase cases[] = {
      {401, 45, "[DownloadEngine] Metadata could not be downloaded", D::DownloadUnauthorized,
       QSODownloadFailureDownloadUnauthorizedDescription, P::PlaybackUnauthorized,
       QSOPlaybackFailurePlaybackUnauthorizedDescription},
      {404, 60, "[DownloadEngine] Audiobook not found", D::InvalidAudiobookDownloadRequest,
       QSODownloadFailureInvalidAudiobookDownloadRequestDescription, P::InvalidAudiobookID,
       QSOPlaybackFailureInvalidAudiobookIDDescription},
      {418, 65, "[DownloadEngine] Audiobook not found", D::UnknownServerResponse,
       QSODownloadFailureUnknownServerResponseDescription, P::UnknownServerResponse,
       QSOPlaybackFailureUnknownServerResponseDescription},
      {500, 50, "[DownloadEngine] internal server error", D::InternalServerError,
       QSODownloadFailureInternalServerErrorDescription, P::ServerSideError,
       QSOPlaybackFailureServerSideErrorDescription},
      {502, 50, "[DownloadEngine] cloud front error, 502", D::InternalServerError,
       QSODownloadFailureInternalServerErrorDescription, P::ServerSideError,
       QSOPlaybackFailureServerSideErrorDescription},
      {503, 50, "[DownloadEngine] cloud front error, 503", D::InternalServerError,
       QSODownloadFailureInternalServerErrorDescription, P::ServerSideError,
       QSOPlaybackFailureServerSideErrorDescription},
      {504, 55, "[DownloadEngine] cloud front error, 504", D::RequestTimedOut,
       QSODownloadFailureRequestTimedOutDescription, P::Unknown,
       QSOPlaybackFailureUnknownDescription},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.status);
    size_t before = listener->count(c.line);
    server.faults().add(Route::kMetadata, Fault::errorDocument(c.status, "nope", "denied", 4011));
    auto error = fetch(std::string(content::kThreeChapterBookID));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain, QSOErrorDomain);
    EXPECT_EQ(error->code, c.code) << "whatever the body says";
    EXPECT_TRUE(error->userInfo.empty());
    EXPECT_EQ(listener->count(c.line), before + 1);

    auto download = testing::errorAsNotified(error, testing::FailureLayer::Download);
    ASSERT_NE(download, nullptr);
    EXPECT_EQ(download->code, static_cast<int64_t>(c.download));
    EXPECT_EQ(download->localizedDescription(), c.downloadText);
    auto playback = testing::errorAsNotified(error, testing::FailureLayer::Playback);
    ASSERT_NE(playback, nullptr);
    EXPECT_EQ(playback->code, static_cast<int64_t>(c.playback));
    EXPECT_EQ(playback->localizedDescription(), c.playbackText);
  }
}

TEST_F(MetadataFetch, ARefusedConnectionGives70WithTheTransportErrorUnderneath) {
  int probe = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  socklen_t length = sizeof address;
  ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
  ::close(probe);  // nothing listens there now
  ServiceURLs::setAPIBaseURL("https://127.0.0.1:" + std::to_string(ntohs(address.sin_port)));

  auto error = fetch("1001");
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code, 70);
  auto transport = error->underlyingError();
  ASSERT_NE(transport, nullptr);
  EXPECT_EQ(transport->domain, kURLLoadingErrorDomain);
  EXPECT_EQ(transport->code, kURLErrorCannotConnectToHost);
  EXPECT_EQ(listener->count("[DownloadEngine] Connection Failed"), 1u);

  auto download = testing::errorAsNotified(error, testing::FailureLayer::Download);
  ASSERT_NE(download, nullptr);
  EXPECT_EQ(download->code, static_cast<int64_t>(QSODownloadFailureCode::MetadataUnavailable));
  EXPECT_EQ(download->localizedDescription(), QSODownloadFailureMetadataUnavailableDescription);
  EXPECT_EQ(download->underlyingError(), transport) << "the transport error stays underneath";
  auto playback = testing::errorAsNotified(error, testing::FailureLayer::Playback);
  ASSERT_NE(playback, nullptr);
  EXPECT_EQ(playback->code, static_cast<int64_t>(QSOPlaybackFailureCode::MetadataUnavailable));
  EXPECT_EQ(playback->localizedDescription(), QSOPlaybackFailureMetadataUnavilableDescription);
}

TEST_F(MetadataFetch, ABodyThatIsNotUTF8NeverCompletes) {
  server.faults().add(Route::kMetadata, Fault::customBody(200, "{\"audiobook\": \"\xff\xfe\"}"));
  auto done = std::make_shared<std::promise<ErrorPtr>>();
  auto future = done->get_future();
  auto fetcher = std::make_shared<QSOAudiobookAPIFetch>("k", HttpClient::shared(), recorder);
  fetcher->fetchAudiobook("1001", [done](ErrorPtr error) {
    ADD_FAILURE() << "completed: " << (error ? error->description() : "no error");
    done->set_value(error);
  });
  // The answer is handled once the log line appears; no completion may follow it.
  EXPECT_TRUE(listener->waitFor("[DownloadEngine] Error reading message from server"));
  DispatchQueue::waitUntilAllIdle(std::chrono::seconds(2));
  EXPECT_EQ(future.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
}

// The ID is one path segment of the metadata URL whatever it holds: it can name no other
// resource, so the server answers for that ID (here: no such book, 404) and nothing is recorded.
TEST_F(MetadataFetch, AnIdentifierIsOnePathSegmentAndNeverReachesAnotherBook) {
  struct Case {
    std::string id;
    bool routed;  // whether the server can take the path as one book's (no "/" in the ID)
  };
  const Case cases[] = {
      {"../audiobooks/1002", false},
      {"1002/../../audiobooks/1003", false},
      {"..", true},
      {".", true},
      {"1001?x=1#y", true},
      {"a b%2F1001", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.id);
    server.recorder().clear();
    auto error = fetch(c.id);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code, 60);
    EXPECT_TRUE(QSODatabaseManager::sharedManager()->getAllAudiobookIdentifiers().empty());
    const auto requests = server.requests(Route::kMetadata);
    EXPECT_EQ(requests.size(), c.routed ? 1u : 0u);
    for (const auto& request : requests) EXPECT_EQ(request.path, "/v4/audiobooks/" + c.id);
  }
}

// A document that names another book than the one asked for is refused: recording it would put
// that book's records (or a name nobody asked for) under this request.
TEST_F(MetadataFetch, ADocumentForAnotherBookIsRefusedWith70AndRecordsNothing) {
  using namespace std::string_literals;
  const std::pair<std::string, std::string> cases[] = {
      {"1001", "1002"},
      {"83", "83\0/../../escape"s},  // the same up to a NUL
      {"84", "84 "},
      {"85", "085"},
  };
  for (const auto& [requested, named] : cases) {
    SCOPED_TRACE(named);
    server.faults().clear();
    answerMetadataWith(nlohmann::json{
        {"audiobook", {{"id", named}, {"actual_size", 100}, {"chapters", {{{"duration", 1000}}}}}}}
                           .dump());
    const std::string line = "[DownloadEngine] Metadata for audiobook " +
                             nlohmann::json(requested).dump() + " describes audiobook " +
                             nlohmann::json(named).dump() + " instead";
    const size_t before = listener->count(line);
    auto error = fetch(requested);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain, QSOErrorDomain);
    EXPECT_EQ(error->code, 70);
    EXPECT_EQ(listener->count(line), before + 1) << "one line naming both, NUL and all";
    EXPECT_TRUE(QSODatabaseManager::sharedManager()->getAllAudiobookIdentifiers().empty());
    EXPECT_TRUE(QSOChapterStatus::fetchAllForAudiobookIdentifier(named).empty());
  }
}

// Recording a book that is recorded already fails (12005); the cached record must still be the
// one the database holds, with what the download engine wrote to it since.
TEST_F(MetadataFetch, AFailedSaveLeavesTheCachedRecordAsTheDatabaseHasIt) {
  ASSERT_EQ(fetch("1001"), nullptr);
  auto recorded = QSOAudiobookStatus::fetchAudiobookStatusForAudiobookIdentifier("1001");
  ASSERT_NE(recorded, nullptr);
  recorded->setDownloadStatus(DownloadStatusDownloaded);
  recorded->setDownloadedSize(recorded->totalSize());
  ASSERT_TRUE(recorded->writeUpdateForProperties({"downloadStatus", "downloadedSize"}));

  auto error = fetch("1001");
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code, 12005);
  auto cached = QSOAudiobookStatus::fetchAudiobookStatusForAudiobookIdentifier("1001");
  EXPECT_EQ(cached, recorded) << "the record callers share is still the one in the cache";
  ASSERT_NE(cached, nullptr);
  EXPECT_EQ(cached->downloadStatus(), DownloadStatusDownloaded);
  auto stored = QSODatabaseManager::sharedManager()->getAudiobookStatusForIdentifier("1001");
  ASSERT_NE(stored, nullptr);
  EXPECT_EQ(stored->downloadStatus(), cached->downloadStatus());
  EXPECT_EQ(stored->downloadedSize(), cached->downloadedSize());
}

// Loses the connection of the first request it is given; every later one is real.
class FirstSendFails : public HttpClientWrapper {
 public:
  using HttpClientWrapper::HttpClientWrapper;
  std::shared_ptr<HttpTask> send(HttpRequest request, Completion completion) override {
    if (failed_.exchange(true)) return HttpClientWrapper::send(std::move(request), completion);
    answers_->async([completion] {
      completion(std::nullopt, Error::make(std::string(kURLLoadingErrorDomain),
                                           kURLErrorNetworkConnectionLost, "lost", nullptr));
    });
    return nullptr;
  }

 private:
  std::atomic<bool> failed_{false};
  DispatchQueuePtr answers_ = DispatchQueue::create("test.answers");
};

TEST_F(MetadataFetch, AClientWrappedToFailOneCallFailsThatFetchAndNoOther) {
  auto services = Services::systemCopy();
  services->http = std::make_shared<FirstSendFails>(services->http);
  auto synchronizer = std::make_shared<TaskSynchronizer>(services->http, recorder);
  auto fetchOnce = [&] {
    std::promise<ErrorPtr> done;
    auto future = done.get_future();
    synchronizer->fetchAudiobookMetadata("1001", "k", [&done](ErrorPtr e) { done.set_value(e); });
    return await(future);
  };
  auto failed = fetchOnce();
  ASSERT_NE(failed, nullptr);
  EXPECT_EQ(failed->code, 70);
  ASSERT_NE(failed->underlyingError(), nullptr);
  EXPECT_EQ(failed->underlyingError()->code, kURLErrorNetworkConnectionLost);
  EXPECT_EQ(server.requestCount(Route::kMetadata), 0u);

  EXPECT_EQ(fetchOnce(), nullptr);
  EXPECT_EQ(server.requestCount(Route::kMetadata), 1u);
  EXPECT_NE(QSOAudiobookStatus::fetchAudiobookStatusForAudiobookIdentifier("1001"), nullptr);
}

TEST_F(MetadataFetch, ConcurrentRequestsForOneBookShareOneFetch) {
  auto synchronizer = std::make_shared<TaskSynchronizer>(HttpClient::shared(), recorder);
  // Hold the first answer back so that all three requests meet it in flight.
  server.faults().add(Route::kMetadata, Fault::delayed(std::chrono::milliseconds(300)));
  std::vector<std::promise<ErrorPtr>> done(3);
  for (auto& d : done) {
    synchronizer->fetchAudiobookMetadata("1001", "k", [&d](ErrorPtr e) { d.set_value(e); });
  }
  for (auto& d : done) {
    auto f = d.get_future();
    EXPECT_EQ(await(f), nullptr);
  }
  EXPECT_EQ(server.requestCount(Route::kMetadata), 1u);

  // After delivery the key is free again: the next request fetches anew (and this time fails,
  // because the book's status record exists already).
  std::promise<ErrorPtr> again;
  auto f = again.get_future();
  synchronizer->fetchAudiobookMetadata("1001", "k", [&again](ErrorPtr e) { again.set_value(e); });
  auto error = await(f);
  EXPECT_EQ(server.requestCount(Route::kMetadata), 2u);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code, 12005);
  EXPECT_EQ(error->localizedDescription(),
            "The audiobook download status failed to save to the database");
}

TEST_F(MetadataFetch, ACompletionThatStartsANewFetchForTheSameKeyDoesNotDeadlock) {
  auto synchronizer = std::make_shared<TaskSynchronizer>(HttpClient::shared(), recorder);
  std::promise<ErrorPtr> second;
  auto f = second.get_future();
  synchronizer->fetchAudiobookMetadata("1002", "k", [&](ErrorPtr) {
    synchronizer->fetchAudiobookMetadata("1002", "k", [&](ErrorPtr e) { second.set_value(e); });
  });
  await(f);
  EXPECT_EQ(server.requestCount(Route::kMetadata), 2u);
}

}  // namespace
}  // namespace sonorell
