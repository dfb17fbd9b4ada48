#include "persistence/store_model.h"

#include <array>

namespace sonorell {

namespace {

constexpr std::string_view kTitle = "SOTitleTransformer";
constexpr std::string_view kList = "QSOStringToArrayTransformer";
using T = AttributeType;

constexpr std::array<AttributeDescription, kAudiobookAttributeCount> kAudiobook = {{
    {"audiobookID", T::String, {}},
    {"abridgement", T::String, {}},
    {"actualSize", T::Integer64, {}},
    {"audiobookDescription", T::String, {}},
    {"authors", T::Transformable, kList, true},
    {"awards", T::Transformable, kList, true},
    {"chapterized", T::Boolean, {}},
    {"copyright", T::String, {}},
    {"coverURL", T::String, {}},
    {"gradeLevel", T::String, {}},
    {"isbnLibrary", T::String, {}},
    {"isbnRetail", T::String, {}},
    {"language", T::String, {}},
    {"metadataSig", T::String, {}},
    {"modifiedDate", T::Date, {}},
    {"narrators", T::Transformable, kList, true},
    {"publisher", T::String, {}},
    {"runtime", T::String, {}},
    {"sampleURL", T::String, {}},
    {"series", T::Transformable, kList, true},
    {"streetDate", T::Date, {}},
    {"subTitle", T::String, {}},
    {"title", T::Transformable, kTitle, false},
    {"bisacCodes", T::Transformable, kList, true},
}};

constexpr std::array<AttributeDescription, kChapterAttributeCount> kChapter = {{
    {"chapterNumber", T::Integer64, {}},
    {"duration", T::Integer64, {}},
    {"partNumber", T::Integer64, {}},
}};

}  // namespace

std::span<const AttributeDescription> audiobookAttributes() { return kAudiobook; }

const AttributeDescription* audiobookAttributeNamed(std::string_view name) {
  for (const AttributeDescription& attribute : kAudiobook) {
    if (attribute.name == name) return &attribute;
  }
  return nullptr;
}

std::span<const AttributeDescription> chapterAttributes() { return kChapter; }

}  // namespace sonorell
