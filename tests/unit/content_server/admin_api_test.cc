// The admin endpoints as a test in another process uses them: the real server binary started
// with --admin, driven over HTTPS with libcurl: fault plans put and cleared, the recorded
// requests and analytics batches read back, the catalogue checked against the bytes served.
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>

#include "catalogue.h"
#include "data_dir.h"
#include "mp3_decode.h"
#include "server_process.h"
#include "sha256.h"

namespace sonorell::content::testing {
namespace {

using nlohmann::json;

class AdminServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // The machine's shared data directory, as the in-process server tests use: already rendered.
    server_ =
        std::make_unique<ServerProcess>(defaultDataDir(), std::vector<std::string>{"--admin"});
    ASSERT_TRUE(server_->ready().is_object()) << server_->stderrText();
    const HttpResult r = server_->get("/_admin/catalogue");
    ASSERT_EQ(r.status, 200) << r.error;
    catalogue_ = json::parse(r.body);
  }
  void TearDown() override {
    if (server_) {
      EXPECT_EQ(server_->terminate(), "exit 0") << server_->stderrText();
    }
  }

  const json& bookEntry(std::string_view id) const {
    for (const json& b : catalogue_.at("books")) {
      if (b.at("id") == id) return b;
    }
    static const json kNone;
    ADD_FAILURE() << "no book " << id << " in the catalogue";
    return kNone;
  }
  std::string chapterPath(std::string_view id, std::size_t index) const {
    return bookEntry(id).at("chapters").at(index).at("path").get<std::string>();
  }
  json putPlan(const json& plan) const {
    const HttpResult r = server_->put("/_admin/faults", plan.dump());
    EXPECT_EQ(r.status, 200) << r.body;
    return json::parse(r.body, nullptr, false);
  }
  long statusOf(const std::string& path) const { return server_->get(path).status; }
  json recorded() const {
    const HttpResult r = server_->get("/_admin/requests");
    EXPECT_EQ(r.status, 200);
    return json::parse(r.body, nullptr, false).value("requests", json::array());
  }

  std::unique_ptr<ServerProcess> server_;
  json catalogue_;
};

TEST_F(AdminServerTest, AFaultPlanPutFromOutsideFailsOneChapterUntilItIsCleared) {
  const std::string first = chapterPath(kDemoBookID, 0);
  const std::string second = chapterPath(kDemoBookID, 1);
  const json answer = putPlan({{"rules",
                                {{{"route", "audio"},
                                  {"path", first},
                                  {"count", nullptr},
                                  {"fault", {{"status", 404}}}}}}});
  ASSERT_TRUE(answer.at("ids").is_array());
  ASSERT_EQ(answer.at("ids").size(), 1u);
  EXPECT_TRUE(answer.at("ids")[0].is_number_unsigned());

  // A null count hits every request for that path and no other.
  EXPECT_EQ(statusOf(first), 404);
  EXPECT_EQ(statusOf(first), 404);
  EXPECT_EQ(statusOf(first), 404);
  EXPECT_EQ(statusOf(second), 200);

  // A second plan replaces the first whole, with rules of new ids.
  const json replaced = putPlan(
      {{"rules",
        {{{"route", "audio"}, {"path", second}, {"count", nullptr}, {"fault", {{"status", 500}}}},
         {{"route", "metadata"}, {"fault", {{"status", 503}}}}}}});
  ASSERT_EQ(replaced.at("ids").size(), 2u);
  EXPECT_NE(replaced.at("ids")[0], answer.at("ids")[0]);
  EXPECT_NE(replaced.at("ids")[0], replaced.at("ids")[1]);
  EXPECT_EQ(statusOf(first), 200);
  EXPECT_EQ(statusOf(second), 500);

  const HttpResult cleared = server_->del("/_admin/faults");
  EXPECT_EQ(cleared.status, 200);
  EXPECT_EQ(statusOf("/v4/audiobooks/" + std::string(kDemoBookID)), 200);
  const HttpResult healed = server_->get(second);
  ASSERT_EQ(healed.status, 200);
  EXPECT_EQ(sha256Hex(healed.body), bookEntry(kDemoBookID).at("chapters")[1].at("sha256"));
}

TEST_F(AdminServerTest, MalformedFaultPlansAreRefusedAndLeaveThePlanInForce) {
  const std::string first = chapterPath(kDemoBookID, 0);
  const std::string second = chapterPath(kDemoBookID, 1);
  putPlan({{"rules",
            {{{"route", "audio"},
              {"path", first},
              {"count", nullptr},
              {"fault", {{"status", 404}}}}}}});

  const json wrongSecondRule = {
      {"rules",
       {{{"route", "audio"}, {"path", second}, {"count", nullptr}, {"fault", {{"status", 500}}}},
        {{"route", "video"}, {"fault", json::object()}}}}};
  const std::vector<std::string> malformed = {
      R"({"rules": [{"route": "audio", "fault": {)",                    // not JSON
      R"([{"route": "audio", "fault": {}}])",                           // not an object
      R"({"rules": {"route": "audio", "fault": {}}})",                  // rules not a list
      R"({"rules": [{"route": "video", "fault": {}}]})",                // unknown route
      R"({"rules": [{"route": 3, "fault": {}}]})",                      // route not a string
      R"({"rules": [{"route": "audio", "count": "2", "fault": {}}]})",  // count a string
      R"({"rules": [{"route": "audio", "skip": -1, "fault": {}}]})",    // negative skip
      R"({"rules": [{"route": "audio", "fault": {"status": "404"}}]})",
      R"({"rules": [{"route": "audio", "fault": {"dropConnection": 1}}]})",
      R"({"rules": [{"route": "audio", "fault": {"delay": 50}}]})",  // no such knob
      R"({"rules": [{"route": "audio"}]})",                          // no fault
      wrongSecondRule.dump(),  // a good rule before a bad one is not taken either
  };
  for (const std::string& body : malformed) {
    const HttpResult r = server_->put("/_admin/faults", body);
    EXPECT_EQ(r.status, 400) << body;
    const json error = json::parse(r.body, nullptr, false);
    ASSERT_TRUE(error.is_object()) << r.body;
    EXPECT_TRUE(error.at("error").is_string()) << r.body;
    EXPECT_FALSE(error.at("error").get<std::string>().empty()) << body;
    EXPECT_EQ(statusOf(first), 404) << "after " << body;
    EXPECT_EQ(statusOf(second), 200) << "after " << body;
  }
}

TEST_F(AdminServerTest, SkipCountAndEachKnobReachTheRouteTheyName) {
  const std::string chapter = chapterPath(kThreeChapterBookID, 0);
  // Without a count a rule hits one request: here the second.
  putPlan({{"rules",
            {{{"route", "audio"}, {"path", chapter}, {"skip", 1}, {"fault", {{"status", 503}}}},
             {{"route", "metadata"},
              {"count", 2},
              {"fault", {{"status", 418}, {"body", "teapot"}, {"contentType", "text/plain"}}}},
             {{"route", "blob"}, {"fault", {{"status", 507}}}},
             {{"route", "playlist"}, {"fault", {{"delayMs", 300}, {"status", 502}}}}}}});
  EXPECT_EQ(statusOf(chapter), 200);
  EXPECT_EQ(statusOf(chapter), 503);
  EXPECT_EQ(statusOf(chapter), 200);
  EXPECT_EQ(statusOf(chapter), 200);

  const std::string metadata = "/v4/audiobooks/" + std::string(kThreeChapterBookID);
  for (int i = 0; i < 2; ++i) {
    const HttpResult r = server_->get(metadata);
    EXPECT_EQ(r.status, 418);
    EXPECT_EQ(r.body, "teapot");
    EXPECT_EQ(r.header("Content-Type").value_or(""), "text/plain");
  }
  EXPECT_EQ(statusOf(metadata), 200);

  EXPECT_EQ(statusOf("/blob/1000"), 507);
  EXPECT_EQ(statusOf("/blob/1000"), 200);

  const auto start = std::chrono::steady_clock::now();
  const HttpResult playlist =
      server_->request("POST", metadata + "/playlists", R"({"license_id": "L-1"})",
                       {"Content-Type: application/json", "Session-Key: s"});
  EXPECT_EQ(playlist.status, 502);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
}

TEST_F(AdminServerTest, RequestsAreListedWithTheirAnswersUntilForgotten) {
  ASSERT_EQ(server_->del("/_admin/requests").status, 200);
  const json& chapter = bookEntry(kFourChapterBookID).at("chapters")[1];
  const std::string path = chapter.at("path");
  const std::string metadata = "/v4/audiobooks/" + std::string(kDemoBookID);

  const HttpResult whole = server_->get(path, {"X-Probe: first"});
  ASSERT_EQ(whole.status, 200);
  const HttpResult range = server_->get(path, {"Range: bytes=100-399"});
  ASSERT_EQ(range.status, 206);
  const HttpResult missing = server_->get("/v4/audiobooks/no-such-book");
  ASSERT_EQ(missing.status, 404);
  // The body stops short after 1000 bytes; then the connection goes without any response.
  putPlan({{"rules",
            {{{"route", "audio"}, {"path", path}, {"fault", {{"cutAfterBytes", 1000}}}},
             {{"route", "metadata"}, {"fault", {{"dropConnection", true}}}}}}});
  const HttpResult cut = server_->get(path);
  EXPECT_NE(cut.code, CURLE_OK);
  const HttpResult dropped = server_->get(metadata);
  EXPECT_EQ(dropped.status, 0);

  const json requests = recorded();
  ASSERT_EQ(requests.size(), 5u) << requests.dump(2);  // none of the /_admin/ calls
  struct Expected {
    std::string path;
    int status;
    std::uint64_t bytesSent;
  };
  const std::vector<Expected> expected = {
      {path, 200, chapter.at("size").get<std::uint64_t>()},
      {path, 206, 300},
      {"/v4/audiobooks/no-such-book", 404, missing.body.size()},
      {path, 200, 1000},
      {metadata, 0, 0},
  };
  for (std::size_t i = 0; i < expected.size(); ++i) {
    const json& r = requests[i];
    EXPECT_EQ(r.at("method"), "GET") << i;
    EXPECT_EQ(r.at("path"), expected[i].path) << i;
    EXPECT_EQ(r.at("status"), expected[i].status) << i;
    EXPECT_EQ(r.at("bytesSent"), expected[i].bytesSent) << i;
    EXPECT_TRUE(r.at("headers").is_object()) << i;
  }
  EXPECT_EQ(requests[0].at("headers").value("X-Probe", ""), "first");
  EXPECT_EQ(requests[1].at("headers").value("Range", ""), "bytes=100-399");
  EXPECT_FALSE(requests[2].at("headers").contains("X-Probe"));

  ASSERT_EQ(server_->del("/_admin/requests").status, 200);
  EXPECT_TRUE(recorded().empty());
}

TEST_F(AdminServerTest, AnalyticsBatchesComeBackAsTheyWerePosted) {
  const json batch = {{"events", {{{"type", "listen"}, {"position", 12}}}},
                      {"udid", "device-1"},
                      {"system", {{"os", "linux"}}},
                      {"sonorell", {{"version", "1"}}}};
  const HttpResult accepted =
      server_->request("POST", "/v4/analytics", batch.dump(), {"Content-Type: application/json"});
  EXPECT_EQ(accepted.status, 204);
  const HttpResult refused = server_->request("POST", "/v4/analytics", "not json at all");
  EXPECT_EQ(refused.status, 400);
  EXPECT_EQ(statusOf("/v4/audiobooks/" + std::string(kDemoBookID)), 200);

  const HttpResult r = server_->get("/_admin/analytics");
  ASSERT_EQ(r.status, 200);
  EXPECT_EQ(json::parse(r.body), (json{{"batches", {batch, "not json at all"}}}));
}

TEST_F(AdminServerTest, CatalogueStatesTheBytesEachChapterServes) {
  std::set<std::string> ids;
  for (const json& b : catalogue_.at("books")) {
    ids.insert(b.at("id").get<std::string>());
    EXPECT_FALSE(b.at("title").get<std::string>().empty());
    EXPECT_FALSE(b.at("chapters").empty());
  }
  EXPECT_EQ(ids, (std::set<std::string>{
                     std::string(kThreeChapterBookID), std::string(kFourChapterBookID),
                     std::string(kTwoPartBookID), std::string(kLargeBookID),
                     std::string(kTenMegabyteChapterBookID), std::string(kDemoBookID)}));

  const json& two = bookEntry(kTwoPartBookID).at("chapters")[2];
  EXPECT_EQ(two.at("part"), 2);
  EXPECT_EQ(two.at("chapter"), 1);
  EXPECT_EQ(two.at("path"), "/audio/" + std::string(kTwoPartBookID) + "/2/1.mp3");

  const json& demo = bookEntry(kDemoBookID);
  ASSERT_EQ(demo.at("chapters").size(), 3u);
  const HttpResult metadata = server_->get("/v4/audiobooks/" + std::string(kDemoBookID));
  ASSERT_EQ(metadata.status, 200);
  const json durations = json::parse(metadata.body).at("audiobook").at("chapters");
  const auto dir = std::filesystem::path(::testing::TempDir()) /
                   ("sonorell-admin-demo-" + std::to_string(::getpid()));
  std::filesystem::create_directories(dir);
  std::set<std::string> digests;
  for (std::size_t i = 0; i < 3; ++i) {
    const json& c = demo.at("chapters")[i];
    EXPECT_EQ(c.at("part"), 0);
    EXPECT_EQ(c.at("chapter"), i + 1);
    const HttpResult audio = server_->get(c.at("path").get<std::string>());
    ASSERT_EQ(audio.status, 200) << c.dump();
    EXPECT_EQ(audio.body.size(), c.at("size").get<std::uint64_t>());
    EXPECT_EQ(sha256Hex(audio.body), c.at("sha256"));
    digests.insert(c.at("sha256").get<std::string>());

    // Read at a listening pace, each passage lasts between 15 and 30 seconds.
    const auto file = dir / "chapter.mp3";
    std::ofstream(file, std::ios::binary) << audio.body;
    const std::int64_t ms = decodedMs(file);
    EXPECT_GE(ms, 15'000) << c.dump();
    EXPECT_LE(ms, 30'000) << c.dump();
    const auto stated = durations.at(i).at("duration").get<std::int64_t>();
    EXPECT_LE(std::llabs(ms - stated), 27) << "one frame at most from the stated " << stated;
  }
  EXPECT_EQ(digests.size(), 3u) << "each chapter reads its own passage";
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace sonorell::content::testing
