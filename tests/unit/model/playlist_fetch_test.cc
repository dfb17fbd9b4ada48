// Playlists: decoding what the server sends, every status mapping of the fetch, the request it
// makes, and the cache with its expiry rule.
#include <gtest/gtest.h>

#include <future>

#include "model/playlist_api_fetch.h"
#include "model/playlist_manager.h"
#include "model/task_synchronizer.h"
#include "platform/dispatch/clock.h"
#include "sonorell/download_engine.h"
#include "sonorell/errors.h"
#include "support/failure_notification.h"
#include "support/server_fixture.h"

namespace sonorell {
namespace {

using content::Fault;
using content::Route;
using content::Trigger;
using Result = std::pair<std::optional<QSOPlaylist>, ErrorPtr>;

class PlaylistFetch : public testing::ServerTest {
 protected:
  Result fetch(const std::string& id = "1001") {
    std::promise<Result> done;
    auto future = done.get_future();
    QSOPlaylistAPIFetch::fetchPlaylist(*HttpClient::shared(), id, "license-1", "session-1",
                                       [&done](std::optional<QSOPlaylist> p, ErrorPtr e) {
                                         done.set_value({std::move(p), std::move(e)});
                                       });
    return await(future);
  }
};

// Each failing answer: the fetch's own code, and what a host is told when a download or a
// playback fails with it (an API error document's code is already a download code).
TEST_F(PlaylistFetch, EveryFailingAnswerReachesTheHostWithItsCode) {
  using D = QSODownloadFailureCode;
  using P = QSOPlaybackFailureCode;
  // A whole playlist but for its expiry.
  auto expiringAt = [](const char* expires) {
    return Fault::customBody(
        200, nlohmann::json{{"playlist_token", "t"},
                            {"expires", expires},
                            {"playlist",
                             {{{"part_number", 0}, {"chapter_number", 1}, {"url", "https://a/1"}}}}}
                 .dump());
  };
  struct Case {
    Fault fault;
    int64_t code;
    D download;
    std::optional<P> playback;
  };
  const Case cases[] = {
      {Fault::errorDocument(401, "expired", "session", 4012), 40, D::DownloadUnauthorized,
       P::PlaybackUnauthorized},  // 401 whatever the body
      {Fault::customBody(403, "<html>forbidden</html>", "text/html"), 30, D::UnknownServerResponse,
       P::UnknownServerResponse},
      {Fault::errorDocument(403, "expired", "session_expired", 4012), 11008,
       D::DownloadUnauthorized, std::nullopt},
      {Fault::errorDocument(402, "pay", "payment", 4013), 10001, D::UnknownServerResponse,
       std::nullopt},
      {Fault::customBody(200, ""), 25, D::DownloadPlaylistCannotBeLoaded,
       P::PlaylistCannotBeLoaded},
      {Fault::invalidJson(), 25, D::DownloadPlaylistCannotBeLoaded, P::PlaylistCannotBeLoaded},
      {Fault::customBody(200, R"({"playlist_token": "t"})"), 25, D::DownloadPlaylistCannotBeLoaded,
       P::PlaylistCannotBeLoaded},
      // Expiries that are no date the engine can hold (beyond about 1678 to 2261), as one that
      // does not parse at all.
      {expiringAt("1500-01-01T00:00:00Z"), 25, D::DownloadPlaylistCannotBeLoaded,
       P::PlaylistCannotBeLoaded},
      {expiringAt("2300-01-01T00:00:00Z"), 25, D::DownloadPlaylistCannotBeLoaded,
       P::PlaylistCannotBeLoaded},
      {expiringAt("1013-11-23T03:18:46+0000"), 25, D::DownloadPlaylistCannotBeLoaded,
       P::PlaylistCannotBeLoaded},
      {expiringAt("2030-01-02 03:04:05"), 25, D::DownloadPlaylistCannotBeLoaded,
       P::PlaylistCannotBeLoaded},
      // Not UTF-8 text: no document.
      {Fault::customBody(200, "\xff\xfe{\"playlist_token\": \"t\"}"), 25,
       D::DownloadPlaylistCannotBeLoaded, P::PlaylistCannotBeLoaded},
      {Fault::statusCode(400), 35, D::InvalidLicenseID, P::InvalidLicenseID},
      {Fault::statusCode(404), 20, D::InvalidChapterDownloadRequest, P::InvalidLicenseID},
      {Fault::statusCode(502), 10, D::InternalServerError, P::ServerSideError},
      {Fault::statusCode(503), 10, D::InternalServerError, P::ServerSideError},
      {Fault::statusCode(504), 15, D::RequestTimedOut, P::Unknown},
      {Fault::statusCode(500), 30, D::UnknownServerResponse, P::UnknownServerResponse},
  };
  for (const auto& c : cases) {
    server.faults().add(Route::kPlaylist, c.fault);
    auto [playlist, error] = fetch();
    SCOPED_TRACE(c.code);
    SCOPED_TRACE(c.fault.body.value_or(""));
    EXPECT_FALSE(playlist.has_value());
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain, QSOErrorDomain);
    EXPECT_EQ(error->code, c.code);

    auto download = testing::errorAsNotified(error, testing::FailureLayer::Download);
    ASSERT_NE(download, nullptr);
    EXPECT_EQ(download->code, static_cast<int64_t>(c.download));
    EXPECT_EQ(download->localizedDescription(),
              QSODownloadEngine::descriptionForErrorCode(download->code));
    if (c.playback) {
      auto playback = testing::errorAsNotified(error, testing::FailureLayer::Playback);
      ASSERT_NE(playback, nullptr);
      EXPECT_EQ(playback->code, static_cast<int64_t>(*c.playback));
    }
  }
}

TEST_F(PlaylistFetch, ADroppedConnectionKeepsItsTransportErrorAndAnErrorDocumentItsText) {
  // The dropped connection comes first: on a reused connection the transfer would be retried.
  server.faults().add(Route::kPlaylist, Fault::droppedConnection(), Trigger::nth(1));
  server.faults().add(Route::kPlaylist, Fault::errorDocument(403, "Key expired", "expired", 4011),
                      Trigger::nth(2));
  auto [playlist, error] = fetch();
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain, kURLLoadingErrorDomain);
  EXPECT_EQ(error->code, kURLErrorNetworkConnectionLost);
  std::tie(playlist, error) = fetch();
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->localizedDescription(),
            "Error: The download failed due to being unauthorized code: expired Message: Key "
            "expired");
}

// The ID is one path segment of the playlist URL: "/" and dot segments cannot lead the request
// to another book's playlists.
TEST_F(PlaylistFetch, AnIdentifierIsOnePathSegmentAndNeverReachesAnotherBook) {
  struct Case {
    std::string id;
    bool routed;  // whether the server can take the path as one book's (no "/" in the ID)
  };
  const Case cases[] = {
      {"../audiobooks/1002", false},
      {"1002/playlists/..", false},
      {"..", true},
      {"1001?x=1#y", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.id);
    server.recorder().clear();
    auto [playlist, error] = fetch(c.id);
    EXPECT_FALSE(playlist.has_value());
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code, 20) << "no such book";
    const auto requests = server.requests(Route::kPlaylist);
    EXPECT_EQ(requests.size(), c.routed ? 1u : 0u);
    for (const auto& request : requests) {
      EXPECT_EQ(request.path, "/v4/audiobooks/" + c.id + "/playlists");
    }
  }
}

// A license ID is the host's text; one that is not UTF-8 cannot be JSON as it is. The fetch still
// goes out and ends, and the request key is free again afterwards.
TEST_F(PlaylistFetch, ALicenseIDThatIsNotUTF8StillEndsTheFetch) {
  auto synchronizer = std::make_shared<TaskSynchronizer>(HttpClient::shared(), nullptr);
  for (int attempt = 0; attempt < 2; ++attempt) {
    SCOPED_TRACE(attempt);
    std::promise<Result> done;
    auto future = done.get_future();
    synchronizer->fetchPlaylistMetadata("1001", "lic\xff\xfe", "session-1",
                                        [&done](std::optional<QSOPlaylist> p, ErrorPtr e) {
                                          done.set_value({std::move(p), std::move(e)});
                                        });
    auto [playlist, error] = await(future);
    EXPECT_NE(playlist.has_value(), error != nullptr) << "exactly one of the two";
    ASSERT_EQ(server.requestCount(Route::kPlaylist), static_cast<uint64_t>(attempt + 1));
  }
  const auto sent = nlohmann::json::parse(server.requests(Route::kPlaylist).at(0).body);
  EXPECT_EQ(sent.at("license_id"), "lic\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(PlaylistDecoding, ABadElementIsDroppedNotFatalAndTheFirstDuplicateWins) {
  auto document = nlohmann::json::parse(R"({"playlist_token": "tok",
      "expires": "2030-01-02T03:04:05+0000", "playlist": [
        {"part_number": 0, "chapter_number": 1, "url": "https://a/1"},
        {"part_number": 0, "chapter_number": 2},
        {"part_number": 0, "chapter_number": 3, "url": "not a url"},
        {"part_number": "0", "chapter_number": 4, "url": "https://a/4"},
        {"part_number": 0, "chapter_number": 1, "url": "https://a/dup"}]})");
  auto playlist = QSOPlaylist::decodePlaylist(document, "book");
  ASSERT_TRUE(playlist.has_value());
  EXPECT_EQ(playlist->playlist().size(), 2u);
  EXPECT_EQ(playlist->playlistItem(QSOChapterDescription("other", 0, 1))->url(), "https://a/1");
  EXPECT_EQ(playlist->playlistItem(QSOChapterDescription("book", 0, 2)), nullptr);
  EXPECT_EQ(std::chrono::system_clock::to_time_t(playlist->expires()), 1893553445);
  EXPECT_EQ(playlist->playlist()[0].chapterDescription(), QSOChapterDescription("book", 0, 1));
}

TEST(PlaylistDecoding, ExpiryZonesAndMissingKeys) {
  EXPECT_EQ(
      std::chrono::system_clock::to_time_t(*QSOPlaylist::parseExpires("2030-01-02T05:04:05+0200")),
      1893553445);
  EXPECT_EQ(
      std::chrono::system_clock::to_time_t(*QSOPlaylist::parseExpires("2030-01-02T03:04:05Z")),
      1893553445);
  EXPECT_FALSE(QSOPlaylist::parseExpires("2030-01-02 03:04:05").has_value());
  for (auto json :
       {R"({"expires": "2030-01-02T03:04:05Z", "playlist": []})",
        R"({"playlist_token": "t", "playlist": []})",
        R"({"playlist_token": "t", "expires": "2030-01-02T03:04:05Z"})",
        R"({"playlist_token": 5, "expires": "2030-01-02T03:04:05Z", "playlist": []})"}) {
    EXPECT_FALSE(QSOPlaylist::decodePlaylist(nlohmann::json::parse(json), "b").has_value()) << json;
  }
}

TEST_F(PlaylistFetch, ConcurrentRequestsWithOneLicenseShareOneFetchCarryingTheCredentials) {
  auto synchronizer = std::make_shared<TaskSynchronizer>(HttpClient::shared(), nullptr);
  server.faults().add(Route::kPlaylist, Fault::delayed(std::chrono::milliseconds(300)));
  std::vector<std::promise<Result>> done(3);
  for (auto& d : done) {
    synchronizer->fetchPlaylistMetadata("1001", "license-1", "session-1",
                                        [&d](std::optional<QSOPlaylist> p, ErrorPtr e) {
                                          d.set_value({std::move(p), std::move(e)});
                                        });
  }
  std::vector<QSOPlaylist> playlists;
  for (auto& d : done) {
    auto f = d.get_future();
    auto [playlist, error] = await(f);
    ASSERT_EQ(error, nullptr);
    ASSERT_TRUE(playlist.has_value());
    playlists.push_back(*playlist);
    EXPECT_EQ(playlist->playlistToken(), playlists[0].playlistToken());
  }
  auto requests = server.requests(Route::kPlaylist);
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].method, "POST");
  EXPECT_EQ(requests[0].header("Session-Key"), "session-1");
  EXPECT_EQ(requests[0].header("X-Request-Id").value_or("").size(), 36u);
  EXPECT_EQ(nlohmann::json::parse(requests[0].body).at("license_id"), "license-1");

  // One item per chapter, each with the server's audio address.
  const auto* book = server.catalogue().book("1001");
  const QSOPlaylist& playlist = playlists[0];
  ASSERT_EQ(playlist.playlist().size(), book->chapters.size());
  EXPECT_FALSE(playlist.playlistToken().empty());
  EXPECT_GT(playlist.expires(), std::chrono::system_clock::now());
  const auto& first = book->chapters.front();
  const auto* item =
      playlist.playlistItem(QSOChapterDescription("1001", first.part, first.chapter));
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(item->url(), server.audioURL("1001", first.part, first.chapter));
}

TEST(PlaylistCache, ExpiryFollowsTheEngineClockAndExpiredOnesComeOnlyWhenPermitted) {
  ScopedVirtualClock clock;
  QSOPlaylistManager cache;
  cache.addPlaylist(QSOPlaylist("b", "t", clock->wallNow() + std::chrono::seconds(10), {}), "b");
  EXPECT_TRUE(cache.getPlaylistForIdentifier("b", false).has_value());
  clock->advance(std::chrono::seconds(9));
  EXPECT_TRUE(cache.getPlaylistForIdentifier("b", false).has_value());
  clock->advance(std::chrono::seconds(1));
  EXPECT_FALSE(cache.getPlaylistForIdentifier("b", false).has_value()) << "at expiry it is gone";
  EXPECT_TRUE(cache.getPlaylistForIdentifier("b", true).has_value());
  cache.removePlaylistForIdentifier("nothing-there");
  cache.removePlaylistForIdentifier("b");
  EXPECT_FALSE(cache.getPlaylistForIdentifier("b", true).has_value());
}

}  // namespace
}  // namespace sonorell
