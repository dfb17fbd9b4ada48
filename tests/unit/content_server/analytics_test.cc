// The analytics endpoint: takes the poster's request, answers 204 and keeps it for inspection.
#include <nlohmann/json.hpp>

#include "server_fixture.h"

namespace sonorell::content::testing {
namespace {

using nlohmann::json;

const char* const kPosterBody = R"({
  "events": [{"background_state": "Foreground", "chapter_number": 2, "end_position": 31,
              "part_number": 0, "path_to_ear": "Speaker", "speed_control": 1.0,
              "start_position": 0, "timestamp": "2024-03-01T17:05:09+0000",
              "screen_state": "ON", "playlist_token": "plt-1001-1"}],
  "udid": "9A1B2C3D-0000-4000-8000-000000000000",
  "system": {"name": "iOS", "device": "x86_64", "os_version": "6.1"},
  "sonorell": {"sdk_version": "6.5.8", "api_version": "v4"}})";

class AnalyticsTest : public ServerTest {
 protected:
  HttpResult post(std::string body) {
    HttpRequest r = request("/v4/analytics", "POST");
    r.headers = {"X-Request-Id: 0F0E0D0C-0000-4000-8000-000000000002",
                 "Content-Type: application/json", "Session-Key: session-9"};
    r.body = std::move(body);
    return fetch(r);
  }
};

TEST_F(AnalyticsTest, PosterRequestIsAnswered204AndKeptWithItsHeaders) {
  const HttpResult r = post(kPosterBody);
  ASSERT_EQ(r.code, CURLE_OK) << r.error;
  EXPECT_EQ(r.status, 204);
  EXPECT_TRUE(r.body.empty());

  const auto posts = server_.requests(Route::kAnalytics);
  ASSERT_EQ(posts.size(), 1u);
  EXPECT_EQ(posts[0].method, "POST");
  EXPECT_EQ(posts[0].path, "/v4/analytics");
  EXPECT_EQ(posts[0].header("Session-Key"), "session-9");
  EXPECT_EQ(posts[0].header("Content-Type"), "application/json");
  EXPECT_EQ(posts[0].header("X-Request-Id"), "0F0E0D0C-0000-4000-8000-000000000002");
  EXPECT_EQ(json::parse(posts[0].body), json::parse(kPosterBody));
}

TEST_F(AnalyticsTest, IncompleteBodiesAre400WithTheMissingFieldsNamed) {
  json noUdid = json::parse(kPosterBody);
  noUdid.erase("udid");
  const HttpResult r = post(noUdid.dump());
  EXPECT_EQ(r.status, 400);
  const json doc = json::parse(r.body);
  ASSERT_EQ(doc.at("errors").size(), 1u);
  EXPECT_EQ(doc.at("errors")[0].at("field"), "udid");

  EXPECT_EQ(post("{not json").status, 400);
  json eventsNotArray = json::parse(kPosterBody);
  eventsNotArray["events"] = "none";
  EXPECT_EQ(post(eventsNotArray.dump()).status, 400);
  // Rejected posts are kept too: a test may want to see what a client sent.
  EXPECT_EQ(server_.requestCount(Route::kAnalytics), 3u);
}

TEST_F(AnalyticsTest, InjectedStatusReplacesThe204) {
  server_.faults().add(Route::kAnalytics, Fault::statusCode(200), Trigger::nth(1));
  EXPECT_EQ(post(kPosterBody).status, 200);
  EXPECT_EQ(post(kPosterBody).status, 204);
}

}  // namespace
}  // namespace sonorell::content::testing
