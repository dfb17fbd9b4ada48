#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "model/value_transformers.h"
#include "object_store_fixture.h"
#include "persistence/store_migrations.h"
#include "support/damaged_files.h"
#include "support/raw_sqlite.h"

namespace sonorell::testing {
namespace {

// A store as model version 4 left it: titles as given, no indexes.
void writeVersion4Store(const std::filesystem::path& path) {
  std::filesystem::create_directories(path.parent_path());
  RawSqlite raw(path);
  raw.exec(std::string(StoreMigrations::version4Schema()));
  raw.exec(
      "INSERT INTO QSOAudiobook (pk, audiobookID, title, authors) VALUES "
      "(1, '100', CAST('The Hobbit' AS BLOB), CAST('J. R. R. Tolkien' AS BLOB)),"
      "(2, '200', CAST('A Tale of Two Cities' AS BLOB), NULL),"
      "(3, '300', CAST('Ivanhoe' AS BLOB), NULL),"
      "(4, '400', CAST('Gone Girl' AS BLOB), NULL),"
      "(5, '500', CAST('Theory of Everything' AS BLOB), NULL);"
      "INSERT INTO QSOChapter (audiobook, chapterNumber, duration, partNumber) VALUES "
      "(1, 0, 1000, 0), (1, 1, 2000, 0);"
      "PRAGMA user_version = 4;");
}

void writeStoreAtVersion(const std::filesystem::path& path, int version) {
  std::filesystem::create_directories(path.parent_path());
  RawSqlite raw(path);
  raw.exec(
      "CREATE TABLE QSOAudiobook (pk INTEGER PRIMARY KEY, something TEXT);"
      "INSERT INTO QSOAudiobook (something) VALUES ('old');"
      "PRAGMA user_version = " +
      std::to_string(version));
}

// --- From version 4 ---

TEST_F(ObjectStoreTest, Version4StoreMigratesTitlesToSortForm) {
  writeVersion4Store(storePath());
  setUpOnMain();
  RawSqlite raw(storePath());
  EXPECT_EQ(raw.integer("PRAGMA user_version"), 6);
  EXPECT_EQ(raw.rows("SELECT CAST(title AS TEXT) FROM QSOAudiobook ORDER BY pk"),
            (std::vector<std::vector<std::string>>{{"Hobbit, The"},
                                                   {"Tale of Two Cities, A"},
                                                   {"Ivanhoe"},
                                                   {"Gone Girl"},
                                                   {"Theory of Everything"}}));
  EXPECT_EQ(raw.integer("SELECT COUNT(*) FROM sqlite_master WHERE type = 'index' AND name LIKE "
                        "'QSO%'"),
            3);
  EXPECT_EQ(logged("Migrating store from model version 4 to 5"), 1u);
  EXPECT_EQ(logged("Migrating store from model version 5 to 6"), 1u);

  auto hobbit = store()->audiobookForID("100");
  ASSERT_NE(hobbit, nullptr);
  EXPECT_EQ(hobbit->title(), "The Hobbit");
  EXPECT_EQ(hobbit->authors(), std::vector<std::string>{"J. R. R. Tolkien"});
  EXPECT_EQ(hobbit->chapters().size(), 2u);

  // Sorted by title it sits under H.
  std::vector<std::string> titles;
  for (const auto& b : store()->audiobooksForPredicate({}, {{"title", true, false}}, 0)) {
    titles.push_back(b->title());
  }
  EXPECT_EQ(titles, (std::vector<std::string>{"Gone Girl", "The Hobbit", "Ivanhoe",
                                              "A Tale of Two Cities", "Theory of Everything"}));
}

TEST_F(ObjectStoreTest, AnotherEngineOnACurrentStoreSeesWhatWasSavedAndMigratesNothing) {
  setUpOnMain();
  store()->addAudiobook(book("1", "The Hobbit"));
  auto second = std::make_shared<QSOPersistenceEngine>();
  setUpOnMain(second);
  auto copy = second->audiobookForID("1");
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->chapters().size(), 2u);
  // Titles added at the current model stay as given.
  EXPECT_EQ(RawSqlite(storePath()).rows("SELECT CAST(title AS TEXT) FROM QSOAudiobook")[0][0],
            "The Hobbit");
  EXPECT_EQ(logged("Migrating store"), 0u);
}

// --- Stores we cannot migrate ---

TEST_F(ObjectStoreTest, StoreOfAnUnknownFutureModelIsDeletedAndRecreatedEmpty) {
  writeStoreAtVersion(storePath(), 99);
  setUpOnMain();
  EXPECT_EQ(logged("[Sonorell] Error creating persistence engine store: "), 1u);
  EXPECT_EQ(logged("incompatible"), 1u);
  EXPECT_EQ(store()->audiobooksCount(), 0u);
  EXPECT_EQ(RawSqlite(storePath()).integer("PRAGMA user_version"), 6);
  store()->addAudiobook(book("1", "One"));
  EXPECT_EQ(store()->audiobooksCount(), 1u);
}

TEST_F(ObjectStoreTest, StoreOlderThanAnyStepIsDeletedAndRecreatedEmpty) {
  writeStoreAtVersion(storePath(), 2);
  setUpOnMain();
  EXPECT_EQ(logged("[Sonorell] Error creating persistence engine store: "), 1u);
  EXPECT_EQ(store()->audiobooksCount(), 0u);
  EXPECT_EQ(RawSqlite(storePath()).integer("PRAGMA user_version"), 6);
}

// --- Damaged stores ---

class DamagedObjectStore : public ObjectStoreTest,
                           public ::testing::WithParamInterface<DamageCase> {
 protected:
  // Damages the store file and returns the bytes it then holds (none for a directory).
  std::string damage(Damage how) {
    const auto path = storePath();
    std::filesystem::create_directories(path.parent_path());
    switch (how) {
      case Damage::kGarbage:
        return fillWithGarbage(path, 7);
      case Damage::kTruncated: {
        // A real store with enough books to span many pages, all of it in the main file.
        auto earlier = std::make_shared<QSOPersistenceEngine>();
        setUpOnMain(earlier);
        for (int i = 0; i < 50; ++i) earlier->addAudiobook(book(std::to_string(i), "Book"));
        earlier.reset();
        return truncateInHalf(path);
      }
      case Damage::kDirectory:
        std::filesystem::create_directory(path);
        return {};
    }
    return {};
  }
};

TEST_P(DamagedObjectStore, IsKeptAsideForANewStoreUnlessItCannotBeOpenedAtAll) {
  const std::string damaged = damage(GetParam().damage);
  setUpOnMain();
  if (GetParam().damage == Damage::kDirectory) {
    // Moving it would not help: what stops the store is the file system, not the bytes.
    EXPECT_EQ(logged("[Sonorell] Error creating persistence engine store: "), 1u);
    EXPECT_EQ(store()->audiobooksCount(), 0u);
    EXPECT_EQ(logged("the store could not be opened"), 1u);
    EXPECT_TRUE(std::filesystem::is_directory(storePath()));
    EXPECT_TRUE(keptAside(storePath()).empty());
    return;
  }
  EXPECT_EQ(logged("[QSOPersistenceEngine] " + storePath().string() +
                   " is not a database; kept as " + storePath().string() + ".unreadable-"),
            1u);
  EXPECT_EQ(logged("Error creating persistence engine store"), 0u);
  const auto kept = keptAside(storePath());
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_TRUE(readBytes(kept[0]) == damaged) << "the damaged bytes were not kept as they were";

  // The new store works from the same run on, and what it saved is on disk for the next one.
  EXPECT_EQ(store()->audiobooksCount(), 0u);
  store()->addAudiobook(book("1", "One"));
  auto next = std::make_shared<QSOPersistenceEngine>();
  setUpOnMain(next);
  auto one = next->audiobookForID("1");
  ASSERT_NE(one, nullptr);
  EXPECT_EQ(one->chapters().size(), 2u);
  EXPECT_EQ(RawSqlite(storePath()).integer("PRAGMA user_version"), 6);
  EXPECT_EQ(logged("the store could not be opened"), 0u);
}

INSTANTIATE_TEST_SUITE_P(Damage, DamagedObjectStore, ::testing::ValuesIn(damageCases()),
                         damageCaseName<::testing::TestParamInfo<DamageCase>>);

// --- The title step itself ---

TEST(TransformTitle, MovesLeadingArticleAndRoundTripsThroughTheTitleTransformer) {
  EXPECT_EQ(StoreMigrations::transformTitle("The Hobbit"), "Hobbit, The");
  EXPECT_EQ(StoreMigrations::transformTitle("A Tale"), "Tale, A");
  EXPECT_EQ(StoreMigrations::transformTitle("Theory"), "Theory");
  EXPECT_EQ(StoreMigrations::transformTitle("An Owl"), "An Owl");
  EXPECT_EQ(StoreMigrations::transformTitle("the hobbit"), "the hobbit");
  for (const char* title : {"The Hobbit", "A Tale", "The Foo, Bar"}) {
    EXPECT_EQ(SOTitleTransformer::relocateTrailingCommas(StoreMigrations::transformTitle(title)),
              title);
  }
}

}  // namespace
}  // namespace sonorell::testing
