// The virtual backend under the test clock: the same scenarios as the GStreamer backend, with
// time moved by hand, so every outcome is exact.
#include <gtest/gtest.h>

#include <thread>

#include "media_test_support.h"
#include "platform/dispatch/clock.h"
#include "platform/media/media_errors.h"
#include "platform/media/virtual/virtual_queue_player.h"

namespace sonorell {
namespace {

using namespace std::chrono_literals;
using testing::FileLoaderDelegate;
using testing::PlayerRecorder;
using ItemPtr = std::shared_ptr<PlayerItem>;

class VirtualPlayerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    chapter_ = testing::makeMp3(dir_.path(), "chapter.mp3", 4.0);
    player_ = VirtualQueuePlayer::create();
    recorder_ = std::make_unique<PlayerRecorder>(*player_);
  }

  std::shared_ptr<PlayerItem> item(const std::string& name) {
    return item(name, FileLoaderDelegate::Behaviour());
  }
  std::shared_ptr<PlayerItem> item(const std::string& name,
                                   FileLoaderDelegate::Behaviour behaviour) {
    auto delegate = std::make_shared<FileLoaderDelegate>(chapter_, std::move(behaviour));
    delegates_.push_back(delegate);
    auto made = testing::makeItem("qlso://" + name, delegate, loaderQueue_);
    recorder_->watch(made);
    return made;
  }

  void idle() { ASSERT_TRUE(clock_->runUntilIdle()); }
  void advance(Duration by) {
    clock_->advance(by);
    idle();
  }
  double now() { return player_->currentTime().seconds(); }

  testing::TempDir dir_;
  ScopedVirtualClock clock_;
  std::filesystem::path chapter_;
  DispatchQueuePtr loaderQueue_ = DispatchQueue::create("io.sonorell.test.loader");
  std::vector<std::shared_ptr<FileLoaderDelegate>> delegates_;
  std::shared_ptr<VirtualQueuePlayer> player_;
  std::unique_ptr<PlayerRecorder> recorder_;
};

TEST_F(VirtualPlayerTest, ItemBecomesReadyWithDurationFromLengthAndBitrate) {
  auto a = item("a.mp3");
  ASSERT_TRUE(player_->insertItem(a, nullptr));
  idle();
  EXPECT_EQ(a->status(), PlayerItemStatus::ReadyToPlay);
  // 64 kbit/s: 8000 bytes per second of the file's length (the encoder adds a few frames).
  double expected = (delegates_[0]->size() - 0.0) * 8 / 64000;
  EXPECT_NEAR(a->duration().seconds(), expected, 0.01);
  EXPECT_NEAR(a->duration().seconds(), 4.0, 0.15);
  EXPECT_GE(delegates_[0]->requests(), 2);  // content information first, then the data
  EXPECT_EQ(now(), 0.0);
}

TEST_F(VirtualPlayerTest, QueueOfThreePlaysThroughWithTwoChangesAndThreeEnds) {
  auto a = item("a.mp3"), b = item("b.mp3"), c = item("c.mp3");
  for (auto& i : {a, b, c}) ASSERT_TRUE(player_->insertItem(i, nullptr));
  idle();
  player_->play();
  idle();
  double total = a->duration().seconds() + b->duration().seconds() + c->duration().seconds();
  advance(std::chrono::duration_cast<Duration>(std::chrono::duration<double>(total / 2)));
  EXPECT_EQ(player_->currentItem(), b);
  advance(std::chrono::duration_cast<Duration>(std::chrono::duration<double>(total / 2 + 0.01)));

  auto events = recorder_->events();
  std::vector<std::string> order;
  for (auto& e : events) {
    if (e.kind == "current" || e.kind == "end") order.push_back(e.kind);
  }
  // The first insertion makes `a` current; two changes between chapters and three ends; the
  // last end empties the queue (action advance).
  EXPECT_EQ(order, (std::vector<std::string>{"current", "end", "current", "end", "current", "end",
                                             "current"}));
  EXPECT_EQ(player_->currentItem(), nullptr);
}

TEST_F(VirtualPlayerTest, ActionNoneKeepsTheLastItemAtItsEnd) {
  auto a = item("a.mp3");
  player_->insertItem(a, nullptr);
  player_->setActionAtItemEnd(ActionAtItemEnd::None);
  idle();
  player_->play();
  idle();
  advance(10s);
  EXPECT_EQ(player_->currentItem(), a);
  EXPECT_EQ(recorder_->count("end"), 1u);
  EXPECT_NEAR(now(), a->duration().seconds(), 1e-6);
}

TEST_F(VirtualPlayerTest, SeekToTwoSecondsReadsTwoAndTimeRunsFromThere) {
  auto a = item("a.mp3");
  player_->insertItem(a, nullptr);
  bool finished = false;
  // Made before the item is ready: it waits for it.
  player_->seekToTime(MediaTime::make(2, 1), [&](bool done) { finished = done; });
  idle();
  EXPECT_TRUE(finished);
  EXPECT_DOUBLE_EQ(now(), 2.0);
  player_->setRate(1.0f);
  idle();
  advance(500ms);
  EXPECT_NEAR(now(), 2.5, 1e-6);
}

TEST_F(VirtualPlayerTest, SeekCompletionRunsOnTheQueueThatAskedForIt) {
  struct Reply {
    std::string seek;
    bool finished;
    DispatchQueue* ranOn;
    bool onMainThread;
  };
  std::mutex mutex;
  std::vector<Reply> replies;
  auto reply = [&](std::string seek) {
    return [&, seek](bool finished) {
      std::lock_guard lock(mutex);
      replies.push_back({seek, finished, DispatchQueue::current(), DispatchQueue::isMainThread()});
    };
  };
  // The loader is held back, so the first seek still waits for the item when the second one
  // supersedes it.
  Semaphore loaderGate;
  loaderQueue_->async([&] { loaderGate.wait(); });
  auto a = item("a.mp3");
  player_->insertItem(a, nullptr);
  auto first = DispatchQueue::create("io.sonorell.test.first");
  auto second = DispatchQueue::create("io.sonorell.test.second");
  first->sync([&] { player_->seekToTime(MediaTime::make(1, 1), reply("first")); });
  second->sync([&] { player_->seekToTime(MediaTime::make(2, 1), reply("second")); });
  loaderGate.signal();
  idle();
  EXPECT_DOUBLE_EQ(now(), 2.0);
  // From a thread that serves no queue the answer comes on the main queue.
  player_->seekToTime(MediaTime::make(3, 1), reply("no queue"));
  idle();
  EXPECT_DOUBLE_EQ(now(), 3.0);

  std::lock_guard lock(mutex);
  ASSERT_EQ(replies.size(), 3u);
  EXPECT_EQ(replies[0].seek, "first");
  EXPECT_FALSE(replies[0].finished);  // superseded
  EXPECT_EQ(replies[0].ranOn, first.get());
  EXPECT_EQ(replies[1].seek, "second");
  EXPECT_TRUE(replies[1].finished);
  EXPECT_EQ(replies[1].ranOn, second.get());
  EXPECT_EQ(replies[2].seek, "no queue");
  EXPECT_TRUE(replies[2].finished);
  EXPECT_EQ(replies[2].ranOn, DispatchQueue::main().get());
  EXPECT_TRUE(replies[2].onMainThread);
}

TEST_F(VirtualPlayerTest, ObserversAndDelegatesWithoutAQueueAreRefusedAndLogged) {
  testing::PlatformLogLines log;
  std::atomic<int> refusedCalls{0};
  auto a = item("a.mp3");
  std::vector<ObservationToken> refused = {
      player_->addPeriodicTimeObserver(MediaTime::make(1, 10), nullptr,
                                       [&](MediaTime) { ++refusedCalls; }),
      player_->observeCurrentItem(nullptr, [&](ItemPtr, ItemPtr) { ++refusedCalls; }),
      a->observeStatus(nullptr, [&](PlayerItemStatus, PlayerItemStatus) { ++refusedCalls; }),
      a->observeEvents(nullptr, [&](PlayerItemEvent, ErrorPtr) { ++refusedCalls; }),
  };
  for (const auto& token : refused) ASSERT_NE(token, nullptr);
  // A loader whose delegate comes without a queue has no delegate: its item fails.
  auto delegate = std::make_shared<FileLoaderDelegate>(chapter_);
  auto b = PlayerItem::create("qlso://b.mp3");
  b->resourceLoader().setDelegate(delegate, nullptr);
  EXPECT_EQ(b->resourceLoader().delegate(), nullptr);
  recorder_->watch(b);

  player_->insertItem(a, nullptr);
  player_->insertItem(b, nullptr);
  idle();
  player_->play();
  idle();
  advance(5s);
  // Everything the refused observers asked for happened: the recorder heard it on its queue.
  EXPECT_EQ(recorder_->count("end"), 1u);
  EXPECT_GE(recorder_->count("current"), 2u);
  EXPECT_GE(recorder_->count("status"), 2u);
  EXPECT_EQ(refusedCalls, 0);
  EXPECT_EQ(b->status(), PlayerItemStatus::Failed);
  EXPECT_EQ(b->error()->code, kMediaErrorResourceUnavailable);
  EXPECT_EQ(delegate->requests(), 0);
  for (const char* call :
       {"QueuePlayer::addPeriodicTimeObserver", "QueuePlayer::observeCurrentItem",
        "PlayerItem::observeStatus", "PlayerItem::observeEvents", "ResourceLoader::setDelegate"}) {
    EXPECT_EQ(log.count(call, LogType::Error), 1u) << call;
  }
  for (const auto& token : refused) token->invalidate();  // inert, but safe to use
}

TEST_F(VirtualPlayerTest, InvalidatedOrDroppedTokenLetsGoOfWhatItsCallbackHolds) {
  // An owner captured strongly by its own callback is freed once its token is switched off, even
  // while the owner keeps the token.
  auto queue = DispatchQueue::create("io.sonorell.test.holder");
  auto timeOwner = std::make_shared<int>(1), itemOwner = std::make_shared<int>(2);
  std::weak_ptr<int> timeWatch = timeOwner, itemWatch = itemOwner;
  auto timeToken =
      player_->addPeriodicTimeObserver(MediaTime::make(1, 10), queue, [timeOwner](MediaTime) {});
  auto itemToken = player_->observeCurrentItem(queue, [itemOwner](ItemPtr, ItemPtr) {});
  timeOwner.reset();
  itemOwner.reset();
  EXPECT_FALSE(timeWatch.expired());
  EXPECT_FALSE(itemWatch.expired());
  timeToken->invalidate();
  itemToken->invalidate();
  EXPECT_TRUE(timeWatch.expired());
  EXPECT_TRUE(itemWatch.expired());

  auto a = item("a.mp3");
  auto statusOwner = std::make_shared<int>(3);
  std::weak_ptr<int> statusWatch = statusOwner;
  auto statusToken = a->observeStatus(queue, [statusOwner](PlayerItemStatus, PlayerItemStatus) {});
  statusOwner.reset();
  EXPECT_FALSE(statusWatch.expired());
  statusToken.reset();
  EXPECT_TRUE(statusWatch.expired());
}

TEST_F(VirtualPlayerTest, OwnerRemovedOnItsQueueHearsNothingMoreWhileThePlayerRuns) {
  // Two items take turns as the current one at every millisecond of playing time, so the player
  // reports time and item changes as fast as it can while a thousand owners come and go.
  auto a = item("a.mp3"), b = item("b.mp3");
  ASSERT_TRUE(player_->insertItem(a, nullptr));
  ASSERT_TRUE(player_->insertItem(b, nullptr));
  idle();
  player_->play();
  idle();
  std::atomic<bool> stop{false};
  std::thread driver([&] {
    while (!stop) {
      clock_->advance(1ms);
      player_->advanceToNextItem();
      // Back at the end; an item the player dropped at its end comes back too.
      for (const auto& i : {a, b}) player_->insertItem(i, nullptr);
      if (player_->rate() == 0.0f) player_->play();
    }
  });
  constexpr int kRounds = 1000;
  auto tally = testing::runOwnerTeardownRounds(*player_, kRounds, [] {});
  stop = true;
  driver.join();
  idle();
  EXPECT_EQ(tally->roundsHeard, kRounds);
  EXPECT_EQ(tally->late, 0);
  EXPECT_GE(tally->ticks, kRounds);
  EXPECT_GE(tally->changes, kRounds);
}

TEST_F(VirtualPlayerTest, RateTwoRunsTimeTwiceAsFastAndPeriodicObserverTicks) {
  auto a = item("a.mp3");
  player_->insertItem(a, nullptr);
  idle();
  std::vector<double> ticks;
  auto queue = DispatchQueue::create("io.sonorell.test.ticks");
  auto token = player_->addPeriodicTimeObserver(MediaTime::fromSeconds(0.5), queue,
                                                [&](MediaTime t) { ticks.push_back(t.seconds()); });
  player_->setRate(2.0f);
  idle();
  advance(1s);
  EXPECT_NEAR(now(), 2.0, 1e-6);
  ASSERT_EQ(ticks.size(), 2u);
  EXPECT_NEAR(ticks[0], 1.0, 1e-6);
  EXPECT_NEAR(ticks[1], 2.0, 1e-6);
  token.reset();
  advance(1s);
  EXPECT_EQ(ticks.size(), 2u);  // the dropped token stops the ticks
}

TEST_F(VirtualPlayerTest, LoaderThatStopsAnsweringStallsWhereItsBytesEnd) {
  FileLoaderDelegate::Behaviour stall;
  stall.stallAt = 16000;  // two seconds at 8000 bytes per second
  auto a = item("a.mp3", stall);
  player_->insertItem(a, nullptr);
  idle();
  player_->play();
  idle();
  advance(1900ms);
  EXPECT_EQ(recorder_->count("stalled"), 0u);
  EXPECT_FALSE(a->isPlaybackLikelyToKeepUp());  // less than 2 s left ahead
  EXPECT_FALSE(a->isPlaybackBufferEmpty());
  advance(200ms);
  EXPECT_EQ(recorder_->count("stalled"), 1u);
  EXPECT_TRUE(a->isPlaybackBufferEmpty());
  EXPECT_FALSE(a->isPlaybackLikelyToKeepUp());
  EXPECT_EQ(player_->rate(), 0.0f);
  double at = now();
  advance(5s);
  EXPECT_DOUBLE_EQ(now(), at);  // time stands while stalled
  EXPECT_EQ(recorder_->count("end"), 0u);
}

TEST_F(VirtualPlayerTest, LoaderErrorFailsTheItemWithThatError) {
  FileLoaderDelegate::Behaviour fail;
  fail.failAt = 20000;
  fail.failError =
      Error::make(std::string(kURLLoadingErrorDomain), kURLErrorTimedOut, "timed out", nullptr);
  auto a = item("a.mp3", fail);
  player_->insertItem(a, nullptr);
  idle();
  player_->play();
  idle();
  advance(1s);
  ASSERT_EQ(a->status(), PlayerItemStatus::Failed);
  ASSERT_TRUE(a->error());
  EXPECT_EQ(a->error()->domain, kURLLoadingErrorDomain);
  EXPECT_EQ(a->error()->code, kURLErrorTimedOut);
  advance(10s);
  EXPECT_EQ(recorder_->count("end"), 0u);
}

TEST_F(VirtualPlayerTest, ContentShorterThanStatedEndsEarlyAndIsReported) {
  FileLoaderDelegate::Behaviour shortFile;
  shortFile.statedLength = static_cast<int64_t>(std::filesystem::file_size(chapter_) +
                                                16000);  // claims two seconds more
  auto a = item("a.mp3", shortFile);
  player_->insertItem(a, nullptr);
  idle();
  EXPECT_NEAR(a->duration().seconds(), 6.0, 0.2);
  player_->play();
  idle();
  advance(5s);
  ASSERT_EQ(recorder_->count("failedToEnd"), 1u);
  EXPECT_EQ(recorder_->count("end"), 0u);
  for (auto& e : recorder_->events()) {
    if (e.kind != "failedToEnd") continue;
    ASSERT_TRUE(e.error);
    EXPECT_EQ(e.error->code, kMediaErrorContentEndedEarly);
  }
  EXPECT_LT(now(), a->duration().seconds() - 1.5);
}

TEST_F(VirtualPlayerTest, InsertRemoveAndAdvanceKeepTheQueueInOrder) {
  auto a = item("a.mp3"), b = item("b.mp3"), c = item("c.mp3");
  EXPECT_TRUE(player_->insertItem(a, nullptr));
  EXPECT_TRUE(player_->insertItem(c, nullptr));
  EXPECT_TRUE(player_->insertItem(b, a));
  EXPECT_FALSE(player_->insertItem(b, nullptr));  // already queued
  auto other = VirtualQueuePlayer::create();
  EXPECT_FALSE(other->canInsertItem(a, nullptr));  // held by this player
  EXPECT_EQ(player_->items(), (std::vector<std::shared_ptr<PlayerItem>>{a, b, c}));
  player_->advanceToNextItem();
  EXPECT_EQ(player_->currentItem(), b);
  player_->removeItem(c);
  EXPECT_EQ(player_->items().size(), 1u);
  player_->removeAllItems();
  idle();
  EXPECT_EQ(player_->currentItem(), nullptr);
  EXPECT_TRUE(other->canInsertItem(a, nullptr));  // released with its removal
  ASSERT_TRUE(other->insertItem(c, nullptr));
  other.reset();
  idle();                                           // its queued work may hold it a little longer
  EXPECT_TRUE(player_->canInsertItem(c, nullptr));  // released with the player that held it
  std::vector<std::pair<std::string, std::string>> changes;
  for (auto& e : recorder_->events()) {
    if (e.kind == "current") {
      changes.emplace_back(e.oldItem ? e.oldItem->url() : "-", e.item ? e.item->url() : "-");
    }
  }
  EXPECT_EQ(changes,
            (std::vector<std::pair<std::string, std::string>>{
                {"-", "qlso://a.mp3"}, {"qlso://a.mp3", "qlso://b.mp3"}, {"qlso://b.mp3", "-"}}));
}

TEST_F(VirtualPlayerTest, RedirectIsServedByTheResolverOrFailsWithoutOne) {
  FileLoaderDelegate::Behaviour redirect;
  redirect.redirect = HttpRedirect{"http://example.invalid/a.mp3", {{"X-Request-Id", "1"}}};
  auto a = item("a.mp3", redirect);
  player_->insertItem(a, nullptr);
  idle();
  EXPECT_EQ(a->status(), PlayerItemStatus::Failed);
  EXPECT_EQ(a->error()->code, kMediaErrorNetworkReadFailed);

  std::optional<HttpRedirect> seen;
  auto network = std::make_shared<FileLoaderDelegate>(chapter_);
  player_->setRedirectResolver([&](const HttpRedirect& r) {
    seen = r;
    return network;
  });
  auto b = item("b.mp3", redirect);
  player_->removeAllItems();
  player_->insertItem(b, nullptr);
  idle();
  EXPECT_EQ(b->status(), PlayerItemStatus::ReadyToPlay);
  ASSERT_TRUE(seen);
  EXPECT_EQ(seen->url, "http://example.invalid/a.mp3");
  EXPECT_GT(network->requests(), 0);
}

}  // namespace
}  // namespace sonorell
