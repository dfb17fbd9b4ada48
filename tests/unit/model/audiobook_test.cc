#include "sonorell/audiobook.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <utility>
#include <vector>

namespace sonorell {
namespace {

using PartChapter = std::pair<std::optional<int64_t>, std::optional<int64_t>>;

std::shared_ptr<QSOConcreteChapter> makeChapter(std::optional<int64_t> part,
                                                std::optional<int64_t> chapter,
                                                std::shared_ptr<QSOAudiobookInterface> owner = {}) {
  auto record = std::make_shared<QSOConcreteChapter>();
  record->setPartNumber(part);
  record->setChapterNumber(chapter);
  record->setDuration(60000);
  record->setAudiobook(owner);
  return record;
}

std::shared_ptr<QSOConcreteAudiobook> audiobookWith(const std::vector<PartChapter>& numbers) {
  auto book = std::make_shared<QSOConcreteAudiobook>();
  QSOChapterSet chapters;
  for (const auto& [part, chapter] : numbers) chapters.push_back(makeChapter(part, chapter, book));
  book->setChapters(std::move(chapters));
  return book;
}

std::vector<PartChapter> numbersOf(const std::vector<std::shared_ptr<QSOChapterInterface>>& list) {
  std::vector<PartChapter> out;
  for (const auto& chapter : list)
    out.emplace_back(chapter->partNumber(), chapter->chapterNumber());
  return out;
}

// --- Ordering ---

TEST(SortedChapters, OrdersPartMajorChapterMinorAndLeavesTheRecordUnchanged) {
  // Long enough that an unstable second pass would scramble chapters within a part.
  std::vector<PartChapter> scrambled;
  for (int64_t i = 0; i < 60; ++i) scrambled.emplace_back((i * 7) % 4, (i * 37) % 60);
  std::vector<PartChapter> expected = scrambled;
  std::sort(expected.begin(), expected.end());
  auto book = audiobookWith(scrambled);
  EXPECT_EQ(numbersOf(book->sortedChapters()), expected);
  EXPECT_EQ(numbersOf(book->chapters()), scrambled);
  EXPECT_TRUE(QSOConcreteAudiobook().sortedChapters().empty());
}

TEST(SortedChapters, AbsentNumbersSortFirst) {
  auto book = audiobookWith({{1, 1}, {std::nullopt, 4}, {1, std::nullopt}});
  EXPECT_EQ(numbersOf(book->sortedChapters()),
            (std::vector<PartChapter>{{std::nullopt, 4}, {1, std::nullopt}, {1, 1}}));
}

// --- Lookup ---

TEST(ChapterForPartNumber, FindsTheRecordWithBothNumbersOrNothing) {
  auto book = audiobookWith({{0, 1}, {1, 0}, {1, 1}, {std::nullopt, 0}, {0, std::nullopt}});
  auto found = book->chapterForPartNumber(1, 0);
  EXPECT_EQ(found, book->chapters()[1]) << "the record itself, not a copy";
  const std::pair<int64_t, int64_t> missing[] = {{0, 0}, {2, 1}, {-1, 1}};
  for (auto [part, chapter] : missing) {
    EXPECT_EQ(book->chapterForPartNumber(part, chapter), nullptr) << part << "_" << chapter;
  }
}

// A chapter whose backing row has gone away.
class VanishedChapter : public QSOConcreteChapter {
 public:
  std::optional<int64_t> partNumber() const override { throw std::runtime_error("row deleted"); }
};

TEST(ChapterForPartNumber, AFailingRecordGivesNothingInsteadOfThrowing) {
  auto book = std::make_shared<QSOConcreteAudiobook>();
  book->setChapters({std::make_shared<VanishedChapter>(), makeChapter(0, 0, book)});
  std::shared_ptr<QSOChapterInterface> found;
  EXPECT_NO_THROW(found = book->chapterForPartNumber(0, 0));
  EXPECT_EQ(found, nullptr);
}

// --- Detached copies (every property: audiobook_json_helper_test) ---

TEST(DetachedAudiobook, AbsentValuesStayAbsent) {
  auto copy = QSOConcreteAudiobook::initWithAudiobook(QSOConcreteAudiobook());
  EXPECT_FALSE(copy->actualSize().has_value());
  EXPECT_FALSE(copy->chapterized().has_value());
  EXPECT_FALSE(copy->modifiedDate().has_value());
  EXPECT_FALSE(copy->streetDate().has_value());
  EXPECT_EQ(copy->title(), "");
  EXPECT_TRUE(copy->chapters().empty());
}

TEST(DetachedAudiobook, ChaptersAreNewRecordsReferringToTheSourceAndChangingTheCopyLeavesIt) {
  auto source = audiobookWith({{0, 1}, {0, 0}});
  source->setTitle("Hobbit, The");
  source->setAuthors({"J. R. R. Tolkien"});
  auto copy = QSOConcreteAudiobook::initWithAudiobook(*source);

  QSOChapterSet copied = copy->chapters();
  QSOChapterSet original = source->chapters();
  ASSERT_EQ(copied.size(), original.size());
  for (size_t i = 0; i < copied.size(); ++i) {
    const auto& mine = copied[i];
    const auto& theirs = original[i];
    EXPECT_NE(mine, theirs) << "a detached copy must not share chapter records";
    EXPECT_NE(dynamic_cast<QSOConcreteChapter*>(mine.get()), nullptr);
    EXPECT_EQ(mine->partNumber(), theirs->partNumber());
    EXPECT_EQ(mine->chapterNumber(), theirs->chapterNumber());
    EXPECT_EQ(mine->duration(), theirs->duration());
    EXPECT_EQ(mine->audiobook().lock(), source) << "the chapter's audiobook is the source record";
  }
  EXPECT_EQ(numbersOf(copy->sortedChapters()), (std::vector<PartChapter>{{0, 0}, {0, 1}}));
  EXPECT_NE(copy->chapterForPartNumber(0, 1), nullptr);

  copy->setTitle("Other");
  copy->setAuthors({});
  copy->chapters()[0]->setPartNumber(9);
  EXPECT_EQ(source->title(), "Hobbit, The");
  EXPECT_EQ(source->authors(), std::vector<std::string>{"J. R. R. Tolkien"});
  EXPECT_EQ(source->chapters()[0]->partNumber(), 0);
}

TEST(DetachedChapter, CopiesNumbersAndTheAudiobookReferenceWithoutKeepingItAlive) {
  auto book = std::make_shared<QSOConcreteAudiobook>();
  auto chapter = makeChapter(3, 4, book);
  chapter->setDuration(123456);

  auto copy = QSOConcreteChapter::initWithChapter(*chapter);
  EXPECT_EQ(copy->partNumber(), 3);
  EXPECT_EQ(copy->chapterNumber(), 4);
  EXPECT_EQ(copy->duration(), 123456);
  EXPECT_EQ(copy->audiobook().lock(), book);

  book.reset();
  EXPECT_TRUE(copy->audiobook().expired()) << "a chapter must not keep its audiobook alive";
}

}  // namespace
}  // namespace sonorell
