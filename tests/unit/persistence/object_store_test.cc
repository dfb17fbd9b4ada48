#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <random>
#include <thread>

#include "object_store_fixture.h"
#include "persistence/persistence_testing.h"
#include "sonorell/facade.h"
#include "support/raw_sqlite.h"

namespace sonorell::testing {
namespace {

constexpr std::string_view kNotInitialised =
    "[AudiobookDonwloadInfo] Attempted to use Sonorell without fully initializing. Make sure to "
    "call [[Sonorell sharedEngine] didFinishLaunching].";

// --- Before set-up ---

TEST_F(ObjectStoreTest, BeforeSetUpEveryOperationLogsAndGivesNothing) {
  auto engine = store();
  engine->addAudiobook(book("1", "One"));
  EXPECT_EQ(engine->audiobookForID("1"), nullptr);
  EXPECT_EQ(engine->audiobookCountForID("1"), 0u);
  EXPECT_EQ(engine->audiobooksCount(), 0u);
  EXPECT_TRUE(engine->audiobooksForPredicate({}, {}, 0).empty());
  EXPECT_TRUE(engine->audiobookIDs().empty());
  engine->removeAudiobookForID("1");
  engine->removeAllAudiobooks();
  EXPECT_EQ(logged(kNotInitialised), 8u);
  EXPECT_EQ(logged(std::string(kNotInitialised) + " QSOPersistenceEngine, addAudiobook:"), 1u);
  EXPECT_FALSE(std::filesystem::exists(storePath()));
}

// --- Set-up ---

TEST_F(ObjectStoreTest, DidFinishLaunchingCreatesAWALStoreAtTheCurrentModel) {
  QSOSonorell::sharedEngine()->didFinishLaunching();
  ASSERT_TRUE(store()->isInitialized());
  RawSqlite raw(storePath());
  EXPECT_EQ(raw.rows("PRAGMA journal_mode")[0][0], "wal");
  EXPECT_EQ(raw.integer("PRAGMA user_version"), 6);
  EXPECT_EQ(raw.integer("SELECT COUNT(*) FROM sqlite_master WHERE name IN ('QSOAudiobook', "
                        "'QSOChapter')"),
            2);
  store()->addAudiobook(book("7", "Seven"));
  EXPECT_EQ(store()->audiobooksCount(), 1u);
  EXPECT_EQ(logged(kNotInitialised), 0u);
}

TEST_F(ObjectStoreTest, BackgroundSetUpBlocksUntilTheMainQueueHasBuiltTheStore) {
  auto engine = store();
  // Hold the main queue so that the set-up cannot happen before the background thread waits.
  std::promise<void> releaseMain;
  std::shared_future<void> mainGate = releaseMain.get_future().share();
  DispatchQueue::main()->async([mainGate] { mainGate.wait(); });

  std::promise<void> waiting;
  setStoreSetUpWaitObserverForTesting([&waiting] { waiting.set_value(); });
  std::atomic<bool> returned{false};
  bool initializedWhenReturned = false;
  uint64_t countWhenReturned = 99;
  std::thread background([&] {
    engine->setUpStore();
    initializedWhenReturned = engine->isInitialized();
    countWhenReturned = engine->audiobooksCount();
    returned = true;
  });
  ASSERT_EQ(waiting.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
  EXPECT_FALSE(returned.load());
  EXPECT_FALSE(engine->isInitialized());

  releaseMain.set_value();
  background.join();
  EXPECT_TRUE(initializedWhenReturned);
  EXPECT_EQ(countWhenReturned, 0u);
  EXPECT_EQ(logged(kNotInitialised), 0u);
}

TEST_F(ObjectStoreTest, ManyBackgroundCallersAreAllReleasedAndLaterCallsReturnAtOnce) {
  auto engine = store();
  std::vector<std::thread> threads;
  std::atomic<int> sawInitialized{0};
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      engine->setUpStore();
      sawInitialized += engine->isInitialized() ? 1 : 0;
    });
  }
  setUpOnMain(engine);
  for (auto& t : threads) t.join();
  EXPECT_EQ(sawInitialized.load(), 4);
  setStoreSetUpWaitObserverForTesting([] { ADD_FAILURE() << "waited after set-up"; });
  engine->setUpStore();
}

// --- Adding and looking up ---

TEST_F(ObjectStoreTest, AddedDocumentReadsBackAsADetachedCopy) {
  setUpOnMain();
  Dictionary doc = book("12345", "The Hobbit", 12);
  doc["authors"] = Array{"J. R. R. Tolkien"};
  doc["narrators"] = Array{"Andy Serkis", "Rob Inglis"};
  doc["actual_size"] = int64_t{987654321};
  doc["chapterized"] = true;
  doc["street_date"] = "2017-03-04";
  doc["publisher"] = "It's \"quoted\" -- ok";
  doc["series"] = Array{"a", "b"};
  store()->addAudiobook(doc);
  store()->addAudiobook(book("1", "Hobbit, The"));
  // Titles and lists are stored as the transformers' bytes; the title reads back in display form.
  EXPECT_EQ(
      RawSqlite(storePath())
          .rows("SELECT typeof(title), CAST(title AS TEXT), "
                "typeof(series), CAST(series AS TEXT), typeof(awards), "
                "length(awards) FROM QSOAudiobook WHERE audiobookID='12345'"),
      (std::vector<std::vector<std::string>>{{"blob", "The Hobbit", "blob", "a,b", "blob", "0"}}));
  EXPECT_EQ(store()->audiobookForID("1")->title(), "The Hobbit");

  auto copy = store()->audiobookForID("12345");
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->title(), "The Hobbit");
  EXPECT_EQ(copy->authors(), std::vector<std::string>{"J. R. R. Tolkien"});
  EXPECT_EQ(copy->narrators(), (std::vector<std::string>{"Andy Serkis", "Rob Inglis"}));
  EXPECT_EQ(copy->actualSize(), 987654321);
  EXPECT_EQ(copy->chapterized(), true);
  EXPECT_EQ(copy->publisher(), "It's \"quoted\" -- ok");
  EXPECT_TRUE(copy->streetDate().has_value());
  EXPECT_EQ(copy->modifiedDate(), Date{});  // missing: the 1970 date, kept exactly
  EXPECT_TRUE(copy->awards().empty());
  auto chapters = copy->sortedChapters();
  ASSERT_EQ(chapters.size(), 12u);
  EXPECT_EQ(chapters.front()->partNumber(), 0);
  EXPECT_EQ(chapters.back()->partNumber(), 1);
  EXPECT_EQ(chapters.back()->chapterNumber(), 1);
  EXPECT_EQ(chapters.back()->duration(), 12000);
  EXPECT_NE(copy->chapterForPartNumber(1, 0), nullptr);

  // Changing the copy changes nothing stored.
  copy->setTitle("Changed");
  EXPECT_EQ(store()->audiobookForID("12345")->title(), "The Hobbit");
}

TEST_F(ObjectStoreTest, DuplicateAndMissingIdentifiersChangeNothingAndLogTheirLines) {
  setUpOnMain();
  store()->addAudiobook(book("42", "First", 3));
  store()->addAudiobook(book("42", "Second", 5));
  EXPECT_EQ(store()->audiobookCountForID("42"), 1u);
  EXPECT_EQ(store()->audiobookForID("42")->title(), "First");
  EXPECT_EQ(logged("[PersistenceEngine] Cannot add duplicate audiobook"), 1u);
  EXPECT_EQ(RawSqlite(storePath()).integer("SELECT COUNT(*) FROM QSOChapter"), 3);

  EXPECT_EQ(store()->audiobookForID("77"), nullptr);
  EXPECT_EQ(logged("[QSOPersistenceEngine] Unable to find audiobook for 77"), 1u);
  store()->removeAudiobookForID("77");
  EXPECT_EQ(logged("[PersistenceEngine] Unable to find audiobook for 77"), 1u);
}

// --- Paging ---

TEST_F(ObjectStoreTest, PageTwoOfTwentyIsObjectsFortyOneToSixty) {
  setUpOnMain();
  std::vector<int> order(100);
  for (int i = 0; i < 100; ++i) order[i] = i;
  std::shuffle(order.begin(), order.end(), std::mt19937(7));
  for (int i : order) {
    char title[16];
    std::snprintf(title, sizeof title, "Book %03d", i);
    store()->addAudiobook(book(std::to_string(i), title, 1));
  }
  store()->setAudiobooksPageSize(20);
  auto page = store()->audiobooksForPredicate({}, {{"title", true, false}}, 2);
  ASSERT_EQ(page.size(), 20u);
  for (size_t i = 0; i < page.size(); ++i) {
    EXPECT_EQ(page[i]->audiobookID(), std::to_string(40 + i));
    EXPECT_EQ(page[i]->chapters().size(), 1u);
  }

  auto descending = store()->audiobooksForPredicate({}, {{"title", false, false}}, 0);
  EXPECT_EQ(descending.front()->title(), "Book 099");

  EXPECT_TRUE(store()->audiobooksForPredicate({}, {{"title", true, false}}, 5).empty());
  EXPECT_EQ(logged("[QSOPersistenceEngine] Unable to find audiobooks for predicate"), 1u);

  store()->setAudiobooksPageSize(0);  // unlimited
  EXPECT_EQ(store()->audiobooksForPredicate({}, {}, 3).size(), 100u);
}

TEST_F(ObjectStoreTest, IdentifiersCountsAndPagesOfEqualSortKeysFollowTheOrderOfAddition) {
  setUpOnMain();
  const std::vector<std::string> ids{"30", "10", "20", "5", "6", "7", "8", "9", "11", "12"};
  for (const auto& id : ids) store()->addAudiobook(book(id, "Same", 0));
  EXPECT_EQ(store()->audiobooksCount(), 10u);
  EXPECT_EQ(store()->audiobookIDs(), ids);
  EXPECT_EQ(store()->audiobooksCountForPredicate(QSOAttribute("audiobookID").greaterThan("15")),
            7u);
  EXPECT_EQ(store()->audiobooksCountForPredicate(std::nullopt), 10u);
  store()->setAudiobooksPageSize(4);
  std::vector<std::string> paged;
  for (uint64_t page = 0; page < 3; ++page) {
    for (const auto& b : store()->audiobooksForPredicate({}, {{"title", true, false}}, page)) {
      paged.push_back(b->audiobookID());
    }
  }
  EXPECT_EQ(paged, ids) << "no overlap between pages";
}

TEST_F(ObjectStoreTest, RemovalsTakeTheirChaptersAndADeletedStoreStartsOverEmpty) {
  setUpOnMain();
  store()->addAudiobook(book("1", "One", 4));
  store()->addAudiobook(book("2", "Two", 3));
  store()->removeAudiobookForID("1");
  EXPECT_EQ(store()->audiobookForID("1"), nullptr);
  EXPECT_EQ(store()->audiobookForID("2")->chapters().size(), 3u);
  auto chapterRows = [] {
    return RawSqlite(storePath()).integer("SELECT COUNT(*) FROM QSOChapter");
  };
  EXPECT_EQ(chapterRows(), 3);

  store()->addAudiobook(book("3", "Three", 2));
  store()->removeAllAudiobooks();
  EXPECT_EQ(store()->audiobooksCount(), 0u);
  EXPECT_EQ(chapterRows(), 0);
  store()->addAudiobook(book("9", "After"));
  EXPECT_EQ(store()->audiobooksCount(), 1u);

  store()->deletePersistentStore();
  EXPECT_EQ(store()->audiobooksCount(), 0u);
  store()->addAudiobook(book("2", "Two"));
  EXPECT_EQ(store()->audiobookIDs(), std::vector<std::string>{"2"});
  EXPECT_EQ(RawSqlite(storePath()).integer("SELECT COUNT(*) FROM QSOAudiobook"), 1);
}

TEST_F(ObjectStoreTest, ConcurrentAddsFromManyThreadsAllLand) {
  setUpOnMain();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 25; ++i) store()->addAudiobook(book(std::to_string(t * 100 + i), "X"));
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(store()->audiobooksCount(), 100u);
  EXPECT_EQ(logged("Save error"), 0u);
}

}  // namespace
}  // namespace sonorell::testing
