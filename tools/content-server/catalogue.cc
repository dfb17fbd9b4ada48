#include "catalogue.h"

#include <stdexcept>
#include <string>

#include "data_dir.h"
#include "documents.h"
#include "mp3_renderer.h"
#include "sha256.h"

namespace sonorell::content {
namespace {

struct ChapterSpec {
  std::uint64_t part;
  std::uint64_t chapter;
  Tone tone;
};

struct BookSpec {
  Book book;  // every field but the chapters
  std::vector<ChapterSpec> chapters;
};

Book describe(std::string id, std::string title, std::string subTitle, std::string author,
              std::string narrator, std::string series) {
  Book b;
  b.id = std::move(id);
  b.title = std::move(title);
  b.subTitle = std::move(subTitle);
  b.authors = {std::move(author)};
  b.narrators = {std::move(narrator)};
  b.series = {std::move(series)};
  b.awards = {"Loopback Prize for Sine Waves"};
  b.bisacCodes = {"FIC000000", "MUS000000"};
  b.publisher = "Sonorell Reference Audio";
  b.abridgement = "Unabridged";
  b.description = "Pure tones at fixed frequencies, one per chapter, made for testing.";
  b.copyright = "(c) 2017 Sonorell Reference Audio";
  b.gradeLevel = "Adult";
  b.isbnLibrary = "978000000" + b.id;
  b.isbnRetail = "978100000" + b.id;
  b.language = "en";
  b.modifiedDate = "2017-03-04T10:20:30";
  b.streetDate = "2017-03-04";
  return b;
}

std::vector<BookSpec> bookSpecs() {
  std::vector<BookSpec> books;
  books.push_back({describe(std::string(kThreeChapterBookID), "Three Small Tones", "A Short Test",
                            "Ada Sine", "Nora Tone", "Tones"),
                   {{0, 1, {440, 2}}, {0, 2, {523, 3}}, {0, 3, {659, 4}}}});
  books.push_back({describe(std::string(kFourChapterBookID), "Four Quiet Rooms", "", "Ada Sine",
                            "Nora Tone", "Tones"),
                   {{0, 1, {330, 2}}, {0, 2, {392, 3}}, {0, 3, {494, 5}}, {0, 4, {587, 6}}}});
  books.push_back({describe(std::string(kTwoPartBookID), "Two Parts of a Tone", "In Two Parts",
                            "Ben Chord", "Nora Tone", "Parts"),
                   {{1, 1, {698, 2}}, {1, 2, {784, 3}}, {2, 1, {880, 2}}, {2, 2, {988, 3}}}});
  // Eight renditions serve the 60 chapters, so a cold start renders little audio.
  BookSpec large{describe(std::string(kLargeBookID), "The Long Listening", "Sixty Chapters",
                          "Clara Drone", "Otto Hum", "Long Books"),
                 {}};
  for (std::uint64_t g = 0; g < 60; ++g) {
    const int variant = static_cast<int>(g % 8);
    large.chapters.push_back({1 + g / 20, 1 + g % 20, {200 + 50 * variant, 6 + variant}});
  }
  books.push_back(std::move(large));
  return books;
}

// One rendered file, shared by every chapter that uses the same tone.
struct Rendition {
  std::uint64_t durationMs;
  std::string sha256;
  std::shared_ptr<const std::string> bytes;
};

Rendition loadRendition(const std::filesystem::path& audioDir, Tone tone,
                        CatalogueLoadStats* stats) {
  const std::string stem =
      "tone-" + std::to_string(tone.frequencyHz) + "hz-" + std::to_string(tone.seconds) + "s";
  const auto mp3 = audioDir / (stem + ".mp3");
  const auto duration = audioDir / (stem + ".duration-ms");
  // The duration file is written last, so its presence means both files are complete.
  if (!std::filesystem::exists(duration) || !std::filesystem::exists(mp3)) {
    renderToneMp3(tone, mp3);
    writeFileAtomically(duration, std::to_string(decodedDurationMs(mp3)));
    if (stats) ++stats->rendered;
  } else if (stats) {
    ++stats->reused;
  }
  auto bytes = std::make_shared<const std::string>(readFile(mp3));
  const std::string durationText = readFile(duration);
  return Rendition{std::stoull(durationText), sha256Hex(*bytes), std::move(bytes)};
}

}  // namespace

std::uint64_t Book::actualSize() const {
  std::uint64_t total = 0;
  for (const Chapter& c : chapters) total += c.size;
  return total;
}

std::uint64_t Book::totalDurationMs() const {
  std::uint64_t total = 0;
  for (const Chapter& c : chapters) total += c.durationMs;
  return total;
}

const Chapter* Book::chapter(std::uint64_t part, std::uint64_t number) const {
  for (const Chapter& c : chapters) {
    if (c.part == part && c.chapter == number) return &c;
  }
  return nullptr;
}

std::string_view Catalogue::version() { return "catalogue-1"; }

Catalogue Catalogue::load(const std::filesystem::path& dataDir, CatalogueLoadStats* stats) {
  const auto audioDir = dataDir / "audio";
  std::filesystem::create_directories(audioDir);
  std::vector<std::pair<Tone, Rendition>> renditions;
  auto renditionFor = [&](Tone tone) -> const Rendition& {
    for (const auto& [t, r] : renditions) {
      if (t.frequencyHz == tone.frequencyHz && t.seconds == tone.seconds) return r;
    }
    renditions.emplace_back(tone, loadRendition(audioDir, tone, stats));
    return renditions.back().second;
  };

  Catalogue catalogue;
  for (BookSpec& entry : bookSpecs()) {
    Book book = std::move(entry.book);
    for (const ChapterSpec& c : entry.chapters) {
      const Rendition& r = renditionFor(c.tone);
      book.chapters.push_back(Chapter{c.part, c.chapter, r.durationMs, r.bytes->size(), r.sha256,
                                      audioPath(book.id, c.part, c.chapter), r.bytes});
    }
    catalogue.books_.push_back(std::move(book));
  }
  return catalogue;
}

const Book* Catalogue::book(std::string_view id) const {
  for (const Book& b : books_) {
    if (b.id == id) return &b;
  }
  return nullptr;
}

std::vector<std::string> Catalogue::shortBookIDs() const {
  std::vector<std::string> ids;
  for (const Book& b : books_) {
    if (b.id != kLargeBookID) ids.push_back(b.id);
  }
  return ids;
}

}  // namespace sonorell::content
