// Chapters played for real: GStreamer decoding into fakesink, every byte through the qlso://
// resource loader, from disk with the reference server stopped, streamed from the server over
// HTTPS with its own CA, and a failing streaming URL reported on the item.
#include <gtest/gtest.h>

#include <cstdlib>
#include <future>

#include "platform/media/gst/gst_queue_player.h"
#include "sonorell/errors.h"
#include "support/playback_support.h"
#include "unit/platform/media/media_test_support.h"

namespace sonorell {
namespace {

using content::Fault;
using content::Route;

class ChapterPlayback : public testing::PlaybackTest {
 protected:
  void SetUp() override {
    setenv("SONORELL_AUDIO_SINK", "fakesink sync=false", 1);
    PlaybackTest::SetUp();
    player = GstQueuePlayer::create();
    ASSERT_TRUE(player);
    recorder = std::make_unique<testing::PlayerRecorder>(*player);
  }
  void TearDown() override {
    player.reset();
    EXPECT_TRUE(DispatchQueue::waitUntilAllIdle(std::chrono::seconds(20)));
    recorder.reset();
    PlaybackTest::TearDown();
  }

  // Queues the chapter as the engine will: a qlso:// item with a delegate of its own.
  std::shared_ptr<QSOResourceLoaderDelegate> queue(std::string_view id, int part, int chapter,
                                                   std::string license = "") {
    auto delegate = makeDelegate(false, license.empty() ? "license-" + std::string(id) : license);
    auto item = testing::makeItem(chapterURL(id, part, chapter), delegate, loaderQueue);
    recorder->watch(item);
    items.push_back(item);
    EXPECT_TRUE(player->insertItem(item, nullptr));
    return delegate;
  }
  std::shared_ptr<QSOResourceLoaderDelegate> play(std::string_view id, int part, int chapter,
                                                  std::string license = "") {
    auto delegate = queue(id, part, chapter, std::move(license));
    player->play();
    return delegate;
  }

  std::shared_ptr<GstQueuePlayer> player;
  std::unique_ptr<testing::PlayerRecorder> recorder;
  std::vector<std::shared_ptr<PlayerItem>> items;
  DispatchQueuePtr loaderQueue = DispatchQueue::create("io.sonorell.playbackengine.resourceloader");
};

TEST_F(ChapterPlayback, ADownloadedChapterPlaysToItsEndFromDiskWithTheServerStopped) {
  ASSERT_TRUE(downloadBook("1001"));
  server.stop();
  auto delegate = play("1001", 0, 3);
  ASSERT_TRUE(recorder->waitFor("end", 1, std::chrono::seconds(30)));
  EXPECT_EQ(items[0]->status(), PlayerItemStatus::ReadyToPlay);
  EXPECT_NEAR(items[0]->duration().seconds(), 4.0, 0.2);
  EXPECT_FALSE(delegate->isStreaming());
  EXPECT_EQ(recorder->count("failedToEnd"), 0u);
}

TEST_F(ChapterPlayback, AChapterNotDownloadedPlaysToItsEndStreamedOverHttps) {
  // Starting half-way makes the HTTP source ask for a range.
  auto delegate = queue("1001", 0, 2);
  std::promise<bool> seeked;
  player->seekToTime(MediaTime::fromSeconds(1.5),
                     [&](bool finished) { seeked.set_value(finished); });
  auto seekDone = seeked.get_future();
  ASSERT_EQ(seekDone.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  EXPECT_TRUE(seekDone.get());
  player->play();
  ASSERT_TRUE(recorder->waitFor("end", 1, std::chrono::seconds(30)));
  EXPECT_EQ(items[0]->status(), PlayerItemStatus::ReadyToPlay);
  EXPECT_NEAR(items[0]->duration().seconds(), 3.0, 0.2);
  EXPECT_TRUE(delegate->isStreaming());
  auto requests = server.requests(Route::kAudio);
  ASSERT_FALSE(requests.empty());
  bool ranged = false;
  for (const auto& request : requests) {
    EXPECT_EQ(request.path, "/audio/1001/0/2.mp3");
    EXPECT_TRUE(request.header("X-Request-Id").has_value());
    ranged = ranged || request.header("Range").has_value();
  }
  EXPECT_TRUE(ranged);
}

TEST_F(ChapterPlayback, AStreamingURLThatFailsFailsTheItemWith20001) {
  server.faults().add(Route::kPlaylist, Fault::errorDocument(403, "Forbidden", "FORBIDDEN", 403));
  auto delegate = play("1001", 0, 1);
  ASSERT_TRUE(testing::eventually([&] { return items[0]->status() == PlayerItemStatus::Failed; }));
  ASSERT_NE(items[0]->error(), nullptr);
  EXPECT_EQ(items[0]->error()->domain, QSOErrorDomain);
  EXPECT_EQ(items[0]->error()->code, 20001);
  ASSERT_NE(delegate->loaderError(), nullptr);
  EXPECT_EQ(delegate->loaderError()->code, 20001);
  EXPECT_EQ(recorder->count("end"), 0u);
  EXPECT_EQ(server.requestCount(Route::kAudio), 0u);
}

}  // namespace
}  // namespace sonorell
