#include "analytics/listen_event_poster.h"

#include <gtest/gtest.h>

#include <set>

#include "analytics/listen_event_serializer.h"
#include "analytics_test_support.h"
#include "platform/foundation/user_defaults.h"
#include "sonorell/version.h"

namespace sonorell {
namespace {

using content::Fault;
using content::Route;
using content::Trigger;
using nlohmann::json;
using testing::AnalyticsServerTest;
using testing::archivedEvents;
using testing::makeEvent;

constexpr std::chrono::seconds kWait{20};

std::vector<uint64_t> chapters(const std::vector<QLListenEventPtr>& events) {
  std::vector<uint64_t> result;
  for (const auto& event : events) result.push_back(event->chapterNumber());
  return result;
}

std::vector<uint64_t> chapters(const json& body) {
  std::vector<uint64_t> result;
  for (const json& event : body.at("events")) result.push_back(event.at("chapter_number"));
  return result;
}

Fault slow(int status, std::chrono::milliseconds delay) {
  Fault fault = Fault::statusCode(status);
  fault.delay = delay;
  return fault;
}

class ListenEventPosterTest : public AnalyticsServerTest {
 protected:
  void submit(uint64_t first, uint64_t last) {
    for (uint64_t chapter = first; chapter <= last; ++chapter) {
      poster->submitListenEvent(makeEvent(chapter, 0, 5));
    }
    ASSERT_TRUE(poster->waitForReadWrite(kWait));
  }
  void settle() {
    ASSERT_TRUE(poster->waitForReadWrite(kWait));
    ASSERT_TRUE(poster->waitForNetworking(kWait));
  }

  std::shared_ptr<QLListenEventPoster> poster =
      QLListenEventPoster::create(HttpClient::shared(), 10, 300);
};

// --- The size trigger ---

TEST_F(ListenEventPosterTest, TheEleventhSubmitPostsTheWholeQueue) {
  submit(1, 10);
  settle();
  EXPECT_EQ(server.requestCount(Route::kAnalytics), 0u) << "ten events do not post";
  submit(11, 11);
  settle();
  auto sent = posts();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(chapters(bodyOf(sent[0])), (std::vector<uint64_t>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}));
  EXPECT_TRUE(poster->eventQueueForTesting().empty()) << "204 removes what was sent";
  EXPECT_TRUE(archivedEvents().empty());
  EXPECT_EQ(poster->processingRequestCountForTesting(), 0u);
}

// --- The request ---

TEST_F(ListenEventPosterTest, TheRequestCarriesTheHeadersAndTheBody) {
  poster->submitListenEvent(makeEvent(1, 0, 5, "older-key"));
  poster->submitListenEvent(makeEvent(2, 5, 9, "newest-key"));
  ASSERT_TRUE(poster->waitForReadWrite(kWait));
  poster->flushListeningEventQueue();
  settle();
  auto sent = posts();
  ASSERT_EQ(sent.size(), 1u);
  const auto& request = sent[0];
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.path, "/v4/analytics");
  EXPECT_EQ(request.header("Content-Type"), "application/json");
  EXPECT_EQ(request.header("Session-Key"), "newest-key");
  auto id = request.header("X-Request-Id");
  ASSERT_TRUE(id);
  EXPECT_EQ(id->size(), 36u);

  json body = bodyOf(request);
  ASSERT_TRUE(body.is_object());
  ASSERT_EQ(body["events"].size(), 2u);
  EXPECT_EQ(body["events"][1], json::parse(R"({"background_state":"Foreground","chapter_number":2,
                            "end_position":9,"part_number":0,"path_to_ear":"Wired",
                            "speed_control":1.0,"start_position":5,
                            "timestamp":"2023-11-14T22:13:20+0000",
                            "playlist_token":"token-1"})"));
  auto udid = UserDefaults::standard().stringForKey("uuid");
  ASSERT_TRUE(udid) << "the install identifier is stored on first use";
  EXPECT_EQ(body["udid"], *udid);
  EXPECT_EQ(body["sonorell"], json({{"sdk_version", "6.5.8"}, {"api_version", "v4"}}));
  EXPECT_FALSE(body["system"]["name"].get<std::string>().empty());
  EXPECT_FALSE(body["system"]["device"].get<std::string>().empty());
  EXPECT_FALSE(body["system"]["os_version"].get<std::string>().empty());
}

TEST_F(ListenEventPosterTest, AStoredInstallIdentifierIsReused) {
  UserDefaults::standard().setObject(Value("FIXED-INSTALL-ID"), "uuid");
  submit(1, 1);
  poster->flushListeningEventQueue();
  settle();
  ASSERT_EQ(posts().size(), 1u);
  EXPECT_EQ(bodyOf(posts()[0])["udid"], "FIXED-INSTALL-ID");
}

TEST_F(ListenEventPosterTest, AnEmptyQueueSendsNothing) {
  poster->flushListeningEventQueue();
  settle();
  EXPECT_EQ(server.requestCount(Route::kAnalytics), 0u);
}

// --- Answers ---

TEST_F(ListenEventPosterTest, OnlyA204RemovesEvents) {
  server.faults().add(Route::kAnalytics, Fault::statusCode(200), Trigger::nth(1));
  server.faults().add(Route::kAnalytics, Fault::statusCode(500), Trigger::nth(2));
  submit(1, 3);
  poster->flushListeningEventQueue();
  settle();
  EXPECT_EQ(chapters(poster->eventQueueForTesting()), (std::vector<uint64_t>{1, 2, 3}));
  poster->flushListeningEventQueue();
  settle();
  EXPECT_EQ(chapters(poster->eventQueueForTesting()), (std::vector<uint64_t>{1, 2, 3}));
  EXPECT_EQ(chapters(archivedEvents()), (std::vector<uint64_t>{1, 2, 3}));
  EXPECT_EQ(poster->processingRequestCountForTesting(), 0u) << "snapshots are dropped";

  poster->flushListeningEventQueue();  // the server answers 204 again
  settle();
  EXPECT_EQ(posts().size(), 3u);
  EXPECT_TRUE(poster->eventQueueForTesting().empty());
  EXPECT_TRUE(archivedEvents().empty());
}

TEST_F(ListenEventPosterTest, ATransportFailureKeepsTheEvents) {
  submit(1, 2);
  server.faults().add(Route::kAnalytics, Fault::droppedConnection(), Trigger::nth(1));
  poster->flushListeningEventQueue();
  settle();
  EXPECT_EQ(server.requestCount(Route::kAnalytics), 1u);
  EXPECT_EQ(chapters(poster->eventQueueForTesting()), (std::vector<uint64_t>{1, 2}));
}

TEST_F(ListenEventPosterTest, EventsSubmittedWhileARequestIsInFlightStay) {
  server.faults().add(Route::kAnalytics, slow(204, std::chrono::milliseconds(1500)),
                      Trigger::nth(1));
  submit(1, 2);
  poster->flushListeningEventQueue();
  ASSERT_TRUE(waitForPosts(1));
  submit(3, 4);
  EXPECT_EQ(poster->processingRequestCountForTesting(), 1u) << "the request is still in flight";
  settle();
  EXPECT_EQ(chapters(bodyOf(posts()[0])), (std::vector<uint64_t>{1, 2}));
  EXPECT_EQ(chapters(poster->eventQueueForTesting()), (std::vector<uint64_t>{3, 4}));
  EXPECT_EQ(chapters(archivedEvents()), (std::vector<uint64_t>{3, 4}));
}

TEST_F(ListenEventPosterTest, OverlappingFlushesEachRemoveOnlyTheirOwnSnapshot) {
  // The first request is answered 200 late; the second 204, also late.
  server.faults().add(Route::kAnalytics, slow(200, std::chrono::milliseconds(2500)),
                      Trigger::nth(1));
  server.faults().add(Route::kAnalytics, slow(204, std::chrono::milliseconds(1500)),
                      Trigger::nth(2));
  submit(1, 2);
  poster->flushListeningEventQueue();
  ASSERT_TRUE(waitForPosts(1));
  submit(3, 3);
  poster->flushListeningEventQueue();
  ASSERT_TRUE(waitForPosts(2));
  submit(4, 4);  // after the second snapshot
  EXPECT_EQ(poster->processingRequestCountForTesting(), 2u) << "both requests in flight";
  settle();

  auto sent = posts();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(chapters(bodyOf(sent[0])), (std::vector<uint64_t>{1, 2}));
  EXPECT_EQ(chapters(bodyOf(sent[1])), (std::vector<uint64_t>{1, 2, 3}));
  EXPECT_EQ(chapters(poster->eventQueueForTesting()), (std::vector<uint64_t>{4}));
  EXPECT_EQ(chapters(archivedEvents()), (std::vector<uint64_t>{4}));
}

TEST_F(ListenEventPosterTest, A204RemovesEveryPlaceOfASentObject) {
  auto reused = makeEvent(7, 0, 5);
  server.faults().add(Route::kAnalytics, slow(204, std::chrono::milliseconds(1500)),
                      Trigger::nth(1));
  poster->submitListenEvent(reused);
  ASSERT_TRUE(poster->waitForReadWrite(kWait));
  poster->flushListeningEventQueue();
  ASSERT_TRUE(waitForPosts(1));
  // The handler queues its open event again after a flush; that place goes with the first.
  poster->submitListenEvent(reused);
  submit(8, 8);
  settle();
  EXPECT_EQ(chapters(poster->eventQueueForTesting()), (std::vector<uint64_t>{8}));
}

// --- Restarts and the timer ---

TEST_F(ListenEventPosterTest, ARestartedPosterSendsWhatTheArchiveHeld) {
  submit(1, 3);
  poster.reset();
  EXPECT_EQ(server.requestCount(Route::kAnalytics), 0u);

  poster = QLListenEventPoster::create(HttpClient::shared(), 10, 300);
  EXPECT_EQ(chapters(poster->eventQueueForTesting()), (std::vector<uint64_t>{1, 2, 3}));
  poster->flushListeningEventQueue();
  settle();
  ASSERT_EQ(posts().size(), 1u);
  EXPECT_EQ(chapters(bodyOf(posts()[0])), (std::vector<uint64_t>{1, 2, 3}));
  EXPECT_TRUE(archivedEvents().empty());
}

TEST_F(ListenEventPosterTest, TheTimerPostsExactlyWhatTheArchiveHeld) {
  auto first = makeEvent(1, 0, 5, "session-1");
  first->setTimestamp(clock->wallNow());
  poster->submitListenEvent(first);
  auto slowReader = makeEvent(2, 7, 60, "session-2");
  slowReader->setPlaybackRate(1.25f);
  slowReader->setTimestamp(clock->wallNow());
  poster->submitListenEvent(slowReader);
  ASSERT_TRUE(poster->waitForReadWrite(kWait));

  clock->advance(std::chrono::seconds(299));
  settle();
  EXPECT_EQ(server.requestCount(Route::kAnalytics), 0u) << "one second early";

  // What the archive holds is what a restart would send: compare against it.
  json expected = json::array();
  for (const auto& event : archivedEvents()) {
    json object;
    for (const auto& [key, value] : QLListenEventSerializer::serializeListeningEvent(*event)) {
      if (auto text = value.asString()) {
        object[key] = *text;
      } else if (value.is<double>()) {
        object[key] = *value.asDouble();
      } else {
        object[key] = *value.asUInt();
      }
    }
    expected.push_back(object);
  }
  ASSERT_EQ(expected.size(), 2u);

  clock->advance(std::chrono::seconds(1));
  settle();
  auto sent = posts();
  ASSERT_EQ(sent.size(), 1u);
  json body = bodyOf(sent[0]);
  EXPECT_EQ(sent[0].header("Session-Key"), "session-2");
  // The live event keeps its 1.25; the archived copy reads 1. Everything else is equal.
  ASSERT_EQ(body["events"].size(), 2u);
  body["events"][1]["speed_control"] = 1.0;
  EXPECT_EQ(body["events"], expected);
  EXPECT_TRUE(poster->eventQueueForTesting().empty());

  clock->advance(std::chrono::seconds(300));
  settle();
  EXPECT_EQ(server.requestCount(Route::kAnalytics), 1u) << "an empty queue posts nothing";
}

}  // namespace
}  // namespace sonorell
