#include "analytics/listen_event_poster.h"

#include <gtest/gtest.h>

#include "analytics/analytics_body.h"
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
using testing::Chapters;
using testing::chapters;
using testing::makeEvent;

constexpr std::chrono::seconds kWait{20};

Chapters chapters(const json& body) {
  Chapters result;
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

  std::shared_ptr<QLListenEventPoster> poster = testing::newPoster();
};

// --- The size trigger and the request ---

TEST_F(ListenEventPosterTest, TheEleventhSubmitPostsTheWholeQueueWithTheHeadersAndTheBody) {
  submit(1, 9);
  poster->submitListenEvent(makeEvent(10, 0, 5, "older-key"));
  ASSERT_TRUE(poster->waitForReadWrite(kWait));
  settle();
  EXPECT_EQ(server.requestCount(Route::kAnalytics), 0u) << "ten events do not post";
  poster->submitListenEvent(makeEvent(11, 5, 9, "newest-key"));
  settle();
  auto sent = posts();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_TRUE(poster->eventQueueForTesting().empty()) << "204 removes what was sent";
  EXPECT_TRUE(archivedEvents().empty());
  EXPECT_EQ(poster->processingRequestCountForTesting(), 0u);

  const auto& request = sent[0];
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.path, "/v4/analytics");
  EXPECT_EQ(request.header("Content-Type"), "application/json");
  EXPECT_EQ(request.header("Session-Key"), "newest-key");
  EXPECT_EQ(request.header("X-Request-Id").value_or("").size(), 36u);
  json body = bodyOf(request);
  EXPECT_EQ(chapters(body), (Chapters{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}));
  EXPECT_EQ(body["events"][10], json::parse(R"({"background_state":"Foreground",
                            "chapter_number":11, "end_position":9,"part_number":0,
                            "path_to_ear":"Wired", "speed_control":1.0,"start_position":5,
                            "timestamp":"2023-11-14T22:13:20+0000",
                            "playlist_token":"token-1"})"));
  auto udid = UserDefaults::standard().stringForKey("uuid");
  ASSERT_TRUE(udid) << "the install identifier is stored on first use";
  EXPECT_EQ(body["udid"], *udid);
  EXPECT_EQ(body["sonorell"], json({{"sdk_version", "6.5.8"}, {"api_version", "v4"}}));
  for (const char* key : {"name", "device", "os_version"}) {
    EXPECT_FALSE(body["system"][key].get<std::string>().empty()) << key;
  }
}

TEST_F(ListenEventPosterTest, AStoredInstallIdentifierIsReusedAndAnEmptyQueueSendsNothing) {
  poster->flushListeningEventQueue();
  settle();
  EXPECT_EQ(server.requestCount(Route::kAnalytics), 0u);
  UserDefaults::standard().setObject(Value("FIXED-INSTALL-ID"), "uuid");
  submit(1, 1);
  poster->flushListeningEventQueue();
  settle();
  ASSERT_EQ(posts().size(), 1u);
  EXPECT_EQ(bodyOf(posts()[0])["udid"], "FIXED-INSTALL-ID");
}

// --- Answers ---

TEST_F(ListenEventPosterTest, OnlyA204RemovesEvents) {
  // The dropped connection comes first: on a reused connection the transfer would be retried.
  server.faults().add(Route::kAnalytics, Fault::droppedConnection(), Trigger::nth(1));
  server.faults().add(Route::kAnalytics, Fault::statusCode(200), Trigger::nth(2));
  server.faults().add(Route::kAnalytics, Fault::statusCode(500), Trigger::nth(3));
  submit(1, 3);
  for (int failing = 1; failing <= 3; ++failing) {
    poster->flushListeningEventQueue();
    settle();
    EXPECT_EQ(server.requestCount(Route::kAnalytics), static_cast<size_t>(failing));
    EXPECT_EQ(chapters(poster->eventQueueForTesting()), (Chapters{1, 2, 3}));
    EXPECT_EQ(chapters(archivedEvents()), (Chapters{1, 2, 3}));
    EXPECT_EQ(poster->processingRequestCountForTesting(), 0u) << "snapshots are dropped";
  }
  poster->flushListeningEventQueue();  // the server answers 204 again
  settle();
  EXPECT_EQ(posts().size(), 4u);
  EXPECT_TRUE(poster->eventQueueForTesting().empty());
  EXPECT_TRUE(archivedEvents().empty());
}

// Also shows that events submitted while a request is in flight stay queued.
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
  EXPECT_EQ(chapters(bodyOf(sent[0])), (Chapters{1, 2}));
  EXPECT_EQ(chapters(bodyOf(sent[1])), (Chapters{1, 2, 3}));
  EXPECT_EQ(chapters(poster->eventQueueForTesting()), (Chapters{4}));
  EXPECT_EQ(chapters(archivedEvents()), (Chapters{4}));
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
  EXPECT_EQ(chapters(poster->eventQueueForTesting()), (Chapters{8}));
}

// --- Restarts and the timer ---

TEST_F(ListenEventPosterTest, ARestartedPosterSendsWhatTheArchiveHeldWithAnObjectQueuedTwiceOnce) {
  auto event = makeEvent(7, 10, 20);
  poster->submitListenEvent(event);
  submit(8, 8);
  event->setFinalOffset(25);
  poster->submitListenEvent(event);
  ASSERT_TRUE(poster->waitForReadWrite(kWait));
  poster.reset();
  EXPECT_EQ(server.requestCount(Route::kAnalytics), 0u);

  poster = testing::newPoster();
  auto queue = poster->eventQueueForTesting();
  ASSERT_EQ(chapters(queue), (Chapters{7, 8, 7}));
  EXPECT_EQ(queue[0], queue[2]) << "one object, queued twice";
  EXPECT_EQ(queue[0]->finalOffset(), 25u);
  EXPECT_EQ(queue[0]->sessionKey(), "session-1");
  poster->flushListeningEventQueue();
  settle();
  ASSERT_EQ(posts().size(), 1u);
  EXPECT_EQ(chapters(bodyOf(posts()[0])), (Chapters{7, 8, 7}));
  EXPECT_TRUE(archivedEvents().empty());
}

TEST_F(ListenEventPosterTest, TheTimerPostsExactlyWhatTheArchiveHeld) {
  auto slowReader = makeEvent(2, 7, 60, "session-2");
  slowReader->setPlaybackRate(1.25f);
  for (const auto& event : {makeEvent(1, 0, 5, "session-1"), slowReader}) {
    event->setTimestamp(clock->wallNow());
    poster->submitListenEvent(event);
  }
  ASSERT_TRUE(poster->waitForReadWrite(kWait));

  clock->advance(std::chrono::seconds(299));
  settle();
  EXPECT_EQ(server.requestCount(Route::kAnalytics), 0u) << "one second early";
  // What the archive holds is what a restart would send: compare against it.
  json expected = json::parse(analyticsBody(archivedEvents()))["events"];
  ASSERT_EQ(expected.size(), 2u);

  clock->advance(std::chrono::seconds(1));
  settle();
  auto sent = posts();
  ASSERT_EQ(sent.size(), 1u);
  json body = bodyOf(sent[0]);
  EXPECT_EQ(sent[0].header("Session-Key"), "session-2");
  // The live event keeps its 1.25; the archived copy reads 1. Everything else is equal.
  ASSERT_EQ(body["events"].size(), 2u);
  EXPECT_EQ(body["events"][1]["speed_control"], 1.25);
  body["events"][1]["speed_control"] = 1.0;
  EXPECT_EQ(body["events"], expected);
  EXPECT_TRUE(poster->eventQueueForTesting().empty());

  clock->advance(std::chrono::seconds(300));
  settle();
  EXPECT_EQ(server.requestCount(Route::kAnalytics), 1u) << "an empty queue posts nothing";
}

}  // namespace
}  // namespace sonorell
