// What a host sees of the engine's logging: the version prefix, every level reaching the
// listener regardless of the log level, and the listener and logger being replaceable.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "core/logging.h"
#include "platform/log/platform_log.h"
#include "support/recording_listener.h"

namespace sonorell {
namespace {

using testing::RecordingListener;

class CountingLog : public UnifiedLog {
 public:
  explicit CountingLog(bool enabled) : enabled_(enabled) {}
  bool isEnabled(LogType) const override { return enabled_; }
  void emit(LogType type, const char* line) override { emitted.emplace_back(type, line); }
  std::vector<std::pair<LogType, std::string>> emitted;

 private:
  bool enabled_;
};

class LogEngineTest : public ::testing::Test {
 protected:
  void SetUp() override { QSOLogEngine::setListener(listener); }
  void TearDown() override { QSOLogEngine::setListener(nullptr); }
  std::shared_ptr<RecordingListener> listener = std::make_shared<RecordingListener>();
};

TEST_F(LogEngineTest, LinesBeginWithTheVersionInBrackets) {
  LogEngineInfo("[DownloadEngine] -(void)pauseAll");
  LogEngineError("[AudioTask] chapter %@ part %lu took %.1f s", "12345_0_3", 7ul, 2.25);
  LogEngineInfo("100% done %@ %d");  // without arguments the format is logged as it is
  auto lines = listener->lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].second, "[6.5.8] [DownloadEngine] -(void)pauseAll");
  EXPECT_EQ(lines[1].second, "[6.5.8] [AudioTask] chapter 12345_0_3 part 7 took 2.2 s");
  EXPECT_EQ(lines[2].second, "[6.5.8] 100% done %@ %d");
  EXPECT_EQ(prepareFormat("x"), "[6.5.8] x");
}

TEST_F(LogEngineTest, EveryLevelReachesTheListenerWhateverTheLogLevel) {
  EXPECT_EQ(QSOLogEngine::currentLogLevel(), 1u);
  for (uint64_t level : {0ull, 1ull, 4ull, ~0ull}) {
    QSOLogEngine::setLogLevel(level);
    LogEngineError("e");
    LogEngineWarning("w");
    LogEngineInfo("i");
    LogEngineVerbose("v");
  }
  auto lines = listener->lines();
  ASSERT_EQ(lines.size(), 16u);
  for (size_t i = 0; i < lines.size(); i += 4) {
    EXPECT_EQ(lines[i].first, "error");
    EXPECT_EQ(lines[i + 1].first, "warning");
    EXPECT_EQ(lines[i + 2].first, "info");
    EXPECT_EQ(lines[i + 3].first, "verbose");
  }
  QSOLogEngine::setLogLevel((1ull << 32) + 2);  // stored wide, read back narrow
  EXPECT_EQ(QSOLogEngine::currentLogLevel(), 2u);
}

TEST_F(LogEngineTest, PlatformLinesReachTheListenerWithTheVersion) {
  platform_log::info("[TransferService] session %@ adopted %d tasks", "QLSO_1", 2);
  ASSERT_EQ(listener->lines().size(), 1u);
  EXPECT_EQ(
      listener->lines()[0],
      std::make_pair(std::string("info"),
                     std::string("[6.5.8] [TransferService] session QLSO_1 adopted 2 tasks")));
}

// A listener whose calls block until the test lets them go.
class GatedListener : public QSOLogListener {
 public:
  void logError(const std::string&) override {}
  void logWarning(const std::string&) override {}
  void logVerbose(const std::string&) override {}
  void logInfo(const std::string&) override {
    std::unique_lock lock(mutex);
    entered = true;
    changed.notify_all();
    changed.wait(lock, [&] { return released; });
    sawReplacementReturn = replacementReturned.load();
  }
  std::mutex mutex;
  std::condition_variable changed;
  bool entered = false;
  bool released = false;
  std::atomic<bool> replacementReturned{false};
  bool sawReplacementReturn = false;
};

TEST_F(LogEngineTest, ReplacingTheListenerWaitsForCallsUnderWay) {
  auto gated = std::make_shared<GatedListener>();
  QSOLogEngine::setListener(gated);
  std::thread logger([] { LogEngineInfo("in flight"); });
  {
    std::unique_lock lock(gated->mutex);
    gated->changed.wait(lock, [&] { return gated->entered; });
  }
  std::thread replacer([&] {
    QSOLogEngine::setListener(nullptr);
    gated->replacementReturned = true;
  });
  while (QSOLogEngine::listener() != nullptr) std::this_thread::yield();
  {
    // Give a replacement that does not wait the chance to return before the call ends.
    std::unique_lock lock(gated->mutex);
    gated->changed.wait_for(lock, std::chrono::milliseconds(100),
                            [&] { return gated->replacementReturned.load(); });
    gated->released = true;
    gated->changed.notify_all();
  }
  logger.join();
  replacer.join();
  EXPECT_FALSE(gated->sawReplacementReturn) << "setListener returned while a call was under way";
  LogEngineInfo("after");
  EXPECT_TRUE(gated->replacementReturned);
}

// A listener that removes itself from inside its own callback.
class SelfRemovingListener : public RecordingListener {
 public:
  void logWarning(const std::string& line) override {
    RecordingListener::logWarning(line);
    QSOLogEngine::setListener(nullptr);
  }
};

TEST_F(LogEngineTest, AListenerMayRemoveItselfFromItsCallback) {
  auto self = std::make_shared<SelfRemovingListener>();
  QSOLogEngine::setListener(self);
  LogEngineWarning("first");
  LogEngineWarning("second");
  ASSERT_EQ(self->lines().size(), 1u);
  EXPECT_EQ(QSOLogEngine::listener(), nullptr);
}

TEST_F(LogEngineTest, WithoutAListenerLinesGoOnlyToTheLogAndOnlyWhenItsTypeIsEnabled) {
  LogEngineInfo("before");
  QSOLogEngine::setListener(nullptr);
  auto enabled = std::make_shared<CountingLog>(true);
  QSOLogEngine::setLogger(enabled);
  LogEngineWarning("[X] %@", "warned");
  ASSERT_EQ(listener->lines().size(), 1u) << "removing the listener stops the calls at once";
  EXPECT_EQ(listener->lines()[0].second, "[6.5.8] before");
  ASSERT_EQ(enabled->emitted.size(), 1u);
  EXPECT_EQ(enabled->emitted[0].first, LogType::Default);
  EXPECT_EQ(enabled->emitted[0].second, "[6.5.8] [X] warned");

  auto disabled = std::make_shared<CountingLog>(false);
  QSOLogEngine::setLogger(disabled);
  LogEngineWarning("[X] dropped by the log's own settings");
  EXPECT_TRUE(disabled->emitted.empty());
  QSOLogEngine::setLogger(UnifiedLog::defaultLog());
}

}  // namespace
}  // namespace sonorell
