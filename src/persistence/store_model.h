// The object store's model: the entities "QSOAudiobook" and "QSOChapter", their attributes with
// storage types and, for titles and string lists, the name of the value transformer that turns a
// value into stored bytes. It is also the whitelist of attributes that predicates and sort
// descriptors may name. Constant tables; safe from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace sonorell {

inline constexpr std::string_view kAudiobookEntityName = "QSOAudiobook";
inline constexpr std::string_view kChapterEntityName = "QSOChapter";

enum class AttributeType {
  String,         // TEXT
  Integer64,      // INTEGER
  Boolean,        // INTEGER 0/1
  Date,           // INTEGER nanoseconds since 1970 UTC (exact for every Date)
  Transformable,  // BLOB made by the named value transformer
};

struct AttributeDescription {
  std::string_view name;  // attribute name, also the column name
  AttributeType type;
  std::string_view transformerName;  // Transformable only
  bool isStringList = false;         // Transformable: a list of strings rather than one string
};

// Audiobook attributes, in column order (the order of the record in audiobook.h).
enum AudiobookAttribute : size_t {
  kAudiobookIDAttribute,
  kAbridgementAttribute,
  kActualSizeAttribute,
  kAudiobookDescriptionAttribute,
  kAuthorsAttribute,
  kAwardsAttribute,
  kChapterizedAttribute,
  kCopyrightAttribute,
  kCoverURLAttribute,
  kGradeLevelAttribute,
  kIsbnLibraryAttribute,
  kIsbnRetailAttribute,
  kLanguageAttribute,
  kMetadataSigAttribute,
  kModifiedDateAttribute,
  kNarratorsAttribute,
  kPublisherAttribute,
  kRuntimeAttribute,
  kSampleURLAttribute,
  kSeriesAttribute,
  kStreetDateAttribute,
  kSubTitleAttribute,
  kTitleAttribute,
  kBisacCodesAttribute,
  kAudiobookAttributeCount,
};

std::span<const AttributeDescription> audiobookAttributes();
// The attribute of that exact name (case-sensitive), or null.
const AttributeDescription* audiobookAttributeNamed(std::string_view name);

// Chapter attributes besides the link to the audiobook (column "audiobook", the audiobook's pk).
enum ChapterAttribute : size_t {
  kChapterNumberAttribute,
  kDurationAttribute,
  kPartNumberAttribute,
  kChapterAttributeCount,
};

std::span<const AttributeDescription> chapterAttributes();

}  // namespace sonorell
