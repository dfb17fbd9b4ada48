// sonorell-content-server run the way a test in another process runs it: started with
// --print-ready --port 0 on a data directory, its ready line read for where it listens, requests
// sent over HTTPS with libcurl trusting the CA it printed, stopped with SIGTERM. Test thread only.
#pragma once

#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "child_program.h"
#include "http_fetch.h"

namespace sonorell::content::testing {

// The server binary this build made.
std::filesystem::path contentServerProgram();
// A file for a child's standard error, unique to this test process.
std::filesystem::path stderrFileFor(std::string_view name);
std::string readWholeFile(const std::filesystem::path& path);

class ServerProcess {
 public:
  // Waits (up to two minutes: a fresh data directory is rendered first) for the ready line.
  ServerProcess(const std::filesystem::path& dataDir, const std::vector<std::string>& arguments);

  // The ready line, parsed; null when none arrived, which stderrText() then explains.
  const nlohmann::json& ready() const { return ready_; }
  std::string baseURL() const;
  std::string stderrText() const { return readWholeFile(stderrFile_); }

  HttpResult request(std::string method, std::string_view path,
                     std::optional<std::string> body = std::nullopt,
                     std::vector<std::string> headers = {}) const;
  HttpResult get(std::string_view path, std::vector<std::string> headers = {}) const {
    return request("GET", path, std::nullopt, std::move(headers));
  }
  HttpResult put(std::string_view path, std::string body) const {
    return request("PUT", path, std::move(body));
  }
  HttpResult del(std::string_view path) const { return request("DELETE", path); }

  // SIGTERM, then how the server ended: "exit 0" when it stopped cleanly.
  std::string terminate();

 private:
  std::filesystem::path stderrFile_;
  std::unique_ptr<ChildProgram> child_;
  nlohmann::json ready_;
};

}  // namespace sonorell::content::testing
