// The qlso:// resource loader against the reference server: downloaded chapters come from disk
// (also with the server gone), others are redirected to their streaming URL with the documented
// headers, Wi-Fi-only streaming is refused on cellular, failures carry their codes, and a chapter
// file cut short after its download is caught and streamed instead.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "persistence/audiobook_status.h"
#include "sonorell/errors.h"
#include "support/playback_support.h"

namespace sonorell {
namespace {

using content::Fault;
using content::Route;
using testing::PlaybackTest;
using testing::RecordingClient;

class ResourceLoading : public PlaybackTest {
 protected:
  struct Load {
    std::shared_ptr<LoadingRequest> request;
    std::shared_ptr<RecordingClient> client;
    bool answered = false;  // what shouldWaitForLoadingOfRequestedResource returned
  };
  Load load(QSOResourceLoaderDelegate& delegate, const std::string& url,
            std::optional<std::pair<int64_t, int64_t>> range, bool contentInformation = false,
            std::function<void(LoadingRequest&)> onData = nullptr) {
    Load result;
    result.client = std::make_shared<RecordingClient>();
    result.client->onData = std::move(onData);
    LoadingRequest::Options options;
    options.contentInformation = contentInformation;
    options.data = range;
    result.request = LoadingRequest::create(url, options, result.client);
    result.answered = delegate.shouldWaitForLoadingOfRequestedResource(*loader, result.request);
    return result;
  }
  static std::string header(const HttpRedirect& redirect, std::string_view name) {
    for (const auto& [key, value] : redirect.headers) {
      if (key == name) return value;
    }
    return "";
  }
  std::shared_ptr<ResourceLoader> loader = ResourceLoader::create();
};

TEST_F(ResourceLoading, AChapterNotOnDiskIsRedirectedWithTheRangeOneBytePastTheRequest) {
  auto delegate = makeDelegate();
  const std::string url = chapterURL("1001", 0, 1);
  auto first = load(*delegate, url, std::make_pair(1000, 500), true);
  EXPECT_TRUE(first.answered);
  ASSERT_TRUE(first.client->waitForFinish());
  EXPECT_EQ(first.request->error(), nullptr);
  auto redirect = first.request->redirect();
  ASSERT_TRUE(redirect.has_value());
  EXPECT_EQ(redirect->url, server.audioURL("1001", 0, 1));
  EXPECT_EQ(header(*redirect, "Range"), "bytes=1000-1500");
  const std::string requestID = header(*redirect, "X-Request-Id");
  EXPECT_TRUE(std::regex_match(requestID, std::regex("[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}")))
      << requestID;
  EXPECT_EQ(first.request->responseStatusCode(), 302);
  EXPECT_TRUE(first.client->pieces().empty());
  EXPECT_TRUE(delegate->isStreaming());
  EXPECT_EQ(delegate->loaderError(), nullptr);
  EXPECT_EQ(delegate->description(), "QSOResourceLoaderDelegate 1001_0_1_audio.mp3 (0, 1)");

  // The URL is now cached: the next request is redirected at once, with a request ID of its own.
  auto second = load(*delegate, url, std::make_pair(0, 2));
  EXPECT_TRUE(second.request->isFinished());
  EXPECT_EQ(header(*second.request->redirect(), "Range"), "bytes=0-2");
  EXPECT_NE(header(*second.request->redirect(), "X-Request-Id"), requestID);
  EXPECT_EQ(server.requestCount(Route::kPlaylist), 1u);
}

TEST_F(ResourceLoading, WifiOnlyIsRefusedOnCellularStreamedOnWifiAndTriedWhenTheLinkIsUnknown) {
  const std::string url = chapterURL("1001", 0, 2);
  setLink(ConnectionType::Cellular);
  auto delegate = makeDelegate(true);
  EXPECT_EQ(delegate->currentConnectionType(), QSOConnectionType::Cellular);
  auto refused = load(*delegate, url, std::make_pair(0, 2), true);
  EXPECT_FALSE(refused.answered);
  ASSERT_TRUE(refused.request->isFinished());
  ASSERT_NE(refused.request->error(), nullptr);
  EXPECT_EQ(refused.request->error()->domain, QSOErrorDomain);
  EXPECT_EQ(refused.request->error()->code, 21001);
  EXPECT_EQ(refused.request->error()->localizedDescription(),
            "The playback request failed because the file is not on disk, and preferences limit "
            "streaming to WiFi.");
  ASSERT_NE(delegate->loaderError(), nullptr);
  EXPECT_EQ(delegate->loaderError()->code, 21001);
  EXPECT_FALSE(delegate->isStreaming());
  EXPECT_EQ(server.requestCount(Route::kPlaylist), 0u);

  // What the engine will post for this failure: the chapter, and the error of its code with the
  // loader's error underneath.
  Dictionary info = QSOResourceLoaderDelegate::prepareDictionaryWithAudiobookID(
      "1001", 0, 2, "Refused", 21001, delegate->loaderError());
  EXPECT_EQ(info.at(std::string(QSOChapterDescriptionUserInfoKey))
                .getIf<QSOChapterDescription>()
                ->toString(),
            QSOChapterDescription("1001", 0, 2).toString());
  ErrorPtr posted = info.at(std::string(QSOSonorellErrorUserInfoKey)).asError();
  ASSERT_NE(posted, nullptr);
  EXPECT_EQ(posted->code, 21001);
  EXPECT_EQ(posted->localizedDescription(), "Refused");
  EXPECT_EQ(posted->underlyingError(), delegate->loaderError());
  EXPECT_FALSE(QSOResourceLoaderDelegate::prepareDictionaryWithAudiobookID("1001", 0, 2,
                                                                           std::nullopt, 0, nullptr)
                   .contains(std::string(QSOSonorellErrorUserInfoKey)));

  // The same book without the Wi-Fi rule streams on the same cellular link.
  auto anyLink = load(*makeDelegate(false), url, std::make_pair(0, 2));
  ASSERT_TRUE(anyLink.client->waitForFinish());
  EXPECT_TRUE(anyLink.request->redirect().has_value());

  for (ConnectionType type : {ConnectionType::WiFi, ConnectionType::Unknown}) {
    setLink(type);
    auto streamed = load(*delegate, url, std::make_pair(0, 2));
    EXPECT_TRUE(streamed.answered);
    ASSERT_TRUE(streamed.client->waitForFinish());
    EXPECT_TRUE(streamed.request->redirect().has_value()) << static_cast<int>(type);
  }
  EXPECT_TRUE(delegate->isStreaming());
}

TEST_F(ResourceLoading, AStreamingURLThatCannotBeFetchedFailsWith20001AndTheFetchErrorUnderneath) {
  server.faults().add(Route::kPlaylist, Fault::errorDocument(403, "Forbidden", "FORBIDDEN", 403));
  auto delegate = makeDelegate();
  auto failed = load(*delegate, chapterURL("1001", 0, 1), std::make_pair(0, 2), true);
  EXPECT_TRUE(failed.answered);
  ASSERT_TRUE(failed.client->waitForFinish());
  ASSERT_NE(failed.request->error(), nullptr);
  EXPECT_EQ(failed.request->error()->code, 20001);
  EXPECT_EQ(failed.request->error()->localizedDescription(),
            "The file is not on disk, and no streaming URL could be generated.");
  EXPECT_NE(failed.request->error()->underlyingError(), nullptr);
  EXPECT_FALSE(failed.request->redirect().has_value());
  EXPECT_EQ(delegate->loaderError(), failed.request->error());
}

TEST_F(ResourceLoading, ADownloadedChapterIsReadFromDiskWithTheServerGone) {
  ASSERT_TRUE(downloadBook("1001"));
  const QSOChapterDescription chapter("1001", 0, 3);
  const std::string file = fileBytes(chapter);
  ASSERT_GT(file.size(), 30000u);
  server.stop();

  auto delegate = makeDelegate(true);
  setLink(ConnectionType::Cellular);  // no rule limits what comes from disk
  const std::string url = chapterURL("1001", 0, 3);
  auto whole = load(*delegate, url, std::make_pair(0, static_cast<int64_t>(file.size())), true);
  auto middle = load(*delegate, url, std::make_pair(15000, 1000));
  EXPECT_TRUE(whole.answered);
  ASSERT_TRUE(whole.client->waitForFinish());
  ASSERT_TRUE(middle.client->waitForFinish());
  EXPECT_EQ(whole.request->error(), nullptr);
  EXPECT_EQ(whole.client->bytes(), file);
  EXPECT_EQ(whole.request->contentInformation()->contentLength, static_cast<int64_t>(file.size()));
  EXPECT_EQ(middle.client->bytes(), file.substr(15000, 1000));
  EXPECT_FALSE(delegate->isStreaming());
  // Both requests used one reading of the URL and one check of the chapter.
  EXPECT_EQ(listener->count("[DownloadEngine] Verifying chapter (0,3)"), 1u);

  // Cancelling one request stops its reading only.
  std::shared_ptr<LoadingRequest> cancelled;
  auto stopped = load(*delegate, url, std::make_pair(0, static_cast<int64_t>(file.size())), false,
                      [&](LoadingRequest& request) {
                        if (request.dataRequest()->currentOffset() == 10240) {
                          delegate->didCancelLoadingRequest(*loader, request.shared_from_this());
                        }
                      });
  auto running = load(*delegate, url, std::make_pair(0, static_cast<int64_t>(file.size())));
  ASSERT_TRUE(running.client->waitForFinish());
  EXPECT_EQ(running.client->bytes(), file);
  ASSERT_TRUE(DispatchQueue::waitUntilAllIdle(std::chrono::seconds(10)));
  EXPECT_TRUE(testing::eventually([&] { return stopped.client->pieces().size() == 1; }));
  EXPECT_EQ(stopped.client->finishes(), 0);
}

TEST_F(ResourceLoading, AChapterFileCutShortAfterItsDownloadIsCaughtAndStreamedInstead) {
  ASSERT_TRUE(downloadBook("1001"));
  const QSOChapterDescription chapter("1001", 0, 2);
  const auto path = FilesystemHelper::filePath(chapter);
  std::filesystem::resize_file(path, std::filesystem::file_size(path) / 2);

  auto delegate = makeDelegate();
  auto request = load(*delegate, chapterURL("1001", 0, 2), std::make_pair(0, 2), true);
  ASSERT_TRUE(request.client->waitForFinish());
  EXPECT_TRUE(request.request->redirect().has_value());
  EXPECT_TRUE(delegate->isStreaming());
  EXPECT_FALSE(std::filesystem::exists(path));
  auto record = QSOChapterStatus::fetchForChapterDescription(chapter);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->downloadStatus(), DownloadStatusNotDownloaded);
  EXPECT_EQ(engine->statusForAudiobookID("1001"), DownloadStatusPartiallyDownloaded);
  EXPECT_TRUE(waitFor(QSOAuditChapterDeletedNotification, chapter));
  EXPECT_TRUE(waitFor(QSOAuditAudiobookStatusUpdatedNotification));
}

}  // namespace
}  // namespace sonorell
