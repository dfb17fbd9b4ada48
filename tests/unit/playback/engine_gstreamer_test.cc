// The playback engine on real GStreamer (fakesink in real time) against the reference server
// over HTTPS: a downloaded book played to its end with its listening posted to analytics, the
// same book streamed, and a seek while paused followed by double speed.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <map>

#include "analytics/listen_event_handler.h"
#include "persistence/chapter_status.h"
#include "sonorell/notifications.h"
#include "support/playback_support.h"

namespace sonorell {
namespace {

using content::Route;
using std::chrono::seconds;

class EngineOnGStreamer : public testing::PlaybackEngineTest {
 protected:
  void SetUp() override {
    setenv("SONORELL_AUDIO_SINK", "fakesink sync=true", 1);
    PlaybackEngineTest::SetUp();
  }
  bool waitForCount(std::string_view name, size_t n, seconds limit = seconds(40)) {
    return testing::eventually([&] { return count(name) >= n; }, limit);
  }
  // The notifications about one chapter, first occurrences only, in order.
  std::vector<std::string> firstsFor(const QSOChapterDescription& chapter) {
    std::vector<std::string> names;
    for (const auto& name : namesFor(chapter)) {
      if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(name);
    }
    return names;
  }
};

TEST_F(EngineOnGStreamer, ADownloadedBookPlaysToItsEndAndItsListeningReachesAnalytics) {
  ASSERT_TRUE(downloadBook("1001"));
  auto& engine = gstEngine();
  engine.playForAudiobookID("1001", 0, 1, 0, "session", "license-1001");
  ASSERT_TRUE(waitForCount(QSOPlaybackAudiobookUnloadedNotification, 2));
  DispatchQueue::waitUntilAllIdle(seconds(10));

  const std::vector<std::string> order = {std::string(QSOPlaybackChapterLoadedNotification),
                                          std::string(QSOPlaybackChapterStartedNotification),
                                          std::string(QSOPlaybackProgressUpdateNotification),
                                          std::string(QSOPlaybackChapterCompleteNotification)};
  for (uint64_t n = 1; n <= 3; ++n) {
    std::vector<std::string> seen;
    for (const auto& name : firstsFor(QSOChapterDescription("1001", 0, n))) {
      if (std::find(order.begin(), order.end(), name) != order.end()) seen.push_back(name);
    }
    EXPECT_EQ(seen, order) << "chapter " << n;
  }
  auto names = milestones();
  ASSERT_GE(names.size(), 2u);
  EXPECT_EQ(names[names.size() - 2], QSOPlaybackAudiobookCompleteNotification);
  EXPECT_TRUE(postedNamed(QSOPlaybackChapterFailedNotification).empty());
  EXPECT_EQ(postedNamed(QSOPlaybackAudiobookUnloadedNotification)
                .back()
                .info.at(std::string(QSOPlaybackUnloadedReasonUserInfoKey))
                .asUInt(),
            static_cast<uint64_t>(QSOPlaybackUnloadedReasonAudiobookComplete));

  // What was heard, as the analytics service receives it.
  QLListenEventHandler::sharedHandler()->flushListenEventQueue();
  ASSERT_TRUE(testing::eventually([&] { return server.requestCount(Route::kAnalytics) > 0; }));
  const auto token =
      QSOChapterStatus::fetchForChapterDescription(QSOChapterDescription("1001", 0, 1))
          ->playlistToken();
  ASSERT_FALSE(token.empty());
  std::map<uint64_t, uint64_t> heardUpTo;  // chapter → furthest end position
  for (const auto& request : server.requests(Route::kAnalytics)) {
    EXPECT_EQ(request.header("Session-Key"), "session");
    const auto body = nlohmann::json::parse(request.body);
    for (const auto& event : body.at("events")) {
      EXPECT_EQ(event.at("playlist_token"), token);
      const uint64_t chapter = event.at("chapter_number");
      heardUpTo[chapter] = std::max<uint64_t>(heardUpTo[chapter], event.at("end_position"));
    }
  }
  // Chapters of 2, 3 and 4 seconds, reported in whole seconds.
  EXPECT_GE(heardUpTo[1], 1u);
  EXPECT_GE(heardUpTo[2], 2u);
  EXPECT_GE(heardUpTo[3], 3u);
}

TEST_F(EngineOnGStreamer, ABookNotDownloadedPlaysStreamedToItsEnd) {
  auto& engine = gstEngine();
  // Starting inside the chapter makes the HTTP source ask for a range.
  engine.playForAudiobookID("1001", 0, 2, 1, "session", "license-1001");
  ASSERT_TRUE(waitForCount(QSOPlaybackAudiobookCompleteNotification, 1));
  DispatchQueue::waitUntilAllIdle(seconds(10));
  auto started = postedNamed(QSOPlaybackChapterStartedNotification);
  ASSERT_EQ(started.size(), 2u);
  for (const auto& p : started) {
    EXPECT_EQ(p.info.at(std::string(QSOPlaybackStreamingUserInfoKey)).asBool(), true);
  }
  std::vector<std::string> completed;
  for (const auto& p : postedNamed(QSOPlaybackChapterCompleteNotification)) {
    completed.push_back(p.chapter()->toString());
  }
  EXPECT_EQ(completed, (std::vector<std::string>{"1001_0_2", "1001_0_3"}));
  EXPECT_TRUE(postedNamed(QSOPlaybackChapterFailedNotification).empty());
  auto requests = server.requests(Route::kAudio);
  ASSERT_FALSE(requests.empty());
  bool ranged = false;
  for (const auto& request : requests) {
    EXPECT_TRUE(request.path == "/audio/1001/0/2.mp3" || request.path == "/audio/1001/0/3.mp3");
    EXPECT_TRUE(request.header("X-Request-Id").has_value());
    ranged = ranged || (request.path == "/audio/1001/0/2.mp3" && request.header("Range"));
  }
  EXPECT_TRUE(ranged);
}

TEST_F(EngineOnGStreamer, ASeekWhilePausedStaysThereAndDoubleSpeedKeepsThePitch) {
  auto& engine = gstEngine();
  // Chapter 2 (3 s) and then 3 (4 s): at double speed some 3 s of playing to look at the player
  // in, even on a loaded machine.
  engine.playForAudiobookID("1001", 0, 2, 0, "session", "license-1001");
  ASSERT_TRUE(waitForCount(QSOPlaybackChapterStartedNotification, 1));
  // The seek to the start offset that came with the load has answered: the next answer is ours.
  ASSERT_TRUE(waitForCount(QSOPlaybackChapterOffsetCompletedNotification, 1));
  engine.pause();
  ASSERT_TRUE(waitForCount(QSOPlaybackChapterPausedNotification, 1));
  const auto seeks = count(QSOPlaybackChapterOffsetCompletedNotification);
  const auto ticksBeforeSeek = count(QSOPlaybackProgressUpdateNotification);
  engine.setCurrentOffset(1);
  ASSERT_TRUE(waitForCount(QSOPlaybackChapterOffsetCompletedNotification, seeks + 1));
  EXPECT_EQ(engine.currentOffset(), 1u);
  EXPECT_EQ(engine.playerStatus(), QSOPlayerStatusPaused);
  ASSERT_TRUE(player() && player()->currentItem());
  // The item keeps speech at its pitch; the backend's tests measure that it does.
  EXPECT_EQ(player()->currentItem()->audioTimePitchAlgorithm(), TimePitchAlgorithm::TimeDomain);

  engine.setCurrentRate(2.0f);
  engine.resume();
  ASSERT_TRUE(waitForCount(QSOPlaybackRateCompletedNotification, 1));
  EXPECT_EQ(postedNamed(QSOPlaybackRateCompletedNotification)
                .back()
                .info.at(std::string(QSOPlaybackCurrentRateUserInfoKey))
                .asDouble(),
            2.0);
  ASSERT_TRUE(player() && player()->currentItem());
  EXPECT_FLOAT_EQ(player()->rate(), 2.0f);
  ASSERT_TRUE(waitForCount(QSOPlaybackAudiobookCompleteNotification, 1));
  // The first tick after the seek came from 1 s on, not from where the chapter was paused.
  const auto ticks = postedNamed(QSOPlaybackProgressUpdateNotification);
  ASSERT_GT(ticks.size(), ticksBeforeSeek);
  EXPECT_GE(ticks[ticksBeforeSeek].info.at(std::string(QSOCurrentOffsetUserInfoKey)).asUInt(), 1u);
  EXPECT_TRUE(postedNamed(QSOPlaybackChapterFailedNotification).empty());
}

}  // namespace
}  // namespace sonorell
