// Streaming URLs against the reference server: one streaming task answers every chapter of its
// book, a later request for a chapter replaces the earlier handler, another book cancels the
// running task, failures reach every waiting handler, and a URL once obtained costs no request.
#include <gtest/gtest.h>

#include <future>

#include "support/playback_support.h"

namespace sonorell {
namespace {

using content::Fault;
using content::Route;
using content::Trigger;
using testing::PlaybackTest;

struct Answer {
  ErrorPtr error;
  std::optional<std::string> url;
};

class StreamingURLs : public PlaybackTest {
 protected:
  // Asks for a chapter's URL; the future is ready once the handler was called.
  std::shared_future<Answer> ask(std::string_view id, int part, int chapter,
                                 std::string license = "") {
    auto promise = std::make_shared<std::promise<Answer>>();
    if (license.empty()) license = "license-" + std::string(id);
    urls->requestStreamingURLForFilename(filename(id, part, chapter), "session", license,
                                         [promise](ErrorPtr error, std::optional<std::string> url) {
                                           promise->set_value({std::move(error), std::move(url)});
                                         });
    return promise->get_future().share();
  }
  static std::string filename(std::string_view id, int part, int chapter) {
    return FilesystemHelper::filename(QSOChapterDescription(
        std::string(id), static_cast<uint64_t>(part), static_cast<uint64_t>(chapter)));
  }
  static bool ready(const std::shared_future<Answer>& answer,
                    std::chrono::milliseconds wait = std::chrono::milliseconds(0)) {
    return answer.wait_for(wait) == std::future_status::ready;
  }
};

TEST_F(StreamingURLs, ChaptersOfOneBookShareOneTaskAndTheURLIsThenServedFromTheCache) {
  // The playlist takes a while, so every request below arrives while the task runs.
  server.faults().add(Route::kPlaylist, Fault::delayed(std::chrono::milliseconds(400)));
  auto first = ask("1001", 0, 1);
  auto second = ask("1001", 0, 2);
  auto replacing = ask("1001", 0, 1);  // the same chapter again: only this one is answered
  urls->requestStreamingURLForFilename(filename("1001", 0, 3), "session", "license-1001", nullptr);

  ASSERT_TRUE(ready(second, std::chrono::seconds(15)));
  ASSERT_TRUE(ready(replacing, std::chrono::seconds(15)));
  EXPECT_EQ(second.get().error, nullptr);
  EXPECT_EQ(second.get().url, server.audioURL("1001", 0, 2));
  EXPECT_EQ(replacing.get().url, server.audioURL("1001", 0, 1));
  EXPECT_EQ(server.requestCount(Route::kPlaylist), 1u);
  EXPECT_EQ(listener->count("[StreamingURLManager] requests exist"), 3u);
  // The replaced handler was dropped without a call.
  EXPECT_THROW(first.get(), std::future_error);

  EXPECT_EQ(urls->streamingURLForFilename(filename("1001", 0, 3)), server.audioURL("1001", 0, 3));
  EXPECT_EQ(urls->streamingURLForFilename(filename("1001", 0, 9)), std::nullopt);
  EXPECT_EQ(urls->streamingURLForFilename("notes.txt"), std::nullopt);
  EXPECT_EQ(urls->streamingURLForFilename(filename("1002", 0, 1)), std::nullopt);

  // A new task for a book whose playlist is held answers without a request; a chapter the
  // playlist lacks gets no URL and no error.
  auto missing = ask("1001", 0, 9);
  ASSERT_TRUE(ready(missing, std::chrono::seconds(15)));
  EXPECT_EQ(missing.get().error, nullptr);
  EXPECT_EQ(missing.get().url, std::nullopt);
  EXPECT_EQ(server.requestCount(Route::kPlaylist), 1u);
  EXPECT_EQ(server.requestCount(Route::kMetadata), 0u);  // streaming never fetches metadata
}

TEST_F(StreamingURLs, AChapterOfAnotherBookCancelsTheRunningTask) {
  server.faults().add(Route::kPlaylist, Fault::delayed(std::chrono::milliseconds(1500)),
                      Trigger::nth(1));
  auto slow = ask("1001", 0, 1);
  ASSERT_TRUE(listener->waitFor("[QSOStreamingURLManager] request to get URLs started",
                                std::chrono::seconds(5)));
  auto other = ask("1002", 0, 1);
  ASSERT_TRUE(ready(other, std::chrono::seconds(15)));
  EXPECT_EQ(other.get().url, server.audioURL("1002", 0, 1));
  EXPECT_EQ(listener->count("[StreamingURLManager] cancel old"), 1u);

  // The cancelled task (stopped before or during its playlist fetch) answers nobody: its handler
  // waits for the book's next task.
  ASSERT_TRUE(DispatchQueue::waitUntilAllIdle(std::chrono::seconds(10)));
  EXPECT_FALSE(ready(slow));
  auto again = ask("1001", 0, 2);
  ASSERT_TRUE(ready(again, std::chrono::seconds(15)));
  ASSERT_TRUE(ready(slow, std::chrono::seconds(1)));
  EXPECT_EQ(slow.get().url, server.audioURL("1001", 0, 1));
  EXPECT_EQ(again.get().url, server.audioURL("1001", 0, 2));
  EXPECT_EQ(server.requestCount(Route::kPlaylist), 2u);
}

TEST_F(StreamingURLs, AFailedPlaylistAnswersEveryWaitingHandlerWithTheError) {
  Fault notFound = Fault::errorDocument(404, "Not found", "NOT_FOUND", 404);
  notFound.delay = std::chrono::milliseconds(300);  // the second request joins the first
  server.faults().add(Route::kPlaylist, notFound);
  auto one = ask("1001", 0, 1);
  auto two = ask("1001", 0, 2);
  ASSERT_TRUE(ready(one, std::chrono::seconds(15)));
  ASSERT_TRUE(ready(two, std::chrono::seconds(15)));
  EXPECT_NE(one.get().error, nullptr);
  EXPECT_EQ(one.get().url, std::nullopt);
  EXPECT_EQ(two.get().error, one.get().error);

  // Nothing is remembered from the failure: the next request fetches again and succeeds.
  auto retry = ask("1001", 0, 1);
  ASSERT_TRUE(ready(retry, std::chrono::seconds(15)));
  EXPECT_EQ(retry.get().error, nullptr);
  EXPECT_EQ(retry.get().url, server.audioURL("1001", 0, 1));

  auto bad = std::make_shared<std::promise<Answer>>();
  urls->requestStreamingURLForFilename("cover.jpg", "session", "license-1001",
                                       [bad](ErrorPtr error, std::optional<std::string> url) {
                                         bad->set_value({std::move(error), std::move(url)});
                                       });
  auto badAnswer = bad->get_future();
  ASSERT_EQ(badAnswer.wait_for(std::chrono::seconds(0)), std::future_status::ready);
  EXPECT_NE(badAnswer.get().error, nullptr);
}

}  // namespace
}  // namespace sonorell
