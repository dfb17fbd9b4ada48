// Downloads that survive SIGKILL at any instant. A chain of engine processes (engine_child/)
// downloads one book from the reference server into one Library: the first starts the request,
// each is killed at a random moment (during launch, mid-chapter, after some chapters, right as a
// finished file is moved into place) and the next one only launches and takes up what is stored.
// In the end the book is complete and byte-identical, the stores agree, nothing is left behind,
// and resumed chapters asked only for their missing bytes. Two narrower tests stop a process at
// a chosen point of a finished file's hand-over and kill it there.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
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
using std::chrono::milliseconds;
namespace fs = std::filesystem;

std::string readAll(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// When one process is killed, counted from the moment it is armed: its launch, or for the
// process that starts the request, the first chapter staged (the request is stored by then).
struct KillPoint {
  enum Kind { kAfterDelay, kAfterChapterSuccesses, kMidChapter, kAtMoving };
  Kind kind = kAfterDelay;
  milliseconds delay{0};  // kAfterDelay
  int count = 1;          // kAfterChapterSuccesses, kAtMoving: the n-th such report
  double fraction = 0.5;  // kMidChapter: a chapter crossing this share of its bytes

  std::string describe() const {
    switch (kind) {
      case kAfterDelay:
        return "after " + std::to_string(delay.count()) + " ms";
      case kAfterChapterSuccesses:
        return "at chapter success #" + std::to_string(count);
      case kMidChapter:
        return "at a chapter crossing " + std::to_string(static_cast<int>(fraction * 100)) + "%";
      case kAtMoving:
        return "at moving #" + std::to_string(count);
    }
    return "?";
  }
};

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
      chapterByPath[c.audioPath] = &c;
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

  // Reads the process's reports until `kill` is reached (then kills it) or it reports done.
  // Returns "killed", "done", or what went wrong.
  std::string runUntil(ChildProcess& process, const std::optional<KillPoint>& kill,
                       bool armedAtLaunch) {
    std::optional<Clock::time_point> armed;
    if (armedAtLaunch) armed = Clock::now();
    int successes = 0, movings = 0;
    std::map<std::string, int64_t> lastBytes;  // this process's reports, per chapter
    const auto silence = std::chrono::seconds(30);
    for (;;) {
      auto deadline = Clock::now() + silence;
      const bool byDelay =
          kill && armed && kill->kind == KillPoint::kAfterDelay && *armed + kill->delay < deadline;
      if (byDelay) deadline = *armed + kill->delay;
      auto line = process.readLine(deadline);
      if (!line) {
        if (process.atEnd()) return "the process ended on its own (" + process.reap() + ")";
        if (byDelay) return process.kill() ? "killed" : "the kill did not end the process";
        return "no report for 30 s";
      }
      std::istringstream words(*line);
      std::string word, key;
      int64_t total = -1;
      words >> word >> key;
      if (word == "bytes" && (words >> total)) onDisk[key] = total;
      if (word == "success") succeeded.insert(key);
      if (word == "request-failed" || word == "failed") return "the engine reported " + *line;
      if (word == "done") return "done";
      if (word == "staged" && !armed) armed = Clock::now();
      if (!kill || !armed) continue;
      bool now = false;
      if (word == "success") {
        now = kill->kind == KillPoint::kAfterChapterSuccesses && ++successes >= kill->count;
      } else if (word == "moving") {
        now = kill->kind == KillPoint::kAtMoving && ++movings >= kill->count;
        if (now) ++killsAtMoving;
      } else if (word == "bytes" && kill->kind == KillPoint::kMidChapter) {
        auto it = chapterByKey.find(key);
        if (it != chapterByKey.end()) {
          const auto mark = static_cast<int64_t>(kill->fraction * it->second->size);
          const auto before = lastBytes.count(key) ? lastBytes[key] : -1;
          now = before >= 0 && before < mark && total >= mark;
        }
        lastBytes[key] = total;
      }
      if (now) return process.kill() ? "killed" : "the kill did not end the process";
    }
  }

  // A last process that only launches runs to the request's end, lets its queues go idle and
  // leaves on its own.
  void runLastProcess() {
    auto last = launch("resume");
    ASSERT_NE(last, nullptr);
    const auto outcome = runUntil(*last, std::nullopt, true);
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

  // Called right after a kill: what the dead process left on disk, as far as it told.
  void rememberKill() { kills.push_back({server.requestCount(content::Route::kAudio), onDisk}); }

  // The status database as the last process left it, read directly.
  fs::path statusDatabase() const {
    return library.path() / "SonorellSupport" / "SDKMetadata.sqlite";
  }

  TempLibrary library;
  content::ContentServer server;
  const content::Book* book = nullptr;
  std::map<std::string, const content::Chapter*> chapterByKey;
  std::map<std::string, const content::Chapter*> chapterByPath;
  fs::path log;
  // The bytes of each chapter's transfer file, as last reported by any process: a lower bound
  // of what is on disk (a report follows the write).
  std::map<std::string, int64_t> onDisk;
  struct Kill {
    uint64_t requestsBefore;  // audio requests the server had recorded when the process died
    std::map<std::string, int64_t> onDisk;
  };
  std::vector<Kill> kills;
  std::set<std::string> succeeded;  // chapters reported downloaded
  int killsAtMoving = 0;
};

uint32_t crashSeed() {
  if (const char* text = std::getenv("SONORELL_CRASH_SEED"); text && *text) {
    return static_cast<uint32_t>(std::strtoul(text, nullptr, 10));
  }
  return std::random_device{}();
}

TEST_F(CrashStorm, AWholeBookSurvivesRepeatedKillsAndResumesOnlyWhatIsMissing) {
  const uint32_t seed = crashSeed();
  std::cout << "crash seed " << seed << " (rerun with SONORELL_CRASH_SEED=" << seed << ")\n";
  RecordProperty("crash_seed", std::to_string(seed));
  SCOPED_TRACE("SONORELL_CRASH_SEED=" + std::to_string(seed));
  std::mt19937 random(seed);
  useBook(content::kLargeBookID);
  ASSERT_NE(book, nullptr);
  const auto uniform = [&](int low, int high) {
    return std::uniform_int_distribution<int>(low, high)(random);
  };

  // Paced so that the download spans the kills: each transfer at 100 KB/s.
  server.faults().add(content::Route::kAudio, content::Fault::bandwidth(100'000),
                      content::Trigger::always());

  // 16 to 20 processes, each killed at its own point; at least one right as a finished file is
  // about to be moved into place.
  std::vector<KillPoint> plan(static_cast<size_t>(uniform(16, 20)));
  const size_t atMoving = static_cast<size_t>(uniform(0, static_cast<int>(plan.size()) - 1));
  for (size_t i = 0; i < plan.size(); ++i) {
    auto& kill = plan[i];
    kill.kind = i == atMoving ? KillPoint::kAtMoving : static_cast<KillPoint::Kind>(uniform(0, 3));
    kill.delay = milliseconds(uniform(0, 900));
    kill.count = uniform(1, 3);
    kill.fraction = uniform(5, 95) / 100.0;
  }

  const auto started = Clock::now();
  for (size_t i = 0; i < plan.size(); ++i) {
    auto process = launch(i == 0 ? "start" : "resume");
    ASSERT_NE(process, nullptr);
    const auto outcome = runUntil(*process, plan[i], i != 0);
    std::cout << "process " << i + 1 << ": " << plan[i].describe() << ": " << outcome << "\n";
    ASSERT_NE(outcome, "done") << "the download ended after only " << i
                               << " kills: the server is not slow enough for this test";
    ASSERT_EQ(outcome, "killed") << "process " << i + 1 << "; " << requestsFor(outcome);
    rememberKill();
  }

  const size_t doneBefore = succeeded.size();
  runLastProcess();
  std::cout << doneBefore << " of " << book->chapters.size()
            << " chapters were reported downloaded before the last process; " << kills.size()
            << " kills (" << killsAtMoving << " at a move); with the last process it took "
            << std::chrono::duration_cast<milliseconds>(Clock::now() - started).count() << " ms\n";
  expectBookCompleteAndNothingLeft();
  if (HasFatalFailure()) return;

  // Resumed chapters asked for the missing bytes only: after each kill, a chapter that had
  // reported part of its bytes asked next for the rest of them, with its validator.
  const auto requests = server.requests(content::Route::kAudio);
  std::vector<std::string> keyOf;  // of each request
  std::vector<int64_t> from;       // where each request began
  size_t ranged = 0;
  for (const auto& r : requests) {
    auto it = chapterByPath.find(r.path);
    ASSERT_NE(it, chapterByPath.end()) << r.path;
    keyOf.push_back(
        QSOChapterDescription(book->id, it->second->part, it->second->chapter).toString());
    int64_t start = 0;
    if (auto range = r.header("Range")) {
      ASSERT_TRUE(range->starts_with("bytes=") && range->ends_with("-")) << *range;
      start = std::stoll(range->substr(6));
      // A file whole already (its process died before the transfer was recorded as finished)
      // asks from its end; the server's 416 then completes it without a byte.
      EXPECT_LE(start, static_cast<int64_t>(it->second->size))
          << r.path << " " << *range << ": a resume from beyond the file's end";
      EXPECT_TRUE(r.header("If-Range")) << r.path << ": a resume without its validator";
      ++ranged;
    }
    from.push_back(start);
  }
  EXPECT_GT(ranged, 0u) << "no chapter was resumed";
  std::map<std::string, int64_t> heldAtKill;  // chapter key: bytes it had at the last kill
  size_t resumes = 0;
  for (size_t j = 0, k = 0; j < requests.size(); ++j) {
    for (; k < kills.size() && kills[k].requestsBefore <= j; ++k) {
      for (const auto& [key, bytes] : kills[k].onDisk) {
        if (bytes > 0 && bytes < static_cast<int64_t>(chapterByKey[key]->size)) {
          heldAtKill[key] = bytes;
        } else {
          heldAtKill.erase(key);
        }
      }
    }
    auto held = heldAtKill.find(keyOf[j]);
    if (held == heldAtKill.end()) continue;
    ++resumes;
    EXPECT_GE(from[j], held->second)
        << keyOf[j] << " had " << held->second << " bytes when its process was killed, but "
        << "the next process asked from byte " << from[j];
    heldAtKill.erase(held);
  }
  EXPECT_GT(resumes, 0u) << "no kill caught a chapter part-way";

  // The bytes the server served, from its records. A request cut short by a kill is counted up
  // to where its chapter's next request resumed or, when that one started over, up to what the
  // killed process had reported (all of a whole file lost while being moved into place); the
  // last request of a chapter, to the end of the chapter.
  uint64_t served = 0, asked = 0;
  std::map<std::string, std::vector<size_t>> requestsOf;
  for (size_t j = 0; j < requests.size(); ++j) requestsOf[keyOf[j]].push_back(j);
  for (const auto& [key, indices] : requestsOf) {
    const auto size = static_cast<int64_t>(chapterByKey[key]->size);
    for (size_t i = 0; i < indices.size(); ++i) {
      const size_t j = indices[i];
      asked += static_cast<uint64_t>(size - from[j]);
      if (i + 1 == indices.size()) {
        served += static_cast<uint64_t>(size - from[j]);
        continue;
      }
      const size_t next = indices[i + 1];
      int64_t reached = from[next];
      if (reached == 0) {
        // Started over: what the killed process had reported, at the last kill before it.
        reached = 0;
        for (const auto& kill : kills) {
          if (kill.requestsBefore > next) break;
          if (auto it = kill.onDisk.find(key); it != kill.onDisk.end()) reached = it->second;
        }
      }
      served += static_cast<uint64_t>(std::max<int64_t>(0, reached - from[j]));
    }
    if (indices.size() > 1) {
      std::cout << "  " << key << " (" << size << " bytes) asked from:";
      for (size_t j : indices) std::cout << " " << from[j];
      std::cout << "\n";
    }
  }
  const uint64_t bookSize = book->actualSize();
  std::cout << requests.size() << " audio requests (" << ranged << " ranged, " << resumes
            << " checked resumes) for a " << bookSize << "-byte book: served " << served << " ("
            << 100 * served / bookSize << "%); asked for " << asked << " ("
            << 100 * asked / bookSize << "%, every request counted to the chapter's end)\n";
  EXPECT_LT(served, bookSize * 13 / 10);
}

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
