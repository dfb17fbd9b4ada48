// The large book downloaded through a storm of SIGKILLs: `sonorell download`, then a `resume`
// after every kill, each process killed at an instant drawn from a seed that the test prints
// (while it starts up, once the Library has gained some bytes, or the moment a chapter file
// lands), then one last `resume` to the end. Nothing the earlier processes wrote may be thrown
// away, no chapter may be marked downloaded unless whole, and the server may not have to send
// much more than the book.
//
// Parameters (environment): SONORELL_STORM_SEED (replays a run), SONORELL_STORM_KILLS (25),
// SONORELL_STORM_BOOK (3001), SONORELL_STORM_RATE (audio bytes per second per connection,
// 8000000; 0 for as fast as loopback goes), SONORELL_STORM_ROUND_SECONDS (60: how long one
// process may go without reaching its instant before the storm counts it as stuck).
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <optional>
#include <random>
#include <set>
#include <sstream>

#include "world.h"

namespace sonorell::e2e {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using std::chrono::milliseconds;
using SteadyClock = std::chrono::steady_clock;

// Bytes a process may find gone that the one before it had on disk. Every transfer journals
// its validator before it writes a byte, so nothing a dead process wrote should ever be lost;
// the allowance only absorbs a file being read while it is renamed.
constexpr uint64_t kLossAllowance = 1 << 20;
// What the server may send in all, as a multiple of the book: each kill costs at most what was
// in flight on its connections.
constexpr double kSentAllowance = 1.3;

uint64_t parameter(const char* name, uint64_t fallback) {
  const char* text = std::getenv(name);
  if (!text || !*text) return fallback;
  char* end = nullptr;
  const unsigned long long value = std::strtoull(text, &end, 10);
  if (*end != '\0') {
    ADD_FAILURE() << name << "=" << text << " is not a number; using " << fallback;
    return fallback;
  }
  return value;
}

std::string text(const char* name, std::string fallback) {
  const char* value = std::getenv(name);
  return value && *value ? std::string(value) : fallback;
}

struct Storm {
  uint64_t seed;
  int kills;
  std::string book;
  uint64_t bytesPerSecond;
  SteadyClock::duration roundLimit;

  static Storm fromEnvironment() {
    Storm storm;
    storm.seed = parameter("SONORELL_STORM_SEED", std::random_device{}());
    storm.kills = static_cast<int>(parameter("SONORELL_STORM_KILLS", 25));
    storm.book = text("SONORELL_STORM_BOOK", "3001");
    storm.bytesPerSecond = parameter("SONORELL_STORM_RATE", 8'000'000);
    storm.roundLimit = std::chrono::seconds(parameter("SONORELL_STORM_ROUND_SECONDS", 60));
    return storm;
  }
};

enum class Kill { kDuringStartUp, kAfterBytes, kWhenAChapterLands, kNever };

struct Instant {
  Kill kind = Kill::kNever;
  milliseconds after{0};  // kDuringStartUp: from the process's start
  uint64_t bytes = 0;     // kAfterBytes: gained by the Library since the process started
};

std::string describe(const Instant& instant) {
  switch (instant.kind) {
    case Kill::kDuringStartUp:
      return "at " + std::to_string(instant.after.count()) + " ms";
    case Kill::kAfterBytes:
      return "after " + std::to_string(instant.bytes / 1000) + " kB more";
    case Kill::kWhenAChapterLands:
      return "when a chapter lands";
    case Kill::kNever:
      break;
  }
  return "never";
}

// The storm's instants. About half are "after N more bytes" (N averaging half the book's share
// per kill: the rounds that end when a chapter lands move on too, and the kills should spread
// over the download rather than run out before it ends), a quarter during
// start-up (verification, the adoption of transfers, the first requests) and a quarter the
// moment a finished chapter is moved into place, where its file, its record and its transfer's
// journal row change one after the other.
std::vector<Instant> drawInstants(uint64_t seed, int kills, uint64_t bookSize) {
  std::mt19937_64 random(seed);
  const auto below = [&random](uint64_t bound) { return bound ? random() % bound : 0; };
  std::vector<Instant> instants;
  for (int i = 0; i < kills; ++i) {
    Instant instant;
    const uint64_t roll = below(4);
    // The first process is given bytes to write first: until its request is stored, there is
    // nothing for a resume to take up.
    if (i == 0 || roll >= 2) {
      instant.kind = Kill::kAfterBytes;
      instant.bytes = 1 + below(bookSize / std::max(1, kills));
    } else if (roll == 0) {
      instant.kind = Kill::kDuringStartUp;
      instant.after = milliseconds(below(400));
    } else {
      instant.kind = Kill::kWhenAChapterLands;
    }
    instants.push_back(instant);
  }
  return instants;
}

// Chapter files landing in a book's directory (moved there once whole), told by inotify so
// that a kill follows within microseconds. The directory may appear only later.
class Arrivals {
 public:
  explicit Arrivals(fs::path directory)
      : directory_(std::move(directory)), fd_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    watch();
  }
  ~Arrivals() {
    if (fd_ >= 0) ::close(fd_);
  }
  Arrivals(const Arrivals&) = delete;
  Arrivals& operator=(const Arrivals&) = delete;

  bool usable() const { return fd_ >= 0; }

  // Waits up to `limit`; true when a file landed meanwhile.
  bool wait(milliseconds limit) {
    if (!watching_ && watch()) {
      // The directory appeared since: whatever it holds arrived after this started.
      std::error_code ec;
      if (!fs::is_empty(directory_, ec)) return true;
    }
    pollfd p{fd_, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(limit.count())) <= 0) return false;
    alignas(inotify_event) char buffer[4096];
    const ssize_t got = ::read(fd_, buffer, sizeof buffer);
    bool landed = false;
    for (ssize_t at = 0; at < got;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      landed = landed || !(event->mask & IN_ISDIR);
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
    return landed;
  }

 private:
  bool watch() {
    watching_ =
        fd_ >= 0 && ::inotify_add_watch(fd_, directory_.c_str(), IN_MOVED_TO | IN_CLOSE_WRITE) >= 0;
    return watching_;
  }

  const fs::path directory_;
  const int fd_;
  bool watching_ = false;
};

// One process of the storm.
struct Round {
  std::string command;
  Instant instant;
  std::string ended;  // "killed", how it ended by itself ("exit 0"), or "stuck"
  double seconds = 0;
  uint64_t bytesBefore = 0;  // the book's bytes on disk when it started
  uint64_t lowest = 0;       // the fewest seen while it ran
  uint64_t bytesAfter = 0;   // once it was gone
  std::string output;        // its standard output
  fs::path stderrFile;

  uint64_t lost() const { return bytesBefore > lowest ? bytesBefore - lowest : 0; }
};

class CrashStorm : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string why;
    ASSERT_TRUE(world_.ready(why)) << why;
    scratch_ = fs::path(::testing::TempDir()) / ("sonorell-storm-" + std::to_string(::getpid()));
    fs::create_directories(scratch_);
  }
  void TearDown() override {
    std::error_code ignored;
    if (HasFailure()) {
      std::cout << "each process's standard error is kept in " << scratch_ << "\n";
    } else {
      fs::remove_all(scratch_, ignored);
    }
  }

  fs::path support() const { return world_.library() / "SonorellSupport"; }

  // The book's bytes in the Library: unfinished transfers first, then chapters in place, so
  // that a file renamed from one to the other meanwhile is counted twice rather than missed.
  // A file with two names (a finished transfer's held name) counts once.
  uint64_t bytesOnDisk(const std::string& book) const {
    uint64_t total = 0;
    std::set<std::pair<dev_t, ino_t>> seen;
    for (const auto& directory :
         {support() / "TransferTemporaryFiles", support() / "Audio" / book}) {
      std::error_code ec;
      for (auto it = fs::directory_iterator(directory, ec); !ec && it != fs::directory_iterator();
           it.increment(ec)) {
        struct stat info {};
        if (::stat(it->path().c_str(), &info) != 0) continue;
        if (seen.emplace(info.st_dev, info.st_ino).second) total += uint64_t(info.st_size);
      }
    }
    return total;
  }

  Round run(const Storm& storm, int index, std::vector<std::string> arguments,
            const Instant& instant, SteadyClock::duration limit) {
    Round round;
    round.command = arguments.front();
    round.instant = instant;
    round.stderrFile = scratch_ / ("process-" + std::to_string(index) + ".stderr");
    Arrivals arrivals(support() / "Audio" / storm.book);
    EXPECT_TRUE(arrivals.usable()) << "inotify: " << std::strerror(errno);
    round.bytesBefore = round.lowest = bytesOnDisk(storm.book);
    auto child = world_.startSonorell(std::move(arguments), round.stderrFile,
                                      {{"SONORELL_LOG_LEVEL", "info"}});
    const auto started = SteadyClock::now();
    std::optional<std::string> ended;
    for (;;) {
      round.output += child->readRest(SteadyClock::now());  // keeps its pipe from filling
      if ((ended = child->wait(SteadyClock::now()))) break;
      const uint64_t bytes = bytesOnDisk(storm.book);
      round.lowest = std::min(round.lowest, bytes);
      const auto elapsed = SteadyClock::now() - started;
      if ((instant.kind == Kill::kDuringStartUp && elapsed >= instant.after) ||
          (instant.kind == Kill::kAfterBytes && bytes >= round.bytesBefore + instant.bytes)) {
        break;
      }
      if (elapsed >= limit) {
        round.ended = "stuck";
        break;
      }
      if (arrivals.wait(milliseconds(2)) && instant.kind == Kill::kWhenAChapterLands) break;
    }
    if (!ended) {
      child->signal(SIGKILL);
      ended = child->wait(content::testing::after(std::chrono::seconds(10)));
      if (round.ended.empty()) round.ended = "killed";
    } else {
      round.ended = *ended;
    }
    round.output += child->readRest(content::testing::after(std::chrono::seconds(1)));
    round.seconds = std::chrono::duration<double>(SteadyClock::now() - started).count();
    round.bytesAfter = bytesOnDisk(storm.book);
    return round;
  }

  World world_;
  fs::path scratch_;
};

std::string megabytes(uint64_t bytes) {
  std::ostringstream out;
  out << std::fixed << std::setprecision(1) << bytes / 1e6 << " MB";
  return out.str();
}

std::string describe(int index, const Round& round) {
  std::ostringstream out;
  out << std::setw(3) << index << "  " << std::left << std::setw(8) << round.command
      << std::setw(22) << describe(round.instant) << std::setw(8) << round.ended << std::right
      << std::fixed << std::setprecision(2) << std::setw(6) << round.seconds << " s  "
      << megabytes(round.bytesBefore) << " -> " << megabytes(round.bytesAfter);
  if (round.lost() > 0) out << "  (fell to " << megabytes(round.lowest) << ")";
  return out.str();
}

TEST_F(CrashStorm, TheLargeBookSurvivesKillsAtDrawnInstantsAndEndsWholeWithLittleSentTwice) {
  const Storm storm = Storm::fromEnvironment();
  std::cout << "crash storm: seed " << storm.seed
            << " (replay with SONORELL_STORM_SEED=" << storm.seed << "), " << storm.kills
            << " kills, book " << storm.book << ", audio "
            << (storm.bytesPerSecond ? std::to_string(storm.bytesPerSecond) + " B/s"
                                     : std::string("unpaced"))
            << " per connection" << std::endl;
  SCOPED_TRACE("storm seed " + std::to_string(storm.seed));
  RecordProperty("seed", std::to_string(storm.seed));

  const json book = world_.catalogueBook(storm.book);
  ASSERT_TRUE(book.is_object()) << "no book " << storm.book << " in the catalogue";
  uint64_t bookSize = 0;
  for (const auto& chapter : book.at("chapters")) bookSize += chapter.at("size").get<uint64_t>();

  // Paced like a fast real link rather than loopback: otherwise each kill would find megabytes
  // in the kernel's socket buffers, sent by the server and never received, and the count of
  // bytes sent would measure those buffers rather than what the engine asked for twice.
  if (storm.bytesPerSecond > 0) {
    ASSERT_TRUE(
        world_.setFaults(json::array({{{"route", "audio"},
                                       {"count", nullptr},
                                       {"fault", {{"bytesPerSecond", storm.bytesPerSecond}}}}})));
  }
  ASSERT_TRUE(world_.clearRequests());

  const auto instants = drawInstants(storm.seed, storm.kills, bookSize);
  std::vector<Round> rounds;
  bool finishedEarly = false;
  for (int i = 0; i < storm.kills && !finishedEarly; ++i) {
    std::vector<std::string> arguments{"resume"};
    if (i == 0) arguments = {"download", storm.book};
    rounds.push_back(run(storm, i, arguments, instants[i], storm.roundLimit));
    const Round& round = rounds.back();
    std::cout << describe(i, round) << std::endl;
    if (round.ended == "killed") continue;
    // A process that ends by itself must have finished the book; nothing is left to storm.
    EXPECT_EQ(round.ended, "exit 0")
        << round.command << " did not reach its instant:\n"
        << round.output << content::testing::readWholeFile(round.stderrFile);
    if (round.ended != "exit 0") return;
    finishedEarly = true;
  }

  Instant never;
  rounds.push_back(
      run(storm, static_cast<int>(rounds.size()), {"resume"}, never, std::chrono::minutes(5)));
  const Round& last = rounds.back();
  std::cout << describe(static_cast<int>(rounds.size()) - 1, last) << std::endl;
  ASSERT_EQ(last.ended, "exit 0") << last.output
                                  << content::testing::readWholeFile(last.stderrFile);

  // Nothing written to disk was thrown away by the process after.
  for (std::size_t i = 0; i < rounds.size(); ++i) {
    EXPECT_LE(rounds[i].lost(), kLossAllowance)
        << "process " << i << " (" << rounds[i].command << ") started with "
        << megabytes(rounds[i].bytesBefore) << " of the book on disk and fell to "
        << megabytes(rounds[i].lowest) << "; its log: " << rounds[i].stderrFile;
  }

  // Every chapter whole and recorded so.
  const json status = world_.status(storm.book);
  ASSERT_TRUE(status.is_object());
  EXPECT_EQ(status.at("status"), 3) << status.dump(1);
  const auto& chapters = book.at("chapters");
  ASSERT_EQ(status.at("chapters").size(), chapters.size()) << status.dump(1);
  for (std::size_t i = 0; i < chapters.size(); ++i) {
    const auto& served = chapters[i];
    const auto& held = status.at("chapters")[i];
    SCOPED_TRACE("chapter " + served.at("chapter").dump());
    EXPECT_EQ(held.at("chapter"), served.at("chapter"));
    EXPECT_EQ(held.at("status"), 3);
    EXPECT_EQ(held.at("downloadedSize"), served.at("size"));
    EXPECT_EQ(sha256OfFile(held.at("file").get<std::string>()), served.at("sha256"));
  }

  // Listed once.
  const auto list = world_.sonorell({"--json", "list"});
  ASSERT_EQ(list.exitCode, 0) << list.err;
  const auto lines = list.jsonLines();
  ASSERT_FALSE(lines.empty());
  const auto listed = lines.front().value("audiobooks", json::array());
  EXPECT_EQ(std::count_if(listed.begin(), listed.end(),
                          [&](const json& b) { return b.value("audiobookID", "") == storm.book; }),
            1)
      << listed.dump(1);

  // No temporary or partial file left behind.
  const auto leftovers = unfinishedFiles(world_.library());
  EXPECT_TRUE(leftovers.empty()) << leftovers.size() << " unfinished files, the first "
                                 << leftovers.front();

  // What the server sent.
  uint64_t sent = 0;
  std::size_t audioRequests = 0;
  for (const auto& request : world_.requests()) {
    if (!request.value("path", "").starts_with("/audio/" + storm.book + "/")) continue;
    sent += request.value("bytesSent", uint64_t{0});
    ++audioRequests;
  }
  const double ratio = double(sent) / double(bookSize);
  std::cout << "the server sent " << megabytes(sent) << " in " << audioRequests
            << " audio requests for a book of " << megabytes(bookSize) << ": " << std::fixed
            << std::setprecision(3) << ratio << "x" << std::endl;
  EXPECT_LT(ratio, kSentAllowance);
}

}  // namespace
}  // namespace sonorell::e2e
