// Downloads that survive SIGKILL at the worst instants of a finished file's hand-over. An
// engine process (engine_child/) downloads a book from the reference server into a Library and
// is stopped at a chosen point and killed there; the next process only launches and takes up what
// is stored. In the end the book is complete and byte-identical, the stores agree, nothing is left
// behind and nothing was fetched twice. (Kills at random instants are the end-to-end crash
// storm's.)
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "content_server.h"
#include "persistence/filesystem_helper.h"
#include "sha256.h"
#include "support/child_process.h"
#include "support/raw_sqlite.h"
#include "support/temp_library.h"

namespace sonorell::testing {
namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

std::string readAll(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

class CrashStorm : public ::testing::Test {
 protected:
  void SetUp() override {
    server.start();
    log =
        fs::temp_directory_path() / ("sonorell-crash-storm-" + std::to_string(::getpid()) + ".log");
    fs::remove(log);
  }
  void TearDown() override {
    server.stop();
    if (HasFailure()) {
      // The engine processes' own account of what went wrong.
      const std::string text = readAll(log);
      std::cerr << "---- engine processes' standard error (last 20000 bytes; all of it is kept in "
                << log << ") ----\n"
                << text.substr(text.size() > 20000 ? text.size() - 20000 : 0) << "----\n";
      return;
    }
    std::error_code ec;
    fs::remove(log, ec);
  }

  void useBook(std::string_view id) {
    book = server.catalogue().book(id);
    ASSERT_NE(book, nullptr);
    for (const auto& c : book->chapters) {
      const QSOChapterDescription d(book->id, c.part, c.chapter);
      chapterByKey[d.toString()] = &c;
    }
  }

  std::unique_ptr<ChildProcess> launch(const std::string& mode) {
    auto process = ChildProcess::start(SONORELL_ENGINE_CHILD,
                                       {library.path().string(), server.baseURL(),
                                        server.caCertificatePath().string(), book->id, mode},
                                       log.string());
    EXPECT_NE(process, nullptr) << "could not start " << SONORELL_ENGINE_CHILD;
    return process;
  }

  // Reads the process's reports until it reports the request done. Returns "done", or what went
  // wrong.
  std::string runToEnd(ChildProcess& process) {
    for (;;) {
      auto line = process.readLine(Clock::now() + std::chrono::seconds(30));
      if (!line) {
        if (process.atEnd()) return "the process ended on its own (" + process.reap() + ")";
        return "no report for 30 s";
      }
      std::istringstream words(*line);
      std::string word;
      words >> word;
      if (word == "request-failed" || word == "failed") return "the engine reported " + *line;
      if (word == "done") return "done";
    }
  }

  // A last process that only launches runs to the request's end, lets its queues go idle and
  // leaves on its own.
  void runLastProcess() {
    auto last = launch("resume");
    ASSERT_NE(last, nullptr);
    const auto outcome = runToEnd(*last);
    ASSERT_EQ(outcome, "done") << requestsFor(outcome) << storedState();
    std::optional<std::string> settled;
    while ((settled = last->readLine(Clock::now() + std::chrono::seconds(40))) &&
           *settled != "idle" && *settled != "busy") {
    }
    EXPECT_EQ(settled, "idle") << "the last process's queues did not go idle";
    EXPECT_EQ(last->reap(), "exit 0");
  }

  // With no process running: every chapter on disk and byte-identical to the server's, the status
  // database in agreement with no request left, and nothing else left behind.
  void expectBookCompleteAndNothingLeft() {
    for (const auto& c : book->chapters) {
      const QSOChapterDescription d(book->id, c.part, c.chapter);
      const auto file = FilesystemHelper::filePath(d);
      ASSERT_TRUE(fs::exists(file)) << d.toString();
      EXPECT_EQ(content::sha256Hex(readAll(file)), c.sha256) << d.toString();
    }
    {
      RawSqlite db(statusDatabase());
      const auto rows = db.rows(
          "SELECT partNumber, chapterNumber, downloadStatus, downloadedSize, totalSize "
          "FROM chapterStatus WHERE audiobookID = '" +
          book->id + "'");
      EXPECT_EQ(rows.size(), book->chapters.size());
      for (const auto& row : rows) {
        const auto* c = book->chapter(std::stoull(row[0]), std::stoull(row[1]));
        ASSERT_NE(c, nullptr);
        const std::string key = book->id + "_" + row[0] + "_" + row[1];
        EXPECT_EQ(row[2], "3") << key;
        EXPECT_EQ(row[3], std::to_string(c->size)) << key << ": downloaded size";
        EXPECT_EQ(row[4], std::to_string(c->size)) << key << ": total size";
      }
      EXPECT_EQ(
          db.integer("SELECT downloadStatus FROM audiobookStatus WHERE audiobookIdentifier = '" +
                     book->id + "'"),
          3);
      EXPECT_EQ(db.integer("SELECT COUNT(*) FROM downloadRequests"), 0);
    }
    // No transfer in the journal, no temporary or partial file anywhere, and the book's
    // directory holds its chapters only.
    const fs::path support = library.path() / "SonorellSupport";
    EXPECT_EQ(RawSqlite(support / "TransferJournal.sqlite").integer("SELECT COUNT(*) FROM tasks"),
              0);
    EXPECT_TRUE(fs::is_empty(support / "TransferTemporaryFiles"));
    for (const auto& entry : fs::recursive_directory_iterator(library.path())) {
      const auto name = entry.path().filename().string();
      EXPECT_FALSE(name.ends_with(".partial") || name.ends_with(".tmp") ||
                   name.starts_with("transfer-"))
          << entry.path();
    }
    size_t inBookDirectory = 0;
    for (const auto& entry : fs::directory_iterator(support / "Audio" / book->id)) {
      ++inBookDirectory;
      EXPECT_TRUE(FilesystemHelper::chapterDescription(entry.path().filename().string()))
          << entry.path();
    }
    EXPECT_EQ(inBookDirectory, book->chapters.size());
  }

  // For a failure about a chapter ("... failed <key> ..."): the server's record of its requests.
  std::string requestsFor(const std::string& outcome) const {
    std::string text;
    for (const auto& [key, chapter] : chapterByKey) {
      if (outcome.find("failed " + key + " ") == std::string::npos) continue;
      text = key + " (" + std::to_string(chapter->size) + " bytes) was asked for with Range:";
      for (const auto& r : server.requests(content::Route::kAudio)) {
        if (r.path == chapter->audioPath) text += " [" + r.header("Range").value_or("none") + "]";
      }
    }
    return text;
  }

  // What the status database holds now, for a process that never reported the end.
  std::string storedState() {
    RawSqlite db(statusDatabase());
    return "\nstored requests: " +
           std::to_string(db.integer("SELECT COUNT(*) FROM downloadRequests")) +
           ", chapters downloaded: " +
           std::to_string(
               db.integer("SELECT COUNT(*) FROM chapterStatus WHERE downloadStatus = 3")) +
           " of " + std::to_string(book->chapters.size());
  }

  // The status database as the last process left it, read directly.
  fs::path statusDatabase() const {
    return library.path() / "SonorellSupport" / "SDKMetadata.sqlite";
  }

  TempLibrary library;
  content::ContentServer server;
  const content::Book* book = nullptr;
  std::map<std::string, const content::Chapter*> chapterByKey;
  fs::path log;
};

// Reads a process started in a holding mode until it holds, then kills it. Returns the report
// lines it wrote before.
std::vector<std::string> runUntilHeld(ChildProcess& process) {
  std::vector<std::string> lines;
  while (auto line = process.readLine(Clock::now() + std::chrono::seconds(30))) {
    if (*line == "held") {
      EXPECT_TRUE(process.kill());
      return lines;
    }
    lines.push_back(*line);
  }
  ADD_FAILURE() << "the process never held";
  return lines;
}

// The first chapter's file is in place and recorded, but the process dies before the transfer
// service forgets its transfer. The next launch hears that transfer lost, which must neither
// undo the chapter nor fetch it again. The other chapters' answers to the first process are held
// back, so that they have no bytes yet.
TEST_F(CrashStorm, ADeathAfterAFileIsInPlaceButBeforeItsTransferIsForgottenLosesNothing) {
  useBook(content::kThreeChapterBookID);
  ASSERT_NE(book, nullptr);
  const auto& firstChapter = book->chapters.front();
  for (const auto& c : book->chapters) {
    if (&c == &firstChapter) continue;
    server.faults().add(content::Route::kAudio, content::Fault::delayed(std::chrono::seconds(60)),
                        content::Trigger::always(), c.audioPath);
  }
  auto first = launch("hold-after-move-1");
  ASSERT_NE(first, nullptr);
  const auto lines = runUntilHeld(*first);
  const std::string firstKey =
      QSOChapterDescription(book->id, firstChapter.part, firstChapter.chapter).toString();
  ASSERT_NE(std::find(lines.begin(), lines.end(), "moved " + firstKey), lines.end());
  server.faults().clear();
  const auto requestsBefore = server.requestCount(content::Route::kAudio);
  {
    RawSqlite db(statusDatabase());
    ASSERT_EQ(db.integer("SELECT COUNT(*) FROM downloadRequests"), 1);
    ASSERT_EQ(db.integer("SELECT COUNT(*) FROM chapterStatus WHERE downloadStatus = 3"), 1);
  }

  runLastProcess();
  expectBookCompleteAndNothingLeft();
  // After the kill: the first chapter not at all, each of the others once.
  const auto requests = server.requests(content::Route::kAudio);
  for (const auto& c : book->chapters) {
    size_t asked = 0;
    for (size_t j = requestsBefore; j < requests.size(); ++j) {
      asked += requests[j].path == c.audioPath;
    }
    EXPECT_EQ(asked, &c == &firstChapter ? 0u : 1u) << c.audioPath;
  }
}

// Every chapter is in hand, the last one only in the transfer service's keeping, when the process
// dies. The next launch has nothing left to fetch: handing over that file completes the request,
// which must end as a success and not stay stored as one that asked for nothing.
TEST_F(CrashStorm, ADeathBeforeTheLastFileIsHandedOverStillEndsTheRequest) {
  useBook(content::kThreeChapterBookID);
  ASSERT_NE(book, nullptr);
  auto first = launch("hold-before-move-" + std::to_string(book->chapters.size()));
  ASSERT_NE(first, nullptr);
  runUntilHeld(*first);
  const auto requestsBefore = server.requestCount(content::Route::kAudio);
  EXPECT_EQ(requestsBefore, book->chapters.size());
  {
    RawSqlite db(statusDatabase());
    ASSERT_EQ(db.integer("SELECT COUNT(*) FROM downloadRequests"), 1);
    ASSERT_EQ(db.integer("SELECT COUNT(*) FROM chapterStatus WHERE downloadStatus = 3"),
              static_cast<int64_t>(book->chapters.size()) - 1);
  }

  runLastProcess();
  expectBookCompleteAndNothingLeft();
  EXPECT_EQ(server.requestCount(content::Route::kAudio), requestsBefore)
      << "a chapter was fetched again";
}

}  // namespace
}  // namespace sonorell::testing
