// The object store's entities: QSOAudiobook and QSOChapter records as rows hold them. Each
// property is kept in its stored form; titles and string lists go through the value transformer
// that the model names, looked up by name on every read and write. Entities belong to the context
// (and so the lock) that made or loaded them and are never handed to the host.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "persistence/store_connection.h"
#include "persistence/store_model.h"
#include "sonorell/audiobook.h"

namespace sonorell {

class QSOAudiobook : public QSOAudiobookInterface {
 public:
  // The row's primary key once inserted or loaded; empty for a new object.
  std::optional<int64_t> objectID() const { return objectID_; }
  void setObjectID(int64_t id) { objectID_ = id; }
  const StoredValue& storedValue(AudiobookAttribute attribute) const { return values_[attribute]; }
  void setStoredValue(AudiobookAttribute attribute, StoredValue value) {
    values_[attribute] = std::move(value);
  }

  std::string audiobookID() const override { return text(kAudiobookIDAttribute); }
  void setAudiobookID(std::string v) override { setText(kAudiobookIDAttribute, std::move(v)); }
  std::string abridgement() const override { return text(kAbridgementAttribute); }
  void setAbridgement(std::string v) override { setText(kAbridgementAttribute, std::move(v)); }
  std::optional<int64_t> actualSize() const override { return integer(kActualSizeAttribute); }
  void setActualSize(std::optional<int64_t> v) override { setInteger(kActualSizeAttribute, v); }
  std::string audiobookDescription() const override { return text(kAudiobookDescriptionAttribute); }
  void setAudiobookDescription(std::string v) override {
    setText(kAudiobookDescriptionAttribute, std::move(v));
  }
  std::vector<std::string> authors() const override { return strings(kAuthorsAttribute); }
  void setAuthors(std::vector<std::string> v) override { setStrings(kAuthorsAttribute, v); }
  std::vector<std::string> awards() const override { return strings(kAwardsAttribute); }
  void setAwards(std::vector<std::string> v) override { setStrings(kAwardsAttribute, v); }
  std::optional<bool> chapterized() const override;
  void setChapterized(std::optional<bool> v) override;
  std::string copyright() const override { return text(kCopyrightAttribute); }
  void setCopyright(std::string v) override { setText(kCopyrightAttribute, std::move(v)); }
  std::string coverURL() const override { return text(kCoverURLAttribute); }
  void setCoverURL(std::string v) override { setText(kCoverURLAttribute, std::move(v)); }
  std::string gradeLevel() const override { return text(kGradeLevelAttribute); }
  void setGradeLevel(std::string v) override { setText(kGradeLevelAttribute, std::move(v)); }
  std::string isbnLibrary() const override { return text(kIsbnLibraryAttribute); }
  void setIsbnLibrary(std::string v) override { setText(kIsbnLibraryAttribute, std::move(v)); }
  std::string isbnRetail() const override { return text(kIsbnRetailAttribute); }
  void setIsbnRetail(std::string v) override { setText(kIsbnRetailAttribute, std::move(v)); }
  std::string language() const override { return text(kLanguageAttribute); }
  void setLanguage(std::string v) override { setText(kLanguageAttribute, std::move(v)); }
  std::string metadataSig() const override { return text(kMetadataSigAttribute); }
  void setMetadataSig(std::string v) override { setText(kMetadataSigAttribute, std::move(v)); }
  std::optional<Date> modifiedDate() const override { return date(kModifiedDateAttribute); }
  void setModifiedDate(std::optional<Date> v) override { setDate(kModifiedDateAttribute, v); }
  std::vector<std::string> narrators() const override { return strings(kNarratorsAttribute); }
  void setNarrators(std::vector<std::string> v) override { setStrings(kNarratorsAttribute, v); }
  std::string publisher() const override { return text(kPublisherAttribute); }
  void setPublisher(std::string v) override { setText(kPublisherAttribute, std::move(v)); }
  std::string runtime() const override { return text(kRuntimeAttribute); }
  void setRuntime(std::string v) override { setText(kRuntimeAttribute, std::move(v)); }
  std::string sampleURL() const override { return text(kSampleURLAttribute); }
  void setSampleURL(std::string v) override { setText(kSampleURLAttribute, std::move(v)); }
  std::vector<std::string> series() const override { return strings(kSeriesAttribute); }
  void setSeries(std::vector<std::string> v) override { setStrings(kSeriesAttribute, v); }
  std::optional<Date> streetDate() const override { return date(kStreetDateAttribute); }
  void setStreetDate(std::optional<Date> v) override { setDate(kStreetDateAttribute, v); }
  std::string subTitle() const override { return text(kSubTitleAttribute); }
  void setSubTitle(std::string v) override { setText(kSubTitleAttribute, std::move(v)); }
  // Read back through the title transformer: in display form.
  std::string title() const override;
  void setTitle(std::string v) override;
  QSOChapterSet chapters() const override { return chapters_; }
  void setChapters(QSOChapterSet v) override { chapters_ = std::move(v); }
  std::vector<std::string> bisacCodes() const override { return strings(kBisacCodesAttribute); }
  void setBisacCodes(std::vector<std::string> v) override { setStrings(kBisacCodesAttribute, v); }

 private:
  std::string text(AudiobookAttribute a) const;
  void setText(AudiobookAttribute a, std::string v) { values_[a] = std::move(v); }
  std::optional<int64_t> integer(AudiobookAttribute a) const;
  void setInteger(AudiobookAttribute a, std::optional<int64_t> v);
  std::optional<Date> date(AudiobookAttribute a) const;
  void setDate(AudiobookAttribute a, std::optional<Date> v);
  std::vector<std::string> strings(AudiobookAttribute a) const;
  void setStrings(AudiobookAttribute a, const std::vector<std::string>& v);

  std::optional<int64_t> objectID_;
  std::array<StoredValue, kAudiobookAttributeCount> values_;
  QSOChapterSet chapters_;
};

class QSOChapter : public QSOChapterInterface {
 public:
  std::optional<int64_t> chapterNumber() const override { return chapterNumber_; }
  void setChapterNumber(std::optional<int64_t> v) override { chapterNumber_ = v; }
  std::optional<int64_t> duration() const override { return duration_; }
  void setDuration(std::optional<int64_t> v) override { duration_ = v; }
  std::optional<int64_t> partNumber() const override { return partNumber_; }
  void setPartNumber(std::optional<int64_t> v) override { partNumber_ = v; }
  std::weak_ptr<QSOAudiobookInterface> audiobook() const override { return audiobook_; }
  void setAudiobook(std::weak_ptr<QSOAudiobookInterface> v) override { audiobook_ = std::move(v); }

 private:
  std::optional<int64_t> chapterNumber_;
  std::optional<int64_t> duration_;
  std::optional<int64_t> partNumber_;
  std::weak_ptr<QSOAudiobookInterface> audiobook_;
};

// Stored form of a value of a transformable attribute, through the transformer the model names;
// empty when that transformer is not registered (logged) or does not take the value.
std::optional<StoredBytes> storedBytesForAttribute(const AttributeDescription& attribute,
                                                   const Value& value);

}  // namespace sonorell
