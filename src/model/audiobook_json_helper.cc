#include "model/audiobook_json_helper.h"

#include <utility>
#include <vector>

#include "core/logging.h"
#include "model/date_rules.h"
#include "model/safe_dictionary.h"

namespace sonorell {

namespace {

// The document holds strings in its list fields; anything else is kept as its text rather than
// dropped, since elements are not checked.
std::vector<std::string> stringsOf(const Array& array) {
  std::vector<std::string> strings;
  strings.reserve(array.size());
  for (const Value& element : array) {
    const auto* s = element.getIf<std::string>();
    strings.push_back(s ? *s : element.description());
  }
  return strings;
}

std::vector<std::string> safeStrings(const Dictionary& d, std::string_view key) {
  return stringsOf(QSOSafeDictionary::safeArrayForKey(d, key));
}

int64_t safeNumber(const Dictionary& d, std::string_view key) {
  return QSOSafeDictionary::integerValue(QSOSafeDictionary::safeNumberForKey(d, key));
}

}  // namespace

QSOAudiobookJSONHelper::QSOAudiobookJSONHelper(Dictionary jsonDictionary,
                                               std::weak_ptr<QSOObjectContext> context)
    : jsonDictionary_(std::move(jsonDictionary)), context_(std::move(context)) {}

std::shared_ptr<QSOAudiobookJSONHelper> QSOAudiobookJSONHelper::initWithDictionary(
    Dictionary jsonDictionary, std::weak_ptr<QSOObjectContext> context) {
  return std::make_shared<QSOAudiobookJSONHelper>(std::move(jsonDictionary), std::move(context));
}

void QSOAudiobookJSONHelper::populateAudiobook(
    const std::shared_ptr<QSOAudiobookInterface>& audiobook) {
  if (!audiobook) return;
  const Dictionary& d = jsonDictionary_;
  using S = QSOSafeDictionary;
  audiobook->setAbridgement(S::safeStringForKey(d, "abridgement"));
  audiobook->setActualSize(S::safeIntegerForKey(d, "actual_size"));
  audiobook->setAudiobookDescription(S::safeStringForKey(d, "description"));
  audiobook->setAudiobookID(S::safeStringForKey(d, "id"));
  audiobook->setAuthors(safeStrings(d, "authors"));
  audiobook->setAwards(safeStrings(d, "awards"));
  audiobook->setBisacCodes(safeStrings(d, "bisac_codes"));
  audiobook->setChapterized(S::safeBoolForKey(d, "chapterized"));
  audiobook->setCopyright(S::safeStringForKey(d, "copyright"));
  audiobook->setCoverURL(S::safeStringForKey(d, "cover_url"));
  audiobook->setGradeLevel(S::safeStringForKey(d, "grade_level"));
  audiobook->setIsbnLibrary(S::safeStringForKey(d, "isbn_library"));
  audiobook->setIsbnRetail(S::safeStringForKey(d, "isbn_retail"));
  audiobook->setLanguage(S::safeStringForKey(d, "language"));
  audiobook->setMetadataSig(S::safeStringForKey(d, "metadata_sig"));
  audiobook->setModifiedDate(S::safeDateForKey(d, "modified_date", kModifiedDateFormat));
  audiobook->setNarrators(safeStrings(d, "narrators"));
  audiobook->setPublisher(S::safeStringForKey(d, "publisher"));
  audiobook->setRuntime(S::safeStringForKey(d, "runtime"));
  audiobook->setSampleURL(S::safeStringForKey(d, "sample_url"));
  audiobook->setSeries(safeStrings(d, "series"));
  audiobook->setStreetDate(S::safeDateForKey(d, "street_date", kStreetDateFormat));
  audiobook->setSubTitle(S::safeStringForKey(d, "sub_title"));
  audiobook->setTitle(getTitle());
  setChapters(S::safeArrayForKey(d, "chapters"), audiobook);
}

void QSOAudiobookJSONHelper::setChapters(const Array& chapters,
                                         const std::shared_ptr<QSOAudiobookInterface>& audiobook) {
  if (chapters.empty()) return;
  auto context = context_.lock();
  if (!context) {
    LogEngineError("[QSOAudiobookJSONHelper] No context to insert %lu chapters into",
                   chapters.size());
    return;
  }
  QSOChapterSet all = audiobook ? audiobook->chapters() : QSOChapterSet{};
  static const Dictionary kNoFields;
  for (const Value& element : chapters) {
    // An element that is not an object still gives a chapter, of defaults.
    const Dictionary* fields = element.asDictionary();
    const Dictionary& c = fields ? *fields : kNoFields;
    auto chapter = context->insertNewChapter();
    chapter->setDuration(safeNumber(c, "duration"));
    chapter->setPartNumber(safeNumber(c, "part_number"));
    chapter->setChapterNumber(safeNumber(c, "chapter_number"));
    chapter->setAudiobook(audiobook);
    all.push_back(std::move(chapter));
  }
  if (audiobook) audiobook->setChapters(std::move(all));
}

std::string QSOAudiobookJSONHelper::getTitle() const {
  return QSOSafeDictionary::safeStringForKey(jsonDictionary_, "title");
}

std::shared_ptr<QSOAudiobookInterface> QSOAudiobookJSONHelper::detachedAudiobookFromDictionary(
    const Dictionary& jsonDictionary) {
  auto context = std::make_shared<QSODetachedContext>();
  QSOAudiobookJSONHelper helper(jsonDictionary, context);
  auto audiobook = context->insertNewAudiobook();
  helper.populateAudiobook(audiobook);
  return audiobook;
}

}  // namespace sonorell
