// Metadata and playlist documents damaged by a seeded mutator, each served through the server's
// custom-body fault to a `sonorell download` process: it must end (no crash, no hang) with success
// or a documented download-failure code, and nothing else in the Library may change. The cases
// are split over shards (separate ctest tests, so ctest -j runs them side by side).
//   SONORELL_E2E_FUZZ_SEED   seed of the run (printed; default below)
//   SONORELL_E2E_FUZZ_CASES  number of documents over all shards (default 1000)
//   SONORELL_E2E_FUZZ_VERBOSE=1 prints every case and its outcome
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <set>

#include "json_mutator.h"
#include "library_checks.h"
#include "world.h"

namespace sonorell::e2e {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr uint64_t kDefaultSeed = 20261123;
constexpr uint64_t kDefaultCases = 1000;
constexpr int kShards = 4;
constexpr const char* kVictim = "1002";  // downloaded first; no document may touch it

uint64_t environmentNumber(const char* name, uint64_t fallback) {
  const char* text = std::getenv(name);
  if (!text || !*text) return fallback;
  return std::strtoull(text, nullptr, 0);
}

// Every download-failure code the engine documents.
const std::set<int64_t>& documentedCodes() {
  static const std::set<int64_t> codes = {10000, 10001, 11000, 11001, 11002, 11003, 11004, 11005,
                                          11006, 11007, 11008, 11009, 11010, 12000, 12001, 12002,
                                          12003, 12004, 12005, 12006, 13000, 13001, 13002, 15000,
                                          15001, 15002, 16000, 17000, 18000, 19000};
  return codes;
}

bool sanitizerSpoke(const std::string& text) {
  return text.find("AddressSanitizer") != std::string::npos ||
         text.find("runtime error:") != std::string::npos ||
         text.find("LeakSanitizer") != std::string::npos;
}

class DocumentFuzz : public ::testing::TestWithParam<int> {
 protected:
  void SetUp() override {
    std::string why;
    ASSERT_TRUE(world_.ready(why)) << why;
  }

  // The playlist the server would give for 1001, rebuilt from the catalogue.
  json playlistDocument() const {
    json items = json::array();
    const json book = world_.catalogueBook("1001");
    for (const auto& c : book.at("chapters")) {
      items.push_back({{"part_number", c.at("part")},
                       {"chapter_number", c.at("chapter")},
                       {"url", world_.baseURL() + c.at("path").get<std::string>()}});
    }
    return {{"playlist_token", "fuzz-token"},
            {"expires", "2099-01-01T00:00:00+0000"},
            {"playlist", items}};
  }

  World world_;
};

TEST_P(DocumentFuzz, EveryDamagedDocumentEndsTheDownloadWithADocumentedCode) {
  const int shard = GetParam();
  const uint64_t seed = environmentNumber("SONORELL_E2E_FUZZ_SEED", kDefaultSeed);
  const uint64_t cases = environmentNumber("SONORELL_E2E_FUZZ_CASES", kDefaultCases);
  const bool verbose = environmentNumber("SONORELL_E2E_FUZZ_VERBOSE", 0) != 0;
  std::printf(
      "document fuzz: SONORELL_E2E_FUZZ_SEED=%llu SONORELL_E2E_FUZZ_CASES=%llu, shard %d "
      "of %d\n",
      static_cast<unsigned long long>(seed), static_cast<unsigned long long>(cases), shard,
      kShards);

  ASSERT_EQ(world_.sonorell({"-q", "download", kVictim}).exitCode, 0);
  const auto victim = chapterStates(world_, kVictim);
  const auto victimFiles = fileDigests(world_.library() / "SonorellSupport" / "Audio" / kVictim);
  const auto [metadataStatus, metadata] = world_.admin("GET", "/v4/audiobooks/1001");
  ASSERT_EQ(metadataStatus, 200);
  const json playlist = playlistDocument();
  // A mutated URL may name any host: those go to a proxy that is not there and fail at once.
  const Environment offline{{"https_proxy", "http://127.0.0.1:9"},
                            {"HTTPS_PROXY", "http://127.0.0.1:9"},
                            {"no_proxy", "127.0.0.1"},
                            {"NO_PROXY", "127.0.0.1"}};

  const auto started = std::chrono::steady_clock::now();
  uint64_t ran = 0, succeeded = 0;
  std::map<int64_t, uint64_t> byCode;
  for (uint64_t index = static_cast<uint64_t>(shard); index < cases; index += kShards) {
    const uint64_t thisSeed = caseSeed(seed, index);
    JsonMutator mutator(thisSeed, {kVictim, "1001"});
    const bool playlistCase = (index / kShards) % 2 == 1;
    const std::string book = "fuzz-" + std::to_string(index);
    json rules = json::array();
    std::string body;
    if (playlistCase) {
      // Sound metadata for the book, then a damaged playlist naming 1001's chapters.
      json ownMetadata = metadata;
      ownMetadata["audiobook"]["id"] = book;
      rules.push_back({{"route", "metadata"},
                       {"path", "/v4/audiobooks/" + book},
                       {"count", nullptr},
                       {"fault", {{"status", 200}, {"body", ownMetadata.dump()}}}});
      // Every other playlist keeps its envelope, so that its chapters are fetched as it says.
      body = (index / (2 * kShards)) % 2 == 0
                 ? mutator.mutate(playlist)
                 : mutator.mutate(playlist, json::json_pointer("/playlist"));
      rules.push_back({{"route", "playlist"},
                       {"path", "/v4/audiobooks/" + book + "/playlists"},
                       {"count", nullptr},
                       {"fault", {{"status", 200}, {"body", body}}}});
    } else {
      json own = metadata;
      own["audiobook"]["id"] = book;
      body = mutator.mutate(own);
      rules.push_back({{"route", "metadata"},
                       {"path", "/v4/audiobooks/" + book},
                       {"count", nullptr},
                       {"fault", {{"status", 200}, {"body", body}}}});
    }
    ASSERT_TRUE(world_.setFaults(rules)) << body;
    const auto result =
        world_.sonorell({"--json", "download", book}, offline, std::chrono::seconds(60));
    ++ran;
    const std::string replay = "case " + std::to_string(index) + " (" +
                               (playlistCase ? "playlist" : "metadata") + ", seed " +
                               std::to_string(thisSeed) + "): " + body.substr(0, 2000) + "\n" +
                               describe(result);
    if (verbose) std::printf("%s\n", replay.c_str());
    ASSERT_TRUE(result.exitCode == 0 || result.exitCode == 1) << replay;
    ASSERT_FALSE(sanitizerSpoke(result.err)) << replay;
    const int64_t code = summaryCode(result);
    ++byCode[code];
    if (result.exitCode == 0) {
      ++succeeded;
      EXPECT_EQ(code, 0) << replay;
    } else {
      EXPECT_TRUE(documentedCodes().count(code)) << replay;
    }
  }
  const auto seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  std::string codes;
  for (const auto& [code, count] : byCode) {
    codes += " " + std::to_string(code) + "x" + std::to_string(count);
  }
  std::printf("document fuzz: %llu cases in %.1f s (%.0f ms each), %llu succeeded; codes:%s\n",
              static_cast<unsigned long long>(ran), seconds, ran ? 1000 * seconds / ran : 0.0,
              static_cast<unsigned long long>(succeeded), codes.c_str());

  // Whatever the documents said, the other book is as it was, every chapter on record as
  // downloaded has its whole file, and nothing was left for a later run to take up.
  ASSERT_TRUE(world_.clearFaults());
  expectDownloadedChaptersKept(world_, kVictim, victim);
  EXPECT_EQ(fileDigests(world_.library() / "SonorellSupport" / "Audio" / kVictim), victimFiles);
  const auto all = world_.sonorell({"--json", "status"});
  ASSERT_EQ(all.exitCode, 0) << describe(all);
  const json served = world_.catalogueBook("1001");
  const auto books = all.jsonLines().front();
  for (const auto& book : books.at("audiobooks")) {
    for (const auto& c : book.at("chapters")) {
      if (c.at("status") != kDownloaded) continue;
      const std::string file = c.at("file");
      ASSERT_TRUE(fs::exists(file)) << c.dump();
      EXPECT_EQ(fs::file_size(file), c.at("downloadedSize").get<uint64_t>()) << c.dump();
    }
  }
  const auto resume = world_.sonorell({"--json", "resume"}, offline, std::chrono::seconds(60));
  EXPECT_EQ(resume.exitCode, 0) << describe(resume);
  expectNoUnfinishedFiles(world_.library());
  // Nothing was written beside the Library's own directories.
  for (const auto& entry : fs::directory_iterator(world_.library())) {
    EXPECT_EQ(entry.path().filename(), "SonorellSupport") << entry.path();
  }
}

INSTANTIATE_TEST_SUITE_P(Shards, DocumentFuzz, ::testing::Range(0, kShards));

}  // namespace
}  // namespace sonorell::e2e
