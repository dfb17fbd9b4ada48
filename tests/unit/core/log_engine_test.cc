// What a host sees of the engine's logging: the version prefix, every level reaching the
// listener regardless of the log level, and the listener and logger being replaceable.
#include <gtest/gtest.h>

#include <memory>

#include "sonorell/log_engine.h"
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
  auto lines = listener->lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].second, "[6.5.8] [DownloadEngine] -(void)pauseAll");
  EXPECT_EQ(lines[1].second, "[6.5.8] [AudioTask] chapter 12345_0_3 part 7 took 2.2 s");
  EXPECT_EQ(prepareFormat("x"), "[6.5.8] x");
}

TEST_F(LogEngineTest, EveryLevelReachesTheListenerWhateverTheLogLevel) {
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
}

TEST_F(LogEngineTest, LevelIsStoredWideAndReadBackNarrow) {
  EXPECT_EQ(QSOLogEngine::currentLogLevel(), 1u);
  QSOLogEngine::setLogLevel((1ull << 32) + 2);
  EXPECT_EQ(QSOLogEngine::currentLogLevel(), 2u);
}

TEST_F(LogEngineTest, AFormatWithoutArgumentsIsLoggedAsItIs) {
  LogEngineInfo("100% done %@ %d");
  EXPECT_EQ(listener->lines().at(0).second, "[6.5.8] 100% done %@ %d");
}

TEST_F(LogEngineTest, RemovingTheListenerStopsTheCallsAtOnce) {
  LogEngineInfo("before");
  QSOLogEngine::setListener(nullptr);
  LogEngineInfo("after");
  LogEngineVerbose("after");
  auto lines = listener->lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].second, "[6.5.8] before");
}

TEST_F(LogEngineTest, WithoutAListenerLinesStillReachTheLogWhenItsTypeIsEnabled) {
  QSOLogEngine::setListener(nullptr);
  auto enabled = std::make_shared<CountingLog>(true);
  QSOLogEngine::setLogger(enabled);
  LogEngineWarning("[X] %@", "warned");
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
