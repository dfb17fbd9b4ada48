// What an end-to-end test drives: the reference server binary with its admin endpoints, and the
// sonorell CLI binary run against it as separate processes on a Library of the test's own.
// Used from the test's thread only.
#pragma once

#include <nlohmann/json.hpp>

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "child_program.h"
#include "processes.h"
#include "server_process.h"

namespace sonorell::e2e {

using cli::testing::CommandResult;
using content::testing::ChildProgram;
using Seconds = std::chrono::seconds;
using Environment = std::map<std::string, std::string>;

class World {
 public:
  // Starts the server (on the machine's shared data directory, so chapters are rendered once)
  // with --admin, and makes an empty Library directory.
  World();
  ~World();  // stops the server, removes the Library
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  // False (with the server's standard error in `why`) when the server did not come up.
  bool ready(std::string& why) const;
  const std::filesystem::path& library() const { return library_; }
  std::string baseURL() const { return server_->baseURL(); }

  // The CLI's environment: server URL, CA, credentials, a silent sink; `extra` wins.
  Environment environment(const Environment& extra = {}) const;
  // `sonorell --library <Library> arguments...`, run to completion (killed after `limit`).
  CommandResult sonorell(std::vector<std::string> arguments, const Environment& extra = {},
                         Seconds limit = Seconds(120)) const;
  // The same, started and left running (to be killed); its standard error goes to `stderrFile`.
  std::unique_ptr<ChildProgram> startSonorell(std::vector<std::string> arguments,
                                              const std::filesystem::path& stderrFile,
                                              const Environment& extra = {}) const;

  // An admin endpoint's HTTP status and JSON answer (null when the body is not JSON).
  std::pair<long, nlohmann::json> admin(const std::string& method, const std::string& path,
                                        const nlohmann::json& body = nullptr) const;
  // Replaces the fault plan with these rules; false when the server refused them.
  bool setFaults(const nlohmann::json& rules) const;
  bool clearFaults() const { return admin("DELETE", "/_admin/faults").first == 200; }
  // Every request since the last clearRequests(): [{"method", "path", "headers", "status",
  // "bytesSent"}].
  nlohmann::json requests() const;
  bool clearRequests() const { return admin("DELETE", "/_admin/requests").first == 200; }
  // The catalogue's entry for a book ({"id", "title", "chapters": [...]}), null when unknown.
  nlohmann::json catalogueBook(const std::string& id) const;

  // `status --json BOOK`'s document (null when the command failed or printed none).
  nlohmann::json status(const std::string& book) const;

 private:
  std::filesystem::path library_;
  std::unique_ptr<content::testing::ServerProcess> server_;
};

// Lower-case hex SHA-256 of a file's bytes; empty when it cannot be read.
std::string sha256OfFile(const std::filesystem::path& path);
// Regular files under `root` whose names look unfinished (temporary or partial downloads).
std::vector<std::filesystem::path> unfinishedFiles(const std::filesystem::path& root);

}  // namespace sonorell::e2e
