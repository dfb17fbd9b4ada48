#include "sonorell/audiobook.h"

#include <algorithm>

#include "model/value_transformers.h"

namespace sonorell {

std::shared_ptr<QSOChapterInterface> QSOAudiobookInterface::chapterForPartNumber(
    int32_t partNumber, int32_t chapterNumber) const {
  // A record whose getters fail (a store entity whose row went away) must not take the caller
  // down with it: the lookup then finds nothing.
  try {
    // An absent number equals nothing, as a store predicate on a missing value would.
    for (const auto& chapter : chapters()) {
      if (!chapter) continue;
      if (chapter->partNumber() == int64_t{partNumber} &&
          chapter->chapterNumber() == int64_t{chapterNumber}) {
        return chapter;
      }
    }
  } catch (...) {
  }
  return nullptr;
}

std::vector<std::shared_ptr<QSOChapterInterface>> QSOAudiobookInterface::sortedChapters() const {
  QSOChapterSet sorted = chapters();
  std::erase(sorted, nullptr);
  // Two passes: by chapter, then stably by part, which leaves chapters ordered within a part.
  // An absent number sorts first (std::optional orders empty before any value).
  std::sort(sorted.begin(), sorted.end(),
            [](const auto& a, const auto& b) { return a->chapterNumber() < b->chapterNumber(); });
  std::stable_sort(sorted.begin(), sorted.end(),
                   [](const auto& a, const auto& b) { return a->partNumber() < b->partNumber(); });
  return sorted;
}

std::shared_ptr<QSOConcreteChapter> QSOConcreteChapter::initWithChapter(
    const QSOChapterInterface& chapter) {
  auto copy = std::make_shared<QSOConcreteChapter>();
  copy->setChapterNumber(chapter.chapterNumber());
  copy->setDuration(chapter.duration());
  copy->setPartNumber(chapter.partNumber());
  copy->setAudiobook(chapter.audiobook());
  return copy;
}

std::shared_ptr<QSOConcreteAudiobook> QSOConcreteAudiobook::initWithAudiobook(
    const QSOAudiobookInterface& audiobook) {
  auto copy = std::make_shared<QSOConcreteAudiobook>();
  copy->setAudiobookID(audiobook.audiobookID());
  copy->setAbridgement(audiobook.abridgement());
  copy->setActualSize(audiobook.actualSize());
  copy->setAudiobookDescription(audiobook.audiobookDescription());
  copy->setAuthors(audiobook.authors());
  copy->setAwards(audiobook.awards());
  copy->setChapterized(audiobook.chapterized());
  copy->setCopyright(audiobook.copyright());
  copy->setCoverURL(audiobook.coverURL());
  copy->setGradeLevel(audiobook.gradeLevel());
  copy->setIsbnLibrary(audiobook.isbnLibrary());
  copy->setIsbnRetail(audiobook.isbnRetail());
  copy->setLanguage(audiobook.language());
  copy->setMetadataSig(audiobook.metadataSig());
  copy->setModifiedDate(audiobook.modifiedDate());
  copy->setNarrators(audiobook.narrators());
  copy->setPublisher(audiobook.publisher());
  copy->setRuntime(audiobook.runtime());
  copy->setSampleURL(audiobook.sampleURL());
  copy->setSeries(audiobook.series());
  copy->setStreetDate(audiobook.streetDate());
  copy->setSubTitle(audiobook.subTitle());
  // Titles are kept in sort form by older stores; the copy always holds the display form.
  copy->setTitle(SOTitleTransformer::relocateTrailingCommas(audiobook.title()));
  copy->setBisacCodes(audiobook.bisacCodes());

  QSOChapterSet chapters;
  for (const auto& chapter : audiobook.chapters()) {
    if (chapter) chapters.push_back(QSOConcreteChapter::initWithChapter(*chapter));
  }
  copy->setChapters(std::move(chapters));
  return copy;
}

}  // namespace sonorell
