// The audio session's activation, route and events.
#include <gtest/gtest.h>

#include "media_test_support.h"
#include "platform/dispatch/clock.h"
#include "platform/media/audio_session.h"

namespace sonorell {
namespace {

TEST(AudioSessionTest, ActivationFollowsTheHostsAnswer) {
  AudioSession session;
  EXPECT_EQ(session.setCategory(kAudioSessionCategoryPlayback, kAudioSessionModeSpokenAudio, 0),
            nullptr);
  EXPECT_EQ(session.setActive(true), nullptr);
  EXPECT_TRUE(session.isActive());
  auto refusal = Error::posix(EBUSY, "audio focus");
  session.setActivationHandler([&](bool active) { return active ? refusal : nullptr; });
  EXPECT_EQ(session.setActive(false), nullptr);
  EXPECT_EQ(session.setActive(true), refusal);
  EXPECT_FALSE(session.isActive());
  EXPECT_NE(session.setCategory("", "", 0), nullptr);
}

TEST(AudioSessionTest, EventsReachObserversWithTheirDetails) {
  ScopedVirtualClock clock;
  testing::PlatformLogLines log;
  AudioSession session;
  EXPECT_EQ(session.currentRoute().outputs.at(0).portType, kAudioSessionPortBuiltInSpeaker);
  std::vector<AudioSessionEvent> events;
  auto token = session.observe(DispatchQueue::create("io.sonorell.test.session"),
                               [&](const AudioSessionEvent& e) { events.push_back(e); });
  // An observer without a queue is refused: logged, and never called.
  std::atomic<int> refusedCalls{0};
  auto refused = session.observe(nullptr, [&](const AudioSessionEvent&) { ++refusedCalls; });
  ASSERT_NE(refused, nullptr);
  EXPECT_EQ(log.count("AudioSession::observe", LogType::Error), 1u);
  session.setCurrentRoute({{{std::string(kAudioSessionPortHeadphones), "Jack"}}});
  session.raiseInterruption(AudioSessionInterruptionType::Began, true);
  session.setCurrentRoute({{{std::string(kAudioSessionPortBuiltInSpeaker), "Speaker"}}},
                          AudioSessionRouteChangeReason::OldDeviceUnavailable);
  session.raiseMediaServicesReset();
  ASSERT_TRUE(clock->runUntilIdle());
  ASSERT_EQ(events.size(), 3u);  // setting a route without a reason raises nothing
  EXPECT_EQ(events[0].kind, AudioSessionEvent::Kind::Interruption);
  EXPECT_EQ(events[0].wasSuspended, std::optional<bool>(true));
  EXPECT_EQ(events[1].routeChangeReason, AudioSessionRouteChangeReason::OldDeviceUnavailable);
  EXPECT_EQ(events[1].previousRoute.outputs.at(0).portType, kAudioSessionPortHeadphones);
  EXPECT_EQ(events[2].kind, AudioSessionEvent::Kind::MediaServicesReset);
  EXPECT_EQ(refusedCalls, 0);
  token.reset();
  session.raiseMediaServicesReset();
  ASSERT_TRUE(clock->runUntilIdle());
  EXPECT_EQ(events.size(), 3u);
}

}  // namespace
}  // namespace sonorell
