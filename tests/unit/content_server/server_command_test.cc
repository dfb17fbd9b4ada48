// The sonorell-content-server command as scripts run it: the ready line of --print-ready, the
// admin paths unknown without --admin, --catalogue's one line of JSON, and the demo book rendered
// as tones when espeak-ng is missing and as speech once it is there.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <set>

#include "catalogue.h"
#include "data_dir.h"
#include "server_process.h"
#include "speech_renderer.h"

namespace sonorell::content::testing {
namespace {

using nlohmann::json;

// A data directory of its own, rendered from nothing; removed afterwards.
class FreshDataDir {
 public:
  explicit FreshDataDir(const std::string& name)
      : path_(std::filesystem::path(::testing::TempDir()) /
              ("sonorell-command-" + name + "-" + std::to_string(::getpid()))) {
    std::filesystem::remove_all(path_);
  }
  ~FreshDataDir() { std::filesystem::remove_all(path_); }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

struct CommandResult {
  std::string ended;  // "exit 0", ...
  std::string out;
  std::string err;
};

CommandResult runCatalogue(const std::filesystem::path& dataDir,
                           const std::vector<std::string>& environment = {}) {
  const auto errFile = stderrFileFor("catalogue");
  ChildProgram child(contentServerProgram(), {"--catalogue", "--data-dir", dataDir.string()},
                     errFile, environment);
  const auto deadline = after(std::chrono::minutes(2));
  CommandResult result;
  result.out = child.readRest(deadline);
  result.ended = child.wait(deadline).value_or("still running");
  result.err = readWholeFile(errFile);
  return result;
}

const json& demoBook(const json& catalogue) {
  for (const json& b : catalogue.at("books")) {
    if (b.at("id") == kDemoBookID) return b;
  }
  static const json kNone = json::object();
  ADD_FAILURE() << "no demo book in " << catalogue.dump().substr(0, 200);
  return kNone;
}

std::vector<std::string> digestsOf(const json& book) {
  std::vector<std::string> out;
  for (const json& c : book.value("chapters", json::array())) out.push_back(c.at("sha256"));
  return out;
}

TEST(ServerCommand, ReadyLineTellsWhereItListensAndAdminPathsAreUnknownWithoutAdmin) {
  ServerProcess server(defaultDataDir(), {});
  const json& ready = server.ready();
  ASSERT_TRUE(ready.is_object()) << server.stderrText();
  EXPECT_EQ(ready.size(), 3u) << ready.dump();
  EXPECT_EQ(ready.at("baseURL").get<std::string>().rfind("https://127.0.0.1:", 0), 0u);
  EXPECT_TRUE(std::filesystem::is_regular_file(ready.at("caCertificate").get<std::string>()));
  EXPECT_EQ(std::filesystem::path(ready.at("dataDir").get<std::string>()), defaultDataDir());

  for (const char* path : {"/_admin/catalogue", "/_admin/requests", "/_admin/analytics"}) {
    EXPECT_EQ(server.get(path).status, 404) << path;
  }
  EXPECT_EQ(server
                .put("/_admin/faults", R"({"rules": [{"route": "metadata", "count": null,
                                                        "fault": {"status": 500}}]})")
                .status,
            404);
  EXPECT_EQ(server.del("/_admin/requests").status, 404);
  // The plan was not taken: the content routes answer as ever.
  EXPECT_EQ(server.get("/v4/audiobooks/" + std::string(kDemoBookID)).status, 200);
  EXPECT_EQ(server.terminate(), "exit 0") << server.stderrText();
  // The human start-up lines went to standard error (read once the server has ended).
  EXPECT_NE(server.stderrText().find("catalogue:"), std::string::npos) << server.stderrText();
}

TEST(ServerCommand, CatalogueOptionPrintsOneJsonLineThatTheServerAgreesWith) {
  const FreshDataDir dir("catalogue");
  const CommandResult printed = runCatalogue(dir.path());
  ASSERT_EQ(printed.ended, "exit 0") << printed.err;
  ASSERT_FALSE(printed.out.empty());
  EXPECT_EQ(printed.out.find('\n'), printed.out.size() - 1) << "one line: " << printed.out;
  const json catalogue = json::parse(printed.out, nullptr, false);
  ASSERT_TRUE(catalogue.is_object()) << printed.out;

  const json& demo = demoBook(catalogue);
  EXPECT_FALSE(demo.value("title", "").empty());
  ASSERT_EQ(demo.value("chapters", json::array()).size(), 3u);
  for (std::size_t i = 0; i < 3; ++i) {
    const json& c = demo.at("chapters")[i];
    EXPECT_EQ(c.at("path"), "/audio/4001/0/" + std::to_string(i + 1) + ".mp3");
    EXPECT_GT(c.at("size").get<std::uint64_t>(), 100'000u) << "some 15 s at 8000 bytes a second";
    EXPECT_EQ(c.at("sha256").get<std::string>().size(), 64u);
  }

  // A server started on the same directory reuses those files and describes them alike.
  ServerProcess server(dir.path(), {"--admin"});
  ASSERT_TRUE(server.ready().is_object()) << server.stderrText();
  const HttpResult served = server.get("/_admin/catalogue");
  ASSERT_EQ(served.status, 200);
  EXPECT_EQ(json::parse(served.body), catalogue);
  EXPECT_EQ(server.terminate(), "exit 0") << server.stderrText();
}

TEST(ServerCommand, DemoBookIsTonesWithoutEspeakAndSpeechOnceEspeakIsThere) {
  ASSERT_TRUE(findEspeak().has_value()) << "espeak-ng is not installed; scripts/setup.sh adds it";
  const FreshDataDir dir("fallback");
  const auto nowhere = dir.path().parent_path() / "sonorell-command-no-programs";
  const CommandResult tones = runCatalogue(dir.path(), {"PATH=" + nowhere.string()});
  ASSERT_EQ(tones.ended, "exit 0") << tones.err;
  // One line says so, and the book is there all the same.
  EXPECT_NE(tones.err.find("espeak-ng"), std::string::npos) << tones.err;
  EXPECT_EQ(std::count(tones.err.begin(), tones.err.end(), '\n'), 1) << tones.err;
  const json withoutSpeech = json::parse(tones.out);
  ASSERT_EQ(digestsOf(demoBook(withoutSpeech)).size(), 3u);

  // The tones cached then are not taken for speech later.
  const CommandResult speech = runCatalogue(dir.path());
  ASSERT_EQ(speech.ended, "exit 0") << speech.err;
  EXPECT_EQ(speech.err.find("espeak-ng"), std::string::npos) << speech.err;
  const json withSpeech = json::parse(speech.out);
  const auto spoken = digestsOf(demoBook(withSpeech));
  const auto toned = digestsOf(demoBook(withoutSpeech));
  ASSERT_EQ(spoken.size(), 3u);
  for (std::size_t i = 0; i < 3; ++i) EXPECT_NE(spoken[i], toned[i]) << "chapter " << i + 1;
  // The other books do not depend on espeak-ng.
  ASSERT_EQ(withSpeech.at("books").size(), withoutSpeech.at("books").size());
  for (std::size_t i = 0; i + 1 < withSpeech.at("books").size(); ++i) {
    EXPECT_EQ(withSpeech.at("books")[i], withoutSpeech.at("books")[i]) << i;
  }
}

}  // namespace
}  // namespace sonorell::content::testing
