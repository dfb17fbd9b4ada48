// Reading chapter files for the player: content information, pieces cut on the 10240-byte chunk
// grid, the failures that finish a request with their codes, and cancellation, on real files.
#include "playback/file_read_operation.h"

#include <gtest/gtest.h>

#include <fstream>

#include "sonorell/errors.h"
#include "support/playback_support.h"

namespace sonorell {
namespace {

constexpr uint64_t kChunk = QSOFileReadOperation::kDefaultChunkSize;

class ChapterFileReading : public ::testing::Test {
 protected:
  // A file whose every byte tells its offset apart from its neighbours'.
  std::string writeFile(size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 7 + i / 251) & 0xff);
    std::ofstream(path(), std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(size));
    return bytes;
  }
  std::string path() const { return (library.path() / "1001_0_1_audio.mp3").string(); }

  std::shared_ptr<LoadingRequest> request(std::optional<std::pair<int64_t, int64_t>> range,
                                          bool contentInformation = false) {
    LoadingRequest::Options options;
    options.contentInformation = contentInformation;
    options.data = range;
    return LoadingRequest::create("qlso://1001_0_1_audio.mp3", options, client);
  }
  std::shared_ptr<QSOFileReadOperation> operation(const std::shared_ptr<LoadingRequest>& r,
                                                  uint64_t fileLength) {
    return std::make_shared<QSOFileReadOperation>(r, path(), "1001_0_1_audio.mp3", fileLength,
                                                  kChunk);
  }

  testing::TempLibrary library;
  std::shared_ptr<testing::RecordingClient> client = std::make_shared<testing::RecordingClient>();
};

TEST_F(ChapterFileReading, ARangeIsServedInPiecesThatEndOnChunkBoundaries) {
  const std::string file = writeFile(40000);

  // Bytes 15000-15999 lie in chunk 1 (10240-20479) at 4760 inside it: one piece of 1000.
  auto single = request(std::make_pair(15000, 1000), true);
  auto op = operation(single, file.size());
  op->start();
  EXPECT_EQ(client->bytes(), file.substr(15000, 1000));
  EXPECT_EQ(client->pieces(), (std::vector<size_t>{1000}));
  EXPECT_EQ(client->finishes(), 1);
  EXPECT_EQ(client->error(), nullptr);
  auto info = single->contentInformation();
  ASSERT_TRUE(info.has_value());
  EXPECT_EQ(info->contentLength, 40000);
  EXPECT_EQ(info->contentType, "public.mp3");
  EXPECT_TRUE(info->byteRangeAccessSupported);

  // 5000-34999 spans four chunks: the first piece runs to the first boundary, the last stops
  // inside its chunk.
  client = std::make_shared<testing::RecordingClient>();
  auto spanning = request(std::make_pair(5000, 30000));
  operation(spanning, file.size())->start();
  EXPECT_EQ(client->bytes(), file.substr(5000, 30000));
  EXPECT_EQ(client->pieces(),
            (std::vector<size_t>{kChunk - 5000, kChunk, kChunk, 35000 - 3 * kChunk}));
  EXPECT_EQ(client->finishes(), 1);

  // Pieces asked for one at a time: a piece shorter than its chunk re-reads the chunk for the
  // next one, which continues exactly where the last ended.
  auto stepwise = operation(request(std::make_pair(0, 1)), file.size());
  stepwise->setOffset(15000);
  std::string served;
  for (uint64_t n : {100u, 6000u, 500u, 20000u}) {
    auto piece = stepwise->readDataOfLength(n);
    served.append(reinterpret_cast<const char*>(piece.data()), piece.size());
  }
  // 100, then the 5380 left of chunk 1, then 500 and the 9740 left of chunk 2.
  EXPECT_EQ(served, file.substr(15000, 3 * kChunk - 15000));
}

TEST_F(ChapterFileReading, ContentInformationAloneNeedsNoDataAndTheLastChunkMayBeShort) {
  const std::string file = writeFile(25000);
  auto onlyInfo = request(std::nullopt, true);
  operation(onlyInfo, file.size())->start();
  EXPECT_TRUE(client->pieces().empty());
  EXPECT_EQ(client->finishes(), 1);
  EXPECT_EQ(onlyInfo->contentInformation()->contentLength, 25000);

  client = std::make_shared<testing::RecordingClient>();
  operation(request(std::make_pair(21000, 4000)), file.size())->start();
  EXPECT_EQ(client->bytes(), file.substr(21000, 4000));
  EXPECT_EQ(client->finishes(), 1);
  EXPECT_EQ(client->error(), nullptr);
}

TEST_F(ChapterFileReading, EveryFailureFinishesTheRequestWithItsCode) {
  const std::string file = writeFile(25000);

  // Past the end: what the file has is served, then the read that finds nothing aborts.
  auto pastEnd = request(std::make_pair(20000, 10000));
  operation(pastEnd, 30000)->start();
  EXPECT_EQ(client->bytes(), file.substr(20000));
  ASSERT_NE(client->error(), nullptr);
  EXPECT_EQ(client->error()->domain, QSOErrorDomain);
  EXPECT_EQ(client->error()->code, 25002);
  EXPECT_EQ(client->finishes(), 1);

  // No file at all.
  std::filesystem::remove(path());
  client = std::make_shared<testing::RecordingClient>();
  operation(request(std::make_pair(0, 100)), 25000)->start();
  ASSERT_NE(client->error(), nullptr);
  EXPECT_EQ(client->error()->code, 25000);
  EXPECT_EQ(client->finishes(), 1);

  // A path that opens but cannot be read (a directory).
  std::filesystem::create_directory(path());
  client = std::make_shared<testing::RecordingClient>();
  auto unreadable = operation(request(std::make_pair(0, 100)), 25000);
  unreadable->start();
  ASSERT_NE(client->error(), nullptr);
  EXPECT_EQ(client->error()->code, 25001);
  EXPECT_EQ(client->finishes(), 1);
  EXPECT_TRUE(unreadable->isCancelled());
  EXPECT_TRUE(unreadable->readDataOfLength(100).empty());  // nothing is opened after an abort
}

TEST_F(ChapterFileReading, ACancelledOperationNeitherRespondsNorFinishes) {
  const std::string file = writeFile(40000);

  auto early = operation(request(std::make_pair(0, 40000)), file.size());
  early->cancel();
  early->start();
  EXPECT_TRUE(client->pieces().empty());
  EXPECT_EQ(client->finishes(), 0);

  // Cancelled from the data callback after the first piece: the loop stops before the next.
  client = std::make_shared<testing::RecordingClient>();
  auto midway = operation(request(std::make_pair(0, 40000)), file.size());
  client->onData = [&](LoadingRequest&) { midway->cancel(); };
  midway->start();
  EXPECT_EQ(client->pieces(), (std::vector<size_t>{kChunk}));
  EXPECT_EQ(client->finishes(), 0);
  EXPECT_TRUE(midway->isFinished());
}

}  // namespace
}  // namespace sonorell
