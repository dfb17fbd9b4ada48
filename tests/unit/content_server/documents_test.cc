// The JSON endpoints: metadata and playlist documents (what the engine's decoders read is there,
// typed as they expect) and the analytics endpoint, which answers 204 and keeps what it got.
#include <ctime>
#include <nlohmann/json.hpp>
#include <regex>

#include "server_fixture.h"
#include "sha256.h"

namespace sonorell::content::testing {
namespace {

using nlohmann::json;

class DocumentsTest : public ServerTest {
 protected:
  HttpResult postPlaylist(std::string_view id, std::vector<std::string> headers, std::string body) {
    headers.push_back("Content-Type: application/json");
    return post("/v4/audiobooks/" + std::string(id) + "/playlists", std::move(headers),
                std::move(body));
  }
  HttpResult validPlaylist(std::string_view id) {
    return postPlaylist(
        id, {"X-Request-Id: 5E1B7C1A-0000-4000-8000-000000000001", "Session-Key: session-1"},
        R"({"license_id": "license-1"})");
  }
  // A playlist's expiry, or 0 when it is not of the form 2024-03-01T17:05:09+0000.
  static std::time_t expiry(const json& playlist) {
    const std::string expires = playlist.at("expires").get<std::string>();
    std::tm tm{};
    if (!std::regex_match(expires, std::regex(R"(\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}\+0000)")) ||
        !strptime(expires.c_str(), "%Y-%m-%dT%H:%M:%S", &tm)) {
      ADD_FAILURE() << "expires: " << expires;
      return 0;
    }
    return timegm(&tm);
  }
  // The field an error document names first, after checking the shape every one of them has.
  static std::string errorField(const HttpResult& r) {
    const json doc = json::parse(r.body);
    EXPECT_TRUE(doc.at("message").is_string());
    EXPECT_TRUE(doc.at("code").is_string());
    EXPECT_TRUE(doc.at("error_number").is_number_unsigned());
    EXPECT_TRUE(doc.at("errors")[0].contains("code"));
    return doc.at("errors")[0].at("field").get<std::string>();
  }
};

TEST_F(DocumentsTest, MetadataOfEveryBookCarriesEveryFieldWithItsType) {
  for (const Book& b : server_.catalogue().books()) {
    const HttpResult r = get("/v4/audiobooks/" + b.id);
    ASSERT_EQ(r.code, CURLE_OK) << r.error;
    ASSERT_EQ(r.status, 200);
    const json doc = json::parse(r.body).at("audiobook");
    for (const char* key :
         {"id", "abridgement", "description", "copyright", "cover_url", "grade_level",
          "isbn_library", "isbn_retail", "language", "metadata_sig", "modified_date", "publisher",
          "runtime", "sample_url", "street_date", "sub_title", "title"}) {
      EXPECT_TRUE(doc.at(key).is_string()) << key;
    }
    for (const char* key : {"authors", "awards", "bisac_codes", "narrators", "series"}) {
      ASSERT_TRUE(doc.at(key).is_array()) << key;
      EXPECT_FALSE(doc.at(key).empty()) << key;
      EXPECT_TRUE(doc.at(key)[0].is_string()) << key;
    }
    EXPECT_EQ(doc.at("id"), b.id);
    EXPECT_EQ(doc.at("chapterized"), true);
    EXPECT_EQ(doc.at("actual_size").get<std::uint64_t>(), b.actualSize());
    EXPECT_TRUE(std::regex_match(doc.at("modified_date").get<std::string>(),
                                 std::regex(R"(\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2})")));
    EXPECT_TRUE(std::regex_match(doc.at("street_date").get<std::string>(),
                                 std::regex(R"(\d{4}-\d{2}-\d{2})")));
    const json& chapters = doc.at("chapters");
    ASSERT_EQ(chapters.size(), b.chapters.size());
    std::uint64_t sizes = 0;
    for (std::size_t i = 0; i < chapters.size(); ++i) {
      EXPECT_EQ(chapters[i].at("part_number").get<std::uint64_t>(), b.chapters[i].part);
      EXPECT_EQ(chapters[i].at("chapter_number").get<std::uint64_t>(), b.chapters[i].chapter);
      EXPECT_EQ(chapters[i].at("duration").get<std::uint64_t>(), b.chapters[i].durationMs);
      sizes += b.chapters[i].size;
    }
    EXPECT_EQ(sizes, b.actualSize());
  }
  // Short books of a few seconds a chapter, and one of at least fifty chapters.
  for (const std::string& id : server_.catalogue().shortBookIDs()) {
    EXPECT_GE(book(id).chapters.size(), 3u);
    for (const Chapter& c : book(id).chapters) {
      EXPECT_GE(c.durationMs, 2000u);
      EXPECT_LE(c.durationMs, 6100u);
    }
  }
  EXPECT_GE(book(kLargeBookID).chapters.size(), 50u);
}

TEST_F(DocumentsTest, EachPlaylistHasItsOwnTokenAnExpiryAndAFetchableURLPerChapter) {
  const auto before = std::time(nullptr);
  const HttpResult r = validPlaylist(kThreeChapterBookID);
  ASSERT_EQ(r.status, 200) << r.body;
  const json doc = json::parse(r.body);
  EXPECT_FALSE(doc.at("playlist_token").get<std::string>().empty());
  EXPECT_GE(expiry(doc), before + 3600 - 5);
  EXPECT_LE(expiry(doc), before + 3600 + 60);
  const Book& b = book(kThreeChapterBookID);
  const json& items = doc.at("playlist");
  ASSERT_EQ(items.size(), b.chapters.size());
  for (std::size_t i = 0; i < items.size(); ++i) {
    EXPECT_EQ(items[i].at("part_number").get<std::uint64_t>(), b.chapters[i].part);
    EXPECT_EQ(items[i].at("chapter_number").get<std::uint64_t>(), b.chapters[i].chapter);
    const std::string url = items[i].at("url");
    EXPECT_EQ(url, server_.audioURL(b.id, b.chapters[i].part, b.chapters[i].chapter));
    HttpRequest audio = request("");
    audio.url = url;
    const HttpResult a = fetch(audio);
    ASSERT_EQ(a.status, 200);
    EXPECT_EQ(sha256Hex(a.body), b.chapters[i].sha256);
  }

  const json second = json::parse(validPlaylist(kTwoPartBookID).body);
  EXPECT_NE(second.at("playlist_token"), doc.at("playlist_token"));
  EXPECT_EQ(second.at("playlist")[2].at("part_number"), 2);
  const auto recorded = server_.requests(Route::kPlaylist);
  ASSERT_EQ(recorded.size(), 2u);
  EXPECT_EQ(recorded[1].method, "POST");
  EXPECT_EQ(recorded[1].path, "/v4/audiobooks/1003/playlists");
  EXPECT_EQ(recorded[1].header("session-key"), "session-1");
  EXPECT_EQ(recorded[1].header("X-Request-Id"), "5E1B7C1A-0000-4000-8000-000000000001");
  EXPECT_EQ(json::parse(recorded[1].body).at("license_id"), "license-1");

  // A negative lifetime gives playlists that have already expired.
  server_.setPlaylistLifetime(std::chrono::hours(-2));
  EXPECT_LT(expiry(json::parse(validPlaylist(kThreeChapterBookID).body)),
            std::time(nullptr) - 3600);
}

TEST_F(DocumentsTest, RequestsItCannotAnswerGetErrorDocumentsNamingTheField) {
  const HttpResult unknown = get("/v4/audiobooks/999999");
  EXPECT_EQ(unknown.status, 404);
  EXPECT_FALSE(errorField(unknown).empty());
  EXPECT_EQ(postPlaylist("999999", {"Session-Key: s"}, R"({"license_id": "l"})").status, 404);

  struct Case {
    std::vector<std::string> headers;
    std::string body;
    long status;
    std::string field;
  };
  const std::vector<Case> cases = {
      {{}, R"({"license_id": "l"})", 401, "Session-Key"},
      {{"Session-Key: "}, R"({"license_id": "l"})", 401, "Session-Key"},
      {{"Session-Key: s"}, R"({"other": 1})", 400, "license_id"},
      {{"Session-Key: s"}, R"({"license_id": ""})", 400, "license_id"},
      {{"Session-Key: s"}, R"({"license_id": 12})", 400, "license_id"},
      {{"Session-Key: s"}, "not json", 400, "license_id"},
  };
  for (const Case& c : cases) {
    const HttpResult r = postPlaylist(kThreeChapterBookID, c.headers, c.body);
    EXPECT_EQ(r.status, c.status) << c.body;
    EXPECT_EQ(errorField(r), c.field) << c.body;
  }
}

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
    return ServerTest::post("/v4/analytics",
                            {"X-Request-Id: 0F0E0D0C-0000-4000-8000-000000000002",
                             "Content-Type: application/json", "Session-Key: session-9"},
                            std::move(body));
  }
};

TEST_F(AnalyticsTest, PosterRequestIsAnswered204AndKeptWithItsHeadersUnlessAStatusIsInjected) {
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

  server_.faults().add(Route::kAnalytics, Fault::statusCode(200));
  EXPECT_EQ(post(kPosterBody).status, 200);
  EXPECT_EQ(post(kPosterBody).status, 204);
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

}  // namespace
}  // namespace sonorell::content::testing
