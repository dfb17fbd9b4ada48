// Metadata and playlist documents: what the engine's decoders read is there, typed as they expect.
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
    HttpRequest r = request("/v4/audiobooks/" + std::string(id) + "/playlists", "POST");
    r.headers = std::move(headers);
    r.headers.push_back("Content-Type: application/json");
    r.body = std::move(body);
    return fetch(r);
  }
  HttpResult validPlaylist(std::string_view id) {
    return postPlaylist(
        id, {"X-Request-Id: 5E1B7C1A-0000-4000-8000-000000000001", "Session-Key: session-1"},
        R"({"license_id": "license-1"})");
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
}

TEST_F(DocumentsTest, CatalogueHasShortBooksAndOneOfAtLeastFiftyChapters) {
  for (const std::string& id : server_.catalogue().shortBookIDs()) {
    const Book& b = book(id);
    EXPECT_GE(b.chapters.size(), 3u);
    for (const Chapter& c : b.chapters) {
      EXPECT_GE(c.durationMs, 2000u);
      EXPECT_LE(c.durationMs, 6100u);
    }
  }
  EXPECT_GE(book(kLargeBookID).chapters.size(), 50u);
  const json doc = json::parse(get("/v4/audiobooks/" + std::string(kLargeBookID)).body);
  EXPECT_GE(doc.at("audiobook").at("chapters").size(), 50u);
}

TEST_F(DocumentsTest, UnknownBookIs404WithAnErrorDocument) {
  const HttpResult r = get("/v4/audiobooks/999999");
  EXPECT_EQ(r.status, 404);
  const json doc = json::parse(r.body);
  EXPECT_TRUE(doc.at("message").is_string());
  EXPECT_TRUE(doc.at("code").is_string());
  EXPECT_TRUE(doc.at("error_number").is_number_unsigned());
  ASSERT_TRUE(doc.at("errors").is_array());
  EXPECT_TRUE(doc.at("errors")[0].contains("field"));
  EXPECT_TRUE(doc.at("errors")[0].contains("code"));
}

TEST_F(DocumentsTest, PlaylistHasTokenExpiryAndAFetchableURLPerChapter) {
  const auto before = std::time(nullptr);
  const HttpResult r = validPlaylist(kThreeChapterBookID);
  ASSERT_EQ(r.status, 200) << r.body;
  const json doc = json::parse(r.body);
  EXPECT_FALSE(doc.at("playlist_token").get<std::string>().empty());
  const std::string expires = doc.at("expires").get<std::string>();
  ASSERT_TRUE(std::regex_match(expires, std::regex(R"(\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}\+0000)")))
      << expires;
  std::tm tm{};
  ASSERT_NE(strptime(expires.c_str(), "%Y-%m-%dT%H:%M:%S", &tm), nullptr);
  const auto expiry = timegm(&tm);
  EXPECT_GE(expiry, before + 3600 - 5);
  EXPECT_LE(expiry, before + 3600 + 60);

  const Book& b = book(kThreeChapterBookID);
  const json& items = doc.at("playlist");
  ASSERT_EQ(items.size(), b.chapters.size());
  for (std::size_t i = 0; i < items.size(); ++i) {
    EXPECT_EQ(items[i].at("part_number").get<std::uint64_t>(), b.chapters[i].part);
    EXPECT_EQ(items[i].at("chapter_number").get<std::uint64_t>(), b.chapters[i].chapter);
    const std::string url = items[i].at("url");
    EXPECT_EQ(url, server_.audioURL(b.id, b.chapters[i].part, b.chapters[i].chapter));
    HttpRequest audio;
    audio.url = url;
    audio.caFile = server_.caCertificatePath();
    const HttpResult a = fetch(audio);
    ASSERT_EQ(a.status, 200);
    EXPECT_EQ(sha256Hex(a.body), b.chapters[i].sha256);
  }
}

TEST_F(DocumentsTest, EachPlaylistGetsItsOwnTokenAndTheRequestIsRecorded) {
  const json first = json::parse(validPlaylist(kTwoPartBookID).body);
  const json second = json::parse(validPlaylist(kTwoPartBookID).body);
  EXPECT_NE(first.at("playlist_token"), second.at("playlist_token"));
  EXPECT_EQ(first.at("playlist")[2].at("part_number"), 2);

  const auto recorded = server_.requests(Route::kPlaylist);
  ASSERT_EQ(recorded.size(), 2u);
  EXPECT_EQ(recorded[0].method, "POST");
  EXPECT_EQ(recorded[0].path, "/v4/audiobooks/1003/playlists");
  EXPECT_EQ(recorded[0].header("session-key"), "session-1");
  EXPECT_EQ(recorded[0].header("X-Request-Id"), "5E1B7C1A-0000-4000-8000-000000000001");
  EXPECT_EQ(json::parse(recorded[0].body).at("license_id"), "license-1");
}

TEST_F(DocumentsTest, PlaylistRequestsWithoutCredentialsGetErrorDocuments) {
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
    const json doc = json::parse(r.body);
    EXPECT_TRUE(doc.at("message").is_string());
    EXPECT_TRUE(doc.at("code").is_string());
    EXPECT_EQ(doc.at("errors")[0].at("field"), c.field) << c.body;
  }
  EXPECT_EQ(postPlaylist("999999", {"Session-Key: s"}, R"({"license_id": "l"})").status, 404);
}

TEST_F(DocumentsTest, NegativeLifetimeGivesPlaylistsThatHaveAlreadyExpired) {
  server_.setPlaylistLifetime(std::chrono::hours(-2));
  const json doc = json::parse(validPlaylist(kThreeChapterBookID).body);
  std::tm tm{};
  ASSERT_NE(strptime(doc.at("expires").get<std::string>().c_str(), "%Y-%m-%dT%H:%M:%S", &tm),
            nullptr);
  EXPECT_LT(timegm(&tm), std::time(nullptr) - 3600);
}

}  // namespace
}  // namespace sonorell::content::testing
