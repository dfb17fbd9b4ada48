// Hostile input through the CLI and the engine: book identifiers that are quotes, options, SQL,
// parent directories or 10,000 characters long; an identifier carrying NUL (argv cannot, so it
// comes inside the server's metadata document); and each of the engine's stores damaged before
// start-up. Never a crash or hang; a documented code or a clear log line; nothing else touched.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "library_checks.h"
#include "support/damaged_files.h"
#include "support/raw_sqlite.h"
#include "world.h"

namespace sonorell::e2e {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using namespace std::string_literals;

constexpr const char* kVictim = "1002";  // downloaded before; must stay as it is

bool sanitizerSpoke(const std::string& text) {
  return text.find("AddressSanitizer") != std::string::npos ||
         text.find("runtime error:") != std::string::npos ||
         text.find("LeakSanitizer") != std::string::npos;
}

fs::path support(const World& world) { return world.library() / "SonorellSupport"; }

// --- identifiers on the command line -------------------------------------------------------------

struct HostileIdentifier {
  std::string name;
  std::string id;
  int64_t code;  // what the download documents for what the server answers
};

void PrintTo(const HostileIdentifier& c, std::ostream* out) { *out << c.name; }

const std::vector<HostileIdentifier>& hostileIdentifiers() {
  static const std::vector<HostileIdentifier> table = {
      // The identifier is one percent-escaped path segment of the URL; the server knows no such
      // book: 404 -> 60.
      {"Quotes", "1001\"quoted'", 11004},
      {"DoubleDash", "--", 11004},
      {"SqlInjection", "'); DROP TABLE audiobookStatus; --", 11004},
      // "/" is escaped too, and a lone ".." whole, so no dot segment is resolved: each stays the
      // name of a book the server does not know, even one spelling out another book's path.
      {"ParentDirectory", "../", 11004},
      {"DotDot", "..", 11004},
      {"ParentDirectoryIntoAnotherBook", "../audiobooks/1002", 11004},
      // Longer than the server reads (414): an unexpected status, 65 -> 10001.
      {"TenThousandCharacters", std::string(10'000, 'A'), 10001},
  };
  return table;
}

class HostileIdentifiers : public ::testing::TestWithParam<HostileIdentifier> {
 protected:
  void SetUp() override {
    std::string why;
    ASSERT_TRUE(world_.ready(why)) << why;
  }
  World world_;
};

TEST_P(HostileIdentifiers, AreRefusedWithADocumentedCodeAndLeaveEverythingElseAlone) {
  const auto& hostile = GetParam();
  ASSERT_EQ(world_.sonorell({"-q", "download", kVictim}).exitCode, 0);
  const auto victim = chapterStates(world_, kVictim);
  const auto files = fileDigests(support(world_) / "Audio");
  std::ofstream(world_.library() / "sentinel") << "kept";
  std::ofstream(support(world_) / "sentinel") << "kept";

  // "--" ends the options, so that any identifier is taken as the BOOK.
  const auto download = world_.sonorell({"--json", "download", "--", hostile.id});
  EXPECT_EQ(download.exitCode, 1) << describe(download);
  EXPECT_EQ(summaryCode(download), hostile.code) << describe(download);
  EXPECT_NE(download.err.find("error " + std::to_string(hostile.code) + ":"), std::string::npos);

  const auto status = world_.sonorell({"--json", "status", "--", hostile.id});
  ASSERT_EQ(status.exitCode, 0) << describe(status);
  const auto report = status.jsonLines().front();
  EXPECT_EQ(report.at("audiobookID"), hostile.id);
  EXPECT_EQ(report.at("status"), kNotDownloaded);
  EXPECT_TRUE(report.at("chapters").empty()) << report.dump();
  for (const std::vector<std::string>& command :
       {std::vector<std::string>{"pause", "--", hostile.id},
        std::vector<std::string>{"cancel", "--", hostile.id},
        std::vector<std::string>{"delete", "--", hostile.id}}) {
    const auto result = world_.sonorell(command);
    EXPECT_EQ(result.exitCode, 0) << command[0] << "\n" << describe(result);
    EXPECT_FALSE(sanitizerSpoke(result.err)) << result.err;
  }

  // The other book, its records and files, the stores and the files beside them are all there.
  expectDownloadedChaptersKept(world_, kVictim, victim);
  EXPECT_EQ(fileDigests(support(world_) / "Audio"), files);
  EXPECT_TRUE(fs::exists(world_.library() / "sentinel"));
  EXPECT_TRUE(fs::exists(support(world_) / "sentinel"));
  const auto list = world_.sonorell({"--json", "list"});
  ASSERT_EQ(list.exitCode, 0);
  const auto listed = list.jsonLines().front();
  for (const auto& book : listed.at("audiobooks")) {
    EXPECT_EQ(book.at("audiobookID"), kVictim) << "a record for " << book.dump();
  }
  EXPECT_FALSE(sanitizerSpoke(download.err)) << download.err;
}

INSTANTIATE_TEST_SUITE_P(Identifiers, HostileIdentifiers, ::testing::ValuesIn(hostileIdentifiers()),
                         [](const ::testing::TestParamInfo<HostileIdentifier>& info) {
                           return info.param.name;
                         });

// argv cannot carry NUL, but the server's metadata document can: its "id" is what the engine
// records. A NUL inside must neither cut the identifier short onto the book before it nor reach
// a path.
TEST(HostileDocumentIdentifier, ANulInsideTheIdentifierNeverReachesAnotherBookOrAPath) {
  World world;
  std::string why;
  ASSERT_TRUE(world.ready(why)) << why;
  ASSERT_EQ(world.sonorell({"-q", "download", "1001"}).exitCode, 0);
  const auto before = chapterStates(world, "1001");
  const auto files = fileDigests(support(world) / "Audio");

  const json document = {
      {"audiobook",
       {{"id", "1001\0/../../../escape"s},
        {"actual_size", 30'000},
        {"chapters",
         json::array({{{"part_number", 0}, {"chapter_number", 1}, {"duration", 2000}},
                      {{"part_number", 0}, {"chapter_number", 2}, {"duration", 2000}}})}}}};
  ASSERT_TRUE(
      world.setFaults(json::array({{{"route", "metadata"},
                                    {"path", "/v4/audiobooks/nul"},
                                    {"count", nullptr},
                                    {"fault", {{"status", 200}, {"body", document.dump()}}}}})));
  const auto download = world.sonorell({"--json", "download", "nul"});
  EXPECT_EQ(download.exitCode, 1) << describe(download);
  // A document naming another book than the one asked for is no usable answer: 70 -> 11005.
  EXPECT_EQ(summaryCode(download), 11005) << describe(download);
  EXPECT_FALSE(sanitizerSpoke(download.err)) << download.err;

  // Every listing still reads (the identifier comes back whole, NUL and all, in JSON).
  const auto all = world.sonorell({"--json", "status"});
  ASSERT_EQ(all.exitCode, 0) << describe(all);
  const auto list = world.sonorell({"--json", "list"});
  ASSERT_EQ(list.exitCode, 0) << describe(list);
  expectDownloadedChaptersKept(world, "1001", before);
  EXPECT_EQ(fileDigests(support(world) / "Audio"), files);
  EXPECT_FALSE(fs::exists(world.library().parent_path() / "escape"));
  EXPECT_FALSE(fs::exists(world.library() / "escape"));
  EXPECT_FALSE(fs::exists(support(world) / "escape"));
}

// A status database holding requests with nothing left to fetch (as a process killed between
// the last chapter and forgetting its request leaves it): the engine keeps such requests stored
// without a word, and `resume` must still end.
TEST(HostileStatusDatabase, StoredRequestsWithNothingLeftToFetchDoNotHoldUpResume) {
  World world;
  std::string why;
  ASSERT_TRUE(world.ready(why)) << why;
  ASSERT_EQ(world.sonorell({"-q", "download", "1001"}).exitCode, 0);
  const auto before = chapterStates(world, "1001");
  {
    sonorell::testing::RawSqlite db(support(world) / "SDKMetadata.sqlite");
    db.exec(
        "INSERT INTO downloadRequests VALUES "
        "('0B6A37E4-3C1D-4E0B-9F4D-5A8E2C1B7D01', '1001', -1, -1, 0, 'k', 'l', 0), "
        "('0B6A37E4-3C1D-4E0B-9F4D-5A8E2C1B7D02', '1001', 0, 2, 2, 'k', 'l', 0), "
        "('0B6A37E4-3C1D-4E0B-9F4D-5A8E2C1B7D03', '1001', 7, 7, 1, 'k', 'l', 0)");
  }
  const auto resume = world.sonorell({"--json", "resume"}, {}, Seconds(60));
  EXPECT_EQ(resume.exitCode, 0) << describe(resume);
  EXPECT_EQ(summaryCode(resume), 0) << describe(resume);
  expectDownloadedChaptersKept(world, "1001", before);
  expectWholeBook(world, "1001");
}

// --- damaged stores ------------------------------------------------------------------------------

enum class Store { kStatusDatabase, kObjectStore, kTransferJournal, kListenEvents };
enum class Damage { kTruncated, kGarbage, kUnreadable };

struct DamagedStore {
  std::string name;
  Store store;
  Damage damage;
  int expectedExit;     // of the command run after the damage
  int64_t code;         // its summary's code (0 on success)
  std::string logLine;  // what the engine's log (-v) says about it
};

void PrintTo(const DamagedStore& c, std::ostream* out) { *out << c.name; }

const std::vector<DamagedStore>& damagedStores() {
  static const std::vector<DamagedStore> table = {
      // A status database that cannot be read is kept aside and a new one started.
      {"StatusDatabaseTruncated", Store::kStatusDatabase, Damage::kTruncated, 0, 0,
       "SDKMetadata.sqlite is not a database; kept as"},
      {"StatusDatabaseGarbage", Store::kStatusDatabase, Damage::kGarbage, 0, 0,
       "SDKMetadata.sqlite is not a database; kept as"},
      // One that cannot be opened at all fails the request when it is saved (12004).
      {"StatusDatabaseUnreadable", Store::kStatusDatabase, Damage::kUnreadable, 1, 12004,
       "[QSODatabaseManager] Error opening database"},
      // So is an object store; one that cannot be opened at all is not needed to download: it
      // says why it is unavailable.
      {"ObjectStoreTruncated", Store::kObjectStore, Damage::kTruncated, 0, 0,
       "PersistenceEngine.sqlite is not a database; kept as"},
      {"ObjectStoreGarbage", Store::kObjectStore, Damage::kGarbage, 0, 0,
       "PersistenceEngine.sqlite is not a database; kept as"},
      {"ObjectStoreUnreadable", Store::kObjectStore, Damage::kUnreadable, 0, 0,
       "Error creating persistence engine store"},
      // So is a transfer journal; without one that can be opened at all, transfers still run;
      // they only do not outlive the process.
      {"TransferJournalTruncated", Store::kTransferJournal, Damage::kTruncated, 0, 0,
       "TransferJournal.sqlite is not a database; kept as"},
      {"TransferJournalGarbage", Store::kTransferJournal, Damage::kGarbage, 0, 0,
       "TransferJournal.sqlite is not a database; kept as"},
      {"TransferJournalUnreadable", Store::kTransferJournal, Damage::kUnreadable, 0, 0,
       "[TransferService] no journal"},
      // Unsent listening that cannot be read is dropped with a line saying so; play goes on.
      {"ListenEventsTruncated", Store::kListenEvents, Damage::kTruncated, 0, 0,
       "listen event archive"},
      {"ListenEventsGarbage", Store::kListenEvents, Damage::kGarbage, 0, 0, "listen event archive"},
      {"ListenEventsUnreadable", Store::kListenEvents, Damage::kUnreadable, 0, 0,
       "listen event archive"},
  };
  return table;
}

fs::path storeFile(const World& world, Store store) {
  switch (store) {
    case Store::kStatusDatabase:
      return support(world) / "SDKMetadata.sqlite";
    case Store::kObjectStore:
      return support(world) / "PersistenceEngine.sqlite";
    case Store::kTransferJournal:
      return support(world) / "TransferJournal.sqlite";
    case Store::kListenEvents:
      return support(world) / "ListenEvents" / "listening_events.archive";
  }
  return {};
}

class DamagedStores : public ::testing::TestWithParam<DamagedStore> {
 protected:
  void SetUp() override {
    std::string why;
    ASSERT_TRUE(world_.ready(why)) << why;
  }

  // Damages the file. Unreadable: no permission, or (as root, whom permissions do not stop) a
  // directory where the file should be. Returns the damaged bytes (empty for unreadable).
  std::string damage(const fs::path& file, Damage how) {
    switch (how) {
      case Damage::kTruncated:
        return sonorell::testing::truncateInHalf(file);
      case Damage::kGarbage:
        return sonorell::testing::fillWithGarbage(file, 17);
      case Damage::kUnreadable:
        if (::geteuid() != 0) {
          fs::permissions(file, fs::perms::none);
        } else {
          fs::remove(file);
          fs::create_directory(file);
        }
        return {};
    }
    return {};
  }

  World world_;
};

TEST_P(DamagedStores, StartUpCopesWithADocumentedCodeOrALogLineAndTouchesNothingElse) {
  const auto& c = GetParam();
  ASSERT_EQ(world_.sonorell({"-q", "download", kVictim}).exitCode, 0);
  const Environment realTime{{"SONORELL_AUDIO_SINK", "fakesink sync=true"}};
  if (c.store == Store::kListenEvents) {
    // A second of listening leaves an unsent event in the archive.
    const auto play = world_.sonorell({"-q", "play", kVictim, "--for", "1"}, realTime);
    ASSERT_EQ(play.exitCode, 0) << describe(play);
  }
  const fs::path file = storeFile(world_, c.store);
  ASSERT_TRUE(fs::is_regular_file(file)) << file;
  if (file.extension() == ".sqlite") {
    // Everything into the main file, so that damaging it damages the data.
    sonorell::testing::RawSqlite(file).exec("PRAGMA wal_checkpoint(TRUNCATE)");
    std::error_code ignored;
    fs::remove(file.string() + "-wal", ignored);
    fs::remove(file.string() + "-shm", ignored);
  }
  const auto victim = chapterStates(world_, kVictim);
  const auto audio = fileDigests(support(world_) / "Audio");
  const std::string damaged = damage(file, c.damage);

  const auto run = c.store == Store::kListenEvents
                       ? world_.sonorell({"-v", "--json", "play", kVictim, "--for", "1"}, realTime)
                       : world_.sonorell({"-v", "--json", "download", "1001"});
  ASSERT_NE(run.exitCode, -1) << "crashed or hung\n" << describe(run);
  EXPECT_FALSE(sanitizerSpoke(run.err)) << run.err;
  EXPECT_EQ(run.exitCode, c.expectedExit) << describe(run);
  EXPECT_EQ(summaryCode(run), c.code) << describe(run);
  EXPECT_NE(run.err.find(c.logLine), std::string::npos) << describe(run);
  if (c.store != Store::kListenEvents && run.exitCode == 0) expectWholeBook(world_, "1001");

  // The other book's audio is untouched whatever was damaged; its records too, unless they
  // were in the damaged status database.
  auto now = fileDigests(support(world_) / "Audio");
  std::erase_if(now, [](const auto& entry) { return entry.first.starts_with("1001/"); });
  EXPECT_EQ(now, audio);
  if (c.store != Store::kStatusDatabase) expectDownloadedChaptersKept(world_, kVictim, victim);
  // A damaged SQLite file is kept aside byte for byte.
  if (file.extension() == ".sqlite" && c.damage != Damage::kUnreadable) {
    const auto kept = sonorell::testing::keptAside(file);
    EXPECT_TRUE(
        std::any_of(kept.begin(), kept.end(),
                    [&](const fs::path& k) { return sonorell::testing::readBytes(k) == damaged; }))
        << "the damaged " << file.filename() << " was not kept aside as it was";
  }
}

INSTANTIATE_TEST_SUITE_P(Stores, DamagedStores, ::testing::ValuesIn(damagedStores()),
                         [](const ::testing::TestParamInfo<DamagedStore>& info) {
                           return info.param.name;
                         });

}  // namespace
}  // namespace sonorell::e2e
