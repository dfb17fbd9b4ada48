// The catalogue's audio: rendered the same way every time, and real MP3 that GStreamer decodes
// to the durations the metadata states.
#include <gst/gst.h>

#include <fstream>

#include "data_dir.h"
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

// Plays the file through mpg123 to the end; the duration the pipeline reports, in ms, or -1 when
// it does not decode.
std::int64_t decodedMs(const std::filesystem::path& file) {
  gst_init(nullptr, nullptr);
  GError* error = nullptr;
  GstElement* pipeline =
      gst_parse_launch(("filesrc location=\"" + file.string() +
                        "\" ! mpegaudioparse ! mpg123audiodec ! fakesink sync=false")
                           .c_str(),
                       &error);
  if (error) {
    ADD_FAILURE() << error->message;
    g_error_free(error);
    return -1;
  }
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  GstBus* bus = gst_element_get_bus(pipeline);
  GstMessage* msg = gst_bus_timed_pop_filtered(
      bus, 30 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
  std::int64_t result = -1;
  gint64 duration = 0;
  if (msg && GST_MESSAGE_TYPE(msg) == GST_MESSAGE_EOS &&
      gst_element_query_duration(pipeline, GST_FORMAT_TIME, &duration)) {
    result = duration / GST_MSECOND;
  }
  if (msg) gst_message_unref(msg);
  gst_object_unref(bus);
  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(pipeline);
  return result;
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
      EXPECT_EQ(x.chapters[c].sha256, sha256Hex(*x.chapters[c].bytes));
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
  const unsigned char* b = reinterpret_cast<const unsigned char*>(first.bytes->data());
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
  for (std::string_view id : {kThreeChapterBookID, kLargeBookID}) {
    const Chapter& c = book(id).chapters.back();
    const HttpResult r = get(c.audioPath);
    ASSERT_EQ(r.status, 200);
    const auto file = dir / "chapter.mp3";
    std::ofstream(file, std::ios::binary) << r.body;
    const std::int64_t ms = decodedMs(file);
    ASSERT_GT(ms, 0) << c.audioPath;
    EXPECT_LE(std::llabs(ms - static_cast<std::int64_t>(c.durationMs)), kFrameMs) << c.audioPath;
  }
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace sonorell::content::testing
