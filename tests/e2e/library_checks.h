// What the end-to-end tests check of a Library after a fault: the summary's error code, the
// chapters that were downloaded before (still downloaded, byte for byte), a book downloaded whole
// against the server's catalogue. Used from the test's thread only.
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "world.h"

namespace sonorell::e2e {

// A chapter as `status --json` reported it, with the SHA-256 of its file when it was downloaded.
struct ChapterState {
  uint64_t part = 0;
  uint64_t chapter = 0;
  uint64_t status = 0;
  std::string file;
  std::string sha256;  // of the file, for status 3 only
};

constexpr uint64_t kNotDownloaded = 0;
constexpr uint64_t kPartiallyDownloaded = 2;
constexpr uint64_t kDownloaded = 3;

// The error code of the command's JSON summary line; 0 when it has none, -1 when there is no
// summary line at all.
int64_t summaryCode(const CommandResult& result);
// The chapters of `status --json BOOK` (empty when the book has none on record).
std::vector<ChapterState> chapterStates(const World& world, const std::string& book);
// Every chapter that was downloaded in `before` is downloaded now, its file byte-identical.
void expectDownloadedChaptersKept(const World& world, const std::string& book,
                                  const std::vector<ChapterState>& before);
// The book and every chapter have status 3, and each file matches the catalogue's SHA-256.
void expectWholeBook(const World& world, const std::string& book);
// Every file under `root`, relative path to SHA-256: what must be left alone.
std::vector<std::pair<std::string, std::string>> fileDigests(const std::filesystem::path& root);
// Fails the test, naming them, when unfinished files (see unfinishedFiles) are under `root`.
void expectNoUnfinishedFiles(const std::filesystem::path& root);
// A human-readable list of a command's outcome, for failure messages.
std::string describe(const CommandResult& result);

}  // namespace sonorell::e2e
