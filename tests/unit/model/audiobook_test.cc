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

TEST(SortedChapters, OrdersPartMajorChapterMinor) {
  auto book = audiobookWith({{1, 2}, {0, 5}, {1, 1}, {0, 0}});
  EXPECT_EQ(numbersOf(book->sortedChapters()),
            (std::vector<PartChapter>{{0, 0}, {0, 5}, {1, 1}, {1, 2}}));
}

TEST(SortedChapters, HandlesManyPartsAndLeavesTheRecordUnchanged) {
  auto book = audiobookWith({{2, 0}, {0, 10}, {1, 3}, {0, 2}, {2, 1}, {1, 0}, {0, 1}});
  EXPECT_EQ(numbersOf(book->sortedChapters()),
            (std::vector<PartChapter>{{0, 1}, {0, 2}, {0, 10}, {1, 0}, {1, 3}, {2, 0}, {2, 1}}));
  EXPECT_EQ(numbersOf(book->chapters()).front(), (PartChapter{2, 0}));
}

TEST(SortedChapters, KeepsChapterOrderWithinPartsOfALongBook) {
  // Long enough that an unstable second pass would scramble chapters within a part.
  std::vector<PartChapter> scrambled;
  for (int64_t i = 0; i < 60; ++i) scrambled.emplace_back((i * 7) % 4, (i * 37) % 60);
  std::vector<PartChapter> expected = scrambled;
  std::sort(expected.begin(), expected.end());

  EXPECT_EQ(numbersOf(audiobookWith(scrambled)->sortedChapters()), expected);
}

TEST(SortedChapters, AbsentNumbersSortFirst) {
  auto book = audiobookWith({{1, 1}, {std::nullopt, 4}, {1, std::nullopt}});
  EXPECT_EQ(numbersOf(book->sortedChapters()),
            (std::vector<PartChapter>{{std::nullopt, 4}, {1, std::nullopt}, {1, 1}}));
}

TEST(SortedChapters, NoChaptersGiveAnEmptyList) {
  EXPECT_TRUE(QSOConcreteAudiobook().sortedChapters().empty());
}

// --- Lookup ---

TEST(ChapterForPartNumber, FindsTheChapterWithBothNumbers) {
  auto book = audiobookWith({{0, 1}, {1, 0}, {1, 1}});
  auto found = book->chapterForPartNumber(1, 0);
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->partNumber(), 1);
  EXPECT_EQ(found->chapterNumber(), 0);
  EXPECT_EQ(found, book->chapters()[1]) << "the record itself, not a copy";
}

TEST(ChapterForPartNumber, GivesNothingWithoutAMatch) {
  auto book = audiobookWith({{0, 1}, {1, 0}});
  EXPECT_EQ(book->chapterForPartNumber(0, 0), nullptr);
  EXPECT_EQ(book->chapterForPartNumber(2, 1), nullptr);
  EXPECT_EQ(book->chapterForPartNumber(-1, 1), nullptr);
}

TEST(ChapterForPartNumber, AnAbsentNumberMatchesNothing) {
  auto book = audiobookWith({{std::nullopt, 0}, {0, std::nullopt}});
  EXPECT_EQ(book->chapterForPartNumber(0, 0), nullptr);
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

// --- Detached copies ---

std::shared_ptr<QSOConcreteAudiobook> fullAudiobook() {
  auto book = audiobookWith({{0, 1}, {0, 0}});
  book->setAudiobookID("12345");
  book->setAbridgement("Unabridged");
  book->setActualSize(987654321);
  book->setAudiobookDescription("A hole in the ground.");
  book->setAuthors({"J. R. R. Tolkien"});
  book->setAwards({"Carnegie", "Hugo"});
  book->setChapterized(true);
  book->setCopyright("(c) 1937");
  book->setCoverURL("https://example.test/cover.jpg");
  book->setGradeLevel("5-8");
  book->setIsbnLibrary("9780000000001");
  book->setIsbnRetail("9780000000002");
  book->setLanguage("English");
  book->setMetadataSig("sig-7");
  book->setModifiedDate(Date(std::chrono::seconds(1488622830)));
  book->setNarrators({"Rob Inglis"});
  book->setPublisher("Recorded Books");
  book->setRuntime("11:05");
  book->setSampleURL("https://example.test/sample.mp3");
  book->setSeries({"Middle-earth"});
  book->setStreetDate(Date(std::chrono::seconds(1488585600)));
  book->setSubTitle("There and Back Again");
  book->setTitle("Hobbit, The");
  book->setBisacCodes({"FIC009000"});
  return book;
}

TEST(DetachedAudiobook, CopiesEveryPropertyWithTheTitleInDisplayForm) {
  auto source = fullAudiobook();
  auto copy = QSOConcreteAudiobook::initWithAudiobook(*source);
  ASSERT_NE(copy, nullptr);

  EXPECT_EQ(copy->title(), "The Hobbit");
  EXPECT_EQ(copy->audiobookID(), "12345");
  EXPECT_EQ(copy->abridgement(), "Unabridged");
  EXPECT_EQ(copy->actualSize(), 987654321);
  EXPECT_EQ(copy->audiobookDescription(), "A hole in the ground.");
  EXPECT_EQ(copy->authors(), std::vector<std::string>{"J. R. R. Tolkien"});
  EXPECT_EQ(copy->awards(), (std::vector<std::string>{"Carnegie", "Hugo"}));
  EXPECT_EQ(copy->chapterized(), true);
  EXPECT_EQ(copy->copyright(), "(c) 1937");
  EXPECT_EQ(copy->coverURL(), "https://example.test/cover.jpg");
  EXPECT_EQ(copy->gradeLevel(), "5-8");
  EXPECT_EQ(copy->isbnLibrary(), "9780000000001");
  EXPECT_EQ(copy->isbnRetail(), "9780000000002");
  EXPECT_EQ(copy->language(), "English");
  EXPECT_EQ(copy->metadataSig(), "sig-7");
  EXPECT_EQ(copy->modifiedDate(), source->modifiedDate());
  EXPECT_EQ(copy->narrators(), std::vector<std::string>{"Rob Inglis"});
  EXPECT_EQ(copy->publisher(), "Recorded Books");
  EXPECT_EQ(copy->runtime(), "11:05");
  EXPECT_EQ(copy->sampleURL(), "https://example.test/sample.mp3");
  EXPECT_EQ(copy->series(), std::vector<std::string>{"Middle-earth"});
  EXPECT_EQ(copy->streetDate(), source->streetDate());
  EXPECT_EQ(copy->subTitle(), "There and Back Again");
  EXPECT_EQ(copy->bisacCodes(), std::vector<std::string>{"FIC009000"});
  EXPECT_EQ(source->title(), "Hobbit, The") << "the source keeps its sort form";
}

TEST(DetachedAudiobook, AbsentValuesStayAbsent) {
  QSOConcreteAudiobook empty;
  auto copy = QSOConcreteAudiobook::initWithAudiobook(empty);
  EXPECT_FALSE(copy->actualSize().has_value());
  EXPECT_FALSE(copy->chapterized().has_value());
  EXPECT_FALSE(copy->modifiedDate().has_value());
  EXPECT_FALSE(copy->streetDate().has_value());
  EXPECT_EQ(copy->title(), "");
  EXPECT_TRUE(copy->chapters().empty());
}

TEST(DetachedAudiobook, ChaptersAreNewRecordsThatStillReferToTheSource) {
  auto source = fullAudiobook();
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
}

TEST(DetachedAudiobook, ChangingTheCopyLeavesTheSource) {
  auto source = fullAudiobook();
  auto copy = QSOConcreteAudiobook::initWithAudiobook(*source);
  copy->setTitle("Other");
  copy->setAuthors({});
  copy->chapters()[0]->setPartNumber(9);

  EXPECT_EQ(source->title(), "Hobbit, The");
  EXPECT_EQ(source->authors(), std::vector<std::string>{"J. R. R. Tolkien"});
  EXPECT_EQ(source->chapters()[0]->partNumber(), 0);
}

TEST(DetachedChapter, CopiesNumbersAndTheAudiobookReference) {
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
