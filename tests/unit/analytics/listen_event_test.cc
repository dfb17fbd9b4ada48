#include "analytics/listen_event.h"

#include <gtest/gtest.h>

#include "analytics/listen_event_serializer.h"
#include "analytics_test_support.h"
#include "platform/dispatch/clock.h"

namespace sonorell {
namespace {

using testing::makeEvent;

std::optional<std::string> text(const Dictionary& object, const std::string& key) {
  auto found = object.find(key);
  if (found == object.end()) return std::nullopt;
  return found->second.asString();
}

QLListenEventPtr archivedCopy(const QLListenEvent& event) {
  // Through the text form, as the archive stores it.
  auto coded = nlohmann::json::parse(event.encodeWithCoder().dump());
  return QLListenEvent::initWithCoder(coded);
}

// --- The JSON object the service receives ---

TEST(ListenEventSerializerTest, EveryFieldUnderItsKeyInTheServicesOwnTerms) {
  auto event = makeEvent(12, 30, 88, "secret-session", std::nullopt);
  event->setPartNumber(3);
  event->setPlaybackRate(1.5f);
  event->setApplicationState(1);
  event->setTimestamp(Date{std::chrono::seconds{1709312709}});  // 2024-03-01 17:05:09 UTC
  // The whole object of an ordinary event, as posted: listen_event_poster_test.
  Dictionary object = QLListenEventSerializer::serializeListeningEvent(*event);
  EXPECT_EQ(text(object, "timestamp"), "2024-03-01T17:05:09+0000");
  EXPECT_EQ(object.at("part_number").asUInt(), 3u);
  EXPECT_EQ(object.at("speed_control").asDouble(), 1.5);
  EXPECT_EQ(text(object, "background_state"), "Background");
  EXPECT_FALSE(text(object, "screen_state")) << "2 is unknown";
  EXPECT_EQ(object.count("playlist_token"), 0u);
  for (const auto& [key, value] : object) {
    EXPECT_NE(value.asString(), std::optional<std::string>("secret-session")) << key;
  }

  auto field = [&](const std::string& key) {
    return text(QLListenEventSerializer::serializeListeningEvent(*event), key);
  };
  event->setScreenState(1);
  EXPECT_EQ(field("screen_state"), "OFF");
  event->setScreenState(0);
  EXPECT_EQ(field("screen_state"), "ON");
  event->setPlaylistToken("token-9");
  EXPECT_EQ(field("playlist_token"), "token-9");
  const std::pair<uint64_t, const char*> pathToEar[] = {
      {0, "Wired"}, {1, "Speaker"}, {2, "Bluetooth"}, {3, "Other"}, {7, "Other"}};
  for (auto [method, expected] : pathToEar) {
    event->setListeningMethod(method);
    EXPECT_EQ(field("path_to_ear"), expected) << "listening method " << method;
  }
  std::string description = event->description();
  EXPECT_EQ(description.rfind("QSOListenEvent ", 0), 0u) << description;
  EXPECT_NE(description.find("token-9"), std::string::npos) << description;
}

TEST(ListenEventSerializerTest, AnEventWithoutTimestampCarriesTheSerializationTime) {
  ScopedVirtualClock clock;  // starts at 1,700,000,000 s: 2023-11-14 22:13:20 UTC
  auto event = makeEvent(1, 0, 5);
  EXPECT_EQ(text(QLListenEventSerializer::serializeListeningEvent(*event), "timestamp"),
            "2023-11-14T22:13:20+0000");
  clock->advance(std::chrono::seconds(61));
  EXPECT_EQ(text(QLListenEventSerializer::serializeListeningEvent(*event), "timestamp"),
            "2023-11-14T22:14:21+0000");
}

// --- The archived form ---

TEST(ListenEventArchiveFormTest, EveryFieldComesBack) {
  auto event = makeEvent(12, 30, 88, "key \"quoted\"\n", "tok--en");
  event->setPartNumber(3);
  event->setCurrentSecondOffset(91);
  event->setApplicationState(1);
  event->setScreenState(1);
  event->setListeningMethod(3);
  event->setPlaybackRate(2.9f);
  Date when{std::chrono::milliseconds{1709312709123}};
  event->setTimestamp(when);

  auto copy = archivedCopy(*event);
  ASSERT_TRUE(copy);
  EXPECT_EQ(copy->chapterNumber(), 12u);
  EXPECT_EQ(copy->partNumber(), 3u);
  EXPECT_EQ(copy->startOffset(), 30u);
  EXPECT_EQ(copy->currentSecondOffset(), 91u);
  EXPECT_EQ(copy->finalOffset(), 88u);
  EXPECT_EQ(copy->applicationState(), 1u);
  EXPECT_EQ(copy->screenState(), 1u);
  EXPECT_EQ(copy->listeningMethod(), 3u);
  EXPECT_EQ(copy->playbackRate(), 2.0f) << "speed comes back truncated to a whole number";
  EXPECT_EQ(copy->timestamp(), when);
  EXPECT_EQ(copy->sessionKey(), "key \"quoted\"\n");
  EXPECT_EQ(copy->playlistToken(), "tok--en");
}

TEST(ListenEventArchiveFormTest, UsesTheDocumentedKeysAndAbsentValuesStayAbsent) {
  auto coded = makeEvent(1, 2, 3)->encodeWithCoder();
  for (const char* key : {"partNumber", "chapterNumber", "startOffset", "finishOffset",
                          "currentSecondOffset", "listeningMethod", "backgroundState",
                          "screenState", "speedControl", "sessionKey", "playlistToken"}) {
    EXPECT_TRUE(coded.contains(key)) << key;
  }
  EXPECT_EQ(coded["finishOffset"], 3);
  EXPECT_FALSE(coded.contains("completedDate"));  // no timestamp yet
  auto copy = archivedCopy(*makeEvent(1, 0, 5, "session-1", std::nullopt));
  ASSERT_TRUE(copy);
  EXPECT_FALSE(copy->playlistToken());
  EXPECT_FALSE(copy->timestamp());
}

TEST(ListenEventArchiveFormTest, ValuesOfTheWrongKindAreRefused) {
  EXPECT_FALSE(QLListenEvent::initWithCoder(nlohmann::json::array()));
  EXPECT_FALSE(QLListenEvent::initWithCoder(nlohmann::json{{"chapterNumber", "seven"}}));
  EXPECT_FALSE(QLListenEvent::initWithCoder(nlohmann::json{{"startOffset", -4}}));
  EXPECT_FALSE(QLListenEvent::initWithCoder(nlohmann::json{{"sessionKey", 12}}));
  EXPECT_FALSE(QLListenEvent::initWithCoder(nlohmann::json{{"speedControl", 1.5}}));
  // Missing keys read as zero, as keyed archives always did.
  auto sparse = QLListenEvent::initWithCoder(nlohmann::json::object());
  ASSERT_TRUE(sparse);
  EXPECT_EQ(sparse->chapterNumber(), 0u);
  EXPECT_FALSE(sparse->sessionKey());
}

}  // namespace
}  // namespace sonorell
