// The playback engine on the virtual player, driven by the test clock: requests and the queue of
// chapters, next and previous, progress at other rates, stalls, early and last ends, route
// changes, interruptions and the listening method. Chapters come from disk (downloaded from the
// reference server) or streamed through a delegate that serves the server's bytes.
#include <gtest/gtest.h>

#include <filesystem>

#include "analytics/listen_event_handler.h"
#include "model/playlist_manager.h"
#include "platform/media/player_item.h"
#include "sonorell/notifications.h"
#include "support/playback_support.h"

namespace sonorell {
namespace {

using content::Fault;
using content::Route;
using content::Trigger;
using std::chrono::milliseconds;
using std::chrono::seconds;

class PlaybackEngine : public testing::PlaybackEngineTest {
 protected:
  static QSOChapterDescription chapter(std::string id, uint64_t part, uint64_t number) {
    return QSOChapterDescription(std::move(id), part, number);
  }
  // The chapters that notifications of this name were about, in order.
  std::vector<std::string> chaptersOf(std::string_view name) {
    std::vector<std::string> chapters;
    for (const auto& p : postedNamed(name)) chapters.push_back(p.chapter()->toString());
    return chapters;
  }
  uint64_t number(const testing::Posted& p, std::string_view key) {
    return p.info.at(std::string(key)).asUInt().value_or(999);
  }
  std::vector<uint64_t> unloadReasons() {
    std::vector<uint64_t> reasons;
    for (const auto& p : postedNamed(QSOPlaybackAudiobookUnloadedNotification)) {
      reasons.push_back(number(p, QSOPlaybackUnloadedReasonUserInfoKey));
    }
    return reasons;
  }
  std::vector<int64_t> failureCodes() {
    std::vector<int64_t> codes;
    for (const auto& p : postedNamed(QSOPlaybackChapterFailedNotification)) {
      codes.push_back(p.error() ? p.error()->code : 0);
    }
    return codes;
  }
  std::vector<uint64_t> pauseContexts() {
    std::vector<uint64_t> contexts;
    for (const auto& p : postedNamed(QSOPlaybackChapterPausedNotification)) {
      contexts.push_back(number(p, QSOPlaybackChapterPausedUserInfoKey));
    }
    return contexts;
  }
  // Plays and lets the first start-of-playback tick see the chapter running.
  void playAndStart(QSOPlaybackEngine& engine, const std::string& id, uint64_t part,
                    uint64_t number, uint64_t offset = 0) {
    engine.playForAudiobookID(id, part, number, offset, "session", "license-" + id);
    ASSERT_TRUE(playing());
    advance(0.6);
    ASSERT_EQ(engine.playerStatus(), QSOPlayerStatusPlaying);
  }
  void releaseStream(int64_t holdNextAt = -1) {
    streams().back()->release(player()->currentItem()->resourceLoader().delegateQueue(),
                              holdNextAt);
  }
  static bool stalled(const QSOPlaybackEngine& engine) {
    return engine.playerStatus() == QSOPlayerStatusLoading;
  }
  int64_t chapterSize(std::string_view path) {
    return static_cast<int64_t>(server.currentBytes(path).size());
  }
};

TEST_F(PlaybackEngine, AnEmptySessionKeyOrAudiobookPlaysNothingEvenFromDisk) {
  ASSERT_TRUE(downloadBook("1001"));
  auto& engine = virtualEngine();
  engine.playForAudiobookID("1001", 0, 1, 0, "", "license-1001");
  engine.playForAudiobookID("", 0, 1, 0, "session", "license-1001");
  advance(1.0);
  EXPECT_TRUE(milestones().empty());
  EXPECT_TRUE(players().empty());
  EXPECT_EQ(engine.playerStatus(), QSOPlayerStatusUnloaded);
  EXPECT_FALSE(engine.currentLoadedChapter());
}

TEST_F(PlaybackEngine, ADownloadedChapterLoadsAtOnceWhileItsStreamingURLIsFetchedBehind) {
  ASSERT_TRUE(downloadBook("1001"));
  // The playlist the download cached is gone, and the server sits on the next one.
  QSOPlaylistManager::sharedManager()->removePlaylistForIdentifier("license-1001");
  server.faults().add(Route::kPlaylist, Fault::delayed(seconds(60)), Trigger::always());
  const auto playlistsBefore = server.requestCount(Route::kPlaylist);
  auto& engine = virtualEngine();
  playAndStart(engine, "1001", 0, 1);
  EXPECT_EQ(milestones(),
            (std::vector<std::string>{std::string(QSOPlaybackAudiobookUnloadedNotification),
                                      std::string(QSOPlaybackChapterLoadedNotification),
                                      std::string(QSOPlaybackChapterStartedNotification)}));
  EXPECT_FALSE(engine.isStreaming());
  EXPECT_EQ(queued(), (std::vector<std::string>{"1001_0_1", "1001_0_2", "1001_0_3"}));
  EXPECT_TRUE(
      testing::eventually([&] { return server.requestCount(Route::kPlaylist) > playlistsBefore; }));
}

TEST_F(PlaybackEngine, ASecondRequestWinsOverOneStillWaitingForItsStreamingURL) {
  server.faults().add(Route::kPlaylist, Fault::delayed(milliseconds(800)), Trigger::next(1));
  auto& engine = virtualEngine();
  engine.playForAudiobookID("1002", 0, 1, 0, "session", "license-1002");
  ASSERT_TRUE(testing::eventually([&] { return server.requestCount(Route::kPlaylist) == 1; }));
  engine.playForAudiobookID("1001", 0, 2, 0, "session", "license-1001");
  ASSERT_TRUE(playing());
  // Whatever becomes of the first fetch arrives within its delay.
  listener->waitFor("audio task completion for 1002", seconds(5));
  advance(1.0);
  EXPECT_EQ(chaptersOf(QSOPlaybackChapterLoadedNotification),
            (std::vector<std::string>{"1001_0_2"}));
  EXPECT_TRUE(failureCodes().empty());
  EXPECT_EQ(engine.currentLoadedChapter(), chapter("1001", 0, 2));
  EXPECT_EQ(queued(), (std::vector<std::string>{"1001_0_2", "1001_0_3"}));
}

TEST_F(PlaybackEngine, ThePlayerHoldsTheCurrentChapterAndTwoMoreAndRefillsAsItAdvances) {
  auto& engine = virtualEngine();
  playAndStart(engine, "2001", 1, 1);
  EXPECT_TRUE(engine.isStreaming());
  EXPECT_EQ(queued(), (std::vector<std::string>{"2001_1_1", "2001_1_2", "2001_1_3"}));
  advance(6.5);  // chapter 1 lasts 6 s
  EXPECT_EQ(queued(), (std::vector<std::string>{"2001_1_2", "2001_1_3", "2001_1_4"}));
  EXPECT_EQ(chaptersOf(QSOPlaybackChapterCompleteNotification),
            (std::vector<std::string>{"2001_1_1"}));
  EXPECT_EQ(chaptersOf(QSOPlaybackChapterLoadedNotification),
            (std::vector<std::string>{"2001_1_1", "2001_1_2"}));
  EXPECT_EQ(players().size(), 1u);
}

TEST_F(PlaybackEngine, NextAdvancesWhenQueuedAndStartsAFreshRequestAtZeroWhenNot) {
  ASSERT_TRUE(downloadBook("1001"));
  auto& engine = virtualEngine();
  playAndStart(engine, "1001", 0, 1, 1);
  engine.nextChapter();
  advance(0.1);
  EXPECT_EQ(queued(), (std::vector<std::string>{"1001_0_2", "1001_0_3"}));
  ASSERT_TRUE(playing());
  advance(1.6);
  // Only the current chapter left in the player: the next one needs a request of its own.
  player()->removeItem(player()->items().at(1));
  engine.nextChapter();
  advance(0.1);
  ASSERT_TRUE(playing());
  advance(0.6);
  EXPECT_EQ(players().size(), 2u);
  EXPECT_EQ(queued(), (std::vector<std::string>{"1001_0_3"}));
  EXPECT_EQ(engine.currentOffset(), 0u);
  EXPECT_EQ(chaptersOf(QSOPlaybackChapterStartedNotification),
            (std::vector<std::string>{"1001_0_1", "1001_0_2", "1001_0_3"}));
  // Nothing after the last chapter.
  engine.nextChapter();
  advance(0.2);
  EXPECT_EQ(engine.currentLoadedChapter(), chapter("1001", 0, 3));
  EXPECT_TRUE(failureCodes().empty());
}

TEST_F(PlaybackEngine, PreviousStartsTheChapterBeforeFromZeroAndDoesNothingOnTheFirst) {
  ASSERT_TRUE(downloadBook("1001"));
  auto& engine = virtualEngine();
  playAndStart(engine, "1001", 0, 2, 1);
  engine.previousChapter();
  advance(0.1);
  ASSERT_TRUE(playing());
  advance(0.6);
  EXPECT_EQ(engine.currentLoadedChapter(), chapter("1001", 0, 1));
  EXPECT_EQ(engine.currentOffset(), 0u);
  EXPECT_EQ(engine.playerStatus(), QSOPlayerStatusPlaying);
  EXPECT_EQ(queued(), (std::vector<std::string>{"1001_0_1", "1001_0_2", "1001_0_3"}));
  const auto loaded = postedNamed(QSOPlaybackChapterLoadedNotification).size();
  engine.previousChapter();
  advance(0.5);
  EXPECT_EQ(postedNamed(QSOPlaybackChapterLoadedNotification).size(), loaded);
  EXPECT_EQ(engine.currentLoadedChapter(), chapter("1001", 0, 1));
}

TEST_F(PlaybackEngine, ProgressComesOncePerSecondOfContentAtOtherRates) {
  auto& engine = virtualEngine();
  engine.setCurrentRate(1.5f);
  playAndStart(engine, "2001", 1, 8);  // 13 s of content
  for (int tick = 0; tick < 4; ++tick) {
    const auto before = count(QSOPlaybackProgressUpdateNotification);
    advance(0.667);
    EXPECT_EQ(count(QSOPlaybackProgressUpdateNotification), before + 1) << "tick " << tick;
  }
  // Each report is a second of content further on.
  auto reports = postedNamed(QSOPlaybackProgressUpdateNotification);
  ASSERT_GE(reports.size(), 3u);
  const auto last = number(reports.back(), QSOCurrentOffsetUserInfoKey);
  const auto before = number(reports[reports.size() - 2], QSOCurrentOffsetUserInfoKey);
  EXPECT_EQ(last, before + 1);
  EXPECT_EQ(QLListenEventHandler::sharedHandler()->currentListenEvent()->playbackRate(), 1.5f);
}

TEST_F(PlaybackEngine, AStallShorterThanTheLimitRecoversWithoutFailing) {
  holdStreamsAt = chapterSize("/audio/2001/1/1.mp3") / 3;
  auto& engine = virtualEngine();
  playAndStart(engine, "2001", 1, 1);
  ASSERT_TRUE(advanceUntil([&] { return stalled(engine); }));
  const auto stalledAt = engine.currentOffset();
  advance(8.0);
  EXPECT_EQ(engine.currentOffset(), stalledAt);
  releaseStream();
  advance(1.5);  // the next progress tick sees the bytes and resumes
  EXPECT_EQ(engine.playerStatus(), QSOPlayerStatusPlaying);
  EXPECT_GT(engine.currentOffset(), stalledAt);
  EXPECT_EQ(count(QSOPlaybackBufferingEndNotification),
            count(QSOPlaybackBufferingStartNotification));
  advance(10.0);
  EXPECT_TRUE(failureCodes().empty());
  EXPECT_EQ(chaptersOf(QSOPlaybackChapterCompleteNotification)[0], "2001_1_1");
}

TEST_F(PlaybackEngine, AStallPastTheLimitFailsOnceAndUnloads) {
  holdStreamsAt = chapterSize("/audio/2001/1/1.mp3") / 3;
  auto& engine = virtualEngine();
  playAndStart(engine, "2001", 1, 1);
  ASSERT_TRUE(advanceUntil([&] { return stalled(engine); }));
  advance(9.5);
  EXPECT_TRUE(failureCodes().empty());
  advance(1.0);
  EXPECT_EQ(failureCodes(), (std::vector<int64_t>{22001}));
  EXPECT_EQ(unloadReasons(), (std::vector<uint64_t>{0, 2}));
  EXPECT_EQ(engine.playerStatus(), QSOPlayerStatusUnloaded);
  advance(15.0);
  EXPECT_EQ(failureCodes().size(), 1u);
}

TEST_F(PlaybackEngine, OfTwoStallsOnlyTheLatestCanFail) {
  const auto size = chapterSize("/audio/2001/1/1.mp3");
  holdStreamsAt = size / 3;
  auto& engine = virtualEngine();
  playAndStart(engine, "2001", 1, 1);
  ASSERT_TRUE(advanceUntil([&] { return stalled(engine); }));
  advance(6.0);
  releaseStream(size * 2 / 3);
  ASSERT_TRUE(advanceUntil([&] { return engine.playerStatus() == QSOPlayerStatusPlaying; }, 2));
  ASSERT_TRUE(advanceUntil([&] { return stalled(engine); }));
  advance(3.0);  // past the first stall's limit
  EXPECT_TRUE(failureCodes().empty());
  advance(7.5);  // past the second's
  EXPECT_EQ(failureCodes(), (std::vector<int64_t>{22001}));
}

TEST_F(PlaybackEngine, AnItemThatEndsLongBeforeItsDurationStillCompletes) {
  auto& engine = virtualEngine();
  playAndStart(engine, "3001", 0, 1);  // about 21 minutes
  advance(1.0);
  // A backend whose estimate of the length was off reports the end half a minute early.
  auto item = player()->currentItem();
  ASSERT_GT(engine.currentDuration(), engine.currentOffset() + 30);
  PlayerItemControl::post(*item, PlayerItemEvent::DidPlayToEndTime);
  player()->advanceToNextItem();
  advance(0.1);
  ASSERT_TRUE(playing());
  advance(0.6);
  EXPECT_EQ(chaptersOf(QSOPlaybackChapterCompleteNotification),
            (std::vector<std::string>{"3001_0_1"}));
  EXPECT_EQ(chaptersOf(QSOPlaybackChapterStartedNotification),
            (std::vector<std::string>{"3001_0_1", "3001_0_2"}));
  EXPECT_TRUE(failureCodes().empty());
}

TEST_F(PlaybackEngine, TheLastChapterCompletesTheBookAndUnloads) {
  ASSERT_TRUE(downloadBook("1001"));
  auto& engine = virtualEngine();
  playAndStart(engine, "1001", 0, 3);
  advance(4.0);
  auto names = milestones();
  ASSERT_GE(names.size(), 3u);
  EXPECT_EQ(std::vector<std::string>(names.end() - 3, names.end()),
            (std::vector<std::string>{std::string(QSOPlaybackChapterCompleteNotification),
                                      std::string(QSOPlaybackAudiobookCompleteNotification),
                                      std::string(QSOPlaybackAudiobookUnloadedNotification)}));
  EXPECT_EQ(unloadReasons(), (std::vector<uint64_t>{0, 1}));
  EXPECT_EQ(engine.playerStatus(), QSOPlayerStatusUnloaded);
  EXPECT_FALSE(engine.currentLoadedChapter());
}

TEST_F(PlaybackEngine, HeadphonesPulledPauseWhilePlayingAndNothingWhilePaused) {
  ASSERT_TRUE(downloadBook("1001"));
  auto& engine = virtualEngine();
  playAndStart(engine, "1001", 0, 3);
  session->setCurrentRoute({{{std::string(QSOAudioPortBuiltInSpeaker), "Speaker"}}},
                           AudioSessionRouteChangeReason::OldDeviceUnavailable);
  advance(0.5);
  EXPECT_EQ(pauseContexts(), (std::vector<uint64_t>{3}));
  EXPECT_EQ(engine.playerStatus(), QSOPlayerStatusPaused);
  const auto offset = engine.currentOffset();
  advance(2.0);
  EXPECT_EQ(engine.currentOffset(), offset) << "the player stopped";
  session->setCurrentRoute({{{std::string(QSOAudioPortHeadphones), "Headphones"}}},
                           AudioSessionRouteChangeReason::OldDeviceUnavailable);
  advance(0.5);
  EXPECT_EQ(pauseContexts(), (std::vector<uint64_t>{3}));
}

TEST_F(PlaybackEngine, AnInterruptionPausesAndItsEndResumesUnlessTheUserPaused) {
  auto& engine = virtualEngine();
  playAndStart(engine, "2001", 1, 8);
  advance(1.0);
  session->raiseInterruption(AudioSessionInterruptionType::Began);
  advance(0.2);
  EXPECT_EQ(pauseContexts(), (std::vector<uint64_t>{2}));
  const auto offset = engine.currentOffset();
  advance(2.0);
  session->raiseInterruption(AudioSessionInterruptionType::Ended);
  advance(1.5);
  EXPECT_EQ(engine.playerStatus(), QSOPlayerStatusPlaying);
  EXPECT_GT(engine.currentOffset(), offset);
  // Interrupted, then paused by the user: the end of the interruption leaves it paused.
  session->raiseInterruption(AudioSessionInterruptionType::Began);
  advance(0.2);
  engine.pause();
  advance(0.2);
  session->raiseInterruption(AudioSessionInterruptionType::Ended);
  advance(1.5);
  EXPECT_EQ(engine.playerStatus(), QSOPlayerStatusPaused);
  EXPECT_EQ(pauseContexts(), (std::vector<uint64_t>{2, 2, 0}));
  // A suspension is no interruption of ours; the session refusing to come back is a failure.
  engine.resume();
  advance(1.0);
  session->raiseInterruption(AudioSessionInterruptionType::Began, true);
  advance(0.2);
  EXPECT_EQ(engine.playerStatus(), QSOPlayerStatusPlaying);
  session->raiseInterruption(AudioSessionInterruptionType::Began);
  session->setActivationHandler(
      [](bool) { return Error::make("io.sonorell.test", 1, "the device is busy", nullptr); });
  session->raiseInterruption(AudioSessionInterruptionType::Ended);
  advance(0.5);
  EXPECT_EQ(failureCodes(), (std::vector<int64_t>{26000}));
  EXPECT_EQ(unloadReasons().back(), 2u);
}

TEST_F(PlaybackEngine, AnInterruptionThatBeginsAsTheChapterLoadsPausesItOnceItStarts) {
  auto& engine = virtualEngine();
  engine.playForAudiobookID("2001", 1, 8, 0, "session", "license-2001");
  ASSERT_TRUE(playing());
  ASSERT_EQ(engine.playerStatus(), QSOPlayerStatusLoading);
  session->raiseInterruption(AudioSessionInterruptionType::Began);
  advance(0.6);
  EXPECT_EQ(count(QSOPlaybackChapterStartedNotification), 1u);
  EXPECT_EQ(pauseContexts(), (std::vector<uint64_t>{2}));
  EXPECT_EQ(engine.playerStatus(), QSOPlayerStatusPaused);
  const auto offset = engine.currentOffset();
  advance(2.0);
  EXPECT_EQ(engine.currentOffset(), offset) << "the player stopped";
  session->raiseInterruption(AudioSessionInterruptionType::Ended);
  advance(1.5);
  EXPECT_EQ(engine.playerStatus(), QSOPlayerStatusPlaying);
  EXPECT_GT(engine.currentOffset(), offset);
}

TEST_F(PlaybackEngine, TheListeningMethodFollowsTheOutputPort) {
  using Core = PlaybackEngineCore;
  EXPECT_EQ(Core::listeningMethodForPortType("Speaker"), QSOListeningMethodSpeaker);
  EXPECT_EQ(Core::listeningMethodForPortType("Headphones"), QSOListeningMethodHeadphones);
  EXPECT_EQ(Core::listeningMethodForPortType("BluetoothA2DPOutput"), QSOListeningMethodBluetooth);
  EXPECT_EQ(Core::listeningMethodForPortType("bluetoothLE"), QSOListeningMethodBluetooth);
  EXPECT_EQ(Core::listeningMethodForPortType("HDMI"), QSOListeningMethodOther);
  EXPECT_EQ(Core::listeningMethodForPortType("USB Bluetooth"), QSOListeningMethodOther);
  // And through the engine into the listen event of what is playing.
  session->setCurrentRoute({{{std::string(QSOAudioPortBluetoothA2DP), "Car"}}});
  auto& engine = virtualEngine();
  playAndStart(engine, "2001", 1, 8);
  advance(1.0);
  auto event = QLListenEventHandler::sharedHandler()->currentListenEvent();
  ASSERT_TRUE(event);
  EXPECT_EQ(event->listeningMethod(), static_cast<uint64_t>(QSOListeningMethodBluetooth));
}

TEST_F(PlaybackEngine, AChapterWhoseFileWasDeletedIsStreamedInstead) {
  ASSERT_TRUE(downloadBook("1001"));
  std::filesystem::remove(FilesystemHelper::filePath(chapter("1001", 0, 1)));
  auto& engine = virtualEngine();
  playAndStart(engine, "1001", 0, 1);
  auto started = postedNamed(QSOPlaybackChapterStartedNotification);
  ASSERT_EQ(started.size(), 1u);
  EXPECT_EQ(started[0].info.at(std::string(QSOPlaybackStreamingUserInfoKey)).asBool(), true);
  EXPECT_TRUE(engine.isStreaming());
  EXPECT_FALSE(streams().empty());
  advance(2.5);
  EXPECT_EQ(chaptersOf(QSOPlaybackChapterCompleteNotification),
            (std::vector<std::string>{"1001_0_1"}));
  EXPECT_TRUE(failureCodes().empty());
}

}  // namespace
}  // namespace sonorell
