// The audiobooks this server offers: a fixed, deterministic list of books whose chapters are MP3
// tones, and one of speech, that the server renders itself into a data directory the first time
// and reads back later.
// Short chapters are held in memory; long ones stay in their files and are read on demand.
// A Catalogue is immutable once loaded and may be read from any thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace sonorell::content {

// Short books for tests, seconds per chapter.
inline constexpr std::string_view kThreeChapterBookID = "1001";
inline constexpr std::string_view kFourChapterBookID = "1002";
inline constexpr std::string_view kTwoPartBookID = "1003";
// The large book: 60 chapters in three parts.
inline constexpr std::string_view kLargeBookID = "2001";
// Twenty chapters of about 10 MB (some 22 minutes) each, served from files.
inline constexpr std::string_view kTenMegabyteChapterBookID = "3001";
// Three chapters of speech (some 15 to 30 seconds each) that espeak-ng reads from a public-domain
// novel, for listening to; tones of about that length when espeak-ng is not installed.
inline constexpr std::string_view kDemoBookID = "4001";

// A chapter file's bytes: in memory, or read from the file in the data directory on demand (long
// chapters, which would otherwise cost every process that starts a server hundreds of MB).
// Immutable; reads are safe from any thread.
class ChapterBytes {
 public:
  static std::shared_ptr<const ChapterBytes> inMemory(std::string bytes);
  // Keeps the file open for reading. Throws std::runtime_error when it cannot be opened.
  static std::shared_ptr<const ChapterBytes> onDisk(const std::filesystem::path& file);
  ~ChapterBytes();
  ChapterBytes(const ChapterBytes&) = delete;
  ChapterBytes& operator=(const ChapterBytes&) = delete;

  std::uint64_t size() const { return size_; }
  bool isInMemory() const { return fd_ < 0; }
  // Copies [offset, offset + n), which lies within the file; false when the file cannot be read.
  bool read(std::uint64_t offset, char* out, std::size_t n) const;
  // The same as a string; throws std::runtime_error when the file cannot be read.
  std::string slice(std::uint64_t offset, std::uint64_t length) const;
  std::string all() const { return slice(0, size_); }

 private:
  ChapterBytes() = default;
  std::string memory_;
  int fd_ = -1;
  std::uint64_t size_ = 0;
};

struct Chapter {
  std::uint64_t part = 0;
  std::uint64_t chapter = 0;
  std::uint64_t durationMs = 0;  // as decoded from the file
  std::uint64_t size = 0;        // bytes of the MP3 file
  std::string sha256;            // lower-case hex of the file's bytes
  std::string audioPath;         // path on the server, e.g. /audio/1001/0/1.mp3
  std::shared_ptr<const ChapterBytes> bytes;
};

struct Book {
  std::string id;
  std::string title;
  std::string subTitle;
  std::vector<std::string> authors;
  std::vector<std::string> narrators;
  std::vector<std::string> series;
  std::vector<std::string> awards;
  std::vector<std::string> bisacCodes;
  std::string publisher;
  std::string abridgement;
  std::string description;
  std::string copyright;
  std::string gradeLevel;
  std::string isbnLibrary;
  std::string isbnRetail;
  std::string language;
  std::string modifiedDate;       // as the document carries it: 2017-03-04T10:20:30
  std::string streetDate;         // 2017-03-04
  std::vector<Chapter> chapters;  // part-major, chapter-minor order

  std::uint64_t actualSize() const;       // sum of the chapter files
  std::uint64_t totalDurationMs() const;  // sum of the chapter durations
  const Chapter* chapter(std::uint64_t part, std::uint64_t chapter) const;
};

struct CatalogueLoadStats {
  std::size_t rendered = 0;  // chapter files rendered by this load (0 when all were cached)
  std::size_t reused = 0;    // chapter files found in the data directory
};

class Catalogue {
 public:
  // Renders what is missing under `dataDir`/audio and loads every book. The caller holds the
  // data directory's lock. Throws std::runtime_error when rendering fails.
  static Catalogue load(const std::filesystem::path& dataDir, CatalogueLoadStats* stats = nullptr);

  // Bumped whenever the books or their renditions change, so that caches keyed by it stay valid.
  static std::string_view version();

  const std::vector<Book>& books() const { return books_; }
  const Book* book(std::string_view id) const;
  // Ids of the short tone books (a few seconds per chapter), in catalogue order.
  std::vector<std::string> shortBookIDs() const;

 private:
  std::vector<Book> books_;
};

}  // namespace sonorell::content
