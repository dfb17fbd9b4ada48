// The catalogue's audio: rendered the same way every time, and real MP3 that GStreamer decodes
// to the durations the metadata states, the long chapters made of repeated frames included.
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>

#include "data_dir.h"
#include "mp3_decode.h"
#include "server_fixture.h"
#include "sha256.h"

namespace sonorell::content::testing {
namespace {

std::filesystem::path freshDir(const std::string& name) {
  const auto dir = std::filesystem::path(::testing::TempDir()) /
                   ("sonorell-catalogue-" + name + "-" + std::to_string(::getpid()));
  std::filesystem::remove_all(dir);
  return dir;
}

// Reads an MPEG-1 Layer III mono stream the way a decoder lays it out: every frame header is
// 64 kbit/s at 44.1 kHz, and each frame's audio data lies after the previous frame's and inside
// the stream (where it starts is the frame's reservoir pointer, main_data_begin). Returns the
// number of frames, or a description of the first frame that breaks the layout.
struct FrameWalk {
  std::uint64_t frames = 0;
  std::string problem;
};

FrameWalk walkFrames(std::string_view mp3) {
  FrameWalk walk;
  std::size_t at = 0;
  std::int64_t payloadSeen = 0;  // audio-data bytes of the frames before this one
  std::int64_t dataEnd = 0;      // where the previous frame's audio data ended, in those bytes
  while (at < mp3.size()) {
    const auto* f = reinterpret_cast<const unsigned char*>(mp3.data() + at);
    const std::string where =
        "frame " + std::to_string(walk.frames) + " at byte " + std::to_string(at) + ": ";
    if (mp3.size() - at < 21 || f[0] != 0xFF || f[1] != 0xFB || (f[2] >> 4) != 5 ||
        ((f[2] >> 2) & 3) != 0 || (f[3] >> 6) != 3) {
      walk.problem = where + "not a 64 kbit/s 44.1 kHz mono frame without CRC";
      return walk;
    }
    const std::size_t length = 144 * 64000 / 44100 + ((f[2] >> 1) & 1);
    if (mp3.size() - at < length) {
      walk.problem = where + "cut short";
      return walk;
    }
    // Side information, 17 bytes: main_data_begin (9 bits), then per granule part2_3_length
    // (12 bits) at bits 18 and 77.
    auto bits = [side = f + 4](unsigned from, unsigned count) {
      unsigned value = 0;
      for (unsigned i = from; i < from + count; ++i)
        value = value << 1 | ((side[i / 8] >> (7 - i % 8)) & 1);
      return value;
    };
    const std::int64_t begin = payloadSeen - bits(0, 9);
    const std::int64_t end = begin + (bits(18, 12) + bits(77, 12) + 7) / 8;
    const auto payload = static_cast<std::int64_t>(length - 21);
    if (begin < dataEnd || end > payloadSeen + payload) {
      walk.problem = where + "audio data at " + std::to_string(begin) + ".." + std::to_string(end) +
                     " overlaps the previous frame's (ending at " + std::to_string(dataEnd) +
                     ") or runs past this frame";
      return walk;
    }
    dataEnd = end;
    payloadSeen += payload;
    at += length;
    ++walk.frames;
  }
  return walk;
}

TEST(CatalogueRendering, TwoDataDirectoriesGetByteIdenticalChapters) {
  // By default the data lives under the temp directory, keyed by the catalogue's version.
  EXPECT_EQ(defaultDataDir().filename(), Catalogue::version());
  EXPECT_EQ(defaultDataDir().parent_path().parent_path(), std::filesystem::temp_directory_path());

  const auto first = freshDir("a");
  const auto second = freshDir("b");
  CatalogueLoadStats firstStats, secondStats, againStats;
  const Catalogue a = Catalogue::load(first, &firstStats);
  const Catalogue b = Catalogue::load(second, &secondStats);
  EXPECT_GT(firstStats.rendered, 0u);
  EXPECT_EQ(firstStats.rendered, secondStats.rendered);

  ASSERT_EQ(a.books().size(), b.books().size());
  for (std::size_t i = 0; i < a.books().size(); ++i) {
    const Book& x = a.books()[i];
    const Book& y = b.books()[i];
    ASSERT_EQ(x.chapters.size(), y.chapters.size());
    for (std::size_t c = 0; c < x.chapters.size(); ++c) {
      EXPECT_EQ(x.chapters[c].sha256, y.chapters[c].sha256) << x.id << " " << c;
      EXPECT_EQ(x.chapters[c].sha256, sha256Hex(x.chapters[c].bytes->all()));
      EXPECT_EQ(x.chapters[c].durationMs, y.chapters[c].durationMs);
    }
  }
  // A later load renders nothing and reads the same files back.
  const Catalogue again = Catalogue::load(first, &againStats);
  EXPECT_EQ(againStats.rendered, 0u);
  EXPECT_EQ(again.books()[0].chapters[0].sha256, a.books()[0].chapters[0].sha256);
  // Nothing half-written is left beside the files.
  for (const auto& entry : std::filesystem::directory_iterator(first / "audio")) {
    EXPECT_EQ(entry.path().string().find(".tmp-"), std::string::npos) << entry.path();
  }
  std::filesystem::remove_all(first);
  std::filesystem::remove_all(second);
}

class CatalogueAudioTest : public ServerTest {};

TEST_F(CatalogueAudioTest, ChaptersAreCbrMp3At64kbitThatDecodesToTheStatedDurations) {
  const Chapter& first = book(kFourChapterBookID).chapters[0];
  const std::string head = first.bytes->slice(0, 4);
  const auto* b = reinterpret_cast<const unsigned char*>(head.data());
  // MPEG-1 Layer III frame sync, then bitrate index 5 (64 kbit/s) and 44.1 kHz.
  EXPECT_EQ(b[0], 0xFF);
  EXPECT_EQ(b[1] & 0xFE, 0xFA);
  EXPECT_EQ(b[2] >> 4, 5);
  EXPECT_EQ((b[2] >> 2) & 3, 0);
  // At 8000 bytes a second the size follows the duration.
  EXPECT_NEAR(static_cast<double>(first.size), first.durationMs * 8.0, 8000 * 0.05);

  constexpr std::int64_t kFrameMs = 27;  // 1152 samples at 44.1 kHz, rounded up
  const auto dir = freshDir("decode");
  std::filesystem::create_directories(dir);
  for (std::string_view id : {kThreeChapterBookID, kLargeBookID, kTenMegabyteChapterBookID}) {
    const Chapter& c = book(id).chapters.back();
    const HttpResult r = get(c.audioPath);
    ASSERT_EQ(r.status, 200);
    ASSERT_EQ(r.body.size(), c.size);
    const auto file = dir / "chapter.mp3";
    std::ofstream(file, std::ios::binary) << r.body;
    const std::int64_t ms = decodedMs(file);
    ASSERT_GT(ms, 0) << c.audioPath;
    EXPECT_LE(std::llabs(ms - static_cast<std::int64_t>(c.durationMs)), kFrameMs) << c.audioPath;
  }
  std::filesystem::remove_all(dir);
}

TEST_F(CatalogueAudioTest, TenMegabyteChaptersAreWholeFramesReadFromTheirFilesAtTheirStatedLength) {
  const Book& b = book(kTenMegabyteChapterBookID);
  ASSERT_EQ(b.chapters.size(), 20u);
  std::set<std::uint64_t> durations;
  for (const Chapter& c : b.chapters) {
    // Kept on disk: twenty of them would cost every process that starts a server 200 MB.
    EXPECT_FALSE(c.bytes->isInMemory()) << c.audioPath;
    EXPECT_GE(c.size, 9'500'000u) << c.audioPath;
    EXPECT_LE(c.size, 11'500'000u) << c.audioPath;
    const std::string bytes = c.bytes->all();
    ASSERT_EQ(bytes.size(), c.size) << c.audioPath;
    EXPECT_EQ(sha256Hex(bytes), c.sha256) << c.audioPath;
    const FrameWalk walk = walkFrames(bytes);
    ASSERT_EQ(walk.problem, "") << c.audioPath;
    // 1152 samples a frame at 44.1 kHz.
    EXPECT_NEAR(static_cast<double>(walk.frames) * 1152 * 1000 / 44100,
                static_cast<double>(c.durationMs), 1.0)
        << c.audioPath;
    durations.insert(c.durationMs);
  }
  EXPECT_EQ(durations.size(), b.chapters.size()) << "chapters of one length hide mix-ups";
  // The metadata document states what the files hold.
  const HttpResult r = get("/v4/audiobooks/" + b.id);
  ASSERT_EQ(r.status, 200);
  const auto doc = nlohmann::json::parse(r.body).at("audiobook");
  EXPECT_EQ(doc.at("actual_size").get<std::uint64_t>(), b.actualSize());
  EXPECT_EQ(doc.at("chapters").back().at("duration").get<std::uint64_t>(),
            b.chapters.back().durationMs);
}

}  // namespace
}  // namespace sonorell::content::testing
