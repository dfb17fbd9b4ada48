#include "catalogue.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <functional>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>

#include "data_dir.h"
#include "documents.h"
#include "mp3_renderer.h"
#include "sha256.h"
#include "speech_renderer.h"

namespace sonorell::content {
namespace {

struct ChapterSpec {
  std::uint64_t part;
  std::uint64_t chapter;
  Tone tone;
  // 0: the tone's rendition itself, in memory. Otherwise a file of this many frames of it,
  // repeated, served from disk.
  std::uint64_t frames = 0;
  // Non-empty: the chapter is this text, spoken; the tone stands in when it cannot be.
  std::string_view speech = {};
};

// The openings of the first three chapters of Jane Austen's "Pride and Prejudice" (1813).
constexpr std::string_view kDemoChapterOne =
    "It is a truth universally acknowledged, that a single man in possession of a good fortune, "
    "must be in want of a wife. However little known the feelings or views of such a man may be "
    "on his first entering a neighbourhood, this truth is so well fixed in the minds of the "
    "surrounding families, that he is considered the rightful property of some one or other of "
    "their daughters.";
constexpr std::string_view kDemoChapterTwo =
    "Mr. Bennet was among the earliest of those who waited on Mr. Bingley. He had always intended "
    "to visit him, though to the last always assuring his wife that he should not go; and till "
    "the evening after the visit was paid she had no knowledge of it. It was then disclosed in the "
    "following manner. Observing his second daughter employed in trimming a hat, he suddenly "
    "addressed her with: \"I hope Mr. Bingley will like it, Lizzy.\"";
constexpr std::string_view kDemoChapterThree =
    "Not all that Mrs. Bennet, however, with the assistance of her five daughters, could ask on "
    "the subject, was sufficient to draw from her husband any satisfactory description of Mr. "
    "Bingley. They attacked him in various ways, with barefaced questions, ingenious "
    "suppositions, and distant surmises; but he eluded the skill of them all, and they were at "
    "last obliged to accept the second-hand intelligence of their neighbour, Lady Lucas.";

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
  // Four 10-second renditions repeated to about 48,000 frames of 209 bytes: 10 MB and 21
  // minutes a chapter, each 250 frames (6.5 s) longer than the one before.
  BookSpec tenMegabyte{describe(std::string(kTenMegabyteChapterBookID), "The Patient Hours",
                                "Twenty Long Chapters", "Clara Drone", "Otto Hum", "Long Books"),
                       {}};
  for (std::uint64_t n = 1; n <= 20; ++n) {
    const int variant = static_cast<int>(n % 4);
    tenMegabyte.chapters.push_back({0, n, {262 + 37 * variant, 10}, 47'500 + 250 * n});
  }
  books.push_back(std::move(tenMegabyte));
  Book demo = describe(std::string(kDemoBookID), "Pride and Prejudice", "Three Openings",
                       "Jane Austen", "eSpeak NG", "Sonorell Demo");
  demo.awards = {"Sonorell Demo Selection"};
  demo.bisacCodes = {"FIC004000"};
  demo.description =
      "The opening paragraphs of the novel's first three chapters, read by a speech synthesizer.";
  demo.copyright = "Text in the public domain; reading (c) 2017 Sonorell Reference Audio";
  books.push_back({std::move(demo),
                   {{0, 1, {392, 20}, 0, kDemoChapterOne},
                    {0, 2, {440, 22}, 0, kDemoChapterTwo},
                    {0, 3, {494, 24}, 0, kDemoChapterThree}}});
  return books;
}

std::string stemOf(Tone tone) {
  return "tone-" + std::to_string(tone.frequencyHz) + "hz-" + std::to_string(tone.seconds) + "s";
}

// One rendered file, shared by every chapter that uses the same tone.
struct Rendition {
  std::uint64_t durationMs;
  std::string sha256;
  std::shared_ptr<const ChapterBytes> bytes;
};

// The rendition cached under `stem`, which `render` writes when it is not there yet.
Rendition loadRendition(const std::filesystem::path& audioDir, const std::string& stem,
                        const std::function<void(const std::filesystem::path&)>& render,
                        CatalogueLoadStats* stats) {
  const auto mp3 = audioDir / (stem + ".mp3");
  const auto duration = audioDir / (stem + ".duration-ms");
  // The duration file is written last, so its presence means both files are complete.
  if (!std::filesystem::exists(duration) || !std::filesystem::exists(mp3)) {
    render(mp3);
    writeFileAtomically(duration, std::to_string(decodedDurationMs(mp3)));
    if (stats) ++stats->rendered;
  } else if (stats) {
    ++stats->reused;
  }
  std::string bytes = readFile(mp3);
  std::string digest = sha256Hex(bytes);
  const std::string durationText = readFile(duration);
  return Rendition{std::stoull(durationText), std::move(digest),
                   ChapterBytes::inMemory(std::move(bytes))};
}

Rendition loadToneRendition(const std::filesystem::path& audioDir, Tone tone,
                            CatalogueLoadStats* stats) {
  return loadRendition(
      audioDir, stemOf(tone),
      [tone](const std::filesystem::path& mp3) { renderToneMp3(tone, mp3); }, stats);
}

// Renders speech with espeak-ng, found once per load. When it is missing or fails, says so once
// and gives up on speech for the rest of the load, so that the server starts with tones instead.
class SpeechSource {
 public:
  SpeechSource(const std::filesystem::path& audioDir, CatalogueLoadStats* stats)
      : audioDir_(audioDir), stats_(stats) {}

  // None when the text cannot be spoken on this machine.
  std::optional<Rendition> load(std::string_view text) {
    const std::string stem = speechStem(text);
    // A rendition made earlier serves even when espeak-ng has gone since.
    const bool cached = std::filesystem::exists(audioDir_ / (stem + ".duration-ms"));
    if (!cached && !espeak()) return std::nullopt;
    try {
      return loadRendition(
          audioDir_, stem,
          [this, text](const std::filesystem::path& mp3) { renderSpeechMp3(*espeak_, text, mp3); },
          stats_);
    } catch (const std::exception& e) {
      giveUp(std::string("espeak-ng failed (") + e.what() + ")");
      return std::nullopt;
    }
  }

 private:
  bool espeak() {
    if (!searched_) {
      searched_ = true;
      espeak_ = findEspeak();
      if (!espeak_) giveUp("espeak-ng is not installed");
    }
    return espeak_.has_value();
  }

  void giveUp(const std::string& why) {
    espeak_.reset();
    if (!warned_) {
      std::fprintf(stderr, "sonorell-content-server: %s; book %s is rendered as tones\n",
                   why.c_str(), std::string(kDemoBookID).c_str());
    }
    warned_ = true;
  }

  std::filesystem::path audioDir_;
  CatalogueLoadStats* stats_;
  bool searched_ = false;
  bool warned_ = false;
  std::optional<std::filesystem::path> espeak_;
};

// A long chapter's file: `frames` frames of a rendition, repeated. Its size and digest are kept
// in a facts file written after it, so that a later start reads neither the audio nor hashes it.
Chapter loadLongChapter(const std::filesystem::path& audioDir, Tone tone, std::uint64_t frames,
                        const Rendition& rendition, CatalogueLoadStats* stats) {
  const std::string stem = stemOf(tone) + "-x" + std::to_string(frames) + "frames";
  const auto mp3 = audioDir / (stem + ".mp3");
  const auto factsFile = audioDir / (stem + ".facts");
  std::uint64_t size = 0;
  std::string digest;
  std::error_code ec;
  if (std::filesystem::exists(factsFile)) {
    std::istringstream(readFile(factsFile)) >> size >> digest;
  }
  if (digest.empty() || std::filesystem::file_size(mp3, ec) != size || ec) {
    const std::string source = rendition.bytes->all();
    // Durations are counted in frames, which holds only if each decodes to a full frame of
    // samples; the rendition's measured duration says whether they do.
    const std::uint64_t perPass = mp3FrameBoundaries(source).size() - 1;
    if (durationMsOfFrames(perPass) != rendition.durationMs) {
      throw std::runtime_error(mp3.string() + ": " + std::to_string(perPass) +
                               " frames decode to " + std::to_string(rendition.durationMs) + " ms");
    }
    const std::string bytes = repeatFrames(source, frames);
    size = bytes.size();
    digest = sha256Hex(bytes);
    writeFileAtomically(mp3, bytes);
    writeFileAtomically(factsFile, std::to_string(size) + " " + digest);
    if (stats) ++stats->rendered;
  } else if (stats) {
    ++stats->reused;
  }
  Chapter c;
  c.durationMs = durationMsOfFrames(frames);
  c.size = size;
  c.sha256 = std::move(digest);
  c.bytes = ChapterBytes::onDisk(mp3);
  if (c.bytes->size() != size) throw std::runtime_error(mp3.string() + " changed while loading");
  return c;
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

std::shared_ptr<const ChapterBytes> ChapterBytes::inMemory(std::string bytes) {
  std::shared_ptr<ChapterBytes> b(new ChapterBytes());
  b->size_ = bytes.size();
  b->memory_ = std::move(bytes);
  return b;
}

std::shared_ptr<const ChapterBytes> ChapterBytes::onDisk(const std::filesystem::path& file) {
  std::shared_ptr<ChapterBytes> b(new ChapterBytes());
  b->fd_ = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (b->fd_ < 0) throw std::runtime_error("cannot open " + file.string());
  const off_t end = ::lseek(b->fd_, 0, SEEK_END);
  if (end < 0) throw std::runtime_error("cannot size " + file.string());
  b->size_ = static_cast<std::uint64_t>(end);
  return b;
}

ChapterBytes::~ChapterBytes() {
  if (fd_ >= 0) ::close(fd_);
}

bool ChapterBytes::read(std::uint64_t offset, char* out, std::size_t n) const {
  if (offset > size_ || n > size_ - offset) return false;
  if (fd_ < 0) {
    memory_.copy(out, n, offset);
    return true;
  }
  // pread keeps no file position, so worker threads share the descriptor.
  while (n > 0) {
    const ssize_t got = ::pread(fd_, out, n, static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    out += got;
    offset += static_cast<std::uint64_t>(got);
    n -= static_cast<std::size_t>(got);
  }
  return true;
}

std::string ChapterBytes::slice(std::uint64_t offset, std::uint64_t length) const {
  if (offset > size_) offset = size_;
  std::string out(std::min(length, size_ - offset), '\0');
  if (!read(offset, out.data(), out.size())) throw std::runtime_error("chapter file unreadable");
  return out;
}

std::string_view Catalogue::version() { return "catalogue-2"; }

Catalogue Catalogue::load(const std::filesystem::path& dataDir, CatalogueLoadStats* stats) {
  const auto audioDir = dataDir / "audio";
  std::filesystem::create_directories(audioDir);
  std::vector<std::pair<Tone, Rendition>> renditions;
  auto toneFor = [&](Tone tone) -> const Rendition& {
    for (const auto& [t, r] : renditions) {
      if (t.frequencyHz == tone.frequencyHz && t.seconds == tone.seconds) return r;
    }
    renditions.emplace_back(tone, loadToneRendition(audioDir, tone, stats));
    return renditions.back().second;
  };
  SpeechSource speech(audioDir, stats);
  auto renditionFor = [&](const ChapterSpec& c) -> Rendition {
    if (!c.speech.empty()) {
      if (auto spoken = speech.load(c.speech)) return std::move(*spoken);
    }
    return toneFor(c.tone);
  };

  Catalogue catalogue;
  for (BookSpec& entry : bookSpecs()) {
    Book book = std::move(entry.book);
    for (const ChapterSpec& c : entry.chapters) {
      const Rendition r = renditionFor(c);
      Chapter chapter = c.frames == 0
                            ? Chapter{0, 0, r.durationMs, r.bytes->size(), r.sha256, {}, r.bytes}
                            : loadLongChapter(audioDir, c.tone, c.frames, r, stats);
      chapter.part = c.part;
      chapter.chapter = c.chapter;
      chapter.audioPath = audioPath(book.id, c.part, c.chapter);
      book.chapters.push_back(std::move(chapter));
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
    if (b.id != kLargeBookID && b.id != kTenMegabyteChapterBookID && b.id != kDemoBookID) {
      ids.push_back(b.id);
    }
  }
  return ids;
}

}  // namespace sonorell::content
