// The audio session on a sound server. First the decisions themselves on server readings made
// by hand (port availability has no software switch: only jack detection and Bluetooth links
// change it, and a test machine has neither). Then a private PulseAudio daemon this test starts:
// the route read from it and followed as sinks come and go, our GStreamer stream named for mixers,
// its cork requests and its device's suspension as interruptions, and a restarted server as a
// media-services reset. Skipped, with the reason, where no daemon can start.
#include <gtest/gtest.h>

#include <mutex>

#include "media_test_support.h"
#include "platform/media/gst/gst_queue_player.h"
#include "platform/media/pulse/pulse_route.h"
#include "platform/media/pulse/pulse_session_monitor.h"
#include "pulse_daemon.h"

namespace sonorell {
namespace {

using namespace std::chrono_literals;
using pulse::PortAvailability;
using pulse::PortKind;
using pulse::ServerState;
using pulse::Sink;
using Reason = AudioSessionRouteChangeReason;

// ---- decisions on readings made by hand

Sink laptopCard(const std::string& activePort, PortAvailability headphones) {
  Sink sink;
  sink.index = 1;
  sink.name = "alsa_output.pci-0000_00_1f.3.analog-stereo";
  sink.description = "Built-in Audio Analog Stereo";
  sink.activePort = activePort;
  sink.ports = {{"analog-output-speaker", "Speakers", static_cast<uint32_t>(PortKind::Speaker),
                 PortAvailability::Unknown},
                {"analog-output-headphones", "Headphones",
                 static_cast<uint32_t>(PortKind::Headphones), headphones}};
  return sink;
}

ServerState playingOn(Sink sink) {
  ServerState state;
  state.defaultSink = sink.name;
  state.streamSink = sink.index;
  state.streamRunning = true;
  state.sinks[sink.index] = std::move(sink);
  return state;
}

TEST(PulseRouteTest, PortTypesAreTheNamesTheListeningMethodReads) {
  Sink card = laptopCard("analog-output-headphones", PortAvailability::Yes);
  EXPECT_EQ(pulse::portFor(card).portType, "Headphones");
  EXPECT_EQ(pulse::portFor(card).portName, "Headphones");
  card.activePort = "analog-output-speaker";
  EXPECT_EQ(pulse::portFor(card).portType, "Speaker");

  // Older servers give no port type: the port's name says it.
  Sink hdmi;
  hdmi.name = "alsa_output.pci-0000_01_00.1.hdmi-stereo";
  hdmi.activePort = "hdmi-output-0";
  hdmi.ports = {{"hdmi-output-0", "HDMI / DisplayPort", 0, PortAvailability::Yes}};
  EXPECT_EQ(pulse::portFor(hdmi).portType, "HDMI");
  hdmi.ports[0].kind = static_cast<uint32_t>(PortKind::Line);
  EXPECT_EQ(pulse::portFor(hdmi).portType, "LineOut");

  // Bluetooth by its bluez card, whatever its port is called: music or call audio.
  Sink headset;
  headset.name = "bluez_sink.00_1B_66_AA_BB_CC.a2dp_sink";
  headset.activePort = "headphone-output";
  headset.ports = {{"headphone-output", "Headphone", static_cast<uint32_t>(PortKind::Headphones),
                    PortAvailability::Yes}};
  headset.properties = {{"device.api", "bluez"}, {"bluetooth.protocol", "a2dp_sink"}};
  EXPECT_EQ(pulse::portFor(headset).portType, "BluetoothA2DPOutput");
  headset.properties["bluetooth.protocol"] = "handsfree_head_unit";
  EXPECT_EQ(pulse::portFor(headset).portType, "BluetoothHFP");

  // A sink without ports: its form factor, else its own name (another output).
  Sink virtualSink;
  virtualSink.name = "tunnel.living-room";
  virtualSink.description = "Living room";
  EXPECT_EQ(pulse::portFor(virtualSink).portType, "tunnel.living-room");
  virtualSink.properties["device.form_factor"] = "headphone";
  EXPECT_EQ(pulse::portFor(virtualSink).portType, "Headphones");
}

TEST(PulseRouteTest, PullingTheHeadphonesOutIsTheOldDeviceBecomingUnavailable) {
  const ServerState listening =
      playingOn(laptopCard("analog-output-headphones", PortAvailability::Yes));
  // The jack reports the plug gone; the server has not switched ports yet.
  ServerState pulled = playingOn(laptopCard("analog-output-headphones", PortAvailability::No));
  EXPECT_EQ(pulse::routeChangeReason(listening, pulled), Reason::OldDeviceUnavailable);
  // ...or it already has, to the speakers: the same answer.
  pulled = playingOn(laptopCard("analog-output-speaker", PortAvailability::No));
  EXPECT_EQ(pulse::routeChangeReason(listening, pulled), Reason::OldDeviceUnavailable);
  EXPECT_EQ(pulse::routeFor(pulled).outputs.at(0).portType, "Speaker");

  // Plugging them in again is a new device; choosing the speakers with them plugged in is the
  // user's override; nothing moving is no change.
  const ServerState speakers = playingOn(laptopCard("analog-output-speaker", PortAvailability::No));
  EXPECT_EQ(pulse::routeChangeReason(speakers, listening), Reason::NewDeviceAvailable);
  const ServerState chosen = playingOn(laptopCard("analog-output-speaker", PortAvailability::Yes));
  EXPECT_EQ(pulse::routeChangeReason(listening, chosen), Reason::Override);
  EXPECT_EQ(pulse::routeChangeReason(listening, listening), std::nullopt);
}

TEST(PulseRouteTest, ADeviceThatDisappearsUnderOurStreamIsUnavailableWhereverTheStreamGoes) {
  ServerState before = playingOn(laptopCard("analog-output-speaker", PortAvailability::No));
  Sink headset;
  headset.index = 7;
  headset.name = "bluez_sink.00_1B_66_AA_BB_CC.a2dp_sink";
  headset.properties = {{"device.api", "bluez"}};
  before.sinks[7] = headset;
  before.streamSink = 7;
  EXPECT_EQ(pulse::routeFor(before).outputs.at(0).portType, "BluetoothA2DPOutput");
  // The link drops: the sink is gone and the server moved the stream back to the card.
  ServerState after = before;
  after.sinks.erase(7);
  after.streamSink = 1;
  EXPECT_EQ(pulse::routeChangeReason(before, after), Reason::OldDeviceUnavailable);
  // A new device our stream is moved to is a new device.
  EXPECT_EQ(pulse::routeChangeReason(after, before), Reason::NewDeviceAvailable);
  // A suspended device matters only under a running stream of ours.
  after.sinks[1].suspended = true;
  EXPECT_TRUE(pulse::suspendedUnderStream(after));
  after.streamRunning = false;
  EXPECT_FALSE(pulse::suspendedUnderStream(after));
}

TEST(PulseSessionMonitorTest, WithoutAServerTheHostKeepsDrivingTheSession) {
  testing::TempDir dir;
  auto session = std::make_shared<AudioSession>();
  pulse::PulseSessionMonitor::Options options;
  options.server = "unix:" + (dir.path() / "no-server-here").string();
  EXPECT_EQ(pulse::PulseSessionMonitor::start(session, options), nullptr);
  EXPECT_EQ(session->currentRoute().outputs.at(0).portType, "Speaker");
}

// ---- a private daemon

class PulseSessionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (auto reason = daemon_.start()) GTEST_SKIP() << "no private PulseAudio daemon: " << *reason;
    token_ = session_->observe(DispatchQueue::create("io.sonorell.test.session"),
                               [this](const AudioSessionEvent& event) {
                                 std::lock_guard lock(mutex_);
                                 events_.push_back(event);
                               });
  }
  void TearDown() override {
    player_.reset();
    monitor_.reset();
    token_.reset();
    DispatchQueue::waitUntilAllIdle(20s);
    if (HasFailure()) std::cerr << "daemon log:\n" << daemon_.logText();
  }

  void watch() {
    pulse::PulseSessionMonitor::Options options;
    options.server = daemon_.server();
    monitor_ = pulse::PulseSessionMonitor::start(session_, options);
    ASSERT_NE(monitor_, nullptr) << daemon_.logText();
  }
  std::string portType() const {
    const auto route = session_->currentRoute();
    return route.outputs.empty() ? "" : route.outputs[0].portType;
  }
  std::vector<AudioSessionEvent> events() {
    std::lock_guard lock(mutex_);
    return events_;
  }
  size_t count(const std::function<bool(const AudioSessionEvent&)>& which) {
    size_t n = 0;
    for (const auto& e : events()) n += which(e) ? 1 : 0;
    return n;
  }
  static bool routeChange(const AudioSessionEvent& e, Reason reason) {
    return e.kind == AudioSessionEvent::Kind::RouteChange && e.routeChangeReason == reason;
  }
  static bool interruption(const AudioSessionEvent& e, AudioSessionInterruptionType type,
                           bool suspended) {
    return e.kind == AudioSessionEvent::Kind::Interruption && e.interruptionType == type &&
           e.wasSuspended == std::optional<bool>(suspended);
  }
  bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit = 20s) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(5ms);
    }
    return true;
  }

  // Our stream: the GStreamer player on the daemon, playing a long tone.
  void play() {
    setenv("SONORELL_AUDIO_SINK", ("pulsesink server=" + daemon_.server()).c_str(), 1);
    player_ = GstQueuePlayer::create(session_);
    ASSERT_NE(player_, nullptr);
    auto file = testing::makeMp3(dir_.path(), "tone.mp3", 30);
    delegate_ = std::make_shared<testing::FileLoaderDelegate>(file);
    ASSERT_TRUE(player_->insertItem(testing::makeItem("qlso://tone.mp3", delegate_, loaderQueue_),
                                    nullptr));
    player_->play();
    ASSERT_TRUE(eventually([&] { return ourStream().has_value(); }))
        << daemon_.pactl({"list", "sink-inputs"}).out;
  }
  // The sink input index and properties of the player's stream, once the server has it.
  std::optional<std::pair<std::string, std::string>> ourStream() {
    for (const auto& [index, text] : daemon_.sinkInputs()) {
      if (text.find("application.id = \"io.sonorell\"") != std::string::npos) {
        return std::make_pair(index, text);
      }
    }
    return std::nullopt;
  }

  testing::PulseDaemon daemon_;
  testing::TempDir dir_;
  std::shared_ptr<AudioSession> session_ = std::make_shared<AudioSession>();
  std::unique_ptr<pulse::PulseSessionMonitor> monitor_;
  DispatchQueuePtr loaderQueue_ = DispatchQueue::create("io.sonorell.test.loader");
  std::shared_ptr<testing::FileLoaderDelegate> delegate_;
  std::shared_ptr<GstQueuePlayer> player_;
  ObservationToken token_;
  std::mutex mutex_;
  std::vector<AudioSessionEvent> events_;
};

TEST_F(PulseSessionTest, TheRouteFollowsTheDefaultSinkAndDevicesThatComeAndGo) {
  watch();
  // Read before start() returns.
  EXPECT_EQ(portType(), "Headphones");
  EXPECT_EQ(session_->currentRoute().outputs.at(0).portName, "Headphones");

  ASSERT_EQ(daemon_.pactl({"set-default-sink", "speakers"}).exitCode, 0);
  ASSERT_TRUE(eventually([&] { return portType() == "Speaker"; }));
  ASSERT_TRUE(eventually(
      [&] { return count([](auto& e) { return routeChange(e, Reason::Override); }) == 1; }));

  // A Bluetooth headset connects and the desktop makes it the output.
  const auto module = daemon_.loadModule(
      {"module-null-sink", "sink_name=headset",
       "sink_properties=\"device.description=Headset device.api=bluez device.bus=bluetooth "
       "bluetooth.protocol=a2dp_sink\""});
  ASSERT_TRUE(module) << daemon_.logText();
  ASSERT_EQ(daemon_.pactl({"set-default-sink", "headset"}).exitCode, 0);
  ASSERT_TRUE(eventually([&] { return portType() == "BluetoothA2DPOutput"; }));

  // Its link drops: the device we were on is unavailable, and the route is wherever the server
  // goes next.
  ASSERT_EQ(daemon_.pactl({"unload-module", *module}).exitCode, 0);
  ASSERT_TRUE(eventually([&] {
    return count([](auto& e) { return routeChange(e, Reason::OldDeviceUnavailable); }) == 1;
  }));
  const auto events = this->events();
  const auto lost = std::find_if(events.begin(), events.end(), [](auto& e) {
    return routeChange(e, Reason::OldDeviceUnavailable);
  });
  EXPECT_EQ(lost->previousRoute.outputs.at(0).portType, "BluetoothA2DPOutput");
  EXPECT_NE(portType(), "BluetoothA2DPOutput");
  EXPECT_EQ(count([](auto& e) { return e.kind != AudioSessionEvent::Kind::RouteChange; }), 0u);
}

TEST_F(PulseSessionTest, OurStreamIsNamedForMixersAndACallCorkingItIsAnInterruption) {
  watch();
  play();
  // The call starts once our stream plays, so the server both mutes it and asks it to cork: the
  // session raises one interruption for the two.
  ASSERT_TRUE(eventually([&] {
    auto stream = ourStream();
    return stream && stream->second.find("Corked: no") != std::string::npos;
  }));
  const auto stream = ourStream();
  ASSERT_TRUE(stream);
  const std::string& props = stream->second;
  EXPECT_NE(props.find("application.name = \"Sonorell\""), std::string::npos) << props;
  EXPECT_NE(props.find("media.role = \"music\""), std::string::npos) << props;
  EXPECT_NE(props.find("application.icon_name = \"audio-x-generic\""), std::string::npos) << props;

  // A call starts on our sink: the server asks our stream to cork.
  pid_t call = daemon_.startClient("phone", "headphones");
  ASSERT_GT(call, 0);
  ASSERT_TRUE(eventually([&] {
    return count([](auto& e) {
             return interruption(e, AudioSessionInterruptionType::Began, false);
           }) == 1;
  })) << daemon_.pactl({"list", "sink-inputs"}).out;
  // The engine pauses on it, which corks the stream; the call ends: it may go on.
  player_->pause();
  ASSERT_TRUE(eventually([&] {
    auto stream = ourStream();
    return stream && stream->second.find("Corked: yes") != std::string::npos;
  }));
  testing::killAndReap(call);
  ASSERT_TRUE(eventually([&] {
    return count([](auto& e) {
             return interruption(e, AudioSessionInterruptionType::Ended, false);
           }) == 1;
  }));
  EXPECT_EQ(count([](auto& e) { return e.kind == AudioSessionEvent::Kind::RouteChange; }), 0u);
}

TEST_F(PulseSessionTest, TheDeviceSuspendedUnderOurRunningStreamIsASuspension) {
  watch();
  play();
  ASSERT_TRUE(eventually([&] {
    auto stream = ourStream();
    return stream && stream->second.find("Corked: no") != std::string::npos;
  }));
  ASSERT_EQ(daemon_.pactl({"suspend-sink", "headphones", "1"}).exitCode, 0);
  ASSERT_TRUE(eventually([&] {
    return count([](auto& e) {
             return interruption(e, AudioSessionInterruptionType::Began, true);
           }) == 1;
  }));
  ASSERT_EQ(daemon_.pactl({"suspend-sink", "headphones", "0"}).exitCode, 0);
  ASSERT_TRUE(eventually([&] {
    return count([](auto& e) {
             return interruption(e, AudioSessionInterruptionType::Ended, true);
           }) == 1;
  }));
  // Suspending a device we do not play to says nothing: the session reads the server's changes
  // in order, so by the time ours is suspended again, the other one has been judged.
  ASSERT_EQ(daemon_.pactl({"suspend-sink", "speakers", "1"}).exitCode, 0);
  ASSERT_EQ(daemon_.pactl({"suspend-sink", "headphones", "1"}).exitCode, 0);
  ASSERT_TRUE(eventually([&] {
    return count([](auto& e) {
             return interruption(e, AudioSessionInterruptionType::Began, true);
           }) == 2;
  }));
  EXPECT_EQ(count([](auto& e) { return e.kind == AudioSessionEvent::Kind::Interruption; }), 3u);
}

TEST_F(PulseSessionTest, AServerThatDiesAndComesBackIsAMediaServicesReset) {
  watch();
  daemon_.kill();
  ASSERT_TRUE(eventually([&] { return !monitor_->isConnected(); }));
  EXPECT_EQ(count([](auto& e) { return e.kind == AudioSessionEvent::Kind::MediaServicesReset; }),
            0u);
  ASSERT_EQ(daemon_.start(), std::nullopt);
  ASSERT_TRUE(eventually([&] {
    return count([](auto& e) { return e.kind == AudioSessionEvent::Kind::MediaServicesReset; }) ==
           1;
  }));
  EXPECT_TRUE(monitor_->isConnected());
  EXPECT_EQ(portType(), "Headphones");
  // Changes are followed on the new connection.
  ASSERT_EQ(daemon_.pactl({"set-default-sink", "speakers"}).exitCode, 0);
  EXPECT_TRUE(eventually([&] { return portType() == "Speaker"; }));
}

}  // namespace
}  // namespace sonorell
