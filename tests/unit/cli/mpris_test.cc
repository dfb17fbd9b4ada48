// The play command's MPRIS player as a desktop sees it: a private session bus (dbus-daemon
// started by the test), the CLI playing on a pseudo-terminal against the reference server binary,
// and dbus-send standing in for the media keys and the player widget. Skipped, with the reason,
// where no bus can start.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <thread>

#include "data_dir.h"
#include "processes.h"
#include "server_process.h"
#include "support/temp_library.h"
#include "unit/platform/media/pulse_daemon.h"

namespace sonorell::cli::testing {
namespace {

namespace fs = std::filesystem;
using sonorell::testing::killAndReap;
using sonorell::testing::runProgram;
using sonorell::testing::startProgram;

constexpr const char* kPlayer = "org.mpris.MediaPlayer2.sonorell";

class Mpris : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    server_ = new content::testing::ServerProcess(content::defaultDataDir(), {});
  }
  static void TearDownTestSuite() {
    EXPECT_EQ(server_->terminate(), "exit 0");
    delete server_;
  }
  void SetUp() override {
    ASSERT_FALSE(server_->baseURL().empty()) << server_->stderrText();
    address_ = "unix:path=" + (library_.path() / "bus").string();
    bus_ = startProgram(
        {"dbus-daemon", "--session", "--nofork", "--nopidfile", "--address=" + address_},
        (library_.path() / "bus.log").string());
    const bool up =
        bus_ > 0 && eventually([&] {
          return call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus.GetId")
                     .find("string") != std::string::npos;
        });
    if (!up) GTEST_SKIP() << "no private session bus (dbus-daemon --session) could start";
  }
  void TearDown() override { killAndReap(bus_, SIGTERM); }

  static bool eventually(const std::function<bool()>& condition,
                         std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
  }
  // A method call on the bus, as dbus-send prints its reply.
  std::string call(const std::string& destination, const std::string& path,
                   const std::string& method, std::vector<std::string> arguments = {}) const {
    std::vector<std::string> argv = {
        "dbus-send", "--bus=" + address_, "--print-reply", "--dest=" + destination, path, method};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return runProgram(argv).out;
  }
  std::string player(const std::string& method) const {
    return call(kPlayer, "/org/mpris/MediaPlayer2", "org.mpris.MediaPlayer2.Player." + method);
  }
  std::string property(const std::string& name) const {
    return call(kPlayer, "/org/mpris/MediaPlayer2", "org.freedesktop.DBus.Properties.Get",
                {"string:org.mpris.MediaPlayer2.Player", "string:" + name});
  }

  std::map<std::string, std::string> environment() const {
    return {{"SONORELL_API_BASE_URL", server_->baseURL()},
            {"SONORELL_CA_FILE", server_->ready().value("caCertificate", "")},
            {"SONORELL_SESSION_KEY", "cli-session"},
            {"SONORELL_LICENSE_ID", "cli-license"},
            {"SONORELL_AUDIO_SINK", "fakesink sync=true"},
            {"DBUS_SESSION_BUS_ADDRESS", address_}};
  }

  static content::testing::ServerProcess* server_;
  sonorell::testing::TempLibrary library_;
  std::string address_;
  pid_t bus_ = -1;
};

content::testing::ServerProcess* Mpris::server_ = nullptr;

TEST_F(Mpris, MediaKeysPauseAndSkipAndTheWidgetSeesTheBookAndChapter) {
  const std::string library = library_.path().string();
  // One 13-second chapter of the long book on disk.
  const auto download = runCommand(
      SONORELL_CLI, {"--library", library, "download", "2001", "--part", "1", "--chapter", "8"},
      environment());
  ASSERT_EQ(download.exitCode, 0) << download.err << download.out;

  auto play = PtyProcess::start(
      SONORELL_CLI, {"--library", library, "play", "2001", "--part", "1", "--chapter", "8"},
      environment());
  ASSERT_TRUE(play->waitForText("part 1 ch 8  0:01")) << play->output();
  ASSERT_TRUE(eventually([&] {
    return call("org.freedesktop.DBus", "/org/freedesktop/DBus",
                "org.freedesktop.DBus.NameHasOwner", {std::string("string:") + kPlayer})
               .find("boolean true") != std::string::npos;
  }));
  // The album is the book's title, which the CLI's catalogue fetched from the service.
  ASSERT_TRUE(eventually([&] {
    return property("Metadata").find("The Long Listening") != std::string::npos;
  })) << property("Metadata");
  const std::string metadata = property("Metadata");
  EXPECT_NE(metadata.find("xesam:album"), std::string::npos) << metadata;
  EXPECT_NE(metadata.find("Part 1, Chapter 8"), std::string::npos) << metadata;
  EXPECT_NE(metadata.find("int64 13"), std::string::npos) << metadata;  // mpris:length, µs
  EXPECT_NE(property("PlaybackStatus").find("\"Playing\""), std::string::npos);

  // The play/pause key.
  const std::size_t before = play->output().size();
  player("PlayPause");
  ASSERT_TRUE(play->waitForText("paused")) << play->outputSince(before);
  EXPECT_TRUE(eventually(
      [&] { return property("PlaybackStatus").find("\"Paused\"") != std::string::npos; }));

  // The next key: the next chapter, from its start.
  player("Next");
  ASSERT_TRUE(play->waitForText("part 1 ch 9")) << play->outputSince(before);
  EXPECT_TRUE(eventually(
      [&] { return property("Metadata").find("Part 1, Chapter 9") != std::string::npos; }));

  play->type("q");
  EXPECT_EQ(play->wait(), 0) << play->output();
  // The player left the bus with the command.
  EXPECT_NE(call("org.freedesktop.DBus", "/org/freedesktop/DBus",
                 "org.freedesktop.DBus.NameHasOwner", {std::string("string:") + kPlayer})
                .find("boolean false"),
            std::string::npos);
}

TEST_F(Mpris, WithoutASessionBusPlayStillPlays) {
  auto env = environment();
  env["DBUS_SESSION_BUS_ADDRESS"] = "";
  env["XDG_RUNTIME_DIR"] = library_.path().string();  // no bus socket there
  const auto result = runCommand(SONORELL_CLI,
                                 {"--library", library_.path().string(), "play", "1001", "--part",
                                  "0", "--chapter", "1", "--until-end", "--json"},
                                 env);
  EXPECT_EQ(result.exitCode, 0) << result.err << result.out;
  EXPECT_NE(result.out.find("QSOAudiobookPlaybackComplete"), std::string::npos) << result.out;
}

}  // namespace
}  // namespace sonorell::cli::testing
