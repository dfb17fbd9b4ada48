// The playback engine on a private PulseAudio daemon (started by the test in a temporary runtime
// directory, skipped with the reason where it cannot start), streaming a 13-second chapter from
// the reference server through GStreamer's pulsesink: the output device going away while playing
// pauses with context 3 and stops the player, and while paused posts nothing; a call corking our
// stream, or muting it while it starts, pauses with context 2 and its end resumes at the saved
// offset; a server that dies and comes back reallocates the player at the same offset.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <set>

#include "analytics/listen_event_handler.h"
#include "platform/media/gst/gst_queue_player.h"
#include "platform/media/pulse/pulse_session_monitor.h"
#include "sonorell/notifications.h"
#include "support/playback_support.h"
#include "unit/platform/media/pulse_daemon.h"

namespace sonorell {
namespace {

using content::Route;
using namespace std::chrono_literals;

const QSOChapterDescription kChapter("2001", 1, 8);  // 13 seconds of tone

class EngineOnPulseAudio : public testing::PlaybackEngineTest {
 protected:
  void SetUp() override {
    if (auto reason = daemon_.start()) GTEST_SKIP() << "no private PulseAudio daemon: " << *reason;
    setenv("SONORELL_AUDIO_SINK", ("pulsesink server=" + daemon_.server()).c_str(), 1);
    PlaybackEngineTest::SetUp();
    baseSetUp_ = true;
    pulse::PulseSessionMonitor::Options options;
    options.server = daemon_.server();
    monitor_ = pulse::PulseSessionMonitor::start(session, options);
    ASSERT_NE(monitor_, nullptr) << daemon_.logText();
    sessionToken_ = session->observe(DispatchQueue::create("io.sonorell.test.session"),
                                     [this](const AudioSessionEvent& event) {
                                       std::lock_guard lock(eventsMutex_);
                                       sessionEvents_.push_back(event);
                                     });
    services->players = [weak = std::weak_ptr<AudioSession>(session)] {
      return std::shared_ptr<QueuePlayer>(GstQueuePlayer::create(weak));
    };
    playback = std::make_shared<QSOPlaybackEngine>(services);
  }
  void TearDown() override {
    if (HasFailure()) std::cerr << "daemon log:\n" << daemon_.logText();
    if (baseSetUp_) PlaybackEngineTest::TearDown();
    monitor_.reset();
    sessionToken_.reset();
  }

  // Plays the chapter from its start and waits until it has played for `seconds`.
  void playFor(uint64_t seconds) {
    playback->playForAudiobookID(kChapter.audiobookID(), kChapter.partNumber(),
                                 kChapter.chapterNumber(), 0, "session", "license-2001");
    ASSERT_TRUE(waitFor(QSOPlaybackChapterStartedNotification, kChapter));
    ASSERT_TRUE(testing::eventually([&] { return playback->currentOffset() >= seconds; }, 30s));
    ASSERT_TRUE(ourStream()) << daemon_.pactl({"list", "sink-inputs"}).out;
  }
  std::optional<std::pair<std::string, std::string>> ourStream() {
    for (const auto& [index, text] : daemon_.sinkInputs()) {
      if (text.find("application.id = \"io.sonorell\"") != std::string::npos) {
        return std::make_pair(index, text);
      }
    }
    return std::nullopt;
  }
  bool corked() {
    auto stream = ourStream();
    return stream && stream->second.find("Corked: yes") != std::string::npos;
  }
  std::vector<uint64_t> pauseContexts() {
    std::vector<uint64_t> contexts;
    for (const auto& p : postedNamed(QSOPlaybackChapterPausedNotification)) {
      contexts.push_back(
          p.info.at(std::string(QSOPlaybackChapterPausedUserInfoKey)).asUInt().value_or(99));
    }
    return contexts;
  }
  size_t routeChanges(AudioSessionRouteChangeReason reason) {
    std::lock_guard lock(eventsMutex_);
    return std::count_if(sessionEvents_.begin(), sessionEvents_.end(), [&](const auto& e) {
      return e.kind == AudioSessionEvent::Kind::RouteChange && e.routeChangeReason == reason;
    });
  }
  // The offsets of the engine's play requests for the chapter, from its log.
  std::vector<uint64_t> requestedOffsets() {
    std::vector<uint64_t> offsets;
    const std::string prefix =
        "-(void)playForAudiobookID:[2001] partNumber:[1] chapterNumber:[8] "
        "offset:[";
    for (const auto& [level, line] : listener->lines()) {
      const auto at = line.find(prefix);
      if (at != std::string::npos) offsets.push_back(std::stoull(line.substr(at + prefix.size())));
    }
    return offsets;
  }

  testing::PulseDaemon daemon_;
  bool baseSetUp_ = false;
  std::unique_ptr<pulse::PulseSessionMonitor> monitor_;
  ObservationToken sessionToken_;
  std::mutex eventsMutex_;
  std::vector<AudioSessionEvent> sessionEvents_;
};

TEST_F(EngineOnPulseAudio, TheDeviceGoingAwayWhilePlayingPausesWithContext3AndThePlayerStops) {
  EXPECT_EQ(session->currentRoute().outputs.at(0).portType, "Headphones");
  playFor(2);
  // The headphones go away; the server moves our stream to the speakers.
  const auto headphones = daemon_.moduleOf("headphones");
  ASSERT_TRUE(headphones);
  ASSERT_EQ(daemon_.pactl({"unload-module", *headphones}).exitCode, 0);
  ASSERT_TRUE(testing::eventually([&] { return !pauseContexts().empty(); }));
  EXPECT_EQ(pauseContexts(), std::vector<uint64_t>{QSOPlaybackPausedContextRouteChange});
  EXPECT_EQ(playback->playerStatus(), QSOPlayerStatusPaused);
  // Nothing more comes out of the speakers.
  EXPECT_TRUE(testing::eventually([&] { return player() && player()->rate() == 0 && corked(); }))
      << daemon_.pactl({"list", "sink-inputs"}).out;
  EXPECT_EQ(session->currentRoute().outputs.at(0).portType, "Speaker");

  // What was heard on the headphones was recorded as heard on wired headphones. The pause's
  // listen event is stored on the engine's queue, so the queue is flushed until it has gone out.
  std::set<std::string> paths;
  ASSERT_TRUE(testing::eventually([&] {
    QLListenEventHandler::sharedHandler()->flushListenEventQueue();
    paths.clear();
    for (const auto& request : server.requests(Route::kAnalytics)) {
      const auto body = nlohmann::json::parse(request.body);
      for (const auto& event : body.at("events")) {
        paths.insert(event.at("path_to_ear").get<std::string>());
      }
    }
    return !paths.empty();
  }));
  EXPECT_TRUE(paths.contains("Wired")) << nlohmann::json(paths).dump();

  // While paused, the next device going away posts nothing.
  ASSERT_TRUE(daemon_.loadModule({"module-null-sink", "sink_name=spare"}));
  const auto speakers = daemon_.moduleOf("speakers");
  ASSERT_TRUE(speakers);
  ASSERT_EQ(daemon_.pactl({"unload-module", *speakers}).exitCode, 0);
  ASSERT_TRUE(testing::eventually(
      [&] { return routeChanges(AudioSessionRouteChangeReason::OldDeviceUnavailable) == 2; }));
  DispatchQueue::waitUntilAllIdle(10s);
  EXPECT_EQ(pauseContexts().size(), 1u);
  EXPECT_EQ(playback->playerStatus(), QSOPlayerStatusPaused);
}

TEST_F(EngineOnPulseAudio, ACallCorkingOurStreamPausesWithContext2AndItsEndResumesThere) {
  playFor(3);
  pid_t call = daemon_.startClient("phone", "headphones");
  ASSERT_GT(call, 0);
  ASSERT_TRUE(testing::eventually([&] { return !pauseContexts().empty(); }));
  EXPECT_EQ(pauseContexts(), std::vector<uint64_t>{QSOPlaybackPausedContextInterruption});
  EXPECT_EQ(playback->playerStatus(), QSOPlayerStatusPaused);
  const uint64_t saved = playback->currentOffset();
  EXPECT_GE(saved, 3u);
  // The pause reaches the server as a corked stream. The server asks only corked streams to
  // uncork when the call ends, so the call lasts until then, as a real one does.
  ASSERT_TRUE(testing::eventually([&] { return corked(); }))
      << daemon_.pactl({"list", "sink-inputs"}).out;

  testing::killAndReap(call);
  ASSERT_TRUE(
      testing::eventually([&] { return playback->playerStatus() == QSOPlayerStatusPlaying; }));
  // From the saved offset (whole seconds, so at most a second back), then on.
  const uint64_t resumedAt = playback->currentOffset();
  EXPECT_GE(resumedAt + 1, saved);
  EXPECT_LE(resumedAt, saved + 1);
  EXPECT_TRUE(testing::eventually([&] { return playback->currentOffset() > saved + 1; }));
  EXPECT_FALSE(corked());
  EXPECT_EQ(pauseContexts().size(), 1u);
}

TEST_F(EngineOnPulseAudio, ACallThatStartsWhileOurStreamStartsPausesItAsSoonAsItPlays) {
  playback->playForAudiobookID(kChapter.audiobookID(), kChapter.partNumber(),
                               kChapter.chapterNumber(), 0, "session", "license-2001");
  // The stream exists but is still corked for preroll: the server will only mute it.
  ASSERT_TRUE(testing::eventually([&] { return ourStream().has_value(); }));
  pid_t call = daemon_.startClient("phone", "headphones");
  ASSERT_GT(call, 0);
  ASSERT_TRUE(testing::eventually([&] { return !pauseContexts().empty(); }))
      << daemon_.pactl({"list", "sink-inputs"}).out;
  EXPECT_EQ(pauseContexts(), std::vector<uint64_t>{QSOPlaybackPausedContextInterruption});
  EXPECT_EQ(playback->playerStatus(), QSOPlayerStatusPaused);
  // Little was played unheard, and that is where the end of the call resumes.
  const uint64_t saved = playback->currentOffset();
  EXPECT_LE(saved, 1u);
  ASSERT_TRUE(testing::eventually([&] { return corked(); }));

  testing::killAndReap(call);
  ASSERT_TRUE(
      testing::eventually([&] { return playback->playerStatus() == QSOPlayerStatusPlaying; }));
  EXPECT_LE(playback->currentOffset(), saved + 1);
  EXPECT_TRUE(testing::eventually([&] { return playback->currentOffset() > saved + 1; }));
  EXPECT_EQ(pauseContexts().size(), 1u);
}

TEST_F(EngineOnPulseAudio, AServerThatDiesAndComesBackGetsAFreshPlayRequestAtTheSameOffset) {
  playFor(3);
  const uint64_t before = playback->currentOffset();
  daemon_.kill();
  ASSERT_TRUE(testing::eventually([&] { return !monitor_->isConnected(); }));
  ASSERT_EQ(daemon_.start(), std::nullopt);
  // The reset reallocates the player, which starts the chapter again where it was.
  ASSERT_TRUE(
      testing::eventually([&] { return count(QSOPlaybackChapterStartedNotification) >= 2; }, 30s));
  const auto offsets = requestedOffsets();
  ASSERT_EQ(offsets.size(), 2u);
  EXPECT_EQ(offsets[0], 0u);
  EXPECT_GE(offsets[1], before);
  EXPECT_LE(offsets[1], before + 1);
  EXPECT_TRUE(listener->count("The system reset the audio service") == 1);
  EXPECT_TRUE(postedNamed(QSOPlaybackChapterFailedNotification).empty());
  EXPECT_TRUE(testing::eventually([&] { return ourStream().has_value() && !corked(); }));
}

}  // namespace
}  // namespace sonorell
