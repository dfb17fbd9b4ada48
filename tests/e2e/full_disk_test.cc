// A Library on a disk that is nearly full: a small tmpfs mounted over the Library directory in a
// mount namespace of the test's own (skipped, saying why, where the system allows neither). A
// book that does not fit fails with 18000, leaves no chapter recorded as downloaded without its
// whole file, leaves another book on the same disk alone, and downloads once room is made.
#include <gtest/gtest.h>

#include <fstream>
#include <iostream>

#include "isolation.h"
#include "library_checks.h"
#include "world.h"

namespace sonorell::e2e {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr const char* kBook = "2001";   // 60 chapters, 4.5 MB
constexpr const char* kOther = "1001";  // three short chapters, downloaded first
constexpr uint64_t kDiskSize = 16 << 20;

// Fills the disk with a file of the user's own until `room` bytes are left.
bool fillUntil(const fs::path& file, const TmpfsMount& disk, uint64_t room) {
  const uint64_t available = disk.available();
  if (available <= room) return false;
  std::ofstream out(file, std::ios::binary);
  const std::vector<char> block(1 << 16, 'x');
  for (uint64_t left = available - room; left > 0 && out;) {
    const uint64_t n = std::min<uint64_t>(left, block.size());
    out.write(block.data(), static_cast<std::streamsize>(n));
    left -= n;
  }
  out.close();
  return static_cast<bool>(out);
}

TEST(FullDisk, ABookThatDoesNotFitFailsWith18000KeepsWholeChaptersAndFinishesOnceThereIsRoom) {
  World world;
  std::string why;
  ASSERT_TRUE(world.ready(why)) << why;
  if (!enterPrivateMountNamespace(why)) GTEST_SKIP() << "no mount namespace: " << why;
  auto disk = TmpfsMount::mount(world.library(), kDiskSize, why);
  if (!disk) GTEST_SKIP() << "no tmpfs: " << why;

  const auto other = world.sonorell({"download", kOther});
  ASSERT_EQ(other.exitCode, 0) << describe(other);
  expectWholeBook(world, kOther);

  // Room for about two fifths of the book: some chapters fit, the rest cannot.
  const json book = world.catalogueBook(kBook);
  ASSERT_TRUE(book.is_object());
  uint64_t bookSize = 0;
  for (const auto& chapter : book.at("chapters")) bookSize += chapter.at("size").get<uint64_t>();
  const fs::path filler = world.library() / "filler.bin";
  ASSERT_TRUE(fillUntil(filler, *disk, bookSize * 2 / 5))
      << "only " << disk->available() << " bytes free on the " << kDiskSize << "-byte disk";

  const auto full = world.sonorell({"--json", "download", kBook});
  EXPECT_EQ(full.exitCode, 1) << describe(full);
  EXPECT_EQ(summaryCode(full), 18000) << describe(full);

  // Every chapter recorded as downloaded is the served file, whole.
  const auto partial = chapterStates(world, kBook);
  ASSERT_EQ(partial.size(), book.at("chapters").size());
  std::size_t downloaded = 0;
  for (std::size_t i = 0; i < partial.size(); ++i) {
    if (partial[i].status != kDownloaded) continue;
    ++downloaded;
    EXPECT_EQ(partial[i].sha256, book.at("chapters")[i].at("sha256")) << partial[i].file;
  }
  std::cout << downloaded << " of " << partial.size()
            << " chapters were recorded as downloaded before the disk was full" << std::endl;
  EXPECT_LT(downloaded, partial.size());
  expectWholeBook(world, kOther);

  // Room made: the same command finishes the book, and nothing of the failed run is left over.
  ASSERT_TRUE(fs::remove(filler));
  const auto again = world.sonorell({"download", kBook});
  EXPECT_EQ(again.exitCode, 0) << describe(again);
  expectDownloadedChaptersKept(world, kBook, partial);
  expectWholeBook(world, kBook);
  expectWholeBook(world, kOther);
  expectNoUnfinishedFiles(world.library());
}

}  // namespace
}  // namespace sonorell::e2e
