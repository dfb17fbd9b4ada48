#include "analytics/listen_event_handler.h"

#include <gtest/gtest.h>

#include "analytics_test_support.h"
#include "sonorell/facade.h"
#include "sonorell/listen_event.h"

namespace sonorell {
namespace {

using testing::AnalyticsTest;
using testing::archivedEvents;

class ListenEventHandlerTest : public AnalyticsTest {
 protected:
  // Well below the size that would post anything; the timer never fires on the virtual clock.
  std::shared_ptr<QLListenEventHandler> handler = std::make_shared<QLListenEventHandler>(
      QLListenEventPoster::create(HttpClient::shared(), 1000, 300));

  void TearDown() override {
    // No flush may still be running when the process exits and its singletons go away.
    EXPECT_TRUE(handler->eventPoster()->waitForReadWrite(std::chrono::seconds(20)));
    EXPECT_TRUE(handler->eventPoster()->waitForNetworking(std::chrono::seconds(20)));
  }

  void tick(uint64_t second, uint64_t chapter = 1, std::string token = "token-1") {
    handler->updateListenEvent(chapter, 0, "session-1", token, second, 1.0f, 0);
  }
  std::vector<QLListenEventPtr> completed() {
    EXPECT_TRUE(handler->eventPoster()->waitForReadWrite(std::chrono::seconds(10)));
    return handler->eventPoster()->eventQueueForTesting();
  }
};

// --- Merging ticks ---

TEST_F(ListenEventHandlerTest, ConsecutiveSecondsExtendOneOpenEventAndARepeatedOneChangesNothing) {
  tick(10);
  auto open = handler->currentListenEvent();
  tick(10);
  ASSERT_EQ(handler->currentListenEvent(), open);
  EXPECT_EQ(open->currentSecondOffset(), 10u);
  tick(11);
  tick(12);
  EXPECT_EQ(handler->currentListenEvent(), open);
  EXPECT_EQ(open->startOffset(), 10u);
  EXPECT_EQ(open->currentSecondOffset(), 12u);
  EXPECT_TRUE(completed().empty());
}

TEST_F(ListenEventHandlerTest, ASkipASeekBackAMinuteAndAChapterOrPlaylistChangeEachCompleteIt) {
  tick(10);
  auto first = handler->currentListenEvent();
  tick(12);  // a skipped second
  tick(13);
  tick(5);  // a seek backwards
  for (uint64_t second = 6; second <= 64; ++second) tick(second);
  EXPECT_EQ(completed().size(), 2u) << "59 seconds still fit one event";
  tick(65);  // a minute after the start
  tick(66, 2);
  tick(67, 2, "token-2");
  auto done = completed();
  ASSERT_EQ(done.size(), 5u);
  EXPECT_EQ(done[0], first);
  EXPECT_TRUE(done[0]->timestamp());
  std::vector<std::pair<uint64_t, uint64_t>> spans;
  for (const auto& event : done) spans.emplace_back(event->startOffset(), event->finalOffset());
  EXPECT_EQ(spans, (std::vector<std::pair<uint64_t, uint64_t>>{
                       {10, 10}, {12, 13}, {5, 64}, {65, 65}, {66, 66}}));
  EXPECT_EQ(done[3]->chapterNumber(), 1u);
  EXPECT_EQ(done[4]->chapterNumber(), 2u);
  EXPECT_EQ(done[4]->playlistToken(), "token-1");
  EXPECT_EQ(handler->currentListenEvent()->playlistToken(), "token-2");
  EXPECT_EQ(handler->currentListenEvent()->startOffset(), 67u);
}

// --- Validation ---

TEST_F(ListenEventHandlerTest, InvalidArgumentsAreRefusedWithTheirReasonAndChangeNothing) {
  tick(10);
  auto open = handler->currentListenEvent();
  try {
    handler->updateListenEvent(1, 0, "", "", 11, 1.0f, 0);  // the session key is reported first
    ADD_FAILURE() << "no exception";
  } catch (const QLInvalidListenEventArgument& error) {
    EXPECT_EQ(error.reason(), QLInvalidSessionKeyReason);
    EXPECT_STREQ(error.what(), "Session Ket was nil, empty, or not of type 'NSString'");
  }
  auto expectTokenReason = [](auto&& call) {
    try {
      call();
      ADD_FAILURE() << "no exception";
    } catch (const QLInvalidListenEventArgument& error) {
      EXPECT_EQ(error.reason(), QLInvalidPlaylistTokenReason);
    }
  };
  expectTokenReason([&] { handler->updateListenEvent(1, 0, "s", std::nullopt, 11, 1.0f, 0); });
  expectTokenReason([&] { handler->recordListenEvent(1, 0, "s", "", 1, 2, 1.0f, 0); });
  expectTokenReason([&] { handler->recordListenEvent(testing::makeEvent(1, 0, 2, "s", "")); });
  EXPECT_THROW(handler->recordListenEvent(1, 0, std::nullopt, "t", 1, 2, 1.0f, 0),
               QLInvalidListenEventArgument);
  EXPECT_EQ(handler->currentListenEvent(), open);
  EXPECT_EQ(open->currentSecondOffset(), 10u);
  EXPECT_TRUE(completed().empty());
}

// --- Completion and recording ---

TEST_F(ListenEventHandlerTest, CompletedEventsCarryTheApplicationStateTheHostReported) {
  auto engine = QSOSonorell::sharedEngine();
  engine->didEnterBackground();
  tick(10);
  tick(20);
  engine->willEnterForeground();
  tick(30);
  auto done = completed();
  ASSERT_EQ(done.size(), 2u);
  EXPECT_EQ(done[0]->applicationState(), 1u);
  EXPECT_EQ(done[1]->applicationState(), 0u);
  EXPECT_EQ(done[0]->screenState(), 2u) << "nothing learns the screen state";
}

TEST_F(ListenEventHandlerTest, RecordingStampsTheTimeUnlessTheEventHasOne) {
  Date own{std::chrono::seconds{1'600'000'000}};
  auto made = testing::makeEvent(4, 1, 9);
  made->setTimestamp(own);
  handler->recordListenEvent(made);
  handler->recordListenEvent(5, 1, "session-1", "token-1", 20, 80, 1.5f, 3);
  auto done = completed();
  ASSERT_EQ(done.size(), 2u);
  EXPECT_EQ(done[0]->timestamp(), own);
  EXPECT_EQ(done[1]->timestamp(), clock->wallNow());
  EXPECT_EQ(done[1]->startOffset(), 20u);
  EXPECT_EQ(done[1]->finalOffset(), 80u);
  EXPECT_EQ(done[1]->playbackRate(), 1.5f);
  EXPECT_EQ(done[1]->listeningMethod(), 3u);
  EXPECT_EQ(done[1]->partNumber(), 1u);
}

TEST_F(ListenEventHandlerTest, AFlushCompletesTheOpenEventButKeepsItOpen) {
  tick(10);
  tick(11);
  handler->flushListenEventQueue();
  tick(12);
  handler->flushListenEventQueue();
  auto done = completed();
  // The same object, queued twice, reporting its latest values.
  ASSERT_EQ(done.size(), 2u);
  EXPECT_EQ(done[0], done[1]);
  EXPECT_EQ(done[0]->finalOffset(), 12u);
  EXPECT_EQ(handler->currentListenEvent(), done[0]);
}

// --- Termination ---

TEST_F(ListenEventHandlerTest, TerminationArchivesTheOpenEventBeforeReturning) {
  auto shared = QLListenEventHandler::sharedHandler();
  shared->updateListenEvent(3, 0, "session-1", "token-1", 40, 1.0f, 1);
  shared->updateListenEvent(3, 0, "session-1", "token-1", 41, 1.0f, 1);
  QSOSonorell::sharedEngine()->willTerminate();
  auto archived = archivedEvents();
  ASSERT_EQ(archived.size(), 1u);
  EXPECT_EQ(archived[0]->chapterNumber(), 3u);
  EXPECT_EQ(archived[0]->startOffset(), 40u);
  EXPECT_EQ(archived[0]->finalOffset(), 41u);
}

TEST(ListenEventHandlerTerminationTest, TerminationWithoutAHandlerCreatesNothing) {
  testing::TempLibrary library;
  FilesystemHelper::createSupportDirectory();
  QSOSonorell::sharedEngine()->willTerminate();
  EXPECT_FALSE(std::filesystem::exists(FilesystemHelper::listenEventsArchivePath().parent_path()));
}

}  // namespace
}  // namespace sonorell
