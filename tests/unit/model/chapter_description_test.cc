#include "sonorell/chapter_description.h"

#include <gtest/gtest.h>

#include <unordered_set>

#include "sonorell/value.h"

namespace sonorell {
namespace {

TEST(ChapterDescriptionKeyForm, RoundTripsThroughTheKeyForm) {
  QSOChapterDescription original("12345", 0, 3);
  EXPECT_EQ(original.toString(), "12345_0_3");

  auto parsed = QSOChapterDescription::initWithString(original.toString());
  ASSERT_TRUE(parsed.has_value());
  EXPECT_EQ(*parsed, original);
  EXPECT_EQ(parsed->hash(), original.hash());
}

TEST(ChapterDescriptionKeyForm, NumbersBeyond32BitsSurvive) {
  QSOChapterDescription original("987", 5000000000ull, (1ull << 40) + 7);
  EXPECT_EQ(original.toString(), "987_5000000000_1099511627783");

  auto parsed = QSOChapterDescription::initWithString(original.toString());
  ASSERT_TRUE(parsed.has_value());
  EXPECT_EQ(parsed->partNumber(), 5000000000ull);
  EXPECT_EQ(parsed->chapterNumber(), (1ull << 40) + 7);
}

TEST(ChapterDescriptionKeyForm, PiecesThatAreNotNumbersReadZero) {
  auto parsed = QSOChapterDescription::initWithString("12345_x_y");
  ASSERT_TRUE(parsed.has_value());
  EXPECT_EQ(parsed->audiobookID(), "12345");
  EXPECT_EQ(parsed->partNumber(), 0u);
  EXPECT_EQ(parsed->chapterNumber(), 0u);
}

TEST(ChapterDescriptionKeyForm, PiecesAfterTheThirdAreIgnored) {
  auto parsed = QSOChapterDescription::initWithString("12345_2_15_audio.mp3");
  ASSERT_TRUE(parsed.has_value());
  EXPECT_EQ(*parsed, QSOChapterDescription("12345", 2, 15));
}

TEST(ChapterDescriptionKeyForm, FewerThanThreePiecesIsNoDescription) {
  EXPECT_FALSE(QSOChapterDescription::initWithString("12345_2").has_value());
  EXPECT_FALSE(QSOChapterDescription::initWithString("12345").has_value());
}

TEST(ChapterDescriptionDisplay, DescriptionNamesAllThreeFields) {
  EXPECT_EQ(QSOChapterDescription("12345", 1, 9).description(),
            "audiobookID = 12345 partNumber = 1 chapterNumber = 9");
}

TEST(ChapterDescriptionEquality, DiffersWhenAnyFieldDiffers) {
  QSOChapterDescription base("12345", 1, 2);
  EXPECT_NE(base, QSOChapterDescription("12345", 1, 3));
  EXPECT_NE(base, QSOChapterDescription("12345", 2, 2));
  EXPECT_NE(base, QSOChapterDescription("12346", 1, 2));
  EXPECT_EQ(base, QSOChapterDescription("12345", 1, 2));
}

TEST(ChapterDescriptionEquality, IsNotEqualToAValueOfAnotherKind) {
  QSOChapterDescription chapter("12345", 0, 3);
  EXPECT_FALSE(Value(chapter) == Value(chapter.toString()));
  EXPECT_FALSE(Value(chapter) == Value());
  EXPECT_TRUE(Value(chapter) == Value(QSOChapterDescription("12345", 0, 3)));
}

TEST(ChapterDescriptionEquality, EqualDescriptionsCollapseInAHashedSet) {
  std::unordered_set<QSOChapterDescription> set;
  set.insert(QSOChapterDescription("1", 0, 1));
  set.insert(QSOChapterDescription("1", 0, 1));
  set.insert(QSOChapterDescription("1", 1, 0));
  EXPECT_EQ(set.size(), 2u);
  EXPECT_EQ(set.count(QSOChapterDescription("1", 1, 0)), 1u);
}

TEST(ChapterDescriptionCopy, ChangingTheCopyLeavesTheSource) {
  QSOChapterDescription source("12345", 1, 2);
  QSOChapterDescription copy = source;
  EXPECT_EQ(copy, source);

  copy.setPartNumber(7);
  copy.setChapterNumber(8);
  copy.setAudiobookID("999");
  EXPECT_EQ(source.audiobookID(), "12345");
  EXPECT_EQ(source.partNumber(), 1u);
  EXPECT_EQ(source.chapterNumber(), 2u);
  EXPECT_NE(copy, source);
}

}  // namespace
}  // namespace sonorell
