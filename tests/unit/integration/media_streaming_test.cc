// A redirected item against the reference content server: the loader redirects to the server's
// audio URL, the GStreamer player reads it over HTTP with the redirect's headers, plays it, and
// the server sees the byte-range requests that a seek makes.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>

#include "content_server.h"
#include "platform/dispatch/dispatch_group.h"
#include "platform/media/gst/gst_queue_player.h"

namespace sonorell {
namespace {

using namespace std::chrono_literals;

class RedirectingDelegate : public ResourceLoaderDelegate {
 public:
  explicit RedirectingDelegate(std::string url) : url_(std::move(url)) {}
  bool shouldWaitForLoadingOfRequestedResource(
      ResourceLoader&, const std::shared_ptr<LoadingRequest>& request) override {
    int64_t offset = request->dataRequest() ? request->dataRequest()->requestedOffset() : 0;
    int64_t length = request->dataRequest() ? request->dataRequest()->requestedLength() : 0;
    request->setRedirect(HttpRedirect{
        url_,
        {{"X-Request-Id", "media-streaming-test"},
         {"Range", "bytes=" + std::to_string(offset) + "-" + std::to_string(offset + length)}}});
    request->setResponseStatusCode(302);
    request->finishLoading();
    return true;
  }

 private:
  std::string url_;
};

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  auto queue = DispatchQueue::create("io.sonorell.test.poll");
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    Semaphore hop;  // one queue hop per check keeps the poll from spinning the CPU
    queue->async([&] { hop.signal(); });
    hop.wait();
  }
  return true;
}

TEST(MediaStreaming, RedirectedItemPlaysFromTheServerWithRangeRequests) {
  setenv("SONORELL_AUDIO_SINK", "fakesink sync=true", 1);
  content::ServerOptions options;
  options.https = false;  // the HTTP source would need the test CA; plain HTTP keeps it simple
  content::ContentServer server(options);
  server.start();

  auto player = GstQueuePlayer::create();
  ASSERT_TRUE(player);
  auto delegate = std::make_shared<RedirectingDelegate>(server.audioURL("1001", 0, 1));
  auto item = PlayerItem::create("qlso://1001_0_1.mp3");
  item->resourceLoader().setDelegate(delegate, DispatchQueue::create("io.sonorell.test.loader"));
  ASSERT_TRUE(player->insertItem(item, nullptr));
  player->play();
  ASSERT_TRUE(waitUntil([&] { return player->currentTime().seconds() > 0.5; }, 20s));
  EXPECT_EQ(item->status(), PlayerItemStatus::ReadyToPlay);
  EXPECT_GT(item->duration().seconds(), 2.0);

  std::atomic<int> seeked{-1};
  double target = item->duration().seconds() / 2;
  player->seekToTime(MediaTime::fromSeconds(target), [&](bool finished) { seeked = finished; });
  ASSERT_TRUE(waitUntil([&] { return seeked != -1; }, 20s));
  EXPECT_EQ(seeked, 1);
  EXPECT_NEAR(player->currentTime().seconds(), target, 0.5);

  auto requests = server.requests(content::Route::kAudio);
  ASSERT_FALSE(requests.empty());
  bool sawRange = false;
  for (const auto& r : requests) {
    EXPECT_EQ(r.header("X-Request-Id").value_or(""), "media-streaming-test");
    if (r.header("Range")) sawRange = true;
  }
  EXPECT_TRUE(sawRange);
  player.reset();
  EXPECT_TRUE(DispatchQueue::waitUntilAllIdle(std::chrono::seconds(20)));  // pipeline torn down
  server.stop();
}

}  // namespace
}  // namespace sonorell
