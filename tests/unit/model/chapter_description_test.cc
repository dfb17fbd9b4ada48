#include "sonorell/chapter_description.h"

#include <gtest/gtest.h>

#include <unordered_set>

#include "sonorell/value.h"

namespace sonorell {
namespace {

TEST(ChapterDescriptionKeyForm, RoundTripsWithNumbersBeyond32Bits) {
  QSOChapterDescription original("12345", 0, 3);
  EXPECT_EQ(original.toString(), "12345_0_3");
  EXPECT_EQ(QSOChapterDescription::initWithString(original.toString()), original);
  EXPECT_EQ(QSOChapterDescription::initWithString(original.toString())->hash(), original.hash());

  QSOChapterDescription big("987", 5000000000ull, (1ull << 40) + 7);
  EXPECT_EQ(big.toString(), "987_5000000000_1099511627783");
  EXPECT_EQ(QSOChapterDescription::initWithString(big.toString()), big);
  EXPECT_EQ(QSOChapterDescription("12345", 1, 9).description(),
            "audiobookID = 12345 partNumber = 1 chapterNumber = 9");
}

TEST(ChapterDescriptionKeyForm, ReadsLenientlyButNeedsThreePieces) {
  EXPECT_EQ(QSOChapterDescription::initWithString("12345_x_y"),
            QSOChapterDescription("12345", 0, 0))
      << "pieces that are not numbers read zero";
  EXPECT_EQ(QSOChapterDescription::initWithString("12345_2_15_audio.mp3"),
            QSOChapterDescription("12345", 2, 15));
  EXPECT_FALSE(QSOChapterDescription::initWithString("12345_2").has_value());
  EXPECT_FALSE(QSOChapterDescription::initWithString("12345").has_value());
}

TEST(ChapterDescriptionEquality, EveryFieldCountsAndOtherKindsOfValueDiffer) {
  QSOChapterDescription base("12345", 1, 2);
  EXPECT_NE(base, QSOChapterDescription("12345", 1, 3));
  EXPECT_NE(base, QSOChapterDescription("12345", 2, 2));
  EXPECT_NE(base, QSOChapterDescription("12346", 1, 2));
  EXPECT_EQ(base, QSOChapterDescription("12345", 1, 2));
  EXPECT_FALSE(Value(base) == Value(base.toString()));
  EXPECT_FALSE(Value(base) == Value());
  EXPECT_TRUE(Value(base) == Value(QSOChapterDescription("12345", 1, 2)));

  std::unordered_set<QSOChapterDescription> set{base, QSOChapterDescription("12345", 1, 2),
                                                QSOChapterDescription("12345", 2, 1)};
  EXPECT_EQ(set.size(), 2u);
  EXPECT_EQ(set.count(QSOChapterDescription("12345", 2, 1)), 1u);

  QSOChapterDescription copy = base;
  copy.setPartNumber(7);
  copy.setChapterNumber(8);
  copy.setAudiobookID("999");
  EXPECT_EQ(base, QSOChapterDescription("12345", 1, 2)) << "changing a copy leaves the source";
  EXPECT_EQ(copy, QSOChapterDescription("999", 7, 8));
}

}  // namespace
}  // namespace sonorell
