// Shared by the analytics tests: a temporary Library with its support directory, the virtual
// clock (installed before any poster exists), events made to order, and a reference server on
// 127.0.0.1 that the engine's analytics endpoint points at. Used from the test's thread.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "analytics/listen_event.h"
#include "analytics/listen_event_archive.h"
#include "analytics/listen_event_poster.h"
#include "content_server.h"
#include "core/service_urls.h"
#include "persistence/filesystem_helper.h"
#include "platform/dispatch/clock.h"
#include "platform/net/http_client.h"
#include "support/temp_library.h"

namespace sonorell::testing {

inline QLListenEventPtr makeEvent(uint64_t chapter, uint64_t start, uint64_t end,
                                  std::optional<std::string> sessionKey = "session-1",
                                  std::optional<std::string> token = "token-1") {
  auto event = std::make_shared<QLListenEvent>();
  event->setChapterNumber(chapter);
  event->setPartNumber(0);
  event->setStartOffset(start);
  event->setCurrentSecondOffset(end);
  event->setFinalOffset(end);
  event->setSessionKey(std::move(sessionKey));
  event->setPlaylistToken(std::move(token));
  event->setPlaybackRate(1.0f);
  event->setScreenState(2);
  return event;
}

using Chapters = std::vector<uint64_t>;

inline Chapters chapters(const std::vector<QLListenEventPtr>& events) {
  Chapters result;
  for (const auto& event : events) result.push_back(event->chapterNumber());
  return result;
}

// The queue the archive on disk holds now, read without touching the file.
inline std::vector<QLListenEventPtr> archivedEvents() {
  std::vector<QLListenEventPtr> events;
  for (auto& entry : ListenEventArchive::read(FilesystemHelper::listenEventsArchivePath())) {
    events.push_back(entry.event);
  }
  return events;
}

// A poster as the engine makes it: ten events per post, every 300 s.
inline std::shared_ptr<QLListenEventPoster> newPoster() {
  return QLListenEventPoster::create(HttpClient::shared(), 10, 300);
}

class AnalyticsTest : public ::testing::Test {
 protected:
  AnalyticsTest() {
    FilesystemHelper::createSupportDirectory();
    // A closed loopback port, so that no test ever posts beyond this machine by accident.
    ServiceURLs::setAnalyticsURL("https://127.0.0.1:9/v4/analytics");
  }

  TempLibrary library;
  ScopedVirtualClock clock;
};

// The reference server is started per test and the engine's analytics endpoint points at it.
class AnalyticsServerTest : public AnalyticsTest {
 protected:
  void SetUp() override {
    server.start();
    ServiceURLs::setAnalyticsURL(server.analyticsURL());
    HttpClient::shared()->setCABundle(server.caCertificatePath().string());
  }
  void TearDown() override { server.stop(); }

  std::vector<content::RecordedRequest> posts() const {
    return server.requests(content::Route::kAnalytics);
  }
  static nlohmann::json bodyOf(const content::RecordedRequest& request) {
    return nlohmann::json::parse(request.body, nullptr, false);
  }
  // Waits (real time, bounded) until the server has seen `count` analytics requests: the
  // requests travel over real sockets, so there is no timer to advance.
  bool waitForPosts(size_t count) const {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (server.requestCount(content::Route::kAnalytics) < count) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
  }

  content::ContentServer server;
};

}  // namespace sonorell::testing
