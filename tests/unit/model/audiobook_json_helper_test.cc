#include "model/audiobook_json_helper.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <chrono>

#include "model/json_value.h"

namespace sonorell {
namespace {

using namespace std::chrono;

Dictionary document(std::string_view json) {
  auto value = valueFromJSONText(json);
  EXPECT_TRUE(value.has_value()) << json;
  const Dictionary* d = value ? value->asDictionary() : nullptr;
  return d ? *d : Dictionary{};
}

std::shared_ptr<QSOAudiobookInterface> build(std::string_view json) {
  return QSOAudiobookJSONHelper::detachedAudiobookFromDictionary(document(json));
}

class AudiobookJSONHelperTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
  }
};

// --- A complete document ---

// The detached copy is checked in place of the record: a field the builder or the copy loses
// shows either way, and the copy turns the stored sort-form title back into display form.
TEST_F(AudiobookJSONHelperTest, EveryFieldReachesTheRecordAndItsDetachedCopy) {
  auto book = build(R"({
    "id": "12345", "abridgement": "Unabridged", "actual_size": 123456789,
    "description": "A hobbit goes there and back again.", "authors": ["J. R. R. Tolkien"],
    "awards": ["Carnegie"], "bisac_codes": ["FIC009000", "JUV037000"], "chapterized": true,
    "copyright": "1937", "cover_url": "https://x/c.jpg", "grade_level": "5-8",
    "isbn_library": "111", "isbn_retail": "222", "language": "en", "metadata_sig": "sig-9",
    "modified_date": "2017-03-04T10:20:30", "narrators": ["Andy Serkis", "Rob Inglis"],
    "publisher": "HarperCollins", "runtime": "11:05:00", "sample_url": "https://x/s.mp3",
    "series": ["Middle-earth"], "street_date": "2017-03-04", "sub_title": "There and Back",
    "title": "Hobbit, The",
    "chapters": [{"duration": 1999, "part_number": 0, "chapter_number": 1},
                 {"duration": 3000, "part_number": 1, "chapter_number": 0}]})");
  EXPECT_EQ(book->title(), "Hobbit, The") << "the record keeps the sort form";
  auto chapters = book->sortedChapters();
  ASSERT_EQ(chapters.size(), 2u);
  EXPECT_EQ(chapters[0]->duration(), 1999);
  EXPECT_EQ(chapters[0]->partNumber(), 0);
  EXPECT_EQ(chapters[0]->chapterNumber(), 1);
  EXPECT_EQ(chapters[1]->partNumber(), 1);
  EXPECT_EQ(chapters[1]->audiobook().lock(), book);

  auto copy = QSOConcreteAudiobook::initWithAudiobook(*book);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->title(), "The Hobbit");
  EXPECT_EQ(copy->audiobookID(), "12345");
  EXPECT_EQ(copy->abridgement(), "Unabridged");
  EXPECT_EQ(copy->actualSize(), 123456789);
  EXPECT_EQ(copy->audiobookDescription(), "A hobbit goes there and back again.");
  EXPECT_EQ(copy->authors(), std::vector<std::string>{"J. R. R. Tolkien"});
  EXPECT_EQ(copy->awards(), std::vector<std::string>{"Carnegie"});
  EXPECT_EQ(copy->bisacCodes(), (std::vector<std::string>{"FIC009000", "JUV037000"}));
  EXPECT_EQ(copy->chapterized(), true);
  EXPECT_EQ(copy->copyright(), "1937");
  EXPECT_EQ(copy->coverURL(), "https://x/c.jpg");
  EXPECT_EQ(copy->gradeLevel(), "5-8");
  EXPECT_EQ(copy->isbnLibrary(), "111");
  EXPECT_EQ(copy->isbnRetail(), "222");
  EXPECT_EQ(copy->language(), "en");
  EXPECT_EQ(copy->metadataSig(), "sig-9");
  ASSERT_TRUE(copy->modifiedDate().has_value());
  EXPECT_EQ(duration_cast<milliseconds>(copy->modifiedDate()->time_since_epoch()).count(),
            1488622800300);  // 10:20 and 0.30 s
  EXPECT_EQ(copy->narrators(), (std::vector<std::string>{"Andy Serkis", "Rob Inglis"}));
  EXPECT_EQ(copy->publisher(), "HarperCollins");
  EXPECT_EQ(copy->runtime(), "11:05:00");
  EXPECT_EQ(copy->sampleURL(), "https://x/s.mp3");
  EXPECT_EQ(copy->series(), std::vector<std::string>{"Middle-earth"});
  ASSERT_TRUE(copy->streetDate().has_value());
  EXPECT_EQ(duration_cast<seconds>(copy->streetDate()->time_since_epoch()).count(), 1488585600);
  EXPECT_EQ(copy->subTitle(), "There and Back");
}

// --- Tolerance: wrong or missing values give the defaults ---

TEST_F(AudiobookJSONHelperTest, WrongOrMissingValuesGiveTheDefaults) {
  // The fetch turns ": null" into ": \"\"" before parsing; either form must read as "".
  EXPECT_EQ(build(R"({"id": "1", "title": ""})")->title(), "");
  EXPECT_EQ(build(R"({"id": "1", "title": null})")->title(), "");
  EXPECT_TRUE(build(R"({"authors": "J. R. R. Tolkien"})")->authors().empty());
  EXPECT_EQ(build(R"({"chapterized": "true"})")->chapterized(), true);
  EXPECT_EQ(build(R"({"actual_size": "1234"})")->actualSize(), 1234);
  EXPECT_EQ(build(R"({"actual_size": {}})")->actualSize(), 0);
  EXPECT_FALSE(build(R"({"street_date": "04/03/2017"})")->streetDate().has_value());
  auto empty = build("{}");
  EXPECT_EQ(empty->chapterized(), false);
  EXPECT_EQ(empty->streetDate(), Date{});
  EXPECT_EQ(empty->modifiedDate(), Date{});

  auto book = build(R"({"id": 5, "title": ["x"], "publisher": 3, "chapters": "none",
                        "narrators": {"a": 1}, "chapterized": null})");
  EXPECT_EQ(book->audiobookID(), "");
  EXPECT_EQ(book->title(), "");
  EXPECT_EQ(book->publisher(), "");
  EXPECT_TRUE(book->chapters().empty());
  EXPECT_TRUE(book->narrators().empty());
  EXPECT_EQ(book->chapterized(), false);

  // Chapter fields default to zero, and duplicates are kept.
  book = build(R"({"chapters": [{"duration": 10, "chapter_number": 2},
                                      {"duration": 10, "chapter_number": 2},
                                      {"part_number": "7"}, 17]})");
  auto chapters = book->chapters();
  ASSERT_EQ(chapters.size(), 4u);
  EXPECT_EQ(chapters[0]->partNumber(), 0);
  EXPECT_EQ(chapters[1]->chapterNumber(), 2);
  // "7" is a string, not a number: part 0, as every field of a non-object element.
  EXPECT_EQ(chapters[2]->partNumber(), 0);
  EXPECT_EQ(chapters[2]->duration(), 0);
  EXPECT_EQ(chapters[3]->chapterNumber(), 0);
}

// --- The builder with a caller's context ---

class CountingContext : public QSODetachedContext {
 public:
  std::shared_ptr<QSOChapterInterface> insertNewChapter() override {
    ++chapters;
    return QSODetachedContext::insertNewChapter();
  }
  int chapters = 0;
};

TEST_F(AudiobookJSONHelperTest, ChaptersAreInsertedIntoTheContextAndNotWithoutOne) {
  Dictionary doc = document(R"({"id": "9", "title": "T", "chapters": [{}, {}, {}]})");
  auto context = std::make_shared<CountingContext>();
  auto helper = QSOAudiobookJSONHelper::initWithDictionary(doc, context);
  EXPECT_EQ(helper->getTitle(), "T");
  auto book = context->insertNewAudiobook();
  helper->populateAudiobook(book);
  EXPECT_EQ(context->chapters, 3);
  EXPECT_EQ(book->chapters().size(), 3u);

  // The context is held weakly: once it is gone, no chapters are made.
  auto orphan = std::make_shared<QSOConcreteAudiobook>();
  helper->setContext(std::weak_ptr<QSOObjectContext>());
  helper->populateAudiobook(orphan);
  EXPECT_EQ(orphan->audiobookID(), "9");
  EXPECT_TRUE(orphan->chapters().empty());
}

TEST_F(AudiobookJSONHelperTest, JSONTextThatIsNotJSONGivesNothing) {
  EXPECT_FALSE(valueFromJSONText("{\"a\": ").has_value());
  EXPECT_FALSE(valueFromJSONText("\xff\xfe").has_value());
  auto big = valueFromJSONText("18446744073709551615");
  ASSERT_TRUE(big.has_value());
  EXPECT_EQ(*big, Value(uint64_t{18446744073709551615ULL}));
}

}  // namespace
}  // namespace sonorell
