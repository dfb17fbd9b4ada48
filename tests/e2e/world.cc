#include "world.h"

#include <openssl/evp.h>

#include <fstream>
#include <stdexcept>

#include "data_dir.h"

namespace sonorell::e2e {

namespace fs = std::filesystem;
using nlohmann::json;

World::World() {
  library_ = fs::temp_directory_path() /
             ("sonorell-e2e-" + std::to_string(::getpid()) + "-" +
              std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()));
  fs::create_directories(library_);
  server_ = std::make_unique<content::testing::ServerProcess>(content::defaultDataDir(),
                                                              std::vector<std::string>{"--admin"});
}

World::~World() {
  server_->terminate();
  std::error_code ignored;
  // A test may have made parts of it unreadable on purpose.
  for (auto it = fs::recursive_directory_iterator(library_, ignored);
       it != fs::recursive_directory_iterator(); it.increment(ignored)) {
    fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ignored);
  }
  fs::remove_all(library_, ignored);
}

bool World::ready(std::string& why) const {
  if (!server_->baseURL().empty()) return true;
  why = server_->stderrText();
  return false;
}

Environment World::environment(const Environment& extra) const {
  Environment env{{"SONORELL_API_BASE_URL", server_->baseURL()},
                  {"SONORELL_CA_FILE", server_->ready().value("caCertificate", "")},
                  {"SONORELL_SESSION_KEY", "e2e-session"},
                  {"SONORELL_LICENSE_ID", "e2e-license"},
                  {"SONORELL_AUDIO_SINK", "fakesink"}};
  for (const auto& [name, value] : extra) env[name] = value;
  return env;
}

CommandResult World::sonorell(std::vector<std::string> arguments, const Environment& extra,
                              Seconds limit) const {
  arguments.insert(arguments.begin(), {"--library", library_.string()});
  return cli::testing::runCommand(SONORELL_CLI, arguments, environment(extra), limit);
}

std::unique_ptr<ChildProgram> World::startSonorell(std::vector<std::string> arguments,
                                                   const fs::path& stderrFile,
                                                   const Environment& extra) const {
  arguments.insert(arguments.begin(), {"--library", library_.string()});
  std::vector<std::string> env;
  for (const auto& [name, value] : environment(extra)) env.push_back(name + "=" + value);
  return std::make_unique<ChildProgram>(SONORELL_CLI, arguments, stderrFile, env);
}

std::pair<long, json> World::admin(const std::string& method, const std::string& path,
                                   const json& body) const {
  const auto answer = server_->request(
      method, path, body.is_null() ? std::nullopt : std::optional<std::string>(body.dump()),
      {"Content-Type: application/json"});
  return {answer.status, json::parse(answer.body, nullptr, false)};
}

bool World::setFaults(const json& rules) const {
  return admin("PUT", "/_admin/faults", json{{"rules", rules}}).first == 200;
}

json World::requests() const {
  const auto [status, body] = admin("GET", "/_admin/requests");
  if (status != 200 || !body.is_object()) return json::array();
  return body.value("requests", json::array());
}

json World::catalogueBook(const std::string& id) const {
  const auto catalogue = admin("GET", "/_admin/catalogue").second;
  if (!catalogue.is_object()) return nullptr;
  for (const auto& book : catalogue.value("books", json::array())) {
    if (book.at("id") == id) return book;
  }
  return nullptr;
}

json World::status(const std::string& book) const {
  const auto result = sonorell({"--json", "status", book});
  if (result.exitCode != 0) return nullptr;
  // The status document, then the summary line.
  for (const auto& line : result.jsonLines()) {
    if (line.value("event", "") != "summary") return line;
  }
  return nullptr;
}

std::string sha256OfFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return {};
  EVP_MD_CTX* context = EVP_MD_CTX_new();
  EVP_DigestInit_ex(context, EVP_sha256(), nullptr);
  std::vector<char> buffer(1 << 16);
  while (in) {
    in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
    EVP_DigestUpdate(context, buffer.data(), static_cast<std::size_t>(in.gcount()));
  }
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_DigestFinal_ex(context, digest, &length);
  EVP_MD_CTX_free(context);
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex;
  for (unsigned int i = 0; i < length; ++i) {
    hex += kHex[digest[i] >> 4];
    hex += kHex[digest[i] & 0xf];
  }
  return hex;
}

std::vector<fs::path> unfinishedFiles(const fs::path& root) {
  std::vector<fs::path> found;
  std::error_code ignored;
  for (auto it = fs::recursive_directory_iterator(root, ignored);
       it != fs::recursive_directory_iterator(); it.increment(ignored)) {
    if (!it->is_regular_file(ignored)) continue;
    const auto& path = it->path();
    const auto extension = path.extension().string();
    if (extension == ".tmp" || extension == ".part" ||
        path.parent_path().filename() == "TransferTemporaryFiles") {
      found.push_back(path);
    }
  }
  return found;
}

}  // namespace sonorell::e2e
