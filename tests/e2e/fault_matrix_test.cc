// The server misbehaving in each way users have met, one fault at a time, against the sonorell
// CLI as a process: the exit code and error code a script sees, the statuses left behind, the
// chapters downloaded before the fault kept byte for byte, and the same download succeeding once
// the server behaves. Then the faults that are not failures: a slow link paused and resumed, a
// server that ignores Range on a resume, and a file that changes between two attempts.
#include <gtest/gtest.h>
#include <signal.h>
#include <strings.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <optional>
#include <thread>

#include "file_versions.h"
#include "library_checks.h"
#include "world.h"

namespace sonorell::e2e {
namespace {

namespace fs = std::filesystem;
using content::testing::after;
using nlohmann::json;
using std::chrono::milliseconds;

constexpr const char* kBook = "1001";       // three short chapters
constexpr const char* kOtherBook = "1002";  // downloaded beside it, must stay untouched
constexpr const char* kMetadataPath = "/v4/audiobooks/1001";
constexpr const char* kPlaylistPath = "/v4/audiobooks/1001/playlists";

enum class Stage { kMetadata, kPlaylist, kAudio };

// One fault and the download-failure code the engine documents for it: the content API's low
// code (metadata and playlist fetches) mapped to the download layer, or the transfer delegate's
// code for a chapter's audio.
struct FaultCase {
  std::string name;
  Stage stage;
  json fault;
  int64_t code;
};

void PrintTo(const FaultCase& c, std::ostream* out) { *out << c.name; }

const std::vector<FaultCase>& faultTable() {
  static const std::vector<FaultCase> table = {
      // Metadata fetch: 401 -> 45, 404 -> 60, 500 -> 50, 504 -> 55, unreadable 200 -> 70.
      {"Metadata401", Stage::kMetadata, {{"status", 401}}, 11008},
      {"Metadata404", Stage::kMetadata, {{"status", 404}}, 11004},
      {"Metadata500", Stage::kMetadata, {{"status", 500}}, 11009},
      {"Metadata504", Stage::kMetadata, {{"status", 504}}, 11010},
      {"MetadataInvalidJSON",
       Stage::kMetadata,
       {{"status", 200}, {"body", R"({"audiobook": {"id": "1001", "chapters": [{"duration": )"}},
       11005},
      // Playlist fetch: 401 -> 40, 403 without an error document -> 30, 404 -> 20, 502 -> 10,
      // 504 -> 15, an empty 200 -> 25. A playlist without items leaves no URL for a chapter.
      {"Playlist401", Stage::kPlaylist, {{"status", 401}}, 11008},
      {"Playlist403", Stage::kPlaylist, {{"status", 403}}, 10001},
      {"Playlist404", Stage::kPlaylist, {{"status", 404}}, 11000},
      {"Playlist502", Stage::kPlaylist, {{"status", 502}}, 11009},
      {"Playlist504", Stage::kPlaylist, {{"status", 504}}, 11010},
      {"PlaylistEmptyBody", Stage::kPlaylist, {{"status", 200}, {"body", ""}}, 13002},
      {"PlaylistWithoutItems",
       Stage::kPlaylist,
       {{"status", 200},
        {"body", R"({"playlist_token": "t", "expires": "2099-01-01T00:00:00+0000", )"
                 R"("playlist": []})"}},
       11007},
      // A chapter's audio: 400 -> 15000, 404 -> 11004, 500/503/504 -> 11009, 502 (no body) and
      // every transfer error -> 10000.
      {"Audio400", Stage::kAudio, {{"status", 400}}, 15000},
      {"Audio404", Stage::kAudio, {{"status", 404}}, 11004},
      {"Audio500", Stage::kAudio, {{"status", 500}}, 11009},
      {"Audio502", Stage::kAudio, {{"status", 502}}, 10000},
      {"Audio503", Stage::kAudio, {{"status", 503}}, 11009},
      {"Audio504", Stage::kAudio, {{"status", 504}}, 11009},
      {"AudioDroppedConnection", Stage::kAudio, {{"dropConnection", true}}, 10000},
      {"AudioCutAfter1000Bytes", Stage::kAudio, {{"cutAfterBytes", 1000}}, 10000},
      {"AudioContentLengthBeyondBody", Stage::kAudio, {{"declaredLength", 1'000'000}}, 10000},
  };
  return table;
}

std::string routeOf(Stage stage) {
  switch (stage) {
    case Stage::kMetadata:
      return "metadata";
    case Stage::kPlaylist:
      return "playlist";
    case Stage::kAudio:
      return "audio";
  }
  return {};
}

// The served path of a chapter of `book` (1-based index into the catalogue's list).
std::string chapterPath(const World& world, const std::string& book, std::size_t chapter) {
  const json served = world.catalogueBook(book);
  if (!served.is_object() || served.at("chapters").size() < chapter) return {};
  return served.at("chapters")[chapter - 1].at("path");
}

// The requests the server saw for `path`.
std::vector<json> requestsFor(const World& world, const std::string& path) {
  std::vector<json> found;
  for (const auto& r : world.requests()) {
    if (r.value("path", "") == path) found.push_back(r);
  }
  return found;
}

std::optional<std::string> header(const json& request, const std::string& name) {
  const auto headers = request.find("headers");
  if (headers == request.end() || !headers->is_object()) return std::nullopt;
  for (auto it = headers->begin(); it != headers->end(); ++it) {
    if (strcasecmp(it.key().c_str(), name.c_str()) == 0 && it->is_string()) {
      return it->get<std::string>();
    }
  }
  return std::nullopt;
}

bool carriesCode(const std::vector<json>& lines, int64_t code) {
  return std::any_of(lines.begin(), lines.end(), [code](const json& l) {
    return l.value("event", "") != "summary" && l.contains("SonorellError") &&
           l.at("SonorellError").value("code", int64_t{0}) == code;
  });
}

// Nothing an earlier run left stored is taken up by a later one.
void expectNothingStored(const World& world) {
  const auto resume = world.sonorell({"--json", "resume"});
  EXPECT_EQ(resume.exitCode, 0) << describe(resume);
  for (const auto& line : resume.jsonLines()) {
    EXPECT_FALSE(line.contains("DownloadRequestID")) << "a request was left stored: " << line;
  }
}

// Chapters not downloaded have no file in place, and downloaded ones are the served bytes.
void expectNoChapterClaimedWithoutItsFile(const World& world, const std::string& book) {
  const json served = world.catalogueBook(book);
  for (const auto& c : chapterStates(world, book)) {
    if (c.status == kDownloaded) {
      EXPECT_EQ(c.sha256, served.at("chapters")[c.chapter - 1].at("sha256"))
          << "chapter " << c.chapter << " marked downloaded with other bytes";
    } else {
      EXPECT_FALSE(fs::exists(c.file))
          << c.file << " is there though chapter " << c.chapter << " has status " << c.status;
    }
  }
}

class FaultMatrix : public ::testing::TestWithParam<FaultCase> {
 protected:
  void SetUp() override {
    std::string why;
    ASSERT_TRUE(world_.ready(why)) << why;
  }
  World world_;
};

TEST_P(FaultMatrix, FailsWithTheDocumentedCodeKeepsWhatWasDownloadedAndSucceedsOnceCleared) {
  const FaultCase& c = GetParam();
  // What is on disk before the fault: another book for a metadata fault (the book itself has no
  // records yet), otherwise the book's first chapter.
  const std::string kept = c.stage == Stage::kMetadata ? kOtherBook : kBook;
  const auto setup =
      c.stage == Stage::kMetadata
          ? world_.sonorell({"--json", "download", kOtherBook})
          : world_.sonorell({"--json", "download", kBook, "--part", "0", "--chapter", "1"});
  ASSERT_EQ(setup.exitCode, 0) << describe(setup);
  const auto before = chapterStates(world_, kept);
  ASSERT_TRUE(std::any_of(before.begin(), before.end(),
                          [](const ChapterState& s) { return s.status == kDownloaded; }));

  const std::string path = c.stage == Stage::kMetadata   ? kMetadataPath
                           : c.stage == Stage::kPlaylist ? kPlaylistPath
                                                         : chapterPath(world_, kBook, 2);
  ASSERT_FALSE(path.empty());
  ASSERT_TRUE(world_.setFaults(json::array(
      {{{"route", routeOf(c.stage)}, {"path", path}, {"count", nullptr}, {"fault", c.fault}}})));
  ASSERT_TRUE(world_.clearRequests());

  const auto failed = world_.sonorell({"--json", "download", kBook}, {}, Seconds(60));
  EXPECT_EQ(failed.exitCode, 1) << describe(failed);
  EXPECT_EQ(summaryCode(failed), c.code) << describe(failed);
  EXPECT_NE(failed.err.find("error " + std::to_string(c.code) + ":"), std::string::npos)
      << describe(failed);
  EXPECT_TRUE(carriesCode(failed.jsonLines(), c.code)) << describe(failed);
  // The fault was met: the request reached the faulted path, answered as the rule says.
  const auto hits = requestsFor(world_, path);
  ASSERT_FALSE(hits.empty()) << world_.requests().dump();
  if (c.fault.contains("status")) {
    EXPECT_EQ(hits.front().at("status"), c.fault.at("status"));
  }

  // What is left: the chapters downloaded before, untouched; nothing claimed without its file.
  expectDownloadedChaptersKept(world_, kept, before);
  if (c.stage == Stage::kMetadata) {
    const json report = world_.status(kBook);
    ASSERT_TRUE(report.is_object());
    EXPECT_EQ(report.at("status"), kNotDownloaded) << report.dump();
    EXPECT_TRUE(report.at("chapters").empty()) << report.dump();
  } else {
    const json report = world_.status(kBook);
    ASSERT_TRUE(report.is_object());
    EXPECT_EQ(report.at("status"), kPartiallyDownloaded) << report.dump();
    expectNoChapterClaimedWithoutItsFile(world_, kBook);
    if (c.stage == Stage::kAudio) {
      const auto states = chapterStates(world_, kBook);
      ASSERT_GE(states.size(), 2u);
      EXPECT_EQ(states[1].status, kNotDownloaded) << "the faulted chapter";
    }
  }

  // The server behaves again: the same command completes the book, and nothing is left stored.
  // (Transfers the failed run was still cancelling when it exited are dropped by this launch.)
  ASSERT_TRUE(world_.clearFaults());
  const auto retried = world_.sonorell({"--json", "download", kBook});
  EXPECT_EQ(retried.exitCode, 0) << describe(retried);
  EXPECT_EQ(summaryCode(retried), 0) << describe(retried);
  expectWholeBook(world_, kBook);
  expectDownloadedChaptersKept(world_, kept, before);
  expectNoUnfinishedFiles(world_.library());
  expectNothingStored(world_);
}

INSTANTIATE_TEST_SUITE_P(Faults, FaultMatrix, ::testing::ValuesIn(faultTable()),
                         [](const ::testing::TestParamInfo<FaultCase>& info) {
                           return info.param.name;
                         });

// --- faults that are not failures ----------------------------------------------------------------

class SlowAndChangingServer : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string why;
    ASSERT_TRUE(world_.ready(why)) << why;
  }

  // Starts `download BOOK --json` and reads its event lines until `count` chapters succeeded.
  std::unique_ptr<ChildProgram> downloadUntilChaptersDone(int count) {
    auto child = world_.startSonorell({"--json", "download", kBook}, stderrFile());
    int done = 0;
    const auto deadline = after(milliseconds(60'000));
    while (done < count) {
      const auto line = child->readLine(deadline);
      if (!line) break;
      seen_ += *line + "\n";
      if (json::parse(*line, nullptr, false).value("event", "") == "QSOChapterDownloadSuccess") {
        ++done;
      }
    }
    EXPECT_EQ(done, count) << seen_;
    return child;
  }

  // Waits until a transfer of the running download has at least `bytes` in its file.
  bool waitForPartialFile(uint64_t bytes) {
    const auto dir = world_.library() / "SonorellSupport" / "TransferTemporaryFiles";
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < deadline) {
      std::error_code ignored;
      for (const auto& entry : fs::directory_iterator(dir, ignored)) {
        // The file being written, not a name a finished one is also held under.
        if (entry.path().extension() == ".tmp" && entry.is_regular_file(ignored) &&
            entry.file_size(ignored) >= bytes) {
          return true;
        }
      }
      std::this_thread::sleep_for(milliseconds(20));  // another process is writing it
    }
    return false;
  }

  fs::path stderrFile() const { return world_.library().parent_path() / (name_ + ".stderr"); }

  // Kills the download in the middle of chapter 3 (paced) after chapters 1 and 2 are in place.
  std::vector<ChapterState> killDuringTheLastChapter() {
    const std::string path = chapterPath(world_, kBook, 3);
    EXPECT_TRUE(world_.setFaults(json::array({{{"route", "audio"},
                                               {"path", path},
                                               {"count", nullptr},
                                               {"fault", {{"bytesPerSecond", 6000}}}}})));
    auto child = downloadUntilChaptersDone(2);
    EXPECT_TRUE(waitForPartialFile(8192)) << "no partial file of chapter 3 appeared";
    child->signal(SIGKILL);
    EXPECT_EQ(child->wait(after(milliseconds(10'000))), "signal 9");
    return chapterStates(world_, kBook);
  }

  World world_;
  std::string seen_;
  std::string name_ = ::testing::UnitTest::GetInstance()->current_test_info()->name();
};

TEST_F(SlowAndChangingServer, At10KBPerSecondCtrlCPausesKeepingDoneChaptersAndDownloadFinishes) {
  ASSERT_TRUE(world_.setFaults(json::array(
      {{{"route", "audio"}, {"count", nullptr}, {"fault", {{"bytesPerSecond", 10'000}}}}})));
  auto child = downloadUntilChaptersDone(1);
  child->signal(SIGINT);
  const auto rest = child->readRest(after(milliseconds(30'000)));
  EXPECT_EQ(child->wait(after(milliseconds(30'000))), "exit 1") << seen_ << rest;
  CommandResult interrupted{1, seen_ + rest, {}};
  EXPECT_EQ(summaryCode(interrupted), 16000) << interrupted.out;
  EXPECT_NE(interrupted.out.find("QSODownloadRequestPaused"), std::string::npos);

  const auto paused = chapterStates(world_, kBook);
  const auto downloaded = std::count_if(
      paused.begin(), paused.end(), [](const ChapterState& s) { return s.status == kDownloaded; });
  EXPECT_GE(downloaded, 1);
  EXPECT_LT(downloaded, 3) << "the pause came after the end";
  EXPECT_EQ(world_.status(kBook).at("status"), kPartiallyDownloaded);
  expectNoChapterClaimedWithoutItsFile(world_, kBook);
  // A paused request is forgotten: nothing resumes it behind the user's back.
  expectNothingStored(world_);

  // Downloading again, still at 10 KB/s, fetches only what is missing and completes the book.
  ASSERT_TRUE(world_.clearRequests());
  const auto again = world_.sonorell({"--json", "download", kBook});
  EXPECT_EQ(again.exitCode, 0) << describe(again);
  expectWholeBook(world_, kBook);
  expectDownloadedChaptersKept(world_, kBook, paused);
  const json served = world_.catalogueBook(kBook);
  for (const auto& s : paused) {
    if (s.status != kDownloaded) continue;
    EXPECT_TRUE(requestsFor(world_, served.at("chapters")[s.chapter - 1].at("path")).empty())
        << "chapter " << s.chapter << " was fetched again";
  }
  expectNoUnfinishedFiles(world_.library());
}

TEST_F(SlowAndChangingServer, AResumeTheServerAnswersWithTheWholeFileStartsTheFileOver) {
  const auto before = killDuringTheLastChapter();
  const std::string path = chapterPath(world_, kBook, 3);
  ASSERT_TRUE(world_.setFaults(json::array({{{"route", "audio"},
                                             {"path", path},
                                             {"count", nullptr},
                                             {"fault", {{"ignoreRange", true}}}}})));
  ASSERT_TRUE(world_.clearRequests());

  const auto resume = world_.sonorell({"--json", "resume"});
  EXPECT_EQ(resume.exitCode, 0) << describe(resume);
  // The resume asked for the rest and got the whole file, which replaced the partial one.
  const auto asked = requestsFor(world_, path);
  ASSERT_FALSE(asked.empty());
  EXPECT_TRUE(header(asked.front(), "Range").has_value()) << asked.front().dump();
  EXPECT_EQ(asked.front().at("status"), 200);
  expectWholeBook(world_, kBook);
  expectDownloadedChaptersKept(world_, kBook, before);
  expectNoUnfinishedFiles(world_.library());
  expectNothingStored(world_);
}

TEST_F(SlowAndChangingServer, AFileChangedBetweenTwoAttemptsIsTakenWholeFromTheNewVersion) {
  const auto before = killDuringTheLastChapter();
  const std::string path = chapterPath(world_, kBook, 3);
  ASSERT_TRUE(world_.setFaults(json::array(
      {{{"route", "audio"}, {"path", path}, {"count", 1}, {"fault", {{"changeFile", true}}}}})));
  ASSERT_TRUE(world_.clearRequests());

  const auto resume = world_.sonorell({"--json", "resume"});
  EXPECT_EQ(resume.exitCode, 0) << describe(resume);
  // The validator of the first attempt no longer matches: the server sent the new file whole.
  const auto asked = requestsFor(world_, path);
  ASSERT_FALSE(asked.empty());
  EXPECT_TRUE(header(asked.front(), "If-Range").has_value()) << asked.front().dump();
  EXPECT_EQ(asked.front().at("status"), 200);

  const auto states = chapterStates(world_, kBook);
  ASSERT_EQ(states.size(), 3u);
  EXPECT_EQ(states[2].status, kDownloaded);
  const std::string original = world_.catalogueBook(kBook).at("chapters")[2].at("sha256");
  EXPECT_NE(states[2].sha256, original) << "the old version was kept";
  // Version 1 is version 0 with bytes flipped in place; flipping them back must give the
  // original throughout, which no splice of the two versions does.
  std::ifstream in(states[2].file, std::ios::binary);
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  content::applyVersion(1, 0, bytes.data(), bytes.size());
  const auto restored = world_.library() / "restored.mp3";
  std::ofstream(restored, std::ios::binary) << bytes;
  EXPECT_EQ(sha256OfFile(restored), original) << "the file mixes the two versions";
  expectDownloadedChaptersKept(world_, kBook, before);
  expectNoUnfinishedFiles(world_.library());
  expectNothingStored(world_);
}

}  // namespace
}  // namespace sonorell::e2e
