// The sonorell CLI as scripts and people use it: the binary run as a process against the
// reference server binary, its exit codes, JSON lines and status tables, and under a
// pseudo-terminal its progress bars and player keys.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>

#include "data_dir.h"
#include "processes.h"
#include "server_process.h"
#include "support/temp_library.h"

namespace sonorell::cli::testing {
namespace {

namespace fs = std::filesystem;

constexpr const char* kBook = "1001";  // three short chapters

class CLI : public ::testing::Test {
 protected:
  // The machine's shared data directory: chapters rendered once serve every test process.
  static void SetUpTestSuite() {
    server_ = new content::testing::ServerProcess(content::defaultDataDir(), {"--admin"});
  }
  static void TearDownTestSuite() {
    EXPECT_EQ(server_->terminate(), "exit 0");
    delete server_;
  }
  void SetUp() override {
    ASSERT_FALSE(server_->baseURL().empty()) << server_->stderrText();
    ASSERT_EQ(admin("DELETE", "/_admin/faults").first, 200);
  }

  // Chapter bytes paced to this rate from now on.
  static void paceAudio(uint64_t bytesPerSecond) {
    ASSERT_EQ(admin("PUT", "/_admin/faults",
                    {{"rules",
                      {{{"route", "audio"},
                        {"count", nullptr},
                        {"fault", {{"bytesPerSecond", bytesPerSecond}}}}}}})
                  .first,
              200);
  }

  // An admin endpoint's status and JSON answer.
  static std::pair<long, nlohmann::json> admin(const std::string& method, const std::string& path,
                                               const nlohmann::json& body = nullptr) {
    const auto answer = server_->request(
        method, path, body.is_null() ? std::nullopt : std::optional<std::string>(body.dump()),
        {"Content-Type: application/json"});
    return {answer.status, nlohmann::json::parse(answer.body, nullptr, false)};
  }

  std::map<std::string, std::string> environment() const {
    return {{"SONORELL_API_BASE_URL", server_->baseURL()},
            {"SONORELL_CA_FILE", server_->ready().value("caCertificate", "")},
            {"SONORELL_SESSION_KEY", "cli-session"},
            {"SONORELL_LICENSE_ID", "cli-license"},
            {"SONORELL_AUDIO_SINK", "fakesink"}};
  }
  CommandResult sonorell(std::vector<std::string> arguments,
                         std::map<std::string, std::string> env = {}) const {
    arguments.insert(arguments.begin(), {"--library", library_.path().string()});
    auto all = environment();
    for (auto& [k, v] : env) all[k] = v;
    return runCommand(SONORELL_CLI, arguments, all);
  }
  nlohmann::json catalogueBook(const std::string& id) const {
    const auto catalogue = admin("GET", "/_admin/catalogue").second;
    for (const auto& book : catalogue.at("books")) {
      if (book.at("id") == id) return book;
    }
    return nullptr;
  }

  static content::testing::ServerProcess* server_;
  sonorell::testing::TempLibrary library_;
};

content::testing::ServerProcess* CLI::server_ = nullptr;

std::vector<std::string> eventNames(const std::vector<nlohmann::json>& lines) {
  std::vector<std::string> names;
  for (const auto& l : lines) names.push_back(l.at("event").get<std::string>());
  return names;
}

// Where the first event of that name (and chapter, when given) is; npos when there is none.
std::size_t indexOf(const std::vector<nlohmann::json>& lines, const std::string& name,
                    int chapter = -1) {
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (lines[i].at("event") != name) continue;
    if (chapter < 0 || lines[i]["ChapterDescription"]["chapter"] == chapter) return i;
  }
  return std::string::npos;
}

TEST_F(CLI, DownloadsABookWithOrderedEventsThenStatusMatchesTheCatalogueAndItPlaysToTheEnd) {
  const auto download = sonorell({"--json", "download", kBook});
  ASSERT_EQ(download.exitCode, 0) << download.err;
  const auto lines = download.jsonLines();
  ASSERT_GE(lines.size(), 3u);
  EXPECT_EQ(lines.front().at("event"), "QSODatabaseVerificationComplete");
  EXPECT_EQ(lines.back().at("event"), "summary");
  EXPECT_EQ(lines.back().at("exitCode"), 0);
  EXPECT_EQ(lines[lines.size() - 2].at("event"), "QSODownloadRequestSuccess");
  const auto bookStaged = indexOf(lines, "QSOAudiobookDownloadStaged");
  const auto bookDone = indexOf(lines, "QSOAudiobookDownloadSuccess");
  ASSERT_NE(bookStaged, std::string::npos);
  ASSERT_NE(bookDone, std::string::npos);
  for (int chapter = 1; chapter <= 3; ++chapter) {
    const auto staged = indexOf(lines, "QSOChapterDownloadStaged", chapter);
    const auto started = indexOf(lines, "QSOChapterDownloadStarted", chapter);
    const auto success = indexOf(lines, "QSOChapterDownloadSuccess", chapter);
    ASSERT_NE(success, std::string::npos) << "chapter " << chapter;
    EXPECT_LT(bookStaged, staged);
    EXPECT_LT(staged, started);
    EXPECT_LT(started, success);
    EXPECT_LT(success, bookDone);
    EXPECT_FALSE(lines[success].contains("SonorellError"));
  }
  // Every line of the request names it.
  const auto request = lines[lines.size() - 2].at("DownloadRequestID");
  EXPECT_EQ(lines[bookStaged].at("DownloadRequestID"), request);

  const auto status = sonorell({"status", kBook, "--json"});
  ASSERT_EQ(status.exitCode, 0) << status.err;
  const auto report = status.jsonLines().front();
  const auto book = catalogueBook(kBook);
  ASSERT_FALSE(book.is_null());
  EXPECT_EQ(report.at("statusName"), "Downloaded");
  EXPECT_EQ(report.at("percentage"), 100.0);
  ASSERT_EQ(report.at("chapters").size(), book.at("chapters").size());
  uint64_t total = 0;
  for (std::size_t i = 0; i < book.at("chapters").size(); ++i) {
    const auto& served = book.at("chapters")[i];
    const auto& chapter = report.at("chapters")[i];
    EXPECT_EQ(chapter.at("part"), served.at("part"));
    EXPECT_EQ(chapter.at("chapter"), served.at("chapter"));
    EXPECT_EQ(chapter.at("statusName"), "Downloaded");
    EXPECT_EQ(chapter.at("totalSize"), served.at("size"));
    EXPECT_EQ(chapter.at("downloadedSize"), served.at("size"));
    EXPECT_EQ(fs::file_size(chapter.at("file").get<std::string>()),
              served.at("size").get<uint64_t>());
    total += served.at("size").get<uint64_t>();
  }
  EXPECT_EQ(report.at("totalSize"), total);
  const auto list = sonorell({"list", "--json"});
  ASSERT_EQ(list.exitCode, 0);
  const auto listed = list.jsonLines().front().at("audiobooks");
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_EQ(listed[0].at("audiobookID"), kBook);
  EXPECT_FALSE(listed[0].contains("chapters"));

  const auto play = sonorell({"play", kBook, "--until-end", "--json"});
  ASSERT_EQ(play.exitCode, 0) << play.err << play.out;
  const auto played = play.jsonLines();
  const auto complete = indexOf(played, "QSOAudiobookPlaybackComplete");
  ASSERT_NE(complete, std::string::npos) << play.out;
  const auto names = eventNames(played);
  // The unload that ends the book comes after its completion; the summary is the last line.
  auto unloaded = std::find_if(played.begin() + complete, played.end(), [](const auto& l) {
    return l.at("event") == "QSOAudiobookUnloaded" && l.at("UnloadReason") == 1;
  });
  EXPECT_NE(unloaded, played.end());
  EXPECT_EQ(names.back(), "summary");
  for (int chapter = 1; chapter <= 3; ++chapter) {
    EXPECT_NE(indexOf(played, "QSOChapterPlaybackComplete", chapter), std::string::npos);
  }
  EXPECT_EQ(indexOf(played, "QSOChapterPlaybackFailed"), std::string::npos);
}

TEST_F(CLI, AChapterAnswering404FailsTheDownloadWith11004OnStandardErrorAndInTheJSON) {
  const auto book = catalogueBook(kBook);
  const std::string path = book.at("chapters")[1].at("path");
  const auto [status, ids] = admin(
      "PUT", "/_admin/faults",
      {{"rules",
        {{{"route", "audio"}, {"path", path}, {"count", nullptr}, {"fault", {{"status", 404}}}}}}});
  ASSERT_EQ(status, 200);

  const auto download = sonorell({"download", kBook, "--json"});
  EXPECT_EQ(download.exitCode, 1);
  EXPECT_NE(download.err.find("11004"), std::string::npos) << download.err;
  const auto lines = download.jsonLines();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back().at("event"), "summary");
  EXPECT_EQ(lines.back().at("exitCode"), 1);
  EXPECT_EQ(lines.back().at("error").at("code"), 11004);
  EXPECT_TRUE(std::any_of(lines.begin(), lines.end() - 1, [](const auto& l) {
    return l.contains("SonorellError") && l.at("SonorellError").at("code") == 11004;
  })) << download.out;
}

TEST_F(CLI, BadUsageExitsWithTwoAndSaysWhy) {
  for (const auto& arguments : std::vector<std::vector<std::string>>{
           {"download"},
           {"frobnicate"},
           {"download", kBook, "--part", "0"},
           {"play", kBook, "--rate", "9"},
           {"delete"},
       }) {
    const auto result = sonorell(arguments);
    std::string shown;
    for (const auto& a : arguments) shown += a + " ";
    EXPECT_EQ(result.exitCode, 2) << shown;
    EXPECT_FALSE(result.err.empty()) << shown;
    EXPECT_TRUE(result.out.empty()) << shown << result.out;
  }
}

TEST_F(CLI, OnATerminalCtrlCPausesTheDownloadSoNothingIsLeftToResume) {
  paceAudio(2'000);  // far too slow to finish while the test looks
  auto download = PtyProcess::start(
      SONORELL_CLI, {"--library", library_.path().string(), "download", kBook}, environment());
  ASSERT_TRUE(download->waitForText("part 0 ch")) << download->output();
  download->type("\x03");  // the terminal's interrupt character: SIGINT
  EXPECT_EQ(download->wait(), 1) << download->output();
  EXPECT_NE(download->output().find("QSODownloadRequestPaused"), std::string::npos)
      << download->output();
  EXPECT_NE(download->output().find("error 16000"), std::string::npos) << download->output();

  // The request was forgotten: a later run has nothing to take up, and no chapter is complete.
  const auto resume = sonorell({"resume", "--json"});
  EXPECT_EQ(resume.exitCode, 0) << resume.err;
  EXPECT_EQ(resume.out.find("QSODownloadRequestSuccess"), std::string::npos) << resume.out;
  const auto status = sonorell({"status", kBook, "--json"}).jsonLines();
  ASSERT_FALSE(status.empty());
  EXPECT_NE(status.front().at("statusName"), "Downloaded");
}

TEST_F(CLI, OnATerminalDownloadDrawsProgressBarsAndPlayAnswersSpaceAndQ) {
  paceAudio(40'000);  // so that chapters are seen in flight
  auto env = environment();
  auto download = PtyProcess::start(
      SONORELL_CLI, {"--library", library_.path().string(), "download", kBook}, env);
  EXPECT_TRUE(download->waitForText("part 0 ch")) << download->output();
  EXPECT_TRUE(download->waitForText("ETA")) << download->output();
  EXPECT_EQ(download->wait(), 0) << download->output();
  EXPECT_NE(download->output().find("book 1001"), std::string::npos);
  EXPECT_NE(download->output().find("100.0%"), std::string::npos);

  env["SONORELL_AUDIO_SINK"] = "fakesink sync=true";  // real time, so there is time to pause
  auto play =
      PtyProcess::start(SONORELL_CLI, {"--library", library_.path().string(), "play", kBook}, env);
  ASSERT_TRUE(play->waitForText("part 0 ch 1  0:01 / 0:02  1.00x  disk")) << play->output();
  play->type(" ");
  EXPECT_TRUE(play->waitForText("paused")) << play->output();
  play->type("q");
  EXPECT_EQ(play->wait(), 0) << play->output();
}

}  // namespace
}  // namespace sonorell::cli::testing
