#include "server_process.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <sstream>

namespace sonorell::content::testing {

std::filesystem::path contentServerProgram() { return SONORELL_CONTENT_SERVER; }

std::filesystem::path stderrFileFor(std::string_view name) {
  static std::atomic<unsigned> sequence{0};
  return std::filesystem::path(::testing::TempDir()) /
         ("sonorell-" + std::string(name) + "-" + std::to_string(::getpid()) + "-" +
          std::to_string(sequence++) + ".stderr");
}

std::string readWholeFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

ServerProcess::ServerProcess(const std::filesystem::path& dataDir,
                             const std::vector<std::string>& arguments)
    : stderrFile_(stderrFileFor("content-server")) {
  std::vector<std::string> args{"--print-ready", "--port", "0", "--data-dir", dataDir.string()};
  args.insert(args.end(), arguments.begin(), arguments.end());
  child_ = std::make_unique<ChildProgram>(contentServerProgram(), args, stderrFile_);
  const auto line = child_->readLine(after(std::chrono::minutes(2)));
  if (line) ready_ = nlohmann::json::parse(*line, nullptr, false);
  if (ready_.is_discarded()) ready_ = nlohmann::json();
}

std::string ServerProcess::baseURL() const {
  return ready_.is_object() ? ready_.value("baseURL", "") : "";
}

HttpResult ServerProcess::request(std::string method, std::string_view path,
                                  std::optional<std::string> body,
                                  std::vector<std::string> headers) const {
  HttpRequest r;
  r.method = std::move(method);
  r.url = baseURL() + std::string(path);
  r.caFile = ready_.is_object() ? ready_.value("caCertificate", "") : "";
  r.body = std::move(body);
  r.headers = std::move(headers);
  return fetch(r);
}

std::string ServerProcess::terminate() {
  child_->signal(SIGTERM);
  return child_->wait(after(std::chrono::seconds(30))).value_or("still running after SIGTERM");
}

}  // namespace sonorell::content::testing
