// A chapter on real GStreamer whose streaming URL cannot be had: the qlso:// resource loader
// fails the item with the loader's error. (Chapters that play, from disk and streamed, are the
// playback engine's tests.)
#include <gtest/gtest.h>

#include <cstdlib>

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
