#include "library_checks.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace sonorell::e2e {

namespace fs = std::filesystem;
using nlohmann::json;

int64_t summaryCode(const CommandResult& result) {
  const auto lines = result.jsonLines();
  if (lines.empty() || lines.back().value("event", "") != "summary") return -1;
  const auto& summary = lines.back();
  if (!summary.contains("error")) return 0;
  return summary.at("error").value("code", int64_t{-1});
}

std::vector<ChapterState> chapterStates(const World& world, const std::string& book) {
  std::vector<ChapterState> states;
  const json report = world.status(book);
  if (!report.is_object()) {
    ADD_FAILURE() << "no status document for " << book;
    return states;
  }
  for (const auto& c : report.value("chapters", json::array())) {
    ChapterState state{c.at("part").get<uint64_t>(),
                       c.at("chapter").get<uint64_t>(),
                       c.at("status").get<uint64_t>(),
                       c.value("file", ""),
                       {}};
    if (state.status == kDownloaded) state.sha256 = sha256OfFile(state.file);
    states.push_back(std::move(state));
  }
  return states;
}

void expectDownloadedChaptersKept(const World& world, const std::string& book,
                                  const std::vector<ChapterState>& before) {
  const auto now = chapterStates(world, book);
  for (const auto& old : before) {
    if (old.status != kDownloaded) continue;
    const auto same = std::find_if(now.begin(), now.end(), [&](const ChapterState& c) {
      return c.part == old.part && c.chapter == old.chapter;
    });
    ASSERT_NE(same, now.end()) << book << " lost the record of chapter " << old.chapter;
    EXPECT_EQ(same->status, kDownloaded) << book << " chapter " << old.chapter;
    EXPECT_EQ(same->file, old.file) << book << " chapter " << old.chapter;
    EXPECT_EQ(sha256OfFile(old.file), old.sha256)
        << book << " chapter " << old.chapter << " changed on disk";
  }
}

void expectWholeBook(const World& world, const std::string& book) {
  const json served = world.catalogueBook(book);
  ASSERT_TRUE(served.is_object()) << book;
  const json report = world.status(book);
  ASSERT_TRUE(report.is_object()) << book;
  EXPECT_EQ(report.at("status"), kDownloaded) << report.dump();
  const auto& chapters = report.at("chapters");
  ASSERT_EQ(chapters.size(), served.at("chapters").size()) << report.dump();
  for (std::size_t i = 0; i < chapters.size(); ++i) {
    const auto& c = chapters[i];
    const auto& s = served.at("chapters")[i];
    EXPECT_EQ(c.at("status"), kDownloaded) << c.dump();
    EXPECT_EQ(sha256OfFile(c.at("file").get<std::string>()), s.at("sha256").get<std::string>())
        << "chapter " << c.at("chapter") << " of " << book << " is not the served file";
  }
}

std::vector<std::pair<std::string, std::string>> fileDigests(const fs::path& root) {
  std::vector<std::pair<std::string, std::string>> digests;
  std::error_code ignored;
  for (auto it = fs::recursive_directory_iterator(root, ignored);
       it != fs::recursive_directory_iterator(); it.increment(ignored)) {
    if (it->is_regular_file(ignored)) {
      digests.emplace_back(fs::relative(it->path(), root).string(), sha256OfFile(it->path()));
    }
  }
  std::sort(digests.begin(), digests.end());
  return digests;
}

void expectNoUnfinishedFiles(const fs::path& root) {
  std::string names;
  for (const auto& file : unfinishedFiles(root)) {
    names += "\n  " + file.string() + " (" + std::to_string(fs::file_size(file)) + " bytes)";
  }
  EXPECT_TRUE(names.empty()) << "unfinished files left:" << names;
}

std::string describe(const CommandResult& result) {
  return "exit " + std::to_string(result.exitCode) + "\n--- stdout\n" + result.out +
         "--- stderr\n" + result.err;
}

}  // namespace sonorell::e2e
