// Start-up of the engine as a host drives it: one engine and one migration run however many
// threads ask, launch set-up once, the background notification, and the legacy file move.
#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>
#include <vector>

#include "core/service_urls.h"
#include "persistence/filesystem_helper.h"
#include "platform/dispatch/dispatch_queue.h"
#include "platform/foundation/process_activity.h"
#include "platform/services.h"
#include "sonorell/audio_session.h"
#include "sonorell/facade.h"
#include "sonorell/log_engine.h"
#include "support/notification_recorder.h"
#include "support/recording_listener.h"
#include "support/temp_library.h"

namespace sonorell {
namespace {

namespace fs = std::filesystem;
using testing::NotificationRecorder;
using testing::RecordingListener;
using testing::TempLibrary;

class FacadeTest : public ::testing::Test {
 protected:
  void SetUp() override { QSOLogEngine::setListener(listener); }
  void TearDown() override { QSOLogEngine::setListener(nullptr); }
  TempLibrary library;
  std::shared_ptr<RecordingListener> listener = std::make_shared<RecordingListener>();
};

TEST_F(FacadeTest, RacingThreadsGetOneEngineAndOneMigrationRun) {
  constexpr int kThreads = 8;
  std::barrier start(kThreads);
  std::vector<std::shared_ptr<QSOSonorell>> seen(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      start.arrive_and_wait();
      seen[i] = QSOSonorell::sharedEngine();
    });
  }
  for (auto& t : threads) t.join();
  for (const auto& engine : seen) {
    ASSERT_NE(engine, nullptr);
    EXPECT_EQ(engine, seen[0]);
  }
  EXPECT_NE(seen[0]->downloadEngine(), nullptr);
  EXPECT_NE(seen[0]->playbackEngine(), nullptr);
  EXPECT_EQ(listener->count("[Migration] No legacy download information found"), 1u);
  EXPECT_EQ(listener->count("[FilesystemMigration] No legacy chapter files found"), 1u);
}

class CountingLog : public UnifiedLog {
 public:
  bool isEnabled(LogType) const override { return true; }
  void emit(LogType, const char*) override {}
};

TEST_F(FacadeTest, DidFinishLaunchingSetsUpOnce) {
  auto engine = QSOSonorell::sharedEngine();
  auto hostLog = std::make_shared<CountingLog>();
  QSOLogEngine::setLogger(hostLog);
  engine->didFinishLaunching();
  EXPECT_NE(QSOLogEngine::logger(), hostLog) << "launch installs the engine's own log";
  EXPECT_TRUE(fs::is_directory(FilesystemHelper::supportDirectory()));

  QSOLogEngine::setLogger(hostLog);
  // Start-up verification runs on its own queue and writes the database: let it finish first.
  ASSERT_TRUE(DispatchQueue::waitUntilAllIdle(std::chrono::seconds(20)));
  fs::remove_all(FilesystemHelper::supportDirectory());
  std::thread other([&] { engine->didFinishLaunching(); });
  engine->didFinishLaunching();
  other.join();
  EXPECT_EQ(QSOLogEngine::logger(), hostLog) << "logging was set up a second time";
  EXPECT_FALSE(fs::exists(FilesystemHelper::supportDirectory())) << "stores set up a second time";
}

TEST_F(FacadeTest, EnteringTheBackgroundPostsExactlyBackgroundYes) {
  NotificationRecorder recorder("QLBackgrounded");
  QSOSonorell::sharedEngine()->didEnterBackground();
  ASSERT_TRUE(recorder.waitFor(1));
  auto received = recorder.received();
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0].userInfo, (Dictionary{{"background", Value("YES")}}));
}

TEST_F(FacadeTest, HostServiceURLsWinOverTheEnvironment) {
  ::setenv("SONORELL_API_BASE_URL", "https://env.example", 1);
  EXPECT_EQ(ServiceURLs::apiBaseURL(), "https://env.example");
  EXPECT_EQ(ServiceURLs::analyticsURL(), "https://env.example/v4/analytics");
  ::setenv("SONORELL_ANALYTICS_URL", "https://stats.example/v4/analytics", 1);
  EXPECT_EQ(ServiceURLs::analyticsURL(), "https://stats.example/v4/analytics");
  QSOSonorell::setContentAPIBaseURL("https://host.example");
  QSOSonorell::setAnalyticsURL("https://host.example/a");
  EXPECT_EQ(ServiceURLs::apiBaseURL(), "https://host.example");
  EXPECT_EQ(ServiceURLs::analyticsURL(), "https://host.example/a");
}

TEST_F(FacadeTest, TransferServiceLinesReachTheHostListener) {
  auto transfers = Services::system()->transfers;
  ASSERT_NE(transfers, nullptr);
  TransferSessionConfiguration configuration;
  configuration.identifier = "QLSO_listener";
  auto first = transfers->sessionWithConfiguration(configuration, {});
  auto second = transfers->sessionWithConfiguration(configuration, {});
  EXPECT_EQ(first, second);
  EXPECT_EQ(listener->count("[6.5.8] [TransferService] a session named QLSO_listener is already "
                            "live; reusing it"),
            1u);
  first->invalidateAndCancel();
}

TEST_F(FacadeTest, HostAudioEventsReachTheEnginesAudioSession) {
  auto session = Services::system()->audioSession;
  auto queue = DispatchQueue::create("test.audio");
  std::mutex mutex;
  std::vector<AudioSessionEvent> events;
  auto token = session->observe(queue, [&](const AudioSessionEvent& event) {
    std::lock_guard lock(mutex);
    events.push_back(event);
  });
  QSOAudioSessionEvents::setOutputRoute(std::string(QSOAudioPortHeadphones), "Jack",
                                        QSOAudioRouteChangeReason::NewDeviceAvailable);
  QSOAudioSessionEvents::interruption(QSOAudioInterruption::Began);
  QSOAudioSessionEvents::mediaServicesReset();
  queue->sync([&] { token->invalidate(); });
  ASSERT_EQ(events.size(), 3u);
  EXPECT_EQ(events[0].kind, AudioSessionEvent::Kind::RouteChange);
  EXPECT_EQ(events[0].routeChangeReason, QSOAudioRouteChangeReason::NewDeviceAvailable);
  EXPECT_EQ(events[0].previousRoute.outputs.at(0).portType, QSOAudioPortBuiltInSpeaker);
  EXPECT_EQ(events[1].interruptionType, QSOAudioInterruption::Began);
  EXPECT_EQ(events[2].kind, AudioSessionEvent::Kind::MediaServicesReset);
  EXPECT_EQ(session->currentRoute().outputs.at(0).portType, QSOAudioPortHeadphones);
}

TEST_F(FacadeTest, AHostCanWaitForWorkThatMustNotBeCutShort) {
  const auto activity = ProcessActivity::begin("moving a chapter");
  EXPECT_FALSE(QSOSonorell::waitForOpenActivities(std::chrono::milliseconds(0)));
  std::thread ender([&] { ProcessActivity::end(activity); });
  EXPECT_TRUE(QSOSonorell::waitForOpenActivities(std::chrono::seconds(10)));
  ender.join();
}

TEST_F(FacadeTest, FlatChapterFilesOfEarlierVersionsMoveIntoTheirAudiobookDirectory) {
  fs::path audio = FilesystemHelper::audioParentDirectory();
  fs::create_directories(audio);
  std::ofstream(audio / "123_0_1_audio.mp3") << "chapter one";
  std::ofstream(audio / "notes.txt") << "not a chapter";

  QSOSonorell::sharedEngine();

  QSOChapterDescription chapter("123", 0, 1);
  EXPECT_TRUE(FilesystemHelper::fileExists(chapter));
  EXPECT_FALSE(fs::exists(audio / "123_0_1_audio.mp3"));
  EXPECT_TRUE(fs::exists(audio / "notes.txt"));
  EXPECT_EQ(listener->count("[FilesystemMigration] Moved 1 chapter files"), 1u);
}

TEST_F(FacadeTest, ALegacyDownloadStoreIsReportedAndLeftInPlace) {
  fs::path support = FilesystemHelper::supportDirectory();
  fs::create_directories(support);
  std::ofstream(support / "DownloadInfo.sqlite") << "legacy";
  QSOSonorell::sharedEngine();
  EXPECT_TRUE(fs::exists(support / "DownloadInfo.sqlite"));
  EXPECT_EQ(listener->count("[Migration] Legacy download information found"), 1u);
}

}  // namespace
}  // namespace sonorell
