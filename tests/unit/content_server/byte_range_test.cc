// Chapter audio and blobs by byte range: what a resuming transfer sends and must get back, from
// a chapter held in memory and from one read from its file alike.
#include "blob.h"
#include "server_fixture.h"
#include "sha256.h"

namespace sonorell::content::testing {
namespace {

class ByteRangeTest : public ServerTest, public ::testing::WithParamInterface<ChapterCase> {
 protected:
  const Chapter& chapter() const { return book(GetParam().bookID).chapters[GetParam().index]; }
  std::string slice(std::uint64_t offset, std::uint64_t length) {
    if (bytes_.empty()) bytes_ = chapterBytes(chapter());
    return bytes_.substr(offset, length);
  }

 private:
  std::string bytes_;
};

INSTANTIATE_TEST_SUITE_P(Chapters, ByteRangeTest,
                         ::testing::Values(kInMemoryChapter, kOnDiskChapter), chapterCaseName);

TEST_P(ByteRangeTest, GetAndHeadOfAWholeFileCarryValidatorsAndUnknownChaptersAre404) {
  for (const char* method : {"GET", "HEAD"}) {
    const HttpResult r = fetch(request(chapter().audioPath, method));
    ASSERT_EQ(r.code, CURLE_OK) << r.error;
    EXPECT_EQ(r.status, 200);
    EXPECT_EQ(r.header("Accept-Ranges"), "bytes");
    EXPECT_EQ(r.header("Content-Type"), "audio/mpeg");
    EXPECT_EQ(r.header("Content-Length"), std::to_string(chapter().size));
    EXPECT_EQ(r.header("ETag"), server_.currentETag(chapter().audioPath));
    EXPECT_EQ(r.header("Last-Modified"), "Sat, 04 Mar 2017 10:20:30 GMT");
    if (std::string(method) == "GET") {
      EXPECT_EQ(sha256Hex(r.body), chapter().sha256);
    } else {
      EXPECT_TRUE(r.body.empty());
    }
  }
  EXPECT_EQ(server_.requests(Route::kAudio).at(1).method, "HEAD");
  EXPECT_EQ(get("/audio/" + std::string(GetParam().bookID) + "/0/99.mp3").status, 404);
  EXPECT_EQ(get("/audio/999999/0/1.mp3").status, 404);
}

TEST_P(ByteRangeTest, ClosedOpenAndSuffixRangesGive206WithTheirBytesAndPastTheEndIs416) {
  const std::uint64_t size = chapter().size;
  struct Case {
    std::string range;
    std::uint64_t offset, length;
  };
  // In a long file the middle range crosses the server's 64 KB read steps.
  const std::uint64_t middle = size / 2 - std::min<std::uint64_t>(size / 4, 70'000);
  const std::vector<Case> cases = {
      {"bytes=100-199", 100, 100},
      {"bytes=0-0", 0, 1},
      {"bytes=1000-", 1000, size - 1000},
      {"bytes=-500", size - 500, 500},
      {"bytes=" + std::to_string(middle) + "-" + std::to_string(middle + 139'999), middle,
       std::min<std::uint64_t>(140'000, size - middle)},
      {"bytes=5000-99999999", 5000, size - 5000}};
  for (const Case& c : cases) {
    const HttpResult r = get(chapter().audioPath, {"Range: " + c.range});
    EXPECT_EQ(r.status, 206) << c.range;
    EXPECT_EQ(r.header("Content-Range"), "bytes " + std::to_string(c.offset) + "-" +
                                             std::to_string(c.offset + c.length - 1) + "/" +
                                             std::to_string(size))
        << c.range;
    EXPECT_TRUE(sameBytes(r.body, slice(c.offset, c.length))) << c.range;
  }
  const HttpResult beyond =
      get(chapter().audioPath, {"Range: bytes=" + std::to_string(size) + "-"});
  EXPECT_EQ(beyond.status, 416);
  EXPECT_EQ(beyond.header("Content-Range"), "bytes */" + std::to_string(size));
}

TEST_P(ByteRangeTest, IfRangeResumesOnlyWithTheCurrentValidator) {
  const std::string etag = server_.currentETag(chapter().audioPath);
  for (const std::string& current : {etag, std::string("Sat, 04 Mar 2017 10:20:30 GMT")}) {
    const HttpResult r = get(chapter().audioPath, {"Range: bytes=4000-", "If-Range: " + current});
    EXPECT_EQ(r.status, 206) << current;
    EXPECT_TRUE(sameBytes(r.body, slice(4000, chapter().size - 4000))) << current;
  }
  const auto recorded = server_.requests(Route::kAudio);
  ASSERT_EQ(recorded.size(), 2u);
  EXPECT_EQ(recorded[0].header("Range"), "bytes=4000-");
  EXPECT_EQ(recorded[0].header("If-Range"), etag);

  for (const std::string& stale : {std::string("\"0123456789abcdef0123456789abcdef\""), "W/" + etag,
                                   std::string("Sun, 05 Mar 2017 10:20:30 GMT")}) {
    const HttpResult r = get(chapter().audioPath, {"Range: bytes=4000-", "If-Range: " + stale});
    EXPECT_EQ(r.status, 200) << stale;
    EXPECT_FALSE(r.header("Content-Range")) << stale;
    EXPECT_EQ(sha256Hex(r.body), chapter().sha256) << stale;
  }
}

class BlobTest : public ServerTest {};

TEST_F(BlobTest, BlobOfAnySizeIsDeterministicAndRangeable) {
  const std::uint64_t size = 3'000'001;
  const std::string expected = blobBytes(size);
  const HttpResult whole = get("/blob/" + std::to_string(size));
  ASSERT_EQ(whole.status, 200);
  EXPECT_EQ(whole.body.size(), size);
  EXPECT_TRUE(whole.body == expected);
  const HttpResult part = get("/blob/" + std::to_string(size), {"Range: bytes=1234567-2000000"});
  EXPECT_EQ(part.status, 206);
  EXPECT_TRUE(part.body == expected.substr(1234567, 2000000 - 1234567 + 1));
  EXPECT_EQ(server_.requestCount(Route::kBlob), 2u);
}

}  // namespace
}  // namespace sonorell::content::testing
