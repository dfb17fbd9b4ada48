// Wi-Fi-only downloads and streaming on a metered link: in a network namespace of the test's own
// (skipped, saying why, where none can be made), the server and the CLI talk over loopback while
// the default route goes through an interface named like a cellular modem (wwan0, one end of a
// veth pair). The engine hears of route changes from the kernel (netlink), so the test changes
// the route while a Wi-Fi-only download waits and then waits for the download to end.
#include <gtest/gtest.h>

#include <iostream>

#include "isolation.h"
#include "world.h"

namespace sonorell::e2e {
namespace {

namespace fs = std::filesystem;
using content::testing::after;
using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr const char* kParked = "1001";    // downloaded Wi-Fi only: waits for the Wi-Fi link
constexpr const char* kAnyLink = "1003";   // downloaded without the restriction meanwhile
constexpr const char* kStreamed = "1002";  // never downloaded: played Wi-Fi only

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const auto& word : words) text += (text.empty() ? "" : " ") + word;
  return text;
}

// A link of its own with an address, and (when `defaultRoute`) the default route through it.
bool addLink(const std::string& name, const std::string& subnet, std::string& why) {
  const std::vector<std::vector<std::string>> commands{
      {"link", "add", name, "type", "veth", "peer", "name", name + "-peer"},
      {"address", "add", subnet + ".1/24", "dev", name},
      {"link", "set", name, "up"},
      {"link", "set", name + "-peer", "up"},
  };
  for (const auto& command : commands) {
    std::string output;
    if (!ip(command, output)) {
      why = "ip " + joined(command) + ": " + output;
      return false;
    }
  }
  return true;
}

bool routeDefaultThrough(const std::string& name, const std::string& subnet, std::string& why) {
  const std::vector<std::string> command{"route",       "replace", "default", "via",
                                         subnet + ".2", "dev",     name};
  std::string output;
  if (ip(command, output)) return true;
  why = "ip " + joined(command) + ": " + output;
  return false;
}

std::size_t audioRequestsFor(const World& world, const std::string& book) {
  std::size_t count = 0;
  for (const auto& request : world.requests()) {
    count += request.value("path", "").starts_with("/audio/" + book + "/");
  }
  return count;
}

class MeteredNetwork : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string why;
    namespace_ = NetworkNamespace::enter(why);
    if (!namespace_) GTEST_SKIP() << "no network namespace: " << why;
    std::string output;
    if (!ip({"link", "set", "lo", "up"}, output)) GTEST_SKIP() << "ip link set lo up: " << output;
    if (!addLink("wwan0", "10.200.0", why) || !routeDefaultThrough("wwan0", "10.200.0", why)) {
      GTEST_SKIP() << "no cellular-like link: " << why;
    }
    world_ = std::make_unique<World>();  // the server listens inside the namespace
    ASSERT_TRUE(world_->ready(why)) << why;
  }
  void TearDown() override {
    world_.reset();
    namespace_.reset();
  }

  std::unique_ptr<NetworkNamespace> namespace_;
  std::unique_ptr<World> world_;
};

TEST_F(MeteredNetwork, WiFiOnlyWaitsOnACellularRouteUntilItChangesAndStreamingIsRefusedWith21001) {
  // Streaming a chapter that is not on disk is refused outright.
  const auto play = world_->sonorell(
      {"--json", "play", kStreamed, "--part", "0", "--chapter", "1", "--wifi-only", "--until-end"});
  EXPECT_EQ(play.exitCode, 1) << play.out << play.err;
  EXPECT_NE(play.err.find("error 21001"), std::string::npos) << play.err;
  const auto played = play.jsonLines();
  ASSERT_FALSE(played.empty());
  EXPECT_EQ(played.back().value("error", json::object()).value("code", 0), 21001)
      << played.back().dump();
  EXPECT_EQ(audioRequestsFor(*world_, kStreamed), 0u);

  // The link itself works: a download that may use cellular goes through.
  const auto anyLink = world_->sonorell({"download", kAnyLink});
  EXPECT_EQ(anyLink.exitCode, 0) << anyLink.out << anyLink.err;

  ASSERT_TRUE(world_->clearRequests());
  const fs::path stderrFile = content::testing::stderrFileFor("wifi-only-download");
  auto download = world_->startSonorell({"--json", "download", kParked, "--wifi-only"}, stderrFile);
  // Every chapter staged: the transfers exist and are held back.
  const json book = world_->catalogueBook(kParked);
  ASSERT_TRUE(book.is_object());
  std::size_t staged = 0;
  std::string seen;
  while (staged < book.at("chapters").size()) {
    const auto line = download->readLine(after(seconds(60)));
    ASSERT_TRUE(line) << "the download ended or stalled before staging its chapters:\n"
                      << seen << content::testing::readWholeFile(stderrFile);
    seen += *line + "\n";
    const json event = json::parse(*line, nullptr, false);
    staged += event.is_object() && event.value("event", "") == "QSOChapterDownloadStaged";
  }
  // A while on the cellular link: still waiting, and not one chapter byte asked for.
  const auto watchedUntil = std::chrono::steady_clock::now() + milliseconds(1500);
  while (std::chrono::steady_clock::now() < watchedUntil) {
    ASSERT_EQ(audioRequestsFor(*world_, kParked), 0u) << "a Wi-Fi-only transfer used cellular";
    ASSERT_FALSE(download->wait(after(milliseconds(100))))
        << "the download ended on the cellular link:\n"
        << seen << download->readRest(after(seconds(1)));
  }

  std::string why;
  ASSERT_TRUE(addLink("wlan0", "10.201.0", why)) << why;
  ASSERT_TRUE(routeDefaultThrough("wlan0", "10.201.0", why)) << why;

  const std::string rest = download->readRest(after(seconds(60)));
  EXPECT_EQ(download->wait(after(seconds(10))).value_or("still running"), "exit 0")
      << seen << rest << content::testing::readWholeFile(stderrFile);
  EXPECT_NE(rest.find("QSODownloadRequestSuccess"), std::string::npos) << rest;
  EXPECT_GE(audioRequestsFor(*world_, kParked), book.at("chapters").size());

  const json status = world_->status(kParked);
  ASSERT_TRUE(status.is_object());
  EXPECT_EQ(status.at("status"), 3) << status.dump(1);
  const auto& chapters = book.at("chapters");
  ASSERT_EQ(status.at("chapters").size(), chapters.size());
  for (std::size_t i = 0; i < chapters.size(); ++i) {
    EXPECT_EQ(sha256OfFile(status.at("chapters")[i].at("file").get<std::string>()),
              chapters[i].at("sha256"))
        << "chapter " << chapters[i].at("chapter");
  }

  // On Wi-Fi the same Wi-Fi-only play streams. (With the engine's log, which a failure shows:
  // once in CI this play stopped after loading the second chapter.)
  const auto streamed = world_->sonorell(
      {"-v", "play", kStreamed, "--part", "0", "--chapter", "1", "--wifi-only", "--until-end"});
  EXPECT_EQ(streamed.exitCode, 0) << streamed.out << streamed.err;
  EXPECT_GT(audioRequestsFor(*world_, kStreamed), 0u);
}

}  // namespace
}  // namespace sonorell::e2e
