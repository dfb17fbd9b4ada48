// The GStreamer backend with real pipelines into fakesink (sync=true, so time runs): queues of
// chapters, seeking, pitch at other rates, and loaders that stall, fail or end early. Waits are
// on conditions with generous limits, never sleeps.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

#include "media_test_support.h"
#include "platform/media/gst/gst_queue_player.h"
#include "platform/media/media_errors.h"

namespace sonorell {
namespace {

using namespace std::chrono_literals;
using testing::FileLoaderDelegate;
using testing::PlayerRecorder;

class GstPlayerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("SONORELL_AUDIO_SINK", "fakesink sync=true", 1);
    player_ = GstQueuePlayer::create();
    ASSERT_TRUE(player_);
    recorder_ = std::make_unique<PlayerRecorder>(*player_);
  }
  void TearDown() override {
    // The player first, then its queued notifications and the pipeline's teardown (done on a
    // queue when released on a streaming thread), and only then the recorder they write to.
    player_.reset();
    EXPECT_TRUE(DispatchQueue::waitUntilAllIdle(std::chrono::seconds(20)));
    recorder_.reset();
  }

  std::shared_ptr<PlayerItem> item(const std::filesystem::path& file, const std::string& name) {
    return item(file, name, FileLoaderDelegate::Behaviour());
  }
  std::shared_ptr<PlayerItem> item(const std::filesystem::path& file, const std::string& name,
                                   FileLoaderDelegate::Behaviour behaviour) {
    auto delegate = std::make_shared<FileLoaderDelegate>(file, std::move(behaviour));
    delegates_.push_back(delegate);
    auto made = testing::makeItem("qlso://" + name, delegate, loaderQueue_);
    recorder_->watch(made);
    return made;
  }

  bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit = 20s) {
    // Polls state the player exposes only by value; the observer queue is the clock here.
    auto deadline = std::chrono::steady_clock::now() + limit;
    auto queue = DispatchQueue::create("io.sonorell.test.poll");
    while (!condition()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      Semaphore hop;
      queue->async([&] { hop.signal(); });
      hop.wait();
      std::this_thread::yield();
    }
    return true;
  }

  testing::TempDir dir_;
  DispatchQueuePtr loaderQueue_ = DispatchQueue::create("io.sonorell.test.loader");
  std::vector<std::shared_ptr<FileLoaderDelegate>> delegates_;
  std::shared_ptr<GstQueuePlayer> player_;
  std::unique_ptr<PlayerRecorder> recorder_;
};

TEST_F(GstPlayerTest, QueueOfThreeChaptersPlaysThroughGapless) {
  std::vector<std::shared_ptr<PlayerItem>> items;
  for (int i = 0; i < 3; ++i) {
    auto file = testing::makeMp3(dir_.path(), "c" + std::to_string(i) + ".mp3", 1.5, 440 + 110 * i);
    items.push_back(item(file, "c" + std::to_string(i) + ".mp3"));
    ASSERT_TRUE(player_->insertItem(items.back(), nullptr));
  }
  player_->play();
  ASSERT_TRUE(recorder_->waitFor("end", 3, 30s));
  ASSERT_TRUE(recorder_->waitFor("current", 4));  // a, b, c, then the emptied queue

  std::vector<std::string> order;
  std::vector<std::shared_ptr<PlayerItem>> ended;
  std::vector<std::shared_ptr<PlayerItem>> currents;
  for (auto& e : recorder_->events()) {
    if (e.kind == "end") ended.push_back(e.item);
    if (e.kind == "current") currents.push_back(e.item);
  }
  EXPECT_EQ(ended, items);
  ASSERT_EQ(currents.size(), 4u);
  EXPECT_EQ(currents[1], items[1]);
  EXPECT_EQ(currents[2], items[2]);
  EXPECT_EQ(currents[3], nullptr);
  for (auto& i : items) {
    EXPECT_EQ(i->status(), PlayerItemStatus::ReadyToPlay);
    EXPECT_NEAR(i->duration().seconds(), 1.5, 0.1);
  }
  EXPECT_EQ(recorder_->count("failedToEnd"), 0u);
  EXPECT_EQ(recorder_->count("stalled"), 0u);
}

TEST_F(GstPlayerTest, SeekToTwoSecondsOfFourCompletesAndReadsTwo) {
  auto file = testing::makeMp3(dir_.path(), "four.mp3", 4.0);
  auto a = item(file, "four.mp3");
  player_->insertItem(a, nullptr);
  // Asked from a queue, the answer comes on that queue.
  auto caller = DispatchQueue::create("io.sonorell.test.caller");
  std::atomic<int> result{-1};
  std::atomic<DispatchQueue*> answeredOn{nullptr};
  caller->sync([&] {
    player_->seekToTime(MediaTime::make(2, 1), [&](bool finished) {
      answeredOn = DispatchQueue::current();
      result = finished;
    });
  });
  ASSERT_TRUE(waitUntil([&] { return result != -1; }));
  EXPECT_EQ(result, 1);
  EXPECT_EQ(answeredOn, caller.get());
  EXPECT_NEAR(player_->currentTime().seconds(), 2.0, 0.05);
  EXPECT_NEAR(a->duration().seconds(), 4.0, 0.15);
  EXPECT_EQ(a->status(), PlayerItemStatus::ReadyToPlay);
  // Asked from no queue, on the main queue.
  result = -1;
  std::atomic<bool> onMainThread{false};
  player_->seekToTime(MediaTime::make(1, 1), [&](bool finished) {
    answeredOn = DispatchQueue::current();
    onMainThread = DispatchQueue::isMainThread();
    result = finished;
  });
  ASSERT_TRUE(waitUntil([&] { return result != -1; }));
  EXPECT_EQ(result, 1);
  EXPECT_EQ(answeredOn, DispatchQueue::main().get());
  EXPECT_TRUE(onMainThread);
  EXPECT_NEAR(player_->currentTime().seconds(), 1.0, 0.05);
  // Playing on from there ends the item once, about three seconds later.
  player_->play();
  ASSERT_TRUE(recorder_->waitFor("end", 1));
}

// Zero crossings per second of running time: the pitch a listener hears. Crossings count with
// hysteresis, and only buffers that carry the tone (not the encoder's leading silence) count.
struct Pitch {
  std::mutex mutex;
  size_t crossings = 0;
  int64_t runningNs = 0;
  int sign = 0;
  void add(const float* s, size_t n, int64_t start, int64_t end) {
    double energy = 0;
    for (size_t i = 0; i < n; ++i) energy += s[i] * s[i];
    if (n == 0 || std::sqrt(energy / n) < 0.1) return;
    std::lock_guard lock(mutex);
    for (size_t i = 0; i < n; ++i) {
      int now = s[i] > 0.05f ? 1 : s[i] < -0.05f ? -1 : 0;
      if (now != 0 && sign != 0 && now != sign) ++crossings;
      if (now != 0) sign = now;
    }
    runningNs += end - start;
  }
  double hertz() {
    std::lock_guard lock(mutex);
    return runningNs > 0 ? crossings / 2.0 / (runningNs / 1e9) : 0;
  }
};

double measurePitch(GstPlayerTest* test, GstQueuePlayer& player, PlayerRecorder& recorder,
                    std::shared_ptr<PlayerItem> item, float rate) {
  Pitch pitch;
  player.setAudioTapForTesting([&](const float* s, size_t n, int, int64_t start, int64_t end) {
    pitch.add(s, n, start, end);
  });
  player.insertItem(item, nullptr);
  player.setRate(rate);
  EXPECT_TRUE(recorder.waitFor("end", 1));
  player.setAudioTapForTesting(nullptr);
  (void)test;
  return pitch.hertz();
}

TEST_F(GstPlayerTest, RateTwoKeepsTheTonesPitch) {
  auto file = testing::makeMp3(dir_.path(), "tone.mp3", 3.0, 440);
  double normal = measurePitch(this, *player_, *recorder_, item(file, "tone1.mp3"), 1.0f);
  auto second = GstQueuePlayer::create();
  PlayerRecorder secondRecorder(*second);
  auto fast = item(file, "tone2.mp3");
  secondRecorder.watch(fast);
  double doubled = measurePitch(this, *second, secondRecorder, fast, 2.0f);
  EXPECT_NEAR(normal, 440, 440 * 0.05);
  EXPECT_NEAR(doubled, normal, normal * 0.05);
}

TEST_F(GstPlayerTest, VarispeedAtRateTwoDoublesThePitch) {
  // The control for the test above: without time stretching the tone moves up an octave.
  auto file = testing::makeMp3(dir_.path(), "tone.mp3", 3.0, 440);
  auto a = item(file, "tone.mp3");
  a->setAudioTimePitchAlgorithm(TimePitchAlgorithm::Varispeed);
  double doubled = measurePitch(this, *player_, *recorder_, a, 2.0f);
  EXPECT_NEAR(doubled, 880, 880 * 0.05);
}

TEST_F(GstPlayerTest, LoaderThatStopsAnsweringLeadsToStalled) {
  auto file = testing::makeMp3(dir_.path(), "long.mp3", 20.0, 440, 320);
  auto a = item(file, "long.mp3");
  player_->insertItem(a, nullptr);
  player_->play();
  ASSERT_TRUE(waitUntil([&] { return player_->currentTime().seconds() > 0.5; }));
  delegates_[0]->stopAnswering();
  ASSERT_TRUE(recorder_->waitFor("stalled", 1));
  EXPECT_TRUE(a->isPlaybackBufferEmpty());
  EXPECT_FALSE(a->isPlaybackLikelyToKeepUp());
  EXPECT_EQ(player_->rate(), 0.0f);
  EXPECT_LT(player_->currentTime().seconds(), 15.0);
  EXPECT_EQ(recorder_->count("end"), 0u);
}

TEST_F(GstPlayerTest, LoaderErrorFailsTheItemWithThatError) {
  auto file = testing::makeMp3(dir_.path(), "four.mp3", 4.0);
  FileLoaderDelegate::Behaviour fail;
  fail.failAt = 8000;
  fail.failError = Error::make(std::string(kURLLoadingErrorDomain),
                               kURLErrorUserAuthenticationRequired, "auth", nullptr);
  auto a = item(file, "four.mp3", fail);
  player_->insertItem(a, nullptr);
  player_->play();
  ASSERT_TRUE(waitUntil([&] { return a->status() == PlayerItemStatus::Failed; }));
  ASSERT_TRUE(a->error());
  EXPECT_EQ(a->error()->domain, kURLLoadingErrorDomain);
  EXPECT_EQ(a->error()->code, kURLErrorUserAuthenticationRequired);
  EXPECT_EQ(recorder_->count("end"), 0u);
}

TEST_F(GstPlayerTest, FileShorterThanStatedEndsEarlyAndIsReported) {
  auto file = testing::makeMp3(dir_.path(), "two.mp3", 2.0);
  FileLoaderDelegate::Behaviour shortFile;
  shortFile.statedLength = static_cast<int64_t>(std::filesystem::file_size(file)) + 16000;
  auto a = item(file, "two.mp3", shortFile);
  player_->insertItem(a, nullptr);
  player_->play();
  ASSERT_TRUE(recorder_->waitFor("failedToEnd", 1));
  EXPECT_EQ(recorder_->count("end"), 0u);
  for (auto& e : recorder_->events()) {
    if (e.kind != "failedToEnd") continue;
    ASSERT_TRUE(e.error);
    EXPECT_EQ(e.error->code, kMediaErrorContentEndedEarly);
  }
}

TEST_F(GstPlayerTest, OwnerRemovedOnItsQueueHearsNothingMoreWhileThePlayerRuns) {
  // Twice a round the other chapter becomes current (the pipeline reloads), the second time
  // while the owner is being removed, and the time observer ticks every millisecond of real
  // time; a thousand owners come and go.
  auto file = testing::makeMp3(dir_.path(), "short.mp3", 1.5);
  auto a = item(file, "a.mp3"), b = item(file, "b.mp3");
  ASSERT_TRUE(player_->insertItem(a, nullptr));
  ASSERT_TRUE(player_->insertItem(b, nullptr));
  player_->play();
  constexpr int kRounds = 1000;
  auto tally = testing::runOwnerTeardownRounds(*player_, kRounds, [&] {
    player_->advanceToNextItem();
    for (const auto& i : {a, b}) player_->insertItem(i, nullptr);
  });
  // Nothing produces events once the player is gone; whatever was queued has run after this.
  player_.reset();
  ASSERT_TRUE(DispatchQueue::waitUntilAllIdle(std::chrono::seconds(20)));
  EXPECT_EQ(tally->roundsHeard, kRounds);
  EXPECT_EQ(tally->late, 0);
  EXPECT_GE(tally->ticks, kRounds);
  EXPECT_GE(tally->changes, kRounds);
}

TEST_F(GstPlayerTest, DeclinedRequestFailsTheItem) {
  struct Declining : ResourceLoaderDelegate {
    bool shouldWaitForLoadingOfRequestedResource(ResourceLoader&,
                                                 const std::shared_ptr<LoadingRequest>&) override {
      return false;
    }
  };
  auto delegate = std::make_shared<Declining>();
  auto a = testing::makeItem("qlso://x.mp3", delegate, loaderQueue_);
  player_->insertItem(a, nullptr);
  ASSERT_TRUE(waitUntil([&] { return a->status() == PlayerItemStatus::Failed; }));
  EXPECT_EQ(a->error()->code, kMediaErrorResourceUnavailable);
}

}  // namespace
}  // namespace sonorell
