/// Names one chapter of one audiobook: the key of caches, file names, transfers and notifications.
/// A plain value; not synchronised, so it must not be changed while another thread reads it.
/// @file
#pragma once

#include <climits>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sonorell/export.h"

namespace sonorell {

/// One chapter of one audiobook: the audiobook's identifier, the part number and the chapter
/// number. The engine's notifications carry it under QSOChapterDescriptionUserInfoKey (read it
/// with Value::getIf<QSOChapterDescription>()); std::hash is specialized for it, so it keys
/// unordered containers. A plain value the holder owns.
class SONORELL_EXPORT QSOChapterDescription {
 public:
  /// The empty description: no audiobook, part 0, chapter 0.
  QSOChapterDescription() = default;
  /// Chapter `chapterNumber` of part `partNumber` of audiobook `audiobookID`.
  QSOChapterDescription(std::string audiobookID, uint64_t partNumber, uint64_t chapterNumber)
      : audiobookID_(std::move(audiobookID)),
        partNumber_(partNumber),
        chapterNumber_(chapterNumber) {}

  /// Parses the key form "ID_part_chapter". Pieces that are not numbers read as 0 and pieces after
  /// the third are ignored; fewer than three pieces is no description.
  static std::optional<QSOChapterDescription> initWithString(std::string_view key);

  /// Key form "%@_%lu_%lu": a persistent format (transfer names, cache keys, file names).
  std::string toString() const;
  /// Display form "audiobookID = %@ partNumber = %lu chapterNumber = %lu".
  std::string description() const;

  /// The audiobook's identifier.
  const std::string& audiobookID() const { return audiobookID_; }
  /// The part number (0 for a book without parts).
  uint64_t partNumber() const { return partNumber_; }
  /// The chapter number within the part.
  uint64_t chapterNumber() const { return chapterNumber_; }
  /// Replaces the audiobook's identifier.
  void setAudiobookID(std::string id) { audiobookID_ = std::move(id); }
  /// Replaces the part number.
  void setPartNumber(uint64_t part) { partNumber_ = part; }
  /// Replaces the chapter number.
  void setChapterNumber(uint64_t chapter) { chapterNumber_ = chapter; }

  /// Equal when the audiobook, the part and the chapter are.
  bool operator==(const QSOChapterDescription& other) const = default;
  /// A hash of the three fields, consistent with operator==.
  size_t hash() const;

 private:
  std::string audiobookID_;
  uint64_t partNumber_ = 0;
  uint64_t chapterNumber_ = 0;
};

// Inline so that every layer (Value in the platform layer included) can use chapter
// descriptions without a link dependency on the model.

namespace chapter_description_detail {
/// Leading decimal digits, saturating; anything else reads as 0.
inline uint64_t readNumber(std::string_view piece) {
  uint64_t n = 0;
  for (char c : piece) {
    if (c < '0' || c > '9') break;
    uint64_t digit = static_cast<uint64_t>(c - '0');
    if (n > (UINT64_MAX - digit) / 10) return UINT64_MAX;
    n = n * 10 + digit;
  }
  return n;
}
}  // namespace chapter_description_detail

inline std::optional<QSOChapterDescription> QSOChapterDescription::initWithString(
    std::string_view key) {
  std::vector<std::string_view> pieces;
  size_t start = 0;
  while (true) {
    size_t cut = key.find('_', start);
    pieces.push_back(key.substr(start, cut == std::string_view::npos ? cut : cut - start));
    if (cut == std::string_view::npos) break;
    start = cut + 1;
  }
  if (pieces.size() < 3) return std::nullopt;
  return QSOChapterDescription(std::string(pieces[0]),
                               chapter_description_detail::readNumber(pieces[1]),
                               chapter_description_detail::readNumber(pieces[2]));
}

inline std::string QSOChapterDescription::toString() const {
  return audiobookID_ + "_" + std::to_string(partNumber_) + "_" + std::to_string(chapterNumber_);
}

inline std::string QSOChapterDescription::description() const {
  return "audiobookID = " + audiobookID_ + " partNumber = " + std::to_string(partNumber_) +
         " chapterNumber = " + std::to_string(chapterNumber_);
}

inline size_t QSOChapterDescription::hash() const {
  return std::hash<std::string>{}(audiobookID_) ^ std::hash<uint64_t>{}(partNumber_) ^
         std::hash<uint64_t>{}(chapterNumber_);
}

}  // namespace sonorell

// Lets chapter descriptions key unordered containers. Left out of the reference (Doxygen cannot
// place a specialization declared outside namespace std); QSOChapterDescription mentions it.
/// @cond
template <>
struct std::hash<sonorell::QSOChapterDescription> {
  size_t operator()(const sonorell::QSOChapterDescription& d) const noexcept { return d.hash(); }
};
/// @endcond
