// The audio session's activation, route and events, and reachability read from a route table
// and sysfs tree built in a temp directory, or set by hand.
#include <gtest/gtest.h>

#include <fstream>

#include "media_test_support.h"
#include "platform/dispatch/clock.h"
#include "platform/media/audio_session.h"
#include "platform/net/reachability.h"

namespace sonorell {
namespace {

using namespace std::chrono_literals;

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
  testing::LogCapture log;
  AudioSession session;
  EXPECT_EQ(session.currentRoute().outputs.at(0).portType, kAudioSessionPortBuiltInSpeaker);
  std::vector<AudioSessionEvent> events;
  auto token = session.observe(DispatchQueue::create("io.sonorell.test.session"),
                               [&](const AudioSessionEvent& e) { events.push_back(e); });
  // An observer without a queue is refused: logged, and never called.
  std::atomic<int> refusedCalls{0};
  auto refused = session.observe(nullptr, [&](const AudioSessionEvent&) { ++refusedCalls; });
  ASSERT_NE(refused, nullptr);
  EXPECT_EQ(log.errorsMentioning("AudioSession::observe"), 1u);
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

class RouteTableTest : public ::testing::Test {
 protected:
  void writeRoutes(const std::string& rows) {
    std::ofstream(dir_.path() / "route")
        << "Iface\tDestination\tGateway\tFlags\tRefCnt\tUse\tMetric\tMask\tMTU\tWindow\tIRTT\n"
        << rows;
  }
  void makeInterface(const std::string& name, const std::string& marker,
                     const std::string& uevent = "") {
    std::filesystem::create_directories(dir_.path() / "net" / name);
    if (!marker.empty()) std::filesystem::create_directories(dir_.path() / "net" / name / marker);
    std::ofstream(dir_.path() / "net" / name / "uevent") << uevent;
  }
  ConnectionType read() {
    return LinuxRouteReachabilitySource(dir_.path() / "route", dir_.path() / "net").read();
  }
  testing::TempDir dir_;
};

TEST_F(RouteTableTest, DefaultRouteInterfaceDecidesTheType) {
  makeInterface("wlp2s0", "wireless");
  makeInterface("wwan0", "", "DEVTYPE=wwan\n");
  makeInterface("usb0", "", "DEVTYPE=wwan\n");
  makeInterface("enp3s0", "");
  writeRoutes("wlp2s0\t0000A8C0\t00000000\t0001\t0\t0\t600\t00FFFFFF\t0\t0\t0\n");
  EXPECT_EQ(read(), ConnectionType::None);  // a subnet route is not a default route
  writeRoutes("wlp2s0\t00000000\t0100A8C0\t0003\t0\t0\t600\t00000000\t0\t0\t0\n");
  EXPECT_EQ(read(), ConnectionType::WiFi);
  writeRoutes(
      "wlp2s0\t00000000\t0100A8C0\t0003\t0\t0\t600\t00000000\t0\t0\t0\n"
      "usb0\t00000000\t0100A8C0\t0003\t0\t0\t100\t00000000\t0\t0\t0\n");
  EXPECT_EQ(read(), ConnectionType::Cellular);  // the lower metric wins
  writeRoutes("wwan0\t00000000\t0100A8C0\t0002\t0\t0\t10\t00000000\t0\t0\t0\n");
  EXPECT_EQ(read(), ConnectionType::None);  // not up
  writeRoutes("enp3s0\t00000000\t0100A8C0\t0003\t0\t0\t100\t00000000\t0\t0\t0\n");
  EXPECT_EQ(read(), ConnectionType::WiFi);  // wired is not metered
  std::filesystem::remove(dir_.path() / "route");
  EXPECT_EQ(read(), ConnectionType::Unknown);
}

TEST(ReachabilityTest, ManualSourceChangesAreObserved) {
  ScopedVirtualClock clock;
  auto manual = std::make_shared<ManualReachabilitySource>(ConnectionType::WiFi);
  auto reachability = Reachability::create(manual);
  EXPECT_EQ(reachability->connectionType(), ConnectionType::WiFi);
  std::vector<ConnectionType> seen;
  auto token = reachability->observe(DispatchQueue::create("io.sonorell.test.reach"),
                                     [&](ConnectionType t) { seen.push_back(t); });
  testing::LogCapture log;
  std::atomic<int> refusedCalls{0};
  auto refused = reachability->observe(nullptr, [&](ConnectionType) { ++refusedCalls; });
  ASSERT_NE(refused, nullptr);
  EXPECT_EQ(log.errorsMentioning("Reachability::observe"), 1u);
  manual->set(ConnectionType::Cellular);
  manual->set(ConnectionType::Cellular);  // no change, no notification
  manual->set(ConnectionType::None);
  ASSERT_TRUE(clock->runUntilIdle());
  EXPECT_EQ(seen, (std::vector<ConnectionType>{ConnectionType::Cellular, ConnectionType::None}));
  EXPECT_EQ(reachability->connectionType(), ConnectionType::None);
  EXPECT_EQ(refusedCalls, 0);  // the refused observer stays silent
}

TEST(ReachabilityTest, MonitoringRereadsOnTheClock) {
  ScopedVirtualClock clock;
  testing::TempDir dir;
  auto route = dir.path() / "route";
  std::ofstream(route) << "Iface\tDestination\tGateway\tFlags\tRefCnt\tUse\tMetric\n";
  auto reachability = Reachability::create(
      std::make_shared<LinuxRouteReachabilitySource>(route, dir.path() / "net"));
  EXPECT_EQ(reachability->connectionType(), ConnectionType::None);
  std::vector<ConnectionType> seen;
  auto token = reachability->observe(DispatchQueue::create("io.sonorell.test.reach"),
                                     [&](ConnectionType t) { seen.push_back(t); });
  reachability->startMonitoring(5s);
  std::filesystem::create_directories(dir.path() / "net" / "wlan0" / "phy80211");
  std::ofstream(route, std::ios::app) << "wlan0\t00000000\t0100A8C0\t0003\t0\t0\t600\n";
  clock->advance(4999ms);
  ASSERT_TRUE(clock->runUntilIdle());
  EXPECT_TRUE(seen.empty());
  clock->advance(1ms);
  ASSERT_TRUE(clock->runUntilIdle());
  EXPECT_EQ(seen, (std::vector<ConnectionType>{ConnectionType::WiFi}));
  reachability->stopMonitoring();
}

}  // namespace
}  // namespace sonorell
