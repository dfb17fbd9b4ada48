/// Audiobook and chapter metadata records: the interfaces that store entities and detached copies
/// share, and the detached copies (QSOConcreteAudiobook, QSOConcreteChapter) handed to the host.
/// Plain records, not synchronised: a record must not be changed while another thread reads it.
/// @file
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sonorell/export.h"
#include "sonorell/value.h"

namespace sonorell {

class QSOAudiobookInterface;
class QSOChapterInterface;

/// The chapters of an audiobook. Unordered as far as callers are concerned (use sortedChapters()
/// for an order); every entry is a distinct chapter record.
using QSOChapterSet = std::vector<std::shared_ptr<QSOChapterInterface>>;

/// A chapter record: what the object store's entities and detached copies have in common.
/// Absent numbers (a store row without a value) are empty optionals; they match no lookup and
/// sort before every present number.
class SONORELL_EXPORT QSOChapterInterface {
 public:
  /// Records are owned through std::shared_ptr and destroyed through this interface.
  virtual ~QSOChapterInterface() = default;

  ///@{
  /// The chapter's number within its part.
  virtual std::optional<int64_t> chapterNumber() const = 0;
  virtual void setChapterNumber(std::optional<int64_t> chapterNumber) = 0;
  ///@}
  ///@{
  /// Length of the chapter as the metadata states it (milliseconds).
  virtual std::optional<int64_t> duration() const = 0;
  virtual void setDuration(std::optional<int64_t> duration) = 0;
  ///@}
  ///@{
  /// The number of the part the chapter belongs to (0 for a book without parts).
  virtual std::optional<int64_t> partNumber() const = 0;
  virtual void setPartNumber(std::optional<int64_t> partNumber) = 0;
  ///@}
  ///@{
  /// The audiobook the chapter belongs to. Weak: the audiobook owns its chapters.
  virtual std::weak_ptr<QSOAudiobookInterface> audiobook() const = 0;
  virtual void setAudiobook(std::weak_ptr<QSOAudiobookInterface> audiobook) = 0;
  ///@}
};

/// An audiobook record: what the object store's entities and detached copies have in common.
/// Text properties are std::string with "" for "not given": the metadata builder stores "" for
/// every missing text, so an absent text and an empty one carry the same meaning. Numbers and
/// dates keep absence (an unparsable date is empty, which differs from the 1970 default).
class SONORELL_EXPORT QSOAudiobookInterface {
 public:
  /// Records are owned through std::shared_ptr and destroyed through this interface.
  virtual ~QSOAudiobookInterface() = default;

  ///@{
  /// The audiobook's identifier in the content service.
  virtual std::string audiobookID() const = 0;
  virtual void setAudiobookID(std::string audiobookID) = 0;
  ///@}
  ///@{
  /// The abridgement statement ("Unabridged", say).
  virtual std::string abridgement() const = 0;
  virtual void setAbridgement(std::string abridgement) = 0;
  ///@}
  ///@{
  /// The size of the whole audiobook in bytes, as the content service states it.
  virtual std::optional<int64_t> actualSize() const = 0;
  virtual void setActualSize(std::optional<int64_t> actualSize) = 0;
  ///@}
  ///@{
  /// The publisher's description of the book.
  virtual std::string audiobookDescription() const = 0;
  virtual void setAudiobookDescription(std::string audiobookDescription) = 0;
  ///@}
  ///@{
  /// The authors' names, in the metadata's order.
  virtual std::vector<std::string> authors() const = 0;
  virtual void setAuthors(std::vector<std::string> authors) = 0;
  ///@}
  ///@{
  /// Awards the book has won.
  virtual std::vector<std::string> awards() const = 0;
  virtual void setAwards(std::vector<std::string> awards) = 0;
  ///@}
  ///@{
  /// Whether the audio is divided into the book's real chapters.
  virtual std::optional<bool> chapterized() const = 0;
  virtual void setChapterized(std::optional<bool> chapterized) = 0;
  ///@}
  ///@{
  /// The copyright statement.
  virtual std::string copyright() const = 0;
  virtual void setCopyright(std::string copyright) = 0;
  ///@}
  ///@{
  /// The address of the cover image.
  virtual std::string coverURL() const = 0;
  virtual void setCoverURL(std::string coverURL) = 0;
  ///@}
  ///@{
  /// The school grade level.
  virtual std::string gradeLevel() const = 0;
  virtual void setGradeLevel(std::string gradeLevel) = 0;
  ///@}
  ///@{
  /// The ISBN of the library edition.
  virtual std::string isbnLibrary() const = 0;
  virtual void setIsbnLibrary(std::string isbnLibrary) = 0;
  ///@}
  ///@{
  /// The ISBN of the retail edition.
  virtual std::string isbnRetail() const = 0;
  virtual void setIsbnRetail(std::string isbnRetail) = 0;
  ///@}
  ///@{
  /// The language.
  virtual std::string language() const = 0;
  virtual void setLanguage(std::string language) = 0;
  ///@}
  ///@{
  /// The signature (version stamp) of the metadata as the content service sent it.
  virtual std::string metadataSig() const = 0;
  virtual void setMetadataSig(std::string metadataSig) = 0;
  ///@}
  ///@{
  /// When the content service last changed the metadata; empty when unparsable.
  virtual std::optional<Date> modifiedDate() const = 0;
  virtual void setModifiedDate(std::optional<Date> modifiedDate) = 0;
  ///@}
  ///@{
  /// The narrators' names.
  virtual std::vector<std::string> narrators() const = 0;
  virtual void setNarrators(std::vector<std::string> narrators) = 0;
  ///@}
  ///@{
  /// The publisher's name.
  virtual std::string publisher() const = 0;
  virtual void setPublisher(std::string publisher) = 0;
  ///@}
  ///@{
  /// The running time as the content service states it.
  virtual std::string runtime() const = 0;
  virtual void setRuntime(std::string runtime) = 0;
  ///@}
  ///@{
  /// The address of a sample recording.
  virtual std::string sampleURL() const = 0;
  virtual void setSampleURL(std::string sampleURL) = 0;
  ///@}
  ///@{
  /// The names of the series the book belongs to.
  virtual std::vector<std::string> series() const = 0;
  virtual void setSeries(std::vector<std::string> series) = 0;
  ///@}
  ///@{
  /// The publication date; empty when unparsable.
  virtual std::optional<Date> streetDate() const = 0;
  virtual void setStreetDate(std::optional<Date> streetDate) = 0;
  ///@}
  ///@{
  /// The subtitle.
  virtual std::string subTitle() const = 0;
  virtual void setSubTitle(std::string subTitle) = 0;
  ///@}
  ///@{
  /// The title. Detached copies give it in display form ("The Hobbit", not "Hobbit, The").
  virtual std::string title() const = 0;
  virtual void setTitle(std::string title) = 0;
  ///@}
  ///@{
  /// The chapters (unordered); the audiobook record owns them.
  virtual QSOChapterSet chapters() const = 0;
  virtual void setChapters(QSOChapterSet chapters) = 0;
  ///@}
  ///@{
  /// The subject classification (BISAC) codes.
  virtual std::vector<std::string> bisacCodes() const = 0;
  virtual void setBisacCodes(std::vector<std::string> bisacCodes) = 0;
  ///@}

  /// The first chapter whose part and chapter numbers equal the arguments, or null. With
  /// duplicates, any one of them may be returned.
  virtual std::shared_ptr<QSOChapterInterface> chapterForPartNumber(int32_t partNumber,
                                                                    int32_t chapterNumber) const;
  /// All chapters, part-major and chapter-minor, ascending.
  virtual std::vector<std::shared_ptr<QSOChapterInterface>> sortedChapters() const;
};

/// A detached copy of a chapter record; usable on any thread, independent of the store.
class SONORELL_EXPORT QSOConcreteChapter : public QSOChapterInterface {
 public:
  /// A chapter with every number absent and no audiobook.
  QSOConcreteChapter() = default;
  /// Copies the numbers and the audiobook reference (which keeps pointing to the source's
  /// audiobook record).
  static std::shared_ptr<QSOConcreteChapter> initWithChapter(const QSOChapterInterface& chapter);

  std::optional<int64_t> chapterNumber() const override { return chapterNumber_; }
  void setChapterNumber(std::optional<int64_t> chapterNumber) override {
    chapterNumber_ = chapterNumber;
  }
  std::optional<int64_t> duration() const override { return duration_; }
  void setDuration(std::optional<int64_t> duration) override { duration_ = duration; }
  std::optional<int64_t> partNumber() const override { return partNumber_; }
  void setPartNumber(std::optional<int64_t> partNumber) override { partNumber_ = partNumber; }
  std::weak_ptr<QSOAudiobookInterface> audiobook() const override { return audiobook_; }
  void setAudiobook(std::weak_ptr<QSOAudiobookInterface> audiobook) override {
    audiobook_ = std::move(audiobook);
  }

 private:
  std::optional<int64_t> chapterNumber_;
  std::optional<int64_t> duration_;
  std::optional<int64_t> partNumber_;
  std::weak_ptr<QSOAudiobookInterface> audiobook_;
};

/// A detached copy of an audiobook record, what lookups hand out so that callers never hold
/// store objects. Its title is always in display form ("The Hobbit", not "Hobbit, The").
class SONORELL_EXPORT QSOConcreteAudiobook : public QSOAudiobookInterface {
 public:
  /// An audiobook with every text "", every list empty, every number and date absent.
  QSOConcreteAudiobook() = default;
  /// Copies every property; the chapters become new QSOConcreteChapter records.
  static std::shared_ptr<QSOConcreteAudiobook> initWithAudiobook(
      const QSOAudiobookInterface& audiobook);

  std::string audiobookID() const override { return audiobookID_; }
  void setAudiobookID(std::string v) override { audiobookID_ = std::move(v); }
  std::string abridgement() const override { return abridgement_; }
  void setAbridgement(std::string v) override { abridgement_ = std::move(v); }
  std::optional<int64_t> actualSize() const override { return actualSize_; }
  void setActualSize(std::optional<int64_t> v) override { actualSize_ = v; }
  std::string audiobookDescription() const override { return audiobookDescription_; }
  void setAudiobookDescription(std::string v) override { audiobookDescription_ = std::move(v); }
  std::vector<std::string> authors() const override { return authors_; }
  void setAuthors(std::vector<std::string> v) override { authors_ = std::move(v); }
  std::vector<std::string> awards() const override { return awards_; }
  void setAwards(std::vector<std::string> v) override { awards_ = std::move(v); }
  std::optional<bool> chapterized() const override { return chapterized_; }
  void setChapterized(std::optional<bool> v) override { chapterized_ = v; }
  std::string copyright() const override { return copyright_; }
  void setCopyright(std::string v) override { copyright_ = std::move(v); }
  std::string coverURL() const override { return coverURL_; }
  void setCoverURL(std::string v) override { coverURL_ = std::move(v); }
  std::string gradeLevel() const override { return gradeLevel_; }
  void setGradeLevel(std::string v) override { gradeLevel_ = std::move(v); }
  std::string isbnLibrary() const override { return isbnLibrary_; }
  void setIsbnLibrary(std::string v) override { isbnLibrary_ = std::move(v); }
  std::string isbnRetail() const override { return isbnRetail_; }
  void setIsbnRetail(std::string v) override { isbnRetail_ = std::move(v); }
  std::string language() const override { return language_; }
  void setLanguage(std::string v) override { language_ = std::move(v); }
  std::string metadataSig() const override { return metadataSig_; }
  void setMetadataSig(std::string v) override { metadataSig_ = std::move(v); }
  std::optional<Date> modifiedDate() const override { return modifiedDate_; }
  void setModifiedDate(std::optional<Date> v) override { modifiedDate_ = v; }
  std::vector<std::string> narrators() const override { return narrators_; }
  void setNarrators(std::vector<std::string> v) override { narrators_ = std::move(v); }
  std::string publisher() const override { return publisher_; }
  void setPublisher(std::string v) override { publisher_ = std::move(v); }
  std::string runtime() const override { return runtime_; }
  void setRuntime(std::string v) override { runtime_ = std::move(v); }
  std::string sampleURL() const override { return sampleURL_; }
  void setSampleURL(std::string v) override { sampleURL_ = std::move(v); }
  std::vector<std::string> series() const override { return series_; }
  void setSeries(std::vector<std::string> v) override { series_ = std::move(v); }
  std::optional<Date> streetDate() const override { return streetDate_; }
  void setStreetDate(std::optional<Date> v) override { streetDate_ = v; }
  std::string subTitle() const override { return subTitle_; }
  void setSubTitle(std::string v) override { subTitle_ = std::move(v); }
  std::string title() const override { return title_; }
  void setTitle(std::string v) override { title_ = std::move(v); }
  QSOChapterSet chapters() const override { return chapters_; }
  void setChapters(QSOChapterSet v) override { chapters_ = std::move(v); }
  std::vector<std::string> bisacCodes() const override { return bisacCodes_; }
  void setBisacCodes(std::vector<std::string> v) override { bisacCodes_ = std::move(v); }

 private:
  std::string audiobookID_;
  std::string abridgement_;
  std::optional<int64_t> actualSize_;
  std::string audiobookDescription_;
  std::vector<std::string> authors_;
  std::vector<std::string> awards_;
  std::optional<bool> chapterized_;
  std::string copyright_;
  std::string coverURL_;
  std::string gradeLevel_;
  std::string isbnLibrary_;
  std::string isbnRetail_;
  std::string language_;
  std::string metadataSig_;
  std::optional<Date> modifiedDate_;
  std::vector<std::string> narrators_;
  std::string publisher_;
  std::string runtime_;
  std::string sampleURL_;
  std::vector<std::string> series_;
  std::optional<Date> streetDate_;
  std::string subTitle_;
  std::string title_;
  QSOChapterSet chapters_;
  std::vector<std::string> bisacCodes_;
};

}  // namespace sonorell
